// The calendars in Settings and the window's answer to the engine's calendar request, on Qt's
// offscreen platform, over real calendar folders in a temporary app folder.
#include "calendar_settings.hpp"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QtTest>
#include <atomic>
#include <thread>

#include "../unit/test_support.hpp"
#include "qt_main_executor.hpp"
#include "tamsel/calendar/caldav_calendar_store.hpp"
#include "tamsel/calendar/calendar_provider.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"

using namespace tamsel;
using calendar::CalendarPermissionStatus;

namespace {

QMessageBox* openQuestion() {
  for (auto* w : QApplication::topLevelWidgets())
    if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible()) return box;
  return nullptr;
}

QAbstractButton* buttonNamed(QMessageBox& box, const QString& text) {
  for (auto* b : box.buttons())
    if (b->text() == text) return b;
  return nullptr;
}

}  // namespace

class CalendarSettingsTest : public QObject {
  Q_OBJECT
  std::unique_ptr<desktopui::QtMainExecutor> main;
  std::unique_ptr<test::TempDir> dir;

  std::shared_ptr<calendar::CalendarProvider> provider(
      std::shared_ptr<calendar::CalendarPermissionStore> permissions) {
    return std::make_shared<calendar::CalendarProvider>(
        main->ioExecutor(), calendar::openDesktopCalendarStore(dir->path()), permissions);
  }

 private Q_SLOTS:
  void init() {
    main = std::make_unique<desktopui::QtMainExecutor>();
    dir = std::make_unique<test::TempDir>();
  }
  void cleanup() {
    dir.reset();
    main.reset();
  }

  void theGrantIsTheCheckboxAndReachesTheEngine() {
    const auto preferences = dir->path() / "preferences.json";
    auto permissions = std::make_shared<calendar::PreferencesPermissionStore>(preferences);
    auto served = provider(permissions);
    desktopui::CalendarSettings settings(dir->path(), served);
    QVERIFY(!settings.permission().isChecked());
    QVERIFY(settings.permissionStatus().text().contains(QStringLiteral("Not decided")));

    settings.permission().click();
    QCOMPARE(served->checkPermission().status, CalendarPermissionStatus::granted);
    // Kept in the preferences, where the next start (and `tamsel calendar`) reads it.
    QCOMPARE(calendar::PreferencesPermissionStore(preferences).status(),
             CalendarPermissionStatus::granted);
    settings.permission().click();
    QCOMPARE(served->checkPermission().status, CalendarPermissionStatus::denied);
    QVERIFY(!settings.permissionStatus().text().contains(QStringLiteral("may read")));

    // Without calendars to serve, there is nothing to grant.
    desktopui::CalendarSettings none(dir->path(), nullptr);
    QVERIFY(!none.permission().isEnabled());
  }

  void localCalendarsAreAddedAndListedWithoutReplacingOne() {
    desktopui::CalendarSettings settings(dir->path(),
                                         provider(std::make_shared<calendar::MemoryPermissionStore>(
                                             CalendarPermissionStatus::notDetermined)));
    QSignalSpy settled(&settings, &desktopui::CalendarSettings::settled);
    QTRY_COMPARE(settled.count(), 1);
    // A new app folder starts with the desktop's own calendar.
    const int first = settings.calendars().count();
    QCOMPARE(first, 1);
    QVERIFY(settings.calendars().item(0)->text().endsWith(QStringLiteral(" — local")));

    settings.addLocalCalendar(QStringLiteral("Work Things"));
    QTRY_COMPARE(settled.count(), 2);
    settings.addLocalCalendar(QStringLiteral("Work Things"));
    QTRY_COMPARE(settled.count(), 3);
    settings.addLocalCalendar(QStringLiteral("   "));  // nothing to add
    QCOMPARE(settings.calendars().count(), first + 2);
    QCOMPARE(settings.calendars()
                 .findItems(QStringLiteral("Work Things — local"), Qt::MatchExactly)
                 .size(),
             2);
    QVERIFY(settings.status().text().isEmpty());
    QVERIFY(settings.addLocalButton().isEnabled());
  }

  void aCalDAVAccountIsSavedOnlyWhenTheServerAnswers() {
    desktopui::CalendarSettings settings(dir->path(), nullptr);
    QSignalSpy settled(&settings, &desktopui::CalendarSettings::settled);
    QTRY_COMPARE(settled.count(), 1);
    const auto accounts = calendar::calDAVAccountsFileIn(dir->path());

    settings.addCalDAVAccount(QStringLiteral("ftp://dav.example.org/"), {}, {});
    QVERIFY(!settings.status().text().isEmpty());
    QCOMPARE(settled.count(), 1);  // refused before anything was asked

    // Nothing listens on port 9 here: the check fails, and says so, and nothing is saved.
    settings.addCalDAVAccount(QStringLiteral("http://127.0.0.1:9/dav/"), QStringLiteral("me"),
                              QStringLiteral("secret"));
    QVERIFY(!settings.addCalDAVButton().isEnabled());
    QTRY_COMPARE_WITH_TIMEOUT(settled.count(), 2, 30000);
    QVERIFY2(settings.status().text().startsWith(QStringLiteral("The account was not added")),
             qPrintable(settings.status().text()));
    QVERIFY(!settings.status().text().contains(QStringLiteral("secret")));
    QVERIFY(!std::filesystem::exists(accounts));
    QVERIFY(settings.addCalDAVButton().isEnabled());
  }

  void theEngineAsksInAQuestionThatCanBeAnsweredOrLeft() {
    const auto ask = [](std::chrono::seconds patience, std::optional<bool>& answer,
                        std::atomic<bool>& done) {
      return std::thread([=, &answer, &done] {
        answer = desktopui::windowCalendarPrompter(patience)();
        done = true;
      });
    };
    for (const auto& [button, expected] :
         {std::pair{QStringLiteral("Allow"), true}, {QStringLiteral("Don't Allow"), false}}) {
      std::optional<bool> answer;
      std::atomic<bool> done{false};
      auto asker = ask(std::chrono::seconds(30), answer, done);
      QTRY_VERIFY(openQuestion() != nullptr);
      QVERIFY(!done);
      auto* choice = buttonNamed(*openQuestion(), button);
      QVERIFY(choice);
      choice->click();
      QTRY_VERIFY(done.load());
      asker.join();
      QCOMPARE(answer, std::optional<bool>(expected));
      QTRY_VERIFY(openQuestion() == nullptr);
    }

    // Nobody answers in time: nothing is decided and the question goes away.
    std::optional<bool> answer = true;
    std::atomic<bool> done{false};
    auto asker = ask(std::chrono::seconds(1), answer, done);
    QTRY_VERIFY(openQuestion() != nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(done.load(), 5000);
    asker.join();
    QCOMPARE(answer, std::nullopt);
    QTRY_VERIFY(openQuestion() == nullptr);
  }
};

QTEST_MAIN(CalendarSettingsTest)
#include "calendar_settings_test.moc"
