#include "tamsel/calendar/ical_series.hpp"

#include <fmt/format.h>
#include <libical/ical.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "tamsel/base/env.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/calendar/calendar_mappers.hpp"

namespace tamsel::calendar {

namespace {

struct ComponentFree {
  void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};
using ComponentPtr = std::unique_ptr<icalcomponent, ComponentFree>;

// Guards against rules that would yield occurrences without end (FREQ=SECONDLY and friends).
constexpr int kMaximumSteps = 500000;

Timestamp fromTimeT(std::time_t t) { return Timestamp(std::chrono::seconds(t)); }
std::time_t toTimeT(Timestamp t) { return static_cast<std::time_t>(t.time_since_epoch().count()); }

Timestamp localWall(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  t.tm_isdst = -1;
  return fromTimeT(std::mktime(&t));
}

icaltimezone* utcZone() { return icaltimezone_get_utc_timezone(); }

// What TZID parameters name the zone by: its location for built-in zones, else the TZID of the
// VTIMEZONE it came from. Copied at once: libical may reuse the memory when it loads the zone's
// component.
std::string zoneName(icaltimezone* zone) {
  const char* location = icaltimezone_get_location(zone);
  if (location && *location) return location;
  const char* tzid = icaltimezone_get_tzid(zone);
  return tzid ? tzid : "UTC";
}

// The instant of a value; dates are the desktop's local midnight, floating times local time.
Timestamp instantOf(const icaltimetype& t, icaltimezone* zone) {
  if (t.is_date) return localWall(t.year, t.month, t.day);
  if (icaltime_is_utc(t)) return fromTimeT(icaltime_as_timet(t));
  if (zone && zone != utcZone()) return fromTimeT(icaltime_as_timet_with_zone(t, zone));
  if (zone == utcZone()) return fromTimeT(icaltime_as_timet(t));
  return localWall(t.year, t.month, t.day, t.hour, t.minute, t.second);
}

icaltimezone* zoneOf(icalcomponent* root, icalproperty* property) {
  if (!property) return nullptr;
  icalparameter* param = icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER);
  if (!param) return nullptr;
  const char* tzid = icalparameter_get_tzid(param);
  if (!tzid) return nullptr;
  // A zone the system knows by that name is shared and its transitions computed once; an
  // embedded VTIMEZONE would be expanded again for every file.
  if (auto* zone = icaltimezone_get_builtin_timezone(tzid)) return zone;
  if (auto* zone = icalcomponent_get_timezone(root, tzid)) return zone;
  return icaltimezone_get_builtin_timezone_from_tzid(tzid);
}

icaltimezone* localZone() {
  const std::string name = localTimeZoneName();
  if (name.empty() || name == "UTC" || name == "Etc/UTC" || name == "Etc/GMT" || name == "GMT")
    return utcZone();
  auto* zone = icaltimezone_get_builtin_timezone(name.c_str());
  return zone ? zone : utcZone();
}

std::string localDateKey(Timestamp t) {
  const std::time_t tt = toTimeT(t);
  std::tm local{};
  ::localtime_r(&tt, &local);
  return fmt::format("{:04}{:02}{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

std::string utcKey(Timestamp t) {
  const std::time_t tt = toTimeT(t);
  std::tm utc{};
  ::gmtime_r(&tt, &utc);
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                     utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

std::string occurrenceKey(Timestamp t, bool allDay) { return allDay ? localDateKey(t) : utcKey(t); }

std::optional<Timestamp> keyInstant(std::string_view key) {
  int y, m, d, hh = 0, mm = 0, ss = 0;
  const std::string text(key);
  if (text.size() == 8 && std::sscanf(text.c_str(), "%4d%2d%2d", &y, &m, &d) == 3)
    return localWall(y, m, d);
  if (text.size() == 16 && text[8] == 'T' && text[15] == 'Z' &&
      std::sscanf(text.c_str(), "%4d%2d%2dT%2d%2d%2dZ", &y, &m, &d, &hh, &mm, &ss) == 6) {
    std::tm t{};
    t.tm_year = y - 1900;
    t.tm_mon = m - 1;
    t.tm_mday = d;
    t.tm_hour = hh;
    t.tm_min = mm;
    t.tm_sec = ss;
    return fromTimeT(::timegm(&t));
  }
  return std::nullopt;
}

icaltimetype localDateValue(Timestamp t) {
  const std::time_t tt = toTimeT(t);
  std::tm local{};
  ::localtime_r(&tt, &local);
  icaltimetype d = icaltime_null_date();
  d.year = local.tm_year + 1900;
  d.month = local.tm_mon + 1;
  d.day = local.tm_mday;
  d.is_date = 1;
  return d;
}

// A DTSTART-like property for an instant: a DATE for all-day events, otherwise the wall time in
// `zone` with its TZID, or UTC.
icalproperty* timeProperty(icalproperty_kind kind, Timestamp t, bool allDay, icaltimezone* zone) {
  icalproperty* property = icalproperty_new(kind);
  if (allDay) {
    icalproperty_set_value(property, icalvalue_new_date(localDateValue(t)));
    return property;
  }
  if (!zone || zone == utcZone()) {
    icalproperty_set_value(
        property, icalvalue_new_datetime(icaltime_from_timet_with_zone(toTimeT(t), 0, utcZone())));
    return property;
  }
  icaltimetype wall = icaltime_from_timet_with_zone(toTimeT(t), 0, zone);
  wall.zone = nullptr;
  icalproperty_set_value(property, icalvalue_new_datetime(wall));
  const std::string name = zoneName(zone);
  icalproperty_add_parameter(property, icalparameter_new_tzid(name.c_str()));
  return property;
}

void removeAll(icalcomponent* component, icalproperty_kind kind) {
  while (icalproperty* p = icalcomponent_get_first_property(component, kind)) {
    icalcomponent_remove_property(component, p);
    icalproperty_free(p);
  }
}

void removeComponents(icalcomponent* component, icalcomponent_kind kind) {
  while (icalcomponent* c = icalcomponent_get_first_component(component, kind)) {
    icalcomponent_remove_component(component, c);
    icalcomponent_free(c);
  }
}

// Embeds the zone's VTIMEZONE under its plain location name, which other tools resolve too,
// without the observances of long before the event (the system's tzdata goes back to the
// 1890s, which would make every file a few kilobytes and slow to read).
void embedZone(icalcomponent* root, icaltimezone* zone, Timestamp from) {
  if (!zone || zone == utcZone()) return;
  const std::string location = zoneName(zone);
  for (icalcomponent* c = icalcomponent_get_first_component(root, ICAL_VTIMEZONE_COMPONENT); c;
       c = icalcomponent_get_next_component(root, ICAL_VTIMEZONE_COMPONENT)) {
    icalproperty* tzid = icalcomponent_get_first_property(c, ICAL_TZID_PROPERTY);
    const char* name = tzid ? icalproperty_get_tzid(tzid) : nullptr;
    if (name && std::string_view(name) == location) return;
  }
  icalcomponent* source = icaltimezone_get_component(zone);
  if (!source) return;
  icalcomponent* copy = icalcomponent_new_clone(source);
  removeAll(copy, ICAL_TZID_PROPERTY);
  icalcomponent_add_property(copy, icalproperty_new_tzid(location.c_str()));
  const auto cut =
      icaltime_from_timet_with_zone(toTimeT(from - std::chrono::hours(24 * 366)), 0, utcZone());
  icaltimezone_truncate_vtimezone(copy, cut, icaltime_null_time(), 1);
  icalcomponent_add_component(root, copy);
}

std::string mailAddress(const char* value) {
  std::string text = value ? value : "";
  if (text.size() >= 7 && strncasecmp(text.c_str(), "mailto:", 7) == 0) text.erase(0, 7);
  return text;
}

const char* attendeeStatus(icalparameter_partstat status) {
  switch (status) {
    case ICAL_PARTSTAT_ACCEPTED:
      return "accepted";
    case ICAL_PARTSTAT_TENTATIVE:
      return "tentative";
    case ICAL_PARTSTAT_DECLINED:
      return "declined";
    default:
      return "needs_action";
  }
}

icalparameter_partstat partstatOf(const std::string& status) {
  if (status == "accepted") return ICAL_PARTSTAT_ACCEPTED;
  if (status == "tentative") return ICAL_PARTSTAT_TENTATIVE;
  if (status == "declined") return ICAL_PARTSTAT_DECLINED;
  return ICAL_PARTSTAT_NEEDSACTION;
}

std::optional<std::string> textOf(const char* value) {
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

RecurrenceRule recordOf(const icalrecurrencetype& rule) {
  RecurrenceRule out;
  switch (rule.freq) {
    case ICAL_WEEKLY_RECURRENCE:
      out.frequency = "weekly";
      break;
    case ICAL_MONTHLY_RECURRENCE:
      out.frequency = "monthly";
      break;
    case ICAL_YEARLY_RECURRENCE:
      out.frequency = "yearly";
      break;
    default:
      out.frequency = "daily";
      break;
  }
  out.interval = rule.interval > 0 ? rule.interval : 1;
  static constexpr const char* days[] = {"", "SU", "MO", "TU", "WE", "TH", "FR", "SA"};
  for (int i = 0; i < ICAL_BY_DAY_SIZE && rule.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i) {
    const int weekday = icalrecurrencetype_day_day_of_week(rule.by_day[i]);
    const int position = icalrecurrencetype_day_position(rule.by_day[i]);
    if (weekday < 1 || weekday > 7) continue;
    out.byDay.push_back((position ? std::to_string(position) : std::string()) + days[weekday]);
  }
  if (!icaltime_is_null_time(rule.until)) out.endDate = instantOf(rule.until, utcZone());
  if (rule.count > 0) out.occurrenceCount = rule.count;
  icalrecurrencetype copy = rule;
  char* text = icalrecurrencetype_as_string_r(&copy);
  out.rawRRule = text ? text : "";
  std::free(text);
  // The raw text shows the end in the desktop's local time, without a zone suffix.
  if (out.endDate) {
    const auto at = out.rawRRule.find("UNTIL=");
    if (at != std::string::npos) {
      const auto stop = out.rawRRule.find(';', at);
      out.rawRRule.replace(at + 6,
                           (stop == std::string::npos ? out.rawRRule.size() : stop) - at - 6,
                           CalendarMappers::compactLocalTime(*out.endDate));
    }
  }
  return out;
}

icalrecurrencetype ruleOf(const RecurrenceRule& record, bool allDay) {
  std::string freq = record.frequency;
  std::transform(freq.begin(), freq.end(), freq.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  std::string text = "FREQ=" + freq;
  if (record.interval > 1) text += fmt::format(";INTERVAL={}", record.interval);
  if (!record.byDay.empty()) text += fmt::format(";BYDAY={}", fmt::join(record.byDay, ","));
  // UNTIL is UTC for timed series and a date for all-day ones, and never stands beside COUNT.
  if (record.endDate)
    text += ";UNTIL=" + (allDay ? localDateKey(*record.endDate) : utcKey(*record.endDate));
  else if (record.occurrenceCount)
    text += fmt::format(";COUNT={}", *record.occurrenceCount);
  return icalrecurrencetype_from_string(text.c_str());
}

void bumpSequence(icalcomponent* event) {
  int sequence = 0;
  if (icalproperty* p = icalcomponent_get_first_property(event, ICAL_SEQUENCE_PROPERTY)) {
    sequence = icalproperty_get_sequence(p);
    icalcomponent_remove_property(event, p);
    icalproperty_free(p);
  }
  icalcomponent_add_property(event, icalproperty_new_sequence(sequence + 1));
  removeAll(event, ICAL_LASTMODIFIED_PROPERTY);
  removeAll(event, ICAL_DTSTAMP_PROPERTY);
  const auto now = icaltime_current_time_with_zone(utcZone());
  icalcomponent_add_property(event, icalproperty_new_lastmodified(now));
  icalcomponent_add_property(event, icalproperty_new_dtstamp(now));
}

// Writes everything but the recurrence rule.
void applyFields(icalcomponent* event, const EventFields& f, icaltimezone* zone) {
  for (auto kind :
       {ICAL_SUMMARY_PROPERTY, ICAL_LOCATION_PROPERTY, ICAL_DESCRIPTION_PROPERTY, ICAL_URL_PROPERTY,
        ICAL_ATTENDEE_PROPERTY, ICAL_DTSTART_PROPERTY, ICAL_DTEND_PROPERTY, ICAL_DURATION_PROPERTY})
    removeAll(event, kind);
  removeComponents(event, ICAL_VALARM_COMPONENT);
  icalcomponent_add_property(event, icalproperty_new_summary(f.title.c_str()));
  icalcomponent_add_property(event, timeProperty(ICAL_DTSTART_PROPERTY, f.start, f.allDay, zone));
  Timestamp end = f.end;
  // An all-day event covers at least its own day.
  if (f.allDay && localDateKey(end) <= localDateKey(f.start))
    end = f.start + std::chrono::hours(24);
  icalcomponent_add_property(event, timeProperty(ICAL_DTEND_PROPERTY, end, f.allDay, zone));
  if (f.location) icalcomponent_add_property(event, icalproperty_new_location(f.location->c_str()));
  if (f.notes) icalcomponent_add_property(event, icalproperty_new_description(f.notes->c_str()));
  if (f.url) icalcomponent_add_property(event, icalproperty_new_url(f.url->c_str()));
  for (const auto& a : f.attendees) {
    const std::string address = "mailto:" + a.email;
    icalproperty* p = icalproperty_new_attendee(address.c_str());
    if (a.name) icalproperty_add_parameter(p, icalparameter_new_cn(a.name->c_str()));
    icalproperty_add_parameter(p, icalparameter_new_partstat(partstatOf(a.status)));
    icalcomponent_add_property(event, p);
  }
  for (const auto& alarm : f.alarms) {
    icalcomponent* valarm = icalcomponent_new(ICAL_VALARM_COMPONENT);
    icalcomponent_add_property(valarm, icalproperty_new_action(ICAL_ACTION_DISPLAY));
    icalcomponent_add_property(
        valarm, icalproperty_new_description(f.title.empty() ? "Reminder" : f.title.c_str()));
    icaltriggertype trigger{};
    trigger.time = icaltime_null_time();
    trigger.duration = icaldurationtype_from_int(static_cast<int>(-alarm.minutesBefore * 60));
    icalcomponent_add_property(valarm, icalproperty_new_trigger(trigger));
    icalcomponent_add_component(event, valarm);
  }
}

}  // namespace

std::string localTimeZoneName() {
  if (const auto tz = base::env::get("TZ"); tz && !tz->empty()) {
    std::string name = *tz;
    if (name[0] == ':') name.erase(0, 1);
    const auto at = name.find("zoneinfo/");
    if (at != std::string::npos) name.erase(0, at + 9);
    return name;
  }
  std::ifstream file("/etc/timezone");
  std::string name;
  if (file && std::getline(file, name) && !name.empty()) return name;
  std::error_code ec;
  const auto target = std::filesystem::read_symlink("/etc/localtime", ec).string();
  const auto at = target.find("zoneinfo/");
  return at == std::string::npos ? std::string("UTC") : target.substr(at + 9);
}

std::string EventID::seriesText() const { return calendarID + "|" + uid; }
std::string EventID::text() const {
  return occurrence ? seriesText() + "|" + *occurrence : seriesText();
}

std::optional<EventID> EventID::parse(std::string_view text) {
  const auto first = text.find('|');
  if (first == std::string_view::npos || first == 0 || first + 1 >= text.size())
    return std::nullopt;
  EventID id{std::string(text.substr(0, first)), std::string(text.substr(first + 1)), std::nullopt};
  const auto last = id.uid.rfind('|');
  if (last != std::string::npos && keyInstant(std::string_view(id.uid).substr(last + 1))) {
    id.occurrence = id.uid.substr(last + 1);
    id.uid.erase(last);
  }
  if (id.uid.empty()) return std::nullopt;
  return id;
}

struct ICalSeries::Impl {
  ComponentPtr root;
  icalcomponent* master = nullptr;
  std::string uid;
  icaltimetype dtstart{};
  icaltimezone* zone = nullptr;  // null: UTC or floating
  bool allDay = false;
  Timestamp start{};
  std::chrono::seconds duration{0};
  int durationDays = 1;
  bool recurring = false;
  icalrecurrencetype rule{};
  std::set<Timestamp> exdates;
  std::map<Timestamp, icalcomponent*> overrides;

  // The zone new times of this series are written in.
  icaltimezone* writeZone() const {
    if (zone) return zone;
    return icaltime_is_utc(dtstart) ? utcZone() : localZone();
  }

  Timestamp propertyInstant(icalproperty* p, icaltimetype value) const {
    icaltimezone* z = zoneOf(root.get(), p);
    // A RECURRENCE-ID or EXDATE without its own zone is read in the master's.
    if (!z && !value.is_date && !icaltime_is_utc(value)) z = zone;
    return instantOf(value, z);
  }

  void reindex() {
    master = nullptr;
    overrides.clear();
    exdates.clear();
    std::vector<icalcomponent*> events;
    for (icalcomponent* c = icalcomponent_get_first_component(root.get(), ICAL_VEVENT_COMPONENT); c;
         c = icalcomponent_get_next_component(root.get(), ICAL_VEVENT_COMPONENT))
      events.push_back(c);
    for (auto* c : events) {
      if (!icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY) && !master) master = c;
    }
    if (!master) throw ICalFormatError("no VEVENT without RECURRENCE-ID");
    const char* id = icalcomponent_get_uid(master);
    if (!id || !*id) throw ICalFormatError("VEVENT without UID");
    uid = id;
    icalproperty* startProperty = icalcomponent_get_first_property(master, ICAL_DTSTART_PROPERTY);
    if (!startProperty) throw ICalFormatError("VEVENT without DTSTART");
    dtstart = icalproperty_get_dtstart(startProperty);
    if (icaltime_is_null_time(dtstart)) throw ICalFormatError("unreadable DTSTART");
    zone = zoneOf(root.get(), startProperty);
    allDay = dtstart.is_date;
    start = instantOf(dtstart, zone);

    Timestamp end = start;
    if (icalproperty* p = icalcomponent_get_first_property(master, ICAL_DTEND_PROPERTY)) {
      end = instantOf(icalproperty_get_dtend(p),
                      zoneOf(root.get(), p) ? zoneOf(root.get(), p) : zone);
    } else if (icalproperty* d = icalcomponent_get_first_property(master, ICAL_DURATION_PROPERTY)) {
      end = start + std::chrono::seconds(icaldurationtype_as_int(icalproperty_get_duration(d)));
    } else if (allDay) {
      end = start + std::chrono::hours(24);
    }
    if (end < start) end = start;
    duration = end - start;
    durationDays = std::max(1, static_cast<int>((duration.count() + 43200) / 86400));

    icalproperty* ruleProperty = icalcomponent_get_first_property(master, ICAL_RRULE_PROPERTY);
    recurring = ruleProperty != nullptr;
    if (recurring) rule = icalproperty_get_rrule(ruleProperty);
    for (icalproperty* p = icalcomponent_get_first_property(master, ICAL_EXDATE_PROPERTY); p;
         p = icalcomponent_get_next_property(master, ICAL_EXDATE_PROPERTY))
      exdates.insert(propertyInstant(p, icalproperty_get_exdate(p)));
    for (auto* c : events) {
      icalproperty* rid = icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY);
      if (!rid || c == master) continue;
      const char* otherUID = icalcomponent_get_uid(c);
      if (!otherUID || uid != otherUID) continue;
      overrides[propertyInstant(rid, icalproperty_get_recurrenceid(rid))] = c;
    }
  }

  // Walks the series' generated starts in order until `visit` returns false.
  template <class Visit>
  void walk(Visit&& visit) const {
    if (!recurring) {
      visit(dtstart, start);
      return;
    }
    icaltimetype first = dtstart;
    // UNTIL is compared as an instant, so the iterator must know the start's zone.
    if (!first.is_date && zone) first.zone = zone;
    icalrecur_iterator* it = icalrecur_iterator_new(rule, first);
    if (!it) return;
    int steps = 0;
    for (icaltimetype t = icalrecur_iterator_next(it);
         !icaltime_is_null_time(t) && steps < kMaximumSteps;
         t = icalrecur_iterator_next(it), ++steps) {
      if (!visit(t, instantOf(t, t.is_date ? nullptr : zone))) break;
    }
    icalrecur_iterator_free(it);
  }

  Timestamp endFor(const icaltimetype& wall, Timestamp begin) const {
    if (!wall.is_date) return begin + duration;
    icaltimetype last = wall;
    icaltime_adjust(&last, durationDays, 0, 0, 0);
    return instantOf(last, nullptr);
  }

  CalendarEvent eventFrom(icalcomponent* component, Timestamp begin, Timestamp end, bool isAllDay,
                          const std::string& calendarID,
                          const std::optional<std::string>& key) const {
    CalendarEvent e;
    const EventID id{calendarID, uid, key};
    e.id = id.text();
    e.calendarID = calendarID;
    e.title = icalcomponent_get_summary(component) ? icalcomponent_get_summary(component) : "";
    e.start = begin;
    e.end = end;
    e.allDay = isAllDay;
    e.location = textOf(icalcomponent_get_location(component));
    e.notes = textOf(icalcomponent_get_description(component));
    if (icalproperty* p = icalcomponent_get_first_property(component, ICAL_URL_PROPERTY))
      e.url = textOf(icalproperty_get_url(p));
    e.isRecurring = recurring;
    e.isRecurringInstance = recurring && key.has_value();
    if (e.isRecurringInstance) e.seriesMasterID = id.seriesText();
    for (icalproperty* p = icalcomponent_get_first_property(component, ICAL_ATTENDEE_PROPERTY); p;
         p = icalcomponent_get_next_property(component, ICAL_ATTENDEE_PROPERTY)) {
      Attendee a;
      a.email = mailAddress(icalproperty_get_attendee(p));
      if (icalparameter* cn = icalproperty_get_first_parameter(p, ICAL_CN_PARAMETER))
        a.name = textOf(icalparameter_get_cn(cn));
      if (icalparameter* ps = icalproperty_get_first_parameter(p, ICAL_PARTSTAT_PARAMETER))
        a.status = attendeeStatus(icalparameter_get_partstat(ps));
      e.attendees.push_back(std::move(a));
    }
    if (icalproperty* p = icalcomponent_get_first_property(component, ICAL_ORGANIZER_PROPERTY))
      e.organizerEmail = mailAddress(icalproperty_get_organizer(p));
    for (icalcomponent* a = icalcomponent_get_first_component(component, ICAL_VALARM_COMPONENT); a;
         a = icalcomponent_get_next_component(component, ICAL_VALARM_COMPONENT)) {
      icalproperty* p = icalcomponent_get_first_property(a, ICAL_TRIGGER_PROPERTY);
      if (!p) continue;
      const icaltriggertype trigger = icalproperty_get_trigger(p);
      if (!icaltime_is_null_time(trigger.time))
        e.alarms.push_back(Alarm{(begin - instantOf(trigger.time, utcZone())).count() / 60});
      else
        e.alarms.push_back(Alarm{-icaldurationtype_as_int(trigger.duration) / 60});
    }
    e.hasAlarms = !e.alarms.empty();
    if (recurring) e.recurrenceRule = recordOf(rule);
    return e;
  }

  // An override's own times.
  std::pair<Timestamp, Timestamp> overrideSpan(icalcomponent* c, Timestamp rid,
                                               bool& isAllDay) const {
    Timestamp begin = rid;
    isAllDay = allDay;
    icalproperty* s = icalcomponent_get_first_property(c, ICAL_DTSTART_PROPERTY);
    if (s) {
      const icaltimetype t = icalproperty_get_dtstart(s);
      isAllDay = t.is_date;
      begin = propertyInstant(s, t);
    }
    Timestamp end = begin + duration;
    if (icalproperty* p = icalcomponent_get_first_property(c, ICAL_DTEND_PROPERTY))
      end = propertyInstant(p, icalproperty_get_dtend(p));
    else if (icalproperty* d = icalcomponent_get_first_property(c, ICAL_DURATION_PROPERTY))
      end = begin + std::chrono::seconds(icaldurationtype_as_int(icalproperty_get_duration(d)));
    return {begin, std::max(begin, end)};
  }

  static bool overlaps(Timestamp s, Timestamp e, Timestamp from, Timestamp to) {
    return s == e ? (s >= from && s < to) : (s < to && e > from);
  }

  // Ends the series just before `at`: UNTIL one second earlier in UTC, or the day before for
  // all-day series; COUNT goes.
  void endBefore(Timestamp at) {
    icalproperty* p = icalcomponent_get_first_property(master, ICAL_RRULE_PROPERTY);
    if (!p) return;
    icalrecurrencetype r = icalproperty_get_rrule(p);
    r.count = 0;
    if (allDay) {
      r.until = localDateValue(at - std::chrono::hours(12));
    } else {
      r.until = icaltime_from_timet_with_zone(toTimeT(at - std::chrono::seconds(1)), 0, utcZone());
    }
    icalproperty_set_rrule(p, r);
    // Overrides and exclusions of occurrences that no longer exist go with them.
    for (auto it = overrides.lower_bound(at); it != overrides.end(); ++it) {
      icalcomponent_remove_component(root.get(), it->second);
      icalcomponent_free(it->second);
    }
    std::vector<icalproperty*> stale;
    for (icalproperty* x = icalcomponent_get_first_property(master, ICAL_EXDATE_PROPERTY); x;
         x = icalcomponent_get_next_property(master, ICAL_EXDATE_PROPERTY))
      if (propertyInstant(x, icalproperty_get_exdate(x)) >= at) stale.push_back(x);
    for (auto* x : stale) {
      icalcomponent_remove_property(master, x);
      icalproperty_free(x);
    }
    bumpSequence(master);
    reindex();
  }

  int countBefore(Timestamp at) const {
    int count = 0;
    walk([&](const icaltimetype&, Timestamp t) {
      if (t >= at) return false;
      ++count;
      return true;
    });
    return count;
  }
};

ICalSeries::ICalSeries(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ICalSeries::ICalSeries(ICalSeries&&) noexcept = default;
ICalSeries& ICalSeries::operator=(ICalSeries&&) noexcept = default;
ICalSeries::~ICalSeries() = default;

ICalSeries ICalSeries::parse(std::string_view text) {
  const std::string copy(text);
  icalcomponent* parsed = icalparser_parse_string(copy.c_str());
  if (!parsed) throw ICalFormatError("not iCalendar data");
  ComponentPtr root(parsed);
  if (icalcomponent_isa(parsed) == ICAL_VEVENT_COMPONENT) {
    root.reset(icalcomponent_vanew(ICAL_VCALENDAR_COMPONENT, icalproperty_new_version("2.0"),
                                   icalproperty_new_prodid("-//Tamsel//Desktop//EN"), nullptr));
    icalcomponent_add_component(root.get(), parsed);
  } else if (icalcomponent_isa(parsed) != ICAL_VCALENDAR_COMPONENT) {
    throw ICalFormatError("not a VCALENDAR");
  }
  auto impl = std::make_unique<Impl>();
  impl->root = std::move(root);
  impl->reindex();
  return ICalSeries(std::move(impl));
}

ICalSeries ICalSeries::create(const std::string& uid, const EventFields& fields) {
  auto impl = std::make_unique<Impl>();
  impl->root.reset(icalcomponent_vanew(ICAL_VCALENDAR_COMPONENT, icalproperty_new_version("2.0"),
                                       icalproperty_new_prodid("-//Tamsel//Desktop//EN"), nullptr));
  icaltimezone* zone = fields.allDay ? nullptr : localZone();
  // Zones first: some readers resolve TZIDs only against zones they have already seen.
  embedZone(impl->root.get(), zone, fields.start);
  icalcomponent* event = icalcomponent_new(ICAL_VEVENT_COMPONENT);
  icalcomponent_add_property(event, icalproperty_new_uid(uid.c_str()));
  icalcomponent_add_property(event,
                             icalproperty_new_dtstamp(icaltime_current_time_with_zone(utcZone())));
  applyFields(event, fields, zone);
  if (fields.recurrenceRule)
    icalcomponent_add_property(
        event, icalproperty_new_rrule(ruleOf(*fields.recurrenceRule, fields.allDay)));
  icalcomponent_add_component(impl->root.get(), event);
  impl->reindex();
  return ICalSeries(std::move(impl));
}

std::string ICalSeries::serialize() const {
  char* text = icalcomponent_as_ical_string_r(impl_->root.get());
  std::string out = text ? text : "";
  std::free(text);
  return out;
}

const std::string& ICalSeries::uid() const { return impl_->uid; }
bool ICalSeries::isRecurring() const { return impl_->recurring; }
Timestamp ICalSeries::firstStart() const { return impl_->start; }

std::optional<Timestamp> ICalSeries::lastEnd() const {
  if (!impl_->recurring) return impl_->start + impl_->duration;
  if (icaltime_is_null_time(impl_->rule.until) && impl_->rule.count <= 0) return std::nullopt;
  Timestamp last = impl_->start + impl_->duration;
  impl_->walk([&](const icaltimetype& wall, Timestamp t) {
    last = impl_->endFor(wall, t);
    return true;
  });
  for (const auto& [rid, c] : impl_->overrides) {
    bool allDay = false;
    last = std::max(last, impl_->overrideSpan(c, rid, allDay).second);
  }
  return last;
}

void ICalSeries::expand(Timestamp from, Timestamp to, const std::string& calendarID,
                        std::vector<CalendarEvent>& out) const {
  EventCollector all;
  expand(from, to, calendarID, all);
  auto events = all.take();
  out.insert(out.end(), std::make_move_iterator(events.begin()),
             std::make_move_iterator(events.end()));
}

void ICalSeries::expand(Timestamp from, Timestamp to, const std::string& calendarID,
                        EventCollector& into) const {
  const auto& s = *impl_;
  if (!s.recurring) {
    const Timestamp end = s.start + s.duration;
    if (into.step() && Impl::overlaps(s.start, end, from, to) && into.wants(s.start))
      into.offer(s.eventFrom(s.master, s.start, end, s.allDay, calendarID, std::nullopt));
    return;
  }
  s.walk([&](const icaltimetype& wall, Timestamp begin) {
    if (begin >= to || !into.step()) return false;
    if (s.exdates.count(begin) || s.overrides.count(begin)) return true;
    const Timestamp end = s.endFor(wall, begin);
    if (!Impl::overlaps(begin, end, from, to)) return true;
    // Starts only grow from here: once this one cannot be kept, no later one can.
    if (!into.wants(begin)) return false;
    into.offer(
        s.eventFrom(s.master, begin, end, s.allDay, calendarID, occurrenceKey(begin, s.allDay)));
    return true;
  });
  // Overrides are checked on their own times, so one moved into the range from outside it shows.
  for (const auto& [rid, component] : s.overrides) {
    if (s.exdates.count(rid)) continue;
    if (!into.step()) return;
    bool allDay = false;
    const auto [begin, end] = s.overrideSpan(component, rid, allDay);
    if (Impl::overlaps(begin, end, from, to) && into.wants(begin))
      into.offer(
          s.eventFrom(component, begin, end, allDay, calendarID, occurrenceKey(rid, s.allDay)));
  }
}

std::optional<CalendarEvent> ICalSeries::occurrence(const std::optional<std::string>& key,
                                                    const std::string& calendarID) const {
  const auto& s = *impl_;
  if (!key)
    return s.eventFrom(s.master, s.start, s.start + s.duration, s.allDay, calendarID, std::nullopt);
  const auto at = keyInstant(*key);
  if (!at || !s.recurring || s.exdates.count(*at)) return std::nullopt;
  if (const auto it = s.overrides.find(*at); it != s.overrides.end()) {
    bool allDay = false;
    const auto [begin, end] = s.overrideSpan(it->second, *at, allDay);
    return s.eventFrom(it->second, begin, end, allDay, calendarID, *key);
  }
  std::optional<CalendarEvent> found;
  s.walk([&](const icaltimetype& wall, Timestamp begin) {
    if (begin > *at) return false;
    if (begin == *at)
      found = s.eventFrom(s.master, begin, s.endFor(wall, begin), s.allDay, calendarID, *key);
    return !found;
  });
  return found;
}

ICalSeries::UpdateOutcome ICalSeries::update(const std::optional<std::string>& key,
                                             const EventFields& fields, SaveSpan span,
                                             const std::string& newUID) {
  auto& s = *impl_;
  std::optional<Timestamp> at;
  if (key) {
    at = keyInstant(*key);
    if (!at) throw ICalFormatError("not an occurrence: " + *key);
  }
  const Timestamp target = at.value_or(s.start);
  const std::optional<RecurrenceRule> currentRule =
      s.recurring ? std::optional<RecurrenceRule>(recordOf(s.rule)) : std::nullopt;
  const bool ruleKept = fields.recurrenceRule == currentRule;

  if (!s.recurring || (span == SaveSpan::futureEvents && target == s.start)) {
    icaltimezone* zone = fields.allDay ? nullptr : s.writeZone();
    embedZone(s.root.get(), zone, fields.start);
    applyFields(s.master, fields, zone);
    if (!ruleKept) {
      removeAll(s.master, ICAL_RRULE_PROPERTY);
      if (fields.recurrenceRule) {
        icalcomponent_add_property(
            s.master, icalproperty_new_rrule(ruleOf(*fields.recurrenceRule, fields.allDay)));
      } else {
        // A single event keeps no exceptions.
        removeAll(s.master, ICAL_EXDATE_PROPERTY);
        for (auto& [rid, c] : s.overrides) {
          icalcomponent_remove_component(s.root.get(), c);
          icalcomponent_free(c);
        }
      }
    }
    bumpSequence(s.master);
    s.reindex();
    return {nullptr, s.uid, std::nullopt};
  }

  if (span == SaveSpan::thisEvent) {
    icalcomponent* event = nullptr;
    if (const auto it = s.overrides.find(target); it != s.overrides.end()) {
      event = it->second;
    } else {
      event = icalcomponent_new(ICAL_VEVENT_COMPONENT);
      icalcomponent_add_property(event, icalproperty_new_uid(s.uid.c_str()));
      icalcomponent_add_property(
          event, timeProperty(ICAL_RECURRENCEID_PROPERTY, target, s.allDay, s.writeZone()));
      icalcomponent_add_component(s.root.get(), event);
    }
    icaltimezone* zone = fields.allDay ? nullptr : s.writeZone();
    embedZone(s.root.get(), zone, fields.start);
    applyFields(event, fields, zone);
    bumpSequence(event);
    s.reindex();
    return {nullptr, s.uid, occurrenceKey(target, s.allDay)};
  }

  // This and the following occurrences become a series of their own.
  const int before = s.countBefore(target);
  const icalrecurrencetype original = s.rule;
  EventFields splitFields = fields;
  splitFields.recurrenceRule.reset();
  ICalSeries next = create(newUID, splitFields);
  auto& n = *next.impl_;
  if (fields.recurrenceRule) {
    icalrecurrencetype r = ruleKept ? original : ruleOf(*fields.recurrenceRule, fields.allDay);
    // COUNT carries over as what is left of it.
    if (ruleKept && original.count > 0) r.count = std::max(1, original.count - before);
    icalcomponent_add_property(n.master, icalproperty_new_rrule(r));
    // Changes already made to later occurrences follow them when the times stay put.
    if (ruleKept && fields.start == target) {
      for (auto it = s.overrides.lower_bound(target); it != s.overrides.end(); ++it) {
        icalcomponent* copy = icalcomponent_new_clone(it->second);
        removeAll(copy, ICAL_UID_PROPERTY);
        icalcomponent_add_property(copy, icalproperty_new_uid(newUID.c_str()));
        icalcomponent_add_component(n.root.get(), copy);
      }
      for (const auto& ex : s.exdates)
        if (ex >= target)
          icalcomponent_add_property(
              n.master, timeProperty(ICAL_EXDATE_PROPERTY, ex, s.allDay, n.writeZone()));
    }
  }
  n.reindex();
  s.endBefore(target);
  return {std::make_unique<ICalSeries>(std::move(next)), newUID, std::nullopt};
}

bool ICalSeries::remove(const std::optional<std::string>& key, RemoveSpan span) {
  auto& s = *impl_;
  if (span == RemoveSpan::all || !s.recurring) return true;
  std::optional<Timestamp> at;
  if (key) {
    at = keyInstant(*key);
    if (!at) throw ICalFormatError("not an occurrence: " + *key);
  }
  const Timestamp target = at.value_or(s.start);
  if (span == RemoveSpan::futureEvents) {
    if (target <= s.start) return true;
    s.endBefore(target);
    return false;
  }
  if (const auto it = s.overrides.find(target); it != s.overrides.end()) {
    icalcomponent_remove_component(s.root.get(), it->second);
    icalcomponent_free(it->second);
  }
  icalcomponent_add_property(s.master,
                             timeProperty(ICAL_EXDATE_PROPERTY, target, s.allDay, s.writeZone()));
  bumpSequence(s.master);
  s.reindex();
  return false;
}

}  // namespace tamsel::calendar
