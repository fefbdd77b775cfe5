#pragma once
// The calendar methods' parameter and result records, with their wire form. Times are whole
// seconds since the epoch; on the wire they are RFC 3339 with a zone offset (the desktop's
// local offset when written by us). Optional fields are written as null when absent, so the
// engine always sees every key.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/bridge/rpc/json_value.hpp"

namespace tamsel::calendar {

using bridge::rpc::JSONValue;
using Timestamp = std::chrono::sys_seconds;

enum class CalendarPermissionStatus { notDetermined, restricted, denied, granted, writeOnly };
// `this` is a keyword, hence thisEvent.
enum class EventScope { thisEvent, thisAndFuture, all };
enum class CalendarChangeEvent { permissionChanged, dataChanged };

std::string_view toWire(CalendarPermissionStatus status);
std::optional<CalendarPermissionStatus> permissionStatusFromWire(std::string_view text);
std::string_view toWire(EventScope scope);
// The desktop-event name the change is forwarded under.
std::string_view desktopEventName(CalendarChangeEvent change);

struct AttendeeDraft {
  std::string email;
  std::optional<std::string> name;
  bool operator==(const AttendeeDraft&) const = default;
};

struct Attendee {
  std::string email;
  std::optional<std::string> name;
  std::string status = "needs_action";  // one of CalendarProtocol::AttendeeStatus
  bool operator==(const Attendee&) const = default;
};

struct Alarm {
  std::int64_t minutesBefore = 0;
  bool operator==(const Alarm&) const = default;
};

struct RecurrenceRule {
  std::string frequency;  // "daily", "weekly", "monthly", "yearly"
  std::int64_t interval = 1;
  // RFC 5545 weekday codes, optionally with an ordinal: "MO", "WE", "-1FR".
  std::vector<std::string> byDay;
  std::optional<Timestamp> endDate;
  std::optional<std::int64_t> occurrenceCount;
  std::string rawRRule;
  bool operator==(const RecurrenceRule&) const = default;
};

struct CalendarEventDraft {
  std::optional<std::string> calendarID;
  std::string title;
  Timestamp start{};
  Timestamp end{};
  bool allDay = false;
  std::optional<std::string> location;
  std::optional<std::string> notes;
  std::optional<std::string> url;
  std::vector<AttendeeDraft> attendees;
  std::vector<Alarm> alarms;
  std::optional<RecurrenceRule> recurrenceRule;
};

// Absent members leave the event as it is. Text members set to null clear the value.
struct EventPatch {
  std::optional<std::string> title;
  std::optional<Timestamp> start;
  std::optional<Timestamp> end;
  std::optional<bool> allDay;
  std::optional<std::optional<std::string>> location;
  std::optional<std::optional<std::string>> notes;
  std::optional<std::optional<std::string>> url;
  std::optional<std::string> calendarID;
  std::optional<std::vector<AttendeeDraft>> attendees;
  std::optional<std::vector<Alarm>> alarms;
  std::optional<RecurrenceRule> recurrenceRule;
};

struct ListEventsParams {
  Timestamp start{};
  Timestamp end{};
  std::optional<std::vector<std::string>> calendarIDs;
  std::optional<std::string> query;
  std::int64_t limit = 500;
};

struct GetEventParams {
  std::string id;
};

struct UpdateEventParams {
  std::string id;
  EventScope scope = EventScope::thisEvent;
  EventPatch patch;
  bool clearRecurrence = false;
};

struct DeleteEventParams {
  std::string id;
  EventScope scope = EventScope::thisEvent;
};

struct CalendarSource {
  std::string id;
  std::string title;
  std::string accountType;
  std::string colorHex;
  bool writable = true;
  bool defaultForNewEvents = false;
  bool operator==(const CalendarSource&) const = default;
};

struct CalendarEvent {
  std::string id;
  std::string calendarID;
  std::string title;
  Timestamp start{};
  Timestamp end{};
  bool allDay = false;
  std::optional<std::string> location;
  std::optional<std::string> notes;
  std::optional<std::string> url;
  bool isRecurring = false;
  bool isRecurringInstance = false;
  std::optional<std::string> seriesMasterID;
  std::vector<Attendee> attendees;
  std::optional<std::string> organizerEmail;
  bool hasAlarms = false;
  std::optional<RecurrenceRule> recurrenceRule;
  std::vector<Alarm> alarms;
  bool operator==(const CalendarEvent&) const = default;
};

struct CalendarEventList {
  std::vector<CalendarEvent> events;
  bool truncated = false;
};

struct WriteEventResult {
  std::string id;
  bool pendingRemoteSync = false;
  bool invitationsSent = false;
};

struct DeleteEventResult {
  bool ok = true;
  bool pendingRemoteSync = false;
};

struct PermissionResult {
  std::string permission = "calendar";
  CalendarPermissionStatus status = CalendarPermissionStatus::notDetermined;
  std::string message;
};

// RFC 3339 in the desktop's local offset, whole seconds: "2026-03-29T09:00:00+02:00".
std::string formatTimestamp(Timestamp when);
// The accepted forms: with fractional seconds, then without; a zone offset ("Z" or ±hh:mm) is
// required. Fractions are dropped (calendars keep whole seconds).
std::optional<Timestamp> parseTimestamp(std::string_view text);

// Decoding throws CalendarException(invalidArgument) naming the offending key.
ListEventsParams decodeListEventsParams(const JSONValue& params);
GetEventParams decodeGetEventParams(const JSONValue& params);
CalendarEventDraft decodeEventDraft(const JSONValue& params);
UpdateEventParams decodeUpdateEventParams(const JSONValue& params);
DeleteEventParams decodeDeleteEventParams(const JSONValue& params);
EventScope decodeScope(const JSONValue* value, bool allowAll);

JSONValue toJSON(const CalendarSource& source);
JSONValue toJSON(const CalendarEvent& event);
JSONValue toJSON(const CalendarEventList& list);
JSONValue toJSON(const RecurrenceRule& rule);
JSONValue toJSON(const WriteEventResult& result);
JSONValue toJSON(const DeleteEventResult& result);
JSONValue toJSON(const PermissionResult& result);

}  // namespace tamsel::calendar
