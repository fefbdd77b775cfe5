#include "tamsel/desktop/engine_locator.hpp"

#include <gtest/gtest.h>

#include <set>

#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel::desktop {
namespace {

namespace fs = std::filesystem;

struct Fixture {
  std::set<std::string> executables;
  int whichCalls = 0;
  std::optional<std::string> whichOutput;

  EngineLocator::Inputs inputs() {
    EngineLocator::Inputs in;
    in.homeDirectory = "/home/u";
    in.executableDirectory = "/opt/tamsel/bin";
    in.isExecutable = [this](const fs::path& p) { return executables.count(p.string()) > 0; };
    in.which = [this] {
      ++whichCalls;
      return whichOutput;
    };
    return in;
  }
};

TEST(EngineLocator, SearchOrder) {
  Fixture f;
  f.executables = {"/custom/verd", "/opt/tamsel/libexec/tamsel/verd", "/usr/local/bin/verd",
                   "/home/u/.local/bin/verd", "/usr/bin/verd"};
  f.whichOutput = "/usr/bin/verd\n";
  auto in = f.inputs();
  in.verdBinary = "/custom/verd";
  EXPECT_EQ(EngineLocator::locate(in), fs::path("/custom/verd"));
  in.verdBinary.reset();
  EXPECT_EQ(EngineLocator::locate(in), fs::path("/opt/tamsel/libexec/tamsel/verd"));
  f.executables.erase("/opt/tamsel/libexec/tamsel/verd");
  EXPECT_EQ(EngineLocator::locate(in), fs::path("/usr/local/bin/verd"));
  f.executables.erase("/usr/local/bin/verd");
  EXPECT_EQ(EngineLocator::locate(in), fs::path("/home/u/.local/bin/verd"));
  f.executables.erase("/home/u/.local/bin/verd");
  EXPECT_EQ(f.whichCalls, 0);
  EXPECT_EQ(EngineLocator::locate(in), fs::path("/usr/bin/verd"));  // trimmed output of which
  EXPECT_EQ(f.whichCalls, 1);
}

// What "Engine not found" lists must be what locate() tried, in its order.
TEST(EngineLocator, CandidatesAreTheSearchInOrder) {
  Fixture f;
  f.whichOutput = " /usr/bin/verd\n";
  auto in = f.inputs();
  in.verdBinary = "/custom/verd";
  const std::vector<fs::path> expected{
      "/custom/verd",        "/opt/tamsel/libexec/tamsel/verd", "/opt/homebrew/bin/verd",
      "/usr/local/bin/verd", "/home/u/.local/bin/verd",         "/usr/bin/verd"};
  EXPECT_EQ(EngineLocator::candidates(in), expected);
  f.whichOutput.reset();
  in.verdBinary.reset();
  EXPECT_EQ(EngineLocator::candidates(in),
            std::vector<fs::path>(expected.begin() + 1, expected.end() - 1));
}

TEST(EngineLocator, VerdBinaryThatIsNotAnExecutableIsSkipped) {
  Fixture f;
  f.executables = {"/home/u/.local/bin/verd"};
  auto in = f.inputs();
  in.verdBinary = "/does/not/exist";
  EXPECT_EQ(EngineLocator::locate(in), fs::path("/home/u/.local/bin/verd"));
  f.executables.clear();
  f.whichOutput = "/not/executable\n";
  EXPECT_EQ(EngineLocator::locate(in), std::nullopt);
}

TEST(DaemonManagerArguments, RpcOptionsFollowTheDaemonArgumentsUnlessSwitchedOff) {
  const std::vector<std::string> daemon{"daemon", "--port", "{port}"};
  EXPECT_EQ(DaemonManager::engineArguments(daemon, 9000, true, "/d/daemon.sock", "/d/daemon.pid"),
            (std::vector<std::string>{"daemon", "--port", "9000", "--rpc-socket", "/d/daemon.sock",
                                      "--rpc-pidfile", "/d/daemon.pid"}));
  EXPECT_EQ(DaemonManager::engineArguments(daemon, 9000, false, "/d/daemon.sock", "/d/daemon.pid"),
            (std::vector<std::string>{"daemon", "--port", "9000"}));
}

TEST(DaemonManagerRunCommand, ReportsTheExitStatus) {
  EXPECT_EQ(DaemonManager::runCommand("/bin/sh", {"-c", "printf hello"}, true), "hello");
  EXPECT_EQ(DaemonManager::runCommand("/bin/sh", {"-c", "true"}, false), std::nullopt);
  try {
    DaemonManager::runCommand("/bin/sh", {"-c", "exit 3"}, false);
    FAIL() << "expected processFailed";
  } catch (const DaemonManagerException& e) {
    EXPECT_STREQ(e.what(), "Command failed with exit status 3");
  }
  EXPECT_THROW(DaemonManager::runCommand("/nonexistent/tool", {}, false), std::system_error);
}

}  // namespace
}  // namespace tamsel::desktop
