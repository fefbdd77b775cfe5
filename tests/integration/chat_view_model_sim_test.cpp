// The chat controller against the simulator: sending, streaming, queueing, approvals, switching.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>

#include "sim_harness.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktop {
namespace {

namespace asio = boost::asio;

class ChatViewModelSim : public ::testing::Test {
 protected:
  ChatViewModelSim()
      : sim({.extraArguments = {"--engine-home", engineHome.path().string()}}),
        client({sim.port(), sim.token(), "DEVICE-1", {"approvals"}}),
        events(io.get_executor(), {sim.port(), sim.token(), "DEVICE-1"}),
        history(engineHome.path()) {}

  void runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    test::runUntil(io, done, limit);
  }

  std::unique_ptr<DaemonChatViewModel> makeViewModel(
      base::PreferencesStore* preferences = nullptr) {
    auto vm = std::make_unique<DaemonChatViewModel>(
        main, DaemonChatViewModel::Dependencies{&engine, &events, &history, nullptr, preferences});
    vm->start();
    runUntil([&] { return !vm->agents().empty() && !vm->sessions().empty(); });
    return vm;
  }

  static std::vector<std::string> roles(const DaemonChatViewModel& vm) {
    std::vector<std::string> out;
    for (const auto& m : vm.messages()) out.push_back(m.author);
    return out;
  }

  std::size_t requests(const std::string& path) {
    std::size_t n = 0;
    for (const auto& line : sim.recordedRequests())
      if (base::json::parse(line).at("path").as_string() == path) ++n;
    return n;
  }

  test::TempDir engineHome;
  test::SimEngine sim;
  asio::io_context io;
  base::AsioMainExecutor main{io};
  bridge::DaemonClient client;
  DaemonChatEngine engine{client};
  bridge::EventStreamClient events;
  bridge::SessionHistory history;  // reads the session files the simulator writes
};

TEST_F(ChatViewModelSim, SendsANewSessionAndBindsItsRealId) {
  auto vm = makeViewModel();
  EXPECT_EQ(vm->selectedAgent(), vm->agents().front().name);
  vm->startNewSession();
  const auto pending = vm->currentPendingSessionLocalID();
  ASSERT_TRUE(pending);
  int notifications = 0;
  vm->changed().connect([&] { ++notifications; });
  EXPECT_EQ(vm->submit("hello there"), DaemonChatViewModel::SubmitOutcome::sent);
  EXPECT_EQ(roles(*vm), (std::vector<std::string>{"user", "assistant"}))
      << "the user message shows at once";
  EXPECT_TRUE(vm->isStreamActive());
  runUntil([&] { return !vm->isStreamActive() && vm->currentSessionID(); });
  ASSERT_TRUE(vm->currentSessionID());
  EXPECT_EQ(vm->sessionIdentityRegistry().realID(*pending), *vm->currentSessionID());
  EXPECT_EQ(roles(*vm), (std::vector<std::string>{"user", "assistant"}));
  EXPECT_NE(vm->messages()[1].content.find("hello there"), std::string::npos);
  ASSERT_TRUE(vm->messages()[1].toolBlock);
  EXPECT_EQ(vm->messages()[1].toolBlock->tools.at(0).status, kit::ToolRunStatus::completed);
  EXPECT_GT(notifications, 0);
  EXPECT_FALSE(vm->errorMessage()) << *vm->errorMessage();
}

TEST_F(ChatViewModelSim, TextTypedWhileAReplyRunsIsQueuedAndDrainsAfterIt) {
  auto vm = makeViewModel();
  vm->startNewSession();
  vm->submit("first [slow]");
  runUntil([&] { return vm->currentSessionID().has_value(); });
  EXPECT_EQ(vm->submit("second"), DaemonChatViewModel::SubmitOutcome::queued);
  EXPECT_EQ(vm->submit("third"), DaemonChatViewModel::SubmitOutcome::queued);
  ASSERT_EQ(vm->queuedDrafts().size(), 2u);
  vm->retractQueuedDraft(vm->queuedDrafts()[1].id);
  ASSERT_EQ(vm->queuedDrafts().size(), 1u);
  runUntil([&] { return requests("/message") == 2 && !vm->isStreamActive(); },
           std::chrono::seconds(20));
  EXPECT_TRUE(vm->queuedDrafts().empty());
  EXPECT_EQ(requests("/message"), 2u) << "the retracted draft was never sent";
  EXPECT_EQ(roles(*vm), (std::vector<std::string>{"user", "assistant", "user", "assistant"}));
  EXPECT_EQ(vm->messages()[2].content, "second");
}

TEST_F(ChatViewModelSim, ApprovalsShowOnceAndAnAnswerResolvesThem) {
  auto vm = makeViewModel();
  vm->startNewSession();
  vm->submit("list it [approval]");
  runUntil([&] { return !vm->pendingApprovals().empty(); });
  // The stream and the event bus both announce the request: one row.
  runUntil([] { return false; }, std::chrono::milliseconds(300));
  ASSERT_EQ(vm->pendingApprovals().size(), 1u);
  const auto id = vm->pendingApprovals()[0].info.requestID;
  EXPECT_EQ(vm->pendingApprovals()[0].info.tool, "bash");
  vm->answerApproval(id, DaemonChatViewModel::ApprovalDecision::once);
  EXPECT_TRUE(vm->pendingApprovals().empty());
  runUntil([&] { return !vm->isStreamActive(); });
  EXPECT_EQ(vm->notice(),
            "Allowed for this turn. High-risk commands are never saved as Always Allow.");
  EXPECT_TRUE(vm->pendingApprovals().empty())
      << "a late duplicate of an answered request stays hidden";
  const auto& tools = vm->messages().at(1).toolBlock->tools;
  EXPECT_EQ(tools.at(0).status, kit::ToolRunStatus::completed);
}

TEST_F(ChatViewModelSim, CancelEndsTheReplyAndAsksTheEngine) {
  auto vm = makeViewModel();
  vm->startNewSession();
  vm->submit("take your time [slow]");
  runUntil([&] { return vm->currentSessionID().has_value(); });
  vm->cancel();
  EXPECT_TRUE(vm->isCancelling());
  runUntil([&] { return !vm->isStreamActive(); });
  EXPECT_FALSE(vm->isStreamActive());
  EXPECT_FALSE(vm->isCancelling());
  EXPECT_EQ(requests("/cancel"), 1u);
  EXPECT_FALSE(vm->errorMessage()) << "a cancelled reply is not an error";
}

TEST_F(ChatViewModelSim, SwitchingRestoresFromTheCacheAndTheCacheIsBounded) {
  auto vm = makeViewModel();
  std::vector<std::string> ids;
  for (int i = 0; i < 7; ++i) {
    vm->startNewSession();
    vm->submit("session " + std::to_string(i));
    runUntil([&] { return !vm->isStreamActive() && vm->currentSessionID(); });
    ASSERT_TRUE(vm->currentSessionID());
    ids.push_back(*vm->currentSessionID());
  }
  vm->selectSession(ids[5]);
  EXPECT_EQ(roles(*vm), (std::vector<std::string>{"user", "assistant"}))
      << "shown from the cache before any reload";
  EXPECT_EQ(vm->messages()[0].content, "session 5");
  EXPECT_LE(vm->cachedSessionCount(), 6u);
  vm->selectSession(ids[0]);
  EXPECT_TRUE(vm->messages().empty())
      << "the first session was the least recently used and left the cache";
  vm->selectAgent("no-such-agent");
  EXPECT_EQ(vm->errorMessage(), "That agent no longer exists.");
}

TEST_F(ChatViewModelSim, SidebarStateSurvivesARestart) {
  base::PreferencesStore preferences(engineHome.path() / "preferences.json");
  std::string finishedElsewhere;
  {
    auto vm = makeViewModel(&preferences);
    vm->setSessionBrowseScope("all");
    vm->startNewSession();
    vm->submit("background work [slow]");
    runUntil([&] { return vm->currentSessionID().has_value(); });
    finishedElsewhere = *vm->currentSessionID();
    std::string elsewhere;
    for (const auto& session : vm->sessions())
      if (session.id != finishedElsewhere) elsewhere = session.id;
    vm->selectSession(elsewhere);  // look elsewhere while it runs
    EXPECT_TRUE(vm->partialSessions().count(finishedElsewhere));
    runUntil([&] { return vm->runningSessionIDs().empty(); }, std::chrono::seconds(20));
    EXPECT_TRUE(vm->runningPendingSessionIDs().empty());
    EXPECT_TRUE(vm->completedUnreadSessions().count(finishedElsewhere))
        << finishedElsewhere << " running=" << vm->runningSessionIDs().size();
    EXPECT_FALSE(vm->partialSessions().count(finishedElsewhere));
  }
  base::PreferencesStore reopened(engineHome.path() / "preferences.json");
  auto vm = makeViewModel(&reopened);
  EXPECT_EQ(vm->sessionBrowseScope(), "all");
  EXPECT_TRUE(vm->completedUnreadSessions().count(finishedElsewhere));
  vm->selectSession(finishedElsewhere);
  EXPECT_FALSE(vm->completedUnreadSessions().count(finishedElsewhere))
      << "opening it marks it read";
  EXPECT_EQ(reopened.value(DaemonChatViewModel::completedUnreadSessionsKey),
            boost::json::value(boost::json::array{}));
}

TEST_F(ChatViewModelSim, StreamedTurnsJoinTheirReloadedFileWithoutDuplicates) {
  auto vm = makeViewModel();
  vm->startNewSession();
  vm->submit("first question");
  runUntil([&] { return !vm->isStreamActive() && vm->currentSessionID(); });
  runUntil([] { return false; }, std::chrono::milliseconds(300));  // the refresh after "done"
  ASSERT_EQ(roles(*vm), (std::vector<std::string>{"user", "assistant"}));
  const std::string streamedReply = vm->messages()[1].content;
  const std::string replyID = vm->messages()[1].id;
  vm->submit("second question");
  runUntil([&] { return !vm->isStreamActive(); });
  runUntil([] { return false; }, std::chrono::milliseconds(300));
  ASSERT_EQ(roles(*vm), (std::vector<std::string>{"user", "assistant", "user", "assistant"}));
  EXPECT_EQ(vm->messages()[1].content, streamedReply) << "the file's text is the streamed text";
  EXPECT_EQ(vm->messages()[1].id, replyID)
      << "matched messages keep their ids, so the list updates in place";
  ASSERT_TRUE(vm->messages()[3].toolBlock);
  EXPECT_EQ(vm->messages()[3].toolBlock->tools.at(0).status, kit::ToolRunStatus::completed);
  EXPECT_TRUE(vm->messages()[1].toolBlock->id.starts_with("session-toolblock-"))
      << "the reloaded file's version replaced what the stream built";

  // Reopening the session later reads the same transcript from its file alone.
  const auto id = *vm->currentSessionID();
  auto fresh = makeViewModel();
  fresh->selectSession(id);
  runUntil([&] { return !fresh->isLoading(); });
  ASSERT_EQ(fresh->messages().size(), 4u);
  EXPECT_EQ(fresh->messages()[1].content, streamedReply);
}

}  // namespace
}  // namespace tamsel::desktop
