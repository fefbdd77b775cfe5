// tamsel engine start | status | stop, and tamsel run.
#include <signal.h>

#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdio>
#include <iostream>
#include <thread>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_reconciler.hpp"
#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/desktop/engine_locator.hpp"
#include "tamsel/platform/child_process.hpp"
#include "tamsel/platform/host_resources.hpp"
#include "tamsel/platform/service_notifier.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;
namespace bj = boost::json;
using desktop::DaemonManager;

void printError(const std::string& text) { std::cerr << "tamsel: " << text << std::endl; }

int exitCodeFor(const base::Error& error) {
  if (error.category() == CommandError::category)
    return error.code() == "usage" ? kExitUsage : kExitEngineUnavailable;
  // Nothing answers on the engine's port (an engine that answered too much is there: a failure).
  if (error.category() == bridge::TransportError::category && error.code() == "failed")
    return kExitEngineUnavailable;
  return kExitFailure;
}

namespace {

// After "Engine not found": where the search looked, so a person can put the engine there or
// fix VERD_BINARY.
void explainNotFound(Runtime& rt) {
  const auto& environment = rt.services.environment();
  const auto inputs = desktop::EngineLocator::forThisProcess(environment);
  std::cerr << "tamsel: looked for the engine in:" << std::endl;
  for (const auto& path : desktop::EngineLocator::candidates(inputs))
    std::cerr << "  " << path.string() << std::endl;
  std::cerr << "  (and `which verd` found nothing usable)" << std::endl;
  if (environment.verdBinary && !environment.verdBinary->empty())
    std::cerr << "tamsel: VERD_BINARY names " << *environment.verdBinary
              << ", which is not an executable file" << std::endl;
  else
    std::cerr << "tamsel: set VERD_BINARY to the engine's path to use another one" << std::endl;
}

// What a command that gives up on the engine prints: the state's text, and for a missing
// engine where it was looked for.
void reportUnavailable(Runtime& rt) {
  const auto& state = rt.services.daemonManager().state();
  printError(state.displayText());
  if (state.kind == DaemonManager::State::Kind::notInstalled) explainNotFound(rt);
}

// Ends an engine this command started but could not bring up: nobody asked to keep it.
void abandonOwnedEngine(Runtime& rt) {
  auto& manager = rt.services.daemonManager();
  if (!manager.ownsEngineProcess()) return;
  manager.stop([&rt] { rt.io.stop(); }, 1);
  rt.io.restart();
  rt.io.run();
}

// The start sequence; true when the engine runs. `announce` prints the running line; otherwise a
// launch is still reported on stderr, since the engine outlives the command.
bool startEngine(const GlobalOptions& options, bool announce) {
  // A command that only needs the engine up has no use for the event stream or the channel.
  DaemonManager::Config supervision;
  supervision.connectEventStream = false;
  supervision.connectRPCChannel = false;
  Runtime rt(options, {}, supervision);
  auto& manager = rt.services.daemonManager();
  manager.start([&rt] { rt.io.stop(); });
  rt.io.run();
  const auto& state = manager.state();
  if (state.kind == DaemonManager::State::Kind::running) {
    if (announce) {
      std::cout << state.displayText();
      if (auto pid = manager.enginePID())
        std::cout << " (PID " << *pid << ", port " << options.enginePort << ")";
      std::cout << std::endl;
    } else if (manager.ownsEngineProcess()) {
      std::cerr << "tamsel: started the engine (PID " << manager.enginePID().value_or(0)
                << ", port " << options.enginePort
                << "); it keeps running until `tamsel engine stop`" << std::endl;
    }
    return true;
  }
  reportUnavailable(rt);
  abandonOwnedEngine(rt);
  return false;
}
}  // namespace

bool ensureEngine(const GlobalOptions& options) {
  {
    // An engine that answers at all is there: the command itself reports any refusal.
    Runtime rt(options);
    try {
      rt.runToEnd(rt.services.client().status());
      return true;
    } catch (const bridge::DaemonClientException&) {
      return true;
    } catch (const std::exception&) {
    }
  }
  if (!startEngine(options, false))
    throw CommandException({CommandError::EngineUnavailable{
        "the engine is not available (see above); `tamsel engine status` shows its state"}});
  return true;
}

int engineStart(const GlobalOptions& options) {
  return startEngine(options, true) ? kExitOK : kExitEngineUnavailable;
}

int engineStatus(const GlobalOptions& options, bool asJSON) {
  Runtime rt(options);
  auto& client = rt.services.client();
  const bool rpcEnabled = rt.services.rpcEnabled();
  const auto socket = rt.services.daemonPaths().socketPath();

  struct Report {
    bool healthy = false;
    std::optional<bridge::DaemonStatus> status;
    std::string error;
    std::string rpcChannel = "disabled";  // "online", "offline" or "disabled"
    std::string rpcDetail;                // the protocol version, or why it does not answer
  };
  auto report = rt.runToEnd([&]() -> asio::awaitable<Report> {
    Report r;
    try {
      r.healthy = co_await client.health();
    } catch (const std::exception& e) {
      r.error = e.what();
    }
    try {
      r.status = co_await client.status();
    } catch (const std::exception& e) {
      if (r.error.empty()) r.error = e.what();
    }
    if (rpcEnabled) {
      // A one-shot capabilities exchange: the channel answers or it does not.
      try {
        const double limit = 1.0;
        const std::string version =
            co_await bridge::rpc::DesktopRPCService::probeProtocolVersion(socket, limit);
        r.rpcDetail = "protocol " + version;
        r.rpcChannel = "online";
      } catch (const std::exception& e) {
        r.rpcChannel = "offline";
        r.rpcDetail = e.what();
      }
    }
    co_return r;
  }());

  // Only a pidfile PID that listens on the engine's socket is the engine: a stale pidfile may
  // name any process by now.
  const auto& paths = rt.services.daemonPaths();
  auto pid = bridge::DaemonReconciler::verifiedEnginePID(paths.pidfilePath(), paths.socketPath());
  const bool running = report.status.has_value();
  const std::string state = running ? "running" : pid ? "not_responding" : "stopped";
  const std::string endpoint = report.healthy ? "ready" : pid ? "reconnecting" : "down";
  const auto enginePath = desktop::EngineLocator::locate(
      desktop::EngineLocator::forThisProcess(rt.services.environment()));
  const auto installed =
      enginePath ? desktop::EngineLocator::bundledVersion(*enginePath) : std::nullopt;

  if (asJSON) {
    bj::object out;
    out["state"] = state;
    out["pid"] = pid ? bj::value(*pid) : bj::value(nullptr);
    out["port"] = options.enginePort;
    out["local_endpoint"] = endpoint;
    out["version"] =
        running && report.status->version ? bj::value(*report.status->version) : bj::value(nullptr);
    bj::array caps;
    if (running && report.status->capabilities)
      for (const auto& c : *report.status->capabilities) caps.emplace_back(c);
    out["capabilities"] = std::move(caps);
    out["active_agent"] = running && report.status->activeAgent
                              ? bj::value(*report.status->activeAgent)
                              : bj::value(nullptr);
    out["engine_path"] = enginePath ? bj::value(enginePath->string()) : bj::value(nullptr);
    out["installed_version"] = installed ? bj::value(*installed) : bj::value(nullptr);
    out["error"] = running ? bj::value(nullptr) : bj::value(report.error);
    out["rpc_channel"] = report.rpcChannel;
    std::cout << base::json::serialize(out) << std::endl;
  } else {
    std::cout << "Engine:        "
              << (running ? "Tamsel Engine is running"
                  : pid   ? "Engine not responding"
                          : "Tamsel Engine is not running")
              << "\n";
    std::cout << "PID:           " << (pid ? std::to_string(*pid) : "-") << "\n";
    std::cout << "Endpoint:      http://127.0.0.1:" << options.enginePort << " (" << endpoint
              << ")\n";
    if (running) {
      std::cout << "Version:       " << report.status->version.value_or("-") << "\n";
      std::cout << "Active agent:  " << report.status->activeAgent.value_or("-") << "\n";
      std::string caps;
      if (report.status->capabilities) caps = base::join(*report.status->capabilities, ", ");
      std::cout << "Capabilities:  " << (caps.empty() ? "-" : caps) << "\n";
    } else if (!report.error.empty()) {
      std::cout << "Error:         " << report.error << "\n";
    }
    std::cout << "RPC channel:   " << report.rpcChannel;
    if (!report.rpcDetail.empty()) std::cout << " (" << report.rpcDetail << ")";
    std::cout << "\n";
    std::cout << "Executable:    " << (enginePath ? enginePath->string() : "not found");
    if (installed) std::cout << " (version " << *installed << ")";
    std::cout << std::endl;
  }
  return running ? kExitOK : kExitNotRunning;
}

int engineStop(const GlobalOptions& options) {
  Runtime rt(options);
  const auto& paths = rt.services.daemonPaths();
  auto pid = bridge::DaemonReconciler::verifiedEnginePID(paths.pidfilePath(), paths.socketPath());
  auto& manager = rt.services.daemonManager();
  bool reachable = false;
  try {
    reachable = rt.runToEnd(manager.client().health());
  } catch (const std::exception&) {
  }
  if (!reachable && !pid) {
    std::cout << "Tamsel Engine is not running" << std::endl;
    return kExitOK;
  }
  // A `tamsel run` supervising this engine reads the note and lets it stay stopped.
  try {
    base::writeFileAtomically(rt.services.daemonPaths().stopRequestPath(),
                              pid ? std::to_string(*pid) + "\n" : std::string(), 0600);
  } catch (const std::exception& e) {
    printError(std::string("could not leave the stop note for a supervisor: ") + e.what());
  }
  manager.stop([&rt] { rt.io.stop(); }, 5);
  rt.io.restart();
  rt.io.run();
  if (pid && platform::processExists(*pid)) {
    printError("Tamsel Engine (PID " + std::to_string(*pid) + ") did not shut down");
    return kExitFailure;
  }
  // Without a verified PID to watch, the engine is gone once its port stops answering.
  bool stillAnswers = true;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (stillAnswers && std::chrono::steady_clock::now() < deadline) {
    try {
      stillAnswers = rt.runToEnd(manager.client().health());
    } catch (const std::exception&) {
      stillAnswers = false;
    }
    if (stillAnswers) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (stillAnswers) {
    printError("Tamsel Engine did not shut down");
    return kExitFailure;
  }
  std::cout << "Tamsel Engine stopped" << std::endl;
  return kExitOK;
}

int runHeadless(const GlobalOptions& options, bool asJSON) {
  HeadlessSummoner summoner(options, asJSON);
  app::FrontEndHooks hooks;
  hooks.summon = [&summoner](hotkey::OptionSide side) { summoner.summon(side); };
  hooks.hotkeyNotice = [](const std::string& notice) { printError(notice); };
  Runtime rt(options, std::move(hooks));
  auto& io = rt.io;
  auto& manager = rt.services.daemonManager();

  // One supervisor per user: a second would fight the first over the engine.
  platform::ExclusiveFileLock lock(rt.services.daemonPaths().supervisorLockPath());
  if (!lock.held()) {
    printError("another `tamsel run` " +
               (lock.holder() ? "(PID " + std::to_string(*lock.holder()) + ") " : std::string()) +
               "already supervises the engine; stop it first (Ctrl-C there)");
    return kExitFailure;
  }
  int exitCode = kExitOK;
  bool ending = false;

  struct Shown {
    DaemonManager::State state;
    DaemonManager::LocalEndpointHealth endpoint;
    std::int64_t restarts;
    std::optional<std::int32_t> pid;
    std::optional<bool> rpcOnline;  // none: the channel is switched off
    std::optional<std::string> rpcError;
    bool operator==(const Shown& o) const {
      return state == o.state && endpoint == o.endpoint && restarts == o.restarts && pid == o.pid &&
             rpcOnline == o.rpcOnline && rpcError == o.rpcError;
    }
  };
  std::optional<Shown> last;
  // Under systemd (Type=notify) the service is ready once the engine answers.
  platform::ServiceNotifier serviceManager;
  auto show = [&] {
    Shown now{manager.state(),
              manager.localEndpoint(),
              manager.restartCount(),
              manager.enginePID(),
              {},
              {}};
    if (const auto* rpc = manager.rpcService()) {
      now.rpcOnline = rpc->isOnline();
      now.rpcError = rpc->lastError();
    }
    const std::string rpcChannel = !now.rpcOnline   ? "disabled"
                                   : *now.rpcOnline ? "online"
                                                    : "offline";
    if (last == now) return;
    last = now;
    // Never "running" while the endpoint does not answer.
    const bool answering = now.endpoint == DaemonManager::LocalEndpointHealth::ready;
    const bool up = now.state.kind == DaemonManager::State::Kind::running;
    const std::string text =
        up && !answering ? "Tamsel Engine is not answering" : now.state.displayText();
    if (!ending && up && answering)
      serviceManager.ready(text);
    else if (!ending)
      serviceManager.status(text);
    // Machines read UTC; people read their own zone.
    const auto stamp = asJSON ? base::formatISO8601(base::nowTimestamp())
                              : base::formatLocalTime(base::nowTimestamp(), true);
    if (asJSON) {
      bj::object line;
      line["time"] = stamp;
      line["state"] = now.state.name();
      line["text"] = text;
      line["local_endpoint"] = DaemonManager::name(now.endpoint);
      line["pid"] = now.pid ? bj::value(*now.pid) : bj::value(nullptr);
      line["restart_count"] = now.restarts;
      line["rpc_channel"] = rpcChannel;
      line["rpc_error"] = now.rpcError ? bj::value(*now.rpcError) : bj::value(nullptr);
      std::cout << base::json::serialize(line) << std::endl;
    } else {
      std::cout << stamp << "  " << text << "  [endpoint " << DaemonManager::name(now.endpoint);
      if (now.pid) std::cout << ", PID " << *now.pid;
      if (now.restarts) std::cout << ", restarts " << now.restarts;
      if (now.rpcOnline) std::cout << ", rpc " << rpcChannel;
      if (now.rpcError) std::cout << " (" << *now.rpcError << ")";
      std::cout << "]" << std::endl;
    }
  };
  // The supervisor has nothing left to do: say why and end, with an exit code that says it.
  auto endWhenGivenUp = [&] {
    if (ending || !manager.hasGivenUp()) return;
    ending = true;
    serviceManager.stopping(manager.state().displayText());
    if (manager.stoppedOnRequest()) {
      std::cerr << "tamsel: the engine was stopped on request (tamsel engine stop); not "
                   "restarting it"
                << std::endl;
    } else if (manager.state().kind == DaemonManager::State::Kind::notInstalled) {
      reportUnavailable(rt);
      exitCode = kExitEngineUnavailable;
    } else {
      printError(manager.state().displayText());
      exitCode = kExitFailure;
    }
    asio::post(io, [&io] { io.stop(); });
  };
  manager.changed().connect(show);
  manager.changed().connect(endWhenGivenUp);
  if (auto* rpc = manager.rpcService()) rpc->changed().connect(show);

  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (ec) return;
    ending = true;
    serviceManager.stopping("Shutting down the engine…");
    if (!asJSON) std::cout << "Shutting down the engine…" << std::endl;
    manager.stop(
        [&] {
          show();
          io.stop();
        },
        5);
    // A second signal ends at once.
    signals.async_wait([&io](const boost::system::error_code& again, int) {
      if (!again) io.stop();
    });
  });
  // Jobs left by an earlier run are settled first; meetings are watched when the user opted in.
  const auto meetings = startMeetingsForRun(rt, asJSON);
  manager.start();
  startSummonHotkey(rt.services, asJSON);
  io.run();
  return exitCode;
}

}  // namespace tamsel::cli
