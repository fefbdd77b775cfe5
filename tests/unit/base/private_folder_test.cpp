#include "tamsel/base/private_folder.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "../test_support.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/bridge/session_history.hpp"

namespace tamsel::base {
namespace {

namespace fs = std::filesystem;

unsigned modeOf(const fs::path& path) {
  struct stat info {};
  ::lstat(path.c_str(), &info);
  return info.st_mode & 0777;
}

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value)
      ::setenv(name, value->c_str(), 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (old_)
      ::setenv(name_, old_->c_str(), 1);
    else
      ::unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(PrivateFolder, CreatedOwnerOnlyAndRefusedWhenNotARealFolderOfOurs) {
  test::TempDir dir;
  const auto folder = dir.path() / "images";
  ensurePrivateFolder(folder);
  EXPECT_EQ(modeOf(folder), 0700u);

  // Ours but open to others: narrowed.
  ::chmod(folder.c_str(), 0755);
  ensurePrivateFolder(folder);
  EXPECT_EQ(modeOf(folder), 0700u);

  // A symlink planted under the name, even to a folder we own, is refused and left as it is.
  const auto target = dir.path() / "elsewhere";
  fs::create_directory(target);
  const auto planted = dir.path() / "planted";
  fs::create_directory_symlink(target, planted);
  try {
    ensurePrivateFolder(planted);
    ADD_FAILURE() << "a symlink was accepted";
  } catch (const PrivateFolderError& e) {
    EXPECT_EQ(std::string(e.what()),
              "refusing to use " + planted.string() + ": it is not a real directory");
  }
  std::ofstream(dir.path() / "file") << "x";
  EXPECT_THROW(ensurePrivateFolder(dir.path() / "file"), PrivateFolderError);

  if (::geteuid() == 0) {
    // Another user's folder (only root can make one here).
    const auto theirs = dir.path() / "theirs";
    fs::create_directory(theirs);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    EXPECT_THROW(ensurePrivateFolder(theirs), PrivateFolderError);
  }
}

TEST(PrivateFolder, RuntimeFolderIsXdgRuntimeDirElseAnOwnFolderInTheTemporaryDirectory) {
  test::TempDir dir;
  {
    ScopedEnv runtime("XDG_RUNTIME_DIR", dir.path().string());
    EXPECT_EQ(userRuntimeFolder(), dir.path());
  }
  ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
  ScopedEnv tmpdir("TMPDIR", dir.path().string());
  const auto own = dir.path() / ("tamsel-" + std::to_string(::geteuid()));
  EXPECT_EQ(userRuntimeFolder(), own);
  EXPECT_EQ(modeOf(own), 0700u);
  // Someone planted the name first: refused rather than used.
  fs::remove(own);
  fs::create_directory_symlink(dir.path(), own);
  EXPECT_THROW(userRuntimeFolder(), PrivateFolderError);
}

TEST(PrivateFolder, OnlyOldRegularFilesAreSwept) {
  test::TempDir dir;
  const auto old = dir.path() / "old.png";
  const auto fresh = dir.path() / "fresh.png";
  std::ofstream(old) << "o";
  std::ofstream(fresh) << "f";
  fs::create_directory(dir.path() / "old-folder");
  for (const auto& p : {old, dir.path() / "old-folder"})
    fs::last_write_time(p, fs::file_time_type::clock::now() - std::chrono::hours(49));
  EXPECT_EQ(removeFilesOlderThan(dir.path(), std::chrono::hours(24)), 1u);
  EXPECT_FALSE(fs::exists(old));
  EXPECT_TRUE(fs::exists(fresh));
  EXPECT_TRUE(fs::exists(dir.path() / "old-folder"));
}

TEST(SessionImages, TheSameImageReusesItsFileAndAnotherGetsItsOwn) {
  test::TempDir dir;
  ScopedEnv runtime("XDG_RUNTIME_DIR", dir.path().string());
  const std::string png = "iVBORw0KGgo=";  // the PNG signature
  const auto first = bridge::SessionHistory::materialiseImage(png, "image/png");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->parent_path(), dir.path() / "quenlo-images");
  EXPECT_EQ(modeOf(first->parent_path()), 0700u);
  EXPECT_EQ(modeOf(*first), 0600u);
  struct stat before {};
  ::stat(first->c_str(), &before);
  const auto again = bridge::SessionHistory::materialiseImage(png, "image/png");
  EXPECT_EQ(again, first);
  struct stat after {};
  ::stat(first->c_str(), &after);
  EXPECT_EQ(after.st_ino, before.st_ino) << "rewritten instead of reused";
  const auto other = bridge::SessionHistory::materialiseImage("R0lGODlh", "image/gif");
  ASSERT_TRUE(other);
  EXPECT_NE(other->stem(), first->stem());
  EXPECT_EQ(other->extension(), ".gif");
  EXPECT_EQ(nameUUIDString("a").size(), 36u);
}

}  // namespace
}  // namespace tamsel::base
