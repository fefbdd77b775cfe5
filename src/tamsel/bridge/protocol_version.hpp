#pragma once

namespace tamsel::bridge {

// The version of the desktop RPC protocol this desktop speaks; an engine left running is reused
// only when it reports the same.
inline constexpr const char* desktopRPCProtocolVersion = "1.0.0";

}  // namespace tamsel::bridge
