#pragma once
// The chat controller's state, split along its concerns so a window can bind to each part on its
// own: the sidebar, the visible transcript, the reply streams, the approval and question cards,
// the queue, and the status line. Each state is a plain value with the rules that touch only it
// (tested on their own); ChatPart wraps one with its `changed` notification. The controller
// (DaemonChatViewModel) is the only writer and coordinates the parts.
#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tamsel/base/change_publisher.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/daemon_records.hpp"
#include "tamsel/bridge/reply_events.hpp"
#include "tamsel/bridge/session_history.hpp"
#include "tamsel/bridge/session_identity_registry.hpp"
#include "tamsel/kit/cancellation_planning.hpp"
#include "tamsel/kit/composer_queue.hpp"
#include "tamsel/kit/external_queued_messages.hpp"
#include "tamsel/kit/session_stores.hpp"
#include "tamsel/kit/transcript.hpp"

namespace tamsel::desktop {

using kit::Timestamp;

struct ChatBounds {
  static constexpr int maxCachedSessions = 6;
  static constexpr int maxInFlightSessionStates = 10;
  static constexpr int maxResolvedRequestIDCount = 300;
  static constexpr int maxHandledMessageReceivedIDCount = 300;
  static constexpr int maxRecentSSEDoneSessionCount = 300;
  static constexpr int externalQueuedMessagesPerSession = 20;
};

// One part's state and its notification, as an observer sees it: read the state, and hear once
// per turn of the main executor that it changed.
template <class State>
class ChatPartView {
 public:
  ChatPartView(const ChatPartView&) = delete;
  ChatPartView& operator=(const ChatPartView&) = delete;
  base::Signal<>& changed() { return own_.changed(); }
  const State& state() const { return state_; }
  const State* operator->() const { return &state_; }

 protected:
  explicit ChatPartView(base::MainExecutor& executor) : own_(executor) {}
  ~ChatPartView() = default;
  State state_;
  base::ChangePublisher own_;
};

// The controller's side: edit() marks the part changed, which notifies its observers and the
// controller's own (every part's change is also a change of the whole).
template <class State>
class ChatPart : public ChatPartView<State> {
 public:
  ChatPart(base::MainExecutor& executor, base::ChangePublisher& whole)
      : ChatPartView<State>(executor), whole_(whole) {}
  State& edit() {
    this->own_.publish();
    whole_.publish();
    return this->state_;
  }
  void close() { this->own_.close(); }

 private:
  base::ChangePublisher& whole_;
};

// ---- sidebar: agents and sessions, and what the user has seen of them (kept across restarts)

struct AgentItem {
  std::string id, name;
  std::optional<std::string> displayName, avatar;
  bool hasMemory = false, isBuiltin = false, isOverride = false;
  std::int64_t commandCount = 0, skillCount = 0;
};

struct PendingSession {
  std::string id;  // pending local id
  std::optional<std::string> title;
  Timestamp createdAt{};
  std::optional<std::string> cwd;
  std::optional<std::string> projectID;
};

struct ChatSidebarState {
  static constexpr const char* sessionBrowseKey = "dev.tamsel.desktop.daemonChat.sessionBrowse";
  static constexpr const char* partialSessionsKey = "dev.tamsel.desktop.daemonChat.partialSessions";
  static constexpr const char* completedUnreadSessionsKey =
      "dev.tamsel.desktop.daemonChat.completedUnreadSessions";

  std::vector<AgentItem> agents;
  std::optional<std::string> selectedAgent;
  std::vector<bridge::DaemonSession> sessions;
  std::vector<PendingSession> pendingSessions;
  std::string sessionBrowseScope = "agent";
  std::set<std::string> partialSessions, completedUnreadSessions;

  // Takes the engine's agents; the first becomes selected when none is.
  void applyAgents(const std::vector<bridge::DaemonAgent>& list);
  bool knowsAgent(const std::string& name) const;
  const bridge::DaemonSession* session(const std::string& id) const;
  bool hasPending(const std::string& id) const;
  void removePending(const std::string& id);
  // A reply finished while the user looked elsewhere: unread, and no longer only partly seen.
  void finishedUnseen(const std::string& id);
  // Our reply in `id` ended: the engine's "in progress" from a listing made while it ran is
  // stale now.
  void replyEnded(const std::string& id);
  // The user opened the session; true when what is kept changed.
  bool opened(const std::string& id, bool stillRunning);

  void load(const base::PreferencesStore& preferences);
  // Throws when the preferences file cannot be written.
  void save(base::PreferencesStore& preferences) const;
};

// ---- transcript: the visible session and its messages

struct ChatTranscriptState {
  std::optional<std::string> currentSessionID, currentSessionTitle, currentPendingSessionLocalID,
      currentSessionAgent;
  std::vector<kit::Message> messages;
  bool isLoading = false;
  std::int64_t totalSessionMessageCount = 0;
  std::int64_t optimisticLoadedMessageCount = 0;
  // Moves whenever the messages change, so a list view knows to update.
  std::uint64_t publishRevision = 0;

  // The key of the visible session for per-session stores: its real id, or its pending id.
  std::optional<std::string> currentSessionKey() const {
    return currentSessionID ? currentSessionID : currentPendingSessionLocalID;
  }
  // Joins the session file's messages with what is shown: matched messages keep their ids (so
  // list updates stay small), what only this desktop built while streaming gives way to the file
  // once the file has anything, and everything else shown stays.
  void joinFromDisk(std::vector<kit::Message> disk);

  static kit::Message fromSessionMessage(const bridge::SessionMessage& m);
  // Files the agent delivered become attachments of the reply whose tool delivered them (the
  // last reply when no tool entry names it), so they show and open like the user's own.
  static void attachDeliverables(std::vector<kit::Message>& messages,
                                 const std::vector<bridge::ReloadedDeliverable>& delivered);
  // Role and text with white space removed, so a reply built from streamed deltas matches the same
  // reply read back from the file, whose text blocks are joined differently.
  static std::string mergeKey(const std::string& role, const std::string& content);
};

// ---- reply streams: which sessions have a reply running, and the visible one's progress

enum class RunState { softIdle, retrying, active, hardIdle, compacting };

struct UsageSnapshot {
  std::optional<std::int64_t> inputTokens, outputTokens, cacheReadTokens;
  std::optional<double> costUSD;
  std::optional<std::string> model;
  bool operator==(const UsageSnapshot&) const = default;
};

struct StreamingStatus {
  std::vector<kit::ToolEntrySnapshot> toolStatuses;
  std::string activityLine;
  bool isActive = false;
  std::optional<kit::CloudProgress> taskProgress;
  std::optional<UsageSnapshot> usage;
  RunState runState = RunState::softIdle;
  std::optional<std::string> ownerSessionID;
  bool operator==(const StreamingStatus&) const = default;
};

struct ChatRepliesState {
  // Of the visible session.
  bool isSending = false, isCancelling = false, isStreamActive = false;
  StreamingStatus streamingStatus;
  std::string deltaBuffer;
  // Every session with a reply running; pending sessions apart until the engine names them.
  std::set<std::string> runningSessionIDs, runningPendingSessionIDs;
  std::map<std::string, std::string> streamingTokensBySession;
  kit::StreamCancellationTracker cancellations;

  bool isRunning(const std::string& sessionKey, const bridge::SessionIdentityRegistry& ids) const;
  std::optional<std::string> tokenFor(const std::string& sessionKey,
                                      const bridge::SessionIdentityRegistry& ids) const;
  void setRunning(const std::string& sessionKey, bool running,
                  const bridge::SessionIdentityRegistry& ids);
  void forgetToken(const std::string& token);
  // The reply's tool line, shown while it runs.
  void showTool(const kit::ToolEntrySnapshot& entry);
};

// ---- approval and question cards

struct ApprovalRow {
  kit::ApprovalInfo info;
  std::string sessionKey;
};
struct QuestionRow {
  bridge::QuestionRequestPayload request;
  std::string sessionKey;
};

struct ChatRequestsState {
  std::map<std::string, ApprovalRow> approvalRows;  // by request id
  std::map<std::string, QuestionRow> questionRows;
  kit::SessionScopedValueStore<bool> resolvedRequestIDs{ChatBounds::maxResolvedRequestIDCount};
  kit::SessionScopedValueStore<bool> resolvedQuestionRequestIDs{
      ChatBounds::maxResolvedRequestIDCount};

  // A request seen again (the bus repeats what a stream showed, or it was answered) adds nothing;
  // true when a card was added.
  bool addApproval(const bridge::ApprovalEvent& event, const std::string& sessionKey);
  // Whether a request is shown or was answered (adding it again would change nothing).
  bool knowsApproval(const std::string& requestID) const;
  bool knowsQuestion(const std::string& requestID) const;
  bool addQuestion(const bridge::QuestionRequestPayload& request, const std::string& sessionKey);
  void resolveApproval(const std::string& requestID);
  void resolveQuestion(const std::string& requestID);
  std::vector<ApprovalRow> approvals() const;
  std::vector<QuestionRow> questions() const;
};

// ---- the queue: messages typed while a reply runs, and those queued by other clients

struct ChatQueueState {
  kit::SessionScopedQueueStore<kit::QueuedDraftMessage> drafts;
  kit::QueuedDraftDrainCoordinator drain;
  kit::ExternalQueuedMessageStore external{ChatBounds::externalQueuedMessagesPerSession};

  void enqueue(const std::string& sessionKey, std::string text,
               std::vector<kit::Attachment> attachments = {});
  // Moves a pending session's queue to the id the engine gave it.
  void rekey(const std::string& from, const std::string& to);
  void edit(const std::string& sessionKey, const std::string& id, std::string text);
  void retract(const std::string& sessionKey, const std::string& id);
};

// ---- status: the last error and the last short notice

struct ChatStatusState {
  std::optional<std::string> errorMessage;
  std::optional<bridge::QuotaDetails> quotaError;
  std::optional<bridge::CreditsDetails> creditsError;
  bool isRetryingAfterRefill = false;
  // The last short message for the user (an approval answer, a queued message, ...).
  std::optional<std::string> notice;

  // Quota and credit errors apart; validation errors with an annotation code by their fixed text.
  void showError(const std::exception& e);
  void clearErrors();

  // The fixed texts for the engine's annotation error codes; nothing for other codes.
  static std::optional<std::string> conversationAnnotationErrorText(std::string_view code);
};

// ---- session caches: what makes switching back instant (not observable on their own)

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

struct SessionCaches {
  kit::SessionScopedValueStore<CachedSessionWindow> windows{ChatBounds::maxCachedSessions};
  kit::SessionScopedValueStore<InFlightSessionState> inFlight{ChatBounds::maxInFlightSessionStates};
  std::map<std::string, std::optional<bridge::SessionFileFingerprint>> fingerprints;
};

}  // namespace tamsel::desktop
