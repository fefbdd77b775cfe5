#include "message_delegate.hpp"

#include <QAbstractItemView>
#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QPainter>
#include <QTextBlock>
#include <QTextCursor>

#include "transcript_model.hpp"

namespace tamsel::desktopui {

namespace {
constexpr int kMargin = 8;
constexpr int kHeaderGap = 2;

QString documentKey(const QModelIndex& index) {
  return index.data(TranscriptModel::IdRole).toString();
}
}  // namespace

MessageDelegate::MessageDelegate(QAbstractItemView* view)
    : QStyledItemDelegate(view), view_(view) {}

int MessageDelegate::contentWidth() const {
  return std::max(120, view_->viewport()->width() - 2 * kMargin);
}

QTextDocument* MessageDelegate::document(const QModelIndex& index, int width) const {
  const auto key = documentKey(index);
  const auto fingerprint = index.data(TranscriptModel::FingerprintRole).toULongLong();
  auto* doc = documents_.object(key);
  if (doc && doc->property("fingerprint").toULongLong() == fingerprint) {
    if (static_cast<int>(doc->textWidth()) != width) doc->setTextWidth(width);
    return doc;
  }
  auto owned = std::make_unique<QTextDocument>();
  owned->setDocumentMargin(0);
  owned->setDefaultFont(view_->font());
  owned->setMarkdown(index.data(TranscriptModel::MarkdownRole).toString());
  const auto tools = index.data(TranscriptModel::ToolLinesRole).toStringList();
  if (!tools.isEmpty()) {
    // Tool lines are plain text (their arguments are not Markdown), above the reply's text.
    QTextCursor cursor(owned.get());
    cursor.movePosition(QTextCursor::Start);
    QTextCharFormat format;
    format.setForeground(view_->palette().color(QPalette::PlaceholderText));
    format.setFontFamilies({QStringLiteral("monospace")});
    for (const auto& line : tools) {
      cursor.insertText(QStringLiteral("⚙ ") + line, format);
      cursor.insertBlock();
    }
  }
  owned->setTextWidth(width);
  owned->setProperty("fingerprint", QVariant::fromValue<qulonglong>(fingerprint));
  doc = owned.release();
  documents_.insert(key, doc);
  return doc;
}

int MessageDelegate::estimateHeight(const QModelIndex& index, int width) const {
  const QFontMetrics metrics(view_->font());
  const auto text = index.data(TranscriptModel::MarkdownRole).toString();
  const int perLine = std::max(1, width / std::max(1, metrics.averageCharWidth()));
  int lines = index.data(TranscriptModel::ToolLinesRole).toStringList().size();
  for (const auto& paragraph : QStringView(text).split(u'\n'))
    lines += 1 + static_cast<int>(paragraph.size()) / perLine;
  return lines * metrics.lineSpacing();
}

QSize MessageDelegate::sizeHint(const QStyleOptionViewItem&, const QModelIndex& index) const {
  const int width = contentWidth();
  const auto id = documentKey(index).toStdString();
  const auto fingerprint = index.data(TranscriptModel::FingerprintRole).toULongLong();
  const QFontMetrics metrics(view_->font());
  auto& row = heights_[id];
  if (row.fingerprint != fingerprint || row.width != width) {
    // A row that is already laid out (on screen) is measured; others are estimated.
    if (auto* doc = documents_.object(documentKey(index));
        doc && doc->property("fingerprint").toULongLong() == fingerprint) {
      doc->setTextWidth(width);
      row = {fingerprint, width, static_cast<int>(std::ceil(doc->size().height())), true};
    } else {
      row = {fingerprint, width, estimateHeight(index, width), false};
    }
  }
  return {width + 2 * kMargin, row.height + metrics.height() + kHeaderGap + 2 * kMargin};
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

  QFont header = option.font;
  header.setBold(true);
  painter->setFont(header);
  painter->setPen(palette.color(QPalette::Text));
  const QFontMetrics metrics(header);
  const QPoint origin = option.rect.topLeft() + QPoint(kMargin, kMargin);
  painter->drawText(origin + QPoint(0, metrics.ascent()), user ? tr("You") : tr("Agent"));

  const int width = contentWidth();
  auto* doc = document(index, width);
  painter->translate(origin + QPoint(0, metrics.height() + kHeaderGap));
  QAbstractTextDocumentLayout::PaintContext context;
  context.palette = palette;
  context.palette.setColor(QPalette::Text, palette.color(QPalette::Text));
  doc->documentLayout()->draw(painter, context);
  painter->restore();

  // The row's height was estimated before it was laid out: correct it once.
  const auto id = documentKey(index).toStdString();
  auto& row = heights_[id];
  const int exact = static_cast<int>(std::ceil(doc->size().height()));
  const auto fingerprint = index.data(TranscriptModel::FingerprintRole).toULongLong();
  if (!row.exact || row.height != exact || row.fingerprint != fingerprint || row.width != width) {
    row = {fingerprint, width, exact, true};
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

}  // namespace tamsel::desktopui
