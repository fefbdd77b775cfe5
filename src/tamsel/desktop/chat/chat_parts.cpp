#include "tamsel/desktop/chat/chat_parts.hpp"

#include <algorithm>
#include <filesystem>

#include "tamsel/base/json.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/kit/transcript_merge_planner.hpp"

namespace tamsel::desktop {

// ---------------------------------------------------------------- sidebar

void ChatSidebarState::applyAgents(const std::vector<bridge::DaemonAgent>& list) {
  agents.clear();
  for (const auto& a : list) {
    agents.push_back(AgentItem{a.name, a.name, a.displayName, a.avatar, a.hasMemory.value_or(false),
                               a.builtin.value_or(false), a.isOverride.value_or(false),
                               a.commandCount.value_or(0), a.skillCount.value_or(0)});
  }
  if (!selectedAgent && !list.empty()) selectedAgent = list.front().name;
}

bool ChatSidebarState::knowsAgent(const std::string& name) const {
  return std::any_of(agents.begin(), agents.end(),
                     [&](const AgentItem& a) { return a.name == name; });
}

const bridge::DaemonSession* ChatSidebarState::session(const std::string& id) const {
  for (const auto& s : sessions)
    if (s.id == id) return &s;
  return nullptr;
}

bool ChatSidebarState::hasPending(const std::string& id) const {
  return std::any_of(pendingSessions.begin(), pendingSessions.end(),
                     [&](const PendingSession& p) { return p.id == id; });
}

void ChatSidebarState::removePending(const std::string& id) {
  std::erase_if(pendingSessions, [&](const PendingSession& p) { return p.id == id; });
}

void ChatSidebarState::finishedUnseen(const std::string& id) {
  completedUnreadSessions.insert(id);
  partialSessions.erase(id);
}

void ChatSidebarState::replyEnded(const std::string& id) {
  for (auto& s : sessions)
    if (s.id == id) s.inProgress = false;
}

bool ChatSidebarState::opened(const std::string& id, bool stillRunning) {
  const auto unread = completedUnreadSessions.erase(id);
  const auto partial = stillRunning ? 0 : partialSessions.erase(id);
  return unread + partial > 0;
}

void ChatSidebarState::load(const base::PreferencesStore& preferences) {
  if (auto scope = preferences.value(sessionBrowseKey); scope && scope->is_string())
    sessionBrowseScope = std::string(scope->get_string());
  auto readSet = [&](const char* key, std::set<std::string>& into) {
    if (auto value = preferences.value(key); value && value->is_array())
      for (const auto& item : value->get_array())
        if (item.is_string()) into.insert(std::string(item.get_string()));
  };
  readSet(partialSessionsKey, partialSessions);
  readSet(completedUnreadSessionsKey, completedUnreadSessions);
}

void ChatSidebarState::save(base::PreferencesStore& preferences) const {
  auto array = [](const std::set<std::string>& ids) {
    boost::json::array out;
    for (const auto& id : ids) out.emplace_back(id);
    return boost::json::value(std::move(out));
  };
  preferences.set(sessionBrowseKey, boost::json::value(sessionBrowseScope));
  preferences.set(partialSessionsKey, array(partialSessions));
  preferences.set(completedUnreadSessionsKey, array(completedUnreadSessions));
}

// ---------------------------------------------------------------- transcript

std::string ChatTranscriptState::mergeKey(const std::string& role, const std::string& content) {
  std::string key = role + ":";
  key.reserve(role.size() + 1 + content.size());
  for (char c : content)
    if (c != ' ' && c != '\n' && c != '\t' && c != '\r') key.push_back(c);
  return key;
}

void ChatTranscriptState::attachDeliverables(
    std::vector<kit::Message>& messages,
    const std::vector<bridge::ReloadedDeliverable>& delivered) {
  for (const auto& d : delivered) {
    const auto& r = d.resource;
    if (!r.filePath) continue;
    const auto named = [&](const kit::Message& m) {
      if (!m.toolBlock) return false;
      return std::any_of(
          m.toolBlock->tools.begin(), m.toolBlock->tools.end(),
          [&](const kit::ToolEntrySnapshot& t) { return t.toolUseId == d.toolUseID; });
    };
    auto target = std::find_if(messages.rbegin(), messages.rend(), named);
    if (target == messages.rend())
      target = std::find_if(messages.rbegin(), messages.rend(),
                            [](const kit::Message& m) { return m.author == "assistant"; });
    if (target == messages.rend()) continue;
    kit::Attachment file;
    file.id = "delivered-" + r.id;
    if (std::any_of(target->attachments.begin(), target->attachments.end(),
                    [&](const kit::Attachment& a) { return a.id == file.id; }))
      continue;
    file.kind = r.mimeType && base::startsWith(*r.mimeType, "image/")
                    ? kit::Attachment::Kind::image
                    : kit::Attachment::Kind::fileRef;
    file.filename = std::filesystem::path(*r.filePath).filename().string();
    file.mimeType = r.mimeType;
    file.filePath = r.filePath;
    target->attachments.push_back(std::move(file));
  }
}

kit::Message ChatTranscriptState::fromSessionMessage(const bridge::SessionMessage& m) {
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

void ChatTranscriptState::joinFromDisk(std::vector<kit::Message> disk) {
  std::vector<std::string> stateKeys, diskKeys;
  for (const auto& m : messages) stateKeys.push_back(mergeKey(m.author, m.content));
  for (const auto& m : disk) diskKeys.push_back(mergeKey(m.author, m.content));
  std::vector<kit::Message> merged;
  for (const auto& op : kit::TranscriptMergePlanner::plan(stateKeys, diskKeys)) {
    using Kind = kit::TranscriptMergePlanner::MergeOp::Kind;
    if (op.kind == Kind::matched) {
      kit::Message m = std::move(disk[op.diskIndex]);
      m.id = messages[op.stateIndex].id;
      merged.push_back(std::move(m));
    } else if (op.kind == Kind::takeDisk) {
      merged.push_back(std::move(disk[op.diskIndex]));
    } else {
      auto& kept = messages[op.stateIndex];
      const bool builtHere =
          base::startsWith(kept.id, "stream-") || base::startsWith(kept.id, "local-");
      if (!builtHere || diskKeys.empty()) merged.push_back(std::move(kept));
    }
  }
  messages = std::move(merged);
  ++publishRevision;
}

// ---------------------------------------------------------------- replies

bool ChatRepliesState::isRunning(const std::string& sessionKey,
                                 const bridge::SessionIdentityRegistry& ids) const {
  const std::string real = ids.realID(sessionKey);
  return runningSessionIDs.count(real) || runningPendingSessionIDs.count(sessionKey) ||
         runningPendingSessionIDs.count(ids.pendingID(real));
}

std::optional<std::string> ChatRepliesState::tokenFor(
    const std::string& sessionKey, const bridge::SessionIdentityRegistry& ids) const {
  for (const auto& key :
       {sessionKey, ids.realID(sessionKey), ids.pendingID(ids.realID(sessionKey))})
    if (auto it = streamingTokensBySession.find(key); it != streamingTokensBySession.end())
      return it->second;
  return std::nullopt;
}

void ChatRepliesState::setRunning(const std::string& sessionKey, bool running,
                                  const bridge::SessionIdentityRegistry& ids) {
  const bool pending =
      base::startsWith(sessionKey, "pending-") && ids.realID(sessionKey) == sessionKey;
  if (running) {
    (pending ? runningPendingSessionIDs : runningSessionIDs).insert(sessionKey);
  } else {
    runningPendingSessionIDs.erase(sessionKey);
    runningSessionIDs.erase(ids.realID(sessionKey));
  }
}

void ChatRepliesState::forgetToken(const std::string& token) {
  std::erase_if(streamingTokensBySession, [&](const auto& entry) { return entry.second == token; });
  cancellations.clear(token);
}

void ChatRepliesState::showTool(const kit::ToolEntrySnapshot& entry) {
  auto& statuses = streamingStatus.toolStatuses;
  auto it = std::find_if(statuses.begin(), statuses.end(),
                         [&](const auto& s) { return s.id == entry.id; });
  if (it == statuses.end())
    statuses.push_back(entry);
  else
    *it = entry;
  streamingStatus.activityLine = entry.name + (entry.args ? " " + *entry.args : std::string());
}

// ---------------------------------------------------------------- requests

bool ChatRequestsState::addApproval(const bridge::ApprovalEvent& event,
                                    const std::string& sessionKey) {
  if (knowsApproval(event.requestId)) return false;
  kit::ApprovalInfo info;
  info.requestID = event.requestId;
  info.tool = event.tool.value_or("");
  if (event.args) info.args = base::json::serialize(*event.args);
  if (event.flags) info.flags = *event.flags;
  approvalRows[event.requestId] = ApprovalRow{std::move(info), sessionKey};
  return true;
}

bool ChatRequestsState::addQuestion(const bridge::QuestionRequestPayload& request,
                                    const std::string& sessionKey) {
  if (knowsQuestion(request.requestId)) return false;
  questionRows[request.requestId] = QuestionRow{request, sessionKey};
  return true;
}

bool ChatRequestsState::knowsApproval(const std::string& requestID) const {
  return approvalRows.count(requestID) || resolvedRequestIDs.find(requestID);
}

bool ChatRequestsState::knowsQuestion(const std::string& requestID) const {
  return questionRows.count(requestID) || resolvedQuestionRequestIDs.find(requestID);
}

void ChatRequestsState::resolveApproval(const std::string& requestID) {
  approvalRows.erase(requestID);
  resolvedRequestIDs.set(true, requestID);
}

void ChatRequestsState::resolveQuestion(const std::string& requestID) {
  questionRows.erase(requestID);
  resolvedQuestionRequestIDs.set(true, requestID);
}

std::vector<ApprovalRow> ChatRequestsState::approvals() const {
  std::vector<ApprovalRow> rows;
  for (const auto& [id, row] : approvalRows) rows.push_back(row);
  return rows;
}

std::vector<QuestionRow> ChatRequestsState::questions() const {
  std::vector<QuestionRow> rows;
  for (const auto& [id, row] : questionRows) rows.push_back(row);
  return rows;
}

// ---------------------------------------------------------------- queue

void ChatQueueState::enqueue(const std::string& sessionKey, std::string text,
                             std::vector<kit::Attachment> attachments) {
  auto queued = drafts.items(sessionKey);
  queued.push_back(kit::QueuedDraftMessage{base::newUUIDString(),
                                           std::move(text),
                                           std::move(attachments),
                                           {},
                                           base::nowTimestamp(),
                                           std::nullopt,
                                           {}});
  drafts.replace(sessionKey, std::move(queued));
}

void ChatQueueState::rekey(const std::string& from, const std::string& to) {
  auto queued = drafts.items(from);
  if (queued.empty()) return;
  drafts.remove(from);
  drafts.replace(to, std::move(queued));
}

void ChatQueueState::edit(const std::string& sessionKey, const std::string& id, std::string text) {
  auto items = drafts.items(sessionKey);
  for (auto& item : items)
    if (item.id == id) item.text = std::move(text);
  drafts.replace(sessionKey, std::move(items));
}

void ChatQueueState::retract(const std::string& sessionKey, const std::string& id) {
  auto items = drafts.items(sessionKey);
  std::erase_if(items, [&](const kit::QueuedDraftMessage& m) { return m.id == id; });
  drafts.replace(sessionKey, std::move(items));
}

// ---------------------------------------------------------------- status

void ChatStatusState::showError(const std::exception& e) {
  const auto* client = dynamic_cast<const bridge::DaemonClientException*>(&e);
  if (!client) {
    errorMessage = e.what();
    return;
  }
  const auto& error = client->error();
  if (const auto* quota = std::get_if<bridge::DaemonClientError::QuotaExceeded>(&error.value)) {
    quotaError = quota->details;
  } else if (const auto* credits =
                 std::get_if<bridge::DaemonClientError::CreditsExhausted>(&error.value)) {
    creditsError = credits->details;
  } else if (const auto* validation =
                 std::get_if<bridge::DaemonClientError::Validation>(&error.value);
             validation && validation->code) {
    errorMessage = conversationAnnotationErrorText(*validation->code).value_or(validation->message);
  } else {
    errorMessage = error.description();
  }
}

void ChatStatusState::clearErrors() {
  errorMessage.reset();
  quotaError.reset();
  creditsError.reset();
}

std::optional<std::string> ChatStatusState::conversationAnnotationErrorText(std::string_view code) {
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

}  // namespace tamsel::desktop
