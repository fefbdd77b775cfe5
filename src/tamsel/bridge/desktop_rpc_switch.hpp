#pragma once
#include <optional>
#include <string>

namespace tamsel::bridge {

// The reverse RPC channel and the engine's RPC options are on unless TAMSEL_DESKTOP_RPC is
// present and exactly "0"; "false", "off", an empty value or its absence all leave it on.
struct DesktopRPCSwitch {
  static constexpr const char* environmentKey = "TAMSEL_DESKTOP_RPC";
  static bool isEnabled(const std::optional<std::string>& environmentValue) {
    return !(environmentValue && *environmentValue == "0");
  }
};

}  // namespace tamsel::bridge
