#pragma once
// Messages that reached a session from outside this desktop (another channel) while its reply was
// running; they wait here, per session and bounded, until the controller sends them on.
// A plain value; not thread-safe.
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tamsel/base/dates.hpp"

namespace tamsel::kit {

struct ExternalQueuedMessage {
  std::string id;
  std::string source;  // the channel it came from
  std::string sender;
  std::string text;
  base::Timestamp receivedAt{};
  bool operator==(const ExternalQueuedMessage&) const = default;
};

class ExternalQueuedMessageStore {
 public:
  static constexpr long long defaultMaxItemsPerSession = 20;

  // Any bound below 2 is kept as 1: a session always keeps at least its newest message.
  explicit ExternalQueuedMessageStore(long long maxItemsPerSession = defaultMaxItemsPerSession);

  // Oldest first; empty for an empty or unknown session id.
  std::vector<ExternalQueuedMessage> items(const std::string& sessionID) const;
  // Ignored for an empty session id or a text that is blank. A message whose (non-empty) id is
  // already queued for the session replaces it in place; otherwise it is appended, and the oldest
  // items are dropped from the front until the queue fits the bound.
  void enqueue(ExternalQueuedMessage message, const std::string& sessionID);
  void remove(const std::string& sessionID);

  std::size_t maxItemsPerSession() const { return maxItemsPerSession_; }
  const std::map<std::string, std::vector<ExternalQueuedMessage>>& itemsBySessionID() const {
    return itemsBySessionID_;
  }
  bool operator==(const ExternalQueuedMessageStore&) const = default;

 private:
  std::map<std::string, std::vector<ExternalQueuedMessage>> itemsBySessionID_;
  std::size_t maxItemsPerSession_;
};

}  // namespace tamsel::kit
