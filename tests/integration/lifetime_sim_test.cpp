// Every controller and client destroyed in the middle of its work while the loop keeps running,
// as closing a window does. Run under AddressSanitizer (the asan preset) these catch any task
// that resumes into freed memory; in any build they check that nothing of a destroyed object
// runs or calls back afterwards.
#include <gtest/gtest.h>
#include <signal.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <thread>

#include "sim_harness.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/calendar/calendar_provider.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;

// Keeps the loop turning with nothing left to look at: whatever a destroyed object left behind
// runs now.
void keepRunning(asio::io_context& io, std::chrono::milliseconds span) {
  test::runUntil(
      io, [] { return false; }, span);
}

class Lifetimes : public ::testing::Test {
 protected:
  void SetUp() override { base::env::set("XDG_DATA_HOME", dir.path().string()); }
  void TearDown() override {
    // Engines outlive the managers that started them; end them here.
    const bridge::DaemonPaths paths(base::AppFolders::from(base::env::read()));
    if (auto pid = bridge::PidfileReader::readProcessID(paths.pidfilePath())) ::kill(*pid, SIGKILL);
  }

  std::unique_ptr<app::DesktopServices> root(base::MainExecutor& main,
                                             std::vector<std::string> extra = {}) {
    app::DesktopOptions options;
    options.enginePort = test::freePort();
    options.engineArguments = {"daemon", "--port", "{port}"};
    options.engineArguments.insert(options.engineArguments.end(), extra.begin(), extra.end());
    options.engineHome = dir.path() / "verdane";
    options.supervision.restartDelaySeconds = 0.3;
    options.supervision.readinessIntervalSeconds = 0.1;
    options.supervision.healthIntervalSeconds = 0.1;
    options.supervisionHooks.locateEngine = [] {
      return std::optional<std::filesystem::path>(test::simPath());
    };
    options.supervisionHooks.claimLegacyService = [] {};
    return std::make_unique<app::DesktopServices>(main, base::env::read(), options);
  }

  test::TempDir dir;
};

TEST_F(Lifetimes, TheSupervisorGoesMidStartMidRunAndWithARestartPending) {
  asio::io_context io;
  base::AsioMainExecutor main(io);
  int notified = 0;
  {
    // Mid-start: the engine is launching and readiness polls are under way.
    auto services = root(main);
    services->daemonManager().changed().connect([&] { ++notified; });
    services->daemonManager().start();
    keepRunning(io, 60ms);
    EXPECT_TRUE(services->daemonManager().isBootstrapping());
  }
  const int atDestruction = notified;
  keepRunning(io, 1500ms);
  EXPECT_EQ(notified, atDestruction) << "nobody is notified by a destroyed supervisor";
  TearDown();
  {
    // Running, with the event stream, the RPC channel and the health checks all live.
    auto services = root(main);
    services->daemonManager().start();
    test::runUntil(io, [&] {
      auto* rpc = services->rpcService();
      return services->daemonManager().state().kind ==
                 desktop::DaemonManager::State::Kind::running &&
             rpc && rpc->isOnline() && services->eventStream().isConnected();
    });
    ASSERT_TRUE(services->eventStream().isConnected());
  }
  keepRunning(io, 500ms);
  TearDown();
  {
    // A restart is pending after a crash.
    auto services = root(main, {"--crash-after", "0.3"});
    services->daemonManager().start();
    test::runUntil(io, [&] { return services->daemonManager().restartCount() == 1; });
    ASSERT_EQ(services->daemonManager().restartCount(), 1);
  }
  keepRunning(io, 800ms);
}

class LifetimesAgainstAnEngine : public Lifetimes {
 protected:
  LifetimesAgainstAnEngine()
      : sim({.scenarioJSON = R"({"message_hold_seconds": 30})",
             .extraArguments = {"--rpc-socket", (dir.path() / "daemon.sock").string(),
                                "--engine-home", (dir.path() / "verdane").string()}}) {}

  bridge::DaemonClient client() {
    return bridge::DaemonClient({sim.port(), sim.token(), "DEVICE-1", {}});
  }

  test::SimEngine sim;
  asio::io_context io;
  base::AsioMainExecutor main{io};
};

TEST_F(LifetimesAgainstAnEngine, TheEventStreamGoesWhileConnected) {
  int calls = 0;
  std::shared_ptr<bridge::EventSubscription> events;
  {
    bridge::EventStreamClient stream(main.ioExecutor(), {sim.port(), sim.token(), "DEVICE-1"});
    stream.connectionChanged().connect([&](bool) { ++calls; });
    events = stream.subscribe().events;
    test::runUntil(io, [&] { return stream.isConnected(); });
    ASSERT_TRUE(stream.isConnected());
  }
  const int atDestruction = calls;
  keepRunning(io, 300ms);
  EXPECT_EQ(calls, atDestruction);
  EXPECT_TRUE(events->isFinished()) << "subscribers learn that the stream is over";
}

TEST_F(LifetimesAgainstAnEngine, TheRPCChannelGoesDuringItsHandshake) {
  for (auto moment : {0ms, 2ms, 20ms}) {
    bool startEnded = false;
    {
      bridge::rpc::DesktopRPCService::Options options;
      options.socketPath = dir.path() / "daemon.sock";
      auto service = std::make_shared<bridge::rpc::DesktopRPCService>(
          main.ioExecutor(),
          std::make_shared<bridge::rpc::DesktopRPCMethodDispatcher>(
              bridge::rpc::Platform::current()),
          options);
      asio::co_spawn(io, service->start(), [&](std::exception_ptr) { startEnded = true; });
      keepRunning(io, moment);
    }
    keepRunning(io, 200ms);
    EXPECT_TRUE(startEnded) << "a start in progress ends once the service is gone";
  }
}

TEST_F(LifetimesAgainstAnEngine, TheChatControllerGoesWhileAReplyStreamsAndALoadRuns) {
  auto engineClient = client();
  desktop::DaemonChatEngine engine(engineClient);
  asio::thread_pool files(1);
  bridge::SessionHistory history(dir.path() / "verdane", files.get_executor());
  bridge::EventStreamClient stream(main.ioExecutor(), {sim.port(), sim.token(), "DEVICE-1"});
  int notified = 0;
  {
    desktop::DaemonChatViewModel vm(main, {&engine, &stream, &history, nullptr, nullptr});
    vm.changed().connect([&] { ++notified; });
    vm.start();
    test::runUntil(io, [&] { return !vm.agents().empty(); });
    vm.startNewSession();
    vm.submit("Hold this reply open");
    test::runUntil(io, [&] { return vm.isStreamActive() && vm.currentSessionID(); });
    ASSERT_TRUE(vm.isStreamActive());
    // A reload of the session file is started too, and left running.
    vm.refreshCurrentSession();
  }
  const int atDestruction = notified;
  keepRunning(io, 500ms);
  EXPECT_EQ(notified, atDestruction);
  files.join();
}

// A store whose reads take a while, so a listing is still running when the provider goes.
class SlowStore : public calendar::VdirCalendarStore {
 public:
  using VdirCalendarStore::VdirCalendarStore;
  void collectEvents(calendar::Timestamp start, calendar::Timestamp end,
                     const std::vector<std::string>& ids, calendar::EventCollector& into) override {
    std::this_thread::sleep_for(300ms);
    VdirCalendarStore::collectEvents(start, end, ids, into);
  }
};

TEST_F(Lifetimes, TheCalendarProviderGoesWhileAListingRuns) {
  asio::io_context io;
  base::AsioMainExecutor main(io);
  auto store = std::make_shared<SlowStore>(dir.path() / "calendars");
  store->addCalendar("personal", "Personal", "#3A87AD");
  bool answered = false;
  {
    auto provider = std::make_shared<calendar::CalendarProvider>(
        main.ioExecutor(), store,
        std::make_shared<calendar::MemoryPermissionStore>(
            calendar::CalendarPermissionStatus::granted));
    provider->startWatching();
    calendar::ListEventsParams params;
    params.end = params.start + std::chrono::hours(24);
    asio::co_spawn(io, provider->listEvents(params, 5000ms),
                   [&](std::exception_ptr, calendar::CalendarEventList) { answered = true; });
    keepRunning(io, 50ms);
  }
  keepRunning(io, 600ms);
  EXPECT_TRUE(answered)
      << "the request in flight is still answered, from the store call it started";
}

}  // namespace
}  // namespace tamsel
