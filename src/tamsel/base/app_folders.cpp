#include "tamsel/base/app_folders.hpp"

#include <set>
#include <system_error>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/mutex.hpp"

namespace tamsel::base {

namespace fs = std::filesystem;

namespace {
fs::path ensureDirectory(const fs::path& path) {
  std::error_code ec;
  if (fs::create_directories(path, ec))
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::replace, ec);
  // The first time a process opens the folder, temporaries of saves that a killed process never
  // finished are removed (drafts, preferences, tokens: each may be megabytes).
  static Mutex mutex;
  static std::set<fs::path> swept;
  MutexLock lock(mutex);
  if (swept.insert(path).second) removeStaleTemporariesIn(path);
  return path;
}

bool usable(const std::optional<std::string>& xdg) {
  return xdg && !xdg->empty() && xdg->front() == '/';
}
}  // namespace

AppFolders AppFolders::from(const env::Environment& environment) {
  AppFolders folders;
  folders.home = environment.home;
  folders.dataHome = usable(environment.xdgDataHome) ? fs::path(*environment.xdgDataHome)
                                                     : folders.home / ".local" / "share";
  folders.configHome = usable(environment.xdgConfigHome) ? fs::path(*environment.xdgConfigHome)
                                                         : folders.home / ".config";
  return folders;
}

fs::path AppFolders::engineSupportDirectory() const {
  return ensureDirectory(dataHome / engineSupportIdentifier);
}

fs::path AppFolders::appSupportDirectory() const {
  return ensureDirectory(dataHome / appSupportIdentifier);
}

}  // namespace tamsel::base
