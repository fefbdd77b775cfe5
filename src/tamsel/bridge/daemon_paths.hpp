#pragma once
// Where the engine's files and the desktop's own files live.
// Both folders sit under $XDG_DATA_HOME (default ~/.local/share) and are named by fixed
// reverse-DNS identifiers. Every engine path is built from engineSupportDirectory(), so the
// socket, the pidfile and the token file always share one folder.
#include <filesystem>
#include <string>

namespace tamsel::bridge {

struct DaemonPaths {
  static constexpr const char* engineSupportIdentifier = "dev.tamsel.engine";
  static constexpr const char* appSupportIdentifier = "dev.tamsel.desktop";
  // The label under which the engine's own command-line tool registers its user service.
  static constexpr const char* launchAgentLabel = "dev.tamsel.verd";

  // $XDG_DATA_HOME or ~/.local/share.
  static std::filesystem::path dataHome();
  // Created on demand (0700).
  static std::filesystem::path engineSupportDirectory();
  static std::filesystem::path appSupportDirectory();

  static std::filesystem::path socketPath();    // daemon.sock
  static std::filesystem::path pidfilePath();   // daemon.pid
  // The presence token of the engine this desktop started, owner-only, beside the pidfile.
  static std::filesystem::path tokenFilePath(); // daemon.token
  // Output of an engine this desktop started, kept for diagnostics.
  static std::filesystem::path engineLogPath(); // engine.log
  // ~/.config/systemd/user/<label>.service: the legacy user unit that may keep its own engine alive.
  static std::filesystem::path legacyLaunchAgentPath();
};

}  // namespace tamsel::bridge
