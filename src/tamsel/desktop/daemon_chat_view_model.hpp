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
    kit::DraftStorage* drafts = nullptr;          // optional
    class PreferencesStore* preferences = nullptr;  // sidebar state; optional
  };

  DaemonChatViewModel(base::MainExecutor executor, Dependencies dependencies);
  ~DaemonChatViewModel();

  // ---- observable state ----
  base::Signal<>& changed() { return changed_; }
  const std::vector<AgentItem>& agents() const { return agents_; }
  const std::optional<std::string>& selectedAgent() const { return selectedAgent_; }
  const std::vector<bridge::DaemonSession>& sessions() const { return sessions_; }
  const std::vector<PendingSession>& pendingSessions() const { return pendingSessions_; }
  const std::optional<std::string>& currentSessionID() const { return currentSessionID_; }
  const std::optional<std::string>& currentSessionTitle() const { return currentSessionTitle_; }
  const std::optional<std::string>& currentPendingSessionLocalID() const { return currentPendingSessionLocalID_; }
  const std::vector<kit::Message>& messages() const { return messages_; }
  bool isLoading() const { return isLoading_; }
  bool isSending() const { return isSending_; }
  bool isCancelling() const { return isCancelling_; }
  bool isStreamActive() const { return isStreamActive_; }
  const StreamingStatus& streamingStatus() const { return streamingStatus_; }
  std::uint64_t transcriptPublishRevision() const { return transcriptPublishRevision_; }
  const std::set<std::string>& runningSessionIDs() const { return runningSessionIDs_; }
  const std::set<std::string>& runningPendingSessionIDs() const { return runningPendingSessionIDs_; }
  std::vector<kit::QueuedDraftMessage> queuedDrafts() const;
  std::vector<ApprovalRow> pendingApprovals() const;
  std::vector<QuestionRow> pendingQuestions() const;
  const std::optional<std::string>& errorMessage() const { return errorMessage_; }
  const std::optional<bridge::QuotaDetails>& quotaError() const { return quotaError_; }
  const std::optional<bridge::CreditsDetails>& creditsError() const { return creditsError_; }
  bool isRetryingAfterRefill() const { return isRetryingAfterRefill_; }
  // The last short message for the user (an approval answer, a queued message, ...).
  const std::optional<std::string>& notice() const { return notice_; }
  bridge::SessionIdentityRegistry& sessionIdentityRegistry() { return registry_; }
  // The key of the visible session for per-session stores: its real id, or its pending id.
  std::optional<std::string> currentSessionKey() const;
  std::size_t cachedSessionCount() const { return cachedSessionWindows_.valuesByKey().size(); }
  const kit::ExternalQueuedMessageStore& externalQueuedMessages() const { return externalQueued_; }

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
  const std::string& sessionBrowseScope() const { return sessionBrowseScope_; }
  void setSessionBrowseScope(std::string scope);
  const std::set<std::string>& partialSessions() const { return partialSessions_; }
  const std::set<std::string>& completedUnreadSessions() const { return completedUnreadSessions_; }
  static constexpr const char* sessionBrowseKey = "dev.tamsel.desktop.daemonChat.sessionBrowse";
  static constexpr const char* partialSessionsKey = "dev.tamsel.desktop.daemonChat.partialSessions";
  static constexpr const char* completedUnreadSessionsKey = "dev.tamsel.desktop.daemonChat.completedUnreadSessions";

 private:
  struct Impl;
  friend struct Impl;
  std::unique_ptr<Impl> impl_;

  // State (see the accessors).
  std::vector<AgentItem> agents_;
  std::optional<std::string> selectedAgent_;
  std::vector<bridge::DaemonSession> sessions_;
  std::vector<PendingSession> pendingSessions_;
  std::optional<std::string> currentSessionID_, currentSessionTitle_, currentPendingSessionLocalID_, currentSessionAgent_;
  std::vector<kit::Message> messages_;
  bool isLoading_ = false;
  std::int64_t totalSessionMessageCount_ = 0;
  std::int64_t optimisticLoadedMessageCount_ = 0;
  std::uint64_t transcriptPublishRevision_ = 0;
  bool isSending_ = false, isCancelling_ = false, isStreamActive_ = false;
  StreamingStatus streamingStatus_;
  std::string deltaBuffer_;
  std::set<std::string> runningSessionIDs_, runningPendingSessionIDs_;
  std::map<std::string, std::string> streamingTokensBySession_;
  kit::StreamCancellationTracker streamCancellationTracker_;
  kit::SessionScopedQueueStore<kit::QueuedDraftMessage> queuedDraftMessageStore_;
  kit::QueuedDraftDrainCoordinator queuedDraftDrainCoordinator_;
  kit::ExternalQueuedMessageStore externalQueued_{Bounds::externalQueuedMessagesPerSession};
  std::map<std::string, ApprovalRow> approvalRows_;  // by request id
  std::map<std::string, QuestionRow> questionRows_;
  kit::SessionScopedValueStore<bool> resolvedRequestIDs_{Bounds::maxResolvedRequestIDCount};
  kit::SessionScopedValueStore<bool> resolvedQuestionRequestIDs_{Bounds::maxResolvedRequestIDCount};
  kit::SessionScopedValueStore<CachedSessionWindow> cachedSessionWindows_{Bounds::maxCachedSessions};
  kit::SessionScopedValueStore<InFlightSessionState> inFlightSessionStates_{Bounds::maxInFlightSessionStates};
  kit::SessionScopedValueStore<bool> recentSSEDoneSessions_{Bounds::maxRecentSSEDoneSessionCount};
  std::set<std::string> handledMessageReceivedIDs_;
  std::uint64_t selectAgentGeneration_ = 0, sessionLoadGeneration_ = 0, sidebarLoadGeneration_ = 0;
  std::optional<std::string> errorMessage_;
  std::optional<bridge::QuotaDetails> quotaError_;
  std::optional<bridge::CreditsDetails> creditsError_;
  bool isRetryingAfterRefill_ = false;
  std::optional<std::string> notice_;
  std::string sessionBrowseScope_ = "agent";
  std::set<std::string> partialSessions_, completedUnreadSessions_;
  bridge::SessionIdentityRegistry registry_;
  base::Signal<> changed_;
};

}  // namespace tamsel::desktop
