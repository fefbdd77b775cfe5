#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::base {
namespace {

namespace fs = std::filesystem;

class TempDir {
 public:
  TempDir() : path_(fs::temp_directory_path() / ("tamsel-test-" + newUUIDString())) {
    fs::create_directories(path_);
  }
  ~TempDir() { fs::remove_all(path_); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

TEST(AtomicFile, ReplacesContentsWithOwnerOnlyModeAndLeavesNoTemporaries) {
  TempDir dir;
  const auto file = dir.path() / "drafts.json";
  writeFileAtomically(file, "first", 0644);
  writeFileAtomically(file, "second");
  std::string text;
  ASSERT_TRUE(readFile(file, text));
  EXPECT_EQ(text, "second");
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
}

TEST(AtomicFile, FailureLeavesNothingBehind) {
  TempDir dir;
  EXPECT_THROW(writeFileAtomically(dir.path() / "missing" / "x.json", "data"), std::system_error);
  // A folder in the way of the rename: the temporary file must be cleaned up.
  fs::create_directories(dir.path() / "taken" / "inner");
  EXPECT_THROW(writeFileAtomically(dir.path() / "taken", "data"), std::system_error);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
  std::string text;
  EXPECT_FALSE(readFile(dir.path() / "absent", text));
}

TEST(AtomicFile, StaleTemporariesOfDeadWritersAreRemovedAndLiveOnesKept) {
  TempDir dir;
  const auto file = dir.path() / "drafts.json";
  // A PID that is surely gone: a child already reaped.
  const pid_t dead = ::fork();
  if (dead == 0) ::_exit(0);
  ::waitpid(dead, nullptr, 0);
  const auto make = [&](const std::string& name, int ageSeconds = 0) {
    const auto path = dir.path() / name;
    std::ofstream(path) << "partial";
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(ageSeconds));
    return path;
  };
  const auto killed = make(".drafts.json." + std::to_string(dead) + "-0A1B2C3D.tmp");
  const auto mine = make(".drafts.json." + std::to_string(::getpid()) + "-0A1B2C3D.tmp");
  const auto oldStyleFresh = make(".drafts.json.0A1B2C3D.tmp");
  const auto oldStyleStale = make(".drafts.json.1A1B2C3D.tmp", 7200);
  const auto otherFile = make(".preferences.json." + std::to_string(dead) + "-0A1B2C3D.tmp");
  const auto unrelated = make("notes.tmp", 7200);
  EXPECT_EQ(removeStaleTemporaries(file), 2u);
  EXPECT_FALSE(fs::exists(killed));
  EXPECT_FALSE(fs::exists(oldStyleStale));
  EXPECT_TRUE(fs::exists(mine)) << "a save in progress is left alone";
  EXPECT_TRUE(fs::exists(oldStyleFresh));
  EXPECT_TRUE(fs::exists(otherFile)) << "only this file's temporaries";
  EXPECT_EQ(removeStaleTemporariesIn(dir.path()), 1u);
  EXPECT_FALSE(fs::exists(otherFile));
  EXPECT_TRUE(fs::exists(unrelated));

  // A save's own temporary carries its writer's PID.
  writeFileAtomically(file, "{}");
  EXPECT_TRUE(fs::exists(file));
}

TEST(Text, TrimRemovesBlanksAndLineEndsOnly) {
  EXPECT_EQ(trim(" \t\r\n x y \n"), "x y");
  EXPECT_EQ(trim("   "), "");
  EXPECT_EQ(join({"a", "b", "c"}, ","), "a,b,c");
  EXPECT_EQ(join({}, ","), "");
}

TEST(UUID, CanonicalUpperCaseAndUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const auto id = newUUIDString();
    ASSERT_EQ(id.size(), 36u);
    ASSERT_EQ(id[14], '4');  // version 4
    for (char c : id)
      ASSERT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || c == '-') << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

// A child's environment is taken from env::all(): it must show what env::set wrote, once.
TEST(Env, AllShowsTheLatestValueOfEachVariableOnce) {
  const std::string name = "TAMSEL_TEST_" + newUUIDString().substr(0, 8);
  env::set(name.c_str(), "first");
  env::set(name.c_str(), "second=with equals");
  const auto all = env::all();
  EXPECT_EQ(std::count(all.begin(), all.end(), name + "=second=with equals"), 1);
  EXPECT_EQ(std::count_if(all.begin(), all.end(),
                          [&](const std::string& e) { return e.starts_with(name + "="); }),
            1);
  EXPECT_EQ(env::get(name.c_str()), "second=with equals");
  EXPECT_EQ(env::get((name + "_ABSENT").c_str()), std::nullopt);
  ::unsetenv(name.c_str());
}

}  // namespace
}  // namespace tamsel::base
