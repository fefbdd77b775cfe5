// The desktop window against the engine simulator, started by the window's own supervisor:
// sending and streaming, approval and question cards, the queue, switching sessions, drafts kept
// across a restart of the window, an engine that crashes or is missing, and accessible names.
#include <signal.h>

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDockWidget>
#include <QFileDialog>
#include <QFrame>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QToolButton>
#include <QTreeWidget>
#include <QtTest>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <fstream>

#include "../integration/sim_harness.hpp"
#include "always_allow_dialog.hpp"
#include "approval_notifier.hpp"
#include "composer.hpp"
#include "diagnostics.hpp"
#include "engine_bar.hpp"
#include "main_window.hpp"
#include "meetings_panel.hpp"
#include "qt_main_executor.hpp"
#include "queue_panel.hpp"
#include "request_cards.hpp"
#include "session_list_model.hpp"
#include "settings_dialog.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/app/launch_at_login.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/desktop/always_allow_list.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/desktop/meeting_controller.hpp"
#include "tamsel/desktop/session_search.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "transcript_model.hpp"
#include "tray_icon.hpp"

using namespace tamsel;
using desktopui::MainWindow;
using Kind = desktop::DaemonManager::State::Kind;

namespace {

constexpr int kTimeout = 15000;

// One window over its own composition root, with the engine in a private home.
struct Desktop {
  Desktop(desktopui::QtMainExecutor& main, const std::filesystem::path& root,
          std::optional<std::string> verdBinary = test::simPath().string(),
          std::vector<std::string> extraEngineArguments = {}, std::uint16_t port = 0,
          QDBusConnection notifications = QDBusConnection(QStringLiteral("not-connected")))
      : port(port ? port : test::freePort()),
        services(main, environment(root, verdBinary), options(root, extraEngineArguments)) {
    window = std::make_unique<MainWindow>(services, notifications);
    window->show();
    services.daemonManager().start();
  }
  // Bounded even when the test failed half-way: no engine is left behind.
  ~Desktop() {
    window.reset();
    auto& manager = services.daemonManager();
    const auto pid = manager.enginePID();
    bool stopped = false;
    manager.stop([&] { stopped = true; }, 3);
    QElapsedTimer waited;
    waited.start();
    while (!stopped && waited.elapsed() < kTimeout)
      QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    if (!stopped && pid) ::kill(*pid, SIGKILL);
  }

  static base::env::Environment environment(const std::filesystem::path& root,
                                            std::optional<std::string> verdBinary) {
    base::env::Environment env;
    env.home = root.string();
    env.xdgDataHome = (root / "data").string();
    env.xdgConfigHome = (root / "config").string();
    env.verdBinary = std::move(verdBinary);
    return env;
  }
  app::DesktopOptions options(const std::filesystem::path& root, std::vector<std::string> extra) {
    app::DesktopOptions o;
    o.enginePort = port;
    o.engineHome = root / "verdane";
    o.engineArguments = {"daemon",
                         "--port",
                         "{port}",
                         "--engine-home",
                         (root / "verdane").string(),
                         "--record",
                         (root / "requests.jsonl").string()};
    o.engineArguments.insert(o.engineArguments.end(), extra.begin(), extra.end());
    o.supervision.restartDelaySeconds = 0.3;
    o.supervision.readinessIntervalSeconds = 0.2;
    o.supervision.terminateGraceSeconds = 1;
    return o;
  }

  desktop::DaemonChatViewModel& chat() { return window->chat(); }
  bool engineRunning() { return services.daemonManager().state().kind == Kind::running; }
  bool chatReady() { return engineRunning() && !chat().sessions().empty(); }

  std::uint16_t port;
  app::DesktopServices services;
  std::unique_ptr<MainWindow> window;
};

// The bodies of the requests the simulator received on `path`.
std::vector<boost::json::value> requestBodies(const std::filesystem::path& root,
                                              const std::string& path) {
  std::vector<boost::json::value> out;
  std::ifstream in(root / "requests.jsonl");
  for (std::string line; std::getline(in, line);) {
    auto record = base::json::parse(line);
    if (record.at("path").as_string() == path) out.push_back(record.at("body"));
  }
  return out;
}

void type(MainWindow& window, const QString& text) {
  window.composer().setFocus();
  QTest::keyClicks(&window.composer(), text);
}

QString lastMessage(MainWindow& window) {
  auto& model = window.transcriptModel();
  if (model.rowCount() == 0) return {};
  return model.index(model.rowCount() - 1)
      .data(desktopui::TranscriptModel::MarkdownRole)
      .toString();
}

template <class T>
T* findButton(QWidget* in, const QString& text) {
  for (auto* b : in->findChildren<T*>())
    if (b->text() == text && b->isVisible()) return b;
  return nullptr;
}

// The sessions the sidebar shows, by id.
QStringList listedIDs(desktopui::SessionListModel& model) {
  QStringList ids;
  for (int i = 0; i < model.rowCount(); ++i)
    ids << model.index(i).data(desktopui::SessionListModel::IdRole).toString();
  return ids;
}

// Sends a message as another client would (a new session unless `session` is given) and waits
// for its reply to end.
void sendFromAnotherClient(Desktop& d, std::string text, std::optional<std::string> session = {}) {
  bool done = false;
  boost::asio::co_spawn(
      d.services.mainExecutor().ioExecutor(),
      [&]() -> boost::asio::awaitable<void> {
        bridge::SendMessageRequest request;
        request.text = text;
        request.sessionId = session;
        request.newSession = !session;
        auto stream = co_await d.services.client().sendMessage(request);
        while (co_await stream.next()) {
        }
        done = true;
      },
      boost::asio::detached);
  QElapsedTimer waited;
  waited.start();
  while (!done && waited.elapsed() < kTimeout)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  QVERIFY(done);
}

// The engine's always-allow list as the engine holds it now.
std::vector<std::string> engineAlwaysAllowed(Desktop& d) {
  std::optional<std::vector<std::string>> tools;
  boost::asio::co_spawn(
      d.services.mainExecutor().ioExecutor(),
      [&]() -> boost::asio::awaitable<void> {
        tools = desktop::AlwaysAllowList::toolsFrom(
            co_await d.services.client().alwaysAllow("GET", std::nullopt));
      },
      boost::asio::detached);
  QElapsedTimer waited;
  waited.start();
  while (!tools && waited.elapsed() < kTimeout)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  return tools.value_or(std::vector<std::string>{"(no answer)"});
}

// A notification server on a private bus: records what it is asked to show, and lets the test
// press a notification's button.
class FakeNotifications final : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
 public:
  struct Shown {
    uint id;
    QString summary, body;
    QStringList actions;
  };
  std::vector<Shown> shown;
  std::vector<uint> closed;

 public Q_SLOTS:
  uint Notify(const QString&, uint, const QString&, const QString& summary, const QString& body,
              const QStringList& actions, const QVariantMap&, int) {
    shown.push_back({static_cast<uint>(shown.size() + 1), summary, body, actions});
    return shown.back().id;
  }
  void CloseNotification(uint id) { closed.push_back(id); }
  QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }

 Q_SIGNALS:
  void ActionInvoked(uint id, const QString& action);
  void NotificationClosed(uint id, uint reason);
};

// The visible controls under `root` that a screen reader could not name.
QStringList unnamedControls(QWidget* root, int* checked) {
  QStringList unnamed;
  for (auto* widget : root->findChildren<QWidget*>()) {
    const bool interactive =
        qobject_cast<QAbstractButton*>(widget) || qobject_cast<QLineEdit*>(widget) ||
        qobject_cast<QPlainTextEdit*>(widget) || qobject_cast<QComboBox*>(widget) ||
        qobject_cast<QAbstractItemView*>(widget) || qobject_cast<QProgressBar*>(widget);
    if (!interactive || !widget->isVisible()) continue;
    ++*checked;
    auto* accessible = QAccessible::queryAccessibleInterface(widget);
    const auto name = accessible ? accessible->text(QAccessible::Name).trimmed() : QString();
    if (name.isEmpty())
      unnamed << QString::fromLatin1(widget->metaObject()->className()) + QStringLiteral(" ") +
                     widget->objectName();
  }
  return unnamed;
}

// A composition root over a private home whose engine is never started: for the parts of the
// window that need no engine.
struct Offline {
  Offline(desktopui::QtMainExecutor& main, const std::filesystem::path& root,
          desktopui::MainWindow* const* window = nullptr)
      : services(main, Desktop::environment(root, std::nullopt), options(root),
                 window ? desktopui::windowHooks(window) : app::FrontEndHooks{}) {}
  static app::DesktopOptions options(const std::filesystem::path& root) {
    app::DesktopOptions o;
    o.enginePort = 47123;
    o.engineHome = root / "verdane";
    return o;
  }
  app::DesktopServices services;
};

// A user service manager that does what it is told, or fails as told.
app::LaunchAtLogin::System fakeServiceManager(bool available, bool failing,
                                              const std::filesystem::path& config) {
  app::LaunchAtLogin::System s;
  s.userServiceAvailable = [available] { return available; };
  s.systemctl = [failing, config](const std::vector<std::string>& args) {
    if (failing)
      return std::pair<int, std::string>{1, "Failed to enable unit: Unit file does not exist."};
    const auto link = config / "systemd/user/default.target.wants/tamsel.service";
    if (args.at(0) == "enable") {
      std::filesystem::create_directories(link.parent_path());
      std::filesystem::create_symlink("/usr/lib/systemd/user/tamsel.service", link);
    } else if (args.at(0) == "disable") {
      std::filesystem::remove(link);
    }
    return std::pair<int, std::string>{0, ""};
  };
  return s;
}

// A recording that captures nothing and reports a steady level on both tracks.
class QuietRecording final : public meeting::MeetingRecording {
 public:
  explicit QuietRecording(std::filesystem::path folder) : folder_(std::move(folder)) {}
  const std::filesystem::path& folder() const override { return folder_; }
  meeting::MeetingRecordingResult stop() override {
    meeting::TrackRecording mic;
    mic.clock = {meeting::TrackSource::mic, 48000, 48000};
    mic.usable = true;
    return {mic, std::nullopt};
  }
  void seal() override {}
  std::optional<meeting::CaptureHealth> health(meeting::TrackSource source) const override {
    return meeting::CaptureHealth{source == meeting::TrackSource::mic ? -20.0 : -120.0, 0, 10};
  }
  void failTrack(meeting::TrackSource, meeting::TrackRecordingFailure) override {}

 private:
  std::filesystem::path folder_;
};

meeting::AudioProcessSnapshot zoomInACall() { return {{{1, 42, "zoom", true, true}}}; }

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

class DesktopWindowTest : public QObject {
  Q_OBJECT
  std::unique_ptr<desktopui::QtMainExecutor> main;
  std::unique_ptr<test::TempDir> dir;

 private Q_SLOTS:
  void init() {
    main = std::make_unique<desktopui::QtMainExecutor>();
    dir = std::make_unique<test::TempDir>();
  }
  void cleanup() {
    dir.reset();
    main.reset();
  }

  void sendsAndStreamsIntoOneRow() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    QCOMPARE(d.window->engineBar().stateText(), QStringLiteral("Tamsel Engine is running"));
    QTest::keyClick(d.window.get(), Qt::Key_N, Qt::ControlModifier);
    QVERIFY(d.chat().currentPendingSessionLocalID());
    const auto pending = *d.chat().currentPendingSessionLocalID();
    QTRY_VERIFY(d.window->sessionModel().rowOf(pending) >= 0);
    auto& model = d.window->transcriptModel();
    QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
    QSignalSpy changes(&model, &QAbstractItemModel::dataChanged);
    type(*d.window, QStringLiteral("tell me [slow]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClicks(&d.window->composer(), QStringLiteral("in two lines"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QVERIFY(d.window->composer().toPlainText().isEmpty());
    QTRY_COMPARE(model.rowCount(), 2);
    QCOMPARE(model.index(0).data(desktopui::TranscriptModel::MarkdownRole).toString(),
             QStringLiteral("tell me [slow]\nin two lines"));
    // The reply grows in place: its own row changes, the list is never reloaded.
    QTRY_VERIFY_WITH_TIMEOUT(changes.size() >= 2 && !lastMessage(*d.window).isEmpty(), kTimeout);
    QVERIFY(d.chat().isStreamActive());
    QTRY_VERIFY_WITH_TIMEOUT(!d.chat().isStreamActive(), kTimeout);
    QCOMPARE(resets.size(), 0);
    QCOMPARE(model.rowCount(), 2);
    QVERIFY(lastMessage(*d.window).contains(QStringLiteral("tell me")));
    // A message is copied from the transcript as its Markdown source.
    d.window->transcriptView().setFocus();
    d.window->transcriptView().setCurrentIndex(model.index(0));
    QTest::keyClick(&d.window->transcriptView(), Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("tell me [slow]\nin two lines"));
    // The stop button follows the reply.
    QPushButton* stop = nullptr;
    for (auto* b : d.window->findChildren<QPushButton*>())
      if (b->accessibleName() == QStringLiteral("Stop the running reply")) stop = b;
    QVERIFY(stop && !stop->isEnabled());
    const auto sent = requestBodies(dir->path(), "/message");
    QCOMPARE(sent.size(), std::size_t{1});
    QCOMPARE(QString::fromStdString(std::string(sent[0].at("text").as_string())),
             QStringLiteral("tell me [slow]\nin two lines"));
    // The new session shows in the sidebar once the engine names it, in place of its pending row.
    QTRY_VERIFY_WITH_TIMEOUT(d.window->sessionModel().rowOf(*d.chat().currentSessionID()) >= 0,
                             kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(d.window->sessionModel().rowOf(pending), -1, kTimeout);
  }

  void approvesFromTheCardAndByKeyboard() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    d.window->newSession();
    type(*d.window, QStringLiteral("tidy up [approval]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    auto& cards = d.window->requestCards();
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 1, kTimeout);
    auto* card = cards.firstCard();
    QVERIFY(card->findChild<QLabel*>() != nullptr);
    QVERIFY(findButton<QPushButton>(card, QStringLiteral("Allow for this &session")));
    QVERIFY(findButton<QPushButton>(card, QStringLiteral("&Always allow")));
    QVERIFY(findButton<QPushButton>(card, QStringLiteral("&Deny")));
    QTest::mouseClick(findButton<QPushButton>(card, QStringLiteral("Allow &once")), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 0, kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(!d.chat().isStreamActive(), kTimeout);
    auto approvals = requestBodies(dir->path(), "/approval");
    QCOMPARE(approvals.size(), std::size_t{1});
    QCOMPARE(std::string(approvals[0].at("decision").as_string()), std::string("once"));
    QCOMPARE(d.window->statusLine().text(),
             QStringLiteral(
                 "Allowed for this turn. High-risk commands are never saved as Always Allow."));

    // The next one is denied from the keyboard (Alt+D), the card's mnemonic.
    type(*d.window, QStringLiteral("again [approval]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 1, kTimeout);
    QTest::keyClick(d.window.get(), Qt::Key_D, Qt::AltModifier);
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 0, kTimeout);
    approvals = requestBodies(dir->path(), "/approval");
    QCOMPARE(approvals.size(), std::size_t{2});
    QCOMPARE(std::string(approvals[1].at("decision").as_string()), std::string("deny"));
  }

  void anApprovalWaitingInAnotherSessionSaysWhere() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    d.window->newSession();
    type(*d.window, QStringLiteral("prune old branches [approval]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    auto& cards = d.window->requestCards();
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 1, kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID().has_value(), kTimeout);
    const auto waitingIn = *d.chat().currentSessionID();
    const auto go = [&] {
      return findButton<QPushButton>(cards.firstCard(), QStringLiteral("Go there"));
    };
    QVERIFY(!go());
    // Another session: the card stays, saying where it waits.
    const auto other = std::find_if(d.chat().sessions().begin(), d.chat().sessions().end(),
                                    [&](const auto& s) { return s.id != waitingIn; });
    QVERIFY(other != d.chat().sessions().end());
    d.chat().selectSession(other->id);
    QTRY_VERIFY_WITH_TIMEOUT(go() != nullptr, kTimeout);
    QCOMPARE(cards.cardCount(), 1);
    QTest::mouseClick(go(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID() == waitingIn, kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(!go(), kTimeout);
    QTest::mouseClick(findButton<QPushButton>(cards.firstCard(), QStringLiteral("&Deny")),
                      Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 0, kTimeout);
  }

  void answersAQuestion() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    d.window->newSession();
    type(*d.window, QStringLiteral("write it up [question]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    auto& cards = d.window->requestCards();
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 1, kTimeout);
    auto* prose = findButton<QRadioButton>(cards.firstCard(), QStringLiteral("Prose"));
    if (!prose)
      for (auto* r : cards.firstCard()->findChildren<QRadioButton*>())
        if (r->text().startsWith(QStringLiteral("Prose"))) prose = r;
    QVERIFY(prose);
    prose->click();
    QTest::mouseClick(findButton<QPushButton>(cards.firstCard(), QStringLiteral("A&nswer")),
                      Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(cards.cardCount(), 0, kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(!d.chat().isStreamActive(), kTimeout);
    const auto answers = requestBodies(dir->path(), "/question");
    QCOMPARE(answers.size(), std::size_t{1});
    const auto& values = answers[0].at("answers").as_array().at(0).at("values").as_array();
    QCOMPARE(values.size(), std::size_t{1});
    QCOMPARE(std::string(values[0].as_string()), std::string("Prose"));
    QVERIFY(lastMessage(*d.window).contains(QStringLiteral("Prose")));
  }

  void queuesWhileAReplyRunsAndSendsTheEditedQueue() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    d.window->newSession();
    type(*d.window, QStringLiteral("first [slow]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().isStreamActive(), kTimeout);
    auto& queue = d.window->queuePanel();
    QVERIFY(!queue.isVisible());
    type(*d.window, QStringLiteral("second"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    type(*d.window, QStringLiteral("third"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY(queue.isVisible());
    QCOMPARE(queue.model().rowCount(), 2);
    // Edit the first queued message in place, retract the second from the keyboard.
    QVERIFY(queue.model().setData(queue.model().index(0), QStringLiteral("second, edited"),
                                  Qt::EditRole));
    queue.list()->setCurrentIndex(queue.model().index(1));
    queue.list()->setFocus();
    QTest::keyClick(queue.list(), Qt::Key_Delete);
    QCOMPARE(queue.model().rowCount(), 1);
    QCOMPARE(queue.model().index(0).data().toString(), QStringLiteral("second, edited"));
    // When the reply ends, what is left in the queue goes out as the next message.
    QTRY_VERIFY_WITH_TIMEOUT(requestBodies(dir->path(), "/message").size() == 2, 30000);
    QCOMPARE(std::string(requestBodies(dir->path(), "/message")[1].at("text").as_string()),
             std::string("second, edited"));
    QTRY_VERIFY_WITH_TIMEOUT(!queue.isVisible(), kTimeout);
  }

  void sendNowCancelsTheReplyAndSendsTheQueue() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    d.window->newSession();
    type(*d.window, QStringLiteral("long one [slow]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().isStreamActive(), kTimeout);
    type(*d.window, QStringLiteral("urgent"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_COMPARE(d.window->queuePanel().model().rowCount(), 1);
    // What is typed and not yet sent goes with the queue.
    type(*d.window, QStringLiteral("and this too"));
    QTest::keyClick(d.window.get(), Qt::Key_Return, Qt::ControlModifier | Qt::ShiftModifier);
    QVERIFY(d.window->composer().toPlainText().isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(!requestBodies(dir->path(), "/cancel").empty(), kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(requestBodies(dir->path(), "/message").size() == 2, kTimeout);
    const std::string sent(requestBodies(dir->path(), "/message")[1].at("text").as_string());
    QVERIFY2(
        sent.find("urgent") != std::string::npos && sent.find("and this too") != std::string::npos,
        sent.c_str());
    QTRY_VERIFY_WITH_TIMEOUT(!d.window->queuePanel().isVisible(), kTimeout);
  }

  void switchesSessionsAndKeepsEachDraft() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    auto& sessions = d.window->sessionModel();
    QTRY_VERIFY_WITH_TIMEOUT(sessions.rowCount() >= 2, kTimeout);
    const auto first = sessions.index(0).data(desktopui::SessionListModel::IdRole).toString();
    const auto second = sessions.index(1).data(desktopui::SessionListModel::IdRole).toString();
    QTest::mouseClick(d.window->sessionView().viewport(), Qt::LeftButton, {},
                      d.window->sessionView().visualRect(sessions.index(0)).center());
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID() == first.toStdString() &&
                                 d.window->transcriptModel().rowCount() > 0,
                             kTimeout);
    type(*d.window, QStringLiteral("draft for the first"));
    // Ctrl+PgDown: the next session, with an empty composer.
    QTest::keyClick(d.window.get(), Qt::Key_PageDown, Qt::ControlModifier);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID() == second.toStdString(), kTimeout);
    QTRY_COMPARE(d.window->composer().toPlainText(), QString());
    type(*d.window, QStringLiteral("draft for the second"));
    QTest::keyClick(d.window.get(), Qt::Key_PageUp, Qt::ControlModifier);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID() == first.toStdString(), kTimeout);
    QTRY_COMPARE(d.window->composer().toPlainText(), QStringLiteral("draft for the first"));
    QTRY_VERIFY_WITH_TIMEOUT(d.window->transcriptModel().rowCount() > 0, kTimeout);
  }

  void theHighlightFollowsTheOpenSession() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    auto& model = d.window->sessionModel();
    auto& view = d.window->sessionView();
    QTRY_VERIFY_WITH_TIMEOUT(model.rowCount() >= 3, kTimeout);
    const auto highlighted = [&] {
      return view.currentIndex().data(desktopui::SessionListModel::IdRole).toString().toStdString();
    };
    const auto open = [&] { return d.chat().currentSessionID().value_or(std::string()); };
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {},
                      view.visualRect(model.index(1)).center());
    QTRY_VERIFY_WITH_TIMEOUT(!open().empty(), kTimeout);
    QCOMPARE(highlighted(), open());

    // Another client starts a session: listed at the top, above the open one.
    const int before = model.rowCount();
    sendFromAnotherClient(d, "from another client");
    d.chat().reloadSidebar();
    QTRY_COMPARE_WITH_TIMEOUT(model.rowCount(), before + 1, kTimeout);
    QVERIFY(model.index(0)
                .data(Qt::DisplayRole)
                .toString()
                .endsWith(QStringLiteral("from another client")));
    QCOMPARE(highlighted(), open());

    // A session started here: its pending row gives way to the engine's, highlighted.
    d.window->newSession();
    QTRY_COMPARE(highlighted(), *d.chat().currentPendingSessionLocalID());
    type(*d.window, QStringLiteral("a new one here"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID() && !d.chat().isStreamActive() &&
                                 model.rowCount() == before + 2 &&
                                 model.rowOf(*d.chat().currentSessionID()) >= 0,
                             kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(highlighted(), open(), kTimeout);

    // Another session's reply moves it to the top: the highlight stays with the open one.
    const auto other = model.index(model.rowCount() - 1)
                           .data(desktopui::SessionListModel::IdRole)
                           .toString()
                           .toStdString();
    QVERIFY(other != open());
    sendFromAnotherClient(d, "and one more thing", other);
    d.chat().reloadSidebar();
    QTRY_COMPARE_WITH_TIMEOUT(model.index(0).data(desktopui::SessionListModel::IdRole).toString(),
                              QString::fromStdString(other), kTimeout);
    QCOMPARE(highlighted(), open());

    // Moved by the keyboard to a session not opened, the highlight stays on that session.
    view.setFocus();
    QTest::keyClick(&view, Qt::Key_Down);
    const auto browsed = highlighted();
    QVERIFY(browsed != open() && !browsed.empty());
    sendFromAnotherClient(d, "yet another one");
    d.chat().reloadSidebar();
    QTRY_COMPARE_WITH_TIMEOUT(model.rowCount(), before + 3, kTimeout);
    QCOMPARE(highlighted(), browsed);
  }

  void searchFindsSessionsByTheTextOfTheirMessages() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    auto& model = d.window->sessionModel();
    QTest::keyClick(d.window.get(), Qt::Key_F, Qt::ControlModifier);
    QVERIFY(d.window->searchField().hasFocus());
    // A title matches at once, before the engine is asked.
    QTest::keyClicks(&d.window->searchField(), QStringLiteral("nightly"));
    QCOMPARE(listedIDs(model), QStringList{QStringLiteral("s_c40e1f92")});
    QVERIFY(requestBodies(dir->path(), "/sessions/search").empty());
    // Found by the engine too: still shown once.
    QTRY_COMPARE_WITH_TIMEOUT(requestBodies(dir->path(), "/sessions/search").size(), std::size_t{1},
                              kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(!d.window->sessionSearch().state().searching, kTimeout);
    QCOMPARE(listedIDs(model), QStringList{QStringLiteral("s_c40e1f92")});

    // "theming" is in no title, only in a reply of the meeting-notes session.
    d.window->searchField().selectAll();
    QTest::keyClicks(&d.window->searchField(), QStringLiteral("THEMING"));
    QCOMPARE(model.rowCount(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(listedIDs(model), QStringList{QStringLiteral("s_2b81d4e7")},
                              kTimeout);
    QVERIFY(model.index(0)
                .data(desktopui::SessionListModel::SnippetRole)
                .toString()
                .contains(QStringLiteral("theming")));
    QVERIFY(model.index(0)
                .data(Qt::AccessibleTextRole)
                .toString()
                .contains(QStringLiteral("found in its messages")));
    // One search per pause in typing.
    QCOMPARE(requestBodies(dir->path(), "/sessions/search").size(), std::size_t{2});
    // It opens like any other, highlighted.
    auto& view = d.window->sessionView();
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {},
                      view.visualRect(model.index(0)).center());
    QTRY_COMPARE_WITH_TIMEOUT(d.chat().currentSessionID().value_or(""), std::string("s_2b81d4e7"),
                              kTimeout);
    QCOMPARE(view.currentIndex().row(), 0);
    // Another agent's session is left out: "blueberries" is only in one of the researcher's.
    d.window->searchField().selectAll();
    QTest::keyClicks(&d.window->searchField(), QStringLiteral("blueberries"));
    QTRY_COMPARE_WITH_TIMEOUT(requestBodies(dir->path(), "/sessions/search").size(), std::size_t{3},
                              kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(!d.window->sessionSearch().state().searching, kTimeout);
    QCOMPARE(d.window->sessionSearch().state().found.size(), std::size_t{1});
    QCOMPARE(model.rowCount(), 0);
    QVERIFY(!d.window->searchNotice().isVisible());
    // Cleared: every session is back.
    d.window->searchField().clear();
    QVERIFY(model.rowCount() >= 3);
  }

  void revokesAlwaysAllowedToolsInTheirDialog() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    auto& list = d.window->alwaysAllowList();
    QTRY_COMPARE_WITH_TIMEOUT(list.state().tools, std::vector<std::string>{"read_file"}, kTimeout);
    // An "Always allow" answer puts the tool on the list, and the list follows.
    d.window->newSession();
    type(*d.window, QStringLiteral("tidy up [approval]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_COMPARE_WITH_TIMEOUT(d.window->requestCards().cardCount(), 1, kTimeout);
    QTest::keyClick(d.window.get(), Qt::Key_A, Qt::AltModifier);
    QTRY_COMPARE_WITH_TIMEOUT(list.state().tools, (std::vector<std::string>{"read_file", "bash"}),
                              kTimeout);

    // Ctrl+Shift+A opens the dialog.
    bool opened = false;
    QTimer::singleShot(0, d.window.get(), [&] {
      auto* shown = qobject_cast<desktopui::AlwaysAllowDialog*>(QApplication::activeModalWidget());
      opened = shown != nullptr;
      if (shown) shown->reject();
    });
    QTest::keyClick(d.window.get(), Qt::Key_A, Qt::ControlModifier | Qt::ShiftModifier);
    QVERIFY(opened);

    desktopui::AlwaysAllowDialog dialog(list, d.window.get());
    dialog.show();
    QTRY_COMPARE_WITH_TIMEOUT(dialog.shownTools(),
                              (QStringList{QStringLiteral("read_file"), QStringLiteral("bash")}),
                              kTimeout);
    auto* revoke = dialog.revokeButton(QStringLiteral("bash"));
    QVERIFY(revoke);
    QCOMPARE(revoke->accessibleName(), QStringLiteral("Revoke bash"));
    revoke->setFocus();
    QTest::keyClick(revoke, Qt::Key_Space);
    QTRY_COMPARE_WITH_TIMEOUT(dialog.shownTools(), QStringList{QStringLiteral("read_file")},
                              kTimeout);
    QCOMPARE(engineAlwaysAllowed(d), std::vector<std::string>{"read_file"});
    QVERIFY2(dialog.revokeButton(QStringLiteral("read_file"))->hasFocus(),
             "the keyboard stays in the list");

    // Revoke all asks first; declined, nothing goes.
    int asked = 0;
    bool agree = false;
    dialog.confirmRevokeAll = [&](QWidget*) {
      ++asked;
      return agree;
    };
    QTest::mouseClick(&dialog.revokeAllButton(), Qt::LeftButton);
    QCOMPARE(asked, 1);
    QCOMPARE(engineAlwaysAllowed(d), std::vector<std::string>{"read_file"});
    agree = true;
    QTest::mouseClick(&dialog.revokeAllButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(dialog.shownTools().isEmpty(), kTimeout);
    QVERIFY(dialog.emptyLabel().isVisible());
    QVERIFY(!dialog.revokeAllButton().isEnabled());
    QVERIFY(engineAlwaysAllowed(d).empty());
    QVERIFY(!dialog.errorLabel().isVisible());
  }

  void restoresADraftAfterTheWindowRestarts() {
    std::string session;
    const auto port = test::freePort();
    {
      Desktop d(*main, dir->path(), test::simPath().string(), {}, port);
      QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
      session = d.window->sessionModel()
                    .index(0)
                    .data(desktopui::SessionListModel::IdRole)
                    .toString()
                    .toStdString();
      d.chat().selectSession(session);
      QTRY_VERIFY_WITH_TIMEOUT(d.chat().currentSessionID() == session, kTimeout);
      type(*d.window, QStringLiteral("half a thought"));
    }
    Desktop d(*main, dir->path(), test::simPath().string(), {}, port);
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    QCOMPARE(d.window->composer().toPlainText(), QString());
    d.chat().selectSession(session);
    QTRY_COMPARE_WITH_TIMEOUT(d.window->composer().toPlainText(), QStringLiteral("half a thought"),
                              kTimeout);
  }

  void attachesDroppedFilesAndSendsThemToTheEngine() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    const auto files = dir->path() / "files";
    std::filesystem::create_directories(files / "drafts");
    const auto notes = files / "notes.txt";
    std::ofstream(notes) << "release checklist\n";
    const auto picture = files / "dot.png";
    QImage dot(2, 2, QImage::Format_RGB32);
    dot.fill(Qt::red);
    QVERIFY(dot.save(QString::fromStdString(picture.string())));
    const auto url = [](const std::filesystem::path& p) {
      return QUrl::fromLocalFile(QString::fromStdString(p.string()));
    };
    auto& tray = d.window->attachmentTray();
    QTest::keyClick(d.window.get(), Qt::Key_N, Qt::ControlModifier);

    // Dropped from a file manager: a file, a folder and a web link. Only the file is attached.
    QMimeData dropped;
    dropped.setUrls(
        {url(notes), url(files / "drafts"), QUrl(QStringLiteral("https://example.org/a.pdf"))});
    auto* target = d.window->composer().viewport();
    const QPoint at = target->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction | Qt::MoveAction, &dropped, Qt::LeftButton, {});
    QApplication::sendEvent(target, &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(at, Qt::CopyAction | Qt::MoveAction, &dropped, Qt::LeftButton, {});
    QApplication::sendEvent(target, &drop);
    QCOMPARE(drop.dropAction(), Qt::CopyAction);
    QVERIFY2(d.window->composer().toPlainText().isEmpty(), "the paths are not pasted as text");
    QCOMPARE(tray.chips().size(), 1);
    QCOMPARE(tray.chips()[0]->accessibleName(), QStringLiteral("Attached: notes.txt, 18 bytes"));
    QVERIFY(tray.note().isVisible());
    QVERIFY2(tray.note().text().contains(
                 QStringLiteral("drafts is a folder: only files can be attached")) &&
                 tray.note().text().contains(QStringLiteral("only local files can be attached")),
             qPrintable(tray.note().text()));

    // Ctrl+O: the file dialog adds the picture; a chip's button removes it again, and the
    // dialog adds it back.
    QTest::keyClick(d.window.get(), Qt::Key_O, Qt::ControlModifier);
    QFileDialog* dialog = nullptr;
    QTRY_VERIFY((dialog = d.window->findChild<QFileDialog*>()) && dialog->isVisible());
    QCOMPARE(dialog->fileMode(), QFileDialog::ExistingFiles);
    dialog->selectFile(QString::fromStdString(picture.string()));
    static_cast<QDialog*>(dialog)->accept();  // public there
    QTRY_COMPARE(tray.chips().size(), 2);
    QToolButton* remove = nullptr;
    QTRY_VERIFY((remove = findButton<QToolButton>(tray.chips()[1], QStringLiteral("×"))));
    QCOMPARE(remove->accessibleName(), QStringLiteral("Remove dot.png"));
    remove->click();
    QTRY_COMPARE(tray.chips().size(), 1);
    tray.addFiles({QString::fromStdString(picture.string())});
    QCOMPARE(tray.chips().size(), 2);
    QApplication::setActiveWindow(d.window.get());  // the dialog had the keyboard

    // The files stay with this chat's draft while another session is open.
    type(*d.window, QStringLiteral("what is in these?"));
    const auto seeded = d.chat().sessions().at(0).id;
    d.chat().selectSession(seeded);
    QTRY_COMPARE(tray.chips().size(), 0);
    QTest::keyClick(d.window.get(), Qt::Key_N, Qt::ControlModifier);
    QTRY_COMPARE(tray.chips().size(), 2);
    QCOMPARE(d.window->composer().toPlainText(), QStringLiteral("what is in these?"));

    // A file gone before sending: the message is refused and nothing is lost.
    std::filesystem::rename(notes, files / "moved.txt");
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY(d.window->statusLine().text().startsWith(
        QStringLiteral("Cannot send notes.txt: the file is gone")));
    QCOMPARE(d.window->composer().toPlainText(), QStringLiteral("what is in these?"));
    QCOMPARE(tray.chips().size(), 2);
    QVERIFY(requestBodies(dir->path(), "/message").empty());
    std::filesystem::rename(files / "moved.txt", notes);

    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QVERIFY(d.window->composer().toPlainText().isEmpty());
    QCOMPARE(tray.chips().size(), 0);
    QTRY_VERIFY_WITH_TIMEOUT(requestBodies(dir->path(), "/message").size() == 1, kTimeout);
    const auto body = requestBodies(dir->path(), "/message")[0];
    const auto& sent = body.at("attachments").as_array();
    QCOMPARE(sent.size(), std::size_t(2));
    QCOMPARE(std::string(sent[0].at("type").as_string()), std::string("file_ref"));
    QCOMPARE(std::string(sent[0].at("file_path").as_string()), notes.string());
    QCOMPARE(std::string(sent[0].at("mime_type").as_string()), std::string("text/plain"));
    QCOMPARE(std::string(sent[1].at("type").as_string()), std::string("image"));
    QCOMPARE(std::string(sent[1].at("mime_type").as_string()), std::string("image/png"));

    // Shown with the message at once, and again from the session file once the reply is done.
    const auto userFiles = [&] {
      QStringList out;
      for (const auto& m : d.chat().messages())
        if (m.author == "user")
          for (const auto& a : m.attachments)
            out << QString::fromStdString(
                a.id.substr(0, 19) + ":" +
                (a.kind == kit::Attachment::Kind::image ? "image" : a.filename));
      return out;
    };
    QVERIFY(userFiles().size() == 2);
    QTRY_COMPARE_WITH_TIMEOUT(userFiles(),
                              (QStringList{QStringLiteral("session-attachment-:notes.txt"),
                                           QStringLiteral("session-attachment-:image")}),
                              kTimeout);
  }

  void showsAMissingEngineAndWhyAnEngineFailed() {
    {
      Desktop d(*main, dir->path(), (dir->path() / "no-such-verd").string());
      QTRY_COMPARE_WITH_TIMEOUT(
          d.window->engineBar().stateText(),
          QStringLiteral("Engine not found — update Tamsel Desktop to reinstall"), kTimeout);
      QVERIFY(findButton<QPushButton>(&d.window->engineBar(), QStringLiteral("&Retry")));
    }
    // An engine that dies at once, every time: after the restarts it is given up, and the bar
    // says how it ended, how it was started and what it printed.
    const auto broken = dir->path() / "broken-verd";
    // It also prints its environment's presence token, which the diagnostics must not repeat.
    std::ofstream(broken) << "#!/bin/sh\necho \"verd: config file is not valid JSON\" >&2\n"
                             "echo \"verd: token=$TAMSEL_LOCAL_PRESENCE_TOKEN\" >&2\nexit 3\n";
    std::filesystem::permissions(broken, std::filesystem::perms::owner_all);
    Desktop d(*main, dir->path(), broken.string());
    QTRY_COMPARE_WITH_TIMEOUT(d.services.daemonManager().state().kind, Kind::failed, 30000);
    // The bar follows the state on the next turn of the loop.
    QTRY_VERIFY_WITH_TIMEOUT(d.window->engineBar().stateText().startsWith(QStringLiteral("Engine")),
                             kTimeout);
    auto* why = findButton<QPushButton>(&d.window->engineBar(), QStringLiteral("&Why?"));
    QVERIFY(why);
    const auto details = d.window->engineBar().failureDetails();
    QVERIFY2(details.contains(QStringLiteral("exited with status 3")), qPrintable(details));
    QVERIFY2(details.contains(QString::fromStdString(broken.string()) +
                              QStringLiteral(" daemon --port")),
             qPrintable(details));
    QVERIFY2(details.contains(QStringLiteral("config file is not valid JSON")),
             qPrintable(details));

    // The diagnostics file: state, exit, command line and output, never the token.
    const auto file = dir->path() / "diagnostics.txt";
    desktopui::exportDiagnostics(d.services, file);
    std::ifstream in(file);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto& token = d.services.presenceToken();
    QVERIFY(token.size() > 20);
    QVERIFY2(text.find(token) == std::string::npos, "the presence token is in the diagnostics");
    QVERIFY(text.find("token=<presence token removed>") != std::string::npos);
    QVERIFY(text.find("last exit: exited with status 3") != std::string::npos);
    QVERIFY(text.find("config file is not valid JSON") != std::string::npos);
    QVERIFY2(text.find("arguments: daemon --port") != std::string::npos, text.c_str());
    QCOMPARE(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
             std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }

  void followsAnEngineThatCrashesAndComesBack() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    const auto pid = d.services.daemonManager().enginePID();
    QVERIFY(pid);
    QStringList seen;
    auto& manager = d.services.daemonManager();
    const auto connection =
        manager.changed().connect([&] { seen << d.window->engineBar().stateText(); });
    ::kill(*pid, SIGKILL);
    QTRY_VERIFY_WITH_TIMEOUT(seen.contains(QStringLiteral("Tamsel Engine starting…")), kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(d.engineRunning() && manager.enginePID() != pid, kTimeout);
    QCOMPARE(d.window->engineBar().stateText(), QStringLiteral("Tamsel Engine is running"));
    manager.changed().disconnect(connection);
    // The chat works again on the new engine.
    d.window->newSession();
    type(*d.window, QStringLiteral("still there?"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY_WITH_TIMEOUT(!d.chat().isStreamActive() &&
                                 lastMessage(*d.window).contains(QStringLiteral("still there")),
                             kTimeout);
  }

  void approvesFromTheNotificationAction() {
    QProcess bus;
    bus.start(QStringLiteral("dbus-daemon"),
              {QStringLiteral("--session"), QStringLiteral("--nofork"),
               QStringLiteral("--print-address=1")});
    if (!bus.waitForStarted(5000)) QSKIP("dbus-daemon is not installed");
    QTRY_VERIFY_WITH_TIMEOUT(bus.canReadLine(), kTimeout);
    const auto address = QString::fromUtf8(bus.readLine()).trimmed();
    {
      auto server = QDBusConnection::connectToBus(address, QStringLiteral("fake-notifications"));
      FakeNotifications fake;
      QVERIFY(server.registerObject(
          QStringLiteral("/org/freedesktop/Notifications"), &fake,
          QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals));
      QVERIFY(server.registerService(QStringLiteral("org.freedesktop.Notifications")));
      auto client = QDBusConnection::connectToBus(address, QStringLiteral("window"));
      {
        Desktop d(*main, dir->path(), test::simPath().string(), {}, 0, client);
        QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
        d.window->newSession();
        type(*d.window, QStringLiteral("clean the build folder [approval]"));
        QTest::keyClick(&d.window->composer(), Qt::Key_Return);
        // The user went to another window while the reply ran.
        d.window->hide();
        QTRY_COMPARE_WITH_TIMEOUT(fake.shown.size(), std::size_t{1}, kTimeout);
        QCOMPARE(fake.shown[0].summary, QStringLiteral("Approval needed: bash"));
        QCOMPARE(fake.shown[0].actions,
                 (QStringList{QStringLiteral("once"), QStringLiteral("Allow once"),
                              QStringLiteral("session"), QStringLiteral("Allow for this session"),
                              QStringLiteral("always"), QStringLiteral("Always allow"),
                              QStringLiteral("deny"), QStringLiteral("Deny")}));
        QTRY_COMPARE_WITH_TIMEOUT(d.window->notifier().openCount(), std::size_t{1}, kTimeout);
        Q_EMIT fake.ActionInvoked(fake.shown[0].id, QStringLiteral("session"));
        QTRY_COMPARE_WITH_TIMEOUT(requestBodies(dir->path(), "/approval").size(), std::size_t{1},
                                  kTimeout);
        QCOMPARE(std::string(requestBodies(dir->path(), "/approval")[0].at("decision").as_string()),
                 std::string("session"));
        // Answered: the card goes and the notification is withdrawn.
        QTRY_COMPARE_WITH_TIMEOUT(d.window->requestCards().cardCount(), 0, kTimeout);
        QTRY_COMPARE_WITH_TIMEOUT(fake.closed, std::vector<uint>{fake.shown[0].id}, kTimeout);
        // While the window is in front, the card alone is enough.
        d.window->show();
        QApplication::setActiveWindow(d.window.get());
        QTRY_VERIFY_WITH_TIMEOUT(d.window->isActiveWindow(), kTimeout);
        type(*d.window, QStringLiteral("and again [approval]"));
        QTest::keyClick(&d.window->composer(), Qt::Key_Return);
        QTRY_COMPARE_WITH_TIMEOUT(d.window->requestCards().cardCount(), 1, kTimeout);
        QTest::qWait(200);
        QCOMPARE(fake.shown.size(), std::size_t{1});
        QTest::mouseClick(
            findButton<QPushButton>(d.window->requestCards().firstCard(), QStringLiteral("&Deny")),
            Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(d.window->requestCards().cardCount(), 0, kTimeout);
      }
      QDBusConnection::disconnectFromBus(QStringLiteral("window"));
      QDBusConnection::disconnectFromBus(QStringLiteral("fake-notifications"));
    }
    bus.kill();
    bus.waitForFinished(5000);
  }

  void theSummonHookRaisesTheWindowAndNoticesShowInTheBar() {
    desktopui::MainWindow* shown = nullptr;
    Offline o(*main, dir->path(), &shown);
    MainWindow window(o.services, QDBusConnection(QStringLiteral("not-connected")));
    // Before the window exists a double tap does nothing (and does not crash).
    const auto hooks = desktopui::windowHooks(&shown);
    hooks.summon(hotkey::OptionSide::left);
    shown = &window;
    QWidget other;
    other.show();
    QVERIFY(QTest::qWaitForWindowExposed(&other));
    window.showMinimized();
    other.activateWindow();
    QTRY_VERIFY_WITH_TIMEOUT(other.isActiveWindow(), kTimeout);
    QVERIFY(window.isMinimized());

    hooks.summon(hotkey::OptionSide::right);
    QVERIFY(!window.isMinimized());
    QVERIFY(window.isVisible());
    QTRY_VERIFY_WITH_TIMEOUT(window.isActiveWindow(), kTimeout);
    QCOMPARE(QApplication::focusWidget(), static_cast<QWidget*>(&window.composer()));

    // A monitor that cannot run says why, in the bar, and can be dismissed.
    QVERIFY(!window.noticeBar().isVisible());
    window.setHotkeyStatus({app::HotkeyStatus::Kind::unavailable,
                            "Grant Accessibility to Tamsel Desktop so double-tap and Esc work in "
                            "any app.\n  X11: DISPLAY is not set"});
    QVERIFY(window.noticeBar().isVisible());
    QVERIFY(window.noticeText().text().contains(QStringLiteral("DISPLAY is not set")));
    QAbstractButton* dismiss = nullptr;
    for (auto* b : window.noticeBar().findChildren<QAbstractButton*>())
      if (b->accessibleName() == QStringLiteral("Dismiss the notice")) dismiss = b;
    QVERIFY(dismiss);
    QTest::mouseClick(dismiss, Qt::LeftButton);
    QVERIFY(!window.noticeBar().isVisible());
    // A watching monitor leaves the bar alone; later news from the backend shows in it.
    window.setHotkeyStatus({app::HotkeyStatus::Kind::watching, "through X11"});
    QVERIFY(!window.noticeBar().isVisible());
    hooks.hotkeyNotice("keyboard /dev/input/event3 is gone");
    QVERIFY(window.noticeBar().isVisible());
    QCOMPARE(window.noticeText().text(), QStringLiteral("keyboard /dev/input/event3 is gone"));
  }

  void settingsSaveTheHotkeyTheMeetingChoiceAndLaunchAtLogin() {
    const auto config = dir->path() / "config";
    {
      Offline o(*main, dir->path());
      desktopui::SettingsDialog dialog(o.services, std::make_unique<app::LaunchAtLogin>(
                                                       config, "/opt/tamsel/bin/tamsel-desktop",
                                                       fakeServiceManager(false, false, config)));
      dialog.show();
      QVERIFY(QTest::qWaitForWindowExposed(&dialog));
      // Reachable by keyboard: the first control has the focus, and Tab walks through the rest.
      QTRY_COMPARE_WITH_TIMEOUT(QApplication::focusWidget(),
                                static_cast<QWidget*>(&dialog.hotkeyMode()), kTimeout);
      QCOMPARE(dialog.hotkeyMode().currentData().toInt(),
               static_cast<int>(o.services.hotkeyTriggerMode()));
      // The last entry is "Off".
      dialog.hotkeyMode().setFocus();
      for (int i = dialog.hotkeyMode().currentIndex(); i < dialog.hotkeyMode().count(); ++i)
        QTest::keyClick(&dialog.hotkeyMode(), Qt::Key_Down);
      QCOMPARE(dialog.hotkeyMode().currentText(), QStringLiteral("Off"));
      QCOMPARE(o.services.hotkeyTriggerMode(), hotkey::HotkeyTriggerMode::off);

      QVERIFY(!dialog.autoRecord().isChecked());
      QTest::keyClick(&dialog.hotkeyMode(), Qt::Key_Tab);
      QCOMPARE(QApplication::focusWidget(), static_cast<QWidget*>(&dialog.autoRecord()));
      QTest::keyClick(&dialog.autoRecord(), Qt::Key_Space);
      QVERIFY(o.services.meetingAutoRecord());

      // No user service manager here: the autostart entry, starting this program.
      QVERIFY(dialog.launchAtLoginStatus().text().contains(QStringLiteral("autostart entry")));
      QTest::keyClick(&dialog.autoRecord(), Qt::Key_Tab);
      QCOMPARE(QApplication::focusWidget(), static_cast<QWidget*>(&dialog.launchAtLogin()));
      QTest::keyClick(&dialog.launchAtLogin(), Qt::Key_Space);
      const auto entry = config / "autostart" / app::LaunchAtLogin::autostartFileName;
      QVERIFY(std::filesystem::exists(entry));
      QVERIFY(readFile(entry).find("Exec=/opt/tamsel/bin/tamsel-desktop") != std::string::npos);
      QVERIFY(dialog.launchAtLogin().isChecked());
      QVERIFY(!dialog.launchAtLoginStatus().text().startsWith(QStringLiteral("Off")));
      QVERIFY(dialog.engineInfo().text().contains(QStringLiteral("47123")));
      QVERIFY(dialog.engineInfo().text().contains(
          QString::fromStdString((dir->path() / "verdane").string())));
    }
    // Saved, not only shown: a new root reads the same choices back.
    {
      Offline o(*main, dir->path());
      QCOMPARE(o.services.hotkeyTriggerMode(), hotkey::HotkeyTriggerMode::off);
      QVERIFY(o.services.meetingAutoRecord());
      desktopui::SettingsDialog dialog(
          o.services, std::make_unique<app::LaunchAtLogin>(
                          config, "tamsel-desktop", fakeServiceManager(false, false, config)));
      QVERIFY(dialog.launchAtLogin().isChecked());
      QVERIFY(dialog.autoRecord().isChecked());
      QCOMPARE(dialog.hotkeyMode().currentText(), QStringLiteral("Off"));
      dialog.launchAtLogin().click();
      QVERIFY(
          !std::filesystem::exists(config / "autostart" / app::LaunchAtLogin::autostartFileName));
    }
    // A service manager that refuses: the box stays off, the entry is not written, and the
    // dialog says what failed.
    {
      Offline o(*main, dir->path());
      desktopui::SettingsDialog dialog(
          o.services, std::make_unique<app::LaunchAtLogin>(config, "tamsel-desktop",
                                                           fakeServiceManager(true, true, config)));
      QVERIFY(dialog.launchAtLoginStatus().text().contains(QStringLiteral("tamsel.service")));
      dialog.launchAtLogin().click();
      QVERIFY(!dialog.launchAtLogin().isChecked());
      QVERIFY2(dialog.launchAtLoginStatus().text().contains(QStringLiteral("Unit file does not")),
               qPrintable(dialog.launchAtLoginStatus().text()));
      QVERIFY(
          !std::filesystem::exists(config / "autostart" / app::LaunchAtLogin::autostartFileName));
    }
  }

  void theMeetingsListShowsTheJobsAndOpensTheRecording() {
    const auto root = dir->path() / "meetings";
    const meeting::MeetingJobStore store(root);
    const auto sealed = root / "2026-11-24T09-00-00Z";
    const auto failed = root / "2026-11-24T10-00-00Z";
    const auto broken = root / "2026-11-24T11-00-00Z";
    meeting::MeetingJobRecord sealedJob;
    sealedJob.id = "a";
    sealedJob.state = meeting::MeetingJobState::queued;
    sealedJob.createdAt = base::nowTimestamp() - std::chrono::hours(2);
    meeting::MeetingJobRecord failedJob;
    failedJob.id = "b";
    failedJob.state = meeting::MeetingJobState::sealingFailed;
    failedJob.createdAt = base::nowTimestamp() - std::chrono::hours(1);
    failedJob.lastError = "the microphone track is empty";
    std::filesystem::create_directories(sealed);
    std::filesystem::create_directories(failed);
    std::filesystem::create_directories(broken);
    store.save(sealed, sealedJob);
    store.save(failed, failedJob);
    std::ofstream(sealed / "combined.m4a") << "audio";
    std::ofstream(meeting::MeetingJobStore::jobFile(broken)) << "{not json";

    desktopui::MeetingsPanel panel(root);
    QList<QUrl> opened;
    panel.openUrl = [&](const QUrl& url) { opened << url; };
    panel.show();
    auto& list = panel.jobList();
    QCOMPARE(list.topLevelItemCount(), 3);
    // Newest first; a record that cannot be read is listed with why.
    QCOMPARE(list.topLevelItem(0)->text(0), QStringLiteral("2026-11-24T10-00-00Z"));
    QCOMPARE(list.topLevelItem(0)->text(1), QStringLiteral("sealing failed"));
    QCOMPARE(list.topLevelItem(0)->text(3), QStringLiteral("the microphone track is empty"));
    QCOMPARE(list.topLevelItem(1)->text(0), QStringLiteral("2026-11-24T09-00-00Z"));
    QCOMPARE(list.topLevelItem(1)->text(1), QStringLiteral("sealed"));
    QCOMPARE(list.topLevelItem(2)->text(0), QStringLiteral("2026-11-24T11-00-00Z"));
    QVERIFY(!list.topLevelItem(2)->text(3).isEmpty());

    // Nothing selected: nothing to open. A sealed meeting opens its recording; one without a
    // recording opens its folder.
    QVERIFY(!panel.openButton().isEnabled());
    list.setCurrentItem(list.topLevelItem(1));
    QVERIFY(panel.openButton().isEnabled());
    QTest::mouseClick(&panel.openButton(), Qt::LeftButton);
    list.setCurrentItem(list.topLevelItem(0));
    QTest::mouseClick(&panel.openButton(), Qt::LeftButton);
    QCOMPARE(opened.size(), 2);
    QCOMPARE(opened[0].toLocalFile(), QString::fromStdString((sealed / "combined.m4a").string()));
    QCOMPARE(opened[1].toLocalFile(), QString::fromStdString(failed.string()));

    // A job that moves on shows on the next reload, the selection kept.
    failedJob.state = meeting::MeetingJobState::queued;
    store.save(failed, failedJob);
    panel.reloadJobs();
    QCOMPARE(list.currentItem()->text(0), QStringLiteral("2026-11-24T10-00-00Z"));
    QCOMPARE(list.currentItem()->text(1), QStringLiteral("sealed"));
    // Without a controller there is nothing to record with.
    QVERIFY(!panel.recordButton().isEnabled());
    panel.setUnavailable(QStringLiteral("no audio server"));
    QVERIFY(panel.stateLabel().text().contains(QStringLiteral("no audio server")));
  }

  void theMeetingsPanelDrivesARecordingFromProposalToItsJob() {
    const auto root = dir->path() / "meetings";
    bool failToStart = false;
    desktop::MeetingController::Configuration config;
    config.meetingsRoot = root;
    config.graceSeconds = 30;
    config.recordingFactory =
        [&](const std::filesystem::path& folder,
            meeting::MeetingRecordingOptions) -> std::unique_ptr<meeting::MeetingRecording> {
      if (failToStart) throw std::runtime_error("no microphone here");
      return std::make_unique<QuietRecording>(folder);
    };
    desktop::MeetingController controller(*main, std::move(config), nullptr, nullptr, nullptr);
    desktopui::MeetingsPanel panel(root);
    QSignalSpy attention(&panel, &desktopui::MeetingsPanel::attentionNeeded);
    panel.setController(&controller);
    panel.show();
    QVERIFY(panel.recordButton().isEnabled());
    auto* proposalRow = panel.proposalLabel().parentWidget();
    QVERIFY(!proposalRow->isVisible());

    // A detected meeting is proposed; dismissing it declines it.
    controller.applySnapshot(zoomInACall());
    QVERIFY(proposalRow->isVisible());
    QVERIFY(!panel.proposalLabel().text().isEmpty());
    QCOMPARE(attention.count(), 1);
    QTest::mouseClick(&panel.dismissButton(), Qt::LeftButton);
    QVERIFY(!controller.proposal());
    QVERIFY(!proposalRow->isVisible());

    // Proposed again once the application let go of the microphone; accepted this time.
    controller.applySnapshot({});
    controller.applySnapshot(zoomInACall());
    QVERIFY(proposalRow->isVisible());
    QTest::mouseClick(&panel.acceptButton(), Qt::LeftButton);
    QVERIFY(controller.recording());
    QVERIFY(!proposalRow->isVisible());
    QVERIFY(panel.recordButton().text().contains(QStringLiteral("Stop")));
    QVERIFY(panel.stateLabel().text().startsWith(QStringLiteral("Recording into")));
    QVERIFY(panel.elapsedLabel().isVisible());
    QTRY_COMPARE_WITH_TIMEOUT(panel.micLevel().value(), -20, kTimeout);
    QVERIFY(panel.micLevel().format().contains(QStringLiteral("-20.0 dBFS")));
    QVERIFY(panel.systemLevel().format().contains(QStringLiteral("silent")));
    QTRY_COMPARE_WITH_TIMEOUT(panel.elapsedLabel().text(), QStringLiteral("00:01"), kTimeout);

    // The application leaves: the recording would stop after its grace; keep it going.
    controller.applySnapshot({});
    QVERIFY(panel.keepButton().isVisible());
    QTest::mouseClick(&panel.keepButton(), Qt::LeftButton);
    QVERIFY(!panel.keepButton().isVisible());
    QVERIFY(controller.recording());

    // Stopped by hand: the meeting shows in the list with its job's state.
    QTest::mouseClick(&panel.recordButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(!controller.recording() && panel.jobList().topLevelItemCount() == 1,
                             kTimeout);
    QTRY_COMPARE_WITH_TIMEOUT(panel.recordButton().text(), QStringLiteral("&Record a meeting"),
                              kTimeout);
    controller.drain();
    QCoreApplication::processEvents();
    const auto jobs = meeting::MeetingJobStore(root).loadAll();
    QCOMPARE(jobs.size(), std::size_t(1));
    QCOMPARE(panel.jobList().topLevelItem(0)->text(1),
             desktopui::MeetingsPanel::stateText(jobs[0].second.state));

    // "Always record": nothing changes when the preference cannot be kept; once kept, this
    // meeting records, and the next one records without being proposed.
    std::vector<bool> saved;
    bool saving = false;
    panel.saveAutoRecord = [&](bool on) {
      saved.push_back(on);
      return saving;
    };
    controller.applySnapshot({});
    controller.applySnapshot(zoomInACall());
    QVERIFY(proposalRow->isVisible());
    QTest::mouseClick(&panel.alwaysButton(), Qt::LeftButton);
    QVERIFY(!controller.recording());
    saving = true;
    QTest::mouseClick(&panel.alwaysButton(), Qt::LeftButton);
    QCOMPARE(saved, (std::vector<bool>{true, true}));
    QVERIFY(controller.recording());
    const auto stopByHand = [&] {
      QTest::mouseClick(&panel.recordButton(), Qt::LeftButton);
      QTRY_VERIFY_WITH_TIMEOUT(!controller.recording(), kTimeout);
      controller.drain();
      QCoreApplication::processEvents();
    };
    stopByHand();
    controller.applySnapshot({});
    controller.applySnapshot(zoomInACall());
    QVERIFY(controller.recording());
    QVERIFY(!proposalRow->isVisible());
    stopByHand();

    // A recording that cannot start says why.
    failToStart = true;
    QTest::mouseClick(&panel.recordButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(panel.warningLabel().isVisible(), kTimeout);
    QVERIFY2(panel.warningLabel().text().contains(QStringLiteral("no microphone here")),
             qPrintable(panel.warningLabel().text()));
    QVERIFY(!controller.recording());
    panel.setController(nullptr);
  }

  void aSearchTheEngineCannotAnswerSaysSoQuietly() {
    // Nothing listens on the engine's port here.
    Offline o(*main, dir->path());
    MainWindow window(o.services, QDBusConnection(QStringLiteral("not-connected")));
    window.show();
    QVERIFY(!window.searchNotice().isVisible());
    window.searchField().setFocus();
    QTest::keyClicks(&window.searchField(), QStringLiteral("notes"));
    QTRY_VERIFY_WITH_TIMEOUT(window.searchNotice().isVisible(), kTimeout);
    QVERIFY2(
        window.searchNotice().text().startsWith(QStringLiteral("Searching the messages failed")),
        qPrintable(window.searchNotice().text()));
    QVERIFY(window.searchField().hasFocus());
    // Forgotten as soon as the text changes (and back when that search fails too); gone when
    // the field is cleared.
    QTest::keyClick(&window.searchField(), Qt::Key_Backspace);
    QVERIFY(!window.sessionSearch().state().notice);
    QTRY_VERIFY_WITH_TIMEOUT(window.searchNotice().isVisible(), kTimeout);
    window.searchField().clear();
    QTRY_VERIFY(!window.searchNotice().isVisible());
  }

  void theTrayMenuOpensSettingsAndMeetingsAndShowsARecording() {
    Offline o(*main, dir->path());
    MainWindow window(o.services, QDBusConnection(QStringLiteral("not-connected")));
    desktop::MeetingController::Configuration config;
    config.meetingsRoot = o.services.meetingsFolder();
    config.recordingFactory = [](const std::filesystem::path& folder,
                                 meeting::MeetingRecordingOptions) {
      return std::make_unique<QuietRecording>(folder);
    };
    desktop::MeetingController controller(*main, std::move(config), nullptr, nullptr, nullptr);
    window.meetingsPanel().setController(&controller);
    desktopui::TrayIcon tray(o.services.daemonManager(), window);
    const auto stateText = QString::fromStdString(o.services.daemonManager().state().displayText());
    QCOMPARE(tray.toolTip(), QStringLiteral("Tamsel — ") + stateText);
    QVERIFY(tray.action(QStringLiteral("Quit")));

    // Meetings… shows the panel (and leaves it shown when it already is).
    QVERIFY(!window.meetingsDock().isVisible());
    tray.action(QStringLiteral("Meetings…"))->trigger();
    QVERIFY(window.meetingsDock().isVisible());
    tray.action(QStringLiteral("Meetings…"))->trigger();
    QVERIFY(window.meetingsDock().isVisible());

    // Settings… opens the settings.
    bool settingsShown = false;
    tray.action(QStringLiteral("Settings…"))->trigger();
    QTimer::singleShot(0, &window, [&] {
      auto* shown = qobject_cast<desktopui::SettingsDialog*>(QApplication::activeModalWidget());
      settingsShown = shown != nullptr;
      if (shown) shown->reject();
    });
    QTRY_VERIFY(settingsShown);

    // A recording marks the icon, the tooltip and the menu until it stops.
    const auto plainIcon = tray.icon().cacheKey();
    QTest::mouseClick(&window.meetingsPanel().recordButton(), Qt::LeftButton);
    QVERIFY(controller.recording());
    QVERIFY(tray.showsRecording());
    QVERIFY2(tray.toolTip().contains(QStringLiteral("recording a meeting")),
             qPrintable(tray.toolTip()));
    QVERIFY(tray.action(QStringLiteral("● Recording a meeting"))->isVisible());
    QVERIFY(tray.icon().cacheKey() != plainIcon);
    QTest::mouseClick(&window.meetingsPanel().recordButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(!controller.recording(), kTimeout);
    QTRY_VERIFY_WITH_TIMEOUT(!tray.showsRecording(), kTimeout);
    QCOMPARE(tray.toolTip(), QStringLiteral("Tamsel — ") + stateText);
    QVERIFY(!tray.action(QStringLiteral("● Recording a meeting"))->isVisible());
    QCOMPARE(tray.icon().cacheKey(), plainIcon);

    // A tray made while a recording runs shows it from the start.
    QTest::mouseClick(&window.meetingsPanel().recordButton(), Qt::LeftButton);
    QVERIFY(controller.recording());
    desktopui::TrayIcon late(o.services.daemonManager(), window);
    QVERIFY(late.showsRecording());
    QTest::mouseClick(&window.meetingsPanel().recordButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(!late.showsRecording(), kTimeout);
    controller.drain();
    window.meetingsPanel().setController(nullptr);
  }

  void startingMeetingsSettlesTheJobsAnEarlierRunLeft() {
    Offline o(*main, dir->path());
    // A recording whose process died while it was to be sealed, with nothing to seal.
    const auto folder = o.services.meetingsFolder() / "2026-11-24T08-00-00Z";
    std::filesystem::create_directories(folder);
    meeting::MeetingJobRecord job;
    job.id = "c";
    job.state = meeting::MeetingJobState::sealing;
    job.createdAt = base::nowTimestamp() - std::chrono::hours(3);
    meeting::MeetingJobStore(o.services.meetingsFolder()).save(folder, job);
    MainWindow window(o.services, QDBusConnection(QStringLiteral("not-connected")));
    auto& list = window.meetingsPanel().jobList();
    QCOMPARE(list.topLevelItemCount(), 1);
    const auto sealing = QStringLiteral("sealing…");
    QCOMPARE(list.topLevelItem(0)->text(1), sealing);
    window.startMeetings();
    QTRY_VERIFY_WITH_TIMEOUT(
        list.topLevelItemCount() == 1 && list.topLevelItem(0)->text(1) != sealing, kTimeout);
    const auto after = meeting::MeetingJobStore(o.services.meetingsFolder()).load(folder);
    QVERIFY(after);
    QCOMPARE(list.topLevelItem(0)->text(1), desktopui::MeetingsPanel::stateText(after->state));
  }

  void everyControlHasAnAccessibleName() {
    Desktop d(*main, dir->path());
    QTRY_VERIFY_WITH_TIMEOUT(d.chatReady(), kTimeout);
    // With a card and a queue on screen, so their controls are checked too.
    d.window->newSession();
    type(*d.window, QStringLiteral("[approval] and [slow]"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_COMPARE_WITH_TIMEOUT(d.window->requestCards().cardCount(), 1, kTimeout);
    type(*d.window, QStringLiteral("queued"));
    QTest::keyClick(&d.window->composer(), Qt::Key_Return);
    QTRY_VERIFY_WITH_TIMEOUT(d.window->queuePanel().isVisible(), kTimeout);
    // The meetings panel, its proposal and the notice bar are on screen too.
    QTest::keyClick(d.window.get(), Qt::Key_M, Qt::ControlModifier);
    QVERIFY(d.window->meetingsDock().isVisible());
    d.window->meetingsPanel().proposalLabel().parentWidget()->show();
    d.window->meetingsPanel().keepButton().show();
    d.window->showNotice(QStringLiteral("a notice"));
    int checked = 0;
    auto unnamed = unnamedControls(d.window.get(), &checked);
    // Every control of the settings dialog as well.
    desktopui::SettingsDialog settings(
        d.services,
        std::make_unique<app::LaunchAtLogin>(dir->path() / "config", "tamsel-desktop",
                                             fakeServiceManager(false, false, dir->path())),
        d.window.get());
    settings.show();
    int settingsChecked = 0;
    unnamed << unnamedControls(&settings, &settingsChecked);
    QVERIFY2(settingsChecked >= 5, qPrintable(QString::number(settingsChecked)));
    // And of the always-allowed tools, with a row to revoke and an error on screen.
    desktopui::AlwaysAllowDialog allowed(d.window->alwaysAllowList(), d.window.get());
    allowed.show();
    QTRY_VERIFY_WITH_TIMEOUT(allowed.revokeButton(QStringLiteral("read_file")), kTimeout);
    allowed.errorLabel().show();
    int allowedChecked = 0;
    unnamed << unnamedControls(&allowed, &allowedChecked);
    QVERIFY2(allowedChecked >= 4, qPrintable(QString::number(allowedChecked)));
    QVERIFY2(unnamed.isEmpty(), qPrintable(unnamed.join(QStringLiteral(", "))));
    QVERIFY2(checked >= 20, qPrintable(QString::number(checked)));
    QTest::keyClick(d.window.get(), Qt::Key_Period, Qt::ControlModifier);
    QTRY_VERIFY_WITH_TIMEOUT(!d.chat().isStreamActive(), kTimeout);
  }
};

QTEST_MAIN(DesktopWindowTest)
#include "desktop_window_test.moc"
