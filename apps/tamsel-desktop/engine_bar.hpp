#pragma once
// The engine's state, always visible at the top of the window with the supervisor's own texts.
// When the engine failed or was not found it says why: how the engine last ended, the command
// line it was started with and the last lines of its output, with Retry.
#include <QWidget>
#include <filesystem>
#include <string>

#include "tamsel/base/signal.hpp"

class QLabel;
class QPushButton;
class QPlainTextEdit;

namespace tamsel::desktop {
class DaemonManager;
}

namespace tamsel::desktopui {

class EngineBar final : public QWidget {
  Q_OBJECT
 public:
  // The manager must outlive the bar.
  EngineBar(desktop::DaemonManager& manager, std::filesystem::path engineLog,
            QWidget* parent = nullptr);
  ~EngineBar() override;

  QString stateText() const;
  // The details shown under "Why?": exit, command line, output tail. Empty while all is well.
  QString failureDetails() const;
  // The last `lines` lines of a text file, read from its end (at most 16 KiB).
  static QString tailOf(const std::string& path, int lines);

 public Q_SLOTS:
  void retry();

 Q_SIGNALS:
  // The user asked to save the diagnostics file.
  void diagnosticsRequested();

 private:
  void refresh();

  desktop::DaemonManager& manager_;
  std::filesystem::path engineLog_;
  base::Signal<>::Connection connection_;
  QLabel* state_;
  QPushButton* retry_;
  QPushButton* why_;
  QPlainTextEdit* details_;
};

}  // namespace tamsel::desktopui
