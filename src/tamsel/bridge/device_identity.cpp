#include "tamsel/bridge/device_identity.hpp"

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::bridge {

std::string desktopDeviceID(const std::filesystem::path& appFolder) {
  const auto file = appFolder / "device-id";
  std::string text;
  if (base::readFile(file, text) && base::trim(text).size() == 36)
    return std::string(base::trim(text));
  std::string id = base::newUUIDString();
  try {
    base::writeFileAtomically(file, id + "\n", 0600);
  } catch (const std::exception& e) {
    base::log::warn("DeviceIdentity", "could not keep the device identifier: {}", e.what());
  }
  return id;
}

}  // namespace tamsel::bridge
