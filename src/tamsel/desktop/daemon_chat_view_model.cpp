#include "tamsel/desktop/daemon_chat_view_model.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "tamsel/base/change_publisher.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/task_scope.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/kit/composer_draft_key.hpp"
#include "tamsel/kit/desktop_local_echo_suppressor.hpp"
#include "tamsel/kit/injected_message_prefix.hpp"
#include "tamsel/kit/transcript_merge_planner.hpp"

namespace tamsel::desktop {

namespace asio = boost::asio;
using bridge::SSEEvent;
using VM = DaemonChatViewModel;

namespace {
constexpr const char* kSource = "DaemonChatViewModel";
constexpr auto kDeltaPublishInterval = std::chrono::milliseconds(50);
constexpr const char* kCancelledBeforeResponse = "[cancelled before response]";

Timestamp now() { return base::nowTimestamp(); }

// Merge key: role and text with white space removed, so a reply built from streamed deltas
// matches the same reply read back from the file, whose text blocks are joined differently.
std::string mergeKey(const std::string& role, const std::string& content) {
  std::string key = role + ":";
  key.reserve(role.size() + 1 + content.size());
  for (char c : content)
    if (c != ' ' && c != '\n' && c != '\t' && c != '\r') key.push_back(c);
  return key;
}

kit::Message fromSessionMessage(const bridge::SessionMessage& m) {
  kit::Message message;
  message.id = "raw-" + std::to_string(m.rawIndex);
  message.author = m.role;
  message.content = m.content;
  message.timestamp = m.timestamp;
  message.attachments = m.attachments;
  message.conversationAnnotations = m.conversationAnnotations;
  message.toolBlock = m.toolBlock;
  return message;
}

const char* decisionText(VM::ApprovalDecision decision) {
  switch (decision) {
    case VM::ApprovalDecision::once:
      return "once";
    case VM::ApprovalDecision::session:
      return "session";
    case VM::ApprovalDecision::always:
      return "always";
    case VM::ApprovalDecision::deny:
      return "deny";
  }
  return "deny";
}
}  // namespace

struct DaemonChatViewModel::Impl : std::enable_shared_from_this<DaemonChatViewModel::Impl> {
  // Cleared when the view model goes; nothing reaches it afterwards.
  VM* owner;
  base::MainExecutor& executor;
  Dependencies deps;
  // Streamed text waiting for the next publication, per stream token.
  std::map<std::string, std::string> pendingDeltas;
  std::unique_ptr<asio::steady_timer> deltaTimer;
  bool deltaFlushScheduled = false;
  std::optional<bridge::EventStreamClient::Subscription> subscription;
  // Running streams: token -> the stream (to cancel it) and the key of its session.
  std::map<std::string, bridge::ReplyStream*> streams;
  std::map<std::string, std::string> streamSession;
  std::map<std::string, std::optional<bridge::SessionFileFingerprint>> fingerprints;
  base::ChangePublisher publisher;
  base::TaskScope tasks;

  // The observable state (see the accessors).
  std::vector<AgentItem> agents_;
  std::optional<std::string> selectedAgent_;
  std::vector<bridge::DaemonSession> sessions_;
  std::vector<PendingSession> pendingSessions_;
  std::optional<std::string> currentSessionID_, currentSessionTitle_, currentPendingSessionLocalID_,
      currentSessionAgent_;
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
  kit::SessionScopedValueStore<CachedSessionWindow> cachedSessionWindows_{
      Bounds::maxCachedSessions};
  kit::SessionScopedValueStore<InFlightSessionState> inFlightSessionStates_{
      Bounds::maxInFlightSessionStates};
  kit::SessionScopedValueStore<bool> recentSSEDoneSessions_{Bounds::maxRecentSSEDoneSessionCount};
  kit::SessionScopedValueStore<bool> handledMessageReceivedIDs_{
      Bounds::maxHandledMessageReceivedIDCount};
  std::uint64_t selectAgentGeneration_ = 0, sessionLoadGeneration_ = 0, sidebarLoadGeneration_ = 0;
  std::optional<std::string> errorMessage_;
  std::optional<bridge::QuotaDetails> quotaError_;
  std::optional<bridge::CreditsDetails> creditsError_;
  bool isRetryingAfterRefill_ = false;
  std::optional<std::string> notice_;
  std::string sessionBrowseScope_ = "agent";
  std::set<std::string> partialSessions_, completedUnreadSessions_;
  bridge::SessionIdentityRegistry registry_;

  Impl(VM* owner, base::MainExecutor& e, Dependencies d)
      : owner(owner), executor(e), deps(std::move(d)), publisher(e), tasks(e.ioExecutor()) {
    deltaTimer = std::make_unique<asio::steady_timer>(executor.ioExecutor());
  }

  bool closed() const { return tasks.isClosed(); }

  // Ends everything in flight; nothing outside the Impl is reached afterwards.
  void close() {
    owner = nullptr;
    for (auto& [token, stream] : streams) stream->cancel();
    if (subscription && deps.events) deps.events->unsubscribe(subscription->id);
    subscription.reset();
    deltaTimer->cancel();
    publisher.close();
    tasks.close();
  }

  std::optional<std::string> currentSessionKey() const {
    if (currentSessionID_) return currentSessionID_;
    return currentPendingSessionLocalID_;
  }
  void refreshOwner() {
    if (owner) owner->refreshCurrentSession();
  }
  void reloadOwnerSidebar() {
    if (owner) owner->reloadSidebar();
  }

  void publish() { publisher.publish(); }

  // Every task holds the Impl until it ends, so a task resumed after the view model went still
  // finds its state; the scope's cancellation ends it at its next suspension.
  void spawn(asio::awaitable<void> work) {
    tasks.spawn(
        [](std::shared_ptr<Impl> keep, asio::awaitable<void> work) -> asio::awaitable<void> {
          co_await std::move(work);
          (void)keep;
        }(shared_from_this(), std::move(work)),
        kSource);
  }

  void saveSidebarState() {
    if (!deps.preferences) return;
    auto array = [](const std::set<std::string>& ids) {
      boost::json::array out;
      for (const auto& id : ids) out.emplace_back(id);
      return boost::json::value(std::move(out));
    };
    try {
      deps.preferences->set(sessionBrowseKey, boost::json::value(sessionBrowseScope_));
      deps.preferences->set(partialSessionsKey, array(partialSessions_));
      deps.preferences->set(completedUnreadSessionsKey, array(completedUnreadSessions_));
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not keep the sidebar state: {}", e.what());
    }
  }

  void loadSidebarState() {
    if (!deps.preferences) return;
    if (auto scope = deps.preferences->value(sessionBrowseKey); scope && scope->is_string())
      sessionBrowseScope_ = std::string(scope->get_string());
    auto readSet = [&](const char* key, std::set<std::string>& into) {
      if (auto value = deps.preferences->value(key); value && value->is_array())
        for (const auto& item : value->get_array())
          if (item.is_string()) into.insert(std::string(item.get_string()));
    };
    readSet(partialSessionsKey, partialSessions_);
    readSet(completedUnreadSessionsKey, completedUnreadSessions_);
  }

  void showError(const std::exception& e) {
    if (const auto* client = dynamic_cast<const bridge::DaemonClientException*>(&e)) {
      const auto& error = client->error();
      if (const auto* quota = std::get_if<bridge::DaemonClientError::QuotaExceeded>(&error.value)) {
        quotaError_ = quota->details;
      } else if (const auto* credits =
                     std::get_if<bridge::DaemonClientError::CreditsExhausted>(&error.value)) {
        creditsError_ = credits->details;
      } else if (const auto* validation =
                     std::get_if<bridge::DaemonClientError::Validation>(&error.value);
                 validation && validation->code) {
        errorMessage_ =
            conversationAnnotationErrorText(*validation->code).value_or(validation->message);
      } else {
        errorMessage_ = error.description();
      }
    } else {
      errorMessage_ = e.what();
    }
    publish();
  }

  std::string keyOf(const std::string& id) const { return registry_.realID(id); }

  bool isVisible(const std::string& sessionKey) const {
    auto current = currentSessionKey();
    return current && (keyOf(*current) == keyOf(sessionKey));
  }

  // The transcript of a session: the visible one, or the kept state of one in the background.
  template <class F>
  void withTranscript(const std::string& sessionKey, F&& change) {
    if (isVisible(sessionKey)) {
      change(messages_);
      ++transcriptPublishRevision_;
      publish();
      return;
    }
    auto state = inFlightSessionStates_.value(keyOf(sessionKey)).value_or(InFlightSessionState{});
    change(state.messages);
    inFlightSessionStates_.set(std::move(state), keyOf(sessionKey));
  }

  static kit::Message* find(std::vector<kit::Message>& messages, const std::string& id) {
    for (auto& m : messages)
      if (m.id == id) return &m;
    return nullptr;
  }

  void flushDeltas() {
    deltaFlushScheduled = false;
    for (auto& [token, text] : pendingDeltas) {
      if (text.empty()) continue;
      auto session = streamSession.find(token);
      if (session == streamSession.end()) continue;
      // Captured by name: clang before 16 cannot capture structured bindings.
      withTranscript(session->second,
                     [&token = token, &text = text](std::vector<kit::Message>& messages) {
                       if (auto* reply = find(messages, "stream-" + token)) reply->content += text;
                     });
      text.clear();
    }
    deltaBuffer_.clear();
    publish();
  }

  void scheduleDeltaFlush() {
    if (deltaFlushScheduled) return;
    deltaFlushScheduled = true;
    deltaTimer->expires_after(kDeltaPublishInterval);
    deltaTimer->async_wait([weak = weak_from_this()](const boost::system::error_code& ec) {
      const auto self = weak.lock();
      if (!ec && self && !self->closed()) self->flushDeltas();
    });
  }

  void setRunning(const std::string& sessionKey, bool running) {
    const bool pending =
        base::startsWith(sessionKey, "pending-") && registry_.realID(sessionKey) == sessionKey;
    auto& set = pending ? runningPendingSessionIDs_ : runningSessionIDs_;
    if (running)
      set.insert(sessionKey);
    else {
      runningPendingSessionIDs_.erase(sessionKey);
      runningSessionIDs_.erase(keyOf(sessionKey));
    }
    if (isVisible(sessionKey)) isStreamActive_ = isSending_ = running;
    publish();
  }

  bool isRunning(const std::string& sessionKey) const {
    const std::string real = keyOf(sessionKey);
    return runningSessionIDs_.count(real) || runningPendingSessionIDs_.count(sessionKey) ||
           runningPendingSessionIDs_.count(registry_.pendingID(real));
  }

  std::optional<std::string> tokenFor(const std::string& sessionKey) const {
    for (const auto& key :
         {sessionKey, keyOf(sessionKey), registry_.pendingID(keyOf(sessionKey))}) {
      if (auto it = streamingTokensBySession_.find(key); it != streamingTokensBySession_.end())
        return it->second;
    }
    return std::nullopt;
  }

  void addApproval(const bridge::ApprovalEvent& event, const std::string& sessionKey) {
    // An answered request that shows up again (from the bus after the stream) stays answered.
    if (resolvedRequestIDs_.value(event.requestId) || approvalRows_.count(event.requestId)) return;
    kit::ApprovalInfo info;
    info.requestID = event.requestId;
    info.tool = event.tool.value_or("");
    if (event.args) info.args = base::json::serialize(*event.args);
    if (event.flags) info.flags = *event.flags;
    approvalRows_[event.requestId] = ApprovalRow{std::move(info), sessionKey};
    publish();
  }

  void addQuestion(const bridge::QuestionRequestPayload& request, const std::string& sessionKey) {
    if (resolvedQuestionRequestIDs_.value(request.requestId) ||
        questionRows_.count(request.requestId))
      return;
    questionRows_[request.requestId] = QuestionRow{request, sessionKey};
    publish();
  }

  void resolveApproval(const std::string& requestID) {
    approvalRows_.erase(requestID);
    resolvedRequestIDs_.set(true, requestID);
    publish();
  }

  void resolveQuestion(const std::string& requestID) {
    questionRows_.erase(requestID);
    resolvedQuestionRequestIDs_.set(true, requestID);
    publish();
  }

  void handleToolEvent(const std::string& token, const std::string& sessionKey,
                       const bridge::ToolEvent& tool) {
    kit::ToolEntrySnapshot entry;
    entry.id = tool.toolUseId.value_or(tool.tool);
    entry.name = tool.tool;
    const std::string status = tool.status.value_or("running");
    entry.status = status == "denied" ? kit::ToolRunStatus::denied
                   : (status == "done" || status == "completed" || status == "error")
                       ? kit::ToolRunStatus::completed
                       : kit::ToolRunStatus::running;
    entry.elapsed = tool.elapsed;
    entry.isError = tool.isError.value_or(false);
    if (tool.args) {
      std::map<std::string, std::string> strings;
      if (const auto* object = tool.args->if_object())
        for (const auto& member : *object)
          if (member.value().is_string())
            strings.emplace(std::string(member.key()), std::string(member.value().get_string()));
      entry.args = bridge::SessionHistory::argsSummary(tool.tool, strings);
    }
    if (tool.preview) entry.preview = bridge::SessionHistory::normalisePreview(*tool.preview);
    entry.toolUseId = tool.toolUseId;
    withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
      auto* reply = find(messages, "stream-" + token);
      if (!reply) return;
      if (!reply->toolBlock)
        reply->toolBlock = kit::ToolBlockSnapshot{"stream-toolblock-" + token, {}, now(), {}, {}};
      for (auto& existing : reply->toolBlock->tools) {
        if (existing.id == entry.id) {
          existing = entry;
          return;
        }
      }
      reply->toolBlock->tools.push_back(entry);
    });
    if (isVisible(sessionKey)) {
      auto& statuses = streamingStatus_.toolStatuses;
      auto it = std::find_if(statuses.begin(), statuses.end(),
                             [&](const auto& s) { return s.id == entry.id; });
      if (it == statuses.end())
        statuses.push_back(entry);
      else
        *it = entry;
      streamingStatus_.activityLine = entry.name + (entry.args ? " " + *entry.args : std::string());
      publish();
    }
  }

  // Reads a reply stream to its end, keeping the transcript of its session current.
  asio::awaitable<void> runStream(std::string token, std::string sessionKey,
                                  bridge::ReplyStream stream) {
    streams[token] = &stream;
    streamSession[token] = sessionKey;
    bool sawText = false;
    try {
      while (auto event = co_await stream.next()) {
        if (closed()) co_return;
        sessionKey = streamSession[token];
        const auto ownership = kit::StreamOwnershipPlanner::decide(
            token, keyOf(sessionKey), streamingTokensBySession_,
            currentSessionKey() ? std::optional(keyOf(*currentSessionKey())) : std::nullopt);
        if (ownership == kit::StreamOwnership::drop && !event->get<SSEEvent::SessionStarted>())
          continue;
        if (const auto* started = event->get<SSEEvent::SessionStarted>()) {
          const std::string& real = started->value.sessionId;
          if (real != sessionKey) {
            registry_.registerPair(sessionKey, real);
            streamingTokensBySession_[real] = token;
            if (runningPendingSessionIDs_.erase(sessionKey)) runningSessionIDs_.insert(real);
            if (currentPendingSessionLocalID_ == sessionKey) currentSessionID_ = real;
            if (deps.drafts)
              deps.drafts->rekey(kit::ComposerDraftKey::forPendingSession(sessionKey),
                                 kit::ComposerDraftKey::forSession(real));
            auto queued = queuedDraftMessageStore_.items(sessionKey);
            if (!queued.empty()) {
              queuedDraftMessageStore_.remove(sessionKey);
              queuedDraftMessageStore_.replace(real, std::move(queued));
            }
            publish();
          }
        } else if (const auto* delta = event->get<SSEEvent::Delta>()) {
          pendingDeltas[token] += delta->value.text;
          if (isVisible(sessionKey)) deltaBuffer_ += delta->value.text;
          sawText = true;
          scheduleDeltaFlush();
        } else if (const auto* text = event->get<SSEEvent::AssistantText>()) {
          if (!sawText) {
            flushDeltas();
            withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
              if (auto* reply = find(messages, "stream-" + token)) {
                if (!reply->content.empty()) reply->content += "\n\n";
                reply->content += text->value.text;
              }
            });
          }
        } else if (const auto* tool = event->get<SSEEvent::Tool>()) {
          flushDeltas();
          handleToolEvent(token, sessionKey, tool->value);
        } else if (const auto* approval = event->get<SSEEvent::Approval>()) {
          addApproval(approval->value, sessionKey);
        } else if (const auto* question = event->get<SSEEvent::Question>()) {
          addQuestion(question->value, sessionKey);
        } else if (const auto* error = event->get<SSEEvent::Error>()) {
          errorMessage_ = error->value.error;
          publish();
        } else if (const auto* failure = event->get<SSEEvent::Failure>()) {
          showError(bridge::DaemonClientException(failure->value.error));
        } else if (const auto* done = event->get<SSEEvent::Done>()) {
          flushDeltas();
          if (done->value.reply && !done->value.reply->empty()) {
            withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
              if (auto* reply = find(messages, "stream-" + token); reply && reply->content.empty())
                reply->content = *done->value.reply;
            });
          }
        } else if (const auto* committed = event->get<SSEEvent::InjectedCommitted>()) {
          notice_ = "Your message was taken into the running reply.";
          (void)committed;
          publish();
        }
      }
      if (stream.endedPrematurely() && !streamCancellationTrackerHas(token)) {
        errorMessage_ = "The reply ended before it was complete";
      }
    } catch (const std::exception& e) {
      if (closed()) co_return;
      if (!streamCancellationTrackerHas(token)) showError(e);
    }
    if (closed()) co_return;
    flushDeltas();
    const bool cancelled = streamCancellationTrackerHas(token);
    finishStream(token, sessionKey, cancelled);
  }

  bool streamCancellationTrackerHas(const std::string& token) const {
    return streamCancellationTracker_.isCancelling(token);
  }

  void finishStream(const std::string& token, const std::string& sessionKey, bool cancelled) {
    streams.erase(token);
    streamSession.erase(token);
    pendingDeltas.erase(token);
    for (auto it = streamingTokensBySession_.begin(); it != streamingTokensBySession_.end();)
      it = it->second == token ? streamingTokensBySession_.erase(it) : std::next(it);
    streamCancellationTracker_.clear(token);
    withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
      auto* reply = find(messages, "stream-" + token);
      if (reply && reply->content.empty() && !reply->toolBlock) {
        if (cancelled)
          reply->content = kCancelledBeforeResponse;
        else
          std::erase_if(messages, [&](const kit::Message& m) { return m.id == "stream-" + token; });
      }
    });
    setRunning(sessionKey, false);
    if (isVisible(sessionKey)) {
      isCancelling_ = false;
      streamingStatus_ = StreamingStatus{};
    }
    recentSSEDoneSessions_.set(true, keyOf(sessionKey));
    if (!isVisible(sessionKey) && !cancelled) {
      // Finished while the user looked elsewhere: unread, and no longer only partly seen.
      completedUnreadSessions_.insert(keyOf(sessionKey));
      partialSessions_.erase(keyOf(sessionKey));
      saveSidebarState();
    }
    queuedDraftDrainCoordinator_.markReady(keyOf(sessionKey));
    publish();
    drainQueue(keyOf(sessionKey));
    if (isVisible(sessionKey)) refreshOwner();
  }

  void drainQueue(const std::string& sessionKey) {
    auto queued = queuedDraftMessageStore_.items(sessionKey);
    const auto action =
        queuedDraftDrainCoordinator_.action(sessionKey, !queued.empty(), isRunning(sessionKey));
    if (action != kit::QueuedDraftDrainAction::drainNow) return;
    auto joined = kit::QueuedDraftJoinPlanner::join(queued);
    queuedDraftMessageStore_.remove(sessionKey);
    if (joined) startSend(sessionKey, joined->text);
    publish();
  }

  // Appends the optimistic user message and opens the reply stream.
  void startSend(const std::string& sessionKey, std::string text) {
    const std::string token = base::newUUIDString();
    const bool pending =
        base::startsWith(sessionKey, "pending-") && keyOf(sessionKey) == sessionKey;
    withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
      kit::Message user;
      user.id = "local-" + token;
      user.author = "user";
      user.content = text;
      user.timestamp = now();
      messages.push_back(std::move(user));
      kit::Message reply;
      reply.id = "stream-" + token;
      reply.author = "assistant";
      reply.timestamp = now();
      messages.push_back(std::move(reply));
    });
    if (isVisible(sessionKey)) {
      ++optimisticLoadedMessageCount_;
      streamingStatus_ = StreamingStatus{};
      streamingStatus_.isActive = true;
      streamingStatus_.runState = RunState::active;
      streamingStatus_.ownerSessionID = keyOf(sessionKey);
    }
    streamingTokensBySession_[keyOf(sessionKey)] = token;
    errorMessage_.reset();
    quotaError_.reset();
    creditsError_.reset();
    setRunning(sessionKey, true);

    bridge::SendMessageRequest request;
    request.text = std::move(text);
    request.agent = currentSessionAgent_ ? currentSessionAgent_ : selectedAgent_;
    if (pending)
      request.newSession = true;
    else
      request.sessionId = keyOf(sessionKey);
    request.clientMessageId = token;
    spawn([](Impl* self, std::string token, std::string sessionKey,
             bridge::SendMessageRequest request) -> asio::awaitable<void> {
      std::optional<bridge::ReplyStream> stream;
      try {
        stream.emplace(co_await self->deps.client->sendMessage(request));
      } catch (const std::exception& e) {
        if (self->closed()) co_return;
        self->showError(e);
        self->finishStream(token, sessionKey, false);
        co_return;
      }
      co_await self->runStream(token, sessionKey, std::move(*stream));
    }(this, token, sessionKey, std::move(request)));
  }

  // Reloads a session's file and joins it with what the transcript already shows.
  asio::awaitable<void> reload(std::string sessionID, std::uint64_t generation) {
    if (!deps.history) co_return;
    const auto agent = currentSessionAgent_;
    const auto lastSeen = fingerprints[sessionID];
    auto result = co_await deps.history->load(sessionID, agent, lastSeen);
    if (closed() || generation != sessionLoadGeneration_) co_return;  // a newer load has started
    if (!result.found && agent) {
      // The default agent's sessions live in the shared folder, not under the agent's name.
      result = co_await deps.history->load(sessionID, std::nullopt, lastSeen);
      if (closed() || generation != sessionLoadGeneration_) co_return;
    }
    isLoading_ = false;
    if (result.unchanged || !result.found) {
      publish();
      co_return;
    }
    fingerprints[sessionID] = result.fingerprint;
    if (result.title) currentSessionTitle_ = result.title;
    std::vector<kit::Message> disk;
    for (const auto& m : result.messages) disk.push_back(fromSessionMessage(m));
    // While a reply still streams here, its messages stay as they are; join the rest.
    if (isRunning(sessionID)) {
      publish();
      co_return;
    }
    std::vector<std::string> stateKeys, diskKeys;
    for (const auto& m : messages_) stateKeys.push_back(mergeKey(m.author, m.content));
    for (const auto& m : disk) diskKeys.push_back(mergeKey(m.author, m.content));
    std::vector<kit::Message> merged;
    for (const auto& op : kit::TranscriptMergePlanner::plan(stateKeys, diskKeys)) {
      using Kind = kit::TranscriptMergePlanner::MergeOp::Kind;
      if (op.kind == Kind::matched) {
        kit::Message m = disk[op.diskIndex];
        m.id = messages_[op.stateIndex].id;  // stable ids keep list updates small
        merged.push_back(std::move(m));
      } else if (op.kind == Kind::takeDisk) {
        merged.push_back(disk[op.diskIndex]);
      } else {
        const auto& kept = messages_[op.stateIndex];
        // Messages this desktop built while streaming are replaced by the file once it has them.
        if (base::startsWith(kept.id, "stream-") || base::startsWith(kept.id, "local-")) {
          if (diskKeys.empty()) merged.push_back(kept);
          continue;
        }
        merged.push_back(kept);
      }
    }
    messages_ = std::move(merged);
    totalSessionMessageCount_ = static_cast<std::int64_t>(result.messages.size());
    optimisticLoadedMessageCount_ = 0;
    ++transcriptPublishRevision_;
    publish();
  }

  void onEvent(const bridge::DaemonEvent& event) {
    if (const auto* received = event.get<bridge::DaemonEvent::MessageReceived>()) {
      const auto& p = received->value;
      if (p.messageId) {
        if (handledMessageReceivedIDs_.find(*p.messageId)) return;
        handledMessageReceivedIDs_.set(true, *p.messageId);
      }
      kit::DesktopLocalEchoSuppressionState state;
      state.source = p.source;
      state.agent = p.agent;
      state.eventSessionID = p.sessionId;
      state.currentSessionID = currentSessionID_;
      state.currentPendingSessionLocalID = currentPendingSessionLocalID_;
      if (p.sessionId)
        state.pendingAliasForEventSession = registry_.pendingIDIfRegistered(*p.sessionId);
      state.runningSessionIDs = runningSessionIDs_;
      state.runningPendingSessionIDs = runningPendingSessionIDs_;
      state.isForegroundStreamActive = p.sessionId && isVisible(*p.sessionId) && isStreamActive_;
      if (kit::DesktopLocalEchoSuppressor::decide(state)) return;
      if (p.queued.value_or(false) && p.sessionId &&
          p.source != kit::DesktopLocalEchoSuppressor::desktopSource) {
        externalQueued_.enqueue({p.messageId.value_or(base::newUUIDString()), p.source.value_or(""),
                                 p.sender.value_or(""), p.text.value_or(""), now()},
                                *p.sessionId);
      }
      if (p.sessionId && isVisible(*p.sessionId))
        refreshOwner();
      else
        reloadOwnerSidebar();
    } else if (const auto* request = event.get<bridge::DaemonEvent::ApprovalRequest>()) {
      const auto& p = request->value;
      bridge::ApprovalEvent approval{p.requestId, p.tool, p.args, p.flags};
      addApproval(approval, p.sessionId.value_or(""));
    } else if (const auto* resolved = event.get<bridge::DaemonEvent::ApprovalResolved>()) {
      resolveApproval(resolved->value.requestId);
    } else if (const auto* question = event.get<bridge::DaemonEvent::QuestionRequest>()) {
      addQuestion(question->value, question->value.sessionId.value_or(""));
    } else if (const auto* answered = event.get<bridge::DaemonEvent::QuestionResolved>()) {
      resolveQuestion(answered->value.requestId);
    } else if (const auto* title = event.get<bridge::DaemonEvent::SessionTitleUpdated>()) {
      for (auto& s : sessions_)
        if (s.id == title->value.sessionId) s.title = title->value.title;
      if (currentSessionID_ == title->value.sessionId) currentSessionTitle_ = title->value.title;
      publish();
    } else if (const auto* reply = event.get<bridge::DaemonEvent::AgentReply>()) {
      // A reply that ran elsewhere (another channel) shows up once its file has it.
      if (reply->value.sessionId && isVisible(*reply->value.sessionId) &&
          !isRunning(*reply->value.sessionId))
        refreshOwner();
    }
  }

  void subscribe() {
    if (!deps.events || subscription) return;
    subscription = deps.events->subscribe();
    spawn(
        [](Impl* self, std::shared_ptr<bridge::EventSubscription> events) -> asio::awaitable<void> {
          while (true) {
            std::optional<bridge::DaemonEventPtr> event;
            try {
              event = co_await events->next();
            } catch (const bridge::SSEBufferOverflowError& e) {
              // Too far behind to trust what we show: resubscribe and reload.
              base::log::warn(kSource, "{}", e.what());
              if (self->closed()) co_return;
              self->subscription.reset();
              self->subscribe();
              self->reloadOwnerSidebar();
              self->refreshOwner();
              co_return;
            }
            if (!event || self->closed()) co_return;
            self->onEvent(**event);
          }
        }(this, subscription->events));
  }
};

// ---------------------------------------------------------------- public

DaemonChatViewModel::DaemonChatViewModel(base::MainExecutor& executor, Dependencies dependencies)
    : impl_(std::make_shared<Impl>(this, executor, std::move(dependencies))) {
  impl_->loadSidebarState();
}

DaemonChatViewModel::~DaemonChatViewModel() { impl_->close(); }

std::optional<std::string> DaemonChatViewModel::currentSessionKey() const {
  return impl_->currentSessionKey();
}

std::vector<kit::QueuedDraftMessage> DaemonChatViewModel::queuedDrafts() const {
  auto key = currentSessionKey();
  if (!key) return {};
  auto items = impl_->queuedDraftMessageStore_.items(impl_->registry_.realID(*key));
  if (items.empty()) items = impl_->queuedDraftMessageStore_.items(*key);
  return items;
}

std::vector<DaemonChatViewModel::ApprovalRow> DaemonChatViewModel::pendingApprovals() const {
  std::vector<ApprovalRow> rows;
  for (const auto& [id, row] : impl_->approvalRows_) rows.push_back(row);
  return rows;
}

std::vector<DaemonChatViewModel::QuestionRow> DaemonChatViewModel::pendingQuestions() const {
  std::vector<QuestionRow> rows;
  for (const auto& [id, row] : impl_->questionRows_) rows.push_back(row);
  return rows;
}

void DaemonChatViewModel::start() {
  impl_->subscribe();
  const auto generation = ++impl_->selectAgentGeneration_;
  impl_->spawn([](Impl* self, std::uint64_t generation) -> asio::awaitable<void> {
    try {
      auto agents = co_await self->deps.client->agents();
      if (self->closed() || generation != self->selectAgentGeneration_) co_return;
      self->agents_.clear();
      for (const auto& a : agents) {
        self->agents_.push_back(AgentItem{a.name, a.name, a.displayName, a.avatar,
                                          a.hasMemory.value_or(false), a.builtin.value_or(false),
                                          a.isOverride.value_or(false), a.commandCount.value_or(0),
                                          a.skillCount.value_or(0)});
      }
      if (!self->selectedAgent_ && !agents.empty()) self->selectedAgent_ = agents.front().name;
      self->publish();
      self->reloadOwnerSidebar();
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), generation));
}

void DaemonChatViewModel::selectAgent(std::string name) {
  const bool known = std::any_of(impl_->agents_.begin(), impl_->agents_.end(),
                                 [&](const AgentItem& a) { return a.name == name; });
  if (!known && !impl_->agents_.empty()) {
    impl_->errorMessage_ = "That agent no longer exists.";
    impl_->publish();
    return;
  }
  impl_->selectedAgent_ = std::move(name);
  ++impl_->selectAgentGeneration_;
  startNewSession();
  reloadSidebar();
}

void DaemonChatViewModel::reloadSidebar() {
  const auto generation = ++impl_->sidebarLoadGeneration_;
  impl_->spawn([](Impl* self, std::uint64_t generation) -> asio::awaitable<void> {
    try {
      bridge::SessionListQuery query;
      query.agent = self->selectedAgent_;
      auto sessions = co_await self->deps.client->sessions(query);
      if (self->closed() || generation != self->sidebarLoadGeneration_) co_return;
      self->sessions_ = std::move(sessions);
      self->publish();
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), generation));
}

void DaemonChatViewModel::selectSession(std::string sessionID) {
  sessionID = impl_->registry_.realID(sessionID);
  // Keep what the session being left shows, so coming back is instant.
  if (auto leaving = currentSessionKey()) {
    const std::string key = impl_->registry_.realID(*leaving);
    if (impl_->isRunning(key)) {
      impl_->partialSessions_.insert(key);
      impl_->flushDeltas();
      impl_->inFlightSessionStates_.set(
          InFlightSessionState{impl_->messages_, impl_->streamingStatus_, impl_->deltaBuffer_,
                               impl_->isSending_, impl_->isStreamActive_},
          key);
    } else {
      impl_->cachedSessionWindows_.set(CachedSessionWindow{impl_->messages_,
                                                           impl_->totalSessionMessageCount_,
                                                           {},
                                                           impl_->fingerprints[key],
                                                           impl_->optimisticLoadedMessageCount_},
                                       key);
    }
  }
  impl_->currentSessionID_ = sessionID;
  impl_->currentPendingSessionLocalID_ = impl_->registry_.pendingIDIfRegistered(sessionID);
  if (impl_->completedUnreadSessions_.erase(sessionID) +
      (impl_->isRunning(sessionID) ? 0 : impl_->partialSessions_.erase(sessionID)))
    impl_->saveSidebarState();
  impl_->currentSessionTitle_.reset();
  for (const auto& s : impl_->sessions_)
    if (s.id == sessionID) {
      impl_->currentSessionTitle_ = s.title;
      impl_->currentSessionAgent_ = s.agent;
    }
  impl_->streamingStatus_ = StreamingStatus{};
  impl_->deltaBuffer_.clear();
  if (auto inFlight = impl_->inFlightSessionStates_.value(sessionID)) {
    impl_->messages_ = inFlight->messages;
    impl_->streamingStatus_ = inFlight->streamingStatus;
    impl_->isSending_ = inFlight->isSending;
    impl_->isStreamActive_ = inFlight->isStreamActive;
    impl_->inFlightSessionStates_.set(std::nullopt, sessionID);
  } else if (auto cached = impl_->cachedSessionWindows_.value(sessionID)) {
    impl_->messages_ = cached->messages;
    impl_->totalSessionMessageCount_ = cached->totalCount;
    impl_->isSending_ = impl_->isStreamActive_ = false;
  } else {
    impl_->messages_.clear();
    impl_->isLoading_ = true;
    impl_->isSending_ = impl_->isStreamActive_ = false;
  }
  ++impl_->transcriptPublishRevision_;
  impl_->publish();
  refreshCurrentSession();
}

void DaemonChatViewModel::startNewSession() {
  if (auto leaving = currentSessionKey();
      leaving && !impl_->isRunning(*leaving) && impl_->currentSessionID_) {
    impl_->cachedSessionWindows_.set(
        CachedSessionWindow{impl_->messages_,
                            impl_->totalSessionMessageCount_,
                            {},
                            impl_->fingerprints[*impl_->currentSessionID_],
                            impl_->optimisticLoadedMessageCount_},
        *impl_->currentSessionID_);
  }
  PendingSession pending{"pending-" + base::newUUIDString(), std::nullopt, now(), std::nullopt,
                         std::nullopt};
  impl_->pendingSessions_.push_back(pending);
  impl_->currentPendingSessionLocalID_ = pending.id;
  impl_->currentSessionID_.reset();
  impl_->currentSessionTitle_.reset();
  impl_->currentSessionAgent_ = impl_->selectedAgent_;
  impl_->messages_.clear();
  impl_->streamingStatus_ = StreamingStatus{};
  impl_->isSending_ = impl_->isStreamActive_ = false;
  ++impl_->sessionLoadGeneration_;
  ++impl_->transcriptPublishRevision_;
  impl_->publish();
}

DaemonChatViewModel::SubmitOutcome DaemonChatViewModel::submit(std::string text, bool inject) {
  if (base::trim(text).empty()) return SubmitOutcome::ignored;
  if (!currentSessionKey()) startNewSession();
  const std::string key = *currentSessionKey();
  const std::string real = impl_->registry_.realID(key);
  setComposerText({});
  if (impl_->isRunning(key)) {
    if (inject && !base::startsWith(real, "pending-")) {
      bridge::InjectRequest request;
      request.text = kit::InjectedMessagePrefix::apply(text);
      request.sessionId = real;
      request.agent =
          impl_->currentSessionAgent_ ? impl_->currentSessionAgent_ : impl_->selectedAgent_;
      impl_->spawn([](Impl* self, bridge::InjectRequest request, std::string text,
                      std::string key) -> asio::awaitable<void> {
        try {
          auto stream = co_await self->deps.client->inject(request);
          while (auto event = co_await stream.next()) {
            if (event->get<SSEEvent::Injected>()) {
              self->notice_ = "Injected into the running reply.";
              self->publish();
            }
          }
        } catch (const std::exception& e) {
          if (self->closed()) co_return;
          // Not lost: it waits in the queue instead.
          base::log::info(kSource, "injection failed, queued instead: {}", e.what());
          auto queued = self->queuedDraftMessageStore_.items(key);
          queued.push_back(kit::QueuedDraftMessage{
              base::newUUIDString(), text, {}, {}, now(), std::nullopt, {}});
          self->queuedDraftMessageStore_.replace(key, std::move(queued));
          self->notice_ = "Could not inject; the message is queued.";
          self->publish();
        }
      }(impl_.get(), std::move(request), text, real));
      return SubmitOutcome::injected;
    }
    auto queued = impl_->queuedDraftMessageStore_.items(real);
    queued.push_back(kit::QueuedDraftMessage{
        base::newUUIDString(), std::move(text), {}, {}, now(), std::nullopt, {}});
    impl_->queuedDraftMessageStore_.replace(real, std::move(queued));
    impl_->notice_ = "Queued: it will be sent when the reply finishes.";
    impl_->publish();
    return SubmitOutcome::queued;
  }
  impl_->startSend(key, std::move(text));
  return SubmitOutcome::sent;
}

void DaemonChatViewModel::editQueuedDraft(const std::string& id, std::string text) {
  auto key = currentSessionKey();
  if (!key) return;
  auto items = impl_->queuedDraftMessageStore_.items(impl_->registry_.realID(*key));
  for (auto& item : items)
    if (item.id == id) item.text = std::move(text);
  impl_->queuedDraftMessageStore_.replace(impl_->registry_.realID(*key), std::move(items));
  impl_->publish();
}

void DaemonChatViewModel::retractQueuedDraft(const std::string& id) {
  auto key = currentSessionKey();
  if (!key) return;
  auto items = impl_->queuedDraftMessageStore_.items(impl_->registry_.realID(*key));
  std::erase_if(items, [&](const kit::QueuedDraftMessage& m) { return m.id == id; });
  impl_->queuedDraftMessageStore_.replace(impl_->registry_.realID(*key), std::move(items));
  impl_->publish();
}

void DaemonChatViewModel::forceSendQueued(std::string typedText) {
  auto key = currentSessionKey();
  if (!key) return;
  const std::string real = impl_->registry_.realID(*key);
  auto plan =
      kit::QueueForceSendPlanner::plan(impl_->queuedDraftMessageStore_.items(real), typedText);
  if (!plan) return;
  auto payload = kit::QueueForceSendPayloadPlanner::plan(*plan);
  impl_->queuedDraftMessageStore_.remove(real);
  if (impl_->isRunning(*key)) {
    // Sent as soon as the cancelled reply has ended: it drains as the queue would.
    impl_->queuedDraftMessageStore_.replace(real, {kit::QueuedDraftMessage{base::newUUIDString(),
                                                                           payload.promptText,
                                                                           payload.attachments,
                                                                           payload.contentBlocks,
                                                                           now(),
                                                                           std::nullopt,
                                                                           {}}});
    cancel();
  } else {
    impl_->startSend(*key, payload.promptText);
  }
  impl_->publish();
}

void DaemonChatViewModel::cancel() {
  auto key = currentSessionKey();
  if (!key) return;
  auto token = impl_->tokenFor(*key);
  if (!token) return;
  impl_->streamCancellationTracker_.markCancelling(*token);
  impl_->isCancelling_ = true;
  // A session the engine may not have created yet: decide what becomes of its pending marker.
  if (impl_->currentPendingSessionLocalID_ && !impl_->currentSessionID_) {
    const std::string pending = *impl_->currentPendingSessionLocalID_;
    kit::PendingCancelCleanupPlanner::Input input;
    input.candidate = {pending, impl_->messages_.size() <= 2 && composerText().empty()};
    input.realSessionID = impl_->registry_.realIDIfRegistered(pending);
    input.isListedPending =
        std::any_of(impl_->pendingSessions_.begin(), impl_->pendingSessions_.end(),
                    [&](const PendingSession& p) { return p.id == pending; });
    input.currentPendingSessionLocalID = impl_->currentPendingSessionLocalID_;
    switch (kit::PendingCancelCleanupPlanner::plan(input)) {
      case kit::PendingCancelCleanupPlan::promoteToReal:
        impl_->currentSessionID_ = input.realSessionID;
        std::erase_if(impl_->pendingSessions_,
                      [&](const PendingSession& p) { return p.id == pending; });
        break;
      case kit::PendingCancelCleanupPlan::discardPendingDraft:
        std::erase_if(impl_->pendingSessions_,
                      [&](const PendingSession& p) { return p.id == pending; });
        if (impl_->deps.drafts)
          impl_->deps.drafts->set({}, kit::ComposerDraftKey::forPendingSession(pending));
        break;
      case kit::PendingCancelCleanupPlan::detachStalePendingMarker:
        impl_->currentPendingSessionLocalID_.reset();
        break;
      case kit::PendingCancelCleanupPlan::skip:
      case kit::PendingCancelCleanupPlan::ignoreStaleOrphan:
        break;
    }
  }
  impl_->publish();
  bridge::CancelRequest request;
  const std::string real = impl_->registry_.realID(*key);
  if (!base::startsWith(real, "pending-")) request.sessionId = real;
  request.agent = impl_->currentSessionAgent_ ? impl_->currentSessionAgent_ : impl_->selectedAgent_;
  impl_->spawn(
      [](Impl* self, bridge::CancelRequest request, std::string token) -> asio::awaitable<void> {
        try {
          co_await self->deps.client->cancel(request);
        } catch (const std::exception& e) {
          base::log::info(kSource, "cancel request failed: {}", e.what());
        }
        // The engine may not know a run that has not started yet: end our side regardless.
        if (self->closed()) co_return;
        if (auto it = self->streams.find(token); it != self->streams.end()) it->second->cancel();
      }(impl_.get(), std::move(request), *token));
}

void DaemonChatViewModel::answerApproval(const std::string& requestID, ApprovalDecision decision) {
  auto row = impl_->approvalRows_.find(requestID);
  const std::string tool =
      row != impl_->approvalRows_.end() ? row->second.info.tool : std::string();
  impl_->resolveApproval(requestID);
  impl_->spawn([](Impl* self, std::string requestID, ApprovalDecision decision,
                  std::string tool) -> asio::awaitable<void> {
    try {
      bridge::ApprovalResponseBody body{requestID, decisionText(decision)};
      co_await self->deps.client->answerApproval(body);
      if (self->closed()) co_return;
      switch (decision) {
        case ApprovalDecision::once:
          self->notice_ =
              "Allowed for this turn. High-risk commands are never saved as Always Allow.";
          break;
        case ApprovalDecision::session:
          self->notice_ = tool + " allowed for this session.";
          break;
        case ApprovalDecision::always:
          self->notice_ = tool + " is always allowed from now on.";
          break;
        case ApprovalDecision::deny:
          self->notice_ = "Denied.";
          break;
      }
      self->publish();
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), requestID, decision, tool));
}

void DaemonChatViewModel::answerQuestion(const std::string& requestID,
                                         std::vector<bridge::AnswerBody> answers) {
  impl_->resolveQuestion(requestID);
  impl_->spawn([](Impl* self, bridge::QuestionResponseBody body) -> asio::awaitable<void> {
    try {
      co_await self->deps.client->answerQuestion(body);
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), bridge::QuestionResponseBody{requestID, std::string("answer"),
                                              std::move(answers)}));
}

void DaemonChatViewModel::declineQuestion(const std::string& requestID) {
  impl_->resolveQuestion(requestID);
  impl_->spawn([](Impl* self, bridge::QuestionResponseBody body) -> asio::awaitable<void> {
    try {
      co_await self->deps.client->answerQuestion(body);
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), bridge::QuestionResponseBody{requestID, std::string("decline"), std::nullopt}));
}

void DaemonChatViewModel::refreshCurrentSession() {
  if (!impl_->currentSessionID_ || base::startsWith(*impl_->currentSessionID_, "pending-")) return;
  const auto generation = ++impl_->sessionLoadGeneration_;
  impl_->spawn(impl_->reload(*impl_->currentSessionID_, generation));
}

std::string DaemonChatViewModel::composerText() const {
  if (!impl_->deps.drafts) return {};
  auto key = impl_->currentSessionID_ ? kit::ComposerDraftKey::forSession(*impl_->currentSessionID_)
             : impl_->currentPendingSessionLocalID_
                 ? kit::ComposerDraftKey::forPendingSession(*impl_->currentPendingSessionLocalID_)
                 : kit::ComposerDraftKey::forNewSession(impl_->selectedAgent_.value_or(""));
  return impl_->deps.drafts->draft(key).value_or("");
}

void DaemonChatViewModel::setComposerText(std::string text) {
  if (!impl_->deps.drafts) return;
  auto key = impl_->currentSessionID_ ? kit::ComposerDraftKey::forSession(*impl_->currentSessionID_)
             : impl_->currentPendingSessionLocalID_
                 ? kit::ComposerDraftKey::forPendingSession(*impl_->currentPendingSessionLocalID_)
                 : kit::ComposerDraftKey::forNewSession(impl_->selectedAgent_.value_or(""));
  impl_->deps.drafts->set(std::move(text), key);
}

std::string DaemonChatViewModel::sessionKeyFor(const kit::Message& message) {
  return mergeKey(message.author, message.content);
}

std::optional<std::string> DaemonChatViewModel::conversationAnnotationErrorText(
    std::string_view code) {
  if (code == "conversation_reply_quote_too_long")
    return "A selected passage is too long (max 8,000 characters).";
  if (code == "conversation_reply_comment_too_long")
    return "A reply is too long (max 2,000 characters).";
  if (code == "conversation_replies_too_many")
    return "Too many annotations — the limit is 100 per message.";
  if (code == "conversation_replies_malformed")
    return "The annotations could not be read. Re-select the text and try again.";
  return std::nullopt;
}

void DaemonChatViewModel::setSessionBrowseScope(std::string scope) {
  if (scope == impl_->sessionBrowseScope_) return;
  impl_->sessionBrowseScope_ = std::move(scope);
  impl_->saveSidebarState();
  impl_->publish();
}

// ---------------------------------------------------------------- observable state

auto DaemonChatViewModel::changed() -> base::Signal<>& { return impl_->publisher.changed(); }
auto DaemonChatViewModel::agents() const -> const std::vector<AgentItem>& { return impl_->agents_; }
auto DaemonChatViewModel::selectedAgent() const -> const std::optional<std::string>& {
  return impl_->selectedAgent_;
}
auto DaemonChatViewModel::sessions() const -> const std::vector<bridge::DaemonSession>& {
  return impl_->sessions_;
}
auto DaemonChatViewModel::pendingSessions() const -> const std::vector<PendingSession>& {
  return impl_->pendingSessions_;
}
auto DaemonChatViewModel::currentSessionID() const -> const std::optional<std::string>& {
  return impl_->currentSessionID_;
}
auto DaemonChatViewModel::currentSessionTitle() const -> const std::optional<std::string>& {
  return impl_->currentSessionTitle_;
}
auto DaemonChatViewModel::currentPendingSessionLocalID() const
    -> const std::optional<std::string>& {
  return impl_->currentPendingSessionLocalID_;
}
auto DaemonChatViewModel::messages() const -> const std::vector<kit::Message>& {
  return impl_->messages_;
}
auto DaemonChatViewModel::isLoading() const -> bool { return impl_->isLoading_; }
auto DaemonChatViewModel::isSending() const -> bool { return impl_->isSending_; }
auto DaemonChatViewModel::isCancelling() const -> bool { return impl_->isCancelling_; }
auto DaemonChatViewModel::isStreamActive() const -> bool { return impl_->isStreamActive_; }
auto DaemonChatViewModel::streamingStatus() const -> const StreamingStatus& {
  return impl_->streamingStatus_;
}
auto DaemonChatViewModel::transcriptPublishRevision() const -> std::uint64_t {
  return impl_->transcriptPublishRevision_;
}
auto DaemonChatViewModel::runningSessionIDs() const -> const std::set<std::string>& {
  return impl_->runningSessionIDs_;
}
auto DaemonChatViewModel::runningPendingSessionIDs() const -> const std::set<std::string>& {
  return impl_->runningPendingSessionIDs_;
}
auto DaemonChatViewModel::errorMessage() const -> const std::optional<std::string>& {
  return impl_->errorMessage_;
}
auto DaemonChatViewModel::quotaError() const -> const std::optional<bridge::QuotaDetails>& {
  return impl_->quotaError_;
}
auto DaemonChatViewModel::creditsError() const -> const std::optional<bridge::CreditsDetails>& {
  return impl_->creditsError_;
}
auto DaemonChatViewModel::isRetryingAfterRefill() const -> bool {
  return impl_->isRetryingAfterRefill_;
}
auto DaemonChatViewModel::notice() const -> const std::optional<std::string>& {
  return impl_->notice_;
}
auto DaemonChatViewModel::sessionIdentityRegistry() -> bridge::SessionIdentityRegistry& {
  return impl_->registry_;
}
auto DaemonChatViewModel::cachedSessionCount() const -> std::size_t {
  return impl_->cachedSessionWindows_.valuesByKey().size();
}
auto DaemonChatViewModel::externalQueuedMessages() const -> const kit::ExternalQueuedMessageStore& {
  return impl_->externalQueued_;
}
auto DaemonChatViewModel::sessionBrowseScope() const -> const std::string& {
  return impl_->sessionBrowseScope_;
}
auto DaemonChatViewModel::partialSessions() const -> const std::set<std::string>& {
  return impl_->partialSessions_;
}
auto DaemonChatViewModel::completedUnreadSessions() const -> const std::set<std::string>& {
  return impl_->completedUnreadSessions_;
}

}  // namespace tamsel::desktop
