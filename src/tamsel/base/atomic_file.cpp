#include "tamsel/base/atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::base {

namespace {
[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}
}  // namespace

void writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                         unsigned mode) {
  const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  const auto temp =
      folder / ("." + path.filename().string() + "." + newUUIDString().substr(0, 8) + ".tmp");
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) fail("cannot create " + temp.string());
  size_t written = 0;
  while (written < contents.size()) {
    const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int saved = errno;
      ::close(fd);
      ::unlink(temp.c_str());
      errno = saved;
      fail("cannot write " + temp.string());
    }
    written += static_cast<size_t>(n);
  }
  // The umask may have narrowed the mode at creation; the caller's mode is what counts.
  if (::fchmod(fd, mode) != 0 || ::fsync(fd) != 0) {
    const int saved = errno;
    ::close(fd);
    ::unlink(temp.c_str());
    errno = saved;
    fail("cannot finish " + temp.string());
  }
  ::close(fd);
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int saved = errno;
    ::unlink(temp.c_str());
    errno = saved;
    fail("cannot rename into " + path.string());
  }
  const int dirfd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirfd >= 0) {
    ::fsync(dirfd);
    ::close(dirfd);
  }
}

std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path) {
  std::string stamp = formatISO8601(nowTimestamp());
  for (char& c : stamp)
    if (c == ':') c = '-';
  const std::string base = path.string() + ".bad-" + stamp;
  std::filesystem::path target = base;
  std::error_code ec;
  for (int n = 2; std::filesystem::exists(target, ec) && n < 100; ++n)
    target = base + "-" + std::to_string(n);
  if (ec || std::filesystem::exists(target, ec)) return std::nullopt;
  std::filesystem::rename(path, target, ec);
  if (ec) return std::nullopt;
  return target;
}

bool readFile(const std::filesystem::path& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  out = std::move(buffer).str();
  return !in.bad();
}

}  // namespace tamsel::base
