#include "tamsel/desktop/daemon_manager.hpp"

#include <signal.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/change_publisher.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/task_scope.hpp"
#include "tamsel/bridge/daemon_local_presence.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/bridge/protocol_version.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/desktop/engine_locator.hpp"
#include "tamsel/platform/host_resources.hpp"
#include "tamsel/platform/socket_peer.hpp"

namespace tamsel::desktop {

namespace asio = boost::asio;
namespace fs = std::filesystem;

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
    case Kind::running:
      return "Tamsel Engine is running";
    case Kind::failed:
      return message;
    case Kind::unknown:
      return "Tamsel Engine state unknown";
    case Kind::notInstalled:
      return DaemonManagerError{DaemonManagerError::BinaryNotFound{}}.description();
    case Kind::starting:
      return "Tamsel Engine starting…";
  }
  return {};
}

std::string DaemonManager::State::name() const {
  switch (kind) {
    case Kind::running:
      return "running";
    case Kind::failed:
      return "failed";
    case Kind::unknown:
      return "unknown";
    case Kind::notInstalled:
      return "not_installed";
    case Kind::starting:
      return "starting";
  }
  return {};
}

std::string DaemonManager::name(LocalEndpointHealth health) {
  switch (health) {
    case LocalEndpointHealth::unknown:
      return "unknown";
    case LocalEndpointHealth::ready:
      return "ready";
    case LocalEndpointHealth::reconnecting:
      return "reconnecting";
    case LocalEndpointHealth::down:
      return "down";
  }
  return {};
}

struct DaemonManager::Impl : std::enable_shared_from_this<Impl> {
  using Self = std::shared_ptr<Impl>;

  Impl(base::MainExecutor& executor, Config config, Dependencies deps)
      : executor(executor),
        config(std::move(config)),
        deps(std::move(deps)),
        publisher(executor),
        monitorTimer(executor.ioExecutor()),
        tasks(executor.ioExecutor()) {}

  base::MainExecutor& executor;
  Config config;
  Dependencies deps;
  Hooks hooks;

  // Observable state.
  State state;
  LocalEndpointHealth localEndpoint = LocalEndpointHealth::unknown;
  DaemonCapabilityState capabilityState;
  std::optional<std::string> installedVersion;
  std::optional<std::string> activeAgent;
  std::int64_t restartCount = 0;
  bool isBootstrapping = false;
  bool hasClaimedOwnership = false;
  bool givenUp = false;
  bool stoppedOnRequest = false;
  std::optional<fs::path> enginePath;
  std::vector<std::string> lastLaunchArguments;
  std::optional<platform::ExitStatus> lastExit;
  base::ChangePublisher publisher;

  // Shared with the exit watcher, which may outlive a replaced engine.
  std::shared_ptr<platform::Process> process;
  bool processIsOurs = false;
  // Set while a stop or restart the user asked for is ending the engine.
  bool terminationRequested = false;
  // Bumped whenever the supervised engine changes, so watchers of an old one stand down.
  std::uint64_t generation = 0;
  std::chrono::steady_clock::time_point runningSince{};
  std::vector<std::function<void()>> startWaiters;
  asio::steady_timer monitorTimer;
  base::TaskScope tasks;

  bool closed() const { return tasks.isClosed(); }

  // The pidfile's PID when it is the engine: with the RPC channel, only the process listening on
  // the engine's socket (a stale pidfile may name anyone by now); without it the pidfile is all
  // there is.
  std::optional<std::int32_t> enginePIDFromPidfile() const {
    auto pid = bridge::PidfileReader::readProcessID(deps.paths.pidfilePath());
    if (pid && hooks.socketOwner && hooks.socketOwner() != pid) return std::nullopt;
    return pid;
  }

  void close() {
    ++generation;
    monitorTimer.cancel();
    startWaiters.clear();
    publisher.close();
    tasks.close();
  }

  void publish() { publisher.publish(); }

  void setState(State next) {
    if (state == next) return;
    base::log::info(kSource, "{}", next.displayText());
    state = std::move(next);
    publish();
  }

  void setEndpoint(LocalEndpointHealth health) {
    if (localEndpoint == health) return;
    localEndpoint = health;
    publish();
  }

  bool processRunning() const { return process && process->isRunning(); }

  void observeStatus(const bridge::DaemonStatus& status) {
    DaemonCapabilityState next{true, {}};
    if (status.capabilities)
      next.tokens.insert(status.capabilities->begin(), status.capabilities->end());
    bool dirty = false;
    if (next != capabilityState) {
      capabilityState = std::move(next);
      dirty = true;
    }
    if (status.activeAgent != activeAgent) {
      activeAgent = status.activeAgent;
      dirty = true;
    }
    if (dirty) publish();
  }

  void finishBootstrap() {
    isBootstrapping = false;
    auto waiters = std::move(startWaiters);
    startWaiters.clear();
    for (auto& done : waiters) done();
  }

  void spawn(asio::awaitable<void> work) { tasks.spawn(std::move(work), kSource); }

  // Ends the start sequence with nothing left to do on our own.
  void giveUp(State next) {
    givenUp = true;
    setEndpoint(LocalEndpointHealth::down);
    setState(std::move(next));
    publish();
  }

  // A stop asked for by another process (`tamsel engine stop`) leaves a note naming the engine
  // it stopped; an exit it explains is intended. A note for another engine is stale.
  bool consumeStopRequest() {
    const auto note = deps.paths.stopRequestPath();
    std::error_code ec;
    if (!fs::exists(note, ec)) return false;
    const auto named = bridge::PidfileReader::readProcessID(note);
    fs::remove(note, ec);
    return !named || (process && process->pid() == *named);
  }

  static asio::awaitable<void> startSequence(Self self) {
    self->isBootstrapping = true;
    self->givenUp = false;
    self->stoppedOnRequest = false;
    self->setState(State::starting());
    {
      // A note from a stop before this start is about an engine that is gone.
      std::error_code ec;
      fs::remove(self->deps.paths.stopRequestPath(), ec);
    }

    auto engine = self->hooks.locateEngine();
    if (!engine) {
      self->enginePath.reset();
      self->giveUp(State::notInstalled());
      self->finishBootstrap();
      co_return;
    }
    self->enginePath = engine;
    if (auto version = EngineLocator::bundledVersion(*engine); version != self->installedVersion) {
      self->installedVersion = version;
      self->publish();
    }

    if (!self->hasClaimedOwnership) {
      self->hasClaimedOwnership = true;
      self->hooks.claimLegacyService();
    }

    bridge::DaemonReconciler reconciler(
        {self->deps.paths.pidfilePath(), bridge::desktopRPCProtocolVersion, self->hooks.probe,
         self->hooks.sendSignal, self->hooks.socketOwner, self->config.terminateGraceSeconds,
         self->config.killGraceSeconds, self->config.reconcilePollSeconds});
    const auto decision = co_await reconciler.reconcile();
    if (self->closed()) co_return;
    if (const auto* fatal = std::get_if<bridge::ReconcileDecision::Fatal>(&decision.value)) {
      self->giveUp(State::failed(fatal->message));
      self->finishBootstrap();
      co_return;
    }

    bool reuse = decision.isReuse();
    if (!reuse && !self->deps.rpcService) {
      // Without its RPC options the engine writes no pidfile, so an engine of ours may be
      // running unseen; one that answers our authenticated status call is reused rather than
      // doubled by a second engine that could not bind the port anyway.
      try {
        co_await self->deps.client->status();
        reuse = true;
      } catch (const std::exception&) {
      }
      if (self->closed()) co_return;
    }
    ++self->generation;
    if (reuse) {
      base::log::info(kSource, "reusing the running engine");
      auto pid = self->enginePIDFromPidfile();
      self->process = pid ? self->hooks.adopt(*pid) : nullptr;
      self->processIsOurs = false;
    } else {
      base::log::info(kSource, "starting a new engine: {}",
                      std::get<bridge::ReconcileDecision::Respawn>(decision.value).reason);
      // Whatever answers there is not an engine we can use, and a new one could not bind the
      // port: its child would die at once while the old program kept answering.
      if (self->hooks.portInUse(self->config.port)) {
        self->process.reset();
        self->giveUp(State::failed("Port " + std::to_string(self->config.port) +
                                   " on 127.0.0.1 is in use by another program; stop it or "
                                   "choose another port (--engine-port)"));
        self->finishBootstrap();
        co_return;
      }
      if (!self->launch(*engine)) {
        self->finishBootstrap();
        co_return;
      }
    }
    if (self->process) self->watchExit(self->generation);

    const bool ready = co_await waitForReadiness(self);
    if (self->closed()) co_return;
    if (ready) {
      self->runningSince = std::chrono::steady_clock::now();
      self->setEndpoint(LocalEndpointHealth::ready);
      self->setState(State::running());
      if (self->config.connectEventStream && self->deps.eventStream)
        self->deps.eventStream->start();
      self->startRPCChannel();
    } else {
      self->setEndpoint(self->processRunning() ? LocalEndpointHealth::reconnecting
                                               : LocalEndpointHealth::down);
      if (self->processIsOurs) {
        base::log::warn(kSource, "engine did not answer; command line: {} {}; last output:\n{}",
                        engine->string(), base::join(self->lastLaunchArguments, " "),
                        lastLines(self->deps.paths.engineLogPath(), 15));
      }
      self->setState(State::failed("Engine not responding"));
    }
    self->startMonitoring();
    self->finishBootstrap();
  }

  bool launch(const fs::path& engine) {
    // The old engine is gone or replaced: its token goes with it.
    std::error_code ec;
    fs::remove(deps.paths.tokenFilePath(), ec);

    lastLaunchArguments =
        engineArguments(config.daemonArguments, config.port, deps.rpcService != nullptr,
                        deps.paths.socketPath(), deps.paths.pidfilePath());
    platform::LaunchOptions options;
    options.executable = engine;
    options.arguments = lastLaunchArguments;
    options.environment = platform::currentEnvironment();
    const auto setVariable = [&](std::string_view key, const std::string& value) {
      std::erase_if(options.environment, [&](const std::string& entry) {
        return entry.size() > key.size() && entry.starts_with(key) && entry[key.size()] == '=';
      });
      options.environment.push_back(std::string(key) + "=" + value);
    };
    setVariable(bridge::DaemonLocalPresence::environmentKey, deps.presenceToken);
    if (config.axServerBundleOverride)
      setVariable("TAMSEL_AX_SERVER_BUNDLE_PATH", config.axServerBundleOverride->string());
    options.outputFile = deps.paths.engineLogPath();
    try {
      process = hooks.launch(options);
      processIsOurs = true;
    } catch (const std::exception& e) {
      process.reset();
      giveUp(State::failed(std::string("Failed to start: ") + e.what()));
      return false;
    }
    try {
      bridge::DaemonLocalPresence::saveForEngine(deps.paths.tokenFilePath(), deps.presenceToken);
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not keep the engine's presence token: {}", e.what());
    }
    base::log::info(kSource, "started engine {} (PID {})", engine.string(), process->pid());
    return true;
  }

  static asio::awaitable<bool> waitForReadiness(Self self) {
    for (int poll = 0; poll < self->config.readinessPolls; ++poll) {
      if (poll > 0) co_await sleepFor(self->config.readinessIntervalSeconds);
      if (self->closed()) co_return false;
      // An engine we started that has already exited will not answer; whatever does answer on
      // the port is not it.
      if (self->processIsOurs && !self->processRunning()) co_return false;
      try {
        auto status = co_await self->deps.client->status();
        if (self->closed()) co_return false;
        self->observeStatus(status);
        co_return true;
      } catch (const std::exception& e) {
        base::log::debug(kSource, "status poll {} failed: {}", poll + 1, e.what());
      }
    }
    co_return false;
  }

  void watchExit(std::uint64_t watched) {
    spawn([](Self self, std::uint64_t watched) -> asio::awaitable<void> {
      std::shared_ptr<platform::Process> engine = self->process;
      const auto status = co_await engine->waitForExit();
      if (watched != self->generation || self->closed()) co_return;
      self->onEngineExit(status);
    }(shared_from_this(), watched));
  }

  void onEngineExit(const platform::ExitStatus& status) {
    base::log::warn(kSource, "engine (PID {}) {}", process ? process->pid() : 0, status.describe());
    lastExit = status;
    publish();
    ++generation;  // the health watcher of this engine stands down
    monitorTimer.cancel();
    if (terminationRequested) return;
    if (consumeStopRequest()) {
      base::log::info(kSource, "the engine was stopped on request; not restarting it");
      process.reset();
      stoppedOnRequest = true;
      giveUp(State::unknown());
      return;
    }
    if (state.kind == State::Kind::running &&
        std::chrono::steady_clock::now() - runningSince >
            std::chrono::duration<double>(config.stableRunSeconds)) {
      restartCount = 0;
    }
    if (restartCount > maxRestarts - 1) {
      giveUp(State::failed("Engine crashed " + std::to_string(maxRestarts) +
                           " times, stopped restarting"));
      return;
    }
    ++restartCount;
    setEndpoint(LocalEndpointHealth::down);
    // Not "running" while nothing answers: the restart is on its way.
    setState(State::starting());
    publish();
    spawn([](Self self, std::uint64_t expected) -> asio::awaitable<void> {
      co_await sleepFor(self->config.restartDelaySeconds);
      if (expected != self->generation || self->isBootstrapping || self->terminationRequested ||
          self->closed())
        co_return;
      self->isBootstrapping = true;
      co_await startSequence(self);
    }(shared_from_this(), generation));
  }

  // Connects the desktop RPC channel in the background; its outcome shows in the service's own
  // state. A channel refused for its protocol version is not retried against the same engine.
  void startRPCChannel() {
    auto* service = deps.rpcService;
    if (!service || !config.connectRPCChannel || service->isStarting()) return;
    spawn([](Self self, asio::awaitable<void> connecting) -> asio::awaitable<void> {
      try {
        co_await std::move(connecting);
      } catch (const std::exception& e) {
        if (!self->closed()) base::log::warn(kSource, "desktop RPC channel: {}", e.what());
      }
    }(shared_from_this(), service->start()));
  }

  bool rpcChannelNeedsRetry() const {
    const auto* service = deps.rpcService;
    if (!service || service->isOnline() || service->isStarting()) return false;
    return !service->refusedProtocolVersion();
  }

  void startMonitoring() {
    monitorTimer.cancel();
    spawn([](Self self, std::uint64_t watched) -> asio::awaitable<void> {
      int failures = 0;
      while (watched == self->generation && !self->closed()) {
        self->monitorTimer.expires_after(std::chrono::nanoseconds(
            static_cast<std::int64_t>(self->config.healthIntervalSeconds * 1e9)));
        boost::system::error_code ec;
        co_await self->monitorTimer.async_wait(asio::redirect_error(asio::use_awaitable, ec));
        if (ec || watched != self->generation || self->terminationRequested || self->closed())
          co_return;
        try {
          auto status = co_await self->deps.client->status();
          if (watched != self->generation || self->closed()) co_return;
          self->observeStatus(status);
          failures = 0;
          self->setEndpoint(LocalEndpointHealth::ready);
          // The engine answers but the channel dropped (the engine closed it, or it was not
          // listening yet): connect again.
          if (self->state.kind == State::Kind::running && self->rpcChannelNeedsRetry())
            self->startRPCChannel();
          if (self->state == State::failed("Engine not responding")) {
            self->runningSince = std::chrono::steady_clock::now();
            self->setState(State::running());
          }
        } catch (const std::exception& e) {
          if (watched != self->generation || self->closed()) co_return;
          ++failures;
          base::log::debug(kSource, "health check failed: {}", e.what());
          self->setEndpoint(self->processRunning() ? LocalEndpointHealth::reconnecting
                                                   : LocalEndpointHealth::down);
          if (failures >= self->config.healthFailuresBeforeFailed)
            self->setState(State::failed("Engine not responding"));
        }
      }
    }(shared_from_this(), generation));
  }

  static asio::awaitable<void> waitUntilGone(const std::function<bool()>& alive, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (alive() && std::chrono::steady_clock::now() < deadline) co_await sleepFor(0.02);
  }

  static asio::awaitable<void> stopSequence(Self self, double graceSeconds) {
    self->terminationRequested = true;
    ++self->generation;
    if (self->deps.eventStream) self->deps.eventStream->stop();
    if (self->deps.rpcService) self->deps.rpcService->stop();
    self->monitorTimer.cancel();
    const auto pidBeforeShutdown = self->process ? std::nullopt : self->enginePIDFromPidfile();
    try {
      co_await self->deps.client->shutdown();
    } catch (const std::exception& e) {
      base::log::warn(kSource, "shutdown request failed: {}", e.what());
    }
    if (self->closed()) co_return;
    // Wait for the engine to go: our handle when we have one, else the pidfile's PID once it is
    // known to be the engine (taken before the engine goes and its socket with it).
    std::optional<std::int32_t> pid;
    if (self->process)
      pid = self->process->pid();
    else
      pid = pidBeforeShutdown;
    const std::function<bool()> alive = [self, pid] {
      if (self->process) return self->process->isRunning();
      return pid && platform::processExists(*pid);
    };
    co_await waitUntilGone(alive, graceSeconds);
    if (alive() && self->process && self->processIsOurs) {
      // Never leave behind an engine we started and were asked to end.
      self->process->signal(SIGTERM);
      co_await waitUntilGone(alive, self->config.terminateGraceSeconds);
      if (alive()) {
        self->process->signal(SIGKILL);
        co_await waitUntilGone(alive, self->config.killGraceSeconds);
      }
    }
    if (self->process && self->process->isChild() && !self->process->isRunning())
      co_await self->process->waitForExit();
    if (!alive()) {
      std::error_code ec;
      fs::remove(self->deps.paths.tokenFilePath(), ec);
    }
    self->process.reset();
    self->stoppedOnRequest = true;
    self->giveUp(State::unknown());
  }
};

DaemonManager::DaemonManager(base::MainExecutor& executor, Config config, Dependencies dependencies,
                             Hooks hooks)
    : impl_(std::make_shared<Impl>(executor, std::move(config), std::move(dependencies))) {
  Hooks defaults;
  defaults.launch = [](const platform::LaunchOptions& options) {
    return platform::Process::launch(options);
  };
  defaults.adopt = [](std::int32_t pid) { return platform::Process::adopt(pid); };
  defaults.sendSignal = &bridge::DaemonReconciler::systemSignal;
  if (impl_->deps.rpcService) {
    defaults.socketOwner = [socket = impl_->deps.paths.socketPath()] {
      const auto peer = platform::unixSocketPeer(socket);
      return peer ? std::optional<std::int32_t>(peer->pid) : std::nullopt;
    };
  }
  defaults.portInUse = &platform::loopbackPortAcceptsConnections;
  if (auto* service = impl_->deps.rpcService) {
    // The engine's own answer over the channel.
    defaults.probe = [socket = service->options().socketPath]() -> asio::awaitable<std::string> {
      const fs::path path = socket;
      const double limit = 3.0;
      co_return co_await bridge::rpc::DesktopRPCService::probeProtocolVersion(path, limit);
    };
  } else {
    // An engine that answers our authenticated status call is taken to speak our protocol.
    defaults.probe = [client = impl_->deps.client]() -> asio::awaitable<std::string> {
      co_await client->status();
      co_return std::string(bridge::desktopRPCProtocolVersion);
    };
  }
  defaults.claimLegacyService = [unit = impl_->deps.paths.legacyUnitPath()] {
    std::error_code ec;
    if (!fs::exists(unit, ec)) return;
    const fs::path systemctl =
        platform::isExecutableFile("/usr/bin/systemctl") ? "/usr/bin/systemctl" : "/bin/systemctl";
    try {
      runCommand(systemctl, {"--user", "disable", "--now", unit.filename().string()}, false);
      base::log::info(kSource, "disabled legacy user service {}", unit.filename().string());
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not disable legacy user service {}: {}", unit.string(),
                      e.what());
    }
  };
  impl_->hooks = std::move(defaults);
  setHooks(std::move(hooks));
}

DaemonManager::~DaemonManager() { impl_->close(); }

void DaemonManager::setHooks(Hooks hooks) {
  auto& current = impl_->hooks;
  if (hooks.locateEngine) current.locateEngine = std::move(hooks.locateEngine);
  if (hooks.launch) current.launch = std::move(hooks.launch);
  if (hooks.adopt) current.adopt = std::move(hooks.adopt);
  if (hooks.sendSignal) current.sendSignal = std::move(hooks.sendSignal);
  if (hooks.probe) current.probe = std::move(hooks.probe);
  if (hooks.socketOwner) current.socketOwner = std::move(hooks.socketOwner);
  if (hooks.claimLegacyService) current.claimLegacyService = std::move(hooks.claimLegacyService);
  if (hooks.portInUse) current.portInUse = std::move(hooks.portInUse);
}

const DaemonManager::State& DaemonManager::state() const { return impl_->state; }
DaemonManager::LocalEndpointHealth DaemonManager::localEndpoint() const {
  return impl_->localEndpoint;
}
const DaemonManager::DaemonCapabilityState& DaemonManager::capabilityState() const {
  return impl_->capabilityState;
}
const std::optional<std::string>& DaemonManager::installedVersion() const {
  return impl_->installedVersion;
}
const std::optional<std::string>& DaemonManager::activeAgent() const { return impl_->activeAgent; }
std::int64_t DaemonManager::restartCount() const { return impl_->restartCount; }
bool DaemonManager::isBootstrapping() const { return impl_->isBootstrapping; }
const std::optional<fs::path>& DaemonManager::enginePath() const { return impl_->enginePath; }
const std::vector<std::string>& DaemonManager::lastLaunchArguments() const {
  return impl_->lastLaunchArguments;
}
const std::optional<platform::ExitStatus>& DaemonManager::lastExit() const {
  return impl_->lastExit;
}
base::Signal<>& DaemonManager::changed() { return impl_->publisher.changed(); }
bridge::DaemonClient& DaemonManager::client() { return *impl_->deps.client; }
bridge::rpc::DesktopRPCService* DaemonManager::rpcService() { return impl_->deps.rpcService; }

std::optional<std::int32_t> DaemonManager::enginePID() const {
  if (!impl_->process) return std::nullopt;
  return impl_->process->pid();
}

bool DaemonManager::ownsEngineProcess() const { return impl_->process && impl_->processIsOurs; }
bool DaemonManager::hasGivenUp() const { return impl_->givenUp; }
bool DaemonManager::stoppedOnRequest() const { return impl_->stoppedOnRequest; }

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

std::vector<std::string> DaemonManager::engineArguments(
    const std::vector<std::string>& daemonArguments, std::uint16_t port, bool rpcEnabled,
    const fs::path& socketPath, const fs::path& pidfilePath) {
  std::vector<std::string> args;
  for (auto arg : daemonArguments) {
    if (auto at = arg.find("{port}"); at != std::string::npos)
      arg.replace(at, 6, std::to_string(port));
    args.push_back(std::move(arg));
  }
  if (rpcEnabled) {
    args.insert(args.end(),
                {"--rpc-socket", socketPath.string(), "--rpc-pidfile", pidfilePath.string()});
  }
  return args;
}

void DaemonManager::start() { start(nullptr); }

void DaemonManager::start(std::function<void()> done) {
  if (done) impl_->startWaiters.push_back(std::move(done));
  if (impl_->isBootstrapping) return;
  // Set before the sequence is scheduled so a second start in the same turn is ignored.
  impl_->isBootstrapping = true;
  impl_->restartCount = 0;
  impl_->terminationRequested = false;
  impl_->spawn(Impl::startSequence(impl_));
}

void DaemonManager::restart() {
  impl_->spawn([](Impl::Self self) -> asio::awaitable<void> {
    co_await Impl::stopSequence(self, 5);
    if (self->closed() || self->isBootstrapping) co_return;
    self->isBootstrapping = true;
    self->restartCount = 0;
    self->terminationRequested = false;
    co_await Impl::startSequence(self);
  }(impl_));
}

void DaemonManager::stop(std::function<void()> done, double graceSeconds) {
  impl_->spawn(
      [](Impl::Self self, std::function<void()> done, double grace) -> asio::awaitable<void> {
        co_await Impl::stopSequence(self, grace);
        if (done && !self->closed()) done();
      }(impl_, std::move(done), graceSeconds));
}

}  // namespace tamsel::desktop
