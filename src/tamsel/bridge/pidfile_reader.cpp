#include "tamsel/bridge/pidfile_reader.hpp"

#include <charconv>
#include <string>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/strings.hpp"

namespace tamsel::bridge {

std::optional<std::int32_t> PidfileReader::parse(std::string_view contents) noexcept {
  std::string_view text = base::trim(contents);
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) return std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  std::int32_t pid = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), pid);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return pid;
}

std::optional<std::int32_t> PidfileReader::read(const std::filesystem::path& pidfile) noexcept {
  try {
    std::string contents;
    if (!base::readFile(pidfile, contents)) return std::nullopt;
    return parse(contents);
  } catch (...) {
    return std::nullopt;
  }
}

std::optional<std::int32_t> PidfileReader::readProcessID(
    const std::filesystem::path& pidfile) noexcept {
  auto pid = read(pidfile);
  if (pid && *pid <= 0) return std::nullopt;
  return pid;
}

}  // namespace tamsel::bridge
