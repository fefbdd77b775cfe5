#pragma once
// The engine's files, all in its support folder so the socket, the pidfile and the token file
// always share one folder, and the legacy user unit of the engine's own command-line tool.
#include <filesystem>

#include "tamsel/base/app_folders.hpp"

namespace tamsel::bridge {

class DaemonPaths {
 public:
  // The systemd user unit under which the engine's own command-line tool runs its daemon.
  static constexpr const char* legacyUnitName = "dev.tamsel.verd.service";

  explicit DaemonPaths(base::AppFolders folders) : folders_(std::move(folders)) {}
  const base::AppFolders& folders() const { return folders_; }

  // Created on demand (0700).
  std::filesystem::path engineSupportDirectory() const { return folders_.engineSupportDirectory(); }
  std::filesystem::path socketPath() const { return engineSupportDirectory() / "daemon.sock"; }
  std::filesystem::path pidfilePath() const { return engineSupportDirectory() / "daemon.pid"; }
  // The presence token of the engine this desktop started, owner-only, beside the pidfile.
  std::filesystem::path tokenFilePath() const { return engineSupportDirectory() / "daemon.token"; }
  // Output of an engine this desktop started, kept for diagnostics.
  std::filesystem::path engineLogPath() const { return engineSupportDirectory() / "engine.log"; }
  // Held by the one `tamsel run` of this user; holds its PID.
  std::filesystem::path supervisorLockPath() const {
    return engineSupportDirectory() / "supervisor.lock";
  }
  // Written by a stop the user asked for, holding the engine's PID (or nothing), so that a
  // supervisor in another process takes the engine's exit as intended, not as a crash.
  std::filesystem::path stopRequestPath() const {
    return engineSupportDirectory() / "stop-requested";
  }
  // ~/.config/systemd/user/<unit>: may keep a second engine alive.
  std::filesystem::path legacyUnitPath() const {
    return folders_.configHome / "systemd" / "user" / legacyUnitName;
  }

 private:
  base::AppFolders folders_;
};

}  // namespace tamsel::bridge
