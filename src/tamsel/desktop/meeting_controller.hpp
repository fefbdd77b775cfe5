#pragma once
// The meeting controller: wires meeting-application detection, call activity, the lifecycle
// reducer, the recording and the job store, and tells its front end every step.
//
// How a recording comes about:
// - A snapshot that identifies exactly one meeting application running input *proposes* a
//   recording. The user accepts or declines; with the auto-record preference on, it starts at
//   once. A declined application is not proposed again until it stops using the microphone.
// - Ambiguous detections (two meeting applications, or two processes of one) propose nothing.
// - Call activity (the default microphone in use by someone other than us) is reported to the
//   front end, so a person in a browser meeting sees that the microphone is taken and can start a
//   recording by hand; it never starts or stops a recording by itself, since a browser, a voice
//   recorder and a dictation tool look the same from here.
// - A detected meeting's recording stops `graceSeconds` after its application stopped using
//   audio altogether, unless it comes back or the user keeps recording (which makes the
//   recording manual). The user can stop at any time; the machine going to sleep stops it too.
//
// Every recording is a job: its record is written when the recording starts (so a crash leaves
// it behind), moves to `sealing` once capture has let go of the devices, and is handed to the
// sealer. Without a sealer the job stays in `sealing` for the next launch to pick up.
//
// Threads: the controller lives on the main executor; its methods are called there, and its
// events are emitted there. Detection and call activity arrive on their own threads and are
// posted over; stopping and sealing run on a worker thread.
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/signal.hpp"
#include "tamsel/meeting/audio_process_observer.hpp"
#include "tamsel/meeting/call_activity_monitor.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/meeting/meeting_lifecycle.hpp"
#include "tamsel/meeting/meeting_recorder.hpp"

namespace tamsel::platform {
class SleepMonitor;
}

namespace tamsel::desktop {

struct MeetingControllerEvent {
  enum class Kind {
    detection,  // the detection changed (text: what is detected now; `identity` when one)
    proposal,   // a recording is proposed for `identity`
    proposalWithdrawn,
    started,       // recording into `folder`
    graceStarted,  // the application is gone; stops at `deadline` unless it comes back
    graceCancelled,
    stopping,       // text: the reason
    stopped,        // capture has let go; `job` holds the record
    jobState,       // the job's record changed (`job`)
    callActivity,   // text: callStarted / callEnded
    routeActivity,  // text: switching / continued / degraded and the routes
    warning,
    error,
  };
  MeetingControllerEvent(Kind k, std::string t) : kind(k), text(std::move(t)) {}
  Kind kind;
  std::string text;
  std::optional<meeting::MeetingApplicationIdentity> identity;
  bool ambiguous = false;  // a detection: more than one meeting application, none chosen
  std::optional<std::filesystem::path> folder;
  std::optional<meeting::MeetingJobRecord> job;
  std::optional<base::Timestamp> deadline;
};
std::string_view toString(MeetingControllerEvent::Kind kind);

class MeetingController {
 public:
  // A detected application that is gone this long ends its recording. Long enough to ride out a
  // client that reconnects its audio (a device switch, a network blip, a "rejoin"), short enough
  // that a finished meeting is not followed by minutes of silence.
  static constexpr double defaultGraceSeconds = 15.0;

  // Starts capture into a folder; the controller fills in the options' warning and route
  // handlers. Throws when capture cannot start.
  using RecordingFactory = std::function<std::unique_ptr<meeting::MeetingRecording>(
      const std::filesystem::path& folder, meeting::MeetingRecordingOptions options)>;

  struct Configuration {
    std::filesystem::path meetingsRoot;
    double graceSeconds = defaultGraceSeconds;
    bool autoStart = false;  // the auto-record preference
    // Sources, the system-audio switch and the sealer (nothing by default: the job stays in
    // `sealing` for the next launch).
    meeting::MeetingRecordingOptions recordingOptions;
    RecordingFactory recordingFactory = meeting::startMeetingRecording;
    std::function<base::Timestamp()> clock = base::nowTimestamp;
  };

  // `observer`, `callMonitor` and `sleepMonitor` may be null (tests, or no audio server).
  MeetingController(base::MainExecutor& executor, Configuration configuration,
                    meeting::AudioProcessObserver* observer,
                    meeting::CallActivityMonitor* callMonitor,
                    platform::SleepMonitor* sleepMonitor);
  ~MeetingController();
  MeetingController(const MeetingController&) = delete;
  MeetingController& operator=(const MeetingController&) = delete;

  // Starts listening for detections.
  void start();

  // The user's answers.
  void accept();   // the pending proposal
  void decline();  // the pending proposal
  // Detected meetings start recording without a proposal from now on (the auto-record
  // preference, changed while running); the caller keeps the preference itself.
  void setAutoStart(bool on);
  void startManual();
  void keepRecording();
  void stop();

  // Fed by the observer and the call monitor (posted to the main executor); public so tests and
  // front ends without those can feed them.
  void applySnapshot(const meeting::AudioProcessSnapshot& snapshot);
  void applyCallEvent(meeting::CallActivityReducer::Event event);
  // The machine is about to sleep: stops the recording and returns once capture has let go (or
  // after `limit`). Called from any thread but the main one.
  // logind waits at most InhibitDelayMaxSec (5 s by default) for the delay lock.
  void stopBeforeSleep(std::chrono::milliseconds limit = std::chrono::milliseconds(4000));

  const meeting::MeetingLifecyclePhase& phase() const;
  bool recording() const;
  std::optional<meeting::MeetingApplicationIdentity> proposal() const;
  std::optional<std::filesystem::path> recordingFolder() const;
  std::optional<meeting::CaptureHealth> health(meeting::TrackSource source) const;
  // Waits for background stops and seals to finish (tests, shutdown).
  void drain();

  base::Signal<MeetingControllerEvent>& events();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::desktop
