// EventStreamClient against the simulator's "/events": delivery, resume after a drop, silence.
#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>

#include "sim_harness.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/event_stream_client.hpp"

namespace tamsel::bridge {
namespace {

namespace asio = boost::asio;

class EventStreamSim : public ::testing::Test {
 protected:
  void runUntil(asio::io_context& io, const std::function<bool()>& done,
                std::chrono::milliseconds limit) {
    test::runUntil(io, done, limit);
  }

  // Emits an event through the simulator's test hook, from inside the loop.
  void emit(asio::io_context& io, DaemonClient& client, const std::string& name, JSON data) {
    bool sent = false;
    asio::co_spawn(
        io,
        [&]() -> asio::awaitable<void> {
          std::vector<std::string> path{"debug", "emit"};
          std::optional<JSON> body = JSON{{"event", name}, {"data", std::move(data)}};
          co_await client.call("POST", std::move(path), std::move(body));
          sent = true;
        },
        asio::detached);
    runUntil(
        io, [&] { return sent; }, std::chrono::seconds(5));
    ASSERT_TRUE(sent);
  }

  // Drains a subscription from inside the loop into `into`.
  void drain(asio::io_context& io, std::shared_ptr<EventSubscription> events,
             std::vector<DaemonEventPtr>& into) {
    asio::co_spawn(
        io,
        [events, &into]() -> asio::awaitable<void> {
          while (auto e = co_await events->next()) into.push_back(*e);
        },
        asio::detached);
  }

  static std::vector<std::string> eventsQueries(const test::SimEngine& sim) {
    std::vector<std::string> out;
    for (const auto& line : sim.recordedRequests()) {
      auto r = base::json::parse(line);
      if (r.at("path").as_string() != "/events") continue;
      const auto* id = r.at("query").as_object().if_contains("last_event_id");
      out.push_back(id ? std::string(id->as_string()) : std::string("-"));
    }
    return out;
  }
};

TEST_F(EventStreamSim, AnEndlessLineDropsTheConnectionWithItsReasonAndTheBusReconnects) {
  test::SimEngine sim({.scenarioJSON = R"({"events_endless_line": true})"});
  asio::io_context io;
  std::vector<std::string> losses;  // outlives the client, which reports its end too
  EventStreamClient events(io.get_executor(), {sim.port(), sim.token(), "DEVICE-9"});
  events.connectionChanged().connect([&](bool up) {
    if (!up) losses.push_back(events.lastFailure().value_or("(none)"));
  });
  auto subscription = events.subscribe();
  runUntil(
      io, [&] { return eventsQueries(sim).size() >= 2; }, std::chrono::seconds(20));
  ASSERT_GE(losses.size(), 1u);
  EXPECT_EQ(losses[0],
            "The engine sent an event-stream line longer than 8 MiB; the stream was dropped");
  EXPECT_GE(eventsQueries(sim).size(), 2u) << "the bus connects again after the failure";
  EXPECT_TRUE(events.isRunning());
}

TEST_F(EventStreamSim, DeliversDecodedEventsAndResumesAfterADrop) {
  test::SimEngine sim({});
  asio::io_context io;
  DaemonClient client({sim.port(), sim.token(), "DEVICE-9", {}});
  EventStreamClient::Config config{sim.port(), sim.token(), "DEVICE-9"};
  config.engineInstance = [] { return std::optional<std::string>("the same engine throughout"); };
  EventStreamClient events(io.get_executor(), config);
  std::vector<bool> connections;
  events.connectionChanged().connect([&](bool up) { connections.push_back(up); });
  auto subscription = events.subscribe();
  std::vector<DaemonEventPtr> seen;
  drain(io, subscription.events, seen);
  runUntil(
      io, [&] { return events.isConnected(); }, std::chrono::seconds(5));
  ASSERT_TRUE(events.isConnected());

  emit(io, client, "tool_status",
       JSON{{"tool", "bash"}, {"status", "running"}, {"session_id", "s1"}});
  emit(io, client, "not_an_event_we_know", JSON{{"x", 1}});
  emit(io, client, "approval_request", JSON{{"request_id", "r1"}, {"tool", "bash"}});
  runUntil(
      io, [&] { return seen.size() == 2; }, std::chrono::seconds(5));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0]->get<DaemonEvent::ToolStatus>()->value.sessionId, "s1");
  EXPECT_EQ(seen[1]->get<DaemonEvent::ApprovalRequest>()->value.requestId, "r1");
  const auto lastSeen = events.lastEventID();
  ASSERT_TRUE(lastSeen);

  // Drop the stream and publish while the client is away: the resume point brings it back.
  emit(io, client, "run_status", JSON{{"code", "x"}});  // arrives before the drop
  runUntil(
      io, [&] { return seen.size() == 3; }, std::chrono::seconds(5));
  std::vector<std::string> dropPath{"debug", "drop-streams"};
  bool dropped = false;
  asio::co_spawn(
      io,
      [&]() -> asio::awaitable<void> {
        std::string method = "POST";
        co_await client.call(std::move(method), dropPath);
        dropped = true;
      },
      asio::detached);
  runUntil(
      io, [&] { return dropped && !events.isConnected(); }, std::chrono::seconds(5));
  emit(io, client, "session_title_updated",
       JSON{{"session_id", "s1"}, {"title", "Missed while away"}});
  runUntil(
      io, [&] { return seen.size() == 4; }, std::chrono::seconds(5));
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[3]->get<DaemonEvent::SessionTitleUpdated>()->value.title, "Missed while away");

  const auto queries = eventsQueries(sim);
  ASSERT_GE(queries.size(), 2u);
  EXPECT_EQ(queries.front(), "-");
  EXPECT_NE(queries.back(), "-") << "the reconnect carries last_event_id";
  EXPECT_NE(queries.back(), "0")
      << "the same engine resumes after its last event, not from its first";
  EXPECT_FALSE(events.readsNewEngineFromStart()) << "the same engine is resumed, not reread";
  EXPECT_EQ((std::vector<bool>{connections.begin(), connections.begin() + 3}),
            (std::vector<bool>{true, false, true}));
  events.stop();
}

TEST_F(EventStreamSim, ASilentStreamCountsAsFailedAndIsReopened) {
  test::SimEngine sim({.scenarioJSON = R"({"events_keepalive_seconds": 0})"});
  asio::io_context io;
  EventStreamClient events(io.get_executor(),
                           {sim.port(), sim.token(), "DEVICE-9", std::chrono::milliseconds(300)});
  int opened = 0;
  events.connectionChanged().connect([&](bool up) { opened += up ? 1 : 0; });
  events.start();
  runUntil(
      io, [&] { return opened >= 2; }, std::chrono::seconds(6));
  EXPECT_GE(opened, 2) << "a stream silent past its limit is closed and opened again";
  events.stop();

  // Keepalive comments are traffic: with them the same limit holds the stream open.
  test::SimEngine chatty({.scenarioJSON = R"({"events_keepalive_seconds": 0.1})"});
  EventStreamClient kept(io.get_executor(), {chatty.port(), chatty.token(), "DEVICE-9",
                                             std::chrono::milliseconds(300)});
  int keptOpened = 0;
  kept.connectionChanged().connect([&](bool up) { keptOpened += up ? 1 : 0; });
  kept.start();
  runUntil(
      io, [] { return false; }, std::chrono::milliseconds(1500));
  EXPECT_EQ(keptOpened, 1);
  EXPECT_TRUE(kept.isConnected());
  kept.stop();
}

}  // namespace
}  // namespace tamsel::bridge
