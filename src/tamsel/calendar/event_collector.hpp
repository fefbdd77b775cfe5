#pragma once
// The occurrences of one listing, gathered within a bound of work and memory.
//
// A recurring rule may yield an occurrence every second for years, and a listing may span many
// such series: expanding them all and sorting afterwards costs time and memory without end.
// Instead the stores offer occurrences here as they expand them, series by series in start
// order; only the `keep` earliest (by start, end, title, id) are held, and a series stops
// expanding as soon as its next start could no longer be kept. Every expansion step counts
// against one budget of steps and one deadline for the whole listing; once either is spent the
// stores stop and the listing answers with what it has, marked truncated.
#include <chrono>
#include <cstddef>
#include <functional>
#include <limits>
#include <optional>
#include <vector>

#include "tamsel/calendar/calendar_records.hpp"

namespace tamsel::calendar {

class EventCollector {
 public:
  struct Bounds {
    std::size_t keep = std::numeric_limits<std::size_t>::max();
    // Two million steps of recurrence expansion take about a second here; a real calendar
    // over a year needs a few thousand.
    std::size_t maxSteps = 2'000'000;
    std::optional<std::chrono::steady_clock::time_point> deadline;
  };
  using Filter = std::function<bool(const CalendarEvent&)>;

  EventCollector() : EventCollector(Bounds{}) {}
  explicit EventCollector(Bounds bounds, Filter filter = {});

  // One step of expansion; false once the budget of steps or time is spent (then stop).
  bool step();
  // Whether an occurrence starting at `start` could still be kept; false once `keep` earlier
  // ones are held (a series expanding in start order stops there).
  bool wants(Timestamp start);
  // An occurrence that overlaps the range: kept when it passes the filter and is among the
  // earliest.
  void offer(CalendarEvent event);

  // More occurrences matched than are kept, or the budget ran out before all were seen.
  bool truncated() const { return incomplete_ || declined_ || matched_ > held_.size(); }
  bool budgetSpent() const { return incomplete_; }
  // The kept occurrences in start order; the collector is empty afterwards.
  std::vector<CalendarEvent> take();

 private:
  Bounds bounds_;
  Filter filter_;
  std::vector<CalendarEvent> held_;  // a max-heap by the listing order
  std::size_t steps_ = 0;
  std::size_t matched_ = 0;
  bool incomplete_ = false;
  bool declined_ = false;
};

}  // namespace tamsel::calendar
