#pragma once
// Small pure mappings shared by the provider and the stores.
#include <string>
#include <string_view>

#include "tamsel/calendar/calendar_records.hpp"

namespace tamsel::calendar {

// What kind of account a store's calendar belongs to, before its title is looked at.
enum class SourceKind { local, subscribed, calDAV, other };

namespace CalendarMappers {

// The title decides first (icloud, google, exchange or office, outlook), then the kind.
std::string accountType(std::string_view sourceTitle, SourceKind kind);

// Throws CalendarException unless the status allows reading and writing: full access only.
void requireFullAccess(CalendarPermissionStatus status);

// A words-for-people line about a status, used as PermissionResult's message.
std::string permissionMessage(CalendarPermissionStatus status);

// The rule in RRULE text; UNTIL in "yyyyMMdd'T'HHmmss" of the desktop's local time.
std::string rawRRule(const RecurrenceRule& rule);

// "yyyyMMdd'T'HHmmss" in local time.
std::string compactLocalTime(Timestamp when);

}  // namespace CalendarMappers
}  // namespace tamsel::calendar
