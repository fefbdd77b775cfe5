#pragma once
// Settings (Ctrl+,): the summon hotkey's trigger, recording detected meetings without asking,
// launch at login, the always-allowed tools (a dialog of their own), where the engine is, and the
// calendars. Each change is saved at once; one that cannot be saved is undone on screen and says
// why.
#include <QDialog>
#include <functional>
#include <memory>

#include "tamsel/app/desktop_services.hpp"
#include "tamsel/app/launch_at_login.hpp"

class QCheckBox;
class QComboBox;
class QLabel;

namespace tamsel::desktopui {

class CalendarSettings;

class SettingsDialog final : public QDialog {
  Q_OBJECT
 public:
  SettingsDialog(app::DesktopServices& services, std::unique_ptr<app::LaunchAtLogin> launchAtLogin,
                 QWidget* parent = nullptr);
  ~SettingsDialog() override;

  QComboBox& hotkeyMode() { return *hotkeyMode_; }
  QLabel& hotkeyStatus() { return *hotkeyStatus_; }
  QCheckBox& autoRecord() { return *autoRecord_; }
  QCheckBox& launchAtLogin() { return *launchAtLogin_; }
  QLabel& launchAtLoginStatus() { return *launchStatus_; }
  QLabel& engineInfo() { return *engineInfo_; }
  CalendarSettings& calendars() { return *calendars_; }

  // Shows what the hotkey monitor said last (its backend, or why it cannot run).
  void showHotkeyStatus(const app::HotkeyStatus& status);

 Q_SIGNALS:
  void hotkeyStatusChanged(const tamsel::app::HotkeyStatus& status);
  void autoRecordChanged(bool on);
  // The user asked to review the always-allowed tools.
  void alwaysAllowRequested();

 private:
  void onHotkeyMode(int index);
  void onAutoRecord(bool on);
  void onLaunchAtLogin(bool on);
  void refreshLaunchAtLogin(const QString& error = {});

  app::DesktopServices& services_;
  std::unique_ptr<app::LaunchAtLogin> login_;
  QComboBox* hotkeyMode_;
  QLabel* hotkeyStatus_;
  QCheckBox* autoRecord_;
  QCheckBox* launchAtLogin_;
  QLabel* launchStatus_;
  QLabel* engineInfo_;
  CalendarSettings* calendars_;
};

}  // namespace tamsel::desktopui
