#pragma once
// The strings both ends of the desktop RPC channel must agree on, byte for byte. The names a
// feature serves (the calendar's) live beside that feature.
#include <array>
#include <string_view>

namespace tamsel::bridge::rpc::ProtocolConstants {

// The engine must report exactly this in the capabilities handshake; there are no compatible
// neighbours.
inline constexpr std::string_view protocolVersion = "1.0.0";

namespace Method {
inline constexpr std::string_view systemPing = "system.ping";
inline constexpr std::string_view systemCapabilities = "system.capabilities";
}  // namespace Method

namespace FrameType {
inline constexpr std::string_view rpcRequest = "desktop_rpc_request";
inline constexpr std::string_view rpcResult = "desktop_rpc_result";
inline constexpr std::string_view event = "desktop_event";
// Listed so both sides reserve the name; no frame of this type is accepted.
inline constexpr std::string_view rpcCancel = "desktop_rpc_cancel";
}  // namespace FrameType

namespace ErrorCode {
inline constexpr std::string_view notFound = "not_found";
inline constexpr std::string_view invalidArgument = "invalid_argument";
inline constexpr std::string_view internalError = "internal_error";
inline constexpr std::string_view timeout = "timeout";
inline constexpr std::string_view desktopDisconnected = "desktop_disconnected";
}  // namespace ErrorCode

namespace DesktopEvent {
inline constexpr std::string_view desktopOnline = "desktop_online";
inline constexpr std::string_view desktopOffline = "desktop_offline";
}  // namespace DesktopEvent

}  // namespace tamsel::bridge::rpc::ProtocolConstants
