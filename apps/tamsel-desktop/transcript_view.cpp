#include "transcript_view.hpp"

#include <QAction>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMenu>
#include <QPointer>
#include <QThreadPool>
#include <QToolTip>

#include "message_delegate.hpp"
#include "transcript_model.hpp"

namespace tamsel::desktopui {

TranscriptView::TranscriptView(QWidget* parent)
    : QListView(parent), delegate_(new MessageDelegate(this)) {
  setItemDelegate(delegate_);
  // The pointer shows what can be clicked (tool headers, Copy buttons, file chips).
  viewport()->setMouseTracking(true);
  opener_ = [](const QUrl& url) { return QDesktopServices::openUrl(url); };
  // Ctrl+C copies the current message as its Markdown source (code blocks included, as typed).
  auto* copy = new QAction(tr("Copy the message"), this);
  copy->setShortcut(QKeySequence::Copy);
  copy->setShortcutContext(Qt::WidgetShortcut);
  addAction(copy);
  connect(copy, &QAction::triggered, this, [this] { copyMessage(currentIndex()); });
}

TranscriptModel* TranscriptView::transcriptModel() const {
  return qobject_cast<TranscriptModel*>(model());
}

int TranscriptView::chipCount(const QModelIndex& index) const {
  return index.isValid() ? index.data(TranscriptModel::AttachmentsRole).toList().size() : 0;
}

void TranscriptView::toggleTools(const QModelIndex& index) {
  if (auto* m = transcriptModel(); m && index.isValid()) m->toggleTools(index.row());
}

void TranscriptView::copyCodeBlock(const QModelIndex& index, int block) {
  if (!index.isValid() || block < 0 || block >= delegate_->codeBlockCount(index)) return;
  QGuiApplication::clipboard()->setText(delegate_->codeBlockText(index, block));
}

void TranscriptView::copyMessage(const QModelIndex& index) {
  if (index.isValid())
    QGuiApplication::clipboard()->setText(index.data(TranscriptModel::MarkdownRole).toString());
}

void TranscriptView::openAttachment(const QModelIndex& index, int chip) {
  const auto chips =
      index.isValid() ? index.data(TranscriptModel::AttachmentsRole).toList() : QVariantList{};
  if (chip < 0 || chip >= chips.size()) return;
  const auto file = chips[chip].toMap();
  const auto name = file.value(QStringLiteral("name")).toString();
  const auto path = file.value(QStringLiteral("path")).toString();
  if (path.isEmpty()) {
    Q_EMIT noticeRequested(tr("“%1” has no copy on this computer to open.").arg(name));
    return;
  }
  // The file is looked for off the GUI thread (a stalled network mount must not freeze the
  // window); the answer comes back here.
  QThreadPool::globalInstance()->start([view = QPointer<TranscriptView>(this), name, path] {
    const bool exists = QFileInfo::exists(path);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [view, name, path, exists] {
          if (!view) return;
          if (!exists)
            Q_EMIT view->noticeRequested(tr("“%1” is no longer at %2.").arg(name, path));
          else if (!view->opener_(QUrl::fromLocalFile(path)))
            Q_EMIT view->noticeRequested(
                tr("No application could open “%1” (%2).").arg(name, path));
        },
        Qt::QueuedConnection);
  });
}

QMenu* TranscriptView::contextMenuAt(const QPoint& point) {
  const auto index = indexAt(point);
  if (!index.isValid()) return nullptr;
  setCurrentIndex(index);
  return contextMenu(index, delegate_->hitTest(visualRect(index), index, point), false);
}

QMenu* TranscriptView::contextMenuForCurrent() {
  const auto index = currentIndex();
  return index.isValid() ? contextMenu(index, {}, true) : nullptr;
}

QMenu* TranscriptView::contextMenu(const QModelIndex& index, const MessageDelegate::Hit& hit,
                                   bool allBlocks) {
  using Kind = MessageDelegate::Hit::Kind;
  auto* menu = new QMenu(this);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  menu->setAccessibleName(tr("Message actions"));
  const QPersistentModelIndex row(index);
  const auto copyBlock = [&](const QString& text, int block) {
    menu->addAction(text, this, [this, row, block] { copyCodeBlock(row, block); });
  };
  if (hit.kind == Kind::codeBlock || hit.kind == Kind::copyCode)
    copyBlock(tr("Copy code block"), hit.item);
  if (allBlocks) {
    const int blocks = delegate_->codeBlockCount(index);
    for (int block = 0; block < blocks; ++block)
      copyBlock(blocks == 1 ? tr("Copy code block") : tr("Copy code block %1").arg(block + 1),
                block);
  }
  menu->addAction(tr("Copy the message"), this, [this, row] { copyMessage(row); });
  if (hit.kind == Kind::attachment) {
    const int chip = hit.item;
    menu->addAction(tr("Open the file"), this, [this, row, chip] { openAttachment(row, chip); });
  }
  if (!index.data(TranscriptModel::ToolSummaryRole).toString().isEmpty())
    menu->addAction(index.data(TranscriptModel::ToolsExpandedRole).toBool() ? tr("Hide the tools")
                                                                            : tr("Show the tools"),
                    this, [this, row] { toggleTools(row); });
  return menu;
}

void TranscriptView::contextMenuEvent(QContextMenuEvent* event) {
  if (event->reason() == QContextMenuEvent::Keyboard) {
    if (auto* menu = contextMenuForCurrent())
      menu->popup(viewport()->mapToGlobal(visualRect(currentIndex()).topLeft() + QPoint(12, 12)));
    return;
  }
  if (auto* menu = contextMenuAt(event->pos())) menu->popup(event->globalPos());
}

void TranscriptView::paintEvent(QPaintEvent* event) {
  const auto first = indexAt(QPoint(0, 0));
  const auto last = indexAt(QPoint(0, viewport()->height() - 1));
  if (first.isValid())
    delegate_->setVisibleRows((last.isValid() ? last.row() : model()->rowCount() - 1) -
                              first.row() + 1);
  QListView::paintEvent(event);
}

MessageDelegate::Hit TranscriptView::hitAt(const QPoint& point, QModelIndex* found) const {
  const auto index = indexAt(point);
  if (found) *found = index;
  return index.isValid() ? delegate_->hitTest(visualRect(index), index, point)
                         : MessageDelegate::Hit{};
}

void TranscriptView::mouseMoveEvent(QMouseEvent* event) {
  if (event->buttons() == Qt::NoButton) {
    using Kind = MessageDelegate::Hit::Kind;
    const auto kind = hitAt(event->position().toPoint()).kind;
    const bool clickable =
        kind == Kind::toolHeader || kind == Kind::copyCode || kind == Kind::attachment;
    viewport()->setCursor(clickable ? Qt::PointingHandCursor : Qt::ArrowCursor);
  }
  QListView::mouseMoveEvent(event);
}

bool TranscriptView::viewportEvent(QEvent* event) {
  if (event->type() == QEvent::ToolTip) {
    using Kind = MessageDelegate::Hit::Kind;
    auto* help = static_cast<QHelpEvent*>(event);
    QModelIndex index;
    const auto hit = hitAt(help->pos(), &index);
    QString tip;
    if (hit.kind == Kind::toolHeader)
      tip = index.data(TranscriptModel::ToolsExpandedRole).toBool() ? tr("Hide the tools")
                                                                    : tr("Show the tools");
    else if (hit.kind == Kind::copyCode)
      tip = tr("Copy this code block");
    else if (hit.kind == Kind::attachment)
      tip = index.data(TranscriptModel::AttachmentsRole)
                .toList()
                .value(hit.item)
                .toMap()
                .value(QStringLiteral("path"))
                .toString();
    if (!tip.isEmpty()) {
      QToolTip::showText(help->globalPos(), tip, viewport());
      return true;
    }
  }
  return QListView::viewportEvent(event);
}

void TranscriptView::mousePressEvent(QMouseEvent* event) {
  const auto index = indexAt(event->position().toPoint());
  if (event->button() == Qt::LeftButton && index.isValid()) {
    const auto hit = delegate_->hitTest(visualRect(index), index, event->position().toPoint());
    using Kind = MessageDelegate::Hit::Kind;
    if (hit.kind == Kind::toolHeader || hit.kind == Kind::copyCode ||
        hit.kind == Kind::attachment) {
      setCurrentIndex(index);
      if (hit.kind == Kind::toolHeader) toggleTools(index);
      if (hit.kind == Kind::copyCode) copyCodeBlock(index, hit.item);
      if (hit.kind == Kind::attachment) {
        focusChip(index, hit.item);
        openAttachment(index, hit.item);
      }
      event->accept();
      return;
    }
  }
  QListView::mousePressEvent(event);
}

void TranscriptView::focusChip(const QModelIndex& index, int chip) {
  focusedChip_ = chip;
  delegate_->setFocusedChip(index.data(TranscriptModel::IdRole).toString(), chip);
  viewport()->update(visualRect(index));
}

void TranscriptView::currentChanged(const QModelIndex& current, const QModelIndex& previous) {
  QListView::currentChanged(current, previous);
  // The keyboard lands on a message's first file, if it has any.
  focusChip(current, chipCount(current) > 0 ? 0 : -1);
}

void TranscriptView::keyPressEvent(QKeyEvent* event) {
  const auto index = currentIndex();
  const bool tools =
      index.isValid() && !index.data(TranscriptModel::ToolSummaryRole).toString().isEmpty();
  const int chips = chipCount(index);
  if (event->modifiers() == Qt::NoModifier || event->modifiers() == Qt::KeypadModifier) {
    switch (event->key()) {
      case Qt::Key_Space:
        if (tools) {
          toggleTools(index);
          return;
        }
        break;
      case Qt::Key_Return:
      case Qt::Key_Enter:
        if (chips > 0) {
          openAttachment(index, std::clamp(focusedChip_, 0, chips - 1));
          return;
        }
        if (tools) {
          toggleTools(index);
          return;
        }
        break;
      case Qt::Key_Left:
      case Qt::Key_Right:
        if (chips > 1) {
          const int step = event->key() == Qt::Key_Right ? 1 : -1;
          focusChip(index, std::clamp(focusedChip_ + step, 0, chips - 1));
          return;
        }
        break;
      default:
        break;
    }
  }
  QListView::keyPressEvent(event);
}

}  // namespace tamsel::desktopui
