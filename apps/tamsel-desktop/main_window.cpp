#include "main_window.hpp"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QDate>
#include <QDir>
#include <QDockWidget>
#include <QFileDialog>
#include <QFrame>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QScrollBar>
#include <QSplitter>
#include <QVBoxLayout>

#include "always_allow_dialog.hpp"
#include "approval_notifier.hpp"
#include "calendar_settings.hpp"
#include "composer.hpp"
#include "diagnostics.hpp"
#include "engine_bar.hpp"
#include "meetings_panel.hpp"
#include "message_delegate.hpp"
#include "queue_panel.hpp"
#include "request_cards.hpp"
#include "session_list_model.hpp"
#include "settings_dialog.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/app/launch_at_login.hpp"
#include "tamsel/app/meeting_watch.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/desktop/always_allow_list.hpp"
#include "tamsel/desktop/daemon_chat_view_model.hpp"
#include "tamsel/desktop/session_search.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/platform/child_process.hpp"
#include "transcript_model.hpp"
#include "window_activation.hpp"

namespace tamsel::desktopui {

using desktop::DaemonChatViewModel;
using desktop::DaemonManager;

const std::vector<ShortcutHelp>& shortcutTable() {
  static const std::vector<ShortcutHelp> table{
      {"Enter", "send the message (queued while a reply runs)"},
      {"Shift+Enter", "new line in the message"},
      {"Ctrl+Enter", "add the message to the running reply (inject)"},
      {"Ctrl+Shift+Enter", "stop the reply and send the queue now"},
      {"Ctrl+O", "attach files to the message (or drop them on it)"},
      {"Ctrl+.", "stop the running reply"},
      {"Ctrl+N", "new session"},
      {"Ctrl+F", "search sessions"},
      {"Ctrl+L", "go to the message field"},
      {"Ctrl+1 / Ctrl+2", "go to the sessions / the transcript"},
      {"Ctrl+C (in the transcript)", "copy the selected message (its Markdown)"},
      {"Space / Enter (in the transcript)", "open or close a reply's tools; Enter opens a file"},
      {"Left / Right (in the transcript)", "move between a message's files"},
      {"Menu key (in the transcript)", "copy one of the message's code blocks, or the message"},
      {"Ctrl+PgUp / Ctrl+PgDown", "previous / next session"},
      {"Alt+O, Alt+S, Alt+A, Alt+D", "approve once, for the session, always; deny"},
      {"Alt+N / Alt+E", "answer / decline a question"},
      {"F2 / Delete (in the queue)", "edit / retract a queued message"},
      {"Ctrl+R", "start the engine again"},
      {"F5", "reload the session"},
      {"Ctrl+Shift+D", "export diagnostics to a file"},
      {"Ctrl+,", "settings (hotkey, meetings, launch at login)"},
      {"Ctrl+M", "show / hide the meetings panel"},
      {"Ctrl+Shift+A", "always-allowed tools (review, revoke)"},
      {"Alt twice (in any application)", "bring the window to the front (set in the settings)"},
      {"F1", "this list"},
      {"Shift+F1", "about Tamsel Desktop (version and revision)"},
      {"Ctrl+Q", "quit"},
  };
  return table;
}

namespace {
// `tamsel` beside this binary (both in /usr/bin; or build/apps/tamsel-desktop beside
// build/apps/tamsel), else the first on PATH.
std::filesystem::path tamselBinary() {
  const auto here = platform::executableDirectory();
  for (const auto& candidate : {here / "tamsel", here.parent_path() / "tamsel" / "tamsel"})
    if (platform::isExecutableFile(candidate)) return candidate;
  const std::string path = base::env::get("PATH").value_or("/usr/bin:/bin");
  for (std::size_t start = 0; start <= path.size();) {
    const auto end = std::min(path.find(':', start), path.size());
    const std::filesystem::path candidate =
        std::filesystem::path(path.substr(start, end - start)) / "tamsel";
    if (end > start && platform::isExecutableFile(candidate)) return candidate;
    start = end + 1;
  }
  return here / "tamsel";  // not there: running it says so in the log
}
}  // namespace

app::FrontEndHooks windowHooks(MainWindow* const* window) {
  app::FrontEndHooks hooks;
  hooks.summon = [window](hotkey::OptionSide) {
    if (*window) (*window)->summon();
  };
  hooks.askCalendarPermission = windowCalendarPrompter(std::chrono::minutes(2));
  // Sealed by the command line's `meeting seal`, beside this binary (installed or built), so the
  // window never loads the encoder.
  hooks.meetingSealer = [](const std::atomic<bool>* cancel) {
    return app::childProcessMeetingSealer(tamselBinary(), cancel);
  };
  hooks.hotkeyNotice = [window](const std::string& notice) {
    if (*window) (*window)->showNotice(QString::fromStdString(notice));
  };
  return hooks;
}

MainWindow::MainWindow(app::DesktopServices& services, QDBusConnection notifications,
                       QWidget* parent)
    : QMainWindow(parent), services_(services), vm_(services.makeChatViewModel()) {
  notifier_ = std::make_unique<ApprovalNotifier>(*vm_, std::move(notifications),
                                                 [this] { return !isActiveWindow(); });
  setWindowTitle(tr("Tamsel"));
  setAccessibleName(tr("Tamsel"));
  auto& manager = services_.daemonManager();
  engineBar_ = new EngineBar(manager, services_.daemonPaths().engineLogPath(), this);

  // Sidebar.
  agents_ = new QComboBox(this);
  agents_->setAccessibleName(tr("Agent"));
  search_ = new QLineEdit(this);
  search_->setPlaceholderText(tr("Search sessions"));
  search_->setAccessibleName(tr("Search sessions"));
  search_->setClearButtonEnabled(true);
  search_->setToolTip(tr("Titles match at once; the text of messages once you pause"));
  searchNotice_ = new QLabel(this);
  searchNotice_->setAccessibleName(tr("Search notice"));
  searchNotice_->setWordWrap(true);
  searchNotice_->setTextFormat(Qt::PlainText);
  searchNotice_->setEnabled(false);  // greyed: the title filter still works
  searchNotice_->hide();
  auto& client = services_.client();
  sessionSearch_ = std::make_unique<desktop::SessionSearch>(
      services_.mainExecutor(), desktop::SessionSearch::through(client));
  alwaysAllow_ = std::make_unique<desktop::AlwaysAllowList>(
      services_.mainExecutor(), desktop::AlwaysAllowList::through(client),
      &services_.eventStream());
  newSession_ = new QPushButton(tr("New session"), this);
  newSession_->setAccessibleName(tr("New session"));
  newSession_->setToolTip(tr("Ctrl+N"));
  sessionModel_ = new SessionListModel(*vm_, sessionSearch_.get(), this);
  sessions_ = new QListView(this);
  sessions_->setModel(sessionModel_);
  sessions_->setAccessibleName(tr("Sessions"));
  sessions_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  sessions_->setUniformItemSizes(true);
  // Long titles are cut with "…" rather than scrolled sideways.
  sessions_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  auto* sidebar = new QWidget(this);
  auto* sideColumn = new QVBoxLayout(sidebar);
  sideColumn->setContentsMargins(4, 4, 4, 4);
  sideColumn->addWidget(agents_);
  sideColumn->addWidget(search_);
  sideColumn->addWidget(searchNotice_);
  sideColumn->addWidget(newSession_);
  sideColumn->addWidget(sessions_, 1);

  // Conversation.
  transcriptModel_ = new TranscriptModel(vm_->transcript(), this);
  transcript_ = new TranscriptView(this);
  transcript_->setAccessibleName(tr("Transcript"));
  transcript_->setModel(transcriptModel_);
  delegate_ = &transcript_->messageDelegate();
  connect(transcript_, &TranscriptView::noticeRequested, this, &MainWindow::showNotice);
  transcript_->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
  transcript_->setResizeMode(QListView::Adjust);
  transcript_->setWordWrap(true);
  transcript_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  transcript_->setSelectionMode(QAbstractItemView::SingleSelection);
  // Rows are laid out in batches, so a long session paints its first screen at once.
  transcript_->setLayoutMode(QListView::Batched);
  transcript_->setBatchSize(200);
  status_ = new QLabel(this);
  status_->setAccessibleName(tr("Status"));
  status_->setWordWrap(true);
  status_->setTextFormat(Qt::PlainText);
  cards_ = new RequestCards(*vm_, this);
  queue_ = new QueuePanel(*vm_, this);
  composer_ = new Composer(this);
  attachments_ = new AttachmentTray(*vm_, this);
  sendButton_ = new QPushButton(tr("Send"), this);
  sendButton_->setAccessibleName(tr("Send the message"));
  sendButton_->setToolTip(tr("Enter"));
  stopButton_ = new QPushButton(tr("Stop"), this);
  stopButton_->setAccessibleName(tr("Stop the running reply"));
  stopButton_->setToolTip(tr("Ctrl+."));
  auto* composerRow = new QHBoxLayout;
  composerRow->addWidget(composer_, 1);
  auto* composerButtons = new QVBoxLayout;
  composerButtons->addWidget(sendButton_);
  composerButtons->addWidget(stopButton_);
  composerButtons->addStretch();
  composerRow->addLayout(composerButtons);
  auto* conversation = new QWidget(this);
  auto* convColumn = new QVBoxLayout(conversation);
  convColumn->setContentsMargins(4, 4, 4, 4);
  convColumn->addWidget(transcript_, 1);
  convColumn->addWidget(status_);
  convColumn->addWidget(cards_);
  convColumn->addWidget(queue_);
  convColumn->addWidget(attachments_);
  convColumn->addLayout(composerRow);

  auto* splitter = new QSplitter(this);
  splitter->addWidget(sidebar);
  splitter->addWidget(conversation);
  splitter->setStretchFactor(1, 1);
  splitter->setSizes({240, 760});
  noticeBar_ = new QFrame(this);
  noticeBar_->setFrameShape(QFrame::StyledPanel);
  noticeBar_->setAccessibleName(tr("Notice"));
  noticeText_ = new QLabel(noticeBar_);
  noticeText_->setAccessibleName(tr("Notice"));
  noticeText_->setWordWrap(true);
  noticeText_->setTextFormat(Qt::PlainText);
  auto* dismissNotice = new QPushButton(tr("Dismiss"), noticeBar_);
  dismissNotice->setAccessibleName(tr("Dismiss the notice"));
  auto* noticeRow = new QHBoxLayout(noticeBar_);
  noticeRow->setContentsMargins(8, 4, 8, 4);
  noticeRow->addWidget(noticeText_, 1);
  noticeRow->addWidget(dismissNotice);
  noticeBar_->hide();
  connect(dismissNotice, &QPushButton::clicked, noticeBar_, &QWidget::hide);

  meetings_ = new MeetingsPanel(services_.meetingsFolder(), this);
  meetings_->saveAutoRecord = [this](bool on) {
    try {
      services_.setMeetingAutoRecord(on);
      return true;
    } catch (const std::exception& e) {
      showNotice(tr("Could not save the meeting setting: %1").arg(e.what()));
      return false;
    }
  };
  meetingsDock_ = new QDockWidget(tr("Meetings"), this);
  meetingsDock_->setObjectName(QStringLiteral("meetings"));
  meetingsDock_->setAccessibleName(tr("Meetings"));
  meetingsDock_->setWidget(meetings_);
  addDockWidget(Qt::RightDockWidgetArea, meetingsDock_);
  meetingsDock_->hide();
  connect(meetings_, &MeetingsPanel::attentionNeeded, meetingsDock_, &QWidget::show);
  launchAtLoginFactory_ = [this] {
    // The entry starts this very program, wherever it is installed.
    return std::make_unique<app::LaunchAtLogin>(
        services_.folders().configHome, QCoreApplication::applicationFilePath().toStdString());
  };

  auto* central = new QWidget(this);
  auto* column = new QVBoxLayout(central);
  column->setContentsMargins(0, 0, 0, 0);
  column->setSpacing(0);
  column->addWidget(engineBar_);
  column->addWidget(noticeBar_);
  column->addWidget(splitter, 1);
  setCentralWidget(central);
  resize(1000, 700);

  connect(sendButton_, &QPushButton::clicked, this, &MainWindow::send);
  connect(stopButton_, &QPushButton::clicked, this, &MainWindow::cancelReply);
  connect(newSession_, &QPushButton::clicked, this, &MainWindow::newSession);
  connect(composer_, &Composer::sendRequested, this, &MainWindow::send);
  connect(composer_, &Composer::injectRequested, this, &MainWindow::inject);
  connect(composer_, &Composer::filesOffered, attachments_, &AttachmentTray::addUrls);
  connect(composer_, &QPlainTextEdit::textChanged, this, [this] {
    if (!loadingDraft_) vm_->setComposerText(composer_->toPlainText().toStdString());
  });
  connect(search_, &QLineEdit::textChanged, sessionModel_, &SessionListModel::setFilter);
  connect(sessionModel_, &SessionListModel::rowsAboutToSync, this, [this] {
    highlightedBeforeSync_ =
        sessions_->currentIndex().data(SessionListModel::IdRole).toString().toStdString();
  });
  connect(sessionModel_, &SessionListModel::rowsSynced, this, &MainWindow::keepSessionHighlight);
  connect(search_, &QLineEdit::textChanged, this,
          [this](const QString& text) { sessionSearch_->setQuery(text.toStdString()); });
  // The next page of matches once the list is scrolled to its end.
  auto* sessionsBar = sessions_->verticalScrollBar();
  connect(sessionsBar, &QScrollBar::valueChanged, this, [this, sessionsBar](int value) {
    if (value == sessionsBar->maximum() && sessionSearch_->state().hasMore)
      sessionSearch_->loadMore();
  });
  connect(sessions_, &QListView::activated, this,
          [this](const QModelIndex& index) { openSessionAt(index.row()); });
  connect(sessions_, &QListView::clicked, this,
          [this](const QModelIndex& index) { openSessionAt(index.row()); });
  connect(agents_, &QComboBox::activated, this, [this](int index) {
    vm_->selectAgent(agents_->itemData(index).toString().toStdString());
  });
  // Keep the newest text in view while a reply grows, unless the user scrolled up to read.
  auto* bar = transcript_->verticalScrollBar();
  connect(bar, &QScrollBar::valueChanged, this,
          [this, bar](int value) { followTail_ = value >= bar->maximum() - 2; });
  connect(bar, &QScrollBar::rangeChanged, this, [this, bar](int, int maximum) {
    if (followTail_) bar->setValue(maximum);
  });
  connect(queue_, &QueuePanel::sendNowRequested, this, &MainWindow::sendNow);
  connect(engineBar_, &EngineBar::diagnosticsRequested, this, &MainWindow::exportDiagnosticsFile);

  const auto watch = [this](base::Signal<>& signal, std::function<void()> slot) {
    connections_.emplace_back(&signal, signal.connect(std::move(slot)));
  };
  watch(manager.changed(), [this] { onEngineChanged(); });
  watch(vm_->transcript().changed(), [this] { onTranscriptChanged(); });
  watch(vm_->sidebar().changed(), [this] { refreshAgents(); });
  watch(vm_->replies().changed(), [this] { refreshStatus(); });
  watch(vm_->status().changed(), [this] { refreshStatus(); });
  watch(vm_->requests().changed(), [this] { refreshStatus(); });
  watch(sessionSearch_->changed(), [this] {
    const auto& notice = sessionSearch_->state().notice;
    searchNotice_->setText(notice ? QString::fromStdString(*notice) : QString());
    searchNotice_->setVisible(notice.has_value());
    // Rows found by their messages are two lines high; all rows are one line otherwise.
    sessions_->setUniformItemSizes(sessionSearch_->state().query.empty());
  });

  buildActions();
  onEngineChanged();
  onTranscriptChanged();
  refreshAgents();
  refreshStatus();
  composer_->setFocus();
}

MainWindow::~MainWindow() {
  // The panel lets go of the controller before the watch (and its recording) ends.
  meetings_->setController(nullptr);
  meetingWatch_.reset();
  // A seal in progress is cancelled; the next launch retries it.
  cancelReplay_ = true;
  if (meetingReplay_.joinable()) meetingReplay_.join();
  for (auto& [signal, connection] : connections_) signal->disconnect(connection);
  // Views and models that read the controller go before it (Qt would delete them after).
  delete centralWidget();
  delete sessionModel_;
  delete transcriptModel_;
}

void MainWindow::buildActions() {
  const auto add = [this](const QKeySequence& keys, const QString& name, auto slot) {
    auto* action = new QAction(name, this);
    action->setShortcut(keys);
    action->setShortcutContext(Qt::WindowShortcut);
    connect(action, &QAction::triggered, this, slot);
    addAction(action);
    return action;
  };
  add(QKeySequence(Qt::CTRL | Qt::Key_N), tr("New session"), [this] { newSession(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_Period), tr("Stop the reply"), [this] { cancelReply(); });
  add(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Return), tr("Send the queue now"),
      [this] { sendNow(); });
  add(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Enter), tr("Send the queue now"),
      [this] { sendNow(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_O), tr("Attach files"),
      [this] { attachments_->pickFiles(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_F), tr("Search sessions"), [this] {
    search_->setFocus();
    search_->selectAll();
  });
  add(QKeySequence(Qt::CTRL | Qt::Key_L), tr("Message field"), [this] { composer_->setFocus(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_1), tr("Sessions"), [this] { sessions_->setFocus(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_2), tr("Transcript"), [this] { transcript_->setFocus(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_PageUp), tr("Previous session"), [this] { moveSession(-1); });
  add(QKeySequence(Qt::CTRL | Qt::Key_PageDown), tr("Next session"), [this] { moveSession(1); });
  add(QKeySequence(Qt::CTRL | Qt::Key_R), tr("Start the engine again"),
      [this] { engineBar_->retry(); });
  add(QKeySequence(Qt::Key_F5), tr("Reload the session"), [this] { vm_->refreshCurrentSession(); });
  add(QKeySequence(Qt::Key_F1), tr("Keyboard shortcuts"), [this] { showShortcuts(); });
  add(QKeySequence(Qt::SHIFT | Qt::Key_F1), tr("About Tamsel Desktop"), [this] { showAbout(); });
  add(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_D), tr("Export diagnostics"),
      [this] { exportDiagnosticsFile(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_Comma), tr("Settings"), [this] { showSettings(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_M), tr("Meetings"), [this] { toggleMeetings(); });
  add(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_A), tr("Always allowed tools"),
      [this] { showAlwaysAllowed(); });
  add(QKeySequence(Qt::CTRL | Qt::Key_Q), tr("Quit"), [this] { close(); });
}

void MainWindow::summon() {
  bringToFront(*this);
  composer_->setFocus();
}

void MainWindow::setHotkeyStatus(const app::HotkeyStatus& status) {
  hotkeyStatus_ = status;
  if (status.kind == app::HotkeyStatus::Kind::unavailable)
    showNotice(QString::fromStdString(status.text));
  else if (noticeBar_->isVisible() && noticeText_->text().startsWith(QStringLiteral("Grant")))
    noticeBar_->hide();  // the hotkey works now: the earlier complaint is stale
}

void MainWindow::showNotice(const QString& text) {
  noticeText_->setText(text);
  noticeBar_->show();
}

void MainWindow::setLaunchAtLoginFactory(
    std::function<std::unique_ptr<app::LaunchAtLogin>()> factory) {
  launchAtLoginFactory_ = std::move(factory);
}

std::unique_ptr<app::LaunchAtLogin> MainWindow::makeLaunchAtLogin() const {
  return launchAtLoginFactory_();
}

void MainWindow::showSettings() {
  SettingsDialog dialog(services_, makeLaunchAtLogin(), this);
  dialog.showHotkeyStatus(hotkeyStatus_);
  connect(&dialog, &SettingsDialog::hotkeyStatusChanged, this,
          [this](const app::HotkeyStatus& status) { setHotkeyStatus(status); });
  connect(&dialog, &SettingsDialog::autoRecordChanged, this, [this](bool) {
    // The controller takes the preference when it starts: start it again, unless it is
    // recording (then the new setting applies from the next launch).
    if (meetingsWanted_ && !(meetingWatch_ && meetingWatch_->controller->recording()))
      startMeetings();
  });
  connect(&dialog, &SettingsDialog::alwaysAllowRequested, this,
          [this, &dialog] { showAlwaysAllowed(&dialog); });
  dialog.exec();
}

void MainWindow::showAlwaysAllowed(QWidget* parent) {
  AlwaysAllowDialog dialog(*alwaysAllow_, parent ? parent : this);
  dialog.exec();
}

void MainWindow::toggleMeetings() {
  meetingsDock_->setVisible(!meetingsDock_->isVisible());
  if (meetingsDock_->isVisible()) {
    meetings_->reloadJobs();
    meetings_->recordButton().setFocus();
  }
}

void MainWindow::startMeetings() {
  if (!meetingsWanted_) {
    // Resealing a crashed hour takes seconds: on a thread of its own, the list reread after.
    meetingReplay_ = std::thread([folder = services_.meetingsFolder(),
                                  sealer = services_.meetingSealer(&cancelReplay_),
                                  panel = QPointer<MeetingsPanel>(meetings_)] {
      meeting::replayMeetingJobs(meeting::MeetingJobStore(folder), base::nowTimestamp(), sealer,
                                 meeting::MeetingJobReplayMode::launch);
      QMetaObject::invokeMethod(
          panel, [panel] { panel->reloadJobs(); }, Qt::QueuedConnection);
    });
  }
  meetingsWanted_ = true;
  meetings_->setController(nullptr);
  meetingWatch_.reset();
  try {
    meetingWatch_ = services_.startMeetingWatch(services_.meetingAutoRecord(),
                                                desktop::MeetingController::defaultGraceSeconds);
    meetings_->setController(meetingWatch_->controller.get());
  } catch (const std::exception& e) {
    meetings_->setUnavailable(QString::fromUtf8(e.what()));
  }
}

void MainWindow::showShortcuts() {
  QString text;
  for (const auto& row : shortcutTable())
    text +=
        QString::fromUtf8(row.keys) + QStringLiteral("\t") + tr(row.action) + QStringLiteral("\n");
  QMessageBox box(QMessageBox::Information, tr("Keyboard shortcuts"), text, QMessageBox::Close,
                  this);
  box.setAccessibleName(tr("Keyboard shortcuts"));
  box.exec();
}

void MainWindow::showAbout() {
  // The same version string `tamsel --version` prints and the engine is told.
  QMessageBox box(QMessageBox::Information, tr("About Tamsel Desktop"),
                  tr("Tamsel Desktop %1\nQt %2")
                      .arg(QApplication::applicationVersion(), QString::fromLatin1(qVersion())),
                  QMessageBox::Close, this);
  box.setAccessibleName(tr("About Tamsel Desktop"));
  box.exec();
}

void MainWindow::exportDiagnosticsFile() {
  const auto suggested = QDir::home().filePath(
      QStringLiteral("tamsel-diagnostics-%1.txt").arg(QDate::currentDate().toString(Qt::ISODate)));
  const auto file = QFileDialog::getSaveFileName(this, tr("Export diagnostics"), suggested,
                                                 tr("Text files (*.txt)"));
  if (file.isEmpty()) return;
  try {
    exportDiagnostics(services_, file.toStdString());
    status_->setText(tr("Diagnostics saved to %1").arg(file));
  } catch (const std::exception& e) {
    status_->setText(tr("Could not save the diagnostics: %1").arg(QString::fromUtf8(e.what())));
  }
  status_->setVisible(true);
}

void MainWindow::onEngineChanged() {
  auto& manager = services_.daemonManager();
  const bool running = manager.state().kind == DaemonManager::State::Kind::running;
  const bool cameBack = running && !engineRunning_;
  engineRunning_ = running;
  if (running && !chatStarted_) {
    chatStarted_ = true;
    vm_->start();
    alwaysAllow_->start();
  } else if (cameBack) {
    // The engine came back (a restart): its sessions may have moved on.
    vm_->reloadSidebar();
  }
  sendButton_->setEnabled(running);
}

void MainWindow::onTranscriptChanged() {
  const auto key = vm_->currentSessionKey();
  if (key != shownKey_) {
    // Another session: its own draft comes back.
    shownKey_ = key;
    loadingDraft_ = true;
    composer_->setPlainText(QString::fromStdString(vm_->composerText()));
    composer_->moveCursor(QTextCursor::End);
    loadingDraft_ = false;
    attachments_->refresh();
    followTail_ = true;
    transcript_->scrollToBottom();
    syncSessionHighlight();
  }
  const auto title = vm_->currentSessionTitle();
  setWindowTitle(title ? QString::fromStdString(*title) + QStringLiteral(" — Tamsel")
                       : tr("Tamsel"));
}

void MainWindow::keepSessionHighlight() {
  // Rows move under the highlight (a session listed on top, a pending row replaced by the
  // engine's, a session moving up): Qt keeps it on a row index, or a neighbour when its row is
  // removed, so it is put back by id after every change of the list.
  if (!highlightedBeforeSync_.empty()) {
    if (const int row = sessionModel_->rowOf(highlightedBeforeSync_); row >= 0) {
      if (sessions_->currentIndex().row() != row)
        sessions_->setCurrentIndex(sessionModel_->index(row));
      return;
    }
  }
  syncSessionHighlight();
}

void MainWindow::syncSessionHighlight() {
  int row = -1;
  if (const auto key = vm_->currentSessionKey())
    row = sessionModel_->rowOf(vm_->sessionIdentityRegistry().realID(*key));
  // Named by the engine but not listed yet: its pending row is still the open session.
  if (const auto& pending = vm_->currentPendingSessionLocalID(); row < 0 && pending)
    row = sessionModel_->rowOf(*pending);
  if (row < 0) {
    // Not listed (yet, or filtered out): no row is the open session.
    if (sessions_->currentIndex().isValid()) sessions_->selectionModel()->clear();
    return;
  }
  if (sessions_->currentIndex().row() != row) sessions_->setCurrentIndex(sessionModel_->index(row));
}

void MainWindow::refreshAgents() {
  const auto& agents = vm_->agents();
  QStringList names;
  for (const auto& a : agents) names << QString::fromStdString(a.name);
  QStringList shown;
  for (int i = 0; i < agents_->count(); ++i) shown << agents_->itemData(i).toString();
  if (names != shown) {
    agents_->clear();
    for (const auto& a : agents)
      agents_->addItem(QString::fromStdString(a.displayName.value_or(a.name)),
                       QString::fromStdString(a.name));
  }
  if (const auto& selected = vm_->selectedAgent()) {
    const int index = agents_->findData(QString::fromStdString(*selected));
    if (index >= 0 && index != agents_->currentIndex()) agents_->setCurrentIndex(index);
  }
}

void MainWindow::refreshStatus() {
  QString text;
  if (const auto& error = vm_->errorMessage())
    text = QString::fromStdString(*error);
  else if (vm_->isCancelling())
    text = tr("Stopping the reply…");
  else if (vm_->isStreamActive()) {
    const auto& status = vm_->streamingStatus();
    text = status.activityLine.empty() ? tr("The agent is replying…")
                                       : QString::fromStdString(status.activityLine);
  } else if (const auto& notice = vm_->notice())
    text = QString::fromStdString(*notice);
  status_->setText(text);
  status_->setVisible(!text.isEmpty());
  stopButton_->setEnabled(vm_->isStreamActive());
}

void MainWindow::send() { submitComposer(false); }

void MainWindow::inject() { submitComposer(true); }

void MainWindow::submitComposer(bool inject) {
  const auto text = composer_->toPlainText();
  auto files = vm_->composerAttachments();
  if (text.trimmed().isEmpty() && files.empty()) return;
  // Refused (an attached file is gone): the text and the files stay for the user to fix.
  const auto outcome = vm_->submit(text.toStdString(), inject, std::move(files));
  if (outcome == DaemonChatViewModel::SubmitOutcome::ignored ||
      outcome == DaemonChatViewModel::SubmitOutcome::refused)
    return;
  composer_->clear();
  attachments_->refresh();
}

void MainWindow::sendNow() {
  const auto typed = composer_->toPlainText().trimmed();
  auto files = vm_->composerAttachments();
  if (vm_->queuedDrafts().empty() && typed.isEmpty() && files.empty()) return;
  if (!vm_->forceSendQueued(typed.toStdString(), std::move(files))) return;
  composer_->clear();
  attachments_->refresh();
}

void MainWindow::newSession() {
  vm_->startNewSession();
  composer_->setFocus();
}

void MainWindow::cancelReply() {
  if (vm_->isStreamActive()) vm_->cancel();
}

void MainWindow::openSessionAt(int row) {
  const auto id = sessionModel_->index(row).data(SessionListModel::IdRole).toString().toStdString();
  if (id.empty()) return;
  const auto current = vm_->currentSessionKey();
  if (current && vm_->sessionIdentityRegistry().realID(*current) == id) return;
  vm_->selectSession(id);
}

void MainWindow::moveSession(int step) {
  const int rows = sessionModel_->rowCount();
  if (rows == 0) return;
  const int current = sessions_->currentIndex().isValid() ? sessions_->currentIndex().row() : -step;
  const int next = std::clamp(current + step, 0, rows - 1);
  sessions_->setCurrentIndex(sessionModel_->index(next));
  openSessionAt(next);
}

}  // namespace tamsel::desktopui
