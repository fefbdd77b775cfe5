#include "composer.hpp"

#include <QKeyEvent>

namespace tamsel::desktopui {

Composer::Composer(QWidget* parent) : QPlainTextEdit(parent) {
  setAccessibleName(tr("Message"));
  setAccessibleDescription(
      tr("Enter sends, Shift+Enter starts a new line, Ctrl+Enter adds it to the running reply"));
  setPlaceholderText(tr("Message the agent — Enter to send, Shift+Enter for a new line"));
  setTabChangesFocus(true);
  setMaximumHeight(160);
}

void Composer::keyPressEvent(QKeyEvent* event) {
  const bool enter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
  if (enter && !(event->modifiers() & Qt::ShiftModifier)) {
    if (event->modifiers() & Qt::ControlModifier)
      Q_EMIT injectRequested();
    else
      Q_EMIT sendRequested();
    event->accept();
    return;
  }
  QPlainTextEdit::keyPressEvent(event);
}

}  // namespace tamsel::desktopui
