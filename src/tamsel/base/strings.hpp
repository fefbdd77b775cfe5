#pragma once
// Small text helpers shared across subsystems.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tamsel::base {

// Trims white space and line ends (space, \t, \n, \r, \v, \f) from both ends.
std::string_view trim(std::string_view text);

// "isConnected" -> "is_connected", "lastEventID" -> "last_event_id".
// A run of capitals is one word; its last capital starts the next word when a lower-case
// letter follows ("myURLValue" -> "my_url_value").
std::string snakeCase(std::string_view camel);

std::string join(const std::vector<std::string>& parts, std::string_view separator);

bool startsWith(std::string_view text, std::string_view prefix);

// A byte count for people: "8 MiB" when it is a whole number of MiB, else "1500 bytes".
std::string byteSizeText(std::size_t bytes);

}  // namespace tamsel::base
