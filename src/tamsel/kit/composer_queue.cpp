#include "tamsel/kit/composer_queue.hpp"

#include <algorithm>
#include <set>

#include "tamsel/base/strings.hpp"

namespace tamsel::kit {

namespace {

std::vector<QueuedDraftMessage> oldestFirst(std::vector<QueuedDraftMessage> items) {
  std::stable_sort(items.begin(), items.end(),
                   [](const QueuedDraftMessage& a, const QueuedDraftMessage& b) {
                     return a.enqueuedAt < b.enqueuedAt;
                   });
  return items;
}

bool hasContent(const QueuedDraftMessage& item) {
  return !base::trim(item.text).empty() || !item.attachments.empty() || !item.contentBlocks.empty();
}

// Appends attachments, skipping ids already carried (the same file attached to two drafts
// is sent once).
void appendAttachments(std::vector<Attachment>& out, std::set<std::string>& seenIDs,
                       const std::vector<Attachment>& attachments) {
  for (const auto& attachment : attachments) {
    if (!attachment.id.empty() && !seenIDs.insert(attachment.id).second) continue;
    out.push_back(attachment);
  }
}

void appendText(std::vector<std::string>& parts, std::string_view text) {
  const auto trimmed = base::trim(text);
  if (!trimmed.empty()) parts.emplace_back(trimmed);
}

}  // namespace

std::optional<QueueForceSendPlan> QueueForceSendPlanner::plan(
    const std::vector<QueuedDraftMessage>& queued, std::string_view typedText) {
  std::string trimmed(base::trim(typedText));
  if (queued.empty() && trimmed.empty()) return std::nullopt;
  return QueueForceSendPlan{oldestFirst(queued), std::move(trimmed)};
}

QueueForceSendPayloadPlan QueueForceSendPayloadPlanner::plan(const QueueForceSendPlan& plan) {
  QueueForceSendPayloadPlan out;
  out.queuedItems = plan.queuedItems;
  out.trimmedTypedText = plan.trimmedTypedText;
  std::vector<std::string> texts;
  std::set<std::string> seenAttachmentIDs;
  for (const auto& item : plan.queuedItems) {
    appendText(texts, item.text);
    appendAttachments(out.attachments, seenAttachmentIDs, item.attachments);
    out.contentBlocks.insert(out.contentBlocks.end(), item.contentBlocks.begin(),
                             item.contentBlocks.end());
  }
  appendText(texts, plan.trimmedTypedText);
  out.promptText = base::join(texts, queuedDraftSeparator);
  return out;
}

std::optional<QueuedDraftMessage> QueuedDraftJoinPlanner::join(
    const std::vector<QueuedDraftMessage>& items) {
  std::vector<QueuedDraftMessage> kept;
  for (const auto& item : oldestFirst(items)) {
    if (hasContent(item)) kept.push_back(item);
  }
  if (kept.empty()) return std::nullopt;
  if (kept.size() == 1) return kept.front();

  QueuedDraftMessage joined;
  joined.id = kept.front().id;
  joined.enqueuedAt = kept.front().enqueuedAt;
  std::vector<std::string> texts;
  std::set<std::string> seenAttachmentIDs;
  for (const auto& item : kept) {
    appendText(texts, item.text);
    appendAttachments(joined.attachments, seenAttachmentIDs, item.attachments);
    joined.contentBlocks.insert(joined.contentBlocks.end(), item.contentBlocks.begin(),
                                item.contentBlocks.end());
    joined.replyAnchors.insert(joined.replyAnchors.end(), item.replyAnchors.begin(),
                               item.replyAnchors.end());
    if (!joined.injectRouteSessionID && item.injectRouteSessionID &&
        !item.injectRouteSessionID->empty()) {
      joined.injectRouteSessionID = item.injectRouteSessionID;
    }
  }
  joined.text = base::join(texts, queuedDraftSeparator);
  return joined;
}

void QueuedDraftDrainCoordinator::markReady(const std::string& sessionKey) {
  if (!sessionKey.empty()) readySessionKeys_.insert(sessionKey);
}

void QueuedDraftDrainCoordinator::clear(const std::string& sessionKey) {
  readySessionKeys_.erase(sessionKey);
}

QueuedDraftDrainAction QueuedDraftDrainCoordinator::action(const std::string& sessionKey,
                                                           bool hasQueuedItems,
                                                           bool isReplyRunning) {
  if (!readySessionKeys_.count(sessionKey)) return QueuedDraftDrainAction::none;
  if (isReplyRunning) return QueuedDraftDrainAction::none;
  readySessionKeys_.erase(sessionKey);
  return hasQueuedItems ? QueuedDraftDrainAction::drainNow : QueuedDraftDrainAction::none;
}

}  // namespace tamsel::kit
