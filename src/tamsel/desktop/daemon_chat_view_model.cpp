#include "tamsel/desktop/daemon_chat_view_model.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "tamsel/base/change_publisher.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/task_scope.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/desktop/chat/message_attachments.hpp"
#include "tamsel/kit/composer_draft_key.hpp"
#include "tamsel/kit/desktop_local_echo_suppressor.hpp"
#include "tamsel/kit/injected_message_prefix.hpp"

namespace tamsel::desktop {

namespace asio = boost::asio;
using bridge::SSEEvent;
using VM = DaemonChatViewModel;

namespace {
constexpr const char* kSource = "DaemonChatViewModel";
constexpr auto kDeltaPublishInterval = std::chrono::milliseconds(50);
constexpr const char* kCancelledBeforeResponse = "[cancelled before response]";
constexpr const char* kQueuedNotice = "Queued: it will be sent when the reply finishes.";

Timestamp now() { return base::nowTimestamp(); }

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

kit::Message* find(std::vector<kit::Message>& messages, const std::string& id) {
  for (auto& m : messages)
    if (m.id == id) return &m;
  return nullptr;
}
}  // namespace

struct DaemonChatViewModel::Impl : std::enable_shared_from_this<DaemonChatViewModel::Impl> {
  // Cleared when the view model goes; nothing reaches it afterwards.
  VM* owner;
  base::MainExecutor& executor;
  Dependencies deps;
  base::ChangePublisher publisher;

  ChatPart<ChatSidebarState> sidebar;
  ChatPart<ChatTranscriptState> transcript;
  ChatPart<ChatRepliesState> replies;
  ChatPart<ChatRequestsState> requests;
  ChatPart<ChatQueueState> queue;
  ChatPart<ChatStatusState> status;
  SessionCaches caches;
  bridge::SessionIdentityRegistry registry;
  kit::SessionScopedValueStore<bool> recentSSEDoneSessions{Bounds::maxRecentSSEDoneSessionCount};
  kit::SessionScopedValueStore<bool> handledMessageReceivedIDs{
      Bounds::maxHandledMessageReceivedIDCount};
  std::uint64_t selectAgentGeneration = 0, sessionLoadGeneration = 0, sidebarLoadGeneration = 0;

  // Streamed text waiting for the next publication, per stream token.
  std::map<std::string, std::string> pendingDeltas;
  std::unique_ptr<asio::steady_timer> deltaTimer;
  bool deltaFlushScheduled = false;
  std::optional<bridge::EventStreamClient::Subscription> subscription;
  // Running streams: token -> the stream (to cancel it) and the key of its session.
  std::map<std::string, bridge::ReplyStream*> streams;
  std::map<std::string, std::string> streamSession;
  // The composer's attached files by draft key; the drafts store keeps them across restarts.
  std::map<std::string, std::vector<kit::Attachment>> composerAttachments;
  base::TaskScope tasks;

  Impl(VM* owner, base::MainExecutor& e, Dependencies d)
      : owner(owner),
        executor(e),
        deps(std::move(d)),
        publisher(e),
        sidebar(e, publisher),
        transcript(e, publisher),
        replies(e, publisher),
        requests(e, publisher),
        queue(e, publisher),
        status(e, publisher),
        tasks(e.ioExecutor()) {
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
    sidebar.close();
    transcript.close();
    replies.close();
    requests.close();
    queue.close();
    status.close();
    tasks.close();
  }

  std::optional<std::string> currentSessionKey() const { return transcript->currentSessionKey(); }
  std::optional<std::string> agentForRequests() const {
    return transcript->currentSessionAgent ? transcript->currentSessionAgent
                                           : sidebar->selectedAgent;
  }
  void refreshOwner() {
    if (owner) owner->refreshCurrentSession();
  }
  void reloadOwnerSidebar() {
    if (owner) owner->reloadSidebar();
  }

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
    try {
      sidebar->save(*deps.preferences);
    } catch (const std::exception& e) {
      base::log::warn(kSource, "could not keep the sidebar state: {}", e.what());
    }
  }

  void showError(const std::exception& e) { status.edit().showError(e); }

  std::string keyOf(const std::string& id) const { return registry.realID(id); }

  bool isVisible(const std::string& sessionKey) const {
    auto current = currentSessionKey();
    return current && (keyOf(*current) == keyOf(sessionKey));
  }
  bool isRunning(const std::string& sessionKey) const {
    return replies->isRunning(sessionKey, registry);
  }

  // The transcript of a session: the visible one, or the kept state of one in the background.
  template <class F>
  void withTranscript(const std::string& sessionKey, F&& change) {
    if (isVisible(sessionKey)) {
      auto& shown = transcript.edit();
      change(shown.messages);
      ++shown.publishRevision;
      return;
    }
    auto state = caches.inFlight.value(keyOf(sessionKey)).value_or(InFlightSessionState{});
    change(state.messages);
    caches.inFlight.set(std::move(state), keyOf(sessionKey));
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
    if (!replies->deltaBuffer.empty()) replies.edit().deltaBuffer.clear();
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
    auto& r = replies.edit();
    r.setRunning(sessionKey, running, registry);
    if (isVisible(sessionKey)) r.isStreamActive = r.isSending = running;
  }

  void addApproval(const bridge::ApprovalEvent& event, const std::string& sessionKey) {
    // Checked first: a request seen again must not notify the cards' observers.
    if (!requests->knowsApproval(event.requestId)) requests.edit().addApproval(event, sessionKey);
  }

  void addQuestion(const bridge::QuestionRequestPayload& request, const std::string& sessionKey) {
    if (!requests->knowsQuestion(request.requestId))
      requests.edit().addQuestion(request, sessionKey);
  }

  void handleToolEvent(const std::string& token, const std::string& sessionKey,
                       const bridge::ToolEvent& tool) {
    kit::ToolEntrySnapshot entry;
    entry.id = tool.toolUseId.value_or(tool.tool);
    entry.name = tool.tool;
    const std::string toolStatus = tool.status.value_or("running");
    entry.status = toolStatus == "denied" ? kit::ToolRunStatus::denied
                   : (toolStatus == "done" || toolStatus == "completed" || toolStatus == "error")
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
    if (isVisible(sessionKey)) replies.edit().showTool(entry);
  }

  // The engine named a session that was pending here: everything kept under the pending id moves.
  void bindRealSession(const std::string& token, const std::string& pending,
                       const std::string& real) {
    registry.registerPair(pending, real);
    auto& r = replies.edit();
    r.streamingTokensBySession[real] = token;
    if (r.runningPendingSessionIDs.erase(pending)) r.runningSessionIDs.insert(real);
    if (transcript->currentPendingSessionLocalID == pending)
      transcript.edit().currentSessionID = real;
    if (deps.drafts)
      deps.drafts->rekey(kit::ComposerDraftKey::forPendingSession(pending),
                         kit::ComposerDraftKey::forSession(real));
    moveAttachments(kit::ComposerDraftKey::forPendingSession(pending),
                    kit::ComposerDraftKey::forSession(real));
    if (!queue->drafts.items(pending).empty()) queue.edit().rekey(pending, real);
    // The engine has the session now: list it, and its pending row goes once it is listed.
    reloadOwnerSidebar();
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
            token, keyOf(sessionKey), replies->streamingTokensBySession,
            currentSessionKey() ? std::optional(keyOf(*currentSessionKey())) : std::nullopt);
        if (ownership == kit::StreamOwnership::drop && !event->get<SSEEvent::SessionStarted>())
          continue;
        if (const auto* started = event->get<SSEEvent::SessionStarted>()) {
          if (started->value.sessionId != sessionKey)
            bindRealSession(token, sessionKey, started->value.sessionId);
        } else if (const auto* delta = event->get<SSEEvent::Delta>()) {
          pendingDeltas[token] += delta->value.text;
          if (isVisible(sessionKey)) replies.edit().deltaBuffer += delta->value.text;
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
          addApproval(approval->value, keyOf(sessionKey));
        } else if (const auto* question = event->get<SSEEvent::Question>()) {
          addQuestion(question->value, keyOf(sessionKey));
        } else if (const auto* error = event->get<SSEEvent::Error>()) {
          status.edit().errorMessage = error->value.error;
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
        } else if (event->get<SSEEvent::InjectedCommitted>()) {
          status.edit().notice = "Your message was taken into the running reply.";
        }
      }
      if (stream.endedPrematurely() && !replies->cancellations.isCancelling(token))
        status.edit().errorMessage = "The reply ended before it was complete";
    } catch (const std::exception& e) {
      if (closed()) co_return;
      if (!replies->cancellations.isCancelling(token)) showError(e);
    }
    if (closed()) co_return;
    flushDeltas();
    finishStream(token, sessionKey, replies->cancellations.isCancelling(token));
  }

  void finishStream(const std::string& token, const std::string& sessionKey, bool cancelled) {
    streams.erase(token);
    streamSession.erase(token);
    pendingDeltas.erase(token);
    replies.edit().forgetToken(token);
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
    // Checked first: a session listed as idle must not notify the sidebar's observers.
    if (const auto* listed = sidebar->session(keyOf(sessionKey));
        listed && listed->inProgress.value_or(false))
      sidebar.edit().replyEnded(keyOf(sessionKey));
    if (isVisible(sessionKey)) {
      auto& r = replies.edit();
      r.isCancelling = false;
      r.streamingStatus = StreamingStatus{};
    }
    recentSSEDoneSessions.set(true, keyOf(sessionKey));
    if (!isVisible(sessionKey) && !cancelled) {
      sidebar.edit().finishedUnseen(keyOf(sessionKey));
      saveSidebarState();
    }
    queue.edit().drain.markReady(keyOf(sessionKey));
    drainQueue(keyOf(sessionKey));
    if (isVisible(sessionKey)) refreshOwner();
  }

  void drainQueue(const std::string& sessionKey) {
    auto queued = queue->drafts.items(sessionKey);
    const auto action =
        queue.edit().drain.action(sessionKey, !queued.empty(), isRunning(sessionKey));
    if (action != kit::QueuedDraftDrainAction::drainNow) return;
    auto joined = kit::QueuedDraftJoinPlanner::join(queued);
    if (joined && !joined->attachments.empty()) {
      auto check = checkAttachedFiles(std::move(joined->attachments));
      if (check.error) {
        // Kept in the queue: the user can remove the file or send the rest by hand.
        status.edit().errorMessage = *check.error;
        return;
      }
      joined->attachments = std::move(check.attachments);
    }
    queue.edit().drafts.remove(sessionKey);
    if (status->notice == kQueuedNotice) status.edit().notice.reset();  // it is being sent now
    if (joined) startSend(sessionKey, joined->text, std::move(joined->attachments));
  }

  std::vector<kit::Attachment> attachmentsFor(const std::string& draftKey) const {
    if (auto kept = composerAttachments.find(draftKey); kept != composerAttachments.end())
      return kept->second;
    if (!deps.drafts) return {};
    return decodeComposerAttachments(
        deps.drafts->draft(kit::ComposerDraftKey::attachmentsKey(draftKey)).value_or(""));
  }

  void setAttachmentsFor(const std::string& draftKey, std::vector<kit::Attachment> attachments) {
    if (deps.drafts)
      deps.drafts->set(attachments.empty() ? std::string() : encodeComposerAttachments(attachments),
                       kit::ComposerDraftKey::attachmentsKey(draftKey));
    if (attachments.empty())
      composerAttachments.erase(draftKey);
    else
      composerAttachments[draftKey] = std::move(attachments);
  }

  void moveAttachments(const std::string& from, const std::string& to) {
    auto moving = attachmentsFor(from);
    if (moving.empty()) return;
    setAttachmentsFor(from, {});
    setAttachmentsFor(to, std::move(moving));
  }

  // Appends the optimistic user message and opens the reply stream.
  void startSend(const std::string& sessionKey, std::string text,
                 std::vector<kit::Attachment> attachments = {}) {
    const std::string token = base::newUUIDString();
    const bool pending =
        base::startsWith(sessionKey, "pending-") && keyOf(sessionKey) == sessionKey;
    withTranscript(sessionKey, [&](std::vector<kit::Message>& messages) {
      kit::Message user;
      user.id = "local-" + token;
      user.author = "user";
      user.content = text;
      user.timestamp = now();
      user.attachments = attachments;
      messages.push_back(std::move(user));
      kit::Message reply;
      reply.id = "stream-" + token;
      reply.author = "assistant";
      reply.timestamp = now();
      messages.push_back(std::move(reply));
    });
    auto& r = replies.edit();
    if (isVisible(sessionKey)) {
      ++transcript.edit().optimisticLoadedMessageCount;
      r.streamingStatus = StreamingStatus{};
      r.streamingStatus.isActive = true;
      r.streamingStatus.runState = RunState::active;
      r.streamingStatus.ownerSessionID = keyOf(sessionKey);
    }
    r.streamingTokensBySession[keyOf(sessionKey)] = token;
    status.edit().clearErrors();
    setRunning(sessionKey, true);

    bridge::SendMessageRequest request;
    request.text = std::move(text);
    request.agent = agentForRequests();
    if (pending)
      request.newSession = true;
    else
      request.sessionId = keyOf(sessionKey);
    request.clientMessageId = token;
    if (!attachments.empty()) request.attachments = messageAttachmentPayloads(attachments);
    spawn([](Impl* self, std::string token, std::string sessionKey,
             bridge::SendMessageRequest request) -> asio::awaitable<void> {
      std::optional<bridge::ReplyStream> stream;
      try {
        stream.emplace(co_await self->deps.engine->sendMessage(request));
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
    const auto agent = transcript->currentSessionAgent;
    const auto lastSeen = caches.fingerprints[sessionID];
    auto result = co_await deps.history->load(sessionID, agent, lastSeen);
    if (closed() || generation != sessionLoadGeneration) co_return;  // a newer load has started
    if (!result.found && agent) {
      // The default agent's sessions live in the shared folder, not under the agent's name.
      result = co_await deps.history->load(sessionID, std::nullopt, lastSeen);
      if (closed() || generation != sessionLoadGeneration) co_return;
    }
    auto& shown = transcript.edit();
    shown.isLoading = false;
    if (result.unchanged || !result.found) co_return;
    caches.fingerprints[sessionID] = result.fingerprint;
    if (result.title) shown.currentSessionTitle = result.title;
    // While a reply still streams here, its messages stay as they are.
    if (isRunning(sessionID)) co_return;
    std::vector<kit::Message> disk;
    disk.reserve(result.messages.size());
    for (const auto& m : result.messages)
      disk.push_back(ChatTranscriptState::fromSessionMessage(m));
    ChatTranscriptState::attachDeliverables(disk, result.deliverables);
    shown.joinFromDisk(std::move(disk));
    shown.totalSessionMessageCount = static_cast<std::int64_t>(result.messages.size());
    shown.optimisticLoadedMessageCount = 0;
  }

  void onEvent(const bridge::DaemonEvent& event) {
    if (const auto* received = event.get<bridge::DaemonEvent::MessageReceived>()) {
      const auto& p = received->value;
      if (p.messageId) {
        if (handledMessageReceivedIDs.find(*p.messageId)) return;
        handledMessageReceivedIDs.set(true, *p.messageId);
      }
      kit::DesktopLocalEchoSuppressionState state;
      state.source = p.source;
      state.agent = p.agent;
      state.eventSessionID = p.sessionId;
      state.currentSessionID = transcript->currentSessionID;
      state.currentPendingSessionLocalID = transcript->currentPendingSessionLocalID;
      if (p.sessionId)
        state.pendingAliasForEventSession = registry.pendingIDIfRegistered(*p.sessionId);
      state.runningSessionIDs = replies->runningSessionIDs;
      state.runningPendingSessionIDs = replies->runningPendingSessionIDs;
      state.isForegroundStreamActive =
          p.sessionId && isVisible(*p.sessionId) && replies->isStreamActive;
      if (kit::DesktopLocalEchoSuppressor::decide(state)) return;
      if (p.queued.value_or(false) && p.sessionId &&
          p.source != kit::DesktopLocalEchoSuppressor::desktopSource) {
        queue.edit().external.enqueue(
            {p.messageId.value_or(base::newUUIDString()), p.source.value_or(""),
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
      requests.edit().resolveApproval(resolved->value.requestId);
    } else if (const auto* question = event.get<bridge::DaemonEvent::QuestionRequest>()) {
      addQuestion(question->value, question->value.sessionId.value_or(""));
    } else if (const auto* answered = event.get<bridge::DaemonEvent::QuestionResolved>()) {
      requests.edit().resolveQuestion(answered->value.requestId);
    } else if (const auto* title = event.get<bridge::DaemonEvent::SessionTitleUpdated>()) {
      for (auto& s : sidebar.edit().sessions)
        if (s.id == title->value.sessionId) s.title = title->value.title;
      if (transcript->currentSessionID == title->value.sessionId)
        transcript.edit().currentSessionTitle = title->value.title;
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

  // Keeps what the session being left shows, so coming back is instant.
  void keepLeavingSession() {
    auto leaving = currentSessionKey();
    if (!leaving) return;
    const std::string key = keyOf(*leaving);
    const auto& shown = transcript.state();
    if (isRunning(key)) {
      sidebar.edit().partialSessions.insert(key);
      flushDeltas();
      const auto& r = replies.state();
      caches.inFlight.set(InFlightSessionState{shown.messages, r.streamingStatus, r.deltaBuffer,
                                               r.isSending, r.isStreamActive},
                          key);
    } else if (shown.currentSessionID) {
      caches.windows.set(CachedSessionWindow{shown.messages,
                                             shown.totalSessionMessageCount,
                                             {},
                                             caches.fingerprints[key],
                                             shown.optimisticLoadedMessageCount},
                         key);
    }
  }

  // A new chat that has sent nothing yet shares the agent's new-session draft, so a line left in
  // it comes back in the next new chat; once it has sent, it keeps its own until the engine
  // names the session (then the draft moves to the session's key).
  std::string draftKey() const {
    const auto& shown = transcript.state();
    if (shown.currentSessionID) return kit::ComposerDraftKey::forSession(*shown.currentSessionID);
    if (shown.currentPendingSessionLocalID && !shown.messages.empty())
      return kit::ComposerDraftKey::forPendingSession(*shown.currentPendingSessionLocalID);
    return kit::ComposerDraftKey::forNewSession(
        shown.currentSessionAgent.value_or(sidebar->selectedAgent.value_or("")));
  }
};

// ---------------------------------------------------------------- public

DaemonChatViewModel::DaemonChatViewModel(base::MainExecutor& executor, Dependencies dependencies)
    : impl_(std::make_shared<Impl>(this, executor, std::move(dependencies))) {
  if (impl_->deps.preferences) impl_->sidebar.edit().load(*impl_->deps.preferences);
}

DaemonChatViewModel::~DaemonChatViewModel() { impl_->close(); }

std::optional<std::string> DaemonChatViewModel::currentSessionKey() const {
  return impl_->currentSessionKey();
}

std::vector<kit::QueuedDraftMessage> DaemonChatViewModel::queuedDrafts() const {
  auto key = currentSessionKey();
  if (!key) return {};
  auto items = impl_->queue->drafts.items(impl_->keyOf(*key));
  if (items.empty()) items = impl_->queue->drafts.items(*key);
  return items;
}

std::vector<DaemonChatViewModel::ApprovalRow> DaemonChatViewModel::pendingApprovals() const {
  return impl_->requests->approvals();
}

std::vector<DaemonChatViewModel::QuestionRow> DaemonChatViewModel::pendingQuestions() const {
  return impl_->requests->questions();
}

void DaemonChatViewModel::start() {
  impl_->subscribe();
  const auto generation = ++impl_->selectAgentGeneration;
  impl_->spawn([](Impl* self, std::uint64_t generation) -> asio::awaitable<void> {
    try {
      auto agents = co_await self->deps.engine->agents();
      if (self->closed() || generation != self->selectAgentGeneration) co_return;
      self->sidebar.edit().applyAgents(agents);
      self->reloadOwnerSidebar();
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), generation));
}

void DaemonChatViewModel::selectAgent(std::string name) {
  if (!impl_->sidebar->knowsAgent(name) && !impl_->sidebar->agents.empty()) {
    impl_->status.edit().errorMessage = "That agent no longer exists.";
    return;
  }
  impl_->sidebar.edit().selectedAgent = std::move(name);
  ++impl_->selectAgentGeneration;
  startNewSession();
  reloadSidebar();
}

void DaemonChatViewModel::reloadSidebar() {
  const auto generation = ++impl_->sidebarLoadGeneration;
  impl_->spawn([](Impl* self, std::uint64_t generation) -> asio::awaitable<void> {
    try {
      bridge::SessionListQuery query;
      query.agent = self->sidebar->selectedAgent;
      auto sessions = co_await self->deps.engine->sessions(query);
      if (self->closed() || generation != self->sidebarLoadGeneration) co_return;
      auto& sidebar = self->sidebar.edit();
      sidebar.sessions = std::move(sessions);
      // A pending session the engine has named and lists is shown once, under its real id.
      std::erase_if(sidebar.pendingSessions, [&](const PendingSession& pending) {
        const auto real = self->registry.realIDIfRegistered(pending.id);
        return real && sidebar.session(*real) != nullptr;
      });
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), generation));
}

void DaemonChatViewModel::selectSession(std::string sessionID) {
  auto& impl = *impl_;
  sessionID = impl.keyOf(sessionID);
  impl.keepLeavingSession();
  auto& shown = impl.transcript.edit();
  shown.currentSessionID = sessionID;
  shown.currentPendingSessionLocalID = impl.registry.pendingIDIfRegistered(sessionID);
  if (impl.sidebar.edit().opened(sessionID, impl.isRunning(sessionID))) impl.saveSidebarState();
  shown.currentSessionTitle.reset();
  if (const auto* listed = impl.sidebar->session(sessionID)) {
    shown.currentSessionTitle = listed->title;
    shown.currentSessionAgent = listed->agent;
  }
  auto& r = impl.replies.edit();
  r.streamingStatus = StreamingStatus{};
  r.deltaBuffer.clear();
  if (auto inFlight = impl.caches.inFlight.value(sessionID)) {
    shown.messages = std::move(inFlight->messages);
    r.streamingStatus = std::move(inFlight->streamingStatus);
    r.isSending = inFlight->isSending;
    r.isStreamActive = inFlight->isStreamActive;
    impl.caches.inFlight.set(std::nullopt, sessionID);
  } else if (auto cached = impl.caches.windows.value(sessionID)) {
    shown.messages = std::move(cached->messages);
    shown.totalSessionMessageCount = cached->totalCount;
    r.isSending = r.isStreamActive = false;
  } else {
    shown.messages.clear();
    shown.isLoading = true;
    r.isSending = r.isStreamActive = false;
  }
  ++shown.publishRevision;
  refreshCurrentSession();
}

void DaemonChatViewModel::startNewSession() {
  auto& impl = *impl_;
  impl.keepLeavingSession();
  PendingSession pending{"pending-" + base::newUUIDString(), std::nullopt, now(), std::nullopt,
                         std::nullopt};
  impl.sidebar.edit().pendingSessions.push_back(pending);
  auto& shown = impl.transcript.edit();
  shown.currentPendingSessionLocalID = pending.id;
  shown.currentSessionID.reset();
  shown.currentSessionTitle.reset();
  shown.currentSessionAgent = impl.sidebar->selectedAgent;
  shown.messages.clear();
  ++shown.publishRevision;
  auto& r = impl.replies.edit();
  r.streamingStatus = StreamingStatus{};
  r.isSending = r.isStreamActive = false;
  ++impl.sessionLoadGeneration;
}

DaemonChatViewModel::SubmitOutcome DaemonChatViewModel::submit(
    std::string text, bool inject, std::vector<kit::Attachment> attachments) {
  if (base::trim(text).empty() && attachments.empty()) return SubmitOutcome::ignored;
  if (!attachments.empty()) {
    auto check = checkAttachedFiles(std::move(attachments));
    if (check.error) {
      impl_->status.edit().errorMessage = *check.error;
      return SubmitOutcome::refused;
    }
    attachments = std::move(check.attachments);
  }
  if (!currentSessionKey()) startNewSession();
  const std::string key = *currentSessionKey();
  const std::string real = impl_->keyOf(key);
  setComposerText({});
  setComposerAttachments({});
  if (!impl_->isRunning(key)) {
    impl_->startSend(key, std::move(text), std::move(attachments));
    return SubmitOutcome::sent;
  }
  if (!attachments.empty()) {
    impl_->queue.edit().enqueue(real, std::move(text), std::move(attachments));
    impl_->status.edit().notice =
        inject ? "Files cannot join a running reply; the message is queued." : kQueuedNotice;
    return SubmitOutcome::queued;
  }
  if (inject && !base::startsWith(real, "pending-")) {
    bridge::InjectRequest request;
    request.text = kit::InjectedMessagePrefix::apply(text);
    request.sessionId = real;
    request.agent = impl_->agentForRequests();
    impl_->spawn([](Impl* self, bridge::InjectRequest request, std::string text,
                    std::string key) -> asio::awaitable<void> {
      try {
        auto stream = co_await self->deps.engine->inject(request);
        while (auto event = co_await stream.next()) {
          if (event->get<SSEEvent::Injected>())
            self->status.edit().notice = "Injected into the running reply.";
        }
      } catch (const std::exception& e) {
        if (self->closed()) co_return;
        // Not lost: it waits in the queue instead.
        base::log::info(kSource, "injection failed, queued instead: {}", e.what());
        self->queue.edit().enqueue(key, std::move(text));
        self->status.edit().notice = "Could not inject; the message is queued.";
      }
    }(impl_.get(), std::move(request), text, real));
    return SubmitOutcome::injected;
  }
  impl_->queue.edit().enqueue(real, std::move(text));
  impl_->status.edit().notice = kQueuedNotice;
  return SubmitOutcome::queued;
}

void DaemonChatViewModel::editQueuedDraft(const std::string& id, std::string text) {
  if (auto key = currentSessionKey())
    impl_->queue.edit().edit(impl_->keyOf(*key), id, std::move(text));
}

void DaemonChatViewModel::retractQueuedDraft(const std::string& id) {
  if (auto key = currentSessionKey()) impl_->queue.edit().retract(impl_->keyOf(*key), id);
}

bool DaemonChatViewModel::forceSendQueued(std::string typedText,
                                          std::vector<kit::Attachment> typedAttachments) {
  auto key = currentSessionKey();
  if (!key) return false;
  const std::string real = impl_->keyOf(*key);
  auto waiting = impl_->queue->drafts.items(real);
  if (!typedAttachments.empty()) {
    // Typed files go last, as the typed text does: as one more draft, just queued.
    waiting.push_back(kit::QueuedDraftMessage{base::newUUIDString(),
                                              std::move(typedText),
                                              std::move(typedAttachments),
                                              {},
                                              now(),
                                              std::nullopt,
                                              {}});
    typedText.clear();
  }
  auto plan = kit::QueueForceSendPlanner::plan(waiting, typedText);
  if (!plan) return false;
  auto payload = kit::QueueForceSendPayloadPlanner::plan(*plan);
  if (!payload.attachments.empty()) {
    auto check = checkAttachedFiles(std::move(payload.attachments));
    if (check.error) {
      impl_->status.edit().errorMessage = *check.error;
      return false;
    }
    payload.attachments = std::move(check.attachments);
  }
  setComposerText({});
  setComposerAttachments({});
  auto& queue = impl_->queue.edit();
  queue.drafts.remove(real);
  if (impl_->isRunning(*key)) {
    // Sent as soon as the cancelled reply has ended: it drains as the queue would.
    queue.drafts.replace(real, {kit::QueuedDraftMessage{base::newUUIDString(),
                                                        payload.promptText,
                                                        payload.attachments,
                                                        payload.contentBlocks,
                                                        now(),
                                                        std::nullopt,
                                                        {}}});
    cancel();
  } else {
    impl_->startSend(*key, payload.promptText, std::move(payload.attachments));
  }
  return true;
}

void DaemonChatViewModel::cancel() {
  auto& impl = *impl_;
  auto key = currentSessionKey();
  if (!key) return;
  auto token = impl.replies->tokenFor(*key, impl.registry);
  if (!token) return;
  auto& r = impl.replies.edit();
  r.cancellations.markCancelling(*token);
  r.isCancelling = true;
  // A session the engine may not have created yet: decide what becomes of its pending marker.
  if (impl.transcript->currentPendingSessionLocalID && !impl.transcript->currentSessionID) {
    const std::string pending = *impl.transcript->currentPendingSessionLocalID;
    kit::PendingCancelCleanupPlanner::Input input;
    input.candidate = {pending, impl.transcript->messages.size() <= 2 && composerText().empty()};
    input.realSessionID = impl.registry.realIDIfRegistered(pending);
    input.isListedPending = impl.sidebar->hasPending(pending);
    input.currentPendingSessionLocalID = impl.transcript->currentPendingSessionLocalID;
    switch (kit::PendingCancelCleanupPlanner::plan(input)) {
      case kit::PendingCancelCleanupPlan::promoteToReal:
        impl.transcript.edit().currentSessionID = input.realSessionID;
        impl.sidebar.edit().removePending(pending);
        break;
      case kit::PendingCancelCleanupPlan::discardPendingDraft:
        impl.sidebar.edit().removePending(pending);
        if (impl.deps.drafts)
          impl.deps.drafts->set({}, kit::ComposerDraftKey::forPendingSession(pending));
        impl.setAttachmentsFor(kit::ComposerDraftKey::forPendingSession(pending), {});
        break;
      case kit::PendingCancelCleanupPlan::detachStalePendingMarker:
        impl.transcript.edit().currentPendingSessionLocalID.reset();
        break;
      case kit::PendingCancelCleanupPlan::skip:
      case kit::PendingCancelCleanupPlan::ignoreStaleOrphan:
        break;
    }
  }
  bridge::CancelRequest request;
  const std::string real = impl.keyOf(*key);
  if (!base::startsWith(real, "pending-")) request.sessionId = real;
  request.agent = impl.agentForRequests();
  impl.spawn(
      [](Impl* self, bridge::CancelRequest request, std::string token) -> asio::awaitable<void> {
        try {
          co_await self->deps.engine->cancel(request);
        } catch (const std::exception& e) {
          base::log::info(kSource, "cancel request failed: {}", e.what());
        }
        // The engine may not know a run that has not started yet: end our side regardless.
        if (self->closed()) co_return;
        if (auto it = self->streams.find(token); it != self->streams.end()) it->second->cancel();
      }(impl_.get(), std::move(request), *token));
}

void DaemonChatViewModel::answerApproval(const std::string& requestID, ApprovalDecision decision) {
  const auto& rows = impl_->requests->approvalRows;
  auto row = rows.find(requestID);
  const std::string tool = row != rows.end() ? row->second.info.tool : std::string();
  impl_->requests.edit().resolveApproval(requestID);
  impl_->spawn([](Impl* self, std::string requestID, ApprovalDecision decision,
                  std::string tool) -> asio::awaitable<void> {
    try {
      bridge::ApprovalResponseBody body{requestID, decisionText(decision)};
      co_await self->deps.engine->answerApproval(body);
      if (self->closed()) co_return;
      auto& notice = self->status.edit().notice;
      switch (decision) {
        case ApprovalDecision::once:
          notice = "Allowed for this turn. High-risk commands are never saved as Always Allow.";
          break;
        case ApprovalDecision::session:
          notice = tool + " allowed for this session.";
          break;
        case ApprovalDecision::always:
          notice = tool + " is always allowed from now on.";
          break;
        case ApprovalDecision::deny:
          notice = "Denied.";
          break;
      }
    } catch (const std::exception& e) {
      if (!self->closed()) self->showError(e);
    }
  }(impl_.get(), requestID, decision, tool));
}

namespace {
asio::awaitable<void> sendQuestionResponse(std::shared_ptr<DaemonChatViewModel::Impl> self,
                                           bridge::QuestionResponseBody body);
}

void DaemonChatViewModel::answerQuestion(const std::string& requestID,
                                         std::vector<bridge::AnswerBody> answers) {
  impl_->requests.edit().resolveQuestion(requestID);
  impl_->spawn(sendQuestionResponse(
      impl_, bridge::QuestionResponseBody{requestID, std::string("answer"), std::move(answers)}));
}

void DaemonChatViewModel::declineQuestion(const std::string& requestID) {
  impl_->requests.edit().resolveQuestion(requestID);
  impl_->spawn(sendQuestionResponse(
      impl_, bridge::QuestionResponseBody{requestID, std::string("decline"), std::nullopt}));
}

namespace {
asio::awaitable<void> sendQuestionResponse(std::shared_ptr<DaemonChatViewModel::Impl> self,
                                           bridge::QuestionResponseBody body) {
  try {
    co_await self->deps.engine->answerQuestion(body);
  } catch (const std::exception& e) {
    if (!self->closed()) self->showError(e);
  }
}
}  // namespace

void DaemonChatViewModel::refreshCurrentSession() {
  const auto& id = impl_->transcript->currentSessionID;
  if (!id || base::startsWith(*id, "pending-")) return;
  const auto generation = ++impl_->sessionLoadGeneration;
  impl_->spawn(impl_->reload(*id, generation));
}

std::string DaemonChatViewModel::composerText() const {
  if (!impl_->deps.drafts) return {};
  return impl_->deps.drafts->draft(impl_->draftKey()).value_or("");
}

void DaemonChatViewModel::setComposerText(std::string text) {
  if (impl_->deps.drafts) impl_->deps.drafts->set(std::move(text), impl_->draftKey());
}

std::vector<kit::Attachment> DaemonChatViewModel::composerAttachments() const {
  return impl_->attachmentsFor(impl_->draftKey());
}

void DaemonChatViewModel::setComposerAttachments(std::vector<kit::Attachment> attachments) {
  impl_->setAttachmentsFor(impl_->draftKey(), std::move(attachments));
}

std::string DaemonChatViewModel::sessionKeyFor(const kit::Message& message) {
  return ChatTranscriptState::mergeKey(message.author, message.content);
}

std::optional<std::string> DaemonChatViewModel::conversationAnnotationErrorText(
    std::string_view code) {
  return ChatStatusState::conversationAnnotationErrorText(code);
}

void DaemonChatViewModel::setSessionBrowseScope(std::string scope) {
  if (scope == impl_->sidebar->sessionBrowseScope) return;
  impl_->sidebar.edit().sessionBrowseScope = std::move(scope);
  impl_->saveSidebarState();
}

// ---------------------------------------------------------------- observable state

auto DaemonChatViewModel::changed() -> base::Signal<>& { return impl_->publisher.changed(); }
auto DaemonChatViewModel::sidebar() -> ChatPartView<ChatSidebarState>& { return impl_->sidebar; }
auto DaemonChatViewModel::transcript() -> ChatPartView<ChatTranscriptState>& {
  return impl_->transcript;
}
auto DaemonChatViewModel::replies() -> ChatPartView<ChatRepliesState>& { return impl_->replies; }
auto DaemonChatViewModel::requests() -> ChatPartView<ChatRequestsState>& { return impl_->requests; }
auto DaemonChatViewModel::queue() -> ChatPartView<ChatQueueState>& { return impl_->queue; }
auto DaemonChatViewModel::status() -> ChatPartView<ChatStatusState>& { return impl_->status; }

auto DaemonChatViewModel::agents() const -> const std::vector<AgentItem>& {
  return impl_->sidebar->agents;
}
auto DaemonChatViewModel::selectedAgent() const -> const std::optional<std::string>& {
  return impl_->sidebar->selectedAgent;
}
auto DaemonChatViewModel::sessions() const -> const std::vector<bridge::DaemonSession>& {
  return impl_->sidebar->sessions;
}
auto DaemonChatViewModel::pendingSessions() const -> const std::vector<PendingSession>& {
  return impl_->sidebar->pendingSessions;
}
auto DaemonChatViewModel::currentSessionID() const -> const std::optional<std::string>& {
  return impl_->transcript->currentSessionID;
}
auto DaemonChatViewModel::currentSessionTitle() const -> const std::optional<std::string>& {
  return impl_->transcript->currentSessionTitle;
}
auto DaemonChatViewModel::currentPendingSessionLocalID() const
    -> const std::optional<std::string>& {
  return impl_->transcript->currentPendingSessionLocalID;
}
auto DaemonChatViewModel::messages() const -> const std::vector<kit::Message>& {
  return impl_->transcript->messages;
}
auto DaemonChatViewModel::isLoading() const -> bool { return impl_->transcript->isLoading; }
auto DaemonChatViewModel::isSending() const -> bool { return impl_->replies->isSending; }
auto DaemonChatViewModel::isCancelling() const -> bool { return impl_->replies->isCancelling; }
auto DaemonChatViewModel::isStreamActive() const -> bool { return impl_->replies->isStreamActive; }
auto DaemonChatViewModel::streamingStatus() const -> const StreamingStatus& {
  return impl_->replies->streamingStatus;
}
auto DaemonChatViewModel::transcriptPublishRevision() const -> std::uint64_t {
  return impl_->transcript->publishRevision;
}
auto DaemonChatViewModel::runningSessionIDs() const -> const std::set<std::string>& {
  return impl_->replies->runningSessionIDs;
}
auto DaemonChatViewModel::runningPendingSessionIDs() const -> const std::set<std::string>& {
  return impl_->replies->runningPendingSessionIDs;
}
auto DaemonChatViewModel::errorMessage() const -> const std::optional<std::string>& {
  return impl_->status->errorMessage;
}
auto DaemonChatViewModel::quotaError() const -> const std::optional<bridge::QuotaDetails>& {
  return impl_->status->quotaError;
}
auto DaemonChatViewModel::creditsError() const -> const std::optional<bridge::CreditsDetails>& {
  return impl_->status->creditsError;
}
auto DaemonChatViewModel::isRetryingAfterRefill() const -> bool {
  return impl_->status->isRetryingAfterRefill;
}
auto DaemonChatViewModel::notice() const -> const std::optional<std::string>& {
  return impl_->status->notice;
}
auto DaemonChatViewModel::sessionIdentityRegistry() -> bridge::SessionIdentityRegistry& {
  return impl_->registry;
}
auto DaemonChatViewModel::cachedSessionCount() const -> std::size_t {
  return impl_->caches.windows.valuesByKey().size();
}
auto DaemonChatViewModel::externalQueuedMessages() const -> const kit::ExternalQueuedMessageStore& {
  return impl_->queue->external;
}
auto DaemonChatViewModel::sessionBrowseScope() const -> const std::string& {
  return impl_->sidebar->sessionBrowseScope;
}
auto DaemonChatViewModel::partialSessions() const -> const std::set<std::string>& {
  return impl_->sidebar->partialSessions;
}
auto DaemonChatViewModel::completedUnreadSessions() const -> const std::set<std::string>& {
  return impl_->sidebar->completedUnreadSessions;
}

}  // namespace tamsel::desktop
