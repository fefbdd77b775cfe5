#pragma once
// Where this user's files of the desktop and of the engine live: two folders under
// $XDG_DATA_HOME (default ~/.local/share), named by fixed reverse-DNS identifiers, and the
// user's configuration folder ($XDG_CONFIG_HOME, default ~/.config). Resolved once from the
// environment; the folders are created on demand (0700) when asked for.
#include <filesystem>

#include "tamsel/base/env.hpp"

namespace tamsel::base {

struct AppFolders {
  static constexpr const char* engineSupportIdentifier = "dev.tamsel.engine";
  static constexpr const char* appSupportIdentifier = "dev.tamsel.desktop";

  std::filesystem::path home;
  std::filesystem::path dataHome;
  std::filesystem::path configHome;

  // Relative XDG values are invalid by the XDG rules and are ignored.
  static AppFolders from(const env::Environment& environment);

  std::filesystem::path engineSupportDirectory() const;
  std::filesystem::path appSupportDirectory() const;
};

}  // namespace tamsel::base
