#include "keyed_list_model.hpp"

#include <algorithm>

namespace tamsel::desktopui {

ListUpdate planListUpdate(const std::vector<RowKey>& before, const std::vector<RowKey>& after) {
  const std::size_t shorter = std::min(before.size(), after.size());
  std::size_t head = 0;
  while (head < shorter && before[head].id == after[head].id) ++head;
  std::size_t tail = 0;
  while (tail < shorter - head &&
         before[before.size() - 1 - tail].id == after[after.size() - 1 - tail].id)
    ++tail;
  ListUpdate update;
  update.first = static_cast<int>(head);
  update.removed = static_cast<int>(before.size() - head - tail);
  update.inserted = static_cast<int>(after.size() - head - tail);
  for (std::size_t i = 0; i < head; ++i)
    if (before[i].fingerprint != after[i].fingerprint)
      update.changed.push_back(static_cast<int>(i));
  for (std::size_t k = 0; k < tail; ++k) {
    const std::size_t b = before.size() - tail + k, a = after.size() - tail + k;
    if (before[b].fingerprint != after[a].fingerprint)
      update.changed.push_back(static_cast<int>(a));
  }
  return update;
}

std::uint64_t fingerprintOf(std::string_view text, std::uint64_t seed) {
  std::uint64_t hash = seed;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  // The length too, so that texts differing only by where one ends and the next begins differ.
  hash ^= text.size();
  return hash * 1099511628211ull;
}

ListUpdate KeyedListModel::sync(std::vector<RowKey> next) {
  auto update = planListUpdate(keys_, next);
  if (update.removed > 0) {
    beginRemoveRows({}, update.first, update.first + update.removed - 1);
    keys_.erase(keys_.begin() + update.first, keys_.begin() + update.first + update.removed);
    endRemoveRows();
  }
  if (update.inserted > 0) {
    beginInsertRows({}, update.first, update.first + update.inserted - 1);
    keys_.insert(keys_.begin() + update.first, next.begin() + update.first,
                 next.begin() + update.first + update.inserted);
    endInsertRows();
  }
  keys_ = std::move(next);
  // Neighbouring changed rows go out as one range.
  for (std::size_t i = 0; i < update.changed.size();) {
    std::size_t j = i;
    while (j + 1 < update.changed.size() && update.changed[j + 1] == update.changed[j] + 1) ++j;
    Q_EMIT dataChanged(index(update.changed[i]), index(update.changed[j]));
    i = j + 1;
  }
  return update;
}

}  // namespace tamsel::desktopui
