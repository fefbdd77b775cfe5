#include "settings_dialog.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "calendar_settings.hpp"
#include "tamsel/hotkey/double_tap.hpp"

namespace tamsel::desktopui {

using hotkey::HotkeyTriggerMode;

namespace {

QLabel* wrappedLabel(const QString& name, QWidget* parent) {
  auto* label = new QLabel(parent);
  label->setAccessibleName(name);
  label->setWordWrap(true);
  label->setTextFormat(Qt::PlainText);
  // Read by keyboard too: the engine's path is something people copy.
  label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  return label;
}

}  // namespace

SettingsDialog::SettingsDialog(app::DesktopServices& services,
                               std::unique_ptr<app::LaunchAtLogin> launchAtLogin, QWidget* parent)
    : QDialog(parent), services_(services), login_(std::move(launchAtLogin)) {
  setWindowTitle(tr("Settings"));
  setAccessibleName(tr("Settings"));

  hotkeyMode_ = new QComboBox(this);
  hotkeyMode_->setAccessibleName(tr("Summon hotkey"));
  hotkeyMode_->addItem(tr("Double tap of the left Alt key"),
                       static_cast<int>(HotkeyTriggerMode::doubleTapLeft));
  hotkeyMode_->addItem(tr("Double tap of the right Alt key"),
                       static_cast<int>(HotkeyTriggerMode::doubleTapRight));
  hotkeyMode_->addItem(tr("A shortcut set in the desktop's keyboard settings"),
                       static_cast<int>(HotkeyTriggerMode::custom));
  hotkeyMode_->addItem(tr("Off"), static_cast<int>(HotkeyTriggerMode::off));
  hotkeyMode_->setCurrentIndex(
      hotkeyMode_->findData(static_cast<int>(services_.hotkeyTriggerMode())));
  hotkeyStatus_ = wrappedLabel(tr("Summon hotkey status"), this);

  autoRecord_ = new QCheckBox(tr("&Record detected meetings without asking"), this);
  autoRecord_->setAccessibleName(tr("Record detected meetings without asking"));
  autoRecord_->setChecked(services_.meetingAutoRecord());

  launchAtLogin_ = new QCheckBox(tr("&Launch at login"), this);
  launchAtLogin_->setAccessibleName(tr("Launch at login"));
  launchStatus_ = wrappedLabel(tr("Launch at login status"), this);

  engineInfo_ = wrappedLabel(tr("Engine"), this);
  const auto& enginePath = services_.daemonManager().enginePath();
  engineInfo_->setText(
      tr("Port %1 on 127.0.0.1\nProgram: %2\nHome: %3")
          .arg(services_.options().enginePort)
          .arg(enginePath ? QString::fromStdString(enginePath->string()) : tr("not found yet"))
          .arg(QString::fromStdString(services_.engineHome().string())));

  auto* alwaysAllowed = new QPushButton(tr("Always allowed &tools…"), this);
  alwaysAllowed->setAccessibleName(tr("Always allowed tools"));
  alwaysAllowed->setToolTip(tr("Review and revoke what the agents may use without asking"));
  connect(alwaysAllowed, &QPushButton::clicked, this, &SettingsDialog::alwaysAllowRequested);

  auto* form = new QFormLayout;
  form->addRow(tr("&Summon hotkey:"), hotkeyMode_);
  form->addRow(QString(), hotkeyStatus_);
  form->addRow(QString(), autoRecord_);
  form->addRow(QString(), launchAtLogin_);
  form->addRow(QString(), launchStatus_);
  form->addRow(tr("Permissions:"), alwaysAllowed);
  form->addRow(tr("Engine:"), engineInfo_);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
  buttons->button(QDialogButtonBox::Close)->setAccessibleName(tr("Close the settings"));
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  calendars_ = new CalendarSettings(services_.appFolder(), services_.calendar(), this);
  auto* column = new QVBoxLayout(this);
  column->addLayout(form);
  column->addWidget(calendars_);
  column->addWidget(buttons);

  connect(hotkeyMode_, &QComboBox::activated, this, &SettingsDialog::onHotkeyMode);
  connect(autoRecord_, &QCheckBox::toggled, this, &SettingsDialog::onAutoRecord);
  connect(launchAtLogin_, &QCheckBox::toggled, this, &SettingsDialog::onLaunchAtLogin);
  refreshLaunchAtLogin();
  hotkeyMode_->setFocus();
}

SettingsDialog::~SettingsDialog() = default;

void SettingsDialog::showHotkeyStatus(const app::HotkeyStatus& status) {
  hotkeyStatus_->setText(QString::fromStdString(status.text));
  hotkeyStatus_->setVisible(!status.text.empty());
}

void SettingsDialog::onHotkeyMode(int index) {
  const auto mode = static_cast<HotkeyTriggerMode>(hotkeyMode_->itemData(index).toInt());
  try {
    const auto status = services_.setHotkeyTriggerMode(mode);
    showHotkeyStatus(status);
    Q_EMIT hotkeyStatusChanged(status);
  } catch (const std::exception& e) {
    const QSignalBlocker quiet(hotkeyMode_);
    hotkeyMode_->setCurrentIndex(
        hotkeyMode_->findData(static_cast<int>(services_.hotkeyTriggerMode())));
    hotkeyStatus_->setText(tr("Could not save the hotkey setting: %1").arg(e.what()));
    hotkeyStatus_->setVisible(true);
  }
}

void SettingsDialog::onAutoRecord(bool on) {
  try {
    services_.setMeetingAutoRecord(on);
    Q_EMIT autoRecordChanged(on);
  } catch (const std::exception& e) {
    const QSignalBlocker quiet(autoRecord_);
    autoRecord_->setChecked(!on);
    hotkeyStatus_->setText(tr("Could not save the meeting setting: %1").arg(e.what()));
    hotkeyStatus_->setVisible(true);
  }
}

void SettingsDialog::onLaunchAtLogin(bool on) {
  try {
    login_->setEnabled(on);
    refreshLaunchAtLogin();
  } catch (const std::exception& e) {
    refreshLaunchAtLogin(QString::fromUtf8(e.what()));
  }
}

void SettingsDialog::refreshLaunchAtLogin(const QString& error) {
  const auto current = login_->current();
  {
    const QSignalBlocker quiet(launchAtLogin_);
    launchAtLogin_->setChecked(current.has_value());
  }
  const auto way = current.value_or(login_->preferred());
  QString text = way == app::LaunchAtLogin::Mechanism::userService
                     ? tr("Through the systemd user unit %1.")
                           .arg(QString::fromLatin1(app::LaunchAtLogin::unitName))
                     : tr("Through the autostart entry %1.")
                           .arg(QString::fromStdString(login_->autostartEntry().string()));
  if (!current) text = tr("Off. Turning it on uses: %1").arg(text);
  if (!error.isEmpty()) text = tr("Could not change it: %1\n%2").arg(error, text);
  launchStatus_->setText(text);
}

}  // namespace tamsel::desktopui
