#include "tamsel/bridge/daemon_local_presence.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "../test_support.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/bridge/desktop_rpc_switch.hpp"

namespace tamsel::bridge {
namespace {

const std::regex kGenerated(
    "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}-"
    "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[0-9A-F]{4}-[0-9A-F]{12}");

TEST(DaemonLocalPresence, GeneratedTokenIsTwoUpperCaseUUIDs) {
  const auto token = DaemonLocalPresence::generate();
  EXPECT_EQ(token.size(), 73u);
  EXPECT_TRUE(std::regex_match(token, kGenerated)) << "unexpected shape";
  EXPECT_NE(token, DaemonLocalPresence::generate());
}

TEST(DaemonLocalPresence, PresetWinsUntrimmedThenSavedFileThenGenerated) {
  auto gen = [] { return std::string("GENERATED"); };
  EXPECT_EQ(DaemonLocalPresence::resolve(" preset\n", "saved", gen), " preset\n");
  EXPECT_EQ(DaemonLocalPresence::resolve(" \t\n", "saved", gen), "saved");
  EXPECT_EQ(DaemonLocalPresence::resolve(std::nullopt, "saved", gen), "saved");
  EXPECT_EQ(DaemonLocalPresence::resolve("   ", std::nullopt, gen), "GENERATED");
  EXPECT_EQ(DaemonLocalPresence::resolve(std::nullopt, " \n", gen), "GENERATED");
}

TEST(DaemonLocalPresence, SavedTokenIsOwnerOnly) {
  test::TempDir dir;
  const auto file = dir.path() / "daemon.token";
  EXPECT_FALSE(DaemonLocalPresence::loadSaved(file));
  DaemonLocalPresence::saveForEngine(file, "abc");
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(DaemonLocalPresence::loadSaved(file), "abc");
}

TEST(DaemonLocalPresence, ThisProcessTakesTheSavedTokenOrMakesOneAndExportsIt) {
  test::TempDir dir;
  const auto file = dir.path() / "daemon.token";
  // A blank preset is no token: the saved one of a running engine wins.
  DaemonLocalPresence::saveForEngine(file, "saved-token");
  EXPECT_EQ(DaemonLocalPresence::forThisProcess(std::string("   "), file), "saved-token");
  EXPECT_EQ(base::env::get(DaemonLocalPresence::environmentKey), "saved-token");
  // A preset is used exactly as found, whatever is saved.
  EXPECT_EQ(DaemonLocalPresence::forThisProcess(std::string(" preset "), file), " preset ");
  std::filesystem::remove(file);
  const auto made = DaemonLocalPresence::forThisProcess(std::nullopt, file);
  EXPECT_EQ(made.size(), 73u);
  EXPECT_EQ(base::env::get(DaemonLocalPresence::environmentKey), made);
  ::unsetenv(DaemonLocalPresence::environmentKey);
}

TEST(DesktopRPCSwitch, OnlyExactlyZeroSwitchesItOff) {
  EXPECT_FALSE(DesktopRPCSwitch::isEnabled(std::string("0")));
  EXPECT_TRUE(DesktopRPCSwitch::isEnabled(std::string("false")));
  EXPECT_TRUE(DesktopRPCSwitch::isEnabled(std::string(" 0")));
  EXPECT_TRUE(DesktopRPCSwitch::isEnabled(std::string("")));
  EXPECT_TRUE(DesktopRPCSwitch::isEnabled(std::nullopt));
}

}  // namespace
}  // namespace tamsel::bridge
