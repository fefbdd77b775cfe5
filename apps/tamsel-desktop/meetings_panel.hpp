#pragma once
// The meetings panel: start or stop a recording, its elapsed time and the level of each track,
// the proposal when a meeting application is detected (record / dismiss), keeping a recording
// that would stop, warnings, sealing, and the recorded meetings with their job state and a way
// to open each. A view over a MeetingController; the list reads the job records in the meetings
// folder.
#include <QElapsedTimer>
#include <QUrl>
#include <QWidget>
#include <filesystem>
#include <functional>

#include "tamsel/base/signal.hpp"
#include "tamsel/desktop/meeting_controller.hpp"

class QLabel;
class QProgressBar;
class QPushButton;
class QTimer;
class QTreeWidget;

namespace tamsel::desktopui {

class MeetingsPanel final : public QWidget {
  Q_OBJECT
 public:
  explicit MeetingsPanel(std::filesystem::path meetingsRoot, QWidget* parent = nullptr);
  ~MeetingsPanel() override;

  // The controller it shows and drives; null (with why) when meetings cannot be watched.
  void setController(desktop::MeetingController* controller);
  void setUnavailable(const QString& reason);
  // Reads the job records again.
  void reloadJobs();
  // Opens the selected meeting: its combined.m4a once sealed, otherwise its folder.
  void openSelected();

  // A job's state in the words the list shows.
  static QString stateText(meeting::MeetingJobState state);

  // How a meeting is opened (tests watch it).
  std::function<void(const QUrl&)> openUrl;
  // Keeps "record detected meetings without asking" on (Always record); false when it could
  // not be saved, which the callee has shown.
  std::function<bool(bool)> saveAutoRecord;

  QPushButton& recordButton() { return *record_; }
  QPushButton& acceptButton() { return *accept_; }
  QPushButton& dismissButton() { return *dismiss_; }
  QPushButton& alwaysButton() { return *always_; }
  QPushButton& keepButton() { return *keep_; }
  QPushButton& openButton() { return *open_; }
  QLabel& stateLabel() { return *state_; }
  QLabel& elapsedLabel() { return *elapsed_; }
  QLabel& proposalLabel() { return *proposal_; }
  QLabel& warningLabel() { return *warning_; }
  QProgressBar& micLevel() { return *micLevel_; }
  QProgressBar& systemLevel() { return *systemLevel_; }
  QTreeWidget& jobList() { return *jobs_; }
  // A meeting is being recorded by the controller shown.
  bool isRecording() const { return recording_; }

 Q_SIGNALS:
  // Something to answer or see (a proposal, a recording that started): show the panel.
  void attentionNeeded();
  // A recording started or ended (also when the controller shown changes).
  void recordingChanged(bool recording);

 private:
  void onEvent(const desktop::MeetingControllerEvent& event);
  void toggleRecording();
  void tick();
  void refreshButtons();
  void setRecording(bool recording);

  std::filesystem::path root_;
  desktop::MeetingController* controller_ = nullptr;
  base::Signal<desktop::MeetingControllerEvent>::Connection connection_{};
  bool connected_ = false;
  bool recording_ = false;
  QElapsedTimer recordingFor_;
  QTimer* ticker_;
  QPushButton* record_;
  QLabel* state_;
  QLabel* elapsed_;
  QProgressBar* micLevel_;
  QProgressBar* systemLevel_;
  QWidget* proposalRow_;
  QLabel* proposal_;
  QPushButton* accept_;
  QPushButton* dismiss_;
  QPushButton* always_;
  QPushButton* keep_;
  QLabel* warning_;
  QTreeWidget* jobs_;
  QPushButton* open_;
};

}  // namespace tamsel::desktopui
