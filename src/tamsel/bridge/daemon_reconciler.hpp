#pragma once
// Decides what to do about an engine left running: reuse it, replace it, or give up.
// Every input is injected so the decision can be exercised without real processes.
#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace tamsel::bridge {

struct ReconcileDecision {
  struct Respawn {
    std::string reason;
  };
  struct Fatal {
    std::string message;
  };
  struct Reuse {};
  std::variant<Respawn, Fatal, Reuse> value;

  bool isReuse() const { return std::holds_alternative<Reuse>(value); }
  bool isRespawn() const { return std::holds_alternative<Respawn>(value); }
  bool isFatal() const { return std::holds_alternative<Fatal>(value); }
};

class DaemonReconciler {
 public:
  // Asks the running engine which protocol version it speaks; throws when it cannot tell.
  using Probe = std::function<boost::asio::awaitable<std::string>()>;
  // The system's kill(2): returns 0 on success, else the errno value (EPERM: the process exists
  // but belongs to someone else). Signal 0 only tests.
  using SignalFunction = std::function<int(std::int32_t pid, int signal)>;
  // The PID of the process that answers on the engine's socket, when the kernel can tell.
  using SocketOwner = std::function<std::optional<std::int32_t>()>;

  struct Inputs {
    std::filesystem::path pidfile;
    std::string expectedProtocolVersion;
    Probe probe;
    SignalFunction sendSignal;
    // When set, the pidfile's PID is signalled only if it is the process answering on the socket:
    // a stale pidfile may name any process by now (a reused PID), and the engine that answered
    // the probe may be another one. A mismatch is "not ours": fatal, nothing signalled. Without
    // it the pidfile is trusted.
    SocketOwner socketOwner;
    double terminateGraceSeconds = 3.0;
    double killGraceSeconds = 2.0;
    double pollIntervalSeconds = 0.1;
  };

  explicit DaemonReconciler(Inputs inputs) : inputs_(std::move(inputs)) {}

  // Runs on the caller's executor; sleeps use its timers.
  boost::asio::awaitable<ReconcileDecision> reconcile() const;

  // kill(2) with the result convention above.
  static int systemSignal(std::int32_t pid, int signal);

  // The pidfile's PID when it is the process listening on `socket` (checked through the
  // kernel's peer credentials), else nothing: the PID to name or wait for as the engine.
  static std::optional<std::int32_t> verifiedEnginePID(const std::filesystem::path& pidfile,
                                                       const std::filesystem::path& socket);

 private:
  boost::asio::awaitable<bool> waitUntilGone(std::int32_t pid, double graceSeconds) const;
  bool isAlive(std::int32_t pid) const;

  Inputs inputs_;
};

}  // namespace tamsel::bridge
