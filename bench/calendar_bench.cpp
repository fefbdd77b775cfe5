// list_events over a busy year in the local vdir store: 4,900 single events and 100 weekly or
// daily series (about 5,000 files), queried through the provider as the engine would.
#include <benchmark/benchmark.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <cstdlib>
#include <filesystem>

#include "tamsel/base/uuid.hpp"
#include "tamsel/calendar/calendar_provider.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"

namespace {

using namespace tamsel::calendar;
namespace fs = std::filesystem;

struct BusyCalendar {
  fs::path root =
      fs::temp_directory_path() / ("tamsel-calendar-bench-" + tamsel::base::newUUIDString());
  std::shared_ptr<VdirCalendarStore> store = std::make_shared<VdirCalendarStore>(root);

  BusyCalendar() {
    ::setenv("TZ", "Europe/Berlin", 1);
    const auto calendar = store->addCalendar("busy", "Busy", "");
    const Timestamp yearStart = *parseTimestamp("2026-01-01T08:00:00+01:00");
    for (int i = 0; i < 4900; ++i) {
      EventFields f;
      f.title = "Meeting " + std::to_string(i);
      f.location =
          i % 3 ? std::optional<std::string>("Room " + std::to_string(i % 17)) : std::nullopt;
      f.start =
          yearStart + std::chrono::hours(24 * (i % 365)) + std::chrono::minutes(30 * (i % 20));
      f.end = f.start + std::chrono::minutes(45);
      store->createEvent(calendar, f);
    }
    for (int i = 0; i < 100; ++i) {
      EventFields f;
      f.title = "Series " + std::to_string(i);
      f.start = yearStart + std::chrono::hours(24 * (i % 30) + i % 9);
      f.end = f.start + std::chrono::minutes(30);
      f.recurrenceRule =
          RecurrenceRule{i % 4 ? "weekly" : "daily", 1, {}, std::nullopt, std::nullopt, ""};
      store->createEvent(calendar, f);
    }
  }
  ~BusyCalendar() {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
};

BusyCalendar& busy() {
  static BusyCalendar calendar;
  return calendar;
}

void listYear(benchmark::State& state, std::int64_t limit) {
  auto& cal = busy();
  boost::asio::io_context io;
  CalendarProvider provider(
      io.get_executor(), cal.store,
      std::make_shared<MemoryPermissionStore>(CalendarPermissionStatus::granted));
  std::size_t returned = 0;
  bool truncated = false;
  for (auto _ : state) {
    ListEventsParams params{*parseTimestamp("2026-01-01T00:00:00+01:00"),
                            *parseTimestamp("2027-01-01T00:00:00+01:00"), std::nullopt,
                            std::nullopt, limit};
    boost::asio::co_spawn(io, provider.listEvents(params, std::chrono::seconds(60)),
                          [&](std::exception_ptr, CalendarEventList list) {
                            returned = list.events.size();
                            truncated = list.truncated;
                          });
    io.restart();
    io.run();
  }
  state.counters["events_returned"] = static_cast<double>(returned);
  state.counters["truncated"] = truncated ? 1 : 0;
}

void BM_ListEventsYearAll(benchmark::State& state) { listYear(state, 100000); }
void BM_ListEventsYearDefaultLimit(benchmark::State& state) { listYear(state, 500); }

BENCHMARK(BM_ListEventsYearAll)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ListEventsYearDefaultLimit)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
