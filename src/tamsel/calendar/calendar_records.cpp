#include "tamsel/calendar/calendar_records.hpp"

#include <fmt/format.h>

#include <ctime>
#include <limits>

#include "tamsel/base/dates.hpp"
#include "tamsel/bridge/rpc/protocol_constants.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/calendar_protocol.hpp"

namespace tamsel::calendar {

namespace PC = CalendarProtocol;

std::string_view toWire(CalendarPermissionStatus status) {
  switch (status) {
    case CalendarPermissionStatus::notDetermined:
      return PC::PermissionStatus::notDetermined;
    case CalendarPermissionStatus::restricted:
      return PC::PermissionStatus::restricted;
    case CalendarPermissionStatus::denied:
      return PC::PermissionStatus::denied;
    case CalendarPermissionStatus::granted:
      return PC::PermissionStatus::granted;
    case CalendarPermissionStatus::writeOnly:
      return PC::PermissionStatus::writeOnly;
  }
  return PC::PermissionStatus::notDetermined;
}

std::optional<CalendarPermissionStatus> permissionStatusFromWire(std::string_view text) {
  for (auto s : {CalendarPermissionStatus::notDetermined, CalendarPermissionStatus::restricted,
                 CalendarPermissionStatus::denied, CalendarPermissionStatus::granted,
                 CalendarPermissionStatus::writeOnly})
    if (toWire(s) == text) return s;
  return std::nullopt;
}

std::string_view toWire(EventScope scope) {
  switch (scope) {
    case EventScope::thisEvent:
      return PC::EventScope::thisOccurrence;
    case EventScope::thisAndFuture:
      return PC::EventScope::thisAndFuture;
    case EventScope::all:
      return PC::EventScope::all;
  }
  return PC::EventScope::thisOccurrence;
}

std::string_view desktopEventName(CalendarChangeEvent change) {
  return change == CalendarChangeEvent::permissionChanged
             ? PC::DesktopEvent::calendarPermissionChanged
             : PC::DesktopEvent::calendarDataChanged;
}

std::string formatTimestamp(Timestamp when) {
  const std::time_t t = when.time_since_epoch().count();
  std::tm local{};
  ::localtime_r(&t, &local);
  const long offset = local.tm_gmtoff;
  const long minutes = (offset < 0 ? -offset : offset) / 60;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}{}{:02}:{:02}", local.tm_year + 1900,
                     local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                     offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::optional<Timestamp> parseTimestamp(std::string_view text) {
  const auto parsed = base::parseISO8601(text);
  if (!parsed) return std::nullopt;
  return std::chrono::floor<std::chrono::seconds>(*parsed);
}

namespace {

using Object = JSONValue::Object;

[[noreturn]] void invalid(const std::string& field, const std::string& reason) {
  throw CalendarException(CalendarRPCError::invalidArgument(field, reason));
}

const Object& paramsObject(const JSONValue& params) {
  static const Object empty;
  if (params.isNull()) return empty;
  const auto* object = params.ifObject();
  if (!object) invalid("params", "expected an object");
  return *object;
}

const JSONValue* member(const Object& object, const std::string& key) {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &it->second;
}

// Absent and null read the same for optional parameters.
const JSONValue* present(const Object& object, const std::string& key) {
  const auto* value = member(object, key);
  return value && !value->isNull() ? value : nullptr;
}

std::string requiredString(const Object& object, const std::string& key) {
  const auto* value = present(object, key);
  if (!value) invalid(key, "required");
  const auto* text = value->ifString();
  if (!text) invalid(key, "expected a string");
  return *text;
}

std::optional<std::string> optionalString(const Object& object, const std::string& key) {
  const auto* value = present(object, key);
  if (!value) return std::nullopt;
  const auto* text = value->ifString();
  if (!text) invalid(key, "expected a string");
  return *text;
}

bool optionalBool(const Object& object, const std::string& key, bool fallback) {
  const auto* value = present(object, key);
  if (!value) return fallback;
  const auto* flag = value->ifBool();
  if (!flag) invalid(key, "expected a boolean");
  return *flag;
}

std::optional<std::int64_t> optionalInt(const Object& object, const std::string& key) {
  const auto* value = present(object, key);
  if (!value) return std::nullopt;
  if (const auto* number = value->ifInt()) return *number;
  invalid(key, "expected an integer");
}

Timestamp timestampValue(const JSONValue& value, const std::string& field) {
  const auto* text = value.ifString();
  const auto parsed = text ? parseTimestamp(*text) : std::nullopt;
  if (!parsed) invalid(field, "expected RFC 3339 with zone offset");
  return *parsed;
}

Timestamp requiredTimestamp(const Object& object, const std::string& key) {
  const auto* value = present(object, key);
  if (!value) invalid(key, "expected RFC 3339 with zone offset");
  return timestampValue(*value, key);
}

const JSONValue::Array& arrayValue(const JSONValue& value, const std::string& field) {
  const auto* array = value.ifArray();
  if (!array) invalid(field, "expected an array");
  return *array;
}

std::vector<AttendeeDraft> decodeAttendees(const JSONValue& value) {
  std::vector<AttendeeDraft> attendees;
  for (const auto& item : arrayValue(value, "attendees")) {
    const auto* object = item.ifObject();
    if (!object) invalid("attendees", "expected objects with \"email\"");
    AttendeeDraft draft{requiredString(*object, "email"), optionalString(*object, "name")};
    if (draft.email.find('@') == std::string::npos)
      invalid("attendees", "not an email address: " + draft.email);
    attendees.push_back(std::move(draft));
  }
  return attendees;
}

std::vector<Alarm> decodeAlarms(const JSONValue& value) {
  std::vector<Alarm> alarms;
  for (const auto& item : arrayValue(value, "alarms")) {
    const auto* object = item.ifObject();
    const auto minutes = object ? optionalInt(*object, "minutes_before") : std::nullopt;
    if (!minutes) invalid("alarms", "expected objects with an integer \"minutes_before\"");
    // The alarm is stored as a whole number of seconds in an int (libical's duration).
    constexpr std::int64_t most = std::numeric_limits<int>::max() / 60;
    if (*minutes < -most || *minutes > most)
      invalid("alarms", "minutes_before must lie between -" + std::to_string(most) + " and " +
                            std::to_string(most));
    alarms.push_back(Alarm{*minutes});
  }
  return alarms;
}

bool isWeekdayCode(std::string_view code) {
  static constexpr std::string_view days[] = {"MO", "TU", "WE", "TH", "FR", "SA", "SU"};
  if (code.size() < 2) return false;
  const auto day = code.substr(code.size() - 2);
  bool known = false;
  for (auto d : days) known = known || d == day;
  if (!known) return false;
  auto ordinal = code.substr(0, code.size() - 2);
  if (!ordinal.empty() && (ordinal[0] == '+' || ordinal[0] == '-')) ordinal.remove_prefix(1);
  if (ordinal.size() > 2) return false;
  for (char c : ordinal)
    if (c < '0' || c > '9') return false;
  return true;
}

RecurrenceRule decodeRule(const JSONValue& value) {
  const auto* object = value.ifObject();
  if (!object) invalid("recurrence_rule", "expected an object");
  RecurrenceRule rule;
  rule.frequency = requiredString(*object, "frequency");
  if (rule.frequency != PC::RecurrenceFrequency::daily &&
      rule.frequency != PC::RecurrenceFrequency::weekly &&
      rule.frequency != PC::RecurrenceFrequency::monthly &&
      rule.frequency != PC::RecurrenceFrequency::yearly)
    invalid("frequency", "expected daily, weekly, monthly or yearly");
  rule.interval = optionalInt(*object, "interval").value_or(1);
  // libical keeps the interval in a short and the count in an int.
  if (rule.interval < 1 || rule.interval > std::numeric_limits<short>::max())
    invalid("interval",
            "must be between 1 and " + std::to_string(std::numeric_limits<short>::max()));
  if (const auto* days = present(*object, "by_day")) {
    for (const auto& day : arrayValue(*days, "by_day")) {
      const auto* code = day.ifString();
      if (!code || !isWeekdayCode(*code))
        invalid("by_day", "expected weekday codes like \"MO\" or \"-1FR\"");
      rule.byDay.push_back(*code);
    }
  }
  if (const auto* end = present(*object, "end_date"))
    rule.endDate = timestampValue(*end, "end_date");
  rule.occurrenceCount = optionalInt(*object, "occurrence_count");
  if (rule.occurrenceCount &&
      (*rule.occurrenceCount < 1 || *rule.occurrenceCount > std::numeric_limits<int>::max()))
    invalid("occurrence_count",
            "must be between 1 and " + std::to_string(std::numeric_limits<int>::max()));
  // UNTIL and COUNT never stand side by side in a rule.
  if (rule.endDate && rule.occurrenceCount)
    invalid("recurrence_rule", "give end_date or occurrence_count, not both");
  return rule;
}

JSONValue optionalText(const std::optional<std::string>& text) {
  return text ? JSONValue(*text) : JSONValue(nullptr);
}

}  // namespace

EventScope decodeScope(const JSONValue* value, bool allowAll) {
  if (!value || value->isNull()) return EventScope::thisEvent;
  const auto* text = value->ifString();
  if (!text) invalid("scope", "expected a string");
  if (*text == PC::EventScope::thisOccurrence) return EventScope::thisEvent;
  if (*text == PC::EventScope::thisAndFuture) return EventScope::thisAndFuture;
  if (*text == PC::EventScope::all) {
    if (allowAll) return EventScope::all;
    invalid("scope", CalendarRPCError::updateScopeAllRefusal);
  }
  invalid("scope", "unknown scope " + *text);
}

ListEventsParams decodeListEventsParams(const JSONValue& params) {
  const auto& object = paramsObject(params);
  ListEventsParams out;
  out.start = requiredTimestamp(object, "start");
  out.end = requiredTimestamp(object, "end");
  if (out.end < out.start) invalid("end", "must not be before start");
  if (const auto* ids = present(object, "calendar_ids")) {
    out.calendarIDs.emplace();
    for (const auto& id : arrayValue(*ids, "calendar_ids")) {
      const auto* text = id.ifString();
      if (!text) invalid("calendar_ids", "expected an array of strings");
      out.calendarIDs->push_back(*text);
    }
  }
  out.query = optionalString(object, "query");
  out.limit = optionalInt(object, "limit").value_or(500);
  if (out.limit < 0) invalid("limit", "must not be negative");
  return out;
}

GetEventParams decodeGetEventParams(const JSONValue& params) {
  return GetEventParams{requiredString(paramsObject(params), "id")};
}

CalendarEventDraft decodeEventDraft(const JSONValue& params) {
  const auto& object = paramsObject(params);
  CalendarEventDraft draft;
  draft.calendarID = optionalString(object, "calendar_id");
  draft.title = optionalString(object, "title").value_or("");
  draft.start = requiredTimestamp(object, "start");
  draft.end = requiredTimestamp(object, "end");
  if (draft.end < draft.start) invalid("end", "must not be before start");
  draft.allDay = optionalBool(object, "all_day", false);
  draft.location = optionalString(object, "location");
  draft.notes = optionalString(object, "notes");
  draft.url = optionalString(object, "url");
  if (const auto* v = present(object, "attendees")) draft.attendees = decodeAttendees(*v);
  if (const auto* v = present(object, "alarms")) draft.alarms = decodeAlarms(*v);
  if (const auto* v = present(object, "recurrence_rule")) draft.recurrenceRule = decodeRule(*v);
  return draft;
}

UpdateEventParams decodeUpdateEventParams(const JSONValue& params) {
  const auto& object = paramsObject(params);
  UpdateEventParams out;
  out.id = requiredString(object, "id");
  out.scope = decodeScope(member(object, "scope"), false);
  out.clearRecurrence = optionalBool(object, "clear_recurrence", false);
  const auto* patchValue = present(object, "patch");
  if (!patchValue) return out;
  const auto* patch = patchValue->ifObject();
  if (!patch) invalid("patch", "expected an object");
  auto& p = out.patch;
  // A null start or end would leave an event without a time: refuse it rather than ignore it.
  if (const auto* v = member(*patch, "start")) {
    if (v->isNull()) invalid("start", "start cannot be cleared");
    p.start = timestampValue(*v, "start");
  }
  if (const auto* v = member(*patch, "end")) {
    if (v->isNull()) invalid("end", "end cannot be cleared");
    p.end = timestampValue(*v, "end");
  }
  if (member(*patch, "title")) p.title = optionalString(*patch, "title").value_or("");
  if (present(*patch, "all_day")) p.allDay = optionalBool(*patch, "all_day", false);
  if (member(*patch, "location")) p.location = optionalString(*patch, "location");
  if (member(*patch, "notes")) p.notes = optionalString(*patch, "notes");
  if (member(*patch, "url")) p.url = optionalString(*patch, "url");
  p.calendarID = optionalString(*patch, "calendar_id");
  if (const auto* v = member(*patch, "attendees"))
    p.attendees = v->isNull() ? std::vector<AttendeeDraft>{} : decodeAttendees(*v);
  if (const auto* v = member(*patch, "alarms"))
    p.alarms = v->isNull() ? std::vector<Alarm>{} : decodeAlarms(*v);
  if (const auto* v = present(*patch, "recurrence_rule")) p.recurrenceRule = decodeRule(*v);
  return out;
}

DeleteEventParams decodeDeleteEventParams(const JSONValue& params) {
  const auto& object = paramsObject(params);
  return DeleteEventParams{requiredString(object, "id"),
                           decodeScope(member(object, "scope"), true)};
}

JSONValue toJSON(const CalendarSource& s) {
  return JSONValue::object({{"id", s.id},
                            {"title", s.title},
                            {"account_type", s.accountType},
                            {"color_hex", s.colorHex},
                            {"writable", s.writable},
                            {"default_for_new_events", s.defaultForNewEvents}});
}

JSONValue toJSON(const RecurrenceRule& r) {
  JSONValue::Array days(r.byDay.begin(), r.byDay.end());
  return JSONValue::object(
      {{"frequency", r.frequency},
       {"interval", r.interval},
       {"by_day", std::move(days)},
       {"end_date", r.endDate ? JSONValue(formatTimestamp(*r.endDate)) : JSONValue(nullptr)},
       {"occurrence_count", r.occurrenceCount ? JSONValue(*r.occurrenceCount) : JSONValue()},
       {"raw_rrule", r.rawRRule}});
}

JSONValue toJSON(const CalendarEvent& e) {
  JSONValue::Array attendees;
  for (const auto& a : e.attendees)
    attendees.push_back(JSONValue::object(
        {{"email", a.email}, {"name", optionalText(a.name)}, {"status", a.status}}));
  JSONValue::Array alarms;
  for (const auto& a : e.alarms)
    alarms.push_back(JSONValue::object({{"minutes_before", a.minutesBefore}}));
  return JSONValue::object(
      {{"id", e.id},
       {"calendar_id", e.calendarID},
       {"title", e.title},
       {"start", formatTimestamp(e.start)},
       {"end", formatTimestamp(e.end)},
       {"all_day", e.allDay},
       {"location", optionalText(e.location)},
       {"notes", optionalText(e.notes)},
       {"url", optionalText(e.url)},
       {"is_recurring", e.isRecurring},
       {"is_recurring_instance", e.isRecurringInstance},
       {"series_master_id", optionalText(e.seriesMasterID)},
       {"attendees", std::move(attendees)},
       {"organizer_email", optionalText(e.organizerEmail)},
       {"has_alarms", e.hasAlarms},
       {"recurrence_rule", e.recurrenceRule ? toJSON(*e.recurrenceRule) : JSONValue(nullptr)},
       {"alarms", std::move(alarms)}});
}

JSONValue toJSON(const CalendarEventList& list) {
  JSONValue::Array events;
  events.reserve(list.events.size());
  for (const auto& e : list.events) events.push_back(toJSON(e));
  return JSONValue::object({{"events", std::move(events)}, {"truncated", list.truncated}});
}

JSONValue toJSON(const WriteEventResult& r) {
  return JSONValue::object({{"id", r.id},
                            {"pending_remote_sync", r.pendingRemoteSync},
                            {"invitations_sent", r.invitationsSent}});
}

JSONValue toJSON(const DeleteEventResult& r) {
  return JSONValue::object({{"ok", r.ok}, {"pending_remote_sync", r.pendingRemoteSync}});
}

JSONValue toJSON(const PermissionResult& r) {
  return JSONValue::object(
      {{"permission", r.permission}, {"status", toWire(r.status)}, {"message", r.message}});
}

}  // namespace tamsel::calendar
