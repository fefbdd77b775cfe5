#include "tamsel/bridge/daemon_reconciler.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "../test_support.hpp"

namespace tamsel::bridge {
namespace {

namespace asio = boost::asio;

// A process table of one: answers signal 0 as the process's state and records every signal.
struct FakeProcess {
  bool alive = true;
  bool ownedByOtherUser = false;
  bool diesOnTerm = true;
  bool diesOnKill = true;
  std::vector<int> signalsSent;  // not counting signal 0
  int probes = 0;

  int send(std::int32_t, int sig) {
    if (sig != 0) {
      signalsSent.push_back(sig);
      if ((sig == SIGTERM && diesOnTerm) || (sig == SIGKILL && diesOnKill)) alive = false;
      return alive || !ownedByOtherUser ? 0 : ESRCH;
    }
    if (!alive) return ESRCH;
    return ownedByOtherUser ? EPERM : 0;
  }
};

class ReconcilerTest : public ::testing::Test {
 protected:
  void writePidfile(const std::string& text) { std::ofstream(pidfile()) << text; }
  std::filesystem::path pidfile() const { return dir.path() / "daemon.pid"; }

  ReconcileDecision run(std::function<std::string()> probeResult) {
    DaemonReconciler::Inputs inputs;
    inputs.pidfile = pidfile();
    inputs.expectedProtocolVersion = "1.0.0";
    inputs.probe = [this, probeResult]() -> asio::awaitable<std::string> {
      ++process.probes;
      co_return probeResult();
    };
    inputs.sendSignal = [this](std::int32_t pid, int sig) { return process.send(pid, sig); };
    inputs.socketOwner = socketOwner;
    inputs.terminateGraceSeconds = 0.05;
    inputs.killGraceSeconds = 0.05;
    inputs.pollIntervalSeconds = 0.01;
    return test::runAsync(DaemonReconciler(inputs).reconcile());
  }

  static std::string reason(const ReconcileDecision& d) {
    if (auto* r = std::get_if<ReconcileDecision::Respawn>(&d.value)) return r->reason;
    if (auto* f = std::get_if<ReconcileDecision::Fatal>(&d.value)) return f->message;
    return "reuse";
  }

  test::TempDir dir;
  FakeProcess process;
  DaemonReconciler::SocketOwner socketOwner;
};

TEST_F(ReconcilerTest, NoOrBadPidfileRespawnsWithoutProbing) {
  auto d = run([] { return "1.0.0"; });
  EXPECT_EQ(reason(d), "no pidfile or unparseable content at " + pidfile().string());
  writePidfile("12a4");
  EXPECT_TRUE(run([] { return "1.0.0"; }).isRespawn());
  // 0 and -1 would signal process groups: never a PID to test or terminate.
  for (const char* groupish : {"0", "-1", "-4242"}) {
    writePidfile(groupish);
    EXPECT_EQ(reason(run([] { return "0.9.0"; })),
              "no pidfile or unparseable content at " + pidfile().string());
  }
  EXPECT_EQ(process.probes, 0);
  EXPECT_TRUE(process.signalsSent.empty());
}

TEST_F(ReconcilerTest, StalePidRespawns) {
  writePidfile("4242\n");
  process.alive = false;
  auto d = run([] { return "1.0.0"; });
  EXPECT_EQ(reason(d), "pidfile points to stale PID 4242 (process not running)");
  EXPECT_EQ(process.probes, 0);
}

TEST_F(ReconcilerTest, MatchingEngineIsReusedWithoutAnySignal) {
  writePidfile("4242");
  EXPECT_TRUE(run([] { return "1.0.0"; }).isReuse());
  EXPECT_TRUE(process.signalsSent.empty());
}

TEST_F(ReconcilerTest, AnotherUsersProcessCountsAsAliveAndIsProbed) {
  writePidfile("4242");
  process.ownedByOtherUser = true;
  EXPECT_TRUE(run([] { return "1.0.0"; }).isReuse());
  EXPECT_EQ(process.probes, 1);
}

TEST_F(ReconcilerTest, ProbeFailureRespawnsAndSendsNoSignal) {
  writePidfile("4242");
  auto d = run([]() -> std::string { throw std::runtime_error("connection refused"); });
  EXPECT_EQ(reason(d), "system.capabilities probe failed: connection refused");
  EXPECT_TRUE(process.signalsSent.empty());
}

TEST_F(ReconcilerTest, VersionMismatchEscalatesFromTermToKillToFatal) {
  writePidfile("4242");
  const std::string mismatch = "protocol version mismatch (expected 1.0.0, got 0.9.0)";

  auto d = run([] { return "0.9.0"; });
  EXPECT_EQ(reason(d), mismatch + "; old daemon exited on SIGTERM");
  EXPECT_EQ(process.signalsSent, std::vector<int>{SIGTERM});

  process = FakeProcess{};
  process.diesOnTerm = false;
  d = run([] { return "0.9.0"; });
  EXPECT_EQ(reason(d), mismatch + "; old daemon exited on SIGKILL");
  EXPECT_EQ(process.signalsSent, (std::vector<int>{SIGTERM, SIGKILL}));

  process = FakeProcess{};
  process.diesOnTerm = process.diesOnKill = false;
  process.ownedByOtherUser = true;  // EPERM in the polls still means alive
  d = run([] { return "0.9.0"; });
  ASSERT_TRUE(d.isFatal());
  EXPECT_EQ(
      reason(d),
      "Failed to terminate residual Tamsel Engine process (PID 4242) after SIGTERM + SIGKILL. "
      "Please restart your computer.");
}

TEST_F(ReconcilerTest, APidfilePIDThatDoesNotOwnTheSocketIsNeverSignalled) {
  // The engine on the socket (PID 5151) speaks another version; the pidfile names an unrelated
  // live process. Signalling it would hit a stranger, and starting beside the real engine would
  // double it: fatal, nothing signalled.
  writePidfile("4242");
  socketOwner = [] { return std::optional<std::int32_t>(5151); };
  auto d = run([] { return "0.9.0"; });
  ASSERT_TRUE(d.isFatal());
  EXPECT_EQ(reason(d),
            "protocol version mismatch (expected 1.0.0, got 0.9.0): the engine socket is answered "
            "by PID 5151, not by PID 4242 of the pidfile; that process is not ours and nothing "
            "was signalled. Stop the engine that owns the socket and start again.");
  EXPECT_TRUE(process.signalsSent.empty());

  socketOwner = [] { return std::optional<std::int32_t>(); };  // the owner cannot be told
  d = run([] { return "0.9.0"; });
  ASSERT_TRUE(d.isFatal());
  EXPECT_NE(reason(d).find("answered by an unknown process"), std::string::npos) << reason(d);
  EXPECT_TRUE(process.signalsSent.empty());

  // The socket's owner is the pidfile's process: the old engine is ended as before.
  socketOwner = [] { return std::optional<std::int32_t>(4242); };
  d = run([] { return "0.9.0"; });
  EXPECT_EQ(reason(d),
            "protocol version mismatch (expected 1.0.0, got 0.9.0); old daemon exited on SIGTERM");
  EXPECT_EQ(process.signalsSent, std::vector<int>{SIGTERM});
}

TEST(VerifiedEnginePID, OnlyThePidfilePIDThatListensOnTheSocketCounts) {
  test::TempDir dir;
  const auto socketPath = dir.path() / "daemon.sock";
  const auto pidfile = dir.path() / "daemon.pid";
  std::ofstream(pidfile) << ::getpid() << "\n";
  EXPECT_EQ(DaemonReconciler::verifiedEnginePID(pidfile, socketPath), std::nullopt)
      << "no socket: nothing is verified";

  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, socketPath.c_str());
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  EXPECT_EQ(DaemonReconciler::verifiedEnginePID(pidfile, socketPath), ::getpid());
  // A live process that is not the listener (PID 1) is not the engine.
  std::ofstream(pidfile) << "1\n";
  EXPECT_EQ(DaemonReconciler::verifiedEnginePID(pidfile, socketPath), std::nullopt);
  ::close(listener);
}

TEST(ReconcilerSystemSignal, ReportsErrnoOfKill) {
  EXPECT_EQ(DaemonReconciler::systemSignal(::getpid(), 0), 0);
  // PID 1 belongs to someone else unless we are root; either way it exists.
  const int init = DaemonReconciler::systemSignal(1, 0);
  EXPECT_TRUE(init == 0 || init == EPERM);
  EXPECT_EQ(DaemonReconciler::systemSignal(0x3fffffff, 0), ESRCH);
}

}  // namespace
}  // namespace tamsel::bridge
