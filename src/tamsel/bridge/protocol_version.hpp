#pragma once
#include "tamsel/bridge/rpc/protocol_constants.hpp"

namespace tamsel::bridge {

// The version of the desktop RPC protocol this desktop speaks; an engine left running is reused
// only when it reports the same.
inline constexpr const char* desktopRPCProtocolVersion =
    rpc::ProtocolConstants::protocolVersion.data();

}  // namespace tamsel::bridge
