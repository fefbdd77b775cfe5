#pragma once
// The calendars part of Settings: whether the engine may use the user's calendars, the
// calendars the desktop knows (local folders and CalDAV accounts), and adding one of each.
// Reading calendars and checking a CalDAV account touch disk and network, so they run on a
// worker thread and their results come back to the GUI thread; nothing here blocks it.
#include <QGroupBox>
#include <QPointer>
#include <filesystem>
#include <memory>
#include <optional>

#include "tamsel/calendar/calendar_permission_store.hpp"

class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;

namespace tamsel::calendar {
class CalendarProvider;
}

namespace tamsel::desktopui {

class CalendarSettings final : public QGroupBox {
  Q_OBJECT
 public:
  // `provider` serves the engine (null when the calendars cannot be opened): the grant is
  // changed through it, so the engine hears of the change.
  CalendarSettings(std::filesystem::path appFolder,
                   std::shared_ptr<calendar::CalendarProvider> provider, QWidget* parent = nullptr);
  ~CalendarSettings() override;

  // Reads the calendars again (after an account or folder was added elsewhere too).
  void reload();
  // Checks the account and saves it when the server shows at least one event calendar.
  void addCalDAVAccount(const QString& url, const QString& user, const QString& password);
  // Adds a local calendar folder titled `title`.
  void addLocalCalendar(const QString& title);

  QCheckBox& permission() { return *permission_; }
  QLabel& permissionStatus() { return *permissionStatus_; }
  QListWidget& calendars() { return *calendars_; }
  QLabel& status() { return *status_; }
  QPushButton& addLocalButton() { return *addLocal_; }
  QPushButton& addCalDAVButton() { return *addCalDAV_; }

 Q_SIGNALS:
  // A worker finished (a listing or an account check); for tests that wait on it.
  void settled();

 private:
  void onPermission(bool on);
  void showPermission();
  void askForLocal();
  void askForCalDAV();
  void setBusy(const QString& text);

  std::filesystem::path appFolder_;
  std::shared_ptr<calendar::CalendarProvider> provider_;
  // Shared with the workers, which check it before posting back to a widget that may be gone.
  std::shared_ptr<QPointer<CalendarSettings>> self_;
  QCheckBox* permission_;
  QLabel* permissionStatus_;
  QListWidget* calendars_;
  QLabel* status_;
  QPushButton* addLocal_;
  QPushButton* addCalDAV_;
};

// How the window asks the user when the engine requests calendar access: a question box on
// the GUI thread, answered or closed; nothing (the status stays) when no answer comes within
// `patience` or the application quits first. Safe to call from any thread but the GUI's.
calendar::PermissionPrompter windowCalendarPrompter(std::chrono::seconds patience);

}  // namespace tamsel::desktopui
