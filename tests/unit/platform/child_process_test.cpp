#include "tamsel/platform/child_process.hpp"

#include <gtest/gtest.h>

#include <system_error>

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

}  // namespace
}  // namespace tamsel::platform
