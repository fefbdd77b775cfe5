// The provider over a scripted store: permission rules, limits, the default and read-only
// calendars, timeouts, and the dispatcher's answers for the calendar methods.
#include "tamsel/calendar/calendar_provider.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <thread>

#include "../test_support.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"

namespace tamsel::calendar {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using bridge::rpc::RPCRequest;
using bridge::rpc::RPCResult;

Timestamp at(const char* text) { return *parseTimestamp(text); }

class FakeStore : public CalendarStore {
 public:
  std::vector<StoreCalendar> cals{
      {"fake:home", "Home", "On this computer", SourceKind::local, "#112233", true},
      {"fake:feed", "Holidays", "Feeds", SourceKind::subscribed, "#445566", false}};
  std::optional<std::string> defaultID = "fake:home";
  std::vector<CalendarEvent> stored;
  std::vector<std::pair<std::string, EventFields>> saved;  // id or calendar, fields
  std::vector<SaveSpan> spans;
  std::vector<RemoveSpan> removals;
  std::atomic<int> delayMs{0};
  std::string token = "t1";

  std::vector<StoreCalendar> calendars() override { return cals; }
  std::optional<std::string> defaultCalendarID() override { return defaultID; }
  std::vector<CalendarEvent> events(Timestamp s, Timestamp e,
                                    const std::vector<std::string>& ids) override {
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs.load()));
    std::vector<CalendarEvent> out;
    for (const auto& ev : stored)
      if (ev.start < e && ev.end > s &&
          (ids.empty() || std::find(ids.begin(), ids.end(), ev.calendarID) != ids.end()))
        out.push_back(ev);
    return out;
  }
  std::optional<CalendarEvent> event(const std::string& id) override {
    for (const auto& ev : stored)
      if (ev.id == id) return ev;
    return std::nullopt;
  }
  StoreWriteOutcome createEvent(const std::string& calendarID, const EventFields& fields) override {
    saved.emplace_back(calendarID, fields);
    return {calendarID + "|new", false};
  }
  StoreWriteOutcome updateEvent(const std::string& id, const EventFields& fields,
                                SaveSpan span) override {
    saved.emplace_back(id, fields);
    spans.push_back(span);
    return {id, true};
  }
  bool removeEvent(const std::string&, RemoveSpan span) override {
    removals.push_back(span);
    if (failRemoval) throw std::runtime_error("disk full");
    return false;
  }
  std::string changeToken() override { return token; }
  bool failRemoval = false;
};

CalendarEvent makeEvent(std::string id, std::string calendar, std::string title, Timestamp start,
                        std::chrono::minutes length = 30min) {
  CalendarEvent e;
  e.id = std::move(id);
  e.calendarID = std::move(calendar);
  e.title = std::move(title);
  e.start = start;
  e.end = start + length;
  return e;
}

class ProviderTest : public ::testing::Test {
 protected:
  ProviderTest() {
    store->stored.push_back(
        makeEvent("fake:home|a", "fake:home", "Dentist", at("2026-01-05T09:00:00Z")));
    store->stored.push_back(
        makeEvent("fake:feed|h", "fake:feed", "New Year", at("2026-01-01T00:00:00Z"), 24h));
    auto lunch = makeEvent("fake:home|b", "fake:home", "Lunch", at("2026-01-05T12:00:00Z"));
    lunch.notes = "ask about the DENTIST bill";
    store->stored.push_back(lunch);
  }

  // The result of one method through the dispatcher, as the engine would get it.
  RPCResult call(std::string method, JSONValue params, std::int64_t timeoutMs = 5000) {
    return test::runAsync([&]() -> asio::awaitable<RPCResult> {
      auto provider = std::make_shared<CalendarProvider>(co_await asio::this_coro::executor, store,
                                                         permissions, prompter);
      bridge::rpc::DesktopRPCMethodDispatcher dispatcher(
          bridge::rpc::Platform{"Linux", "test", "0"});
      registerCalendarMethods(dispatcher, provider);
      RPCRequest request{"r1", method, params, timeoutMs, "s", "main", "verd", "t"};
      co_return co_await dispatcher.handle(request);
    }());
  }

  static JSONValue range(const char* start, const char* end) {
    return JSONValue::object({{"start", start}, {"end", end}});
  }

  std::shared_ptr<FakeStore> store = std::make_shared<FakeStore>();
  std::shared_ptr<MemoryPermissionStore> permissions =
      std::make_shared<MemoryPermissionStore>(CalendarPermissionStatus::granted);
  PermissionPrompter prompter;
};

TEST_F(ProviderTest, PermissionGatesEveryReadAndWrite) {
  permissions->setStatus(CalendarPermissionStatus::notDetermined);
  auto result = call("calendar.list_events", range("2026-01-01T00:00:00Z", "2026-02-01T00:00:00Z"));
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->code, "calendar_permission_not_determined");
  for (auto status : {CalendarPermissionStatus::denied, CalendarPermissionStatus::restricted,
                      CalendarPermissionStatus::writeOnly}) {
    permissions->setStatus(status);
    for (const char* method :
         {"calendar.list_sources", "calendar.create_event", "calendar.delete_event"}) {
      result = call(method, JSONValue::object({{"id", "fake:home|a"},
                                               {"start", "2026-01-07T10:00:00Z"},
                                               {"end", "2026-01-07T11:00:00Z"}}));
      ASSERT_FALSE(result.ok) << method;
      EXPECT_EQ(result.error->code, "calendar_permission_denied") << method;
    }
  }
  EXPECT_TRUE(store->saved.empty() && store->removals.empty());
  // Checking is always allowed.
  result = call("calendar.check_permission", JSONValue::object({}));
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(*result.result->find("status"), JSONValue("write_only"));
  EXPECT_EQ(*result.result->find("permission"), JSONValue("calendar"));
}

TEST_F(ProviderTest, RequestPermissionAsksOnlyWhileNotDeterminedAndOnlyWhenSomeoneAnswers) {
  permissions->setStatus(CalendarPermissionStatus::notDetermined);
  int asked = 0;
  std::optional<bool> answer;
  prompter = [&] {
    ++asked;
    return answer;
  };
  auto result = call("calendar.request_permission", JSONValue::object({}));
  EXPECT_EQ(*result.result->find("status"), JSONValue("not_determined")) << "nobody answered";
  answer = true;
  result = call("calendar.request_permission", JSONValue::object({}));
  EXPECT_EQ(*result.result->find("status"), JSONValue("granted"));
  result = call("calendar.request_permission", JSONValue::object({}));
  EXPECT_EQ(asked, 2) << "a decided status is not asked again";
  EXPECT_EQ(permissions->status(), CalendarPermissionStatus::granted);

  permissions->setStatus(CalendarPermissionStatus::notDetermined);
  prompter = []() -> std::optional<bool> { throw std::runtime_error("no terminal"); };
  result = call("calendar.request_permission", JSONValue::object({}));
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->message, "request_permission failed: no terminal");
}

TEST_F(ProviderTest, ListSortsFiltersAndTruncates) {
  auto result = call("calendar.list_events", range("2026-01-01T00:00:00Z", "2026-02-01T00:00:00Z"));
  ASSERT_TRUE(result.ok) << result.error->message;
  const auto& events = *result.result->find("events")->ifArray();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(*events[0].find("title"), JSONValue("New Year"));
  EXPECT_EQ(*events[2].find("title"), JSONValue("Lunch"));
  EXPECT_EQ(*result.result->find("truncated"), JSONValue(false));

  // "query" looks at title, location and notes, ignoring case.
  auto params = JSONValue::object(
      {{"start", "2026-01-01T00:00:00Z"}, {"end", "2026-02-01T00:00:00Z"}, {"query", "dentist"}});
  result = call("calendar.list_events", params);
  EXPECT_EQ(result.result->find("events")->ifArray()->size(), 2u);

  params = JSONValue::object({{"start", "2026-01-01T00:00:00Z"},
                              {"end", "2026-02-01T00:00:00Z"},
                              {"calendar_ids", JSONValue::Array{"fake:feed"}}});
  result = call("calendar.list_events", params);
  EXPECT_EQ(result.result->find("events")->ifArray()->size(), 1u);
  params = JSONValue::object({{"start", "2026-01-01T00:00:00Z"},
                              {"end", "2026-02-01T00:00:00Z"},
                              {"calendar_ids", JSONValue::Array{"fake:nowhere"}}});
  EXPECT_EQ(call("calendar.list_events", params).error->message,
            "Calendar or event not found: fake:nowhere");
}

TEST_F(ProviderTest, LimitDefaultsTo500) {
  store->stored.clear();
  for (int i = 0; i < 620; ++i)
    store->stored.push_back(makeEvent("fake:home|" + std::to_string(i), "fake:home", "E",
                                      at("2026-03-01T00:00:00Z") + std::chrono::minutes(i)));
  auto result = call("calendar.list_events", range("2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z"));
  EXPECT_EQ(result.result->find("events")->ifArray()->size(), 500u);
  EXPECT_EQ(*result.result->find("truncated"), JSONValue(true));
  auto params = JSONValue::object(
      {{"start", "2026-03-01T00:00:00Z"}, {"end", "2026-04-01T00:00:00Z"}, {"limit", 620}});
  result = call("calendar.list_events", params);
  EXPECT_EQ(result.result->find("events")->ifArray()->size(), 620u);
  EXPECT_EQ(*result.result->find("truncated"), JSONValue(false));
}

TEST_F(ProviderTest, CreateUsesTheDefaultCalendarAndRefusesReadOnlyOnes) {
  const auto draft = [](std::optional<std::string> calendar) {
    JSONValue::Object o{{"title", "Call"},
                        {"start", "2026-01-07T10:00:00+01:00"},
                        {"end", "2026-01-07T10:30:00+01:00"}};
    if (calendar) o["calendar_id"] = *calendar;
    return JSONValue(o);
  };
  auto result = call("calendar.create_event", draft(std::nullopt));
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.result->serialize(),
            R"({"id":"fake:home|new","invitations_sent":false,"pending_remote_sync":false})");
  EXPECT_EQ(store->saved.at(0).first, "fake:home");

  result = call("calendar.create_event", draft("fake:feed"));
  EXPECT_EQ(result.error->code, "read_only_calendar");
  EXPECT_EQ(result.error->message,
            "Calendar Holidays is read-only (subscription / birthdays / feed).");

  store->defaultID.reset();
  result = call("calendar.create_event", draft(std::nullopt));
  EXPECT_EQ(result.error->message,
            "Invalid argument for `calendar_id`: no default calendar for new events");
  EXPECT_EQ(store->saved.size(), 1u);
}

TEST_F(ProviderTest, UpdatesMergeThePatchAndPickTheSpan) {
  auto params = JSONValue::object(
      {{"id", "fake:home|a"},
       {"scope", "this_and_future"},
       {"patch", JSONValue::object({{"start", "2026-01-05T10:00:00Z"}, {"location", "Room 2"}})}});
  auto result = call("calendar.update_event", params);
  ASSERT_TRUE(result.ok) << result.error->message;
  EXPECT_EQ(*result.result->find("pending_remote_sync"), JSONValue(true));
  const auto& fields = store->saved.at(0).second;
  EXPECT_EQ(fields.title, "Dentist");
  EXPECT_EQ(fields.location, "Room 2");
  EXPECT_EQ(fields.end - fields.start, 30min) << "moving the start keeps the length";
  EXPECT_EQ(store->spans.at(0), SaveSpan::futureEvents);

  result = call("calendar.update_event",
                JSONValue::object({{"id", "fake:home|zzz"}, {"patch", JSONValue::object({})}}));
  EXPECT_EQ(result.error->code, "not_found");
  result = call("calendar.update_event",
                JSONValue::object({{"id", "fake:feed|h"}, {"patch", JSONValue::object({})}}));
  EXPECT_EQ(result.error->code, "read_only_calendar");
  result =
      call("calendar.update_event",
           JSONValue::object({{"id", "fake:home|a"},
                              {"patch", JSONValue::object({{"end", "2026-01-05T08:00:00Z"}})}}));
  EXPECT_EQ(result.error->details, JSONValue::object({{"field", "end"}}));
}

TEST_F(ProviderTest, DeletesMapScopesAndReportRemovalFailures) {
  for (const char* scope : {"this", "this_and_future", "all"}) {
    auto result =
        call("calendar.delete_event", JSONValue::object({{"id", "fake:home|a"}, {"scope", scope}}));
    ASSERT_TRUE(result.ok);
    EXPECT_EQ(result.result->serialize(), R"({"ok":true,"pending_remote_sync":false})");
  }
  EXPECT_EQ(store->removals, (std::vector<RemoveSpan>{RemoveSpan::thisEvent,
                                                      RemoveSpan::futureEvents, RemoveSpan::all}));
  store->failRemoval = true;
  auto result = call("calendar.delete_event", JSONValue::object({{"id", "fake:home|a"}}));
  EXPECT_EQ(result.error->code, "internal_error");
  EXPECT_EQ(result.error->message, "remove failed: disk full");
}

TEST_F(ProviderTest, ASlowStoreLosesTheRaceAgainstTheRequestsTimeout) {
  store->delayMs = 400;
  auto result =
      call("calendar.list_events", range("2026-01-01T00:00:00Z", "2026-02-01T00:00:00Z"), 50);
  ASSERT_FALSE(result.ok);
  EXPECT_EQ(result.error->code, "timeout");
  EXPECT_EQ(result.error->message, "Operation timed out.");
  test::runAsync([&]() -> asio::awaitable<bool> {
    CalendarProvider provider(co_await asio::this_coro::executor, store, permissions);
    EXPECT_EQ(provider.timerFor(5'000'000), std::chrono::milliseconds(3'600'000));
    EXPECT_EQ(provider.timerFor(250), 250ms);
    EXPECT_EQ(provider.timerFor(0), 30'000ms);
    co_return true;
  }());
}

TEST_F(ProviderTest, WatchingReportsDataAndPermissionChanges) {
  std::vector<CalendarChangeEvent> seen;
  test::runAsync([&]() -> asio::awaitable<bool> {
    auto executor = co_await asio::this_coro::executor;
    CalendarProvider provider(executor, store, permissions, {},
                              CalendarProvider::Options{5000ms, 20ms});
    provider.changeEvents().connect([&](CalendarChangeEvent e) { seen.push_back(e); });
    provider.startWatching();
    asio::steady_timer timer(executor);
    timer.expires_after(100ms);
    co_await timer.async_wait(asio::use_awaitable);
    EXPECT_TRUE(seen.empty()) << "nothing changed yet";
    store->token = "t2";
    permissions->setStatus(CalendarPermissionStatus::denied);
    timer.expires_after(200ms);
    co_await timer.async_wait(asio::use_awaitable);
    provider.stopWatching();
    co_return true;
  }());
  EXPECT_EQ(std::count(seen.begin(), seen.end(), CalendarChangeEvent::dataChanged), 1);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), CalendarChangeEvent::permissionChanged), 1);
}

TEST(CalendarDispatcher, RegistersTheCalendarMethodsAndAnswersOnceTheProviderIsGone) {
  test::runAsync([&]() -> asio::awaitable<bool> {
    auto provider = std::make_shared<CalendarProvider>(co_await asio::this_coro::executor,
                                                       std::make_shared<FakeStore>(),
                                                       std::make_shared<MemoryPermissionStore>());
    bridge::rpc::DesktopRPCMethodDispatcher with(bridge::rpc::Platform{"Linux", "t", "0"});
    registerCalendarMethods(with, provider);
    EXPECT_EQ(with.methods().size(), 10u);
    EXPECT_EQ(with.methods()[2], "calendar.list_sources");
    RPCRequest request{"u", "calendar.list_reminders", JSONValue::object({}), 0, "", "", "", ""};
    const auto unknown = co_await with.handle(request);
    EXPECT_EQ(unknown.error->message, "Unknown method: calendar.list_reminders");
    // The channel outlives the calendar: its methods then fail as internal errors, never crash.
    provider.reset();
    RPCRequest check{"c", "calendar.check_permission", JSONValue::object({}), 0, "", "", "", ""};
    const auto gone = co_await with.handle(check);
    EXPECT_FALSE(gone.ok);
    EXPECT_EQ(gone.error->code, "internal_error");
    co_return true;
  }());
}

}  // namespace
}  // namespace tamsel::calendar
