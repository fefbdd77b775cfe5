#pragma once
// Draws one transcript row: who wrote it, the tools of a reply with their status, and the text
// rendered from Markdown (Qt's own parser). Laid-out documents are kept for the rows most
// recently shown only, so a long session costs memory for what is on screen; rows never shown
// are given an estimated height from their text, corrected once they are drawn.
#include <QCache>
#include <QStyledItemDelegate>
#include <QTextDocument>
#include <memory>
#include <unordered_map>

class QAbstractItemView;

namespace tamsel::desktopui {

class MessageDelegate final : public QStyledItemDelegate {
  Q_OBJECT
 public:
  explicit MessageDelegate(QAbstractItemView* view);

  void paint(QPainter* painter, const QStyleOptionViewItem& option,
             const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

  // How many rows have a laid-out document right now (bounded).
  int cachedDocuments() const { return documents_.size(); }
  static constexpr int maxCachedDocuments = 200;

 private:
  struct Row {
    std::uint64_t fingerprint = 0;
    int width = 0;
    int height = 0;
    bool exact = false;
  };
  int contentWidth() const;
  QTextDocument* document(const QModelIndex& index, int width) const;
  int estimateHeight(const QModelIndex& index, int width) const;

  QAbstractItemView* view_;
  mutable QCache<QString, QTextDocument> documents_{maxCachedDocuments};
  mutable std::unordered_map<std::string, Row> heights_;
};

}  // namespace tamsel::desktopui
