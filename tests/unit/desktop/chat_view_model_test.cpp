// The chat controller on session files alone (no engine): loads, stale loads and the cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>

#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktop {
namespace {

class ChatViewModelFiles : public ::testing::Test {
 protected:
  void settle() {
    io.restart();
    io.poll();
  }
  boost::asio::io_context io;
  bridge::DaemonClient client{{1, "token", "device", {}}};  // nothing listens: only files are read
  DaemonChatEngine engine{client};
  bridge::SessionHistory history{std::filesystem::path(TAMSEL_FIXTURES_DIR) / "verdane"};
  base::AsioMainExecutor main{io};
  DaemonChatViewModel vm{main, {&engine, nullptr, &history, nullptr, nullptr}};
};

TEST_F(ChatViewModelFiles, ASessionLoadsFromItsFile) {
  vm.selectSession("s_release");
  EXPECT_TRUE(vm.isLoading());
  settle();
  EXPECT_FALSE(vm.isLoading());
  ASSERT_EQ(vm.messages().size(), 6u);
  EXPECT_EQ(vm.messages()[1].toolBlock->tools.size(), 3u);
  EXPECT_EQ(vm.currentSessionTitle(), "Plan the 0.3 release");
}

TEST_F(ChatViewModelFiles, AFileTheAgentDeliveredIsAttachedToTheReplyThatDeliveredIt) {
  vm.selectAgent("researcher");
  vm.selectSession("s_sources");
  settle();
  const auto& messages = vm.messages();
  const auto delivering = std::find_if(messages.begin(), messages.end(), [](const auto& m) {
    return m.toolBlock && !m.toolBlock->tools.empty() &&
           m.toolBlock->tools.back().toolUseId == "dl_1";
  });
  ASSERT_NE(delivering, messages.end());
  ASSERT_EQ(delivering->attachments.size(), 1u);
  const auto& file = delivering->attachments[0];
  EXPECT_EQ(file.filename, "sources.md");
  EXPECT_EQ(file.filePath, "/home/dev/out/sources.md");
  EXPECT_EQ(file.mimeType, "text/markdown");
  EXPECT_EQ(file.kind, kit::Attachment::Kind::fileRef);
  // Only there: no other reply carries it.
  EXPECT_EQ(std::count_if(
                messages.begin(), messages.end(),
                [](const auto& m) { return m.author == "assistant" && !m.attachments.empty(); }),
            1);
}

TEST_F(ChatViewModelFiles, ALoadOvertakenByANewerSelectionIsDiscarded) {
  vm.selectSession("s_release");
  vm.startNewSession();  // before the load above has finished
  settle();
  EXPECT_TRUE(vm.messages().empty()) << "the stale load must not fill the new session";
  vm.selectSession("s_release");
  vm.selectSession("s_dup");
  settle();
  ASSERT_EQ(vm.messages().size(), 1u);
  EXPECT_EQ(vm.messages()[0].content, "from the default folder");
}

TEST_F(ChatViewModelFiles, SwitchingBackShowsTheCachedWindowBeforeAnyReload) {
  vm.selectSession("s_release");
  settle();
  vm.selectSession("s_dup");
  settle();
  vm.selectSession("s_release");
  EXPECT_EQ(vm.messages().size(), 6u) << "shown from the cache, nothing has run yet";
  settle();
  EXPECT_EQ(vm.messages().size(), 6u) << "the unchanged file leaves it as it is";
}

}  // namespace
}  // namespace tamsel::desktop
