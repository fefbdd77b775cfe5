#pragma once
// The calendar's names on the desktop RPC channel, byte for byte as the engine uses them.
#include <string_view>

namespace tamsel::calendar::CalendarProtocol {

namespace Method {
inline constexpr std::string_view calendarListSources = "calendar.list_sources";
inline constexpr std::string_view calendarListEvents = "calendar.list_events";
inline constexpr std::string_view calendarGetEvent = "calendar.get_event";
inline constexpr std::string_view calendarCreateEvent = "calendar.create_event";
inline constexpr std::string_view calendarUpdateEvent = "calendar.update_event";
inline constexpr std::string_view calendarDeleteEvent = "calendar.delete_event";
inline constexpr std::string_view calendarCheckPermission = "calendar.check_permission";
inline constexpr std::string_view calendarRequestPermission = "calendar.request_permission";
}  // namespace Method

namespace ErrorCode {
inline constexpr std::string_view calendarPermissionDenied = "calendar_permission_denied";
inline constexpr std::string_view calendarPermissionNotDetermined =
    "calendar_permission_not_determined";
inline constexpr std::string_view readOnlyCalendar = "read_only_calendar";
}  // namespace ErrorCode

namespace DesktopEvent {
inline constexpr std::string_view calendarPermissionChanged = "calendar_permission_changed";
inline constexpr std::string_view calendarDataChanged = "calendar_data_changed";
}  // namespace DesktopEvent

namespace PermissionStatus {
inline constexpr std::string_view notDetermined = "not_determined";
inline constexpr std::string_view restricted = "restricted";
inline constexpr std::string_view denied = "denied";
inline constexpr std::string_view granted = "granted";
inline constexpr std::string_view writeOnly = "write_only";
}  // namespace PermissionStatus

namespace AccountType {
inline constexpr std::string_view icloud = "icloud";
inline constexpr std::string_view google = "google";
inline constexpr std::string_view exchange = "exchange";
inline constexpr std::string_view outlook = "outlook";
inline constexpr std::string_view local = "local";
inline constexpr std::string_view subscription = "subscription";
inline constexpr std::string_view other = "other";
}  // namespace AccountType

namespace AttendeeStatus {
inline constexpr std::string_view accepted = "accepted";
inline constexpr std::string_view tentative = "tentative";
inline constexpr std::string_view declined = "declined";
inline constexpr std::string_view needsAction = "needs_action";
}  // namespace AttendeeStatus

namespace EventScope {
inline constexpr std::string_view thisOccurrence = "this";
inline constexpr std::string_view thisAndFuture = "this_and_future";
inline constexpr std::string_view all = "all";
}  // namespace EventScope

namespace RecurrenceFrequency {
inline constexpr std::string_view daily = "daily";
inline constexpr std::string_view weekly = "weekly";
inline constexpr std::string_view monthly = "monthly";
inline constexpr std::string_view yearly = "yearly";
}  // namespace RecurrenceFrequency

namespace DeepLinkPath {
inline constexpr std::string_view calendarPermissions = "/permissions/calendar";
inline constexpr std::string_view remindersPermissions = "/permissions/reminders";
inline constexpr std::string_view contactsPermissions = "/permissions/contacts";
// No leading slash: the engine hands it back exactly like this.
inline constexpr std::string_view settings = "settings";
}  // namespace DeepLinkPath

}  // namespace tamsel::calendar::CalendarProtocol
