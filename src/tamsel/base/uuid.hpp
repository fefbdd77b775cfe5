#pragma once
#include <string>
#include <string_view>

namespace tamsel::base {

// A fresh random (version 4) UUID in canonical upper-case text form, 36 characters.
// Thread-safe.
std::string newUUIDString();

// A name-based (version 5, SHA-1) UUID of `name` in the same form: equal names give equal ids,
// so a file named by it can be found again for the same content.
std::string nameUUIDString(std::string_view name);

}  // namespace tamsel::base
