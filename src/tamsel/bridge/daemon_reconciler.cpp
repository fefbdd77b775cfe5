#include "tamsel/bridge/daemon_reconciler.hpp"

#include <signal.h>

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <chrono>
#include <exception>

#include "tamsel/bridge/pidfile_reader.hpp"
#include "tamsel/platform/socket_peer.hpp"

namespace tamsel::bridge {

namespace asio = boost::asio;

int DaemonReconciler::systemSignal(std::int32_t pid, int signal) {
  return ::kill(static_cast<pid_t>(pid), signal) == 0 ? 0 : errno;
}

std::optional<std::int32_t> DaemonReconciler::verifiedEnginePID(
    const std::filesystem::path& pidfile, const std::filesystem::path& socket) {
  const auto pid = PidfileReader::readProcessID(pidfile);
  if (!pid) return std::nullopt;
  const auto peer = platform::unixSocketPeer(socket);
  if (!peer || peer->pid != *pid) return std::nullopt;
  return pid;
}

bool DaemonReconciler::isAlive(std::int32_t pid) const {
  const int result = inputs_.sendSignal(pid, 0);
  return result == 0 || result == EPERM;
}

asio::awaitable<bool> DaemonReconciler::waitUntilGone(std::int32_t pid, double graceSeconds) const {
  using Clock = std::chrono::steady_clock;
  const auto interval =
      std::chrono::nanoseconds(static_cast<std::int64_t>(inputs_.pollIntervalSeconds * 1e9));
  const auto deadline =
      Clock::now() + std::chrono::nanoseconds(static_cast<std::int64_t>(graceSeconds * 1e9));
  asio::steady_timer timer(co_await asio::this_coro::executor);
  while (true) {
    if (!isAlive(pid)) co_return true;
    if (Clock::now() >= deadline) co_return false;
    timer.expires_after(interval);
    co_await timer.async_wait(asio::use_awaitable);
  }
}

asio::awaitable<ReconcileDecision> DaemonReconciler::reconcile() const {
  const auto pid = PidfileReader::readProcessID(inputs_.pidfile);
  if (!pid) {
    co_return ReconcileDecision{ReconcileDecision::Respawn{"no pidfile or unparseable content at " +
                                                           inputs_.pidfile.string()}};
  }

  const int test = inputs_.sendSignal(*pid, 0);
  if (test != 0 && test != EPERM) {
    co_return ReconcileDecision{ReconcileDecision::Respawn{
        "pidfile points to stale PID " + std::to_string(*pid) + " (process not running)"}};
  }

  std::string reported;
  std::string probeError;
  try {
    reported = co_await inputs_.probe();
  } catch (const std::exception& e) {
    probeError = e.what();
  } catch (...) {
    probeError = "unknown error";
  }
  if (!probeError.empty()) {
    co_return ReconcileDecision{
        ReconcileDecision::Respawn{"system.capabilities probe failed: " + probeError}};
  }

  if (reported == inputs_.expectedProtocolVersion)
    co_return ReconcileDecision{ReconcileDecision::Reuse{}};

  const std::string reason = "protocol version mismatch (expected " +
                             inputs_.expectedProtocolVersion + ", got " + reported + ")";
  if (inputs_.socketOwner) {
    const auto owner = inputs_.socketOwner();
    if (owner != pid) {
      co_return ReconcileDecision{ReconcileDecision::Fatal{
          reason + ": the engine socket is answered by " +
          (owner ? "PID " + std::to_string(*owner) : std::string("an unknown process")) +
          ", not by PID " + std::to_string(*pid) +
          " of the pidfile; that process is not ours and nothing was signalled. Stop the engine "
          "that owns the socket and start again."}};
    }
  }
  inputs_.sendSignal(*pid, SIGTERM);
  if (co_await waitUntilGone(*pid, inputs_.terminateGraceSeconds)) {
    co_return ReconcileDecision{
        ReconcileDecision::Respawn{reason + "; old daemon exited on SIGTERM"}};
  }
  inputs_.sendSignal(*pid, SIGKILL);
  if (co_await waitUntilGone(*pid, inputs_.killGraceSeconds)) {
    co_return ReconcileDecision{
        ReconcileDecision::Respawn{reason + "; old daemon exited on SIGKILL"}};
  }
  co_return ReconcileDecision{ReconcileDecision::Fatal{
      "Failed to terminate residual Tamsel Engine process (PID " + std::to_string(*pid) +
      ") after SIGTERM + SIGKILL. Please restart your computer."}};
}

}  // namespace tamsel::bridge
