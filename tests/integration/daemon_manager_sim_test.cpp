// DaemonManager supervising the engine simulator as a real child process, with short delays.
#include <gtest/gtest.h>
#include <signal.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fstream>

#include "sim_harness.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel::desktop {
namespace {

namespace asio = boost::asio;
using State = DaemonManager::State;

class DaemonManagerSim : public ::testing::Test {
 protected:
  void SetUp() override { base::env::set("XDG_DATA_HOME", dir.path().string()); }

  DaemonManager::Config config(std::vector<std::string> extra = {}) {
    DaemonManager::Config c;
    c.port = test::freePort();
    c.daemonArguments = {"daemon", "--port", "{port}"};
    c.daemonArguments.insert(c.daemonArguments.end(), extra.begin(), extra.end());
    c.restartDelaySeconds = 0.1;
    c.readinessIntervalSeconds = 0.1;
    c.healthIntervalSeconds = 0.2;
    return c;
  }

  // Counts launches and keeps the real launcher.
  DaemonManager::Hooks hooks() {
    DaemonManager::Hooks h;
    h.locateEngine = [] { return std::optional<std::filesystem::path>(test::simPath()); };
    h.launch = [this](const platform::LaunchOptions& options) {
      ++launches;
      launchedArguments = options.arguments;
      return platform::Process::launch(options);
    };
    h.claimLegacyService = [this] { ++claims; };
    return h;
  }

  // The application's root, as a front end builds it, with this test's timings and effects.
  std::unique_ptr<app::DesktopServices> services(base::MainExecutor& main,
                                                 const DaemonManager::Config& cfg) {
    app::DesktopOptions options;
    options.enginePort = cfg.port;
    options.engineArguments = cfg.daemonArguments;
    options.supervision = cfg;
    options.supervisionHooks = hooks();
    return std::make_unique<app::DesktopServices>(main, base::env::read(), options);
  }

  bridge::DaemonPaths paths() const {
    return bridge::DaemonPaths(base::AppFolders::from(base::env::read()));
  }

  // Runs the loop until `done` holds or the limit passes.
  void runUntil(asio::io_context& io, const std::function<bool()>& done,
                std::chrono::seconds limit) {
    test::runUntil(io, done, limit);
  }

  void stopAndDrain(asio::io_context& io, DaemonManager& manager) {
    bool stopped = false;
    manager.stop([&] { stopped = true; }, 2);
    runUntil(
        io, [&] { return stopped; }, std::chrono::seconds(10));
  }

  test::TempDir dir;
  int launches = 0;
  int claims = 0;
  std::vector<std::string> launchedArguments;
};

TEST_F(DaemonManagerSim, CrashesAreRestartedFiveTimesThenGivenUp) {
  asio::io_context io;
  base::AsioMainExecutor main_manager(io);
  auto root_manager = services(main_manager, config({"--crash-after", "0.3"}));
  auto& manager = root_manager->daemonManager();
  std::vector<State::Kind> seen;
  manager.changed().connect([&] {
    if (seen.empty() || seen.back() != manager.state().kind) seen.push_back(manager.state().kind);
  });
  manager.start();
  runUntil(
      io, [&] { return manager.state().kind == State::Kind::failed; }, std::chrono::seconds(40));
  EXPECT_EQ(manager.state(), State::failed("Engine crashed 5 times, stopped restarting"));
  EXPECT_EQ(manager.restartCount(), 5);
  EXPECT_EQ(manager.localEndpoint(), DaemonManager::LocalEndpointHealth::down);
  EXPECT_EQ(launches, 6);
  EXPECT_TRUE(manager.hasGivenUp()) << "a supervisor waiting on it would wait forever";
  EXPECT_FALSE(manager.stoppedOnRequest());
  // Each life was seen: starting, running, ..., failed.
  EXPECT_GE(std::count(seen.begin(), seen.end(), State::Kind::running), 2);
  runUntil(
      io, [] { return false; }, std::chrono::seconds(1));
  EXPECT_EQ(launches, 6) << "nothing starts after the limit";

  // A start the user asks for gives back the whole budget.
  manager.start();
  runUntil(
      io, [&] { return launches == 7 && manager.state().kind == State::Kind::running; },
      std::chrono::seconds(10));
  EXPECT_EQ(manager.restartCount(), 0);
  EXPECT_FALSE(manager.hasGivenUp());
  EXPECT_EQ(claims, 1) << "the legacy service is claimed once per launch, not per start";
  stopAndDrain(io, manager);
}

// Another process (`tamsel engine stop`) leaves a note naming the engine before ending it: that
// exit is intended and the engine stays stopped. A note naming another PID is stale.
TEST_F(DaemonManagerSim, AStopNotedByAnotherProcessIsNotACrash) {
  asio::io_context io;
  base::AsioMainExecutor main_manager(io);
  auto root_manager = services(main_manager, config());
  auto& manager = root_manager->daemonManager();
  auto runningWith = [&](int launched) {
    runUntil(
        io, [&] { return launches == launched && manager.state().kind == State::Kind::running; },
        std::chrono::seconds(10));
    return manager.enginePID();
  };
  manager.start();
  auto pid = runningWith(1);
  ASSERT_TRUE(pid);

  std::ofstream(paths().stopRequestPath()) << (*pid + 1) << "\n";
  ::kill(*pid, SIGTERM);
  pid = runningWith(2);
  ASSERT_TRUE(pid) << "a stale note kept a crashed engine down";
  EXPECT_FALSE(std::filesystem::exists(paths().stopRequestPath()));

  std::ofstream(paths().stopRequestPath()) << *pid << "\n";
  ::kill(*pid, SIGTERM);
  runUntil(
      io, [&] { return manager.hasGivenUp(); }, std::chrono::seconds(10));
  EXPECT_TRUE(manager.stoppedOnRequest());
  EXPECT_EQ(manager.localEndpoint(), DaemonManager::LocalEndpointHealth::down);
  runUntil(
      io, [] { return false; }, std::chrono::seconds(1));
  EXPECT_EQ(launches, 2) << "the engine was started again after an intended stop";
  EXPECT_FALSE(std::filesystem::exists(paths().stopRequestPath()));
}

TEST_F(DaemonManagerSim, StartsReusesAndStops) {
  asio::io_context io;
  auto cfg = config();
  {
    base::AsioMainExecutor main_manager(io);
    auto root_manager = services(main_manager, cfg);
    auto& manager = root_manager->daemonManager();
    manager.start();
    runUntil(
        io,
        [&] { return !manager.isBootstrapping() && manager.state().kind != State::Kind::starting; },
        std::chrono::seconds(10));
    ASSERT_EQ(manager.state(), State::running());
    EXPECT_EQ(manager.localEndpoint(), DaemonManager::LocalEndpointHealth::ready);
    EXPECT_TRUE(manager.capabilityState().hasObservedSuccessfulStatus);
    EXPECT_TRUE(manager.capabilityState().tokens.count("sessions"));
    EXPECT_TRUE(manager.ownsEngineProcess());
    EXPECT_EQ(launchedArguments,
              (std::vector<std::string>{"daemon", "--port", std::to_string(cfg.port),
                                        "--rpc-socket", paths().socketPath().string(),
                                        "--rpc-pidfile", paths().pidfilePath().string()}));
  }
  const auto enginePid = bridge::PidfileReader::read(paths().pidfilePath());
  ASSERT_TRUE(enginePid);
  ASSERT_EQ(::kill(*enginePid, 0), 0) << "the engine outlives the manager that started it";

  // A second manager (a later desktop process) reuses it: no launch, same PID.
  base::AsioMainExecutor main_second(io);
  auto root_second = services(main_second, cfg);
  auto& second = root_second->daemonManager();
  second.start();
  runUntil(
      io, [&] { return !second.isBootstrapping() && second.state().kind != State::Kind::starting; },
      std::chrono::seconds(10));
  EXPECT_EQ(second.state(), State::running());
  EXPECT_EQ(launches, 1);
  EXPECT_EQ(second.enginePID(), enginePid);
  EXPECT_FALSE(second.ownsEngineProcess());

  stopAndDrain(io, second);
  // The first manager's child is left unreaped once its supervisor is gone: a zombie counts as
  // ended.
  std::ifstream stat("/proc/" + std::to_string(*enginePid) + "/stat");
  std::string pidField, name, processState;
  stat >> pidField >> name >> processState;
  EXPECT_TRUE(!stat || processState == "Z") << "stop ends the engine";
  EXPECT_FALSE(std::filesystem::exists(paths().tokenFilePath()));
  EXPECT_EQ(second.state(), State::unknown());
}

TEST_F(DaemonManagerSim, AnEngineThatNeverAnswersFails) {
  asio::io_context io;
  auto cfg = config({"--scenario", (dir.path() / "s.json").string()});
  std::ofstream(dir.path() / "s.json") << R"({"status_status": 503})";
  base::AsioMainExecutor main_manager(io);
  auto root_manager = services(main_manager, cfg);
  auto& manager = root_manager->daemonManager();
  manager.start();
  runUntil(
      io,
      [&] { return !manager.isBootstrapping() && manager.state().kind != State::Kind::starting; },
      std::chrono::seconds(10));
  EXPECT_EQ(manager.state(), State::failed("Engine not responding"));
  // The child still runs, so the endpoint is reconnecting rather than down.
  EXPECT_EQ(manager.localEndpoint(), DaemonManager::LocalEndpointHealth::reconnecting);
  stopAndDrain(io, manager);
}

TEST_F(DaemonManagerSim, LaunchFailureAndMissingEngine) {
  asio::io_context io;
  base::AsioMainExecutor main(io);
  auto root = services(main, config());
  auto& manager = root->daemonManager();
  auto h = hooks();
  h.locateEngine = [] { return std::optional<std::filesystem::path>("/nonexistent/verd"); };
  manager.setHooks(h);
  manager.start();
  runUntil(
      io,
      [&] { return !manager.isBootstrapping() && manager.state().kind != State::Kind::starting; },
      std::chrono::seconds(10));
  EXPECT_EQ(manager.state().kind, State::Kind::failed);
  EXPECT_EQ(manager.state().message.rfind("Failed to start: ", 0), 0u) << manager.state().message;
  EXPECT_EQ(manager.localEndpoint(), DaemonManager::LocalEndpointHealth::down);

  h.locateEngine = [] { return std::optional<std::filesystem::path>(); };
  manager.setHooks(h);
  manager.start();
  runUntil(
      io,
      [&] { return !manager.isBootstrapping() && manager.state().kind != State::Kind::starting; },
      std::chrono::seconds(10));
  EXPECT_EQ(manager.state(), State::notInstalled());
  EXPECT_EQ(manager.state().displayText(), "Engine not found — update Tamsel Desktop to reinstall");
}

}  // namespace
}  // namespace tamsel::desktop
