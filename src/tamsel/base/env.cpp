#include "tamsel/base/env.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "tamsel/base/mutex.hpp"

extern char** environ;

namespace tamsel::base::env {

namespace {
Mutex& envMutex() {
  static Mutex mutex;
  return mutex;
}
}  // namespace

std::optional<std::string> get(const char* name) {
  MutexLock lock(envMutex());
  const char* value = std::getenv(name);
  if (!value) return std::nullopt;
  return std::string(value);
}

void set(const char* name, const std::string& value) {
  MutexLock lock(envMutex());
  ::setenv(name, value.c_str(), 1);
}

std::vector<std::string> all() {
  MutexLock lock(envMutex());
  std::vector<std::string> out;
  for (char** entry = environ; entry && *entry; ++entry) out.emplace_back(*entry);
  return out;
}

std::string homeDirectory() {
  if (auto home = get("HOME"); home && !home->empty()) return *home;
  if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

}  // namespace tamsel::base::env

namespace tamsel::base::env {

Environment read() {
  Environment e;
  e.home = homeDirectory();
  e.xdgDataHome = get("XDG_DATA_HOME");
  e.xdgConfigHome = get("XDG_CONFIG_HOME");
  e.verdBinary = get("VERD_BINARY");
  e.desktopRPC = get("TAMSEL_DESKTOP_RPC");
  e.presenceToken = get("TAMSEL_LOCAL_PRESENCE_TOKEN");
  e.axServerBundlePath = get("TAMSEL_AX_SERVER_BUNDLE_PATH");
  const auto noColor = get("NO_COLOR");
  e.noColor = noColor && !noColor->empty();
  e.meetingDisableSystap = get("TamselMeetingDisableSystap");
  e.display = get("DISPLAY");
  e.waylandDisplay = get("WAYLAND_DISPLAY");
  return e;
}

}  // namespace tamsel::base::env
