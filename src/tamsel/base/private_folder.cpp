#include "tamsel/base/private_folder.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "tamsel/base/env.hpp"

namespace tamsel::base {

namespace fs = std::filesystem;

namespace {
[[noreturn]] void refuse(const fs::path& folder, const std::string& why) {
  throw PrivateFolderError("refusing to use " + folder.string() + ": " + why);
}
}  // namespace

fs::path userRuntimeFolder() {
  if (auto runtime = env::get("XDG_RUNTIME_DIR"); runtime && fs::path(*runtime).is_absolute())
    return *runtime;
  fs::path temp = "/tmp";
  if (auto tmpdir = env::get("TMPDIR"); tmpdir && fs::path(*tmpdir).is_absolute()) temp = *tmpdir;
  const fs::path own = temp / ("tamsel-" + std::to_string(::geteuid()));
  ensurePrivateFolder(own);
  return own;
}

void ensurePrivateFolder(const fs::path& folder) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) refuse(folder, std::strerror(errno));
  // Checked through a descriptor of the folder itself, so a swap after the check changes nothing.
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    refuse(folder, error == ELOOP || error == ENOTDIR ? "it is not a real directory"
                                                      : std::strerror(error));
  }
  struct stat info {};
  const bool known = ::fstat(fd, &info) == 0;
  const bool ours = known && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid();
  const bool narrowed = ours && ((info.st_mode & 077) == 0 || ::fchmod(fd, 0700) == 0);
  ::close(fd);
  if (!ours) refuse(folder, "it is not a directory owned by this user");
  if (!narrowed) refuse(folder, "it is open to other users and cannot be made private");
}

std::size_t removeFilesOlderThan(const fs::path& folder, std::chrono::seconds age) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return 0;
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    ::close(fd);
    return 0;
  }
  const std::time_t cutoff = std::time(nullptr) - static_cast<std::time_t>(age.count());
  std::size_t removed = 0;
  while (const dirent* entry = ::readdir(dir)) {
    struct stat info {};
    if (::fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (!S_ISREG(info.st_mode) || info.st_mtime >= cutoff) continue;
    if (::unlinkat(fd, entry->d_name, 0) == 0) ++removed;
  }
  ::closedir(dir);
  return removed;
}

}  // namespace tamsel::base
