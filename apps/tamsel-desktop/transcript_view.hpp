#pragma once
// The transcript list: rows drawn by MessageDelegate, and what a user does with them. A click
// (or Space, or Enter on a reply) opens and closes a tool block; "Copy" on a code block, or
// "Copy code block" in the context menu, copies that block's code; a file chip opens with the
// desktop's default application on a click or Enter (Left/Right move between a message's chips);
// Ctrl+C copies the whole message as Markdown.
#include <QListView>
#include <QUrl>
#include <functional>

#include "message_delegate.hpp"

class QMenu;

namespace tamsel::desktopui {

class TranscriptModel;

class TranscriptView : public QListView {
  Q_OBJECT
 public:
  explicit TranscriptView(QWidget* parent = nullptr);

  MessageDelegate& messageDelegate() { return *delegate_; }
  // How files are opened; QDesktopServices::openUrl unless replaced (tests watch it instead).
  using UrlOpener = std::function<bool(const QUrl&)>;
  void setUrlOpener(UrlOpener opener) { opener_ = std::move(opener); }

  // The actions behind the mouse and keys, for one row.
  void toggleTools(const QModelIndex& index);
  void copyCodeBlock(const QModelIndex& index, int block);
  void copyMessage(const QModelIndex& index);
  void openAttachment(const QModelIndex& index, int chip);
  // The context menu for a point of the viewport (a right click: the code block under it), or
  // for the current row (the menu key: each of its code blocks by number).
  QMenu* contextMenuAt(const QPoint& point);
  QMenu* contextMenuForCurrent();

 Q_SIGNALS:
  // News for the user that needs no answer (a file that is gone).
  void noticeRequested(const QString& text);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  bool viewportEvent(QEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void currentChanged(const QModelIndex& current, const QModelIndex& previous) override;

 private:
  TranscriptModel* transcriptModel() const;
  int chipCount(const QModelIndex& index) const;
  MessageDelegate::Hit hitAt(const QPoint& point, QModelIndex* index = nullptr) const;
  QMenu* contextMenu(const QModelIndex& index, const MessageDelegate::Hit& hit, bool allBlocks);
  void focusChip(const QModelIndex& index, int chip);

  MessageDelegate* delegate_;
  UrlOpener opener_;
  int focusedChip_ = -1;
};

}  // namespace tamsel::desktopui
