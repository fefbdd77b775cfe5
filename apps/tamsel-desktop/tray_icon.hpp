#pragma once
// The tray icon (StatusNotifierItem through Qt where the desktop offers one): the engine's state
// as its tooltip and first menu line, a red mark and a menu line while a meeting is being
// recorded, a click brings the window forward; the menu also opens the settings and the meetings
// panel, and quits. Made only when the desktop has a tray.
#include <QIcon>
#include <QSystemTrayIcon>

#include "tamsel/base/signal.hpp"

class QAction;

namespace tamsel::desktop {
class DaemonManager;
}

namespace tamsel::desktopui {

class MainWindow;

class TrayIcon final : public QSystemTrayIcon {
  Q_OBJECT
 public:
  // The manager and the window must outlive the icon.
  TrayIcon(desktop::DaemonManager& manager, MainWindow& window, QObject* parent = nullptr);
  ~TrayIcon() override;

  bool showsRecording() const { return recording_; }
  // The menu entry with this text (mnemonics aside), or null.
  QAction* action(const QString& text) const;

 Q_SIGNALS:
  void quitRequested();

 private:
  void refresh();
  void setRecording(bool recording);
  desktop::DaemonManager& manager_;
  MainWindow& window_;
  QIcon plainIcon_, recordingIcon_;
  QAction* state_;
  QAction* recordingLine_;
  bool recording_ = false;
  base::Signal<>::Connection connection_;
};

}  // namespace tamsel::desktopui
