#pragma once
// One meeting's recording: MeetingCaptureEngine drives the capture sources and follows their
// routes; MeetingRecorder owns the two track recorders and the meeting folder's files until they
// are handed to sealing.
//
// Threads: MeetingRecorder's operations may be called from any thread (one lock). The engine's
// route handling runs on the sources' threads, one route operation at a time (routeGate).
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>

#include "tamsel/base/error.hpp"
#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/meeting_recording_paths.hpp"
#include "tamsel/meeting/pulse_capture.hpp"
#include "tamsel/meeting/track_recorder.hpp"

namespace tamsel::meeting {

struct MeetingRecorderError {
  static constexpr std::string_view category = "meeting_recorder";
  struct TrackFailure {
    TrackSource source;
    std::string message;
  };
  struct FinishBeforeStopping {};
  struct AlreadyStopping {};
  struct SealingAlreadyStarted {};
  struct InvalidStopToken {};
  std::variant<TrackFailure, FinishBeforeStopping, AlreadyStopping, SealingAlreadyStarted,
               InvalidStopToken>
      value;
  std::string code() const;
  std::string description() const;
};
using MeetingRecorderException = base::ErrorOf<MeetingRecorderError>;

struct MeetingStopToken {
  std::string id;  // the recording's
  std::optional<TrackStopToken> mic, system;
};

struct MeetingRecordingResult {
  std::optional<TrackRecording> mic, system;
};

// A system output device change is reported once per recording.
class SystemOutputRouteGuard {
 public:
  struct State {
    std::string capturedUID;
    bool didReportChange = false;
  };
  explicit SystemOutputRouteGuard(std::string capturedUID) : state_{std::move(capturedUID)} {}
  // True the first time the output is another device than the one captured at start.
  bool observe(const std::string& currentUID);
  const State& state() const { return state_; }

 private:
  State state_;
};

// Serialises route operations one after another, whatever thread asks.
class RouteGate {
 public:
  template <class F>
  void run(F&& operation) {
    base::MutexLock lock(mutex_);
    operation();
  }

 private:
  base::Mutex mutex_;
};

enum class MeetingAudioRouteActivity : std::uint8_t { switching, continued, degraded };
std::string_view toString(MeetingAudioRouteActivity activity);

struct MeetingAudioRouteTransition {
  std::optional<AudioCaptureRoute> microphone, systemAudio;
  std::set<TrackSource> changedSources;
};

class MeetingCaptureEngine {
 public:
  using SourceFactory = std::function<std::unique_ptr<MeetingCaptureSource>(TrackSource)>;
  using ActivityHandler =
      std::function<void(MeetingAudioRouteActivity, const MeetingAudioRouteTransition&)>;

  struct RouteState {
    bool active = false, stopped = false, systemCaptureEnabled = false;
    std::optional<AudioCaptureRoute> microphone, systemAudio;
    std::set<TrackSource> unavailableSources;
    std::int64_t transitionCount = 0;
  };

  // Pulse sources: the default microphone (or `micDevice`) and the default output's monitor.
  static SourceFactory pulseSources(std::optional<std::string> micDevice = std::nullopt);

  // `systemCaptureDisabled`: TamselMeetingDisableSystap is set (logged here, once per engine).
  MeetingCaptureEngine(SourceFactory factory, bool systemCaptureDisabled);
  ~MeetingCaptureEngine();

  // Starts the microphone into `mic` and, when enabled, the system audio into `system`. A
  // microphone that cannot start fails the start (MeetingRecorderException trackFailure); a
  // system source that cannot start leaves the meeting recording the microphone alone
  // (degraded). Returns whether the system track runs.
  bool start(std::shared_ptr<TrackRecorder> mic, std::shared_ptr<TrackRecorder> system);
  void stop();

  bool systemCaptureDisabled() const { return systemCaptureDisabled_; }
  RouteState routeState() const;
  std::optional<CaptureHealth> health(TrackSource source) const;

  // Called on a source's thread, under the route gate: each route change is `switching` then
  // `continued`; a track that cannot follow its device is `degraded`.
  ActivityHandler routeActivities;
  std::function<void(const std::string&)> warnings;

 private:
  void routeChanged(TrackSource source, const AudioCaptureRoute& route);
  void routeFailed(TrackSource source, const std::string& reason);
  MeetingAudioRouteTransition transition(std::set<TrackSource> changed) const REQUIRES(stateLock_);

  SourceFactory factory_;
  const bool systemCaptureDisabled_;
  std::unique_ptr<MeetingCaptureSource> mic_, system_;
  RouteGate routeGate_;
  mutable base::Mutex stateLock_;
  RouteState routeState_ GUARDED_BY(stateLock_);
  std::optional<SystemOutputRouteGuard> outputGuard_ GUARDED_BY(stateLock_);
};

class MeetingRecorder {
 public:
  using Sealer = std::function<void(const std::filesystem::path& meetingFolder)>;
  enum class State : std::uint8_t { capturing, stopping, sealing };

  // Track recorders for the folder's raw tracks with their journals; the system one only when
  // `withSystem`. `sealer` is what seal() hands the folder to.
  MeetingRecorder(std::filesystem::path folder, bool withSystem, Sealer sealer,
                  double hostTicksPerSecond = 1e9);

  // Starts capture through the engine. Throws MeetingRecorderException(trackFailure).
  void start(MeetingCaptureEngine& engine);
  // Stops both tracks. Throws alreadyStopping on a second call.
  MeetingStopToken stop();
  // Waits for the writers and returns the tracks. Throws finishBeforeStopping, invalidStopToken.
  MeetingRecordingResult finish(const MeetingStopToken& token);
  // Hands the folder to the sealer, once. Throws sealingAlreadyStarted, invalidStopToken,
  // finishBeforeStopping.
  void seal(const MeetingStopToken& token);
  // Ends one track with this failure (an exclusion that cannot be applied); the other goes on.
  void failTrack(TrackSource source, TrackRecordingFailure failure);

  State state() const;
  const std::string& id() const { return id_; }
  const std::filesystem::path& folder() const { return folder_; }
  const MeetingRecordingPaths& paths() const { return paths_; }
  std::shared_ptr<TrackRecorder> micSink() const { return micRecorder_; }
  std::shared_ptr<TrackRecorder> systemSink() const { return systemRecorder_; }

  // Called once both writers have drained and closed their files.
  std::function<void()> onWritersAcked;

 private:
  const std::string id_;
  const std::filesystem::path folder_;
  const MeetingRecordingPaths paths_;
  std::shared_ptr<TrackRecorder> micRecorder_, systemRecorder_;
  Sealer sealer_;
  mutable base::Mutex lock_;
  State state_ GUARDED_BY(lock_) = State::capturing;
  bool systemStarted_ GUARDED_BY(lock_) = false;
  bool finished_ GUARDED_BY(lock_) = false;
};

// One running recording as a controller holds it: the capture engine and the recorder together.
class MeetingRecording {
 public:
  virtual ~MeetingRecording() = default;
  virtual const std::filesystem::path& folder() const = 0;
  // Stops capture and waits for both writers to close their files (well under a second).
  virtual MeetingRecordingResult stop() = 0;
  // After stop: hands the folder to the sealer.
  virtual void seal() = 0;
  virtual std::optional<CaptureHealth> health(TrackSource source) const = 0;
  virtual void failTrack(TrackSource source, TrackRecordingFailure failure) = 0;
};

struct MeetingRecordingOptions {
  MeetingCaptureEngine::SourceFactory sources = MeetingCaptureEngine::pulseSources();
  bool systemCaptureDisabled = false;
  MeetingRecorder::Sealer sealer;
  MeetingCaptureEngine::ActivityHandler routeActivities;
  std::function<void(const std::string&)> warnings;
};

// Starts recording into `folder` (which exists). Throws MeetingRecorderException.
std::unique_ptr<MeetingRecording> startMeetingRecording(const std::filesystem::path& folder,
                                                        MeetingRecordingOptions options);

}  // namespace tamsel::meeting
