#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "../test_support.hpp"
#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::base {
namespace {

namespace fs = std::filesystem;

TEST(PreferencesStore, PersistsOwnerOnlyAndRemovesKeys) {
  test::TempDir dir;
  const auto file = dir.path() / "preferences.json";
  {
    PreferencesStore store(file);
    store.set("dev.tamsel.desktop.a", boost::json::value(3));
    store.set("dev.tamsel.desktop.b", boost::json::value("x"));
    store.set("dev.tamsel.desktop.a", std::nullopt);
  }
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  PreferencesStore again(file);
  EXPECT_EQ(again.value("dev.tamsel.desktop.a"), std::nullopt);
  EXPECT_EQ(again.value("dev.tamsel.desktop.b"), boost::json::value("x"));
}

TEST(PreferencesStore, AFileThatDoesNotDecodeIsKeptAside) {
  test::TempDir dir;
  const auto file = dir.path() / "preferences.json";
  std::ofstream(file) << "{ not json";
  PreferencesStore store(file);
  EXPECT_EQ(store.value("anything"), std::nullopt);
  store.set("dev.tamsel.desktop.k", boost::json::value(true));
  int aside = 0;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    if (entry.path().filename().string().starts_with("preferences.json.bad-")) {
      ++aside;
      std::string text;
      base::readFile(entry.path(), text);
      EXPECT_EQ(text, "{ not json") << "the unreadable file is kept as it was";
    }
  }
  EXPECT_EQ(aside, 1);
}

TEST(PreferencesStore, AFileThatExistsButCannotBeReadIsNeverWrittenOver) {
  test::TempDir dir;
  const auto file = dir.path() / "preferences.json";
  std::ofstream(file) << R"({"dev.tamsel.desktop.other": 1})";
  fs::permissions(file, fs::perms::none);
  // Mode 000 stops every user but root: as root the check runs in a child that is not.
  const auto check = [&]() -> std::string {
    PreferencesStore store(file);
    try {
      store.set("dev.tamsel.desktop.k", boost::json::value(true));
      return "wrote over a file it could not read";
    } catch (const std::runtime_error& e) {
      if (std::string(e.what()).find(file.string() + " exists but cannot be read (Permission "
                                                     "denied)") == std::string::npos)
        return std::string("unexpected error: ") + e.what();
    }
    if (store.value("dev.tamsel.desktop.k") != boost::json::value(true))
      return "the value was not kept in memory";
    return "";
  };
  if (::geteuid() != 0) {
    EXPECT_EQ(check(), "");
  } else {
    fs::permissions(dir.path(), fs::perms::all);
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
      const auto failure = check();
      if (!failure.empty()) std::fprintf(stderr, "%s\n", failure.c_str());
      ::_exit(failure.empty() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }
  fs::permissions(file, fs::perms::owner_read);
  std::string text;
  ASSERT_TRUE(readFile(file, text));
  EXPECT_EQ(text, R"({"dev.tamsel.desktop.other": 1})") << "the file is untouched";
}

TEST(ChatTexts, AnnotationErrorsAreWordedByTheInterface) {
  EXPECT_EQ(desktop::DaemonChatViewModel::conversationAnnotationErrorText(
                "conversation_replies_too_many"),
            "Too many annotations — the limit is 100 per message.");
  EXPECT_EQ(desktop::DaemonChatViewModel::conversationAnnotationErrorText(
                "conversation_reply_quote_too_long"),
            "A selected passage is too long (max 8,000 characters).");
  EXPECT_EQ(desktop::DaemonChatViewModel::conversationAnnotationErrorText("conversation_repl"),
            std::nullopt);
}

}  // namespace
}  // namespace tamsel::base
