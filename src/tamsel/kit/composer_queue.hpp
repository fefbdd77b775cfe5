#pragma once
// What happens to text the user sends while a session's reply is still running: it waits in the
// session's queue, is joined into one message, or is force-sent in place of the running reply.
// Planners are pure; the coordinator is a plain value. All of it lives on the interface thread.
#include <boost/json/value.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tamsel/base/dates.hpp"
#include "tamsel/kit/transcript.hpp"

namespace tamsel::kit {

// A message typed while a reply runs.
struct QueuedDraftMessage {
  std::string id;
  std::string text;
  std::vector<Attachment> attachments;
  std::vector<boost::json::value> contentBlocks;
  base::Timestamp enqueuedAt{};
  // Set when the draft is to be injected into the running reply of this session rather than
  // sent as a new turn.
  std::optional<std::string> injectRouteSessionID;
  std::vector<boost::json::value> replyAnchors;
  bool operator==(const QueuedDraftMessage&) const = default;
};

// Separator between the texts of joined drafts and the typed text.
inline constexpr std::string_view queuedDraftSeparator = "\n\n";

struct QueueForceSendPlan {
  std::vector<QueuedDraftMessage> queuedItems;  // oldest first
  std::string trimmedTypedText;
  bool operator==(const QueueForceSendPlan&) const = default;
};

struct QueueForceSendPayloadPlan {
  std::vector<QueuedDraftMessage> queuedItems;
  std::string trimmedTypedText;
  std::string promptText;
  std::vector<Attachment> attachments;
  std::vector<boost::json::value> contentBlocks;
  bool operator==(const QueueForceSendPayloadPlan&) const = default;
};

// Force send: the controller cancels the running reply first, then sends one message that carries
// everything that was waiting. The queued drafts are taken oldest first (by `enqueuedAt`; equal
// times keep their queue order), every draft is kept (even one with nothing to send, so the
// controller removes it from the queue). Nothing is planned when there are no queued drafts and
// the typed text is blank.
struct QueueForceSendPlanner {
  static std::optional<QueueForceSendPlan> plan(const std::vector<QueuedDraftMessage>& queued,
                                                std::string_view typedText);
};

// The one message of a force send: the trimmed texts of the queued drafts oldest first, then the
// typed text, blank ones left out, joined with "\n\n"; attachments and content blocks in the same
// order (an attachment id seen before is not carried twice).
struct QueueForceSendPayloadPlanner {
  static QueueForceSendPayloadPlan plan(const QueueForceSendPlan& plan);
};

// Joins several queued drafts into one (when the queue drains as a single turn):
//   no drafts, or none with text, attachments or content blocks  -> nothing
//   one draft with content                                      -> that draft unchanged
//   several                                                     -> oldest first (by `enqueuedAt`,
//     ties in queue order); drafts without content left out; the trimmed non-blank texts joined
//     with "\n\n"; attachments (first of each id), content blocks and reply anchors concatenated;
//     `id` and `enqueuedAt` of the oldest; `injectRouteSessionID` of the oldest draft that has one.
struct QueuedDraftJoinPlanner {
  static std::optional<QueuedDraftMessage> join(const std::vector<QueuedDraftMessage>& items);
};

enum class QueuedDraftDrainAction { drainNow, none };

// Remembers which sessions' replies have ended so their queues may be drained.
//
//   key not marked ready (or empty)           -> none
//   ready, a reply is running again           -> none, stays ready (drains after that reply)
//   ready, no reply running, queue empty      -> none, readiness dropped (nothing to drain)
//   ready, no reply running, queued items     -> drainNow, readiness consumed (drains once)
class QueuedDraftDrainCoordinator {
 public:
  void markReady(const std::string& sessionKey);
  void clear(const std::string& sessionKey);
  QueuedDraftDrainAction action(const std::string& sessionKey, bool hasQueuedItems,
                                bool isReplyRunning);
  const std::set<std::string>& readySessionKeys() const { return readySessionKeys_; }
  bool operator==(const QueuedDraftDrainCoordinator&) const = default;

 private:
  std::set<std::string> readySessionKeys_;
};

}  // namespace tamsel::kit
