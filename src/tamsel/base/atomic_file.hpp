#pragma once
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string_view>

namespace tamsel::base {

// Writes `contents` to `path` so that readers see either the old file or the whole new one:
// a temporary file in the same folder, fsync, rename, then fsync of the folder.
// `mode` is applied to the new file (0600 for files that hold secrets or user data).
// Throws std::system_error on failure; the old file is left untouched then.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                         unsigned mode = 0600);

// Removes the temporaries writeFileAtomically left beside `path` when its writer died before the
// rename (kill -9, power loss): ".<name>.<pid>-<random>.tmp" whose process is gone, and older
// ones without a PID once they are an hour old. Temporaries of a live writer are left alone.
// Returns how many were removed; errors are skipped.
std::size_t removeStaleTemporaries(const std::filesystem::path& path);
// The same for every file in `folder`.
std::size_t removeStaleTemporariesIn(const std::filesystem::path& folder);

// Keeps a file we could not read under "<name>.bad-<time>" (a numbered suffix if taken), so it
// is never written over. Returns the new path, or nothing when it could not be moved.
std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path);

// Reads a whole file; std::nullopt-like empty result is not used so callers can tell
// "missing" from "empty": returns false when the file cannot be opened.
bool readFile(const std::filesystem::path& path, std::string& out);

}  // namespace tamsel::base
