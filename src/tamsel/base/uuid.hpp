#pragma once
#include <string>

namespace tamsel::base {

// A fresh random (version 4) UUID in canonical upper-case text form, 36 characters.
// Thread-safe.
std::string newUUIDString();

}  // namespace tamsel::base
