// DaemonClient against the engine simulator over real loopback HTTP.
#include <gtest/gtest.h>

#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "sim_harness.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/http_transport.hpp"
#include "tamsel/bridge/sse_parser.hpp"

namespace tamsel::bridge {
namespace {

namespace asio = boost::asio;
using namespace asio::experimental::awaitable_operators;
using test::runAsync;
using test::SimEngine;

DaemonClient clientFor(const SimEngine& sim) {
  return DaemonClient({sim.port(), sim.token(), "DEVICE-1", {"approvals", "questions"}});
}

asio::awaitable<void> sleepMs(int ms) {
  asio::steady_timer t(co_await asio::this_coro::executor, std::chrono::milliseconds(ms));
  co_await t.async_wait(asio::use_awaitable);
}

template <class F>
DaemonClientError expectClientError(F&& call) {
  try {
    call();
  } catch (const DaemonClientException& e) {
    return e.error();
  }
  ADD_FAILURE() << "expected a DaemonClientException";
  return {DaemonClientError::QueueFull{}};
}

TEST(DaemonClientSim, TypedReadsDecodeAndCarryThePresenceHeader) {
  SimEngine sim({});
  auto client = clientFor(sim);
  EXPECT_TRUE(runAsync(client.health()));
  const auto status = runAsync(client.status());
  EXPECT_TRUE(status.isConnected);
  ASSERT_TRUE(status.capabilities);
  EXPECT_FALSE(status.capabilities->empty());

  const auto agents = runAsync(client.agents());
  ASSERT_FALSE(agents.empty());
  const auto all = runAsync(client.sessions());
  const auto mine = runAsync(client.sessions({.agent = agents.front().name}));
  EXPECT_LT(mine.size(), all.size());
  for (const auto& s : mine) EXPECT_EQ(s.agent, agents.front().name);
  for (const auto& s : all)
    EXPECT_TRUE(s.updatedAt.has_value()) << "dates with and without fractions decode";

  const auto page = runAsync(client.sessionPage({.scope = "all", .limit = 2, .offset = 0}));
  EXPECT_EQ(page.sessions.size(), 2u);
  EXPECT_TRUE(page.hasMore);
  EXPECT_GT(page.total, 2);

  const auto detail = runAsync(client.sessionDetail(all.front().id, all.front().agent));
  EXPECT_EQ(detail.id, all.front().id);
  EXPECT_FALSE(detail.messages.empty());

  auto error =
      expectClientError([&] { runAsync(client.sessionDetail("no such/session", std::nullopt)); });
  ASSERT_TRUE(error.is<DaemonClientError::ServerError>());
  EXPECT_EQ(error.as<DaemonClientError::ServerError>().status, 404);

  const auto requests = sim.recordedRequests();
  ASSERT_GE(requests.size(), 7u);
  for (const auto& line : requests) {
    const auto r = base::json::parse(line);
    EXPECT_TRUE(r.at("presence_ok").as_bool()) << line;
    // Identity of the device travels only with calls that start work.
    EXPECT_TRUE(r.at("device_id").is_null()) << line;
  }
  // The identifier with a slash stays one path segment.
  EXPECT_NE(requests.back().find("\"/sessions/no%20such%2Fsession\""), std::string::npos)
      << requests.back();
}

TEST(DaemonClientSim, WrongTokenIsRefusedByTheEngine) {
  SimEngine sim({});
  DaemonClient client({sim.port(), "WRONG", "DEVICE-1", {}});
  auto error = expectClientError([&] { runAsync(client.agents()); });
  ASSERT_TRUE(error.is<DaemonClientError::ServerError>());
  EXPECT_EQ(error.as<DaemonClientError::ServerError>().status, 401);
}

TEST(DaemonClientSim, QueueRequiresAMessageIdUnlessDeduped) {
  SimEngine sim({});
  auto client = clientFor(sim);
  QueueEnqueueRequest request;
  request.text = "later";
  request.sessionId = "s_7f3a9c01";
  request.clientMessageId = "cm-1";
  const auto first = runAsync(client.enqueue(request));
  EXPECT_TRUE(first.messageId.has_value());
  const auto again = runAsync(client.enqueue(request));
  EXPECT_EQ(again.outcome, "deduped");

  SimEngine broken(
      {.scenarioJSON =
           R"({"responses":[{"method":"POST","path":"/queue","status":200,"body":{"ok":true,"outcome":"queued"}}]})"});
  auto brokenClient = clientFor(broken);
  auto error = expectClientError([&] { runAsync(brokenClient.enqueue(request)); });
  ASSERT_TRUE(error.is<DaemonClientError::ServerError>());
  EXPECT_EQ(error.as<DaemonClientError::ServerError>().status, 200);
  EXPECT_EQ(error.as<DaemonClientError::ServerError>().message, "enqueue: missing message_id");
}

TEST(DaemonClientSim, ErrorBodiesMapOverTheWire) {
  SimEngine sim({.scenarioJSON = R"({"responses":[
    {"method":"GET","path":"/agents","status":402,"body":{"error":"no credits","code":"credits_exhausted","auto_refill_started":true},"times":1},
    {"method":"GET","path":"/agents","status":400,"body":{"error":"bad","message":"That name is taken","code":"display_name_taken"},"times":1},
    {"method":"GET","path":"/agents","status":500,"raw_body":"","times":1},
    {"method":"GET","path":"/status","status":200,"raw_body":"{\"is_connected\": true, \"uptime\": \"soon\"}","times":1}]})"});
  auto client = clientFor(sim);
  auto e = expectClientError([&] { runAsync(client.agents()); });
  ASSERT_TRUE(e.is<DaemonClientError::CreditsExhausted>());
  EXPECT_TRUE(e.as<DaemonClientError::CreditsExhausted>().details.autoRefillStarted);
  e = expectClientError([&] { runAsync(client.agents()); });
  ASSERT_TRUE(e.is<DaemonClientError::Validation>());
  EXPECT_EQ(e.description(), "That name is taken");
  e = expectClientError([&] { runAsync(client.agents()); });
  ASSERT_TRUE(e.is<DaemonClientError::ServerError>());
  EXPECT_EQ(e.as<DaemonClientError::ServerError>().message, "Unknown error");
  // A 200 that does not decode is an error, not a half-filled record.
  e = expectClientError([&] { runAsync(client.status()); });
  EXPECT_TRUE(e.is<DaemonClientError::ServerError>());
  EXPECT_FALSE(runAsync(client.agents()).empty());
}

TEST(DaemonClientSim, GenericEndpointsAndUpload) {
  SimEngine sim({});
  auto client = clientFor(sim);
  auto config = runAsync(client.call("GET", {"config"}));
  EXPECT_TRUE(config.is_object());
  auto created = runAsync(client.call("POST", {"schedules"},
                                      JSON{{"prompt", "water the plants"}, {"cron", "0 9 * * *"}}));
  ASSERT_TRUE(created.is_object());
  const std::string id(created.at("id").as_string());
  auto patched = runAsync(client.call("PATCH", {"schedules", id}, JSON{{"enabled", false}}));
  EXPECT_FALSE(patched.at("enabled").as_bool());
  runAsync(client.call("DELETE", {"schedules", id}));
  auto uploaded =
      runAsync(client.uploadSkillPackage("skill.zip", std::string("PK\x03\x04zipbytes", 12)));
  EXPECT_EQ(uploaded.at("bytes").to_number<std::int64_t>(), 12);
  EXPECT_EQ(DaemonClient::sessionFor({"local", "screenshot", "window"}), HttpSessionKind::capture);
  EXPECT_EQ(DaemonClient::sessionFor({"config"}), HttpSessionKind::config);
  EXPECT_EQ(DaemonClient::buildTarget({"skills", "install", "a b/c"}, {{"q", "x&y"}}),
            "/skills/install/a%20b%2Fc?q=x%26y");
}

TEST(DaemonClientSim, TransportFailuresAndTimeLimits) {
  DaemonClient nobody({test::freePort(), "T", "D", {}});
  EXPECT_THROW(runAsync(nobody.status()), TransportError);
  EXPECT_THROW(runAsync(nobody.health()), TransportError);

  // The control session gives up after 5 seconds.
  SimEngine slow(
      {.scenarioJSON =
           R"({"responses":[{"method":"GET","path":"/status","status":200,"body":{"is_connected":true},"delay_seconds":8}]})"});
  auto client = clientFor(slow);
  const auto started = std::chrono::steady_clock::now();
  EXPECT_THROW(runAsync(client.status()), TransportError);
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_GE(took, std::chrono::milliseconds(4900));
  EXPECT_LT(took, std::chrono::milliseconds(7500));
}

TEST(DaemonClientSim, AHostileEngineCannotMakeTheClientBufferWithoutEnd) {
  // A 100 MiB answer to a short control call fails at the limit instead of being held whole;
  // the next call works as before.
  SimEngine sim(
      {.scenarioJSON =
           R"({"responses":[{"method":"POST","path":"/shutdown","body_bytes":104857600,"times":1}],)"
           R"("stream_events":[{"event":"delta","data":{"text":"a"}},{"endless_line":true}]})"});
  auto client = clientFor(sim);
  try {
    runAsync(
        [&]() -> asio::awaitable<bool> {
          co_await client.shutdown();
          co_return true;
        }(),
        std::chrono::seconds(30));
    ADD_FAILURE() << "a 100 MiB answer was accepted";
  } catch (const ResponseTooLargeError& e) {
    EXPECT_STREQ(e.what(),
                 "The engine's answer to POST /shutdown was larger than 64 MiB; the call was "
                 "dropped");
  }
  EXPECT_TRUE(runAsync(client.health()));

  // A reply whose line never ends: the events before it arrive, then the limit's error.
  auto seen = runAsync(
      [&]() -> asio::awaitable<std::pair<int, std::string>> {
        SendMessageRequest request;
        request.text = "hi";
        request.newSession = true;
        auto stream = co_await client.sendMessage(request);
        int events = 0;
        try {
          while (co_await stream.next()) ++events;
        } catch (const SSELimitError& e) {
          co_return std::pair(events, std::string(e.what()));
        }
        co_return std::pair(events, std::string());
      }(),
      std::chrono::seconds(30));
  EXPECT_EQ(seen.first, 1);
  EXPECT_EQ(seen.second,
            "The engine sent an event-stream line longer than 8 MiB; the stream was dropped");
}

TEST(DaemonClientSim, LivenessAnswersWhileEveryLongSlotIsBusy) {
  SimEngine sim({.scenarioJSON = R"({"message_hold_seconds": 30})"});
  auto sessions = std::make_shared<HttpSessions>();
  DaemonClient client({sim.port(), sim.token(), "DEVICE-1", {"approvals", "questions"}, sessions});
  auto& longSession = *sessions->of(HttpSessionKind::longLived);
  ASSERT_EQ(longSession.config().maxConnections, 64u);

  struct Outcome {
    std::size_t busy = 0;
    bool sixtyFifthWaited = false;
    bool healthy = false;
    bool statusWorked = false;
    bool sixtyFifthOpenedAfterRelease = false;
  };
  auto outcome = runAsync(
      [&]() -> asio::awaitable<Outcome> {
        Outcome o;
        std::vector<ReplyStream> streams;
        SendMessageRequest request;
        request.text = "hold this";
        request.sessionId = "s_7f3a9c01";
        for (int i = 0; i < 64; ++i) streams.push_back(co_await client.sendMessage(request));
        o.busy = longSession.activeConnections();

        // The 65th long request waits for a slot...
        auto waiting = co_await (client.sendMessage(request) || sleepMs(700));
        o.sixtyFifthWaited = waiting.index() == 1;
        // ...while liveness and control calls still answer.
        o.healthy = co_await client.health();
        o.statusWorked = (co_await client.status()).isConnected;

        // Freeing one slot lets the next request through.
        streams.pop_back();
        auto next = co_await (client.sendMessage(request) || sleepMs(5000));
        o.sixtyFifthOpenedAfterRelease = next.index() == 0;
        co_return o;
      }(),
      std::chrono::seconds(60));
  EXPECT_EQ(outcome.busy, 64u);
  EXPECT_TRUE(outcome.sixtyFifthWaited);
  EXPECT_TRUE(outcome.healthy);
  EXPECT_TRUE(outcome.statusWorked);
  EXPECT_TRUE(outcome.sixtyFifthOpenedAfterRelease);
  EXPECT_EQ(longSession.activeConnections(), 0u);

  // Streaming calls identify the device and the consumer's capabilities.
  const auto last = base::json::parse(sim.recordedRequests().back());
  EXPECT_EQ(last.at("path").as_string(), "/message");
  EXPECT_EQ(last.at("device_id").as_string(), "DEVICE-1");
  EXPECT_EQ(last.at("capabilities").as_string(), "approvals,questions");
  EXPECT_EQ(last.at("accept").as_string(), "text/event-stream");
}

}  // namespace
}  // namespace tamsel::bridge
