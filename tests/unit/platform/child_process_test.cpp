#include "tamsel/platform/child_process.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <system_error>
#include <thread>

#include "../test_support.hpp"

namespace tamsel::platform {
namespace {

TEST(ProcessLaunch, AnOutputFileThatCannotBeOpenedIsNamedNotTheExecutable) {
  test::TempDir dir;
  // A folder where the log should be: it cannot be opened for writing, whoever we are.
  const auto log = dir.path() / "engine.log";
  std::filesystem::create_directory(log);
  LaunchOptions options;
  options.executable = "/bin/true";
  options.outputFile = log;
  try {
    Process::launch(options);
    ADD_FAILURE() << "launched without its log";
  } catch (const std::system_error& e) {
    EXPECT_EQ(std::string(e.what()), "cannot open " + log.string() + ": Is a directory");
  }
}

TEST(RunCancellable, CapturesBothStreamsAndEndsOnCancelPolitelyThenForcibly) {
  // Both streams, in order, and the exit status.
  auto done = runCancellable("/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}, nullptr);
  EXPECT_EQ(done.output, "out\nerr\n");
  EXPECT_FALSE(done.status.signaled);
  EXPECT_EQ(done.status.code, 3);

  // Cancelled: SIGTERM first, which a child may answer by tidying up.
  std::atomic<bool> cancel{false};
  std::thread later([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    cancel = true;
  });
  done = runCancellable(
      "/bin/sh", {"-c", "trap 'echo tidied; exit 5' TERM; while :; do sleep 0.05; done"}, &cancel);
  later.join();
  EXPECT_EQ(done.output, "tidied\n");
  EXPECT_EQ(done.status.code, 5);

  // One that ignores SIGTERM is killed once the grace is over.
  std::atomic<bool> cancelLater{false};
  std::thread soon([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    cancelLater = true;
  });
  const auto started = std::chrono::steady_clock::now();
  done = runCancellable("/bin/sh", {"-c", "trap '' TERM; exec sleep 30"}, &cancelLater, 0.3);
  soon.join();
  EXPECT_TRUE(done.status.signaled);
  EXPECT_EQ(done.status.code, SIGKILL);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));

  EXPECT_THROW(runCancellable("/nonexistent/tamsel", {}, nullptr), std::system_error);
}

}  // namespace
}  // namespace tamsel::platform
