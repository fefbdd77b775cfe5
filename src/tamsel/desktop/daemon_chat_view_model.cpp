#include "tamsel/desktop/daemon_chat_view_model.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/kit/composer_draft_key.hpp"
#include "tamsel/kit/desktop_local_echo_suppressor.hpp"
#include "tamsel/kit/injected_message_prefix.hpp"
#include "tamsel/kit/transcript_merge_planner.hpp"
#include "tamsel/desktop/preferences_store.hpp"

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
    case VM::ApprovalDecision::once: return "once";
    case VM::ApprovalDecision::session: return "session";
    case VM::ApprovalDecision::always: return "always";
    case VM::ApprovalDecision::deny: return "deny";
  }
  return "deny";
}
}  // namespace

struct DaemonChatViewModel::Impl {
  VM& vm;
  base::MainExecutor executor;
  Dependencies deps;
  bool publishPending = false;
  // Streamed text waiting for the next publication, per stream token.
  std::map<std::string, std::string> pendingDeltas;
  std::unique_ptr<asio::steady_timer> deltaTimer;
  bool deltaFlushScheduled = false;
  std::optional<bridge::EventStreamClient::Subscription> subscription;
  // Running streams: token -> the stream (to cancel it) and the key of its session.
  std::map<std::string, bridge::ReplyStream*> streams;
  std::map<std::string, std::string> streamSession;
  std::map<std::string, std::optional<bridge::SessionFileFingerprint>> fingerprints;
  bool alive = true;

  Impl(VM& owner, base::MainExecutor e, Dependencies d) : vm(owner), executor(e), deps(std::move(d)) {
    deltaTimer = std::make_unique<asio::steady_timer>(executor.context());
  }

  // Changes made in one turn reach observers as one notification, in order.
  void publish() {
    if (publishPending) return;
    publishPending = true;
    VM* owner = &vm;
    executor.post([owner] {
      if (!owner->impl_) return;
      owner->impl_->publishPending = false;
      owner->changed_.emit();
    });
  }

  void spawn(asio::awaitable<void> work) {
    asio::co_spawn(executor.context(), std::move(work), [](std::exception_ptr error) {
      if (!error) return;
      try {
        std::rethrow_exception(error);
      } catch (const std::exception& e) {
        base::log::warn(kSource, "task failed: {}", e.what());
      }
    });
  }

  void saveSidebarState() {
    if (!deps.preferences) return;
    auto array = [](const std::set<std::string>& ids) {
      boost::json::array out;
      for (const auto& id : ids) out.emplace_back(id);
      return boost::json::value(std::move(out));
    };
    try {
      deps.preferences->set(sessionBrowseKey, boost::json::value(vm.sessionBrowseScope_));
      deps.preferences->set(partialSessionsKey, array(vm.partialSessions_));
      deps.preferences->set(completedUnreadSessionsKey, array(vm.completedUnreadSessions_));
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not keep the sidebar state: {}", e.what());
    }
  }

  void loadSidebarState() {
    if (!deps.preferences) return;
    if (auto scope = deps.preferences->value(sessionBrowseKey); scope && scope->is_string())
      vm.sessionBrowseScope_ = std::string(scope->get_string());
    auto readSet = [&](const char* key, std::set<std::string>& into) {
      if (auto value = deps.preferences->value(key); value && value->is_array())
        for (const auto& item : value->get_array())
          if (item.is_string()) into.insert(std::string(item.get_string()));
    };
    readSet(partialSessionsKey, vm.partialSessions_);
    readSet(completedUnreadSessionsKey, vm.completedUnreadSessions_);
  }

  void showError(const std::exception& e) {
    if (const auto* client = dynamic_cast<const bridge::DaemonClientException*>(&e)) {
      const auto& error = client->error();
      if (const auto* quota = std::get_if<bridge::DaemonClientError::QuotaExceeded>(&error.value)) {
        vm.quotaError_ = quota->details;
      } else if (const auto* credits = std::get_if<bridge::DaemonClientError::CreditsExhausted>(&error.value)) {
        vm.creditsError_ = credits->details;
      } else if (const auto* validation = std::get_if<bridge::DaemonClientError::Validation>(&error.value);
                 validation && validation->code) {
        vm.errorMessage_ = conversationAnnotationErrorText(*validation->code).value_or(validation->message);
      } else {
        vm.errorMessage_ = error.description();
      }
    } else {
      vm.errorMessage_ = e.what();
    }
    publish();
  }

  std::string keyOf(const std::string& id) const { return vm.registry_.realID(id); }

  bool isVisible(const std::string& sessionKey) const {
    auto current = vm.currentSessionKey();
    return current && (keyOf(*current) == keyOf(sessionKey));
  }

  // The transcript of a session: the visible one, or the kept state of one in the background.
  template <class F>
  void withTranscript(const std::string& sessionKey, F&& change) {
    if (isVisible(sessionKey)) {
      change(vm.messages_);
      ++vm.transcriptPublishRevision_;
      publish();
      return;
    }
    auto state = vm.inFlightSessionStates_.value(keyOf(sessionKey)).value_or(InFlightSessionState{});
    change(state.messages);
    vm.inFlightSessionStates_.set(std::move(state), keyOf(sessionKey));
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
      withTranscript(session->second, [&token = token, &text = text](std::vector<kit::Message>& messages) {
        if (auto* reply = find(messages, "stream-" + token)) reply->content += text;
      });
      text.clear();
    }
    vm.deltaBuffer_.clear();
    publish();
  }

  void scheduleDeltaFlush() {
    if (deltaFlushScheduled) return;
    deltaFlushScheduled = true;
    deltaTimer->expires_after(kDeltaPublishInterval);
    deltaTimer->async_wait([this](const boost::system::error_code& ec) {
      if (!ec) flushDeltas();
    });
  }

  void setRunning(const std::string& sessionKey, bool running) {
    const bool pending = base::startsWith(sessionKey, "pending-") && vm.registry_.realID(sessionKey) == sessionKey;
    auto& set = pending ? vm.runningPendingSessionIDs_ : vm.runningSessionIDs_;
    if (running) set.insert(sessionKey);
    else {
      vm.runningPendingSessionIDs_.erase(sessionKey);
      vm.runningSessionIDs_.erase(keyOf(sessionKey));
    }
    if (isVisible(sessionKey)) vm.isStreamActive_ = vm.isSending_ = running;
    publish();
  }

  bool isRunning(const std::string& sessionKey) const {
    const std::string real = keyOf(sessionKey);
    return vm.runningSessionIDs_.count(real) || vm.runningPendingSessionIDs_.count(sessionKey) ||
           vm.runningPendingSessionIDs_.count(vm.registry_.pendingID(real));
  }

  std::optional<std::string> tokenFor(const std::string& sessionKey) const {
    for (const auto& key : {sessionKey, keyOf(sessionKey), vm.registry_.pendingID(keyOf(sessionKey))}) {
      if (auto it = vm.streamingTokensBySession_.find(key); it != vm.streamingTokensBySession_.end()) return it->second;
    }
    return std::nullopt;
  }

  void addApproval(const bridge::ApprovalEvent& event, const std::string& sessionKey) {
    // An answered request that shows up again (from the bus after the stream) stays answered.
    if (vm.resolvedRequestIDs_.value(event.requestId) || vm.approvalRows_.count(event.requestId)) return;
    kit::ApprovalInfo info;
    info.requestID = event.requestId;
    info.tool = event.tool.value_or("");
    if (event.args) info.args = base::json::serialize(*event.args);
    if (event.flags) info.flags = *event.flags;
    vm.approvalRows_[event.requestId] = ApprovalRow{std::move(info), sessionKey};
    publish();
  }

  void addQuestion(const bridge::QuestionRequestPayload& request, const std::string& sessionKey) {
    if (vm.resolvedQuestionRequestIDs_.value(request.requestId) || vm.questionRows_.count(request.requestId)) return;
    vm.questionRows_[request.requestId] = QuestionRow{request, sessionKey};
    publish();
  }

  void resolveApproval(const std::string& requestID) {
    vm.approvalRows_.erase(requestID);
    vm.resolvedRequestIDs_.set(true, requestID);
    publish();
  }

  void resolveQuestion(const std::string& requestID) {
    vm.questionRows_.erase(requestID);
    vm.resolvedQuestionRequestIDs_.set(true, requestID);
    publish();
  }

  void handleToolEvent(const std::string& token, const std::string& sessionKey, const bridge::ToolEvent& tool) {
    kit::ToolEntrySnapshot entry;
    entry.id = tool.toolUseId.value_or(tool.tool);
    entry.name = tool.tool;
    const std::string status = tool.status.value_or("running");
    entry.status = status == "denied"                                           ? kit::ToolRunStatus::denied
                   : (status == "done" || status == "completed" || status == "error") ? kit::ToolRunStatus::completed
                                                                                       : kit::ToolRunStatus::running;
    entry.elapsed = tool.elapsed;
    entry.isError = tool.isError.value_or(false);
    if (tool.args) {
      std::map<std::string, std::string> strings;
      if (const auto* object = tool.args->if_object())
        for (const auto& member : *object)
          if (member.value().is_string()) strings.emplace(std::string(member.key()), std::string(member.value().get_string()));
      entry.args = bridge::SessionHistory::argsSummary(tool.tool, strings);
    }
    if (tool.preview) entry.preview = bridge::SessionHistory::normalisePreview(*tool.preview);
    entry.toolUseId = tool.toolUseId;
    withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
      auto* reply = find(messages, "stream-" + token);
      if (!reply) return;
      if (!reply->toolBlock) reply->toolBlock = kit::ToolBlockSnapshot{"stream-toolblock-" + token, {}, now(), {}, {}};
      for (auto& existing : reply->toolBlock->tools) {
        if (existing.id == entry.id) {
          existing = entry;
          return;
        }
      }
      reply->toolBlock->tools.push_back(entry);
    });
    if (isVisible(sessionKey)) {
      auto& statuses = vm.streamingStatus_.toolStatuses;
      auto it = std::find_if(statuses.begin(), statuses.end(), [&](const auto& s) { return s.id == entry.id; });
      if (it == statuses.end()) statuses.push_back(entry);
      else *it = entry;
      vm.streamingStatus_.activityLine = entry.name + (entry.args ? " " + *entry.args : std::string());
      publish();
    }
  }

  // Reads a reply stream to its end, keeping the transcript of its session current.
  asio::awaitable<void> runStream(std::string token, std::string sessionKey, bridge::ReplyStream stream) {
    streams[token] = &stream;
    streamSession[token] = sessionKey;
    bool sawText = false;
    try {
      while (auto event = co_await stream.next()) {
        if (!alive) co_return;
        sessionKey = streamSession[token];
        const auto ownership = kit::StreamOwnershipPlanner::decide(token, keyOf(sessionKey), vm.streamingTokensBySession_,
                                                                   vm.currentSessionKey() ? std::optional(keyOf(*vm.currentSessionKey())) : std::nullopt);
        if (ownership == kit::StreamOwnership::drop && !event->get<SSEEvent::SessionStarted>()) continue;
        if (const auto* started = event->get<SSEEvent::SessionStarted>()) {
          const std::string& real = started->value.sessionId;
          if (real != sessionKey) {
            vm.registry_.registerPair(sessionKey, real);
            vm.streamingTokensBySession_[real] = token;
            if (vm.runningPendingSessionIDs_.erase(sessionKey)) vm.runningSessionIDs_.insert(real);
            if (vm.currentPendingSessionLocalID_ == sessionKey) vm.currentSessionID_ = real;
            if (deps.drafts) deps.drafts->rekey(kit::ComposerDraftKey::forPendingSession(sessionKey), kit::ComposerDraftKey::forSession(real));
            auto queued = vm.queuedDraftMessageStore_.items(sessionKey);
            if (!queued.empty()) {
              vm.queuedDraftMessageStore_.remove(sessionKey);
              vm.queuedDraftMessageStore_.replace(real, std::move(queued));
            }
            publish();
          }
        } else if (const auto* delta = event->get<SSEEvent::Delta>()) {
          pendingDeltas[token] += delta->value.text;
          if (isVisible(sessionKey)) vm.deltaBuffer_ += delta->value.text;
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
          vm.errorMessage_ = error->value.error;
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
          vm.notice_ = "Your message was taken into the running reply.";
          (void)committed;
          publish();
        }
      }
      if (stream.endedPrematurely() && !streamCancellationTrackerHas(token)) {
        vm.errorMessage_ = "The reply ended before it was complete";
      }
    } catch (const std::exception& e) {
      if (!alive) co_return;
      if (!streamCancellationTrackerHas(token)) showError(e);
    }
    if (!alive) co_return;
    flushDeltas();
    const bool cancelled = streamCancellationTrackerHas(token);
    finishStream(token, sessionKey, cancelled);
  }

  bool streamCancellationTrackerHas(const std::string& token) const { return vm.streamCancellationTracker_.isCancelling(token); }

  void finishStream(const std::string& token, const std::string& sessionKey, bool cancelled) {
    streams.erase(token);
    streamSession.erase(token);
    pendingDeltas.erase(token);
    for (auto it = vm.streamingTokensBySession_.begin(); it != vm.streamingTokensBySession_.end();)
      it = it->second == token ? vm.streamingTokensBySession_.erase(it) : std::next(it);
    vm.streamCancellationTracker_.clear(token);
    withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
      auto* reply = find(messages, "stream-" + token);
      if (reply && reply->content.empty() && !reply->toolBlock) {
        if (cancelled) reply->content = kCancelledBeforeResponse;
        else std::erase_if(messages, [&](const kit::Message& m) { return m.id == "stream-" + token; });
      }
    });
    setRunning(sessionKey, false);
    if (isVisible(sessionKey)) {
      vm.isCancelling_ = false;
      vm.streamingStatus_ = StreamingStatus{};
    }
    vm.recentSSEDoneSessions_.set(true, keyOf(sessionKey));
    if (!isVisible(sessionKey) && !cancelled) {
      // Finished while the user looked elsewhere: unread, and no longer only partly seen.
      vm.completedUnreadSessions_.insert(keyOf(sessionKey));
      vm.partialSessions_.erase(keyOf(sessionKey));
      saveSidebarState();
    }
    vm.queuedDraftDrainCoordinator_.markReady(keyOf(sessionKey));
    publish();
    drainQueue(keyOf(sessionKey));
    if (isVisible(sessionKey)) vm.refreshCurrentSession();
  }

  void drainQueue(const std::string& sessionKey) {
    auto queued = vm.queuedDraftMessageStore_.items(sessionKey);
    const auto action = vm.queuedDraftDrainCoordinator_.action(sessionKey, !queued.empty(), isRunning(sessionKey));
    if (action != kit::QueuedDraftDrainAction::drainNow) return;
    auto joined = kit::QueuedDraftJoinPlanner::join(queued);
    vm.queuedDraftMessageStore_.remove(sessionKey);
    if (joined) startSend(sessionKey, joined->text);
    publish();
  }

  // Appends the optimistic user message and opens the reply stream.
  void startSend(const std::string& sessionKey, std::string text) {
    const std::string token = base::newUUIDString();
    const bool pending = base::startsWith(sessionKey, "pending-") && keyOf(sessionKey) == sessionKey;
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
      ++vm.optimisticLoadedMessageCount_;
      vm.streamingStatus_ = StreamingStatus{};
      vm.streamingStatus_.isActive = true;
      vm.streamingStatus_.runState = RunState::active;
      vm.streamingStatus_.ownerSessionID = keyOf(sessionKey);
    }
    vm.streamingTokensBySession_[keyOf(sessionKey)] = token;
    vm.errorMessage_.reset();
    vm.quotaError_.reset();
    vm.creditsError_.reset();
    setRunning(sessionKey, true);

    bridge::SendMessageRequest request;
    request.text = std::move(text);
    request.agent = vm.currentSessionAgent_ ? vm.currentSessionAgent_ : vm.selectedAgent_;
    if (pending) request.newSession = true;
    else request.sessionId = keyOf(sessionKey);
    request.clientMessageId = token;
    spawn([](Impl* self, std::string token, std::string sessionKey, bridge::SendMessageRequest request) -> asio::awaitable<void> {
      std::optional<bridge::ReplyStream> stream;
      try {
        stream.emplace(co_await self->deps.client->sendMessage(request));
      } catch (const std::exception& e) {
        if (!self->alive) co_return;
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
    const auto agent = vm.currentSessionAgent_;
    const auto lastSeen = fingerprints[sessionID];
    auto result = co_await deps.history->load(sessionID, agent, lastSeen);
    if (!alive || generation != vm.sessionLoadGeneration_) co_return;  // a newer load has started
    if (!result.found && agent) {
      // The default agent's sessions live in the shared folder, not under the agent's name.
      result = co_await deps.history->load(sessionID, std::nullopt, lastSeen);
      if (!alive || generation != vm.sessionLoadGeneration_) co_return;
    }
    vm.isLoading_ = false;
    if (result.unchanged || !result.found) {
      publish();
      co_return;
    }
    fingerprints[sessionID] = result.fingerprint;
    if (result.title) vm.currentSessionTitle_ = result.title;
    std::vector<kit::Message> disk;
    for (const auto& m : result.messages) disk.push_back(fromSessionMessage(m));
    // While a reply still streams here, its messages stay as they are; join the rest.
    if (isRunning(sessionID)) {
      publish();
      co_return;
    }
    std::vector<std::string> stateKeys, diskKeys;
    for (const auto& m : vm.messages_) stateKeys.push_back(mergeKey(m.author, m.content));
    for (const auto& m : disk) diskKeys.push_back(mergeKey(m.author, m.content));
    std::vector<kit::Message> merged;
    for (const auto& op : kit::TranscriptMergePlanner::plan(stateKeys, diskKeys)) {
      using Kind = kit::TranscriptMergePlanner::MergeOp::Kind;
      if (op.kind == Kind::matched) {
        kit::Message m = disk[op.diskIndex];
        m.id = vm.messages_[op.stateIndex].id;  // stable ids keep list updates small
        merged.push_back(std::move(m));
      } else if (op.kind == Kind::takeDisk) {
        merged.push_back(disk[op.diskIndex]);
      } else {
        const auto& kept = vm.messages_[op.stateIndex];
        // Messages this desktop built while streaming are replaced by the file once it has them.
        if (base::startsWith(kept.id, "stream-") || base::startsWith(kept.id, "local-")) {
          if (diskKeys.empty()) merged.push_back(kept);
          continue;
        }
        merged.push_back(kept);
      }
    }
    vm.messages_ = std::move(merged);
    vm.totalSessionMessageCount_ = static_cast<std::int64_t>(result.messages.size());
    vm.optimisticLoadedMessageCount_ = 0;
    ++vm.transcriptPublishRevision_;
    publish();
  }

  void onEvent(const bridge::DaemonEvent& event) {
    if (const auto* received = event.get<bridge::DaemonEvent::MessageReceived>()) {
      const auto& p = received->value;
      if (p.messageId && !vm.handledMessageReceivedIDs_.insert(*p.messageId).second) return;
      kit::DesktopLocalEchoSuppressionState state;
      state.source = p.source;
      state.agent = p.agent;
      state.eventSessionID = p.sessionId;
      state.currentSessionID = vm.currentSessionID_;
      state.currentPendingSessionLocalID = vm.currentPendingSessionLocalID_;
      if (p.sessionId) state.pendingAliasForEventSession = vm.registry_.pendingIDIfRegistered(*p.sessionId);
      state.runningSessionIDs = vm.runningSessionIDs_;
      state.runningPendingSessionIDs = vm.runningPendingSessionIDs_;
      state.isForegroundStreamActive = p.sessionId && isVisible(*p.sessionId) && vm.isStreamActive_;
      if (kit::DesktopLocalEchoSuppressor::decide(state)) return;
      if (p.queued.value_or(false) && p.sessionId && p.source != kit::DesktopLocalEchoSuppressor::desktopSource) {
        vm.externalQueued_.enqueue({p.messageId.value_or(base::newUUIDString()), p.source.value_or(""), p.sender.value_or(""),
                                    p.text.value_or(""), now()},
                                   *p.sessionId);
      }
      if (p.sessionId && isVisible(*p.sessionId)) vm.refreshCurrentSession();
      else vm.reloadSidebar();
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
      for (auto& s : vm.sessions_)
        if (s.id == title->value.sessionId) s.title = title->value.title;
      if (vm.currentSessionID_ == title->value.sessionId) vm.currentSessionTitle_ = title->value.title;
      publish();
    } else if (const auto* reply = event.get<bridge::DaemonEvent::AgentReply>()) {
      // A reply that ran elsewhere (another channel) shows up once its file has it.
      if (reply->value.sessionId && isVisible(*reply->value.sessionId) && !isRunning(*reply->value.sessionId))
        vm.refreshCurrentSession();
    }
  }

  void subscribe() {
    if (!deps.events || subscription) return;
    subscription = deps.events->subscribe();
    spawn([](Impl* self, std::shared_ptr<bridge::EventSubscription> events) -> asio::awaitable<void> {
      while (true) {
        std::optional<bridge::DaemonEventPtr> event;
        try {
          event = co_await events->next();
        } catch (const bridge::SSEBufferOverflowError& e) {
          // Too far behind to trust what we show: resubscribe and reload.
          base::log::warn(kSource, "{}", e.what());
          if (!self->alive) co_return;
          self->subscription.reset();
          self->subscribe();
          self->vm.reloadSidebar();
          self->vm.refreshCurrentSession();
          co_return;
        }
        if (!event || !self->alive) co_return;
        self->onEvent(**event);
      }
    }(this, subscription->events));
  }
};

// ---------------------------------------------------------------- public

DaemonChatViewModel::DaemonChatViewModel(base::MainExecutor executor, Dependencies dependencies)
    : impl_(std::make_unique<Impl>(*this, executor, std::move(dependencies))) {
  impl_->loadSidebarState();
}

DaemonChatViewModel::~DaemonChatViewModel() {
  impl_->alive = false;
  for (auto& [token, stream] : impl_->streams) stream->cancel();
  if (impl_->subscription && impl_->deps.events) impl_->deps.events->unsubscribe(impl_->subscription->id);
  impl_->deltaTimer->cancel();
  impl_.reset();
}

std::optional<std::string> DaemonChatViewModel::currentSessionKey() const {
  if (currentSessionID_) return currentSessionID_;
  return currentPendingSessionLocalID_;
}

std::vector<kit::QueuedDraftMessage> DaemonChatViewModel::queuedDrafts() const {
  auto key = currentSessionKey();
  if (!key) return {};
  auto items = queuedDraftMessageStore_.items(registry_.realID(*key));
  if (items.empty()) items = queuedDraftMessageStore_.items(*key);
  return items;
}

std::vector<DaemonChatViewModel::ApprovalRow> DaemonChatViewModel::pendingApprovals() const {
  std::vector<ApprovalRow> rows;
  for (const auto& [id, row] : approvalRows_) rows.push_back(row);
  return rows;
}

std::vector<DaemonChatViewModel::QuestionRow> DaemonChatViewModel::pendingQuestions() const {
  std::vector<QuestionRow> rows;
  for (const auto& [id, row] : questionRows_) rows.push_back(row);
  return rows;
}

void DaemonChatViewModel::start() {
  impl_->subscribe();
  const auto generation = ++selectAgentGeneration_;
  impl_->spawn([](Impl* self, std::uint64_t generation) -> asio::awaitable<void> {
    try {
      auto agents = co_await self->deps.client->agents();
      if (!self->alive || generation != self->vm.selectAgentGeneration_) co_return;
      self->vm.agents_.clear();
      for (const auto& a : agents) {
        self->vm.agents_.push_back(AgentItem{a.name, a.name, a.displayName, a.avatar, a.hasMemory.value_or(false),
                                             a.builtin.value_or(false), a.isOverride.value_or(false),
                                             a.commandCount.value_or(0), a.skillCount.value_or(0)});
      }
      if (!self->vm.selectedAgent_ && !agents.empty()) self->vm.selectedAgent_ = agents.front().name;
      self->publish();
      self->vm.reloadSidebar();
    } catch (const std::exception& e) {
      if (self->alive) self->showError(e);
    }
  }(impl_.get(), generation));
}

void DaemonChatViewModel::selectAgent(std::string name) {
  const bool known = std::any_of(agents_.begin(), agents_.end(), [&](const AgentItem& a) { return a.name == name; });
  if (!known && !agents_.empty()) {
    errorMessage_ = "That agent no longer exists.";
    impl_->publish();
    return;
  }
  selectedAgent_ = std::move(name);
  ++selectAgentGeneration_;
  startNewSession();
  reloadSidebar();
}

void DaemonChatViewModel::reloadSidebar() {
  const auto generation = ++sidebarLoadGeneration_;
  impl_->spawn([](Impl* self, std::uint64_t generation) -> asio::awaitable<void> {
    try {
      bridge::SessionListQuery query;
      query.agent = self->vm.selectedAgent_;
      auto sessions = co_await self->deps.client->sessions(query);
      if (!self->alive || generation != self->vm.sidebarLoadGeneration_) co_return;
      self->vm.sessions_ = std::move(sessions);
      self->publish();
    } catch (const std::exception& e) {
      if (self->alive) self->showError(e);
    }
  }(impl_.get(), generation));
}

void DaemonChatViewModel::selectSession(std::string sessionID) {
  sessionID = registry_.realID(sessionID);
  // Keep what the session being left shows, so coming back is instant.
  if (auto leaving = currentSessionKey()) {
    const std::string key = registry_.realID(*leaving);
    if (impl_->isRunning(key)) {
      partialSessions_.insert(key);
      impl_->flushDeltas();
      inFlightSessionStates_.set(InFlightSessionState{messages_, streamingStatus_, deltaBuffer_, isSending_, isStreamActive_}, key);
    } else {
      cachedSessionWindows_.set(CachedSessionWindow{messages_, totalSessionMessageCount_, {}, impl_->fingerprints[key],
                                                    optimisticLoadedMessageCount_},
                                key);
    }
  }
  currentSessionID_ = sessionID;
  currentPendingSessionLocalID_ = registry_.pendingIDIfRegistered(sessionID);
  if (completedUnreadSessions_.erase(sessionID) + (impl_->isRunning(sessionID) ? 0 : partialSessions_.erase(sessionID)))
    impl_->saveSidebarState();
  currentSessionTitle_.reset();
  for (const auto& s : sessions_)
    if (s.id == sessionID) {
      currentSessionTitle_ = s.title;
      currentSessionAgent_ = s.agent;
    }
  streamingStatus_ = StreamingStatus{};
  deltaBuffer_.clear();
  if (auto inFlight = inFlightSessionStates_.value(sessionID)) {
    messages_ = inFlight->messages;
    streamingStatus_ = inFlight->streamingStatus;
    isSending_ = inFlight->isSending;
    isStreamActive_ = inFlight->isStreamActive;
    inFlightSessionStates_.set(std::nullopt, sessionID);
  } else if (auto cached = cachedSessionWindows_.value(sessionID)) {
    messages_ = cached->messages;
    totalSessionMessageCount_ = cached->totalCount;
    isSending_ = isStreamActive_ = false;
  } else {
    messages_.clear();
    isLoading_ = true;
    isSending_ = isStreamActive_ = false;
  }
  ++transcriptPublishRevision_;
  impl_->publish();
  refreshCurrentSession();
}

void DaemonChatViewModel::startNewSession() {
  if (auto leaving = currentSessionKey(); leaving && !impl_->isRunning(*leaving) && currentSessionID_) {
    cachedSessionWindows_.set(CachedSessionWindow{messages_, totalSessionMessageCount_, {}, impl_->fingerprints[*currentSessionID_],
                                                  optimisticLoadedMessageCount_},
                              *currentSessionID_);
  }
  PendingSession pending{"pending-" + base::newUUIDString(), std::nullopt, now(), std::nullopt, std::nullopt};
  pendingSessions_.push_back(pending);
  currentPendingSessionLocalID_ = pending.id;
  currentSessionID_.reset();
  currentSessionTitle_.reset();
  currentSessionAgent_ = selectedAgent_;
  messages_.clear();
  streamingStatus_ = StreamingStatus{};
  isSending_ = isStreamActive_ = false;
  ++sessionLoadGeneration_;
  ++transcriptPublishRevision_;
  impl_->publish();
}

DaemonChatViewModel::SubmitOutcome DaemonChatViewModel::submit(std::string text, bool inject) {
  if (base::trim(text).empty()) return SubmitOutcome::ignored;
  if (!currentSessionKey()) startNewSession();
  const std::string key = *currentSessionKey();
  const std::string real = registry_.realID(key);
  setComposerText({});
  if (impl_->isRunning(key)) {
    if (inject && !base::startsWith(real, "pending-")) {
      bridge::InjectRequest request;
      request.text = kit::InjectedMessagePrefix::apply(text);
      request.sessionId = real;
      request.agent = currentSessionAgent_ ? currentSessionAgent_ : selectedAgent_;
      impl_->spawn([](Impl* self, bridge::InjectRequest request, std::string text, std::string key) -> asio::awaitable<void> {
        try {
          auto stream = co_await self->deps.client->inject(request);
          while (auto event = co_await stream.next()) {
            if (event->get<SSEEvent::Injected>()) {
              self->vm.notice_ = "Injected into the running reply.";
              self->publish();
            }
          }
        } catch (const std::exception& e) {
          if (!self->alive) co_return;
          // Not lost: it waits in the queue instead.
          base::log::info(kSource, "injection failed, queued instead: {}", e.what());
          auto queued = self->vm.queuedDraftMessageStore_.items(key);
          queued.push_back(kit::QueuedDraftMessage{base::newUUIDString(), text, {}, {}, now(), std::nullopt, {}});
          self->vm.queuedDraftMessageStore_.replace(key, std::move(queued));
          self->vm.notice_ = "Could not inject; the message is queued.";
          self->publish();
        }
      }(impl_.get(), std::move(request), text, real));
      return SubmitOutcome::injected;
    }
    auto queued = queuedDraftMessageStore_.items(real);
    queued.push_back(kit::QueuedDraftMessage{base::newUUIDString(), std::move(text), {}, {}, now(), std::nullopt, {}});
    queuedDraftMessageStore_.replace(real, std::move(queued));
    notice_ = "Queued: it will be sent when the reply finishes.";
    impl_->publish();
    return SubmitOutcome::queued;
  }
  impl_->startSend(key, std::move(text));
  return SubmitOutcome::sent;
}

void DaemonChatViewModel::editQueuedDraft(const std::string& id, std::string text) {
  auto key = currentSessionKey();
  if (!key) return;
  auto items = queuedDraftMessageStore_.items(registry_.realID(*key));
  for (auto& item : items)
    if (item.id == id) item.text = std::move(text);
  queuedDraftMessageStore_.replace(registry_.realID(*key), std::move(items));
  impl_->publish();
}

void DaemonChatViewModel::retractQueuedDraft(const std::string& id) {
  auto key = currentSessionKey();
  if (!key) return;
  auto items = queuedDraftMessageStore_.items(registry_.realID(*key));
  std::erase_if(items, [&](const kit::QueuedDraftMessage& m) { return m.id == id; });
  queuedDraftMessageStore_.replace(registry_.realID(*key), std::move(items));
  impl_->publish();
}

void DaemonChatViewModel::forceSendQueued(std::string typedText) {
  auto key = currentSessionKey();
  if (!key) return;
  const std::string real = registry_.realID(*key);
  auto plan = kit::QueueForceSendPlanner::plan(queuedDraftMessageStore_.items(real), typedText);
  if (!plan) return;
  auto payload = kit::QueueForceSendPayloadPlanner::plan(*plan);
  queuedDraftMessageStore_.remove(real);
  if (impl_->isRunning(*key)) {
    // Sent as soon as the cancelled reply has ended: it drains as the queue would.
    queuedDraftMessageStore_.replace(real, {kit::QueuedDraftMessage{base::newUUIDString(), payload.promptText, payload.attachments,
                                                                    payload.contentBlocks, now(), std::nullopt, {}}});
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
  streamCancellationTracker_.markCancelling(*token);
  isCancelling_ = true;
  // A session the engine may not have created yet: decide what becomes of its pending marker.
  if (currentPendingSessionLocalID_ && !currentSessionID_) {
    const std::string pending = *currentPendingSessionLocalID_;
    kit::PendingCancelCleanupPlanner::Input input;
    input.candidate = {pending, messages_.size() <= 2 && composerText().empty()};
    input.realSessionID = registry_.realIDIfRegistered(pending);
    input.isListedPending = std::any_of(pendingSessions_.begin(), pendingSessions_.end(),
                                        [&](const PendingSession& p) { return p.id == pending; });
    input.currentPendingSessionLocalID = currentPendingSessionLocalID_;
    switch (kit::PendingCancelCleanupPlanner::plan(input)) {
      case kit::PendingCancelCleanupPlan::promoteToReal:
        currentSessionID_ = input.realSessionID;
        std::erase_if(pendingSessions_, [&](const PendingSession& p) { return p.id == pending; });
        break;
      case kit::PendingCancelCleanupPlan::discardPendingDraft:
        std::erase_if(pendingSessions_, [&](const PendingSession& p) { return p.id == pending; });
        if (impl_->deps.drafts) impl_->deps.drafts->set({}, kit::ComposerDraftKey::forPendingSession(pending));
        break;
      case kit::PendingCancelCleanupPlan::detachStalePendingMarker:
        currentPendingSessionLocalID_.reset();
        break;
      case kit::PendingCancelCleanupPlan::skip:
      case kit::PendingCancelCleanupPlan::ignoreStaleOrphan:
        break;
    }
  }
  impl_->publish();
  bridge::CancelRequest request;
  const std::string real = registry_.realID(*key);
  if (!base::startsWith(real, "pending-")) request.sessionId = real;
  request.agent = currentSessionAgent_ ? currentSessionAgent_ : selectedAgent_;
  impl_->spawn([](Impl* self, bridge::CancelRequest request, std::string token) -> asio::awaitable<void> {
    try {
      co_await self->deps.client->cancel(request);
    } catch (const std::exception& e) {
      base::log::info(kSource, "cancel request failed: {}", e.what());
    }
    // The engine may not know a run that has not started yet: end our side regardless.
    if (!self->alive) co_return;
    if (auto it = self->streams.find(token); it != self->streams.end()) it->second->cancel();
  }(impl_.get(), std::move(request), *token));
}

void DaemonChatViewModel::answerApproval(const std::string& requestID, ApprovalDecision decision) {
  auto row = approvalRows_.find(requestID);
  const std::string tool = row != approvalRows_.end() ? row->second.info.tool : std::string();
  impl_->resolveApproval(requestID);
  impl_->spawn([](Impl* self, std::string requestID, ApprovalDecision decision, std::string tool) -> asio::awaitable<void> {
    try {
      bridge::ApprovalResponseBody body{requestID, decisionText(decision)};
      co_await self->deps.client->answerApproval(body);
      if (!self->alive) co_return;
      switch (decision) {
        case ApprovalDecision::once: self->vm.notice_ = "Allowed for this turn. High-risk commands are never saved as Always Allow."; break;
        case ApprovalDecision::session: self->vm.notice_ = tool + " allowed for this session."; break;
        case ApprovalDecision::always: self->vm.notice_ = tool + " is always allowed from now on."; break;
        case ApprovalDecision::deny: self->vm.notice_ = "Denied."; break;
      }
      self->publish();
    } catch (const std::exception& e) {
      if (self->alive) self->showError(e);
    }
  }(impl_.get(), requestID, decision, tool));
}

void DaemonChatViewModel::answerQuestion(const std::string& requestID, std::vector<bridge::AnswerBody> answers) {
  impl_->resolveQuestion(requestID);
  impl_->spawn([](Impl* self, bridge::QuestionResponseBody body) -> asio::awaitable<void> {
    try {
      co_await self->deps.client->answerQuestion(body);
    } catch (const std::exception& e) {
      if (self->alive) self->showError(e);
    }
  }(impl_.get(), bridge::QuestionResponseBody{requestID, std::string("answer"), std::move(answers)}));
}

void DaemonChatViewModel::declineQuestion(const std::string& requestID) {
  impl_->resolveQuestion(requestID);
  impl_->spawn([](Impl* self, bridge::QuestionResponseBody body) -> asio::awaitable<void> {
    try {
      co_await self->deps.client->answerQuestion(body);
    } catch (const std::exception& e) {
      if (self->alive) self->showError(e);
    }
  }(impl_.get(), bridge::QuestionResponseBody{requestID, std::string("decline"), std::nullopt}));
}

void DaemonChatViewModel::refreshCurrentSession() {
  if (!currentSessionID_ || base::startsWith(*currentSessionID_, "pending-")) return;
  const auto generation = ++sessionLoadGeneration_;
  impl_->spawn(impl_->reload(*currentSessionID_, generation));
}

std::string DaemonChatViewModel::composerText() const {
  if (!impl_->deps.drafts) return {};
  auto key = currentSessionID_ ? kit::ComposerDraftKey::forSession(*currentSessionID_)
             : currentPendingSessionLocalID_ ? kit::ComposerDraftKey::forPendingSession(*currentPendingSessionLocalID_)
                                             : kit::ComposerDraftKey::forNewSession(selectedAgent_.value_or(""));
  return impl_->deps.drafts->draft(key).value_or("");
}

void DaemonChatViewModel::setComposerText(std::string text) {
  if (!impl_->deps.drafts) return;
  auto key = currentSessionID_ ? kit::ComposerDraftKey::forSession(*currentSessionID_)
             : currentPendingSessionLocalID_ ? kit::ComposerDraftKey::forPendingSession(*currentPendingSessionLocalID_)
                                             : kit::ComposerDraftKey::forNewSession(selectedAgent_.value_or(""));
  impl_->deps.drafts->set(std::move(text), key);
}

std::string DaemonChatViewModel::sessionKeyFor(const kit::Message& message) { return mergeKey(message.author, message.content); }

std::optional<std::string> DaemonChatViewModel::conversationAnnotationErrorText(std::string_view code) {
  if (code == "conversation_reply_quote_too_long") return "A selected passage is too long (max 8,000 characters).";
  if (code == "conversation_reply_comment_too_long") return "A reply is too long (max 2,000 characters).";
  if (code == "conversation_replies_too_many") return "Too many annotations — the limit is 100 per message.";
  if (code == "conversation_replies_malformed") return "The annotations could not be read. Re-select the text and try again.";
  return std::nullopt;
}

void DaemonChatViewModel::setSessionBrowseScope(std::string scope) {
  if (scope == sessionBrowseScope_) return;
  sessionBrowseScope_ = std::move(scope);
  impl_->saveSidebarState();
  impl_->publish();
}

}  // namespace tamsel::desktop
