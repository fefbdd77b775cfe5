#pragma once
// The engine's date rule: ISO 8601 internet date-time, tried with fractional seconds first,
// then without. A text that neither form accepts is not a date.
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace tamsel::base {

using Timestamp = std::chrono::sys_time<std::chrono::microseconds>;

// Accepts "2026-11-20T09:15:02.123Z", "2026-11-20T09:15:02Z" and "+hh:mm" / "-hh:mm" offsets.
std::optional<Timestamp> parseISO8601(std::string_view text);

// The current time at the precision dates carry.
Timestamp nowTimestamp();

// UTC with milliseconds: "2026-11-20T09:15:02.123Z".
std::string formatISO8601(Timestamp when);

// For people: the local zone (TZ, else the system's), "2026-11-20 10:15" or with seconds
// "2026-11-20 10:15:02".
std::string formatLocalTime(Timestamp when, bool withSeconds = false);

}  // namespace tamsel::base
