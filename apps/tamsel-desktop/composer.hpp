#pragma once
// The message editor: Enter sends, Shift+Enter starts a new line, Ctrl+Enter adds the text to the
// running reply (inject). Multi-line plain text; the window keeps its text as the session's draft.
#include <QPlainTextEdit>

namespace tamsel::desktopui {

class Composer final : public QPlainTextEdit {
  Q_OBJECT
 public:
  explicit Composer(QWidget* parent = nullptr);

 Q_SIGNALS:
  void sendRequested();
  void injectRequested();

 protected:
  void keyPressEvent(QKeyEvent* event) override;
};

}  // namespace tamsel::desktopui
