#include "tamsel/calendar/calendar_mappers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

#include "tamsel/bridge/rpc/protocol_constants.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/calendar_protocol.hpp"

namespace tamsel::calendar::CalendarMappers {

namespace AccountType = CalendarProtocol::AccountType;

std::string accountType(std::string_view sourceTitle, SourceKind kind) {
  std::string title(sourceTitle);
  std::transform(title.begin(), title.end(), title.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  const auto has = [&](std::string_view word) { return title.find(word) != std::string::npos; };
  if (has("icloud")) return std::string(AccountType::icloud);
  if (has("google")) return std::string(AccountType::google);
  // Office-titled accounts are Exchange underneath.
  if (has("exchange") || has("office")) return std::string(AccountType::exchange);
  if (has("outlook")) return std::string(AccountType::outlook);
  switch (kind) {
    case SourceKind::local:
      return std::string(AccountType::local);
    case SourceKind::subscribed:
      return std::string(AccountType::subscription);
    default:
      return std::string(AccountType::other);
  }
}

void requireFullAccess(CalendarPermissionStatus status) {
  switch (status) {
    case CalendarPermissionStatus::granted:
      return;
    case CalendarPermissionStatus::notDetermined:
      throw CalendarException({CalendarRPCError::PermissionNotDetermined{}});
    default:
      // write_only cannot read events back, which every method needs.
      throw CalendarException({CalendarRPCError::PermissionDenied{status}});
  }
}

std::string permissionMessage(CalendarPermissionStatus status) {
  switch (status) {
    case CalendarPermissionStatus::granted:
      return "Full calendar access granted.";
    case CalendarPermissionStatus::notDetermined:
      return "Calendar permission has not been requested yet; call calendar.request_permission "
             "first.";
    default:
      return CalendarRPCError{CalendarRPCError::PermissionDenied{status}}.message();
  }
}

std::string compactLocalTime(Timestamp when) {
  const std::time_t t = when.time_since_epoch().count();
  std::tm local{};
  ::localtime_r(&t, &local);
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}", local.tm_year + 1900, local.tm_mon + 1,
                     local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

std::string rawRRule(const RecurrenceRule& rule) {
  std::string freq = rule.frequency;
  std::transform(freq.begin(), freq.end(), freq.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  std::string text = "FREQ=" + freq;
  if (rule.interval > 1) text += fmt::format(";INTERVAL={}", rule.interval);
  if (!rule.byDay.empty()) text += ";BYDAY=" + fmt::format("{}", fmt::join(rule.byDay, ","));
  if (rule.endDate)
    text += ";UNTIL=" + compactLocalTime(*rule.endDate);
  else if (rule.occurrenceCount)
    text += fmt::format(";COUNT={}", *rule.occurrenceCount);
  return text;
}

}  // namespace tamsel::calendar::CalendarMappers
