#pragma once
#include <filesystem>
#include <string>

namespace tamsel::bridge {

// This desktop's device identifier: made once, kept in the app folder ("device-id", 0600),
// the same for every process of this user afterwards.
std::string desktopDeviceID(const std::filesystem::path& appFolder);

}  // namespace tamsel::bridge
