#include "meetings_panel.hpp"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <algorithm>

#include "tamsel/base/dates.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/meeting/meeting_recording_paths.hpp"

namespace tamsel::desktopui {

using desktop::MeetingControllerEvent;
using Kind = MeetingControllerEvent::Kind;

namespace {

constexpr int kFolderRole = Qt::UserRole + 1;
// The level bars show -60..0 dBFS: quieter than that is silence to the eye.
constexpr int kFloorDBFS = -60;

QProgressBar* levelBar(const QString& name, QWidget* parent) {
  auto* bar = new QProgressBar(parent);
  bar->setAccessibleName(name);
  bar->setRange(kFloorDBFS, 0);
  bar->setValue(kFloorDBFS);
  bar->setFormat(name + QStringLiteral(": off"));
  return bar;
}

void showLevel(QProgressBar& bar, const QString& name,
               const std::optional<meeting::CaptureHealth>& health) {
  if (!health) {
    bar.setValue(kFloorDBFS);
    bar.setFormat(name + QStringLiteral(": off"));
    return;
  }
  const double level = std::clamp(health->levelDBFS, double(kFloorDBFS), 0.0);
  bar.setValue(static_cast<int>(level));
  bar.setFormat(health->levelDBFS <= -120
                    ? name + QStringLiteral(": silent")
                    : name + QStringLiteral(": %1 dBFS").arg(health->levelDBFS, 0, 'f', 1));
}

QString elapsedText(qint64 milliseconds) {
  const auto seconds = milliseconds / 1000;
  return seconds >= 3600 ? QStringLiteral("%1:%2:%3")
                               .arg(seconds / 3600)
                               .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
                               .arg(seconds % 60, 2, 10, QLatin1Char('0'))
                         : QStringLiteral("%1:%2")
                               .arg(seconds / 60, 2, 10, QLatin1Char('0'))
                               .arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

QPushButton* button(const QString& text, const QString& name, QWidget* parent) {
  auto* b = new QPushButton(text, parent);
  b->setAccessibleName(name);
  return b;
}

}  // namespace

// A job's state as a person reads it; the record's names are for files and logs.
QString MeetingsPanel::stateText(meeting::MeetingJobState state) {
  using S = meeting::MeetingJobState;
  switch (state) {
    case S::releasingCapture:
      return tr("recording");
    case S::sealing:
      return tr("sealing…");
    case S::queued:
      return tr("sealed");
    case S::sealingFailed:
      return tr("sealing failed");
    case S::uploading:
      return tr("uploading");
    case S::transcribing:
      return tr("transcribing");
    case S::generatingNotes:
      return tr("writing notes");
    case S::waitingForApproval:
      return tr("waiting for approval");
    case S::cancelling:
      return tr("cancelling");
    case S::done:
      return tr("done");
    case S::retryableFailed:
      return tr("failed, will retry");
  }
  return {};
}

MeetingsPanel::MeetingsPanel(std::filesystem::path meetingsRoot, QWidget* parent)
    : QWidget(parent), root_(std::move(meetingsRoot)) {
  openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };
  setAccessibleName(tr("Meetings"));
  ticker_ = new QTimer(this);
  ticker_->setInterval(250);
  record_ = button(tr("&Record a meeting"), tr("Start or stop recording a meeting"), this);
  state_ = new QLabel(tr("Not recording"), this);
  state_->setAccessibleName(tr("Meeting recording state"));
  state_->setWordWrap(true);
  state_->setTextFormat(Qt::PlainText);
  elapsed_ = new QLabel(this);
  elapsed_->setAccessibleName(tr("Recording time"));
  micLevel_ = levelBar(tr("Microphone"), this);
  systemLevel_ = levelBar(tr("System audio"), this);

  proposalRow_ = new QWidget(this);
  proposal_ = new QLabel(proposalRow_);
  proposal_->setAccessibleName(tr("Meeting detected"));
  proposal_->setWordWrap(true);
  proposal_->setTextFormat(Qt::PlainText);
  accept_ = button(tr("Record it"), tr("Record the detected meeting"), proposalRow_);
  always_ = button(tr("&Always record"),
                   tr("Record this meeting and every detected meeting from now on"), proposalRow_);
  dismiss_ = button(tr("Dismiss"), tr("Do not record the detected meeting"), proposalRow_);
  auto* proposalLine = new QHBoxLayout(proposalRow_);
  proposalLine->setContentsMargins(0, 0, 0, 0);
  proposalLine->addWidget(proposal_, 1);
  proposalLine->addWidget(accept_);
  proposalLine->addWidget(always_);
  proposalLine->addWidget(dismiss_);
  proposalRow_->hide();

  keep_ =
      button(tr("&Keep recording"), tr("Keep recording after the meeting application left"), this);
  keep_->hide();
  warning_ = new QLabel(this);
  warning_->setAccessibleName(tr("Meeting warnings"));
  warning_->setWordWrap(true);
  warning_->setTextFormat(Qt::PlainText);
  warning_->hide();

  jobs_ = new QTreeWidget(this);
  jobs_->setAccessibleName(tr("Recorded meetings"));
  jobs_->setHeaderLabels({tr("Meeting"), tr("State"), tr("Recorded"), tr("Note")});
  jobs_->setRootIsDecorated(false);
  jobs_->setUniformRowHeights(true);
  jobs_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  jobs_->header()->setAccessibleName(tr("Recorded meetings columns"));
  open_ = button(tr("&Open"), tr("Open the selected meeting's recording"), this);

  auto* top = new QHBoxLayout;
  top->addWidget(record_);
  top->addWidget(elapsed_);
  top->addStretch();
  auto* column = new QVBoxLayout(this);
  column->addLayout(top);
  column->addWidget(state_);
  column->addWidget(micLevel_);
  column->addWidget(systemLevel_);
  column->addWidget(proposalRow_);
  column->addWidget(keep_);
  column->addWidget(warning_);
  column->addWidget(jobs_, 1);
  column->addWidget(open_);

  connect(record_, &QPushButton::clicked, this, &MeetingsPanel::toggleRecording);
  connect(accept_, &QPushButton::clicked, this, [this] {
    if (controller_) controller_->accept();
  });
  connect(always_, &QPushButton::clicked, this, [this] {
    if (!controller_) return;
    // The preference first: a recording that starts must not be the only thing that changed.
    if (saveAutoRecord && !saveAutoRecord(true)) return;
    controller_->setAutoStart(true);
    controller_->accept();
  });
  connect(dismiss_, &QPushButton::clicked, this, [this] {
    if (controller_) controller_->decline();
    proposalRow_->hide();
  });
  connect(keep_, &QPushButton::clicked, this, [this] {
    if (controller_) controller_->keepRecording();
  });
  connect(open_, &QPushButton::clicked, this, &MeetingsPanel::openSelected);
  connect(jobs_, &QTreeWidget::itemActivated, this, [this] { openSelected(); });
  connect(jobs_, &QTreeWidget::currentItemChanged, this, [this] { refreshButtons(); });
  connect(ticker_, &QTimer::timeout, this, &MeetingsPanel::tick);
  reloadJobs();
  refreshButtons();
}

MeetingsPanel::~MeetingsPanel() { setController(nullptr); }

void MeetingsPanel::setController(desktop::MeetingController* controller) {
  if (controller_ && connected_) controller_->events().disconnect(connection_);
  connected_ = false;
  controller_ = controller;
  if (controller_) {
    connection_ = controller_->events().connect(
        [this](const MeetingControllerEvent& event) { onEvent(event); });
    connected_ = true;
    if (controller_->recording()) {
      recordingFor_.start();
      ticker_->start();
    }
    if (const auto identity = controller_->proposal()) {
      const auto family = meeting::toString(identity->family);
      proposal_->setText(tr("%1 is in a meeting. Record it?")
                             .arg(QString::fromUtf8(family.data(), int(family.size()))));
      proposalRow_->show();
    }
  }
  setRecording(controller_ && controller_->recording());
  refreshButtons();
}

void MeetingsPanel::setRecording(bool recording) {
  if (recording == recording_) return;
  recording_ = recording;
  Q_EMIT recordingChanged(recording);
}

void MeetingsPanel::setUnavailable(const QString& reason) {
  setController(nullptr);
  state_->setText(tr("Meetings cannot be recorded: %1").arg(reason));
}

void MeetingsPanel::onEvent(const MeetingControllerEvent& event) {
  const auto text = QString::fromStdString(event.text);
  switch (event.kind) {
    case Kind::detection:
      // The event's text is for logs (an id and PID): say it in words.
      if (!controller_ || !controller_->recording()) {
        if (event.identity) {
          const auto family = meeting::toString(event.identity->family);
          state_->setText(tr("Not recording — %1 is using the microphone")
                              .arg(QString::fromUtf8(family.data(), int(family.size()))));
        } else if (event.ambiguous) {
          state_->setText(
              tr("Not recording — more than one meeting application is using the "
                 "microphone"));
        } else {
          state_->setText(tr("Not recording"));
        }
      }
      break;
    case Kind::proposal:
      proposal_->setText(text);
      proposalRow_->show();
      Q_EMIT attentionNeeded();
      break;
    case Kind::proposalWithdrawn:
      proposalRow_->hide();
      break;
    case Kind::started:
      proposalRow_->hide();
      warning_->hide();
      state_->setText(
          tr("Recording into %1")
              .arg(event.folder ? QString::fromStdString(event.folder->string()) : QString()));
      recordingFor_.start();
      ticker_->start();
      tick();
      setRecording(true);
      Q_EMIT attentionNeeded();
      break;
    case Kind::graceStarted:
      state_->setText(text);
      keep_->show();
      break;
    case Kind::graceCancelled:
      keep_->hide();
      break;
    case Kind::stopping:
      state_->setText(tr("Stopping: %1").arg(text));
      keep_->hide();
      break;
    case Kind::stopped:
      setRecording(false);
      ticker_->stop();
      keep_->hide();
      state_->setText(tr("Not recording"));
      showLevel(*micLevel_, tr("Microphone"), std::nullopt);
      showLevel(*systemLevel_, tr("System audio"), std::nullopt);
      reloadJobs();
      break;
    case Kind::jobState:
      // The recording in progress has its own line; this is news of one that ended.
      if (event.job && !(controller_ && controller_->recording()))
        state_->setText(tr("Last meeting: %1").arg(stateText(event.job->state)));
      reloadJobs();
      break;
    case Kind::callActivity:
    case Kind::routeActivity:
      break;
    case Kind::warning:
    case Kind::error:
      warning_->setText(text);
      warning_->show();
      break;
  }
  refreshButtons();
}

void MeetingsPanel::toggleRecording() {
  if (!controller_) return;
  if (controller_->recording())
    controller_->stop();
  else
    controller_->startManual();
  refreshButtons();
}

void MeetingsPanel::tick() {
  if (!controller_ || !controller_->recording()) return;
  elapsed_->setText(elapsedText(recordingFor_.elapsed()));
  showLevel(*micLevel_, tr("Microphone"), controller_->health(meeting::TrackSource::mic));
  showLevel(*systemLevel_, tr("System audio"), controller_->health(meeting::TrackSource::system));
}

void MeetingsPanel::refreshButtons() {
  const bool recording = controller_ && controller_->recording();
  record_->setEnabled(controller_ != nullptr);
  record_->setText(recording ? tr("&Stop recording") : tr("&Record a meeting"));
  elapsed_->setVisible(recording);
  open_->setEnabled(jobs_->currentItem() != nullptr);
}

void MeetingsPanel::reloadJobs() {
  const meeting::MeetingJobStore store(root_);
  std::vector<meeting::MeetingJobLoadProblem> problems;
  auto entries = store.loadAll(&problems);
  // Newest first.
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.second.createdAt > b.second.createdAt; });
  const auto selected =
      jobs_->currentItem() ? jobs_->currentItem()->data(0, kFolderRole) : QVariant();
  jobs_->clear();
  for (const auto& [folder, job] : entries) {
    auto* item = new QTreeWidgetItem(
        jobs_, {QString::fromStdString(folder.filename().string()), stateText(job.state),
                QString::fromStdString(base::formatLocalTime(job.createdAt)),
                QString::fromStdString(job.lastError.value_or(""))});
    item->setData(0, kFolderRole, QString::fromStdString(folder.string()));
    if (item->data(0, kFolderRole) == selected) jobs_->setCurrentItem(item);
  }
  for (const auto& problem : problems) {
    auto* item = new QTreeWidgetItem(
        jobs_, {QString::fromStdString(problem.meetingFolder.filename().string()), tr("unreadable"),
                QString(), QString::fromStdString(problem.message)});
    item->setData(0, kFolderRole, QString::fromStdString(problem.meetingFolder.string()));
  }
  refreshButtons();
}

void MeetingsPanel::openSelected() {
  auto* item = jobs_->currentItem();
  if (!item) return;
  const std::filesystem::path folder = item->data(0, kFolderRole).toString().toStdString();
  const auto combined = meeting::MeetingRecordingPaths::in(folder).combinedM4A;
  std::error_code ec;
  const auto target = std::filesystem::is_regular_file(combined, ec) ? combined : folder;
  openUrl(QUrl::fromLocalFile(QString::fromStdString(target.string())));
}

}  // namespace tamsel::desktopui
