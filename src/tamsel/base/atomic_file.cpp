#include "tamsel/base/atomic_file.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
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
  // The writer's PID in the name lets a later start tell a leftover from a save in progress.
  const auto temp = folder / ("." + path.filename().string() + "." + std::to_string(::getpid()) +
                              "-" + newUUIDString().substr(0, 8) + ".tmp");
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

namespace {
// Whether `name` is a temporary of `target` (any file when empty) that no live writer owns.
bool isStaleTemporary(const std::string& name, const std::string& target,
                      const std::filesystem::path& path) {
  if (name.size() < 6 || name[0] != '.' || !name.ends_with(".tmp")) return false;
  const std::string inner = name.substr(1, name.size() - 5);  // "<target>.<tag>"
  const auto dot = inner.rfind('.');
  if (dot == std::string::npos || dot == 0) return false;
  if (!target.empty() && inner.substr(0, dot) != target) return false;
  const std::string tag = inner.substr(dot + 1);
  const auto dash = tag.find('-');
  if (dash != std::string::npos) {
    // "<pid>-<random>": stale once that process is gone.
    const std::string pid = tag.substr(0, dash);
    if (pid.empty() || pid.size() > 9 || pid.find_first_not_of("0123456789") != std::string::npos)
      return false;
    const long number = std::stol(pid);
    return number > 0 && ::kill(static_cast<pid_t>(number), 0) != 0 && errno == ESRCH;
  }
  // An older "<random>" without a PID: stale once nobody could still be writing it.
  if (tag.size() != 8) return false;
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         info.st_mtime + 3600 < std::time(nullptr);
}

std::size_t removeTemporaries(const std::filesystem::path& folder, const std::string& target) {
  std::size_t removed = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    const auto& path = it->path();
    if (!isStaleTemporary(path.filename().string(), target, path)) continue;
    std::error_code ignored;
    if (std::filesystem::remove(path, ignored)) ++removed;
  }
  return removed;
}
}  // namespace

std::size_t removeStaleTemporaries(const std::filesystem::path& path) {
  const auto folder = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  return removeTemporaries(folder, path.filename().string());
}

std::size_t removeStaleTemporariesIn(const std::filesystem::path& folder) {
  return removeTemporaries(folder, {});
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
