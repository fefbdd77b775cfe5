#include "message_delegate.hpp"

#include <QAbstractItemView>
#include <QAbstractTextDocumentLayout>
#include <QPainter>
#include <QTextBlock>
#include <cmath>

#include "code_blocks.hpp"
#include "keyed_list_model.hpp"
#include "transcript_model.hpp"

namespace tamsel::desktopui {

namespace {
constexpr int kMargin = 8;
constexpr int kHeaderGap = 2;
constexpr int kToolPad = 2;
constexpr int kChipGap = 6;
constexpr int kChipPad = 6;

TranscriptModel::RowFacts factsOf(const QModelIndex& index) {
  const auto* model = qobject_cast<const TranscriptModel*>(index.model());
  if (!model) return {};
  return model->rowFacts(index.row()).value_or(TranscriptModel::RowFacts{});
}

QFont boldFont(const QFont& font) {
  QFont bold = font;
  bold.setBold(true);
  return bold;
}

QFont smallFont(const QFont& font) {
  QFont small = font;
  if (small.pointSizeF() > 0) small.setPointSizeF(small.pointSizeF() * 0.85);
  return small;
}

QString chipText(const QVariantMap& chip) {
  const auto size = chip.value(QStringLiteral("size")).toLongLong();
  QString text = chip.value(QStringLiteral("name")).toString();
  if (size >= 0) text += QStringLiteral("  ") + TranscriptModel::formatSize(size);
  return text;
}
}  // namespace

MessageDelegate::MessageDelegate(QAbstractItemView* view)
    : QStyledItemDelegate(view), view_(view) {}

int MessageDelegate::contentWidth() const {
  return std::max(120, view_->viewport()->width() - 2 * kMargin);
}

MessageDelegate::RowDocument* MessageDelegate::document(const QModelIndex& index, int width) const {
  const auto facts = factsOf(index);
  const auto key = facts.idHash;
  const auto fingerprint = facts.fingerprint;
  auto* doc = documents_.object(key);
  if (doc && doc->fingerprint == fingerprint) {
    if (static_cast<int>(doc->text.textWidth()) != width) doc->text.setTextWidth(width);
    return doc;
  }
  auto owned = std::make_unique<RowDocument>();
  owned->fingerprint = fingerprint;
  owned->text.setDocumentMargin(0);
  owned->text.setDefaultFont(view_->font());
  const auto markdown = index.data(TranscriptModel::MarkdownRole).toString();
  owned->text.setMarkdown(markdown);
  owned->text.setTextWidth(width);
  // Qt's reader gives each line of a fenced block a block of its own, marked with the fence;
  // the blocks found in the source say where one ends and the next begins.
  const auto blocks = fencedCodeBlocks(markdown.toStdString());
  QTextBlock block = owned->text.begin();
  const auto fenced = [](const QTextBlock& b) {
    return b.isValid() && b.blockFormat().hasProperty(QTextFormat::BlockCodeFence);
  };
  for (const auto& code : blocks) {
    while (block.isValid() && !fenced(block)) block = block.next();
    if (!block.isValid()) break;
    CodeRegion region{QString::fromStdString(code.code), block.blockNumber(), block.blockNumber()};
    for (int line = 1; line < code.lines && fenced(block.next()); ++line) block = block.next();
    region.lastBlock = block.blockNumber();
    owned->code.push_back(std::move(region));
    block = block.next();
  }
  doc = owned.release();
  documents_.insert(key, doc);
  return doc;
}

const MessageDelegate::Metrics& MessageDelegate::metrics() const {
  // Font metrics are dear to build and the list asks every row's size on each layout pass.
  const QFont& font = view_->font();
  if (!metrics_ || metrics_->font != font) {
    const QFontMetrics plain(font), header(boldFont(font));
    metrics_ =
        Metrics{font, plain.lineSpacing(), std::max(1, plain.averageCharWidth()), header.height()};
  }
  return *metrics_;
}

int MessageDelegate::estimateHeight(const QModelIndex& index, int width) const {
  const auto& m = metrics();
  const auto* model = qobject_cast<const TranscriptModel*>(index.model());
  if (!model) return m.lineSpacing;
  const int perLine = std::max(1, width / m.averageCharWidth);
  return model->estimatedTextLines(index.row(), perLine) * m.lineSpacing;
}

std::vector<QRect> MessageDelegate::chipRects(const QVariantList& chips, QPoint origin,
                                              int width) const {
  const QFontMetrics metrics(smallFont(view_->font()));
  const int height = metrics.height() + kChipPad + 2;
  std::vector<QRect> rects;
  int x = 0, y = 0;
  for (const auto& chip : chips) {
    const int w =
        std::min(width, metrics.horizontalAdvance(chipText(chip.toMap())) + 2 * kChipPad + 2);
    if (x > 0 && x + w > width) {
      x = 0;
      y += height + kChipGap / 2;
    }
    rects.emplace_back(origin.x() + x, origin.y() + y, w, height);
    x += w + kChipGap;
  }
  return rects;
}

MessageDelegate::Geometry MessageDelegate::geometry(const QRect& rowRect, const QModelIndex& index,
                                                    int textHeight) const {
  Geometry g;
  const auto facts = factsOf(index);
  const int width = contentWidth();
  const auto& m = metrics();
  int y = rowRect.top() + kMargin + m.headerHeight + kHeaderGap;
  const int x = rowRect.left() + kMargin;
  if (facts.tools) {
    g.toolHeader = QRect(x, y, width, m.lineSpacing + 2 * kToolPad);
    y += g.toolHeader.height() + kHeaderGap + facts.toolLines * m.lineSpacing;
    if (facts.toolLines > 0) y += kHeaderGap;
  }
  g.textOrigin = QPoint(x, y);
  y += textHeight;
  if (facts.attachments > 0)
    g.chips = chipRects(index.data(TranscriptModel::AttachmentsRole).toList(),
                        QPoint(x, y + kChipGap), width);
  return g;
}

int MessageDelegate::textHeight(const QModelIndex& index, int width) const {
  const auto facts = factsOf(index);
  const auto fingerprint = facts.fingerprint;
  const auto key = facts.idHash;
  if (const auto* row = heights_.object(key);
      row && row->fingerprint == fingerprint && row->width == width)
    return row->height;
  // A row that is already laid out (on screen) is measured; others are estimated.
  if (auto* doc = documents_.object(key); doc && doc->fingerprint == fingerprint) {
    doc->text.setTextWidth(width);
    const int height = static_cast<int>(std::ceil(doc->text.size().height()));
    heights_.insert(key, new Height{fingerprint, width, height});
    return height;
  }
  return estimateHeight(index, width);
}

QSize MessageDelegate::sizeHint(const QStyleOptionViewItem&, const QModelIndex& index) const {
  const int width = contentWidth();
  const int text = textHeight(index, width);
  const auto g = geometry(QRect(0, 0, width, 0), index, text);
  int bottom = g.textOrigin.y() + text;
  if (!g.chips.empty()) bottom = g.chips.back().bottom() + 1;
  return {width + 2 * kMargin, bottom + kMargin};
}

QRectF MessageDelegate::codeRegionRect(RowDocument& doc, int block) const {
  const auto& region = doc.code[static_cast<std::size_t>(block)];
  auto* layout = doc.text.documentLayout();
  QRectF rect = layout->blockBoundingRect(doc.text.findBlockByNumber(region.firstBlock));
  rect = rect.united(layout->blockBoundingRect(doc.text.findBlockByNumber(region.lastBlock)));
  rect.setLeft(0);
  rect.setRight(doc.text.textWidth());
  return rect;
}

void MessageDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                            const QModelIndex& index) const {
  painter->save();
  const bool user = index.data(TranscriptModel::AuthorRole).toString() == QLatin1String("user");
  const auto& palette = option.palette;
  QColor background = user ? palette.color(QPalette::AlternateBase) : palette.color(QPalette::Base);
  if (option.state & QStyle::State_Selected)
    background = palette.color(QPalette::Highlight).lighter(170);
  painter->fillRect(option.rect, background);
  if (option.state & QStyle::State_HasFocus) {
    painter->setPen(palette.color(QPalette::Highlight));
    painter->drawRect(option.rect.adjusted(0, 0, -1, -1));
  }

  const QFont plainFont = view_->font();
  const QFont header = boldFont(plainFont);
  painter->setFont(header);
  painter->setPen(palette.color(QPalette::Text));
  const QFontMetrics headerMetrics(header);
  const QPoint origin = option.rect.topLeft() + QPoint(kMargin, kMargin);
  painter->drawText(origin + QPoint(0, headerMetrics.ascent()), user ? tr("You") : tr("Agent"));

  const int width = contentWidth();
  auto* doc = document(index, width);
  const int exact = static_cast<int>(std::ceil(doc->text.size().height()));
  const auto g = geometry(option.rect, index, exact);

  if (!g.toolHeader.isEmpty()) {
    // The tool block: ▸ closed, ▾ open; its lines (and their output) below when open.
    const QFontMetrics metrics(plainFont);
    const bool expanded = index.data(TranscriptModel::ToolsExpandedRole).toBool();
    QColor frame = palette.color(QPalette::Mid);
    painter->setPen(frame);
    painter->setBrush(palette.color(QPalette::Button));
    painter->drawRoundedRect(g.toolHeader.adjusted(0, 0, -1, -1), 3, 3);
    painter->setBrush(Qt::NoBrush);
    painter->setFont(plainFont);
    painter->setPen(palette.color(QPalette::ButtonText));
    const QString summary = (expanded ? QStringLiteral("▾ ") : QStringLiteral("▸ ")) +
                            index.data(TranscriptModel::ToolSummaryRole).toString();
    painter->drawText(
        g.toolHeader.adjusted(kToolPad + 2, kToolPad, -kToolPad, -kToolPad),
        Qt::AlignLeft | Qt::AlignVCenter,
        metrics.elidedText(summary, Qt::ElideRight, g.toolHeader.width() - 2 * kToolPad - 4));
    if (expanded) {
      QFont mono = plainFont;
      mono.setFamilies({QStringLiteral("monospace")});
      painter->setFont(mono);
      const QFontMetrics monoMetrics(mono);
      const auto lines = index.data(TranscriptModel::ToolLinesRole).toStringList();
      const auto previews = index.data(TranscriptModel::ToolPreviewsRole).toStringList();
      int y = g.toolHeader.bottom() + 1 + kHeaderGap;
      for (int i = 0; i < lines.size(); ++i) {
        painter->setPen(palette.color(QPalette::Text));
        painter->drawText(QPoint(origin.x() + 12, y + metrics.ascent()),
                          monoMetrics.elidedText(lines[i], Qt::ElideRight, width - 12));
        y += metrics.lineSpacing();
        if (i < previews.size() && !previews[i].isEmpty()) {
          painter->setPen(palette.color(QPalette::PlaceholderText));
          painter->drawText(QPoint(origin.x() + 24, y + metrics.ascent()),
                            monoMetrics.elidedText(previews[i], Qt::ElideRight, width - 24));
          y += metrics.lineSpacing();
        }
      }
    }
  }

  // Code blocks: a shade behind each and its own "Copy" button at the top right.
  const QFont small = smallFont(plainFont);
  const QFontMetrics smallMetrics(small);
  // Each shade stops a pixel short, so blocks back to back show as two.
  for (int block = 0; block < static_cast<int>(doc->code.size()); ++block)
    painter->fillRect(codeRegionRect(*doc, block).translated(g.textOrigin).adjusted(-2, 0, 2, -1),
                      palette.color(QPalette::Window));
  painter->save();
  painter->translate(g.textOrigin);
  QAbstractTextDocumentLayout::PaintContext context;
  context.palette = palette;
  doc->text.documentLayout()->draw(painter, context);
  painter->restore();
  painter->setFont(small);
  for (int block = 0; block < static_cast<int>(doc->code.size()); ++block) {
    const QRect button = copyButtonRect(option.rect, index, block);
    painter->setPen(palette.color(QPalette::Mid));
    painter->setBrush(palette.color(QPalette::Button));
    painter->drawRoundedRect(button.adjusted(0, 0, -1, -1), 3, 3);
    painter->setPen(palette.color(QPalette::ButtonText));
    painter->drawText(button, Qt::AlignCenter, tr("Copy"));
  }

  // Files: a chip each, name and size.
  const auto chips = index.data(TranscriptModel::AttachmentsRole).toList();
  const QString id = index.data(TranscriptModel::IdRole).toString();
  for (int i = 0; i < chips.size() && i < static_cast<int>(g.chips.size()); ++i) {
    const QRect& rect = g.chips[static_cast<std::size_t>(i)];
    const bool focused = id == focusedChipRow_ && i == focusedChip_;
    painter->setPen(focused ? QPen(palette.color(QPalette::Highlight), 2)
                            : QPen(palette.color(QPalette::Mid)));
    painter->setBrush(palette.color(QPalette::Button));
    painter->drawRoundedRect(rect.adjusted(1, 1, -1, -1), 6, 6);
    painter->setPen(palette.color(QPalette::ButtonText));
    painter->drawText(rect.adjusted(kChipPad, 0, -kChipPad, 0), Qt::AlignCenter,
                      smallMetrics.elidedText(chipText(chips[i].toMap()), Qt::ElideMiddle,
                                              rect.width() - 2 * kChipPad));
  }
  painter->restore();

  // The row's height was estimated (or measured at another width) before it was laid out:
  // correct it once.
  const auto facts = factsOf(index);
  const auto key = facts.idHash;
  const auto fingerprint = facts.fingerprint;
  const auto* row = heights_.object(key);
  if (!row || row->height != exact || row->fingerprint != fingerprint || row->width != width) {
    heights_.insert(key, new Height{fingerprint, width, exact});
    const QPersistentModelIndex persistent(index);
    QMetaObject::invokeMethod(
        const_cast<MessageDelegate*>(this),
        [this, persistent] {
          if (persistent.isValid())
            Q_EMIT const_cast<MessageDelegate*>(this)->sizeHintChanged(persistent);
        },
        Qt::QueuedConnection);
  }
}

QRect MessageDelegate::toolHeaderRect(const QRect& rowRect, const QModelIndex& index) const {
  return geometry(rowRect, index, 0).toolHeader;
}

QRect MessageDelegate::codeBlockRect(const QRect& rowRect, const QModelIndex& index,
                                     int block) const {
  auto* doc = document(index, contentWidth());
  if (block < 0 || block >= static_cast<int>(doc->code.size())) return {};
  const auto g = geometry(rowRect, index, 0);
  return codeRegionRect(*doc, block).translated(g.textOrigin).toAlignedRect();
}

QRect MessageDelegate::copyButtonRect(const QRect& rowRect, const QModelIndex& index,
                                      int block) const {
  const QRect region = codeBlockRect(rowRect, index, block);
  if (region.isEmpty()) return {};
  const QFontMetrics metrics(smallFont(view_->font()));
  const QSize size(metrics.horizontalAdvance(tr("Copy")) + 12, metrics.height() + 4);
  return QRect(QPoint(region.right() - size.width() - 2, region.top() + 2), size);
}

QRect MessageDelegate::attachmentRect(const QRect& rowRect, const QModelIndex& index,
                                      int chip) const {
  const int width = contentWidth();
  auto* doc = document(index, width);
  const auto g = geometry(rowRect, index, static_cast<int>(std::ceil(doc->text.size().height())));
  if (chip < 0 || chip >= static_cast<int>(g.chips.size())) return {};
  return g.chips[static_cast<std::size_t>(chip)];
}

int MessageDelegate::codeBlockCount(const QModelIndex& index) const {
  return static_cast<int>(document(index, contentWidth())->code.size());
}

QString MessageDelegate::codeBlockText(const QModelIndex& index, int block) const {
  auto* doc = document(index, contentWidth());
  if (block < 0 || block >= static_cast<int>(doc->code.size())) return {};
  return doc->code[static_cast<std::size_t>(block)].code;
}

void MessageDelegate::setVisibleRows(int rows) {
  const qsizetype bound = std::max(minCachedDocuments, 2 * rows + 8);
  if (bound != documents_.maxCost()) documents_.setMaxCost(bound);
}

void MessageDelegate::setFocusedChip(const QString& messageId, int chip) {
  focusedChipRow_ = messageId;
  focusedChip_ = chip;
}

MessageDelegate::Hit MessageDelegate::hitTest(const QRect& rowRect, const QModelIndex& index,
                                              const QPoint& point) const {
  if (!index.isValid() || !rowRect.contains(point)) return {};
  if (toolHeaderRect(rowRect, index).contains(point)) return {Hit::Kind::toolHeader, 0};
  const int blocks = codeBlockCount(index);
  for (int block = 0; block < blocks; ++block)
    if (copyButtonRect(rowRect, index, block).contains(point)) return {Hit::Kind::copyCode, block};
  for (int block = 0; block < blocks; ++block)
    if (codeBlockRect(rowRect, index, block).contains(point)) return {Hit::Kind::codeBlock, block};
  const int chips = index.data(TranscriptModel::AttachmentsRole).toList().size();
  for (int chip = 0; chip < chips; ++chip)
    if (attachmentRect(rowRect, index, chip).contains(point)) return {Hit::Kind::attachment, chip};
  return {};
}

}  // namespace tamsel::desktopui
