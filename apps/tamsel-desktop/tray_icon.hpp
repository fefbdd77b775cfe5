#pragma once
// The tray icon (StatusNotifierItem through Qt where the desktop offers one): the engine's state
// as its tooltip and first menu line, a click brings the window forward, and Quit. Made only when
// the desktop has a tray.
#include <QSystemTrayIcon>

#include "tamsel/base/signal.hpp"

class QAction;
class QWidget;

namespace tamsel::desktop {
class DaemonManager;
}

namespace tamsel::desktopui {

class TrayIcon final : public QSystemTrayIcon {
  Q_OBJECT
 public:
  // The manager and the window must outlive the icon.
  TrayIcon(desktop::DaemonManager& manager, QWidget& window, QObject* parent = nullptr);
  ~TrayIcon() override;

 Q_SIGNALS:
  void quitRequested();

 private:
  void refresh();
  desktop::DaemonManager& manager_;
  QWidget& window_;
  QAction* state_;
  base::Signal<>::Connection connection_;
};

}  // namespace tamsel::desktopui
