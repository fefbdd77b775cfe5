// One listing's bounds: the limit applied while expanding, in start order, and a budget of work
// that ends a runaway expansion with what fits instead of hours and gigabytes.
#include "tamsel/calendar/event_collector.hpp"

#include <gtest/gtest.h>

#include <boost/asio/this_coro.hpp>
#include <chrono>
#include <fstream>

#include "../test_support.hpp"
#include "tamsel/calendar/calendar_permission_store.hpp"
#include "tamsel/calendar/calendar_provider.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"

namespace tamsel::calendar {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;

Timestamp at(const char* text) { return *parseTimestamp(text); }

CalendarEvent event(const char* id, Timestamp start) {
  CalendarEvent e;
  e.id = id;
  e.title = id;
  e.start = start;
  e.end = start + 1h;
  return e;
}

TEST(EventCollector, KeepsTheEarliestInOrderAndSaysWhenMoreMatched) {
  EventCollector collector({.keep = 2}, [](const CalendarEvent& e) { return e.id[0] != 'x'; });
  const auto t = at("2026-01-01T00:00:00Z");
  for (auto [id, hours] : {std::pair{"c", 3}, {"a", 1}, {"x", 0}, {"b", 2}}) {
    ASSERT_TRUE(collector.step());
    if (collector.wants(t + std::chrono::hours(hours)))
      collector.offer(event(id, t + std::chrono::hours(hours)));
  }
  EXPECT_FALSE(collector.wants(t + 5h)) << "full of earlier ones";
  EXPECT_TRUE(collector.wants(t + 2h)) << "a tie may still sort first";
  EXPECT_TRUE(collector.truncated());
  const auto kept = collector.take();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].id, "a");
  EXPECT_EQ(kept[1].id, "b");

  EventCollector roomy({.keep = 5});
  roomy.offer(event("a", t));
  EXPECT_FALSE(roomy.truncated());

  EventCollector small({.maxSteps = 3});
  EXPECT_TRUE(small.step() && small.step() && small.step());
  EXPECT_FALSE(small.step());
  EXPECT_TRUE(small.budgetSpent());
  EXPECT_TRUE(small.truncated()) << "an unfinished listing is never reported complete";
}

class RunawaySeries : public ::testing::Test {
 protected:
  // Nine series, each an event every second for ever, starting a second apart.
  void SetUp() override {
    calendarID = store->addCalendar("busy", "Busy", "#112233");
    for (int i = 0; i < 9; ++i) {
      std::ofstream(dir.path() / "busy" / ("s" + std::to_string(i) + ".ics"))
          << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\nBEGIN:VEVENT\r\n"
          << "UID:s" << i << "\r\nDTSTAMP:20260101T000000Z\r\n"
          << "DTSTART:20260105T0900" << (10 + i) << "Z\r\nDTEND:20260105T0900" << (10 + i)
          << "Z\r\nSUMMARY:tick " << i << "\r\nRRULE:FREQ=SECONDLY\r\n"
          << "END:VEVENT\r\nEND:VCALENDAR\r\n";
    }
  }

  CalendarEventList list(std::int64_t limit, std::chrono::milliseconds timeout,
                         const char* from = "2026-01-01T00:00:00Z") {
    return test::runAsync(
        [&]() -> asio::awaitable<CalendarEventList> {
          CalendarProvider provider(co_await asio::this_coro::executor, store, permissions);
          ListEventsParams params;
          params.start = at(from);
          params.end = at("2027-01-01T00:00:00Z");
          params.limit = limit;
          co_return co_await provider.listEvents(params, timeout);
        }(),
        60s);
  }

  test::TempDir dir;
  std::shared_ptr<VdirCalendarStore> store = std::make_shared<VdirCalendarStore>(dir.path());
  std::shared_ptr<MemoryPermissionStore> permissions =
      std::make_shared<MemoryPermissionStore>(CalendarPermissionStatus::granted);
  std::string calendarID;
};

TEST_F(RunawaySeries, TheLimitIsAppliedWhileExpandingInStartOrderAcrossSeries) {
  const auto began = std::chrono::steady_clock::now();
  const auto result = list(5, 30s);
  const auto took = std::chrono::steady_clock::now() - began;
  EXPECT_TRUE(result.truncated);
  std::vector<std::string> titles;
  for (const auto& e : result.events) titles.push_back(e.title + "@" + formatTimestamp(e.start));
  // The earliest five over all nine series, not the first five of one file.
  EXPECT_EQ(titles, (std::vector<std::string>{
                        "tick 0@2026-01-05T09:00:10+00:00", "tick 0@2026-01-05T09:00:11+00:00",
                        "tick 1@2026-01-05T09:00:11+00:00", "tick 0@2026-01-05T09:00:12+00:00",
                        "tick 1@2026-01-05T09:00:12+00:00"}));
  std::printf("nine endless series, limit 5 over a year: %.3f s\n",
              std::chrono::duration<double>(took).count());
}

TEST_F(RunawaySeries, AListingThatCannotFinishAnswersInTimeWithWhatFits) {
  // Far after the series start, every series must be walked a long way to reach the range:
  // the listing runs out of its budget and still answers (not "timeout"), marked truncated.
  const auto result = list(500, 1500ms, "2026-06-01T00:00:00Z");
  EXPECT_TRUE(result.truncated);
  EXPECT_LE(result.events.size(), 500u);
}

}  // namespace
}  // namespace tamsel::calendar
