#include "tamsel/kit/message_list_update_planner.hpp"

namespace tamsel::kit {

using WebUpdate = MessageListUpdatePlanner::WebUpdate;

namespace {
bool sameIds(const std::vector<Message>& a, std::size_t aFrom, const std::vector<Message>& b,
             std::size_t bFrom, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i)
    if (a[aFrom + i].id != b[bFrom + i].id) return false;
  return true;
}

// The items of `next` (from `offset`) whose content differs from the same-id item of `previous`.
std::vector<Message> changed(const std::vector<Message>& previous, const std::vector<Message>& next,
                             std::size_t offset) {
  std::vector<Message> out;
  for (std::size_t i = 0; i < previous.size(); ++i)
    if (!(previous[i] == next[offset + i])) out.push_back(next[offset + i]);
  return out;
}
}  // namespace

std::optional<std::vector<WebUpdate>> MessageListUpdatePlanner::plan(
    const std::vector<Message>& previous, const std::vector<Message>& next, bool forceFullReload) {
  if (forceFullReload) return std::vector<WebUpdate>{{WebUpdate::Kind::fullReload, next}};
  if (previous == next) return std::nullopt;
  if (previous.size() > next.size() || (next.empty() && !previous.empty()))
    return std::vector<WebUpdate>{{WebUpdate::Kind::fullReload, next}};

  std::vector<WebUpdate> updates;
  const std::size_t added = next.size() - previous.size();
  if (sameIds(previous, 0, next, 0, previous.size())) {
    if (auto items = changed(previous, next, 0); !items.empty())
      updates.push_back({WebUpdate::Kind::update, std::move(items)});
    if (added > 0)
      updates.push_back(
          {WebUpdate::Kind::append,
           std::vector<Message>(next.begin() + static_cast<long>(previous.size()), next.end())});
    return updates;
  }
  if (sameIds(previous, 0, next, added, previous.size())) {
    if (auto items = changed(previous, next, added); !items.empty())
      updates.push_back({WebUpdate::Kind::update, std::move(items)});
    updates.push_back(
        {WebUpdate::Kind::prepend,
         std::vector<Message>(next.begin(), next.begin() + static_cast<long>(added))});
    return updates;
  }
  return std::vector<WebUpdate>{{WebUpdate::Kind::fullReload, next}};
}

}  // namespace tamsel::kit
