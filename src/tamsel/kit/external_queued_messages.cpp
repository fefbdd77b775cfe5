#include "tamsel/kit/external_queued_messages.hpp"

#include <algorithm>

#include "tamsel/base/strings.hpp"

namespace tamsel::kit {

ExternalQueuedMessageStore::ExternalQueuedMessageStore(long long maxItemsPerSession)
    : maxItemsPerSession_(maxItemsPerSession < 2 ? 1
                                                 : static_cast<std::size_t>(maxItemsPerSession)) {}

std::vector<ExternalQueuedMessage> ExternalQueuedMessageStore::items(
    const std::string& sessionID) const {
  if (sessionID.empty()) return {};
  auto it = itemsBySessionID_.find(sessionID);
  return it == itemsBySessionID_.end() ? std::vector<ExternalQueuedMessage>{} : it->second;
}

void ExternalQueuedMessageStore::enqueue(ExternalQueuedMessage message,
                                         const std::string& sessionID) {
  if (sessionID.empty() || base::trim(message.text).empty()) return;
  auto& queue = itemsBySessionID_[sessionID];
  if (!message.id.empty()) {
    auto same = std::find_if(queue.begin(), queue.end(), [&](const ExternalQueuedMessage& queued) {
      return queued.id == message.id;
    });
    if (same != queue.end()) {
      // A resent message keeps its place in line.
      *same = std::move(message);
      return;
    }
  }
  queue.push_back(std::move(message));
  if (queue.size() > maxItemsPerSession_) {
    queue.erase(queue.begin(),
                queue.begin() + static_cast<std::ptrdiff_t>(queue.size() - maxItemsPerSession_));
  }
}

void ExternalQueuedMessageStore::remove(const std::string& sessionID) {
  if (sessionID.empty()) return;
  itemsBySessionID_.erase(sessionID);
}

}  // namespace tamsel::kit
