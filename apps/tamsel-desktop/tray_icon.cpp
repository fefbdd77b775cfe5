#include "tray_icon.hpp"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QWidget>

#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel::desktopui {

TrayIcon::TrayIcon(desktop::DaemonManager& manager, QWidget& window, QObject* parent)
    : QSystemTrayIcon(QApplication::windowIcon(), parent), manager_(manager), window_(window) {
  auto* menu = new QMenu(&window_);
  state_ = menu->addAction(QString());
  state_->setEnabled(false);
  menu->addSeparator();
  connect(menu->addAction(tr("Show Tamsel")), &QAction::triggered, this, [this] {
    window_.show();
    window_.raise();
    window_.activateWindow();
  });
  connect(menu->addAction(tr("Quit")), &QAction::triggered, this, &TrayIcon::quitRequested);
  setContextMenu(menu);
  connect(this, &QSystemTrayIcon::activated, this, [this](ActivationReason reason) {
    if (reason != Trigger) return;
    window_.show();
    window_.raise();
    window_.activateWindow();
  });
  connection_ = manager_.changed().connect([this] { refresh(); });
  refresh();
}

TrayIcon::~TrayIcon() { manager_.changed().disconnect(connection_); }

void TrayIcon::refresh() {
  const auto text = QString::fromStdString(manager_.state().displayText());
  state_->setText(text);
  setToolTip(QStringLiteral("Tamsel — ") + text);
}

}  // namespace tamsel::desktopui
