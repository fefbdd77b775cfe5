#include "calendar_settings.hpp"

#include <QApplication>
#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalBlocker>
#include <QThreadPool>
#include <QVBoxLayout>
#include <atomic>
#include <future>

#include "tamsel/calendar/caldav_calendar_store.hpp"
#include "tamsel/calendar/caldav_http.hpp"
#include "tamsel/calendar/calendar_provider.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"

namespace tamsel::desktopui {

using calendar::CalendarPermissionStatus;

namespace {

// Runs `work` on a pool thread and hands its outcome to `done` on the GUI thread, unless the
// widget went away meanwhile.
template <class Result>
void offThread(std::shared_ptr<QPointer<CalendarSettings>> widget, std::function<Result()> work,
               std::function<void(CalendarSettings&, Result)> done) {
  QThreadPool::globalInstance()->start([widget, work = std::move(work), done = std::move(done)] {
    auto result = std::make_shared<Result>(work());
    QMetaObject::invokeMethod(
        qApp,
        [widget, result, done] {
          if (auto* w = widget->data()) done(*w, std::move(*result));
        },
        Qt::QueuedConnection);
  });
}

struct Listing {
  std::vector<calendar::StoreCalendar> calendars;
  QString error;
};

struct AccountCheck {
  QString error;
  int calendarsFound = 0;
};

QString accountKind(const calendar::StoreCalendar& c) {
  return c.kind == calendar::SourceKind::local ? QObject::tr("local")
                                               : QString::fromStdString(c.sourceTitle);
}

// A folder name from the title: lower-case letters, digits and dashes.
std::string folderNameFor(const QString& title) {
  QString name = title.toLower();
  name.replace(QRegularExpression(QStringLiteral("[^a-z0-9]+")), QStringLiteral("-"));
  name.remove(QRegularExpression(QStringLiteral("^-+|-+$")));
  return name.isEmpty() ? std::string("calendar") : name.toStdString();
}

}  // namespace

CalendarSettings::CalendarSettings(std::filesystem::path appFolder,
                                   std::shared_ptr<calendar::CalendarProvider> provider,
                                   QWidget* parent)
    : QGroupBox(tr("Calendars"), parent),
      appFolder_(std::move(appFolder)),
      provider_(std::move(provider)),
      self_(std::make_shared<QPointer<CalendarSettings>>(this)) {
  setAccessibleName(tr("Calendars"));
  permission_ = new QCheckBox(tr("Let the engine &use my calendars"), this);
  permission_->setAccessibleName(tr("Let the engine use my calendars"));
  permissionStatus_ = new QLabel(this);
  permissionStatus_->setAccessibleName(tr("Calendar access status"));
  permissionStatus_->setWordWrap(true);
  calendars_ = new QListWidget(this);
  calendars_->setAccessibleName(tr("Calendars on this computer"));
  calendars_->setMaximumHeight(120);
  status_ = new QLabel(this);
  status_->setAccessibleName(tr("Calendars status"));
  status_->setWordWrap(true);
  status_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  addLocal_ = new QPushButton(tr("Add a local calendar…"), this);
  addLocal_->setAccessibleName(tr("Add a local calendar"));
  addCalDAV_ = new QPushButton(tr("Add a CalDAV account…"), this);
  addCalDAV_->setAccessibleName(tr("Add a CalDAV account"));

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(addLocal_);
  buttons->addWidget(addCalDAV_);
  buttons->addStretch();
  auto* column = new QVBoxLayout(this);
  column->addWidget(permission_);
  column->addWidget(permissionStatus_);
  column->addWidget(calendars_);
  column->addWidget(status_);
  column->addLayout(buttons);

  connect(permission_, &QCheckBox::toggled, this, &CalendarSettings::onPermission);
  connect(addLocal_, &QPushButton::clicked, this, &CalendarSettings::askForLocal);
  connect(addCalDAV_, &QPushButton::clicked, this, &CalendarSettings::askForCalDAV);
  showPermission();
  reload();
}

CalendarSettings::~CalendarSettings() { *self_ = nullptr; }

void CalendarSettings::showPermission() {
  if (!provider_) {
    permission_->setEnabled(false);
    permissionStatus_->setText(
        tr("The calendars cannot be opened, so the engine cannot use "
           "them (the log says why)."));
    return;
  }
  const auto status = provider_->checkPermission().status;
  const QSignalBlocker quiet(permission_);
  permission_->setChecked(status == CalendarPermissionStatus::granted);
  switch (status) {
    case CalendarPermissionStatus::granted:
      permissionStatus_->setText(tr("The engine may read and change your calendars."));
      break;
    case CalendarPermissionStatus::notDetermined:
      permissionStatus_->setText(tr("Not decided yet: the engine asks when it first needs them."));
      break;
    default:
      permissionStatus_->setText(tr("The engine may not use your calendars."));
      break;
  }
}

void CalendarSettings::onPermission(bool on) {
  if (!provider_) return;
  try {
    provider_->setPermission(on ? CalendarPermissionStatus::granted
                                : CalendarPermissionStatus::denied);
  } catch (const std::exception& e) {
    status_->setText(tr("Could not save the calendar access: %1").arg(e.what()));
  }
  showPermission();
}

void CalendarSettings::setBusy(const QString& text) {
  status_->setText(text);
  addLocal_->setEnabled(text.isEmpty());
  addCalDAV_->setEnabled(text.isEmpty());
}

void CalendarSettings::reload() {
  setBusy(tr("Reading the calendars…"));
  offThread<Listing>(
      self_,
      [folder = appFolder_] {
        Listing out;
        try {
          out.calendars = calendar::openDesktopCalendarStore(folder)->calendars();
        } catch (const std::exception& e) {
          out.error = QString::fromUtf8(e.what());
        }
        return out;
      },
      [](CalendarSettings& self, Listing listing) {
        self.calendars_->clear();
        for (const auto& c : listing.calendars)
          self.calendars_->addItem(tr("%1 — %2%3")
                                       .arg(QString::fromStdString(c.title), accountKind(c),
                                            c.writable ? QString() : tr(" (read-only)")));
        self.setBusy({});
        if (!listing.error.isEmpty())
          self.status_->setText(tr("Could not read the calendars: %1").arg(listing.error));
        else if (listing.calendars.empty())
          self.status_->setText(tr("No calendars yet: add a local one or a CalDAV account."));
        Q_EMIT self.settled();
      });
}

void CalendarSettings::addLocalCalendar(const QString& title) {
  const auto trimmed = title.trimmed();
  if (trimmed.isEmpty()) return;
  try {
    calendar::VdirCalendarStore local(calendar::VdirCalendarStore::rootIn(appFolder_));
    // A new folder each time: the store renames a folder that exists, which would lose a title.
    const auto base = folderNameFor(trimmed);
    auto name = base;
    for (int n = 2; std::filesystem::exists(local.root() / name); ++n)
      name = base + "-" + std::to_string(n);
    local.addCalendar(name, trimmed.toStdString(), {});
  } catch (const std::exception& e) {
    status_->setText(tr("Could not add the calendar: %1").arg(e.what()));
    return;
  }
  reload();
}

void CalendarSettings::addCalDAVAccount(const QString& url, const QString& user,
                                        const QString& password) {
  calendar::CalDAVAccount account{"new", url.trimmed().toStdString(), user.trimmed().toStdString(),
                                  password.toStdString()};
  if (const auto reason = calendar::unsupportedDAVURL(account.url)) {
    status_->setText(QString::fromStdString(*reason));
    return;
  }
  setBusy(tr("Checking %1…").arg(url.trimmed()));
  offThread<AccountCheck>(
      self_,
      [folder = appFolder_, account]() mutable {
        AccountCheck out;
        try {
          const auto file = calendar::calDAVAccountsFileIn(folder);
          calendar::loadCalDAVAccounts(file);  // a damaged file is reported, not replaced
          const auto found =
              calendar::CalDAVCalendarStore(account, std::chrono::seconds(20)).calendars();
          out.calendarsFound = static_cast<int>(found.size());
          // Saved only when it works: a wrong URL or password never replaces a good account.
          if (found.empty())
            out.error =
                tr("no event calendars found at %1").arg(QString::fromStdString(account.url));
          else
            calendar::saveCalDAVAccount(file, account);
        } catch (const std::exception& e) {
          out.error = QString::fromUtf8(e.what());
        }
        return out;
      },
      [](CalendarSettings& self, AccountCheck check) {
        if (!check.error.isEmpty()) {
          self.setBusy({});
          self.status_->setText(tr("The account was not added: %1").arg(check.error));
          Q_EMIT self.settled();
          return;
        }
        self.reload();
      });
}

void CalendarSettings::askForLocal() {
  bool ok = false;
  const auto title = QInputDialog::getText(this, tr("Add a local calendar"), tr("Calendar name:"),
                                           QLineEdit::Normal, {}, &ok);
  if (ok) addLocalCalendar(title);
}

void CalendarSettings::askForCalDAV() {
  QDialog dialog(this);
  dialog.setWindowTitle(tr("Add a CalDAV account"));
  auto* url = new QLineEdit(&dialog);
  url->setAccessibleName(tr("Server address"));
  url->setPlaceholderText(QStringLiteral("https://dav.example.org/calendars/me/"));
  auto* user = new QLineEdit(&dialog);
  user->setAccessibleName(tr("User name"));
  auto* password = new QLineEdit(&dialog);
  password->setAccessibleName(tr("Password"));
  password->setEchoMode(QLineEdit::Password);
  auto* form = new QFormLayout(&dialog);
  form->addRow(tr("&Address:"), url);
  form->addRow(tr("&User:"), user);
  form->addRow(tr("&Password:"), password);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
  buttons->button(QDialogButtonBox::Ok)->setText(tr("Check and add"));
  buttons->button(QDialogButtonBox::Ok)->setAccessibleName(tr("Check and add the account"));
  buttons->button(QDialogButtonBox::Cancel)->setAccessibleName(tr("Cancel adding an account"));
  form->addRow(buttons);
  connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
  if (dialog.exec() == QDialog::Accepted)
    addCalDAVAccount(url->text(), user->text(), password->text());
}

calendar::PermissionPrompter windowCalendarPrompter(std::chrono::seconds patience) {
  return [patience]() -> std::optional<bool> {
    if (QCoreApplication::closingDown()) return std::nullopt;
    struct Pending {
      std::promise<std::optional<bool>> answer;
      std::atomic_flag settled;
      QPointer<QMessageBox> box;  // touched on the GUI thread only
      void settle(std::optional<bool> value) {
        if (!settled.test_and_set()) answer.set_value(value);
      }
    };
    auto pending = std::make_shared<Pending>();
    auto future = pending->answer.get_future();
    QMetaObject::invokeMethod(
        qApp,
        [pending] {
          auto* box = new QMessageBox(
              QMessageBox::Question, QObject::tr("Calendar access"),
              QObject::tr("Tamsel Engine asks to read and change your calendars. Allow it?"),
              QMessageBox::NoButton, QApplication::activeWindow());
          auto* allow = box->addButton(QObject::tr("Allow"), QMessageBox::AcceptRole);
          auto* deny = box->addButton(QObject::tr("Don't Allow"), QMessageBox::RejectRole);
          box->setAttribute(Qt::WA_DeleteOnClose);
          pending->box = box;
          QObject::connect(box, &QMessageBox::finished, box, [pending, box, allow, deny] {
            const auto* clicked = box->clickedButton();
            pending->settle(clicked == allow  ? std::optional<bool>(true)
                            : clicked == deny ? std::optional<bool>(false)
                                              : std::nullopt);
          });
          // Closed without an answer, or the application quits: the status stays as it is.
          QObject::connect(box, &QObject::destroyed, [pending] { pending->settle(std::nullopt); });
          QObject::connect(qApp, &QCoreApplication::aboutToQuit, box, &QWidget::close);
          box->open();
        },
        Qt::QueuedConnection);
    if (future.wait_for(patience) == std::future_status::ready) return future.get();
    pending->settle(std::nullopt);
    QMetaObject::invokeMethod(
        qApp,
        [pending] {
          if (pending->box) pending->box->close();
        },
        Qt::QueuedConnection);
    return std::nullopt;
  };
}

}  // namespace tamsel::desktopui
