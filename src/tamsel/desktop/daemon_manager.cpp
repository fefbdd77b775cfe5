#include "tamsel/desktop/daemon_manager.hpp"

#include <signal.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <chrono>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/bridge/daemon_local_presence.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/bridge/desktop_rpc_switch.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/bridge/protocol_version.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"
#include "tamsel/desktop/engine_locator.hpp"

namespace tamsel::desktop {

namespace asio = boost::asio;
namespace fs = std::filesystem;
using bridge::DaemonPaths;

namespace {
constexpr const char* kSource = "DaemonManager";

asio::awaitable<void> sleepFor(double seconds) {
  asio::steady_timer timer(co_await asio::this_coro::executor);
  timer.expires_after(std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9)));
  co_await timer.async_wait(asio::use_awaitable);
}

// The last lines of the engine's output, for diagnostics when it will not start.
std::string lastLines(const fs::path& file, size_t count) {
  std::string text;
  if (!base::readFile(file, text) || text.empty()) return {};
  size_t pos = text.size();
  if (text.back() == '\n') --pos;
  for (size_t found = 0; pos > 0 && found < count; --pos) {
    if (text[pos - 1] == '\n' && ++found == count) break;
  }
  return text.substr(pos);
}
}  // namespace

std::string DaemonManagerError::description() const {
  if (const auto* failed = std::get_if<ProcessFailed>(&value))
    return "Command failed with exit status " + std::to_string(failed->status);
  return "Engine not found — update Tamsel Desktop to reinstall";
}

std::string DaemonManager::State::displayText() const {
  switch (kind) {
    case Kind::running: return "Tamsel Engine is running";
    case Kind::failed: return message;
    case Kind::unknown: return "Tamsel Engine state unknown";
    case Kind::notInstalled: return DaemonManagerError{DaemonManagerError::BinaryNotFound{}}.description();
    case Kind::starting: return "Tamsel Engine starting…";
  }
  return {};
}

std::string DaemonManager::State::name() const {
  switch (kind) {
    case Kind::running: return "running";
    case Kind::failed: return "failed";
    case Kind::unknown: return "unknown";
    case Kind::notInstalled: return "not_installed";
    case Kind::starting: return "starting";
  }
  return {};
}

std::string DaemonManager::name(LocalEndpointHealth health) {
  switch (health) {
    case LocalEndpointHealth::unknown: return "unknown";
    case LocalEndpointHealth::ready: return "ready";
    case LocalEndpointHealth::reconnecting: return "reconnecting";
    case LocalEndpointHealth::down: return "down";
  }
  return {};
}

struct DaemonManager::Impl {
  base::MainExecutor executor;
  Config config;
  Hooks hooks;
  // Shared with the exit watcher, which may outlive a replaced engine.
  std::shared_ptr<platform::Process> process;
  bool processIsOurs = false;
  // Set while a stop or restart the user asked for is ending the engine.
  bool terminationRequested = false;
  // Bumped whenever the supervised engine changes, so watchers of an old one stand down.
  std::uint64_t generation = 0;
  std::chrono::steady_clock::time_point runningSince{};
  std::vector<std::function<void()>> startWaiters;
  bool publishPending = false;
  std::unique_ptr<asio::steady_timer> monitorTimer;
  // Created only while the RPC switch is on.
  std::unique_ptr<bridge::rpc::DesktopRPCService> rpcService;
  // Serves the calendar methods on the channel; declared last so it goes first.
  std::shared_ptr<calendar::CalendarProvider> calendar;
};

DaemonManager::DaemonManager(base::MainExecutor executor, Config config)
    : impl_(std::make_unique<Impl>(Impl{executor, std::move(config), {}, {}, false, false, 0, {}, {}, false, {}})) {
  auto& cfg = impl_->config;
  client_ = std::make_unique<bridge::DaemonClient>(bridge::DaemonClient::Config{
      cfg.port, bridge::DaemonLocalPresence::token(), cfg.deviceID,
      {"approvals", "questions", "inject", "queue", "session_started", "deliverables"}});

  eventStream_ = std::make_unique<bridge::EventStreamClient>(
      executor.context().get_executor(),
      bridge::EventStreamClient::Config{cfg.port, bridge::DaemonLocalPresence::token(), cfg.deviceID});

  Hooks defaults;
  defaults.locateEngine = [] { return EngineLocator::locate(EngineLocator::current()); };
  defaults.launch = [](const platform::LaunchOptions& options) { return platform::Process::launch(options); };
  defaults.adopt = [](std::int32_t pid) { return platform::Process::adopt(pid); };
  defaults.sendSignal = &bridge::DaemonReconciler::systemSignal;
  // An engine that answers our authenticated status call is taken to speak our protocol; the
  // RPC channel's capabilities handshake replaces this probe once it is in place.
  defaults.probe = [this]() -> asio::awaitable<std::string> {
    co_await client_->status();
    co_return std::string(bridge::desktopRPCProtocolVersion);
  };
  if (bridge::DesktopRPCSwitch::isEnabled()) {
    bridge::rpc::DesktopRPCService::Options rpcOptions;
    rpcOptions.socketPath = DaemonPaths::socketPath();
    rpcOptions.pidfilePath = DaemonPaths::pidfilePath();
    // A person at the terminal can answer calendar.request_permission; nobody else is asked.
    try {
      impl_->calendar =
          calendar::makeDesktopCalendarProvider(executor.context().get_executor(), ::isatty(STDIN_FILENO) == 1);
    } catch (const std::exception& e) {
      base::log::warn(kSource, "calendar unavailable: {}", e.what());
    }
    impl_->rpcService = std::make_unique<bridge::rpc::DesktopRPCService>(
        executor.context().get_executor(),
        std::make_shared<bridge::rpc::DesktopRPCMethodDispatcher>(bridge::rpc::Platform::current(), impl_->calendar),
        rpcOptions);
    if (impl_->calendar)
      calendar::forwardCalendarChanges(*impl_->calendar, *impl_->rpcService, executor.context().get_executor());
    // The engine's own answer over the channel, not the HTTP stand-in above.
    defaults.probe = []() -> asio::awaitable<std::string> {
      const fs::path socket = DaemonPaths::socketPath();
      const double limit = 3.0;
      co_return co_await bridge::rpc::DesktopRPCService::probeProtocolVersion(socket, limit);
    };
  }
  defaults.claimLegacyService = [] {
    const auto unit = DaemonPaths::legacyLaunchAgentPath();
    std::error_code ec;
    if (!fs::exists(unit, ec)) return;
    const fs::path systemctl = platform::isExecutableFile("/usr/bin/systemctl") ? "/usr/bin/systemctl" : "/bin/systemctl";
    try {
      runCommand(systemctl, {"--user", "disable", "--now", unit.filename().string()}, false);
      base::log::info(kSource, "disabled legacy user service {}", unit.filename().string());
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not disable legacy user service {}: {}", unit.string(), e.what());
    }
  };
  impl_->hooks = std::move(defaults);
}

DaemonManager::~DaemonManager() = default;

void DaemonManager::setHooks(Hooks hooks) {
  auto& current = impl_->hooks;
  if (hooks.locateEngine) current.locateEngine = std::move(hooks.locateEngine);
  if (hooks.launch) current.launch = std::move(hooks.launch);
  if (hooks.adopt) current.adopt = std::move(hooks.adopt);
  if (hooks.sendSignal) current.sendSignal = std::move(hooks.sendSignal);
  if (hooks.probe) current.probe = std::move(hooks.probe);
  if (hooks.claimLegacyService) current.claimLegacyService = std::move(hooks.claimLegacyService);
}

std::optional<std::int32_t> DaemonManager::enginePID() const {
  if (!impl_->process) return std::nullopt;
  return impl_->process->pid();
}

bool DaemonManager::ownsEngineProcess() const { return impl_->process && impl_->processIsOurs; }

bridge::rpc::DesktopRPCService* DaemonManager::rpcService() { return impl_->rpcService.get(); }

std::optional<std::string> DaemonManager::runCommand(const fs::path& executable,
                                                     const std::vector<std::string>& arguments,
                                                     bool collectOutput) {
  auto result = platform::runToCompletion(executable, arguments, collectOutput);
  if (result.status.signaled || result.status.code != 0) {
    // A signal shows as 128 + its number, as a shell reports it.
    const int status = result.status.signaled ? 128 + result.status.code : result.status.code;
    throw DaemonManagerException({DaemonManagerError::ProcessFailed{status}});
  }
  if (!collectOutput) return std::nullopt;
  return result.output;
}

std::vector<std::string> DaemonManager::engineArguments(const std::vector<std::string>& daemonArguments,
                                                        std::uint16_t port, bool rpcEnabled,
                                                        const fs::path& socketPath, const fs::path& pidfilePath) {
  std::vector<std::string> args;
  for (auto arg : daemonArguments) {
    if (auto at = arg.find("{port}"); at != std::string::npos) arg.replace(at, 6, std::to_string(port));
    args.push_back(std::move(arg));
  }
  if (rpcEnabled) {
    args.insert(args.end(), {"--rpc-socket", socketPath.string(), "--rpc-pidfile", pidfilePath.string()});
  }
  return args;
}

// The asynchronous sequences, kept out of the class so the header stays free of Asio.
struct DaemonManagerAccess {
  DaemonManager& m;
  DaemonManager::Impl& impl;

  // Changes made in one turn of the main executor reach observers as one notification,
  // posted after them, so observers always read a consistent state.
  void publish() {
    if (impl.publishPending) return;
    impl.publishPending = true;
    DaemonManager* manager = &m;
    impl.executor.post([manager] {
      manager->impl_->publishPending = false;
      manager->changed_.emit();
    });
  }

  void setState(DaemonManager::State state) {
    if (m.state_ == state) return;
    if (state.kind == DaemonManager::State::Kind::failed)
      base::log::warn(kSource, "{}", state.message);
    else
      base::log::info(kSource, "{}", state.displayText());
    m.state_ = std::move(state);
    publish();
  }

  void setEndpoint(DaemonManager::LocalEndpointHealth health) {
    if (m.localEndpoint_ == health) return;
    m.localEndpoint_ = health;
    publish();
  }

  bool processRunning() const { return impl.process && impl.process->isRunning(); }

  void observeStatus(const bridge::DaemonStatus& status) {
    DaemonManager::DaemonCapabilityState next{true, {}};
    if (status.capabilities) next.tokens.insert(status.capabilities->begin(), status.capabilities->end());
    bool dirty = false;
    if (next != m.capabilityState_) {
      m.capabilityState_ = std::move(next);
      dirty = true;
    }
    if (status.activeAgent != m.activeAgent_) {
      m.activeAgent_ = status.activeAgent;
      dirty = true;
    }
    if (dirty) publish();
  }

  void finishBootstrap() {
    m.isBootstrapping_ = false;
    auto waiters = std::move(impl.startWaiters);
    impl.startWaiters.clear();
    for (auto& done : waiters) done();
  }

  void spawn(asio::awaitable<void> work) {
    asio::co_spawn(impl.executor.context(), std::move(work), [](std::exception_ptr error) {
      if (!error) return;
      try {
        std::rethrow_exception(error);
      } catch (const std::exception& e) {
        base::log::error(kSource, "internal task failed: {}", e.what());
      }
    });
  }

  asio::awaitable<void> startSequence() {
    m.isBootstrapping_ = true;
    setState(DaemonManager::State::starting());

    auto engine = impl.hooks.locateEngine();
    if (!engine) {
      m.enginePath_.reset();
      setEndpoint(DaemonManager::LocalEndpointHealth::down);
      setState(DaemonManager::State::notInstalled());
      finishBootstrap();
      co_return;
    }
    m.enginePath_ = engine;
    if (auto version = EngineLocator::bundledVersion(*engine); version != m.installedVersion_) {
      m.installedVersion_ = version;
      publish();
    }

    if (!m.hasClaimedOwnership_) {
      m.hasClaimedOwnership_ = true;
      impl.hooks.claimLegacyService();
    }

    bridge::DaemonReconciler reconciler({DaemonPaths::pidfilePath(), bridge::desktopRPCProtocolVersion,
                                         impl.hooks.probe, impl.hooks.sendSignal,
                                         impl.config.terminateGraceSeconds, impl.config.killGraceSeconds,
                                         impl.config.reconcilePollSeconds});
    const auto decision = co_await reconciler.reconcile();
    if (const auto* fatal = std::get_if<bridge::ReconcileDecision::Fatal>(&decision.value)) {
      setEndpoint(DaemonManager::LocalEndpointHealth::down);
      setState(DaemonManager::State::failed(fatal->message));
      finishBootstrap();
      co_return;
    }

    bool reuse = decision.isReuse();
    if (!reuse && !bridge::DesktopRPCSwitch::isEnabled()) {
      // Without its RPC options the engine writes no pidfile, so an engine of ours may be
      // running unseen; one that answers our authenticated status call is reused rather than
      // doubled by a second engine that could not bind the port anyway.
      try {
        co_await m.client_->status();
        reuse = true;
      } catch (const std::exception&) {
      }
    }
    ++impl.generation;
    if (reuse) {
      base::log::info(kSource, "reusing the running engine");
      auto pid = bridge::PidfileReader::readProcessID(DaemonPaths::pidfilePath());
      impl.process = pid ? impl.hooks.adopt(*pid) : nullptr;
      impl.processIsOurs = false;
    } else {
      base::log::info(kSource, "starting a new engine: {}", std::get<bridge::ReconcileDecision::Respawn>(decision.value).reason);
      if (!launch(*engine)) {
        finishBootstrap();
        co_return;
      }
    }
    if (impl.process) watchExit(impl.generation);

    if (co_await waitForReadiness()) {
      impl.runningSince = std::chrono::steady_clock::now();
      setEndpoint(DaemonManager::LocalEndpointHealth::ready);
      setState(DaemonManager::State::running());
      if (impl.config.connectEventStream) m.eventStream_->start();
      startRPCChannel();
    } else {
      setEndpoint(processRunning() ? DaemonManager::LocalEndpointHealth::reconnecting
                                   : DaemonManager::LocalEndpointHealth::down);
      if (impl.processIsOurs) {
        base::log::warn(kSource, "engine did not answer; command line: {} {}; last output:\n{}",
                        engine->string(), base::join(m.lastLaunchArguments_, " "),
                        lastLines(DaemonPaths::engineLogPath(), 15));
      }
      setState(DaemonManager::State::failed("Engine not responding"));
    }
    startMonitoring();
    finishBootstrap();
  }

  bool launch(const fs::path& engine) {
    // The old engine is gone or replaced: its token goes with it.
    std::error_code ec;
    fs::remove(DaemonPaths::tokenFilePath(), ec);

    m.lastLaunchArguments_ = DaemonManager::engineArguments(
        impl.config.daemonArguments, impl.config.port, bridge::DesktopRPCSwitch::isEnabled(),
        DaemonPaths::socketPath(), DaemonPaths::pidfilePath());
    platform::LaunchOptions options;
    options.executable = engine;
    options.arguments = m.lastLaunchArguments_;
    // Our environment already holds the presence token.
    const std::string& token = bridge::DaemonLocalPresence::token();
    options.environment = platform::currentEnvironment();
    if (impl.config.axServerBundleOverride) {
      constexpr std::string_view key = "TAMSEL_AX_SERVER_BUNDLE_PATH=";
      std::erase_if(options.environment, [&](const std::string& entry) { return entry.starts_with(key); });
      options.environment.push_back(std::string(key) + impl.config.axServerBundleOverride->string());
    }
    options.outputFile = DaemonPaths::engineLogPath();
    try {
      impl.process = impl.hooks.launch(options);
      impl.processIsOurs = true;
    } catch (const std::exception& e) {
      impl.process.reset();
      setEndpoint(DaemonManager::LocalEndpointHealth::down);
      setState(DaemonManager::State::failed(std::string("Failed to start: ") + e.what()));
      return false;
    }
    try {
      bridge::DaemonLocalPresence::saveForEngine(DaemonPaths::tokenFilePath(), token);
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not keep the engine's presence token: {}", e.what());
    }
    base::log::info(kSource, "started engine {} (PID {})", engine.string(), impl.process->pid());
    return true;
  }

  asio::awaitable<bool> waitForReadiness() {
    for (int poll = 0; poll < impl.config.readinessPolls; ++poll) {
      if (poll > 0) co_await sleepFor(impl.config.readinessIntervalSeconds);
      // An engine we started that has already exited will not answer; whatever does answer on
      // the port is not it.
      if (impl.processIsOurs && !processRunning()) co_return false;
      try {
        observeStatus(co_await m.client_->status());
        co_return true;
      } catch (const std::exception& e) {
        base::log::debug(kSource, "status poll {} failed: {}", poll + 1, e.what());
      }
    }
    co_return false;
  }

  void watchExit(std::uint64_t generation) {
    spawn([](DaemonManagerAccess self, std::uint64_t generation) -> asio::awaitable<void> {
      std::shared_ptr<platform::Process> process = self.impl.process;
      const auto status = co_await process->waitForExit();
      if (generation != self.impl.generation) co_return;
      self.onEngineExit(status);
    }(*this, generation));
  }

  void onEngineExit(const platform::ExitStatus& status) {
    base::log::warn(kSource, "engine (PID {}) {}", impl.process ? impl.process->pid() : 0, status.describe());
    ++impl.generation;  // the health watcher of this engine stands down
    if (impl.monitorTimer) impl.monitorTimer->cancel();
    if (impl.terminationRequested) return;
    if (m.state_.kind == DaemonManager::State::Kind::running &&
        std::chrono::steady_clock::now() - impl.runningSince >
            std::chrono::duration<double>(impl.config.stableRunSeconds)) {
      m.restartCount_ = 0;
    }
    if (m.restartCount_ > DaemonManager::maxRestarts - 1) {
      setEndpoint(DaemonManager::LocalEndpointHealth::down);
      setState(DaemonManager::State::failed("Engine crashed " + std::to_string(DaemonManager::maxRestarts) +
                                            " times, stopped restarting"));
      return;
    }
    ++m.restartCount_;
    setEndpoint(DaemonManager::LocalEndpointHealth::down);
    publish();
    spawn([](DaemonManagerAccess self, std::uint64_t generation) -> asio::awaitable<void> {
      co_await sleepFor(self.impl.config.restartDelaySeconds);
      if (generation != self.impl.generation || self.m.isBootstrapping_ || self.impl.terminationRequested) co_return;
      self.m.isBootstrapping_ = true;
      co_await self.startSequence();
    }(*this, impl.generation));
  }

  // Connects the desktop RPC channel in the background; its outcome shows in the service's own
  // state. A channel refused for its protocol version is not retried against the same engine.
  void startRPCChannel() {
    auto* service = impl.rpcService.get();
    if (!service || !impl.config.connectRPCChannel || service->isStarting()) return;
    asio::co_spawn(impl.executor.context(), service->start(), [](std::exception_ptr error) {
      if (!error) return;
      try {
        std::rethrow_exception(error);
      } catch (const std::exception& e) {
        base::log::warn(kSource, "desktop RPC channel: {}", e.what());
      }
    });
  }

  bool rpcChannelNeedsRetry() const {
    const auto* service = impl.rpcService.get();
    if (!service || service->isOnline() || service->isStarting()) return false;
    return !service->lastError() || !service->lastError()->starts_with("protocol version mismatch");
  }

  void startMonitoring() {
    if (impl.monitorTimer) impl.monitorTimer->cancel();
    impl.monitorTimer = std::make_unique<asio::steady_timer>(impl.executor.context());
    spawn([](DaemonManagerAccess self, std::uint64_t generation) -> asio::awaitable<void> {
      auto* timer = self.impl.monitorTimer.get();
      int failures = 0;
      while (generation == self.impl.generation) {
        timer->expires_after(std::chrono::nanoseconds(static_cast<std::int64_t>(self.impl.config.healthIntervalSeconds * 1e9)));
        boost::system::error_code ec;
        co_await timer->async_wait(asio::redirect_error(asio::use_awaitable, ec));
        if (ec || generation != self.impl.generation || self.impl.terminationRequested) co_return;
        try {
          self.observeStatus(co_await self.m.client_->status());
          if (generation != self.impl.generation) co_return;
          failures = 0;
          self.setEndpoint(DaemonManager::LocalEndpointHealth::ready);
          // The engine answers but the channel dropped (the engine closed it, or it was not
          // listening yet): connect again.
          if (self.m.state_.kind == DaemonManager::State::Kind::running && self.rpcChannelNeedsRetry())
            self.startRPCChannel();
          if (self.m.state_ == DaemonManager::State::failed("Engine not responding")) {
            self.impl.runningSince = std::chrono::steady_clock::now();
            self.setState(DaemonManager::State::running());
          }
        } catch (const std::exception& e) {
          if (generation != self.impl.generation) co_return;
          ++failures;
          base::log::debug(kSource, "health check failed: {}", e.what());
          self.setEndpoint(self.processRunning() ? DaemonManager::LocalEndpointHealth::reconnecting
                                                 : DaemonManager::LocalEndpointHealth::down);
          if (failures >= self.impl.config.healthFailuresBeforeFailed)
            self.setState(DaemonManager::State::failed("Engine not responding"));
        }
      }
    }(*this, impl.generation));
  }

  asio::awaitable<void> stopSequence(double graceSeconds) {
    impl.terminationRequested = true;
    ++impl.generation;
    m.eventStream_->stop();
    if (impl.rpcService) impl.rpcService->stop();
    if (impl.monitorTimer) impl.monitorTimer->cancel();
    try {
      co_await m.client_->shutdown();
    } catch (const std::exception& e) {
      base::log::info(kSource, "shutdown request failed: {}", e.what());
    }
    // Wait for the engine to go: our handle when we have one, else the pidfile's PID.
    std::optional<std::int32_t> pid = m.enginePID();
    if (!pid) pid = bridge::PidfileReader::readProcessID(DaemonPaths::pidfilePath());
    auto alive = [&] {
      if (impl.process) return impl.process->isRunning();
      return pid && (::kill(*pid, 0) == 0 || errno == EPERM);
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(graceSeconds);
    while (alive() && std::chrono::steady_clock::now() < deadline) co_await sleepFor(0.05);
    if (alive() && impl.process && impl.processIsOurs) {
      // Never leave behind an engine we started and were asked to end.
      impl.process->signal(SIGTERM);
      const auto killAt = std::chrono::steady_clock::now() + std::chrono::seconds(2);
      while (alive() && std::chrono::steady_clock::now() < killAt) co_await sleepFor(0.05);
      if (alive()) {
        impl.process->signal(SIGKILL);
        const auto goneBy = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (alive() && std::chrono::steady_clock::now() < goneBy) co_await sleepFor(0.02);
      }
    }
    if (impl.process && impl.process->isChild() && !impl.process->isRunning()) co_await impl.process->waitForExit();
    if (!alive()) {
      std::error_code ec;
      fs::remove(DaemonPaths::tokenFilePath(), ec);
    }
    impl.process.reset();
    setEndpoint(DaemonManager::LocalEndpointHealth::down);
    setState(DaemonManager::State::unknown());
  }
};

void DaemonManager::start() { start(nullptr); }

void DaemonManager::start(std::function<void()> done) {
  if (done) impl_->startWaiters.push_back(std::move(done));
  if (isBootstrapping_) return;
  // Set before the sequence is scheduled so a second start in the same turn is ignored.
  isBootstrapping_ = true;
  restartCount_ = 0;
  impl_->terminationRequested = false;
  DaemonManagerAccess access{*this, *impl_};
  access.spawn([](DaemonManagerAccess self) -> asio::awaitable<void> { co_await self.startSequence(); }(access));
}

void DaemonManager::restart() {
  DaemonManagerAccess access{*this, *impl_};
  access.spawn([](DaemonManagerAccess self) -> asio::awaitable<void> {
    co_await self.stopSequence(5);
    self.m.start();
  }(access));
}

void DaemonManager::stop(std::function<void()> done, double graceSeconds) {
  DaemonManagerAccess access{*this, *impl_};
  access.spawn([](DaemonManagerAccess self, std::function<void()> done, double grace) -> asio::awaitable<void> {
    co_await self.stopSequence(grace);
    if (done) done();
  }(access, std::move(done), graceSeconds));
}

}  // namespace tamsel::desktop
