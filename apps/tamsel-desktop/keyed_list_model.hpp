#pragma once
// A list model that follows a controller's list by change: each row has a stable key and a
// fingerprint of what it shows, and a new version of the list becomes the smallest run of row
// removals and insertions (the rows between the common head and the common tail) plus
// dataChanged for kept rows whose fingerprint moved. A reply growing token by token is one
// dataChanged of its row; the view never reloads the list.
#include <QAbstractListModel>
#include <cstdint>
#include <string>
#include <vector>

namespace tamsel::desktopui {

struct RowKey {
  std::string id;
  std::uint64_t fingerprint = 0;
  bool operator==(const RowKey&) const = default;
};

// What turns `before` into `after`: rows [first, first + removed) of `before` go, then `inserted`
// rows of `after` come in at `first`; `changed` are rows of `after` kept with a new fingerprint.
struct ListUpdate {
  int first = 0;
  int removed = 0;
  int inserted = 0;
  std::vector<int> changed;
  bool empty() const { return removed == 0 && inserted == 0 && changed.empty(); }
};

ListUpdate planListUpdate(const std::vector<RowKey>& before, const std::vector<RowKey>& after);

// FNV-1a, continued from `seed`; stable across runs, cheap on long texts.
std::uint64_t fingerprintOf(std::string_view text, std::uint64_t seed = 14695981039346656037ull);

class KeyedListModel : public QAbstractListModel {
  Q_OBJECT
 public:
  using QAbstractListModel::QAbstractListModel;
  int rowCount(const QModelIndex& parent = {}) const override {
    return parent.isValid() ? 0 : static_cast<int>(keys_.size());
  }
  const std::vector<RowKey>& keys() const { return keys_; }

 protected:
  // Applies the update from the current keys to `next`; returns what was done.
  ListUpdate sync(std::vector<RowKey> next);

 private:
  std::vector<RowKey> keys_;
};

}  // namespace tamsel::desktopui
