#pragma once
// The chat window: the engine's state on top; agents and sessions on the left; the transcript,
// the waiting approvals and questions, the queue and the composer on the right. A view over the
// composition root's controllers (DaemonManager, a DaemonChatViewModel of its own): it holds no
// conversation logic. Closing the window destroys its chat controller; the root stays.
#include <QDBusConnection>
#include <QMainWindow>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/signal.hpp"
#include "transcript_view.hpp"

class QComboBox;
class QDockWidget;
class QFrame;
class QLabel;
class QLineEdit;
class QListView;
class QPushButton;

namespace tamsel::app {
class LaunchAtLogin;
struct MeetingWatch;
}  // namespace tamsel::app
namespace tamsel::desktop {
class AlwaysAllowList;
class DaemonChatViewModel;
class SessionSearch;
}  // namespace tamsel::desktop

namespace tamsel::desktopui {

class ApprovalNotifier;
class AttachmentTray;
class Composer;
class EngineBar;
class MeetingsPanel;
class MessageDelegate;
class QueuePanel;
class RequestCards;
class SessionListModel;
class TranscriptModel;

// One row of the shortcut table shown by F1 and in the README.
struct ShortcutHelp {
  const char* keys;
  const char* action;
};
const std::vector<ShortcutHelp>& shortcutTable();

class MainWindow;
// The hooks a window gives the composition root: a double tap of the trigger key summons
// `*window`, and the hotkey's later news shows in its notice bar. `*window` may be null until the
// window exists.
app::FrontEndHooks windowHooks(MainWindow* const* window);

class MainWindow final : public QMainWindow {
  Q_OBJECT
 public:
  // Approvals that arrive while the window is not active are also shown as desktop
  // notifications on `notifications` (the session bus by default).
  explicit MainWindow(app::DesktopServices& services,
                      QDBusConnection notifications = QDBusConnection::sessionBus(),
                      QWidget* parent = nullptr);
  ~MainWindow() override;

  desktop::DaemonChatViewModel& chat() { return *vm_; }
  EngineBar& engineBar() { return *engineBar_; }
  Composer& composer() { return *composer_; }
  AttachmentTray& attachmentTray() { return *attachments_; }
  TranscriptView& transcriptView() { return *transcript_; }
  TranscriptModel& transcriptModel() { return *transcriptModel_; }
  QListView& sessionView() { return *sessions_; }
  QLineEdit& searchField() { return *search_; }
  // Why the search by message text failed, when it did.
  QLabel& searchNotice() { return *searchNotice_; }
  desktop::SessionSearch& sessionSearch() { return *sessionSearch_; }
  desktop::AlwaysAllowList& alwaysAllowList() { return *alwaysAllow_; }
  SessionListModel& sessionModel() { return *sessionModel_; }
  RequestCards& requestCards() { return *cards_; }
  QueuePanel& queuePanel() { return *queue_; }
  QLabel& statusLine() { return *status_; }
  MessageDelegate& messageDelegate() { return *delegate_; }
  ApprovalNotifier& notifier() { return *notifier_; }
  MeetingsPanel& meetingsPanel() { return *meetings_; }
  QDockWidget& meetingsDock() { return *meetingsDock_; }
  // The dismissable bar over the conversation for news that needs no answer.
  QFrame& noticeBar() { return *noticeBar_; }
  QLabel& noticeText() { return *noticeText_; }

  // Shows what the summon hotkey's monitor said: when it cannot run, why, in the notice bar.
  void setHotkeyStatus(const app::HotkeyStatus& status);
  const app::HotkeyStatus& hotkeyStatus() const { return hotkeyStatus_; }
  void showNotice(const QString& text);
  // Watches for meetings (the auto-record preference decides whether they start at once). When
  // the audio server cannot be watched, the panel says why; the rest keeps working.
  void startMeetings();
  // How the settings dialog reaches launch at login (tests give it a fake system).
  void setLaunchAtLoginFactory(std::function<std::unique_ptr<app::LaunchAtLogin>()> factory);
  std::unique_ptr<app::LaunchAtLogin> makeLaunchAtLogin() const;

 public Q_SLOTS:
  void send();
  void inject();
  void submitComposer(bool inject);
  void newSession();
  void cancelReply();
  // Stops the running reply and sends the queue and the typed text as one message.
  void sendNow();
  void showShortcuts();
  void showAbout();
  // Asks where, then saves the diagnostics file there.
  void exportDiagnosticsFile();
  // Brings the window to the front with the keyboard in the message field (the double tap).
  void summon();
  void showSettings();
  void toggleMeetings();
  // The always-allowed tools, to review and revoke (over `parent`, the window by default).
  void showAlwaysAllowed(QWidget* parent = nullptr);

 private:
  void buildActions();
  void onEngineChanged();
  void onTranscriptChanged();
  void refreshAgents();
  void refreshStatus();
  void openSessionAt(int row);
  // Highlights the open session's row, wherever the list put it.
  void syncSessionHighlight();
  // After the list changed: the highlight stays on the session it was on (the keyboard may have
  // moved it off the open one), else goes to the open session.
  void keepSessionHighlight();
  void moveSession(int step);

  app::DesktopServices& services_;
  std::unique_ptr<desktop::DaemonChatViewModel> vm_;
  // After the controller, so it goes first.
  std::unique_ptr<ApprovalNotifier> notifier_;
  std::unique_ptr<desktop::SessionSearch> sessionSearch_;
  std::unique_ptr<desktop::AlwaysAllowList> alwaysAllow_;
  bool chatStarted_ = false;
  bool engineRunning_ = false;  // as last seen: a reload is for a restart, not each change
  std::optional<std::string> shownKey_;
  std::string highlightedBeforeSync_;
  bool loadingDraft_ = false;
  // The transcript follows its newest text while the user has not scrolled up.
  bool followTail_ = true;
  std::vector<std::pair<base::Signal<>*, base::Signal<>::Connection>> connections_;

  EngineBar* engineBar_;
  QComboBox* agents_;
  QLineEdit* search_;
  QLabel* searchNotice_;
  QPushButton* newSession_;
  QListView* sessions_;
  SessionListModel* sessionModel_;
  TranscriptView* transcript_;
  TranscriptModel* transcriptModel_;
  MessageDelegate* delegate_;
  QLabel* status_;
  RequestCards* cards_;
  QueuePanel* queue_;
  Composer* composer_;
  AttachmentTray* attachments_;
  QPushButton* sendButton_;
  QPushButton* stopButton_;
  QFrame* noticeBar_;
  QLabel* noticeText_;
  QDockWidget* meetingsDock_;
  MeetingsPanel* meetings_;
  std::unique_ptr<app::MeetingWatch> meetingWatch_;
  // Settles the jobs an earlier run left behind (a crashed recording is sealed again).
  std::thread meetingReplay_;
  std::atomic<bool> cancelReplay_{false};
  bool meetingsWanted_ = false;
  app::HotkeyStatus hotkeyStatus_;
  std::function<std::unique_ptr<app::LaunchAtLogin>()> launchAtLoginFactory_;
};

}  // namespace tamsel::desktopui
