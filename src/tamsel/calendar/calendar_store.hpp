#pragma once
// What the provider needs from a place that keeps calendars: the local vdir folders, a CalDAV
// account, or several of them behind one front. Calls are synchronous and may block on disk
// or network; the provider runs them off the main executor, one at a time per store, so an
// implementation need not be re-entrant but must tolerate being called from a worker thread.
// Failures are thrown as CalendarException (notFound, readOnlyCalendar, internalError, ...).
#include <optional>
#include <string>
#include <vector>

#include "tamsel/calendar/calendar_mappers.hpp"
#include "tamsel/calendar/calendar_records.hpp"
#include "tamsel/calendar/event_collector.hpp"

namespace tamsel::calendar {

struct StoreCalendar {
  std::string id;
  std::string title;
  std::string sourceTitle;  // the account's name, which the account type is read from
  SourceKind kind = SourceKind::local;
  std::string colorHex;
  bool writable = true;
};

// The complete new state of an event (or of the occurrences a span covers).
struct EventFields {
  std::string title;
  Timestamp start{};
  Timestamp end{};
  bool allDay = false;
  std::optional<std::string> location;
  std::optional<std::string> notes;
  std::optional<std::string> url;
  std::vector<Attendee> attendees;
  std::vector<Alarm> alarms;
  std::optional<RecurrenceRule> recurrenceRule;
};

enum class SaveSpan { thisEvent, futureEvents };
enum class RemoveSpan { thisEvent, futureEvents, all };

struct StoreWriteOutcome {
  std::string id;
  bool pendingRemoteSync = false;
};

class CalendarStore {
 public:
  virtual ~CalendarStore() = default;

  virtual std::vector<StoreCalendar> calendars() = 0;
  // Where an event without a calendar goes; none when no writable calendar is configured.
  virtual std::optional<std::string> defaultCalendarID() = 0;
  // Occurrences that overlap [start, end) in the given calendars (all when empty), recurring
  // series expanded, in no particular order.
  virtual std::vector<CalendarEvent> events(Timestamp start, Timestamp end,
                                            const std::vector<std::string>& calendarIDs) = 0;
  // The same, offered to `into` as they are expanded so that one listing stays within the
  // collector's bounds of work and memory. Stores that expand recurrences themselves override
  // it; the default offers what events() returns.
  virtual void collectEvents(Timestamp start, Timestamp end,
                             const std::vector<std::string>& calendarIDs, EventCollector& into) {
    for (auto& event : events(start, end, calendarIDs)) {
      if (!into.step()) return;
      if (into.wants(event.start)) into.offer(std::move(event));
    }
  }
  // One event or occurrence by the id events() gave it; a series id names its first occurrence.
  virtual std::optional<CalendarEvent> event(const std::string& id) = 0;
  virtual StoreWriteOutcome createEvent(const std::string& calendarID,
                                        const EventFields& fields) = 0;
  virtual StoreWriteOutcome updateEvent(const std::string& id, const EventFields& fields,
                                        SaveSpan span) = 0;
  // Returns whether the removal still waits for a remote account.
  virtual bool removeEvent(const std::string& id, RemoveSpan span) = 0;
  // Changes whenever the stored data changes, whoever changed it; cheap to compute.
  virtual std::string changeToken() = 0;
};

}  // namespace tamsel::calendar
