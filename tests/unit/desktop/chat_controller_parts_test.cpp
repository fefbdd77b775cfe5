// The chat controller's parts: their own rules, and the controller driving them against a
// scripted engine (no network), with each part notifying only when its own state changed.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <deque>
#include <fstream>

#include "../message_support.hpp"
#include "../test_support.hpp"
#include "tamsel/desktop/chat/message_attachments.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/kit/composer_draft_key.hpp"

namespace tamsel::desktop {
namespace {

namespace asio = boost::asio;

// ---------------------------------------------------------------- the parts on their own

using test::message;

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

// ---------------------------------------------------------------- attached files

kit::Attachment attached(const std::filesystem::path& file, kit::Attachment::Kind kind,
                         std::string mime, std::int64_t statedSize = 1) {
  kit::Attachment a;
  a.id = "att-" + file.filename().string();
  a.kind = kind;
  a.filename = file.filename().string();
  a.mimeType = std::move(mime);
  a.byteSize = statedSize;  // as the composer saw it; the file may have grown since
  a.filePath = file.string();
  return a;
}

class ChatAttachments : public ChatControllerParts {
 protected:
  ChatAttachments() {
    std::ofstream(notesFile) << "release checklist\n";  // 18 bytes
    std::ofstream(imageFile, std::ios::binary) << std::string("\x89PNG\r\n\x1a\n0123", 12);
  }
  test::TempDir files;
  std::filesystem::path notesFile = files.path() / "notes.txt";
  std::filesystem::path imageFile = files.path() / "dot.png";
  kit::Attachment notes() const {
    return attached(notesFile, kit::Attachment::Kind::fileRef, "text/plain");
  }
  kit::Attachment image() const {
    return attached(imageFile, kit::Attachment::Kind::image, "image/png");
  }
  static std::vector<std::string> names(const std::vector<kit::Attachment>& attachments) {
    std::vector<std::string> out;
    for (const auto& a : attachments) out.push_back(a.filename);
    return out;
  }
  static std::vector<std::string> sentPaths(const bridge::SendMessageRequest& request) {
    std::vector<std::string> out;
    for (const auto& a : request.attachments.value_or(std::vector<boost::json::value>{}))
      out.emplace_back(a.at("file_path").as_string());
    return out;
  }
};

TEST_F(ChatAttachments, FilesTravelByPathWithTheirRealSizeAndShowInTheMessageAtOnce) {
  auto pathless = notes();
  pathless.id = "no-path";
  pathless.filePath.reset();
  vm.setComposerAttachments({notes(), image()});
  // Files alone make a message: the text may be blank.
  ASSERT_EQ(vm.submit("  ", false, {notes(), image()}), DaemonChatViewModel::SubmitOutcome::sent);
  settle();
  ASSERT_EQ(engine.sent.size(), 1u);
  const auto& request = engine.sent[0];
  EXPECT_EQ(request.text, "  ");
  ASSERT_TRUE(request.attachments);
  ASSERT_EQ(request.attachments->size(), 2u);
  EXPECT_EQ((*request.attachments)[0], (boost::json::value{{"type", "file_ref"},
                                                           {"file_path", notesFile.string()},
                                                           {"filename", "notes.txt"},
                                                           {"byte_size", 18},
                                                           {"mime_type", "text/plain"}}));
  EXPECT_EQ((*request.attachments)[1], (boost::json::value{{"type", "image"},
                                                           {"file_path", imageFile.string()},
                                                           {"filename", "dot.png"},
                                                           {"byte_size", 12},
                                                           {"mime_type", "image/png"}}));
  ASSERT_FALSE(vm.messages().empty());
  const auto& shown = vm.messages()[0];
  EXPECT_EQ(shown.author, "user");
  ASSERT_EQ(names(shown.attachments), (std::vector<std::string>{"notes.txt", "dot.png"}));
  EXPECT_EQ(shown.attachments[0].byteSize, 18);
  EXPECT_EQ(shown.attachments[1].kind, kit::Attachment::Kind::image);
  EXPECT_TRUE(vm.composerAttachments().empty()) << "a message taken empties the composer";

  // A plain message carries no attachments key at all; one without a path is not sent.
  EXPECT_TRUE(messageAttachmentPayloads({pathless}).empty());
  engine.replies[0]->end();
  settle();
  vm.submit("just text");
  settle();
  ASSERT_EQ(engine.sent.size(), 2u);
  EXPECT_FALSE(engine.sent[1].attachments);
}

TEST_F(ChatAttachments, AFileGoneOrNotAFileRefusesTheMessageAndTheComposerKeepsEverything) {
  vm.setComposerAttachments({notes(), image()});
  std::filesystem::remove(notesFile);
  EXPECT_EQ(vm.submit("look at these", false, vm.composerAttachments()),
            DaemonChatViewModel::SubmitOutcome::refused);
  settle();
  EXPECT_TRUE(engine.sent.empty());
  EXPECT_TRUE(vm.messages().empty()) << "nothing is shown as sent";
  ASSERT_TRUE(vm.errorMessage());
  EXPECT_EQ(*vm.errorMessage(), "Cannot send notes.txt: the file is gone (" + notesFile.string() +
                                    "). Remove it from the message or attach it again.");
  EXPECT_EQ(names(vm.composerAttachments()), (std::vector<std::string>{"notes.txt", "dot.png"}));

  std::filesystem::create_directory(notesFile);
  EXPECT_EQ(vm.submit("again", false, vm.composerAttachments()),
            DaemonChatViewModel::SubmitOutcome::refused);
  EXPECT_NE(vm.errorMessage()->find("it is not a regular file"), std::string::npos);

  // Removing the bad one lets the rest go, and the error goes with the send.
  vm.setComposerAttachments({image()});
  EXPECT_EQ(vm.submit("again", false, vm.composerAttachments()),
            DaemonChatViewModel::SubmitOutcome::sent);
  settle();
  EXPECT_EQ(sentPaths(engine.sent.at(0)), (std::vector<std::string>{imageFile.string()}));
  EXPECT_FALSE(vm.errorMessage());
}

TEST_F(ChatAttachments, QueuedFilesStayWithTheirTextAndAForceSendCarriesThemAll) {
  startReply("first", "s1");
  EXPECT_EQ(vm.submit("with notes", false, {notes()}), DaemonChatViewModel::SubmitOutcome::queued);
  // Files cannot be injected: the message waits in the queue instead of being lost.
  EXPECT_EQ(vm.submit("", true, {image()}), DaemonChatViewModel::SubmitOutcome::queued);
  EXPECT_EQ(vm.status()->notice, "Files cannot join a running reply; the message is queued.");
  EXPECT_TRUE(engine.injected.empty());
  const auto queued = vm.queue()->drafts.items("s1");
  ASSERT_EQ(queued.size(), 2u);
  EXPECT_EQ(names(queued[0].attachments), (std::vector<std::string>{"notes.txt"}));
  EXPECT_EQ(names(queued[1].attachments), (std::vector<std::string>{"dot.png"}));

  const auto third = files.path() / "third.txt";
  std::ofstream(third) << "3";
  vm.setComposerAttachments({attached(third, kit::Attachment::Kind::fileRef, "text/plain")});
  ASSERT_TRUE(vm.forceSendQueued("and this", vm.composerAttachments()));
  EXPECT_TRUE(vm.composerAttachments().empty());
  settle();
  ASSERT_EQ(engine.cancelled.size(), 1u) << "the running reply is stopped first";
  ASSERT_EQ(engine.sent.size(), 2u) << "then one message carries everything that waited";
  EXPECT_EQ(sentPaths(engine.sent[1]),
            (std::vector<std::string>{notesFile.string(), imageFile.string(), third.string()}));
  EXPECT_EQ(engine.sent[1].text, "with notes\n\nand this");
  EXPECT_TRUE(vm.queue()->drafts.items("s1").empty());
  const auto& user = vm.messages()[vm.messages().size() - 2];
  EXPECT_EQ(names(user.attachments),
            (std::vector<std::string>{"notes.txt", "dot.png", "third.txt"}));
}

TEST_F(ChatAttachments, AQueuedFileThatVanishedKeepsTheQueueInsteadOfSendingWithoutIt) {
  startReply("first", "s1");
  vm.submit("with notes", false, {notes()});
  std::filesystem::remove(notesFile);
  EXPECT_FALSE(vm.forceSendQueued("now")) << "a force send is refused the same way";
  EXPECT_EQ(vm.queue()->drafts.items("s1").size(), 1u);
  EXPECT_TRUE(engine.cancelled.empty()) << "the running reply is left alone";

  engine.replies[0]->event("done", R"({"reply":"ok"})");
  engine.replies[0]->end();
  settle();
  EXPECT_EQ(engine.sent.size(), 1u) << "the drain does not send a message missing its file";
  EXPECT_EQ(vm.queue()->drafts.items("s1").size(), 1u);
  ASSERT_TRUE(vm.errorMessage());
  EXPECT_NE(vm.errorMessage()->find("notes.txt"), std::string::npos);
}

TEST_F(ChatAttachments, EachSessionKeepsItsOwnAttachmentsAndAPendingChatHandsThemOn) {
  vm.selectSession("s1");
  vm.setComposerAttachments({image()});
  vm.selectSession("s2");
  EXPECT_TRUE(vm.composerAttachments().empty());
  vm.setComposerAttachments({notes()});
  vm.selectSession("s1");
  EXPECT_EQ(names(vm.composerAttachments()), (std::vector<std::string>{"dot.png"}));
  vm.selectSession("s2");
  EXPECT_EQ(names(vm.composerAttachments()), (std::vector<std::string>{"notes.txt"}));

  // Attached in a chat the engine has not named yet: still there once it has.
  vm.startNewSession();
  EXPECT_TRUE(vm.composerAttachments().empty());
  vm.submit("first");
  settle();
  vm.setComposerAttachments({image()});
  engine.replies.back()->event("session_started", R"({"session_id":"s9"})");
  settle();
  ASSERT_EQ(vm.currentSessionID(), "s9");
  EXPECT_EQ(names(vm.composerAttachments()), (std::vector<std::string>{"dot.png"}));
}

TEST(ComposerAttachments, KeptAcrossRestartsByTheDraftsStoreAndLenientOnDamage) {
  test::TempDir dir;
  auto config = kit::DraftStorage::defaultsIn(dir.path());
  const auto file = dir.path() / "report final.pdf";
  std::ofstream(file) << "%PDF";
  auto report = attached(file, kit::Attachment::Kind::fileRef, "application/pdf", 4);
  auto picture = attached(dir.path() / "p.jpg", kit::Attachment::Kind::image, "image/jpeg", 7);
  picture.thumbnailData.reset();
  {
    asio::io_context io;
    base::AsioMainExecutor main{io};
    ScriptedEngine engine{io.get_executor()};
    bridge::SessionHistory history{dir.path()};
    kit::DraftStorage drafts{config};
    DaemonChatViewModel vm{main, {&engine, nullptr, &history, &drafts, nullptr}};
    vm.selectSession("s1");
    vm.setComposerAttachments({report, picture});
  }
  asio::io_context io;
  base::AsioMainExecutor main{io};
  ScriptedEngine engine{io.get_executor()};
  bridge::SessionHistory history{dir.path()};
  kit::DraftStorage drafts{config};
  DaemonChatViewModel vm{main, {&engine, nullptr, &history, &drafts, nullptr}};
  vm.selectSession("s1");
  EXPECT_EQ(vm.composerAttachments(), (std::vector<kit::Attachment>{report, picture}));
  vm.setComposerAttachments({});
  EXPECT_FALSE(
      drafts.draft(kit::ComposerDraftKey::attachmentsKey(kit::ComposerDraftKey::forSession("s1"))))
      << "no attachments leave no entry behind";

  EXPECT_TRUE(decodeComposerAttachments("not json").empty());
  EXPECT_TRUE(decodeComposerAttachments(R"([{"id":"x","type":"file_ref"}])").empty());
  EXPECT_EQ(decodeComposerAttachments(encodeComposerAttachments({report})),
            (std::vector<kit::Attachment>{report}));
}

}  // namespace
}  // namespace tamsel::desktop
