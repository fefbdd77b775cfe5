#pragma once
// The engine supervisor: finds the engine, takes it over from a legacy user service, reuses an
// engine left running when it speaks our protocol, otherwise starts one as a child process, waits
// for it to answer, watches it and restarts it a bounded number of times after a crash.
//
// Lives on the main executor: every method must be called there, and every change of the
// observable state is published there, in order, through `changed`. It may be destroyed there at
// any moment: its tasks are cancelled and nothing of it runs afterwards (an engine it started
// keeps running; stop() ends it). It builds none of its collaborators: the composition root
// hands them over and they must outlive it.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "tamsel/base/error.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_paths.hpp"
#include "tamsel/bridge/daemon_reconciler.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/platform/child_process.hpp"

namespace tamsel::bridge::rpc {
class DesktopRPCService;
}

namespace tamsel::desktop {

struct DaemonManagerError {
  static constexpr std::string_view category = "supervisor";
  struct ProcessFailed {
    std::int32_t status = 0;
  };
  struct BinaryNotFound {};
  std::variant<ProcessFailed, BinaryNotFound> value;
  std::string description() const;
  std::string code() const { return base::caseName(value, {"process_failed", "binary_not_found"}); }
};

using DaemonManagerException = base::ErrorOf<DaemonManagerError>;

class DaemonManager {
 public:
  struct State {
    enum class Kind { running, failed, unknown, notInstalled, starting };
    Kind kind = Kind::unknown;
    std::string message;  // for `failed`

    static State running() { return {Kind::running, {}}; }
    static State failed(std::string message) { return {Kind::failed, std::move(message)}; }
    static State unknown() { return {Kind::unknown, {}}; }
    static State notInstalled() { return {Kind::notInstalled, {}}; }
    static State starting() { return {Kind::starting, {}}; }

    bool operator==(const State&) const = default;
    // What the user sees.
    std::string displayText() const;
    // "running", "failed", "unknown", "not_installed", "starting".
    std::string name() const;
  };

  enum class LocalEndpointHealth { unknown, ready, reconnecting, down };
  static std::string name(LocalEndpointHealth health);

  struct DaemonCapabilityState {
    bool hasObservedSuccessfulStatus = false;
    std::set<std::string> tokens;
    bool operator==(const DaemonCapabilityState&) const = default;
  };

  static constexpr std::int64_t maxRestarts = 5;

  struct Config {
    std::uint16_t port = bridge::DaemonClient::defaultPort;
    // The engine's daemon-mode arguments, before the RPC options; "{port}" becomes the port.
    std::vector<std::string> daemonArguments{"daemon", "--port", "{port}"};
    std::optional<std::filesystem::path> axServerBundleOverride;
    double restartDelaySeconds = 5;
    int readinessPolls = 10;
    double readinessIntervalSeconds = 0.5;
    double healthIntervalSeconds = 5;
    int healthFailuresBeforeFailed = 3;
    // After SIGTERM, how long an engine gets to go before SIGKILL; after SIGKILL, how long we wait.
    double terminateGraceSeconds = 3;
    double killGraceSeconds = 2;
    double reconcilePollSeconds = 0.1;
    // After this long running without a crash, the restart budget is whole again.
    double stableRunSeconds = 600;
    // Connect the engine-wide event stream once the engine answers.
    bool connectEventStream = true;
    // Bring the desktop RPC channel online once the engine answers (when the RPC switch is on).
    bool connectRPCChannel = true;
  };

  struct Dependencies {
    bridge::DaemonClient* client = nullptr;                // required
    bridge::EventStreamClient* eventStream = nullptr;      // optional
    bridge::rpc::DesktopRPCService* rpcService = nullptr;  // null when the RPC channel is off
    bridge::DaemonPaths paths;
    // Passed to an engine we start (our environment holds it too); a secret.
    std::string presenceToken;
  };

  // The effects the manager relies on, replaceable in tests.
  struct Hooks {
    std::function<std::optional<std::filesystem::path>()> locateEngine;
    std::function<std::unique_ptr<platform::Process>(const platform::LaunchOptions&)> launch;
    std::function<std::unique_ptr<platform::Process>(std::int32_t pid)> adopt;
    bridge::DaemonReconciler::SignalFunction sendSignal;
    // Asks a running engine which protocol version it speaks. Default: the RPC channel's
    // capabilities handshake, or the HTTP status call when the channel is off.
    bridge::DaemonReconciler::Probe probe;
    // The PID that listens on the engine's socket (kernel peer credentials); unset when the RPC
    // channel is off, since then no pidfile names the engine.
    bridge::DaemonReconciler::SocketOwner socketOwner;
    // Turns off the legacy user service that may keep its own engine alive.
    std::function<void()> claimLegacyService;
    // Whether something already listens on the engine's port (checked before a launch).
    std::function<bool(std::uint16_t port)> portInUse;
  };

  // `locateEngine` must be among `hooks`; the other effects have real defaults.
  DaemonManager(base::MainExecutor& executor, Config config, Dependencies dependencies,
                Hooks hooks);
  // Replaces some effects; call before start().
  void setHooks(Hooks hooks);
  ~DaemonManager();
  DaemonManager(const DaemonManager&) = delete;
  DaemonManager& operator=(const DaemonManager&) = delete;

  // Observable state.
  const State& state() const;
  LocalEndpointHealth localEndpoint() const;
  const DaemonCapabilityState& capabilityState() const;
  const std::optional<std::string>& installedVersion() const;
  const std::optional<std::string>& activeAgent() const;
  std::int64_t restartCount() const;
  bool isBootstrapping() const;
  std::optional<std::int32_t> enginePID() const;
  // True when the engine was started by this process (not reused).
  bool ownsEngineProcess() const;
  // True when the manager will do nothing more on its own until start() or restart(): the
  // engine was not found, could not be launched or reused, crashed too often, or was stopped
  // on request.
  bool hasGivenUp() const;
  // True when the engine ended because a stop was asked for, by this process or by another
  // one through DaemonPaths::stopRequestPath(); it is not restarted then.
  bool stoppedOnRequest() const;
  const std::optional<std::filesystem::path>& enginePath() const;
  // The arguments the engine was last started with.
  const std::vector<std::string>& lastLaunchArguments() const;
  // How the supervised engine last ended, for telling the user why it failed.
  const std::optional<platform::ExitStatus>& lastExit() const;
  base::Signal<>& changed();

  bridge::DaemonClient& client();
  // The desktop RPC channel; null when it is switched off. Its own `changed` signal reports
  // isOnline and lastError.
  bridge::rpc::DesktopRPCService* rpcService();

  // Runs the start sequence unless one is running. A start the user asks for also gives back
  // the whole restart budget.
  void start();
  // Completes the start sequence and calls `done` on the main executor afterwards.
  void start(std::function<void()> done);
  void restart();
  // Asks the engine to shut down ("/shutdown"); an engine this process started that does not
  // go within `graceSeconds` is terminated. Calls `done` when it is gone or given up on.
  void stop(std::function<void()> done, double graceSeconds = 5);

  // Runs an executable; returns its standard output when `collectOutput`; throws
  // DaemonManagerException(processFailed) for a non-zero exit status.
  static std::optional<std::string> runCommand(const std::filesystem::path& executable,
                                               const std::vector<std::string>& arguments,
                                               bool collectOutput);

  // The child's arguments: the daemon-mode arguments, then the RPC options unless switched off.
  static std::vector<std::string> engineArguments(const std::vector<std::string>& daemonArguments,
                                                  std::uint16_t port, bool rpcEnabled,
                                                  const std::filesystem::path& socketPath,
                                                  const std::filesystem::path& pidfilePath);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::desktop
