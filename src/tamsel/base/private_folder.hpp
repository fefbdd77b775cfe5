#pragma once
// Folders for the user's own short-lived files (images materialised from session files), which
// no other user may read, replace or redirect.
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <stdexcept>

namespace tamsel::base {

class PrivateFolderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The user's runtime folder: $XDG_RUNTIME_DIR when it is set to an absolute path, else a folder
// of this user's own in the temporary directory ("<$TMPDIR or /tmp>/tamsel-<uid>"), made
// private as below. A shared temporary directory is never used as it is: any user could plant
// a symlink or a folder of their own under a predictable name there.
std::filesystem::path userRuntimeFolder();

// Creates `folder` (mode 0700) when it is missing, and checks it: a real directory, not a
// symlink, owned by this user. One that is ours but open to others is narrowed to 0700.
// Throws PrivateFolderError naming the folder and the reason otherwise.
void ensurePrivateFolder(const std::filesystem::path& folder);

// Removes the regular files directly in `folder` last modified more than `age` ago; returns how
// many. Errors are skipped (a file another process removed first is not a failure).
std::size_t removeFilesOlderThan(const std::filesystem::path& folder, std::chrono::seconds age);

}  // namespace tamsel::base
