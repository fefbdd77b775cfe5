#pragma once
// Process environment access: the only place that reads or writes it. Reads and writes go
// through one lock so that a write (the presence token) never races a read on another thread.
//
// Controllers never read the environment: the composition root reads an Environment once at
// start-up and hands each part what it needs.
#include <optional>
#include <string>
#include <vector>

namespace tamsel::base::env {

std::optional<std::string> get(const char* name);
void set(const char* name, const std::string& value);
// Every variable as "NAME=value", e.g. for a child's environment.
std::vector<std::string> all();

// The user's home folder: $HOME, else the password database.
std::string homeDirectory();

// Everything the desktop takes from its environment, read at one moment.
struct Environment {
  std::string home;
  std::optional<std::string> xdgDataHome, xdgConfigHome;
  std::optional<std::string> verdBinary;     // VERD_BINARY: the engine executable to use
  std::optional<std::string> desktopRPC;     // TAMSEL_DESKTOP_RPC: "0" switches the channel off
  std::optional<std::string> presenceToken;  // TAMSEL_LOCAL_PRESENCE_TOKEN (a secret)
  std::optional<std::string> axServerBundlePath;  // TAMSEL_AX_SERVER_BUNDLE_PATH
  bool noColor = false;  // NO_COLOR set to anything but empty: text without colour
  // TamselMeetingDisableSystap: set (to anything) records meetings without the system track.
  std::optional<std::string> meetingDisableSystap;
  // The display servers of the session, for the hotkey: DISPLAY and WAYLAND_DISPLAY.
  std::optional<std::string> display, waylandDisplay;
};
Environment read();

}  // namespace tamsel::base::env
