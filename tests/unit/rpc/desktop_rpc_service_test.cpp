// DesktopRPCService against a fake engine on a real Unix socket: the handshake, serving in
// order, the ways a connection fails and coming back.
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"

#include <gtest/gtest.h>

#include <regex>

#include "../test_support.hpp"
#include "fake_engine.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/bridge/rpc/unix_socket_client.hpp"

namespace tamsel::bridge::rpc {
namespace {

namespace asio = boost::asio;
using test::eventually;
using test::FakeEngine;
using namespace std::chrono_literals;

// Records when each request begins and ends, and takes a while over each.
class SlowDispatcher : public DesktopRPCMethodDispatcher {
 public:
  SlowDispatcher()
      : DesktopRPCMethodDispatcher(Platform{"Linux", "Test OS 1 (kernel 6.1)", "9.9.9"}) {}
  std::vector<std::string> log;

  asio::awaitable<RPCResult> handle(RPCRequest request) override {
    log.push_back("begin " + request.requestID);
    asio::steady_timer timer(co_await asio::this_coro::executor);
    timer.expires_after(20ms);
    co_await timer.async_wait(asio::use_awaitable);
    log.push_back("end " + request.requestID);
    co_return co_await DesktopRPCMethodDispatcher::handle(request);
  }
};

struct StartOutcome {
  bool done = false;
  std::string text = "ok";
  std::optional<ServiceError> serviceError;
};

class DesktopRPCServiceTest : public ::testing::Test {
 protected:
  DesktopRPCService::Options options(double timeout = 3.0) {
    DesktopRPCService::Options o;
    o.socketPath = dir.path() / "daemon.sock";
    o.pidfilePath = dir.path() / "daemon.pid";
    o.handshakeTimeoutSeconds = timeout;
    o.connectAttempts = 5;
    o.connectRetryDelaySeconds = 0.01;
    return o;
  }

  static std::shared_ptr<StartOutcome> begin(DesktopRPCService& service,
                                             const asio::any_io_executor& executor) {
    auto outcome = std::make_shared<StartOutcome>();
    asio::co_spawn(executor, service.start(), [outcome](std::exception_ptr e) {
      outcome->done = true;
      if (!e) return;
      try {
        std::rethrow_exception(e);
      } catch (const ServiceException& error) {
        outcome->serviceError = error.error();
        outcome->text = error.what();
      } catch (const std::exception& error) {
        outcome->text = error.what();
      }
    });
    return outcome;
  }

  // Brings the service online through the fake engine's handshake.
  static asio::awaitable<void> goOnline(DesktopRPCService& service, FakeEngine& engine) {
    auto outcome = begin(service, co_await asio::this_coro::executor);
    co_await engine.accept();
    auto request = co_await engine.readFrame();
    EXPECT_TRUE(request && request->ifRequest());
    const RPCRequest handshake = *request->ifRequest();
    co_await engine.answerHandshake(handshake, "1.0.0");
    auto online = co_await engine.readFrame();
    EXPECT_TRUE(online && online->ifEvent());
    EXPECT_TRUE(co_await eventually([&] { return outcome->done; }));
    EXPECT_EQ(outcome->text, "ok");
  }

  test::TempDir dir;
  std::shared_ptr<SlowDispatcher> dispatcher = std::make_shared<SlowDispatcher>();
};

RPCRequest engineRequest(std::string id, std::string method) {
  return RPCRequest{
      std::move(id), std::move(method), JSONValue::object({}), 1000, "s", "main", "verd", "t"};
}

TEST_F(DesktopRPCServiceTest, HandshakeAnnouncesThenServesOneRequestAtATimeInOrder) {
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options());
    int changes = 0;
    service.changed().connect([&] { ++changes; });

    auto outcome = begin(service, executor);
    co_await engine.accept();
    const auto first = co_await engine.readFrame();
    EXPECT_TRUE(first && first->ifRequest());
    const RPCRequest handshake = *first->ifRequest();
    EXPECT_TRUE(std::regex_match(handshake.requestID, std::regex("drpc_[A-Za-z0-9]{16}")))
        << handshake.requestID;
    EXPECT_EQ(handshake.method, "system.capabilities");
    EXPECT_EQ(handshake.params, JSONValue(JSONValue::Object{}));
    EXPECT_EQ(handshake.timeoutMs, 5000);
    EXPECT_EQ(handshake.sessionID, "sess_reconciliation");
    EXPECT_EQ(handshake.agent, "desktop-rpc-service");
    EXPECT_EQ(handshake.source, "tamsel");
    EXPECT_TRUE(base::parseISO8601(handshake.ts) && handshake.ts.find('.') != std::string::npos)
        << handshake.ts;
    EXPECT_NE(DesktopRPCService::makeHandshakeRequest().requestID, handshake.requestID);

    // A result nobody waits for changes nothing; the real answer still completes the handshake.
    co_await engine.send(
        Frame::rpcResult(RPCResult::success("drpc_nobodywaits0000", JSONValue("x"))));
    EXPECT_FALSE(service.isOnline());
    co_await engine.answerHandshake(handshake, "1.0.0");

    const auto announced = co_await engine.readFrame();
    EXPECT_TRUE(announced && announced->ifEvent());
    const DesktopEvent online = *announced->ifEvent();
    EXPECT_EQ(online.event, "desktop_online");
    EXPECT_EQ(
        online.data->serialize(),
        R"j({"platform":{"app_version":"9.9.9","os":"Linux","os_version":"Test OS 1 (kernel 6.1)"},"version":"1.0.0"})j");
    EXPECT_TRUE(base::parseISO8601(online.ts));
    EXPECT_TRUE(co_await eventually([&] { return outcome->done; }));
    EXPECT_EQ(outcome->text, "ok");
    EXPECT_TRUE(service.isOnline());
    EXPECT_FALSE(service.lastError());
    EXPECT_EQ(changes, 1);

    // Three requests back to back: answered in arrival order, each finished before the next began.
    for (const auto& [id, method] : {std::pair{"a", "system.ping"},
                                     {"b", "system.capabilities"},
                                     {"c", "calendar.list_events"}}) {
      co_await engine.send(Frame::rpcRequest(engineRequest(id, method)));
    }
    std::vector<RPCResult> results;
    for (int i = 0; i < 3; ++i) {
      auto frame = co_await engine.readFrame();
      EXPECT_TRUE(frame && frame->ifResult());
      if (frame && frame->ifResult()) results.push_back(*frame->ifResult());
    }
    EXPECT_EQ(dispatcher->log, (std::vector<std::string>{"begin a", "end a", "begin b", "end b",
                                                         "begin c", "end c"}));
    EXPECT_EQ(results.size(), 3u);
    if (results.size() == 3) {
      EXPECT_EQ(results[0].requestID, "a");
      EXPECT_TRUE(results[0].ok);
      EXPECT_EQ(*results[0].result->find("echo"), JSONValue("pong"));
      EXPECT_EQ(results[1].requestID, "b");
      EXPECT_EQ(*results[1].result->find("version"), JSONValue("1.0.0"));
      EXPECT_EQ(results[2].requestID, "c");
      EXPECT_FALSE(results[2].ok);
      EXPECT_EQ(results[2].error->message, "Unknown method: calendar.list_events");
    }

    // A frame that arrives a byte at a time is still one frame.
    const std::string split =
        LengthPrefixedCodec::encode(Frame::rpcRequest(engineRequest("d", "system.ping")).encode());
    asio::steady_timer pause(executor);
    for (char byte : split) {
      std::string one(1, byte);
      co_await engine.sendRaw(one);
      pause.expires_after(100us);
      co_await pause.async_wait(asio::use_awaitable);
    }
    const auto answered = co_await engine.readFrame();
    EXPECT_TRUE(answered && answered->ifResult() && answered->ifResult()->requestID == "d");

    // The engine goes away: offline, with the reason.
    engine.closeConnection();
    EXPECT_TRUE(co_await eventually([&] { return !service.isOnline(); }));
    EXPECT_EQ(service.lastError().value_or(""), "transport error: unexpected end of stream");
    EXPECT_EQ(changes, 2) << "offline and its reason arrive as one change";

    // And back: a new start connects afresh.
    co_await goOnline(service, engine);
    EXPECT_TRUE(service.isOnline());
    EXPECT_FALSE(service.lastError());
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, AnotherVersionIsRefusedWithoutAnnouncing) {
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options());
    auto outcome = begin(service, executor);
    co_await engine.accept();
    const auto request = co_await engine.readFrame();
    const RPCRequest handshake = *request->ifRequest();
    co_await engine.answerHandshake(handshake, "1.0.1");
    EXPECT_TRUE(co_await eventually([&] { return outcome->done; }));
    EXPECT_TRUE(outcome->serviceError && std::holds_alternative<ServiceError::ProtocolMismatch>(
                                             outcome->serviceError->value));
    EXPECT_EQ(service.lastError().value_or(""),
              "protocol version mismatch (expected 1.0.0, got 1.0.1)");
    EXPECT_FALSE(service.isOnline());
    const auto after = co_await engine.readFrame();
    EXPECT_FALSE(after.has_value())
        << "the desktop announced itself to an engine of another version";
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, MalformedOrFailedHandshakeRepliesAreRefused) {
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options());
    const std::vector<std::function<RPCResult(const std::string&)>> replies{
        [](const std::string& id) { return RPCResult::success(id, JSONValue("1.0.0")); },
        [](const std::string& id) {
          return RPCResult::success(id, JSONValue::object({{"methods", JSONValue::Array{}}}));
        },
        [](const std::string& id) {
          return RPCResult::success(id, JSONValue::object({{"version", 1}}));
        },
        [](const std::string& id) {
          return RPCResult{id, false, JSONValue::object({{"version", "1.0.0"}}),
                           RPCError{"internal_error", "boom", true, std::nullopt}};
        },
    };
    for (const auto& reply : replies) {
      auto outcome = begin(service, executor);
      co_await engine.accept();
      const auto request = co_await engine.readFrame();
      const std::string id = request->ifRequest()->requestID;
      co_await engine.send(Frame::rpcResult(reply(id)));
      EXPECT_TRUE(co_await eventually([&] { return outcome->done; }));
      const std::string text = service.lastError().value_or("");
      EXPECT_TRUE(text.starts_with(
          "daemon system.capabilities response malformed or error: {\"request_id\":\"" + id))
          << text;
      EXPECT_FALSE(service.isOnline());
    }
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, HandshakeWithoutAnswerTimesOut) {
  EXPECT_EQ(DesktopRPCService::Options{}.handshakeTimeoutSeconds, 3.0);
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options(0.2));
    auto outcome = begin(service, executor);
    co_await engine.accept();
    co_await engine.readFrame();
    EXPECT_TRUE(co_await eventually([&] { return outcome->done; }));
    EXPECT_EQ(outcome->text, "system.capabilities timed out after 0.2s");
    EXPECT_EQ(service.lastError().value_or(""), "system.capabilities timed out after 0.2s");
    const auto after = co_await engine.readFrame();
    EXPECT_FALSE(after.has_value()) << "the connection outlived the failed handshake";
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, EngineLeavingDuringTheHandshakeFailsTheWaiter) {
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options());
    auto outcome = begin(service, executor);
    co_await engine.accept();
    co_await engine.readFrame();
    engine.closeConnection();
    EXPECT_TRUE(co_await eventually([&] { return outcome->done; }));
    EXPECT_TRUE(outcome->serviceError);
    if (outcome->serviceError) {
      const auto* closed =
          std::get_if<ServiceError::TransportClosed>(&outcome->serviceError->value);
      EXPECT_TRUE(closed && closed->reason == "desktop_disconnected");
    }
    EXPECT_EQ(service.lastError().value_or(""), "transport error: unexpected end of stream");

    // stop() while the handshake waits fails it the same way.
    auto stopped = begin(service, executor);
    co_await engine.accept();
    co_await engine.readFrame();
    service.stop();
    EXPECT_TRUE(co_await eventually([&] { return stopped->done; }));
    EXPECT_EQ(stopped->text, "transport closed: desktop_disconnected");
    EXPECT_FALSE(service.isOnline());
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, AnUnreadableFrameWhileOnlineEndsTheConnection) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {LengthPrefixedCodec::encode("{not json"), "transport error: invalid JSON: "},
      {LengthPrefixedCodec::encode(R"({"type":"desktop_rpc_cancel","payload":{"request_id":"a"}})"),
       "transport error: Unknown frame type: desktop_rpc_cancel"},
      {std::string("\x00\x40\x00\x01", 4) + "{}",
       "transport error: frame too large: 4194305 bytes announced"},
      {std::string(4, '\0'), "transport error: empty frame"},
  };
  EXPECT_TRUE(test::runAsync([&]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options());
    for (const auto& [bytes, expected] : cases) {
      co_await goOnline(service, engine);
      std::string raw = bytes;
      co_await engine.sendRaw(raw);
      EXPECT_TRUE(co_await eventually([&] { return !service.isOnline(); })) << expected;
      EXPECT_TRUE(service.lastError().value_or("").starts_with(expected))
          << service.lastError().value_or("");
      const auto after = co_await engine.readFrame();
      EXPECT_FALSE(after.has_value()) << "the desktop kept the connection after " << expected;
    }
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, StopEndsAnOnlineConnection) {
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    FakeEngine engine(executor, options().socketPath);
    DesktopRPCService service(executor, dispatcher, options());
    co_await goOnline(service, engine);
    service.stop();
    EXPECT_FALSE(service.isOnline());
    const auto after = co_await engine.readFrame();
    EXPECT_FALSE(after.has_value());
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, WithoutAnEngineConnectingGivesUpAfterThirtyAttempts) {
  auto o = options();
  o.connectAttempts = 30;
  o.connectRetryDelaySeconds = 0.1;
  EXPECT_TRUE(test::runAsync([&]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    DesktopRPCService service(executor, dispatcher, o);
    auto outcome = begin(service, executor);
    EXPECT_TRUE(co_await eventually([&] { return outcome->done; }, 10s));
    EXPECT_EQ(outcome->text, "failed after 30 attempts: No such file or directory");
    EXPECT_EQ(service.lastError(), outcome->text);
    EXPECT_FALSE(service.isOnline());
    co_return true;
  }()));
}

TEST(UnixSocketClient, RefusesAPathLongerThanTheSocketAddressHolds) {
  EXPECT_TRUE(test::runAsync([]() -> asio::awaitable<bool> {
    UnixSocketClient client(co_await asio::this_coro::executor, "/tmp/" + std::string(110, 'x'));
    try {
      co_await client.connect();
      ADD_FAILURE() << "connected";
    } catch (const TransportException& e) {
      EXPECT_TRUE(
          std::string(e.what()).starts_with("socket path is too long (115 bytes, at most 107)"))
          << e.what();
    }
    try {
      co_await client.receive(4);
      ADD_FAILURE() << "received";
    } catch (const TransportException& e) {
      EXPECT_TRUE(std::holds_alternative<TransportError::NotConnected>(e.error().value));
    }
    co_return true;
  }()));
}

TEST_F(DesktopRPCServiceTest, ProbeAsksTheVersionWithoutAnnouncing) {
  EXPECT_TRUE(test::runAsync([this]() -> asio::awaitable<bool> {
    const auto executor = co_await asio::this_coro::executor;
    const auto path = options().socketPath;
    FakeEngine engine(executor, path);
    std::string reported;
    bool done = false;
    asio::co_spawn(executor, DesktopRPCService::probeProtocolVersion(path, 1.0),
                   [&](std::exception_ptr, std::string version) {
                     reported = version;
                     done = true;
                   });
    co_await engine.accept();
    const auto request = co_await engine.readFrame();
    const RPCRequest handshake = *request->ifRequest();
    // An engine request on the short connection is not answered; the result still counts.
    co_await engine.send(Frame::rpcRequest(engineRequest("x", "system.ping")));
    co_await engine.answerHandshake(handshake, "1.0.1");
    EXPECT_TRUE(co_await eventually([&] { return done; }));
    EXPECT_EQ(reported, "1.0.1");
    const auto after = co_await engine.readFrame();
    EXPECT_FALSE(after.has_value()) << "the probe sent more than its request";

    // An engine that never answers: the probe's own limit.
    std::string failure;
    done = false;
    asio::co_spawn(executor, DesktopRPCService::probeProtocolVersion(path, 0.2),
                   [&](std::exception_ptr e, std::string) {
                     try {
                       if (e) std::rethrow_exception(e);
                     } catch (const std::exception& error) {
                       failure = error.what();
                     }
                     done = true;
                   });
    co_await engine.accept();
    co_await engine.readFrame();
    EXPECT_TRUE(co_await eventually([&] { return done; }));
    EXPECT_EQ(failure, "system.capabilities timed out after 0.2s");
    co_return true;
  }()));
}

}  // namespace
}  // namespace tamsel::bridge::rpc
