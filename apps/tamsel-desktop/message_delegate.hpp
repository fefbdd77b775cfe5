#pragma once
// Draws one transcript row: who wrote it, the reply's tool block (a one-line header, its tools
// below it when open), the text rendered from Markdown (Qt's own parser) with a "Copy" button on
// each fenced code block, and the message's files as chips. Laid-out documents and measured
// heights are kept for the rows most recently shown only, so a long session costs memory for
// what is on screen; other rows get an estimated height from their text, corrected once drawn.
#include <QCache>
#include <QStyledItemDelegate>
#include <QTextDocument>
#include <memory>
#include <optional>
#include <vector>

class QAbstractItemView;

namespace tamsel::desktopui {

class MessageDelegate final : public QStyledItemDelegate {
  Q_OBJECT
 public:
  explicit MessageDelegate(QAbstractItemView* view);

  void paint(QPainter* painter, const QStyleOptionViewItem& option,
             const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

  // What is under a point of a row drawn at `rowRect` (view coordinates, as visualRect gives).
  struct Hit {
    enum class Kind { none, toolHeader, copyCode, codeBlock, attachment };
    Kind kind = Kind::none;
    int item = -1;  // the code block or attachment
  };
  Hit hitTest(const QRect& rowRect, const QModelIndex& index, const QPoint& point) const;
  QRect toolHeaderRect(const QRect& rowRect, const QModelIndex& index) const;
  QRect copyButtonRect(const QRect& rowRect, const QModelIndex& index, int block) const;
  QRect codeBlockRect(const QRect& rowRect, const QModelIndex& index, int block) const;
  QRect attachmentRect(const QRect& rowRect, const QModelIndex& index, int chip) const;
  int codeBlockCount(const QModelIndex& index) const;
  QString codeBlockText(const QModelIndex& index, int block) const;
  // The chip the keyboard is on (drawn with a focus frame); -1 for none.
  void setFocusedChip(const QString& messageId, int chip);

  // Laid-out documents are kept for about twice the rows on screen (at least
  // minCachedDocuments), so scrolling back a little lays nothing out again; the view says how
  // many rows it shows.
  void setVisibleRows(int rows);
  int cachedDocuments() const { return documents_.size(); }
  int documentBound() const { return static_cast<int>(documents_.maxCost()); }
  static constexpr int minCachedDocuments = 32;
  // How many rows have a measured height right now (bounded; the rest are estimated).
  int cachedHeights() const { return heights_.size(); }
  static constexpr int maxCachedHeights = 400;

 private:
  struct CodeRegion {
    QString code;
    int firstBlock = 0;
    int lastBlock = 0;
  };
  struct RowDocument {
    std::uint64_t fingerprint = 0;
    QTextDocument text;
    std::vector<CodeRegion> code;
  };
  struct Height {
    std::uint64_t fingerprint = 0;
    int width = 0;
    int height = 0;
  };
  struct Geometry {
    QRect toolHeader;  // empty without tools
    QPoint textOrigin;
    std::vector<QRect> chips;
  };
  struct Metrics {
    QFont font;
    int lineSpacing = 0;
    int averageCharWidth = 1;
    int headerHeight = 0;
  };
  const Metrics& metrics() const;
  int contentWidth() const;
  RowDocument* document(const QModelIndex& index, int width) const;
  int estimateHeight(const QModelIndex& index, int width) const;
  Geometry geometry(const QRect& rowRect, const QModelIndex& index, int textHeight) const;
  int textHeight(const QModelIndex& index, int width) const;
  QRectF codeRegionRect(RowDocument& doc, int block) const;
  std::vector<QRect> chipRects(const QVariantList& chips, QPoint origin, int width) const;

  QAbstractItemView* view_;
  // Both keyed by the id's hash: a few bytes a row, and only for rows recently drawn.
  mutable QCache<quint64, RowDocument> documents_{minCachedDocuments};
  mutable QCache<quint64, Height> heights_{maxCachedHeights};
  mutable std::optional<Metrics> metrics_;
  QString focusedChipRow_;
  int focusedChip_ = -1;
};

}  // namespace tamsel::desktopui
