// The chat controller's parts: their own rules, and the controller driving them against a
// scripted engine (no network), with each part notifying only when its own state changed.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <deque>

#include "../test_support.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"

namespace tamsel::desktop {
namespace {

namespace asio = boost::asio;

// ---------------------------------------------------------------- the parts on their own

kit::Message message(std::string id, std::string author, std::string content) {
  kit::Message m;
  m.id = std::move(id);
  m.author = std::move(author);
  m.content = std::move(content);
  return m;
}

TEST(ChatTranscriptState, JoinsTheFileKeepingIdsAndReplacingWhatWasBuiltWhileStreaming) {
  ChatTranscriptState shown;
  shown.messages = {message("raw-0", "user", "hello"), message("local-t", "user", "next"),
                    message("stream-t", "assistant", "partial")};
  // The file has the first message, the sent one, and the whole reply, its blocks joined apart.
  shown.joinFromDisk({message("raw-0", "user", "hello"), message("raw-1", "user", "next"),
                      message("raw-2", "assistant", "the whole\n\nreply")});
  ASSERT_EQ(shown.messages.size(), 3u);
  EXPECT_EQ(shown.messages[0].id, "raw-0");
  EXPECT_EQ(shown.messages[1].id, "local-t") << "a matched message keeps the id it is shown with";
  EXPECT_EQ(shown.messages[2].content, "the whole\n\nreply");
  EXPECT_EQ(shown.publishRevision, 1u);

  // An empty file (not written yet) leaves what this desktop built.
  ChatTranscriptState fresh;
  fresh.messages = {message("local-u", "user", "hi"), message("stream-u", "assistant", "…")};
  fresh.joinFromDisk({});
  EXPECT_EQ(fresh.messages.size(), 2u);
}

TEST(ChatRequestsState, ARequestShowsOnceAndStaysAnsweredWhenSeenAgain) {
  ChatRequestsState cards;
  bridge::ApprovalEvent approval{"r1", std::string("bash"), std::nullopt, std::nullopt};
  EXPECT_TRUE(cards.addApproval(approval, "s1"));
  EXPECT_FALSE(cards.addApproval(approval, "s1")) << "the bus repeats what the stream showed";
  cards.resolveApproval("r1");
  EXPECT_FALSE(cards.addApproval(approval, "s1")) << "an answered request stays answered";
  EXPECT_TRUE(cards.approvals().empty());

  bridge::QuestionRequestPayload question;
  question.requestId = "q1";
  EXPECT_TRUE(cards.addQuestion(question, "s1"));
  cards.resolveQuestion("q1");
  EXPECT_FALSE(cards.addQuestion(question, "s1"));
  // The answered ids are bounded: the oldest is forgotten first.
  for (int i = 0; i < ChatBounds::maxResolvedRequestIDCount; ++i)
    cards.resolveApproval("x" + std::to_string(i));
  EXPECT_TRUE(cards.addApproval(approval, "s1"));
}

TEST(ChatSidebarState, WhatTheUserHasSeenIsKeptAcrossRestarts) {
  test::TempDir dir;
  {
    base::PreferencesStore preferences(dir.path() / "preferences.json");
    ChatSidebarState sidebar;
    sidebar.sessionBrowseScope = "all";
    sidebar.partialSessions = {"a", "b"};
    sidebar.finishedUnseen("a");
    EXPECT_EQ(sidebar.partialSessions, std::set<std::string>{"b"});
    EXPECT_FALSE(sidebar.opened("c", false));
    EXPECT_TRUE(sidebar.opened("b", false)) << "opened when its reply has ended: seen";
    sidebar.partialSessions.insert("d");
    EXPECT_FALSE(sidebar.opened("d", true)) << "still running: only partly seen";
    sidebar.save(preferences);
  }
  base::PreferencesStore preferences(dir.path() / "preferences.json");
  ChatSidebarState restored;
  restored.load(preferences);
  EXPECT_EQ(restored.sessionBrowseScope, "all");
  EXPECT_EQ(restored.completedUnreadSessions, std::set<std::string>{"a"});
  EXPECT_EQ(restored.partialSessions, std::set<std::string>{"d"});
}

TEST(ChatStatusState, EngineErrorsLandInTheirOwnPlace) {
  auto raise = [](bridge::DaemonClientError::Case error) {
    ChatStatusState status;
    status.showError(bridge::DaemonClientException(bridge::DaemonClientError{std::move(error)}));
    return status;
  };
  auto quota = raise(bridge::DaemonClientError::QuotaExceeded{{"daily", std::nullopt, {}}});
  EXPECT_TRUE(quota.quotaError && !quota.errorMessage && !quota.creditsError);
  auto annotated = raise(bridge::DaemonClientError::Validation{
      "raw text", std::string("conversation_replies_too_many")});
  EXPECT_EQ(annotated.errorMessage, "Too many annotations — the limit is 100 per message.");
  auto other = raise(bridge::DaemonClientError::Validation{"raw text", std::nullopt});
  const bridge::DaemonClientError plainValidation{
      bridge::DaemonClientError::Validation{"raw text", std::nullopt}};
  EXPECT_EQ(other.errorMessage, plainValidation.description());
  ChatStatusState plain;
  plain.showError(std::runtime_error("socket closed"));
  EXPECT_EQ(plain.errorMessage, "socket closed");
  plain.clearErrors();
  EXPECT_FALSE(plain.errorMessage);
}

TEST(ChatRepliesState, APendingSessionRunsUnderTheIdTheEngineGaveIt) {
  bridge::SessionIdentityRegistry ids;
  ChatRepliesState replies;
  replies.setRunning("pending-1", true, ids);
  replies.streamingTokensBySession["pending-1"] = "t1";
  EXPECT_TRUE(replies.isRunning("pending-1", ids));
  ids.registerPair("pending-1", "s1");
  EXPECT_TRUE(replies.isRunning("s1", ids)) << "found through its pending alias";
  EXPECT_EQ(replies.tokenFor("s1", ids), "t1");
  replies.setRunning("s1", false, ids);
  replies.setRunning("pending-1", false, ids);
  EXPECT_FALSE(replies.isRunning("s1", ids));
  replies.forgetToken("t1");
  EXPECT_FALSE(replies.tokenFor("s1", ids));
}

// ---------------------------------------------------------------- a scripted engine

// A reply body the test writes into while the controller reads it.
struct ScriptedReply {
  explicit ScriptedReply(asio::any_io_executor executor) : wake(executor) {}
  void write(std::string bytes) {
    chunks.push_back(std::move(bytes));
    wake.cancel();
  }
  void event(const std::string& name, const std::string& data) {
    write("event: " + name + "\ndata: " + data + "\n\n");
  }
  void end() {
    ended = true;
    wake.cancel();
  }
  std::deque<std::string> chunks;
  bool ended = false, cancelled = false;
  asio::steady_timer wake;
};

class ScriptedBody final : public bridge::HttpStream {
 public:
  explicit ScriptedBody(std::shared_ptr<ScriptedReply> reply) : reply_(std::move(reply)) {}
  int status() const override { return 200; }
  const std::string& contentType() const override { return type_; }
  asio::awaitable<std::optional<std::string_view>> readSome() override {
    while (true) {
      if (reply_->cancelled) throw bridge::TransportError("cancelled");
      if (!reply_->chunks.empty()) {
        current_ = std::move(reply_->chunks.front());
        reply_->chunks.pop_front();
        co_return std::string_view(current_);
      }
      if (reply_->ended) co_return std::nullopt;
      reply_->wake.expires_at(asio::steady_timer::time_point::max());
      boost::system::error_code ec;
      co_await reply_->wake.async_wait(asio::redirect_error(asio::use_awaitable, ec));
    }
  }
  void setIdleTimeout(std::chrono::steady_clock::duration) override {}
  void cancel() override {
    reply_->cancelled = true;
    reply_->wake.cancel();
  }

 private:
  std::shared_ptr<ScriptedReply> reply_;
  std::string type_ = "text/event-stream";
  std::string current_;
};

class ScriptedEngine final : public ChatEngine {
 public:
  explicit ScriptedEngine(asio::any_io_executor executor) : executor_(std::move(executor)) {}

  Task<std::vector<bridge::DaemonAgent>> agents() override { co_return agentList; }
  Task<std::vector<bridge::DaemonSession>> sessions(bridge::SessionListQuery) override {
    co_return sessionList;
  }
  Task<bridge::ReplyStream> sendMessage(bridge::SendMessageRequest request) override {
    sent.push_back(request);
    if (failNextSend) {
      auto error = std::move(*failNextSend);
      failNextSend.reset();
      throw bridge::DaemonClientException(std::move(error));
    }
    co_return openReply();
  }
  Task<bridge::ReplyStream> inject(bridge::InjectRequest request) override {
    injected.push_back(request);
    throw bridge::TransportError("inject refused");
    co_return openReply();
  }
  Task<void> cancel(bridge::CancelRequest request) override {
    cancelled.push_back(request);
    co_return;
  }
  Task<void> answerApproval(bridge::ApprovalResponseBody body) override {
    approvals.push_back(body);
    co_return;
  }
  Task<void> answerQuestion(bridge::QuestionResponseBody body) override {
    questions.push_back(body);
    co_return;
  }

  std::vector<bridge::DaemonAgent> agentList;
  std::vector<bridge::DaemonSession> sessionList;
  std::optional<bridge::DaemonClientError> failNextSend;
  std::vector<bridge::SendMessageRequest> sent;
  std::vector<bridge::InjectRequest> injected;
  std::vector<bridge::CancelRequest> cancelled;
  std::vector<bridge::ApprovalResponseBody> approvals;
  std::vector<bridge::QuestionResponseBody> questions;
  std::vector<std::shared_ptr<ScriptedReply>> replies;

 private:
  bridge::ReplyStream openReply() {
    replies.push_back(std::make_shared<ScriptedReply>(executor_));
    return bridge::ReplyStream(std::make_unique<ScriptedBody>(replies.back()));
  }
  asio::any_io_executor executor_;
};

class ChatControllerParts : public ::testing::Test {
 protected:
  ChatControllerParts() {
    bridge::DaemonAgent agent;
    agent.name = "main";
    engine.agentList = {agent};
    for (auto* signal :
         {&vm.sidebar().changed(), &vm.transcript().changed(), &vm.replies().changed(),
          &vm.requests().changed(), &vm.queue().changed(), &vm.status().changed()}) {
      const auto index = notifications.size();
      notifications.push_back(0);
      signal->connect([this, index] { ++notifications[index]; });
    }
    vm.start();
    settle();
  }
  enum Part { sidebar, transcript, replies, requests, queue, status };
  void settle() {
    io.restart();
    io.poll();
  }
  // Sends `text` in a new chat and lets the engine name its session; the reply stays open.
  ScriptedReply& startReply(const std::string& text, const std::string& sessionID) {
    vm.submit(text);
    settle();
    auto& reply = *engine.replies.back();
    reply.event("session_started", R"({"session_id":")" + sessionID + R"("})");
    settle();
    return reply;
  }
  void forget() { std::fill(notifications.begin(), notifications.end(), 0); }
  int heard(Part part) const { return notifications[part]; }

  asio::io_context io;
  base::AsioMainExecutor main{io};
  ScriptedEngine engine{io.get_executor()};
  test::TempDir dir;
  bridge::SessionHistory history{dir.path()};
  DaemonChatViewModel vm{main, {&engine, nullptr, &history, nullptr, nullptr}};
  std::vector<int> notifications;
};

TEST_F(ChatControllerParts, EachPartNotifiesOnlyForItsOwnChanges) {
  EXPECT_EQ(vm.sidebar()->selectedAgent, "main");
  EXPECT_GE(heard(sidebar), 1);
  EXPECT_EQ(heard(requests), 0);

  ASSERT_EQ(vm.submit("hello"), DaemonChatViewModel::SubmitOutcome::sent);
  settle();
  ASSERT_EQ(engine.replies.size(), 1u);
  EXPECT_TRUE(engine.sent[0].newSession);
  EXPECT_EQ(engine.sent[0].agent, "main");
  auto& reply = *engine.replies[0];
  reply.event("session_started", R"({"session_id":"s1"})");
  settle();
  EXPECT_EQ(vm.transcript()->currentSessionID, "s1");

  forget();
  reply.event("approval", R"({"request_id":"r1","tool":"bash"})");
  settle();
  EXPECT_EQ(heard(requests), 1);
  EXPECT_EQ(heard(transcript) + heard(sidebar) + heard(queue), 0)
      << "an approval card touches no other part";
  ASSERT_EQ(vm.requests()->approvals().size(), 1u);
  EXPECT_EQ(vm.requests()->approvals()[0].sessionKey, "s1");

  forget();
  vm.answerApproval("r1", DaemonChatViewModel::ApprovalDecision::session);
  settle();
  ASSERT_EQ(engine.approvals.size(), 1u);
  EXPECT_EQ(engine.approvals[0].decision, "session");
  EXPECT_EQ(vm.status()->notice, "bash allowed for this session.");
  EXPECT_EQ(heard(requests), 1);
  EXPECT_EQ(heard(status), 1);
  EXPECT_EQ(heard(transcript), 0);

  reply.event("done", R"({"reply":"hi there"})");
  reply.end();
  settle();
  EXPECT_FALSE(vm.replies()->isRunning("s1", vm.sessionIdentityRegistry()));
  ASSERT_EQ(vm.messages().size(), 2u);
  EXPECT_EQ(vm.messages()[1].content, "hi there");
}

TEST_F(ChatControllerParts, TextTypedDuringAReplyWaitsInTheQueueAndIsSentAfterIt) {
  startReply("first", "s1");
  EXPECT_EQ(vm.submit("second"), DaemonChatViewModel::SubmitOutcome::queued);
  EXPECT_EQ(vm.submit("third"), DaemonChatViewModel::SubmitOutcome::queued);
  // An injection the engine refuses is not lost: it joins the queue.
  EXPECT_EQ(vm.submit("fourth", true), DaemonChatViewModel::SubmitOutcome::injected);
  settle();
  EXPECT_EQ(vm.status()->notice, "Could not inject; the message is queued.");
  ASSERT_EQ(vm.queue()->drafts.items("s1").size(), 3u);
  EXPECT_EQ(engine.sent.size(), 1u);

  engine.replies[0]->event("done", R"({"reply":"ok"})");
  engine.replies[0]->end();
  settle();
  ASSERT_EQ(engine.sent.size(), 2u) << "the queue drains as one message once the reply ended";
  EXPECT_EQ(engine.sent[1].sessionId, "s1");
  EXPECT_NE(engine.sent[1].text.find("second"), std::string::npos);
  EXPECT_NE(engine.sent[1].text.find("fourth"), std::string::npos);
  EXPECT_TRUE(vm.queue()->drafts.items("s1").empty());
}

TEST_F(ChatControllerParts, NothingSaysAReplyStillRunsOnceItEnded) {
  startReply("first", "s1");
  // The engine lists the session while the reply runs, as it does after a new session appears.
  bridge::DaemonSession listed;
  listed.id = "s1";
  listed.title = "first";
  listed.inProgress = true;
  engine.sessionList = {listed};
  vm.reloadSidebar();
  settle();
  ASSERT_TRUE(vm.sidebar()->session("s1")->inProgress.value_or(false));
  EXPECT_EQ(vm.submit("second"), DaemonChatViewModel::SubmitOutcome::queued);
  EXPECT_EQ(vm.status()->notice, "Queued: it will be sent when the reply finishes.");

  engine.replies[0]->event("done", R"({"reply":"ok"})");
  engine.replies[0]->end();
  settle();
  ASSERT_EQ(engine.sent.size(), 2u);
  EXPECT_FALSE(vm.status()->notice) << "the queued message is on its way, no longer waiting";
  engine.replies[1]->event("done", R"({"reply":"ok again"})");
  engine.replies[1]->end();
  settle();
  EXPECT_FALSE(vm.sidebar()->session("s1")->inProgress.value_or(false))
      << "the listing made while the reply ran is stale";
  EXPECT_FALSE(vm.replies()->isRunning("s1", vm.sessionIdentityRegistry()));
}

TEST_F(ChatControllerParts, ARefusedSendShowsTheErrorAndEndsTheReply) {
  engine.failNextSend = bridge::DaemonClientError{bridge::DaemonClientError::CreditsExhausted{{}}};
  vm.submit("hello");
  settle();
  EXPECT_TRUE(vm.status()->creditsError);
  EXPECT_TRUE(vm.replies()->runningPendingSessionIDs.empty());
  ASSERT_EQ(vm.messages().size(), 1u) << "the user's message stays; the empty reply goes";
  EXPECT_EQ(vm.messages()[0].content, "hello");
}

TEST_F(ChatControllerParts, CancelAsksTheEngineAndMarksAReplyThatNeverStarted) {
  startReply("long job", "s9");
  vm.cancel();
  EXPECT_TRUE(vm.replies()->isCancelling);
  settle();
  ASSERT_EQ(engine.cancelled.size(), 1u);
  EXPECT_EQ(engine.cancelled[0].sessionId, "s9");
  EXPECT_TRUE(engine.replies[0]->cancelled) << "our side of the stream is closed too";
  ASSERT_EQ(vm.messages().size(), 2u);
  EXPECT_EQ(vm.messages()[1].content, "[cancelled before response]");
  EXPECT_FALSE(vm.status()->errorMessage) << "a cancelled reply is not an error";
}

}  // namespace
}  // namespace tamsel::desktop
