#include "tamsel/calendar/event_collector.hpp"

#include <algorithm>
#include <tuple>

namespace tamsel::calendar {

namespace {
bool earlier(const CalendarEvent& a, const CalendarEvent& b) {
  return std::tie(a.start, a.end, a.title, a.id) < std::tie(b.start, b.end, b.title, b.id);
}
}  // namespace

EventCollector::EventCollector(Bounds bounds, Filter filter)
    : bounds_(bounds), filter_(std::move(filter)) {}

bool EventCollector::step() {
  if (incomplete_) return false;
  ++steps_;
  // The clock is read every 4096 steps only: a step is far cheaper than a clock read.
  if (steps_ > bounds_.maxSteps || (bounds_.deadline && steps_ % 4096 == 0 &&
                                    std::chrono::steady_clock::now() >= *bounds_.deadline))
    incomplete_ = true;
  return !incomplete_;
}

bool EventCollector::wants(Timestamp start) {
  if (held_.size() < bounds_.keep) return true;
  // Full: only an occurrence that may sort before the latest one held can still enter.
  if (!held_.empty() && start <= held_.front().start) return true;
  declined_ = true;
  return false;
}

void EventCollector::offer(CalendarEvent event) {
  if (filter_ && !filter_(event)) return;
  ++matched_;
  if (bounds_.keep == 0) return;
  if (held_.size() == bounds_.keep) {
    if (!earlier(event, held_.front())) return;
    std::pop_heap(held_.begin(), held_.end(), earlier);
    held_.pop_back();
  }
  held_.push_back(std::move(event));
  std::push_heap(held_.begin(), held_.end(), earlier);
}

std::vector<CalendarEvent> EventCollector::take() {
  std::sort_heap(held_.begin(), held_.end(), earlier);
  return std::exchange(held_, {});
}

}  // namespace tamsel::calendar
