#include "tamsel/bridge/daemon_paths.hpp"

#include <system_error>

#include "tamsel/base/env.hpp"

namespace tamsel::bridge {

namespace fs = std::filesystem;

namespace {
fs::path ensureDirectory(const fs::path& path) {
  std::error_code ec;
  if (fs::create_directories(path, ec)) {
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::replace, ec);
  }
  return path;
}

fs::path configHome() {
  if (auto xdg = base::env::get("XDG_CONFIG_HOME"); xdg && !xdg->empty() && xdg->front() == '/')
    return *xdg;
  return fs::path(base::env::homeDirectory()) / ".config";
}
}  // namespace

fs::path DaemonPaths::dataHome() {
  // Relative values are invalid by the XDG rules and are ignored.
  if (auto xdg = base::env::get("XDG_DATA_HOME"); xdg && !xdg->empty() && xdg->front() == '/')
    return *xdg;
  return fs::path(base::env::homeDirectory()) / ".local" / "share";
}

fs::path DaemonPaths::engineSupportDirectory() {
  return ensureDirectory(dataHome() / engineSupportIdentifier);
}

fs::path DaemonPaths::appSupportDirectory() {
  return ensureDirectory(dataHome() / appSupportIdentifier);
}

fs::path DaemonPaths::socketPath() { return engineSupportDirectory() / "daemon.sock"; }
fs::path DaemonPaths::pidfilePath() { return engineSupportDirectory() / "daemon.pid"; }
fs::path DaemonPaths::tokenFilePath() { return engineSupportDirectory() / "daemon.token"; }
fs::path DaemonPaths::engineLogPath() { return engineSupportDirectory() / "engine.log"; }

fs::path DaemonPaths::legacyLaunchAgentPath() {
  return configHome() / "systemd" / "user" / (std::string(launchAgentLabel) + ".service");
}

}  // namespace tamsel::bridge
