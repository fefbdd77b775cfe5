#pragma once
#include <string>

namespace tamsel::bridge {

// This desktop's device identifier: made once, kept in the app folder ("device-id", 0600),
// the same for every process of this user afterwards.
std::string desktopDeviceID();

}  // namespace tamsel::bridge
