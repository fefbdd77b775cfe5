#include "tray_icon.hpp"

#include <QAction>
#include <QApplication>
#include <QDockWidget>
#include <QMenu>
#include <QPainter>

#include "main_window.hpp"
#include "meetings_panel.hpp"
#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel::desktopui {

namespace {

// The application's icon with a red dot in its lower right corner: recording.
QIcon withRecordingMark(const QIcon& icon) {
  QPixmap pixmap(64, 64);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  icon.paint(&painter, pixmap.rect());
  painter.setPen(QPen(Qt::white, 3));
  painter.setBrush(QColor(0xd9, 0x1e, 0x18));
  painter.drawEllipse(QRect(34, 34, 28, 28));
  painter.end();
  return QIcon(pixmap);
}

}  // namespace

TrayIcon::TrayIcon(desktop::DaemonManager& manager, MainWindow& window, QObject* parent)
    : QSystemTrayIcon(QApplication::windowIcon(), parent),
      manager_(manager),
      window_(window),
      plainIcon_(QApplication::windowIcon()),
      recordingIcon_(withRecordingMark(plainIcon_)) {
  auto* menu = new QMenu(&window_);
  state_ = menu->addAction(QString());
  state_->setEnabled(false);
  recordingLine_ = menu->addAction(tr("● Recording a meeting"));
  recordingLine_->setEnabled(false);
  recordingLine_->setVisible(false);
  menu->addSeparator();
  connect(menu->addAction(tr("Show Tamsel")), &QAction::triggered, this,
          [this] { window_.summon(); });
  // Queued: the settings run a dialog of their own, better not inside the menu's handler.
  connect(
      menu->addAction(tr("Settings…")), &QAction::triggered, this,
      [this] {
        window_.summon();
        window_.showSettings();
      },
      Qt::QueuedConnection);
  connect(menu->addAction(tr("Meetings…")), &QAction::triggered, this, [this] {
    window_.summon();
    if (!window_.meetingsDock().isVisible()) window_.toggleMeetings();
  });
  menu->addSeparator();
  connect(menu->addAction(tr("Quit")), &QAction::triggered, this, &TrayIcon::quitRequested);
  setContextMenu(menu);
  connect(this, &QSystemTrayIcon::activated, this, [this](ActivationReason reason) {
    if (reason == Trigger) window_.summon();
  });
  auto& panel = window_.meetingsPanel();
  connect(&panel, &MeetingsPanel::recordingChanged, this, &TrayIcon::setRecording);
  connection_ = manager_.changed().connect([this] { refresh(); });
  recording_ = panel.isRecording();
  refresh();
}

TrayIcon::~TrayIcon() { manager_.changed().disconnect(connection_); }

QAction* TrayIcon::action(const QString& text) const {
  for (auto* a : contextMenu()->actions())
    if (a->text().remove(QLatin1Char('&')) == text) return a;
  return nullptr;
}

void TrayIcon::setRecording(bool recording) {
  recording_ = recording;
  refresh();
}

void TrayIcon::refresh() {
  const auto text = QString::fromStdString(manager_.state().displayText());
  state_->setText(text);
  recordingLine_->setVisible(recording_);
  setIcon(recording_ ? recordingIcon_ : plainIcon_);
  setToolTip(QStringLiteral("Tamsel — ") + text +
             (recording_ ? tr(" — recording a meeting") : QString()));
}

}  // namespace tamsel::desktopui
