// "Launch at login" against a scripted service manager that leaves the links the real one does.
#include "tamsel/app/launch_at_login.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "../test_support.hpp"

namespace tamsel::app {
namespace {

namespace fs = std::filesystem;

struct FakeManager {
  fs::path config;
  bool available = true;
  int failWith = 0;  // exit status of the next calls, 0: succeed
  std::vector<std::string> calls;

  LaunchAtLogin::System system() {
    LaunchAtLogin::System s;
    s.userServiceAvailable = [this] { return available; };
    s.systemctl = [this](const std::vector<std::string>& args) -> std::pair<int, std::string> {
      std::string line;
      for (const auto& a : args) line += (line.empty() ? "" : " ") + a;
      calls.push_back(line);
      if (failWith)
        return {failWith, "Failed to enable unit: Unit file tamsel.service does not exist."};
      const auto link = config / "systemd/user/default.target.wants/tamsel.service";
      if (args.at(0) == "enable") {
        fs::create_directories(link.parent_path());
        fs::create_symlink("/usr/lib/systemd/user/tamsel.service", link);
      } else if (args.at(0) == "disable") {
        fs::remove(link);
      }
      return {0, ""};
    };
    return s;
  }
};

std::string read(const fs::path& p) {
  std::ifstream in(p);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

using M = LaunchAtLogin::Mechanism;

TEST(LaunchAtLogin, WithAServiceManagerTheUserUnitAndNeverTheAutostartEntryToo) {
  test::TempDir dir;
  FakeManager manager{dir.path()};
  LaunchAtLogin login(dir.path(), "/usr/bin/tamsel-desktop --background", manager.system());
  // An autostart entry from a session without a manager is replaced, not kept beside the unit.
  fs::create_directories(login.autostartEntry().parent_path());
  std::ofstream(login.autostartEntry()) << "[Desktop Entry]\n";
  EXPECT_EQ(login.current(), M::autostartEntry);

  login.setEnabled(true);
  EXPECT_EQ(manager.calls, std::vector<std::string>{"enable tamsel.service"});
  EXPECT_EQ(login.current(), M::userService);
  EXPECT_FALSE(fs::exists(login.autostartEntry()));

  login.setEnabled(false);
  EXPECT_EQ(manager.calls.back(), "disable tamsel.service");
  EXPECT_FALSE(login.enabled());
}

TEST(LaunchAtLogin, WithoutAServiceManagerAnAutostartEntryThatRunsTheGivenCommand) {
  test::TempDir dir;
  FakeManager manager{dir.path()};
  manager.available = false;
  LaunchAtLogin login(dir.path(), "/usr/bin/tamsel-desktop --background", manager.system());
  // A unit enabled earlier (its link is all that is left without a manager) goes.
  fs::create_directories(login.unitWantsLink().parent_path());
  fs::create_symlink("/usr/lib/systemd/user/tamsel.service", login.unitWantsLink());
  EXPECT_EQ(login.current(), M::userService);

  login.setEnabled(true);
  EXPECT_TRUE(manager.calls.empty());
  EXPECT_EQ(login.current(), M::autostartEntry);
  EXPECT_FALSE(fs::is_symlink(login.unitWantsLink()));
  const auto entry = read(login.autostartEntry());
  EXPECT_NE(entry.find("\nExec=/usr/bin/tamsel-desktop --background\n"), std::string::npos)
      << entry;
  EXPECT_EQ(entry.rfind("[Desktop Entry]\nType=Application\n", 0), 0u) << entry;

  login.setEnabled(false);
  EXPECT_FALSE(login.enabled());
}

TEST(LaunchAtLogin, AFailedEnableSaysWhyAndLeavesWhatWasThere) {
  test::TempDir dir;
  FakeManager manager{dir.path()};
  LaunchAtLogin login(dir.path(), "tamsel-desktop", manager.system());
  fs::create_directories(login.autostartEntry().parent_path());
  std::ofstream(login.autostartEntry()) << "[Desktop Entry]\n";
  manager.failWith = 1;
  try {
    login.setEnabled(true);
    FAIL() << "enable failed but nothing was thrown";
  } catch (const LaunchAtLoginError& e) {
    EXPECT_STREQ(e.what(),
                 "systemctl --user enable tamsel.service failed (exit 1): Failed to enable unit: "
                 "Unit file tamsel.service does not exist.");
  }
  EXPECT_EQ(login.current(), M::autostartEntry);
}

}  // namespace
}  // namespace tamsel::app
