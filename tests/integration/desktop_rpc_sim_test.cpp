// DesktopRPCService against the engine simulator's socket: the handshake, scripted requests,
// an unreadable frame and an engine that dies and comes back.
#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/json/parse.hpp>
#include <fstream>

#include "sim_harness.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"

namespace tamsel::bridge::rpc {
namespace {

namespace asio = boost::asio;
namespace bj = boost::json;
using namespace std::chrono_literals;

class DesktopRPCSim : public ::testing::Test {
 protected:
  std::unique_ptr<test::SimEngine> launch(const std::string& scenario = "") {
    test::SimEngine::Options options;
    options.scenarioJSON = scenario;
    options.extraArguments = {"--rpc-socket", socketPath().string(), "--rpc-record",
                              recordPath().string()};
    return std::make_unique<test::SimEngine>(options);
  }
  std::filesystem::path socketPath() const { return dir.path() / "daemon.sock"; }
  std::filesystem::path recordPath() const { return dir.path() / "rpc.jsonl"; }

  DesktopRPCService::Options options() const {
    DesktopRPCService::Options o;
    o.socketPath = socketPath();
    o.pidfilePath = dir.path() / "daemon.pid";
    return o;
  }

  // The frames the simulator recorded from the desktop.
  std::vector<bj::object> recordedFrames() const {
    std::vector<bj::object> frames;
    std::ifstream in(recordPath());
    for (std::string line; std::getline(in, line);) {
      auto entry = bj::parse(line).as_object();
      if (entry.contains("frame")) frames.push_back(entry.at("frame").as_object());
    }
    return frames;
  }

  // Runs start() to its end; the error text, or "ok".
  static asio::awaitable<std::string> startService(DesktopRPCService& service) {
    try {
      co_await service.start();
    } catch (const std::exception& e) {
      co_return e.what();
    }
    co_return "ok";
  }

  static asio::awaitable<bool> eventually(std::function<bool()> done,
                                          std::chrono::milliseconds limit = 10000ms) {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) co_return false;
      timer.expires_after(10ms);
      co_await timer.async_wait(asio::use_awaitable);
    }
    co_return true;
  }

  test::TempDir dir;
  std::shared_ptr<DesktopRPCMethodDispatcher> dispatcher =
      std::make_shared<DesktopRPCMethodDispatcher>(Platform::current());
};

TEST_F(DesktopRPCSim, ComesOnlineAndServesTheEnginesScriptedRequests) {
  auto sim = launch(R"({"rpc_requests": [{"method": "system.ping", "request_id": "p1"},
                                         {"method": "calendar.get_event", "request_id": "c1", "params": {"id": "e"}}]})");
  EXPECT_TRUE(test::runAsync([&]() -> asio::awaitable<bool> {
    DesktopRPCService service(co_await asio::this_coro::executor, dispatcher, options());
    EXPECT_EQ(co_await startService(service), "ok");
    EXPECT_TRUE(service.isOnline());
    EXPECT_TRUE(co_await eventually([&] { return recordedFrames().size() >= 4; }));
    co_return true;
  }()));
  const auto frames = recordedFrames();
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames[0].at("type"), "desktop_rpc_request");
  EXPECT_EQ(frames[0].at("payload").at("method"), "system.capabilities");
  EXPECT_EQ(frames[1].at("type"), "desktop_event");
  EXPECT_EQ(frames[1].at("payload").at("event"), "desktop_online");
  EXPECT_EQ(frames[1].at("payload").at("data").at("platform").at("os"), "Linux");
  // Results in the order the engine asked.
  EXPECT_EQ(frames[2].at("payload").at("request_id"), "p1");
  EXPECT_EQ(frames[2].at("payload").at("ok"), true);
  EXPECT_EQ(frames[2].at("payload").at("result").at("echo"), "pong");
  EXPECT_EQ(frames[3].at("payload").at("request_id"), "c1");
  EXPECT_EQ(frames[3].at("payload").at("error").at("message"),
            "Unknown method: calendar.get_event");
}

TEST_F(DesktopRPCSim, AnUnreadableFrameEndsTheConnection) {
  auto sim = launch(
      R"({"rpc_frames": [{"raw": "{\"type\": \"desktop_rpc_request\", \"payload\": ", "delay_seconds": 0.1}]})");
  EXPECT_TRUE(test::runAsync([&]() -> asio::awaitable<bool> {
    DesktopRPCService service(co_await asio::this_coro::executor, dispatcher, options());
    EXPECT_EQ(co_await startService(service), "ok");
    EXPECT_TRUE(co_await eventually([&] { return !service.isOnline(); }));
    EXPECT_TRUE(service.lastError().value_or("").starts_with("transport error: invalid JSON"))
        << *service.lastError();
    co_return true;
  }()));
}

TEST_F(DesktopRPCSim, GoesOfflineWhenTheEngineDiesAndBackWhenItReturns) {
  auto sim = launch();
  EXPECT_TRUE(test::runAsync(
      [&]() -> asio::awaitable<bool> {
        DesktopRPCService service(co_await asio::this_coro::executor, dispatcher, options());
        EXPECT_EQ(co_await startService(service), "ok");
        sim.reset();  // SIGKILL: no goodbye on the socket
        EXPECT_TRUE(co_await eventually([&] { return !service.isOnline(); }));
        EXPECT_TRUE(service.lastError().value_or("").starts_with("transport error: "))
            << *service.lastError();

        // The dead engine's socket file is left behind; nobody accepts on it.
        const std::string refused = co_await startService(service);
        EXPECT_TRUE(refused.starts_with("failed after 30 attempts: ")) << refused;

        sim = launch();
        EXPECT_EQ(co_await startService(service), "ok");
        EXPECT_TRUE(service.isOnline());
        EXPECT_FALSE(service.lastError());
        co_return true;
      }(),
      std::chrono::seconds(40)));
}

}  // namespace
}  // namespace tamsel::bridge::rpc
