#pragma once
// One iCalendar object as calendar stores keep it: a VCALENDAR with one UID, the series master
// and any RECURRENCE-ID overrides, and the VTIMEZONEs they use. Expands recurrences and applies
// the edits and removals of the calendar methods. Pure: no files, no network (libical inside,
// kept out of this header).
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/base/error.hpp"
#include "tamsel/calendar/calendar_records.hpp"
#include "tamsel/calendar/calendar_store.hpp"

namespace tamsel::calendar {

// The parts of an event id: "<calendar id>|<uid>" for an event or a whole series,
// "<calendar id>|<uid>|<occurrence>" for one occurrence, where the occurrence is the
// RECURRENCE-ID as "yyyyMMdd'T'HHmmss'Z'" (UTC) or "yyyyMMdd" (all-day).
struct EventID {
  std::string calendarID;
  std::string uid;
  std::optional<std::string> occurrence;

  std::string text() const;
  std::string seriesText() const;
  // Nullopt when the text is not an id this desktop gave out.
  static std::optional<EventID> parse(std::string_view text);
};

class ICalFormatError : public base::Error {
 public:
  static constexpr std::string_view category = "ical";
  explicit ICalFormatError(const std::string& message) : Error(category, "invalid", message) {}
};

class ICalSeries {
 public:
  // Throws ICalFormatError when the text holds no VEVENT with a UID and a DTSTART.
  static ICalSeries parse(std::string_view text);
  // A new object for a new event, times in the desktop's time zone (its VTIMEZONE embedded),
  // dates for all-day events.
  static ICalSeries create(const std::string& uid, const EventFields& fields);

  ICalSeries(ICalSeries&&) noexcept;
  ICalSeries& operator=(ICalSeries&&) noexcept;
  ~ICalSeries();

  std::string serialize() const;
  const std::string& uid() const;
  bool isRecurring() const;
  Timestamp firstStart() const;
  // The end of the last occurrence, or nullopt for a series without end.
  std::optional<Timestamp> lastEnd() const;

  // Occurrences overlapping [from, to): instances not excluded by EXDATE or replaced by an
  // override, and overrides (also ones moved into the range from outside it).
  void expand(Timestamp from, Timestamp to, const std::string& calendarID,
              std::vector<CalendarEvent>& out) const;
  // The same, offered to `into` in start order: stops once the collector wants no later start
  // or its budget is spent.
  void expand(Timestamp from, Timestamp to, const std::string& calendarID,
              EventCollector& into) const;
  // The occurrence a key names, the series' first occurrence without one.
  std::optional<CalendarEvent> occurrence(const std::optional<std::string>& key,
                                          const std::string& calendarID) const;

  // Applies fields to the occurrence `key` names (the first one without a key). thisEvent on a
  // recurring series writes an override; futureEvents from a later occurrence ends this series
  // just before it and returns the new series that carries the change (uid `newUID`).
  // Returns the id suffix (uid and occurrence) of what was written.
  struct UpdateOutcome {
    std::unique_ptr<ICalSeries> split;
    std::string uid;
    std::optional<std::string> occurrence;
  };
  UpdateOutcome update(const std::optional<std::string>& key, const EventFields& fields,
                       SaveSpan span, const std::string& newUID);
  // True when nothing is left and the object should be deleted.
  bool remove(const std::optional<std::string>& key, RemoveSpan span);

 private:
  struct Impl;
  explicit ICalSeries(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// The desktop's time zone name ("Europe/Berlin"): TZ, then /etc/timezone, then /etc/localtime.
std::string localTimeZoneName();

}  // namespace tamsel::calendar
