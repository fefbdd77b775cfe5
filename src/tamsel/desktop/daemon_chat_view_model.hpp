#pragma once
// The controller behind a chat window, free of any UI toolkit: agents and sessions for the
// sidebar, the visible session's transcript, the reply streams of every running session, queued
// and injected messages, approvals and questions, drafts, and the bounded caches that make
// switching sessions instant.
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
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/event_stream_client.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/bridge/session_identity_registry.hpp"
#include "tamsel/kit/cancellation_planning.hpp"
#include "tamsel/kit/composer_queue.hpp"
#include "tamsel/kit/draft_storage.hpp"
#include "tamsel/kit/external_queued_messages.hpp"
#include "tamsel/kit/session_stores.hpp"
#include "tamsel/kit/transcript.hpp"

namespace tamsel::desktop {

using kit::Timestamp;

class DaemonChatViewModel {
 public:
  enum class RunState { softIdle, retrying, active, hardIdle, compacting };

  using ToolStatusEntry = kit::ToolEntrySnapshot;

  struct UsageSnapshot {
    std::optional<std::int64_t> inputTokens, outputTokens, cacheReadTokens;
    std::optional<double> costUSD;
    std::optional<std::string> model;
    bool operator==(const UsageSnapshot&) const = default;
  };

  struct StreamingStatus {
    std::vector<ToolStatusEntry> toolStatuses;
    std::string activityLine;
    bool isActive = false;
    std::optional<kit::CloudProgress> taskProgress;
    std::optional<UsageSnapshot> usage;
    RunState runState = RunState::softIdle;
    std::optional<std::string> ownerSessionID;
    bool operator==(const StreamingStatus&) const = default;
  };

  struct InFlightSessionState {
    std::vector<kit::Message> messages;
    StreamingStatus streamingStatus;
    std::string deltaBuffer;
    bool isSending = false;
    bool isStreamActive = false;
  };

  struct CachedSessionWindow {
    std::vector<kit::Message> messages;
    std::int64_t totalCount = 0;
    std::vector<bridge::ReloadedDeliverable> deliverables;
    std::optional<bridge::SessionFileFingerprint> fingerprint;
    std::int64_t optimisticCount = 0;
  };

  struct PendingSession {
    std::string id;  // pending local id
    std::optional<std::string> title;
    Timestamp createdAt{};
    std::optional<std::string> cwd;
    std::optional<std::string> projectID;
  };

  struct AgentItem {
    std::string id, name;
    std::optional<std::string> displayName, avatar;
    bool hasMemory = false, isBuiltin = false, isOverride = false;
    std::int64_t commandCount = 0, skillCount = 0;
  };

  // A request row shown in the transcript.
  struct ApprovalRow {
    kit::ApprovalInfo info;
    std::string sessionKey;
  };
  struct QuestionRow {
    bridge::QuestionRequestPayload request;
    std::string sessionKey;
  };

  enum class ApprovalDecision { once, session, always, deny };
  enum class SubmitOutcome { sent, queued, injected, ignored };

  struct Bounds {
    static constexpr int maxCachedSessions = 6;
    static constexpr int maxInFlightSessionStates = 10;
    static constexpr int maxResolvedRequestIDCount = 300;
    static constexpr int maxHandledMessageReceivedIDCount = 300;
    static constexpr int maxRecentSSEDoneSessionCount = 300;
    static constexpr int maxScheduleRunAgentNotifiedCount = 256;
    static constexpr int shareTaskStatesCap = 20;
    static constexpr int backgroundTaskScopesCap = 40;
    static constexpr int backgroundStatusesCap = 20;
    static constexpr int externalQueuedMessagesPerSession = 20;
    static constexpr int promptSuggestionsPerSession = 50;
  };

  struct Dependencies {
    bridge::DaemonClient* client = nullptr;
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
  base::Signal<>& changed();
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
  // Sends the composer's text; while a reply runs in the session the text is queued, or injected
  // into the running reply when `inject` is true.
  SubmitOutcome submit(std::string text, bool inject = false);
  void editQueuedDraft(const std::string& id, std::string text);
  void retractQueuedDraft(const std::string& id);
  // Cancels the running reply and sends every queued draft and `typedText` as one message.
  void forceSendQueued(std::string typedText = {});
  void cancel();
  void answerApproval(const std::string& requestID, ApprovalDecision decision);
  void answerQuestion(const std::string& requestID, std::vector<bridge::AnswerBody> answers);
  void declineQuestion(const std::string& requestID);
  void refreshCurrentSession();

  // The composer's unsent text for the visible session (kept across restarts).
  std::string composerText() const;
  void setComposerText(std::string text);

  static std::string sessionKeyFor(const kit::Message& message);
  // The fixed texts for the engine's annotation error codes; nothing for other codes.
  static std::optional<std::string> conversationAnnotationErrorText(std::string_view code);

  // Sidebar state kept across restarts.
  const std::string& sessionBrowseScope() const;
  void setSessionBrowseScope(std::string scope);
  const std::set<std::string>& partialSessions() const;
  const std::set<std::string>& completedUnreadSessions() const;
  static constexpr const char* sessionBrowseKey = "dev.tamsel.desktop.daemonChat.sessionBrowse";
  static constexpr const char* partialSessionsKey = "dev.tamsel.desktop.daemonChat.partialSessions";
  static constexpr const char* completedUnreadSessionsKey =
      "dev.tamsel.desktop.daemonChat.completedUnreadSessions";

 public:
  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::desktop
