#pragma once
// Small per-session stores keyed by session key strings. Plain values; not thread-safe.
#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tamsel::kit {

// A bounded map: writing a key makes it the newest; beyond `maxEntries` the least recently
// written key goes first. A negative bound keeps nothing.
template <class Value>
class SessionScopedValueStore {
 public:
  explicit SessionScopedValueStore(long long maxEntries)
      : maxEntries_(maxEntries < 0 ? 0 : static_cast<std::size_t>(maxEntries)) {}

  std::optional<Value> value(const std::string& key) const {
    if (key.empty()) return std::nullopt;
    auto it = valuesByKey_.find(key);
    if (it == valuesByKey_.end()) return std::nullopt;
    return it->second;
  }
  const Value* find(const std::string& key) const {
    auto it = valuesByKey_.find(key);
    return it == valuesByKey_.end() ? nullptr : &it->second;
  }

  void set(std::optional<Value> value, const std::string& key) {
    if (!value) {
      valuesByKey_.erase(key);
      std::erase(lruOrder_, key);
      return;
    }
    if (key.empty()) return;
    valuesByKey_.insert_or_assign(key, std::move(*value));
    std::erase(lruOrder_, key);
    lruOrder_.push_back(key);
    while (valuesByKey_.size() > maxEntries_ && !lruOrder_.empty()) {
      valuesByKey_.erase(lruOrder_.front());
      lruOrder_.erase(lruOrder_.begin());
    }
  }

  const std::map<std::string, Value>& valuesByKey() const { return valuesByKey_; }
  const std::vector<std::string>& lruOrder() const { return lruOrder_; }
  std::size_t maxEntries() const { return maxEntries_; }
  bool operator==(const SessionScopedValueStore&) const = default;

 private:
  std::map<std::string, Value> valuesByKey_;
  std::vector<std::string> lruOrder_;
  std::size_t maxEntries_;
};

template <class Item>
class SessionScopedQueueStore {
 public:
  std::vector<Item> items(const std::string& key) const {
    auto it = itemsByKey_.find(key);
    return it == itemsByKey_.end() ? std::vector<Item>{} : it->second;
  }
  void replace(const std::string& key, std::vector<Item> items) {
    if (items.empty())
      itemsByKey_.erase(key);
    else
      itemsByKey_[key] = std::move(items);
  }
  void remove(const std::string& key) { itemsByKey_.erase(key); }
  const std::map<std::string, std::vector<Item>>& itemsByKey() const { return itemsByKey_; }
  bool operator==(const SessionScopedQueueStore&) const = default;

 private:
  std::map<std::string, std::vector<Item>> itemsByKey_;
};

}  // namespace tamsel::kit
