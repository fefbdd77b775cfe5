#include "tamsel/bridge/desktop_rpc_switch.hpp"

#include "tamsel/base/env.hpp"

namespace tamsel::bridge {

bool DesktopRPCSwitch::isEnabled() { return isEnabled(base::env::get(environmentKey)); }

}  // namespace tamsel::bridge
