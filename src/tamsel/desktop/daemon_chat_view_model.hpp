#pragma once
// The controller behind a chat window, free of any UI toolkit: agents and sessions for the
// sidebar, the visible session's transcript, the reply streams of every running session, queued
// and injected messages, approvals and questions, drafts, and the bounded caches that make
// switching sessions instant. Its state is kept in parts (chat/chat_parts.hpp) that a window can
// bind to one by one; this class coordinates them and talks to the engine through ChatEngine.
//
// Lives on the main executor: call every method there; every change of its observable state is
// published there, in order, through changed(). Engine calls and file loads are awaited on it;
// their results carry the generation current when they started and are dropped when it moved on.
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/bridge/session_identity_registry.hpp"
#include "tamsel/desktop/chat/chat_engine.hpp"
#include "tamsel/desktop/chat/chat_parts.hpp"
#include "tamsel/kit/draft_storage.hpp"

namespace tamsel::desktop {

class DaemonChatViewModel {
 public:
  using RunState = desktop::RunState;
  using ToolStatusEntry = kit::ToolEntrySnapshot;
  using UsageSnapshot = desktop::UsageSnapshot;
  using StreamingStatus = desktop::StreamingStatus;
  using InFlightSessionState = desktop::InFlightSessionState;
  using CachedSessionWindow = desktop::CachedSessionWindow;
  using PendingSession = desktop::PendingSession;
  using AgentItem = desktop::AgentItem;
  using ApprovalRow = desktop::ApprovalRow;
  using QuestionRow = desktop::QuestionRow;
  using Bounds = ChatBounds;

  enum class ApprovalDecision { once, session, always, deny };
  // `refused`: an attached file cannot be sent (errorMessage says which); nothing was taken from
  // the composer.
  enum class SubmitOutcome { sent, queued, injected, ignored, refused };

  struct Dependencies {
    ChatEngine* engine = nullptr;
    bridge::EventStreamClient* events = nullptr;  // optional
    bridge::SessionHistory* history = nullptr;
    kit::DraftStorage* drafts = nullptr;            // optional
    base::PreferencesStore* preferences = nullptr;  // sidebar state; optional
  };

  // The dependencies must outlive the view model.
  DaemonChatViewModel(base::MainExecutor& executor, Dependencies dependencies);
  // May be called at any moment on the main executor: running replies, loads and engine calls are
  // cancelled, and nothing of the view model runs afterwards.
  ~DaemonChatViewModel();
  DaemonChatViewModel(const DaemonChatViewModel&) = delete;
  DaemonChatViewModel& operator=(const DaemonChatViewModel&) = delete;

  // ---- observable state ----
  // Any change of any part, once per turn of the main executor.
  base::Signal<>& changed();
  // The parts, for a view that binds to each on its own.
  ChatPartView<ChatSidebarState>& sidebar();
  ChatPartView<ChatTranscriptState>& transcript();
  ChatPartView<ChatRepliesState>& replies();
  ChatPartView<ChatRequestsState>& requests();
  ChatPartView<ChatQueueState>& queue();
  ChatPartView<ChatStatusState>& status();

  // The same state, field by field.
  const std::vector<AgentItem>& agents() const;
  const std::optional<std::string>& selectedAgent() const;
  const std::vector<bridge::DaemonSession>& sessions() const;
  const std::vector<PendingSession>& pendingSessions() const;
  const std::optional<std::string>& currentSessionID() const;
  const std::optional<std::string>& currentSessionTitle() const;
  const std::optional<std::string>& currentPendingSessionLocalID() const;
  const std::vector<kit::Message>& messages() const;
  bool isLoading() const;
  bool isSending() const;
  bool isCancelling() const;
  bool isStreamActive() const;
  const StreamingStatus& streamingStatus() const;
  std::uint64_t transcriptPublishRevision() const;
  const std::set<std::string>& runningSessionIDs() const;
  const std::set<std::string>& runningPendingSessionIDs() const;
  std::vector<kit::QueuedDraftMessage> queuedDrafts() const;
  std::vector<ApprovalRow> pendingApprovals() const;
  std::vector<QuestionRow> pendingQuestions() const;
  const std::optional<std::string>& errorMessage() const;
  const std::optional<bridge::QuotaDetails>& quotaError() const;
  const std::optional<bridge::CreditsDetails>& creditsError() const;
  bool isRetryingAfterRefill() const;
  // The last short message for the user (an approval answer, a queued message, ...).
  const std::optional<std::string>& notice() const;
  bridge::SessionIdentityRegistry& sessionIdentityRegistry();
  // The key of the visible session for per-session stores: its real id, or its pending id.
  std::optional<std::string> currentSessionKey() const;
  std::size_t cachedSessionCount() const;
  const kit::ExternalQueuedMessageStore& externalQueuedMessages() const;

  // ---- operations ----
  // Subscribes to the event bus and loads agents and the sidebar.
  void start();
  void selectAgent(std::string name);
  void reloadSidebar();
  void selectSession(std::string sessionID);
  void startNewSession();
  // Sends the composer's text and attached files (the text may be blank when files are
  // attached); while a reply runs in the session the message is queued, or injected into the
  // running reply when `inject` is true (a message with files is queued: they cannot join a
  // running reply). The files are looked at again first (a stat and an open each): one that is
  // gone or unreadable refuses the whole message. A message taken clears the composer's draft
  // and attachments.
  SubmitOutcome submit(std::string text, bool inject = false,
                       std::vector<kit::Attachment> attachments = {});
  void editQueuedDraft(const std::string& id, std::string text);
  void retractQueuedDraft(const std::string& id);
  // Cancels the running reply and sends every queued draft, `typedText` and `typedAttachments`
  // as one message. False when nothing was sent: nothing waits, or an attached file cannot be
  // sent (errorMessage says which; the queue stays as it was).
  bool forceSendQueued(std::string typedText = {},
                       std::vector<kit::Attachment> typedAttachments = {});
  void cancel();
  void answerApproval(const std::string& requestID, ApprovalDecision decision);
  void answerQuestion(const std::string& requestID, std::vector<bridge::AnswerBody> answers);
  void declineQuestion(const std::string& requestID);
  void refreshCurrentSession();

  // The composer's unsent text for the visible session (kept across restarts).
  std::string composerText() const;
  void setComposerText(std::string text);
  // The files attached in the visible session's composer, kept with its text.
  std::vector<kit::Attachment> composerAttachments() const;
  void setComposerAttachments(std::vector<kit::Attachment> attachments);

  static std::string sessionKeyFor(const kit::Message& message);
  // The fixed texts for the engine's annotation error codes; nothing for other codes.
  static std::optional<std::string> conversationAnnotationErrorText(std::string_view code);

  // Sidebar state kept across restarts.
  const std::string& sessionBrowseScope() const;
  void setSessionBrowseScope(std::string scope);
  const std::set<std::string>& partialSessions() const;
  const std::set<std::string>& completedUnreadSessions() const;
  static constexpr const char* sessionBrowseKey = ChatSidebarState::sessionBrowseKey;
  static constexpr const char* partialSessionsKey = ChatSidebarState::partialSessionsKey;
  static constexpr const char* completedUnreadSessionsKey =
      ChatSidebarState::completedUnreadSessionsKey;

 public:
  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::desktop
