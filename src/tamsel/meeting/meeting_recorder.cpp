#include "tamsel/meeting/meeting_recorder.hpp"

#include "tamsel/base/log.hpp"
#include "tamsel/base/overloaded.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::meeting {

std::string MeetingRecorderError::code() const {
  static const char* const names[] = {"trackFailure", "finishBeforeStopping", "alreadyStopping",
                                      "sealingAlreadyStarted", "invalidStopToken"};
  return base::caseName(value, names);
}

std::string MeetingRecorderError::description() const {
  return std::visit(
      base::Overloaded{
          [](const TrackFailure& f) {
            return fmt::format("The {} track could not record: {}",
                               f.source == TrackSource::mic ? "microphone" : "system audio",
                               f.message);
          },
          [](const FinishBeforeStopping&) {
            return std::string("The recording must be stopped before it is finished or sealed");
          },
          [](const AlreadyStopping&) { return std::string("The recording is already stopping"); },
          [](const SealingAlreadyStarted&) {
            return std::string("Sealing of this recording has already started");
          },
          [](const InvalidStopToken&) {
            return std::string("The stop token belongs to another recording");
          }},
      value);
}

bool SystemOutputRouteGuard::observe(const std::string& currentUID) {
  if (state_.didReportChange || currentUID == state_.capturedUID) return false;
  state_.didReportChange = true;
  return true;
}

std::string_view toString(MeetingAudioRouteActivity activity) {
  switch (activity) {
    case MeetingAudioRouteActivity::switching:
      return "switching";
    case MeetingAudioRouteActivity::continued:
      return "continued";
    case MeetingAudioRouteActivity::degraded:
      return "degraded";
  }
  return "degraded";
}

// ---- capture engine ----

MeetingCaptureEngine::SourceFactory MeetingCaptureEngine::pulseSources(
    std::optional<std::string> micDevice) {
  return [micDevice](TrackSource source) -> std::unique_ptr<MeetingCaptureSource> {
    if (source == TrackSource::mic) return std::make_unique<MicrophoneSource>(micDevice);
    return std::make_unique<SystemAudioTapSource>();
  };
}

MeetingCaptureEngine::MeetingCaptureEngine(SourceFactory factory, bool systemCaptureDisabled)
    : factory_(std::move(factory)), systemCaptureDisabled_(systemCaptureDisabled) {
  if (systemCaptureDisabled_)
    base::log::warn("meeting",
                    "meeting: system tap DISABLED via TamselMeetingDisableSystap (mic-only "
                    "diagnostic)");
}

MeetingCaptureEngine::~MeetingCaptureEngine() { stop(); }

bool MeetingCaptureEngine::start(std::shared_ptr<TrackRecorder> mic,
                                 std::shared_ptr<TrackRecorder> system) {
  const auto install = [this](MeetingCaptureSource& source) {
    const auto s = source.source();
    source.routeChangeHandler = [this, s](const AudioCaptureRoute& route) {
      routeChanged(s, route);
    };
    source.routeFailureHandler = [this, s](const std::string& reason) { routeFailed(s, reason); };
    source.warningHandler = [this](const std::string& text) {
      if (warnings) warnings(text);
    };
  };
  mic_ = factory_(TrackSource::mic);
  install(*mic_);
  AudioCaptureRoute micRoute;
  try {
    micRoute = mic_->start(std::move(mic));
  } catch (const std::exception& e) {
    mic_->stop();
    mic_.reset();
    throw MeetingRecorderException(
        {MeetingRecorderError::TrackFailure{TrackSource::mic, e.what()}});
  }
  std::optional<AudioCaptureRoute> systemRoute;
  bool unavailable = false;
  if (!systemCaptureDisabled_ && system) {
    system_ = factory_(TrackSource::system);
    install(*system_);
    try {
      systemRoute = system_->start(std::move(system));
    } catch (const std::exception& e) {
      base::log::warn("meeting", "meeting: system route restart failed: {}", e.what());
      if (warnings)
        warnings(std::string("systap: ") + e.what() + "; recording the microphone alone");
      system_->stop();
      system_.reset();
      unavailable = true;
    }
  }
  base::MutexLock lock(stateLock_);
  routeState_ = RouteState{};
  routeState_.active = true;
  routeState_.systemCaptureEnabled = systemRoute.has_value();
  routeState_.microphone = micRoute;
  routeState_.systemAudio = systemRoute;
  if (unavailable) routeState_.unavailableSources.insert(TrackSource::system);
  if (systemRoute) outputGuard_.emplace(systemRoute->uid);
  return systemRoute.has_value();
}

void MeetingCaptureEngine::stop() {
  // Sources stop outside the gate: a route operation in flight finishes first.
  if (mic_) mic_->stop();
  if (system_) system_->stop();
  routeGate_.run([&] {
    base::MutexLock lock(stateLock_);
    if (routeState_.active) {
      routeState_.active = false;
      routeState_.stopped = true;
    }
  });
}

MeetingCaptureEngine::RouteState MeetingCaptureEngine::routeState() const {
  base::MutexLock lock(stateLock_);
  return routeState_;
}

std::optional<CaptureHealth> MeetingCaptureEngine::health(TrackSource source) const {
  const auto& s = source == TrackSource::mic ? mic_ : system_;
  if (!s) return std::nullopt;
  return s->health();
}

MeetingAudioRouteTransition MeetingCaptureEngine::transition(std::set<TrackSource> changed) const {
  return {routeState_.microphone, routeState_.systemAudio, std::move(changed)};
}

void MeetingCaptureEngine::routeChanged(TrackSource source, const AudioCaptureRoute& route) {
  routeGate_.run([&] {
    MeetingAudioRouteTransition before, after;
    bool reportOutputChange = false;
    {
      base::MutexLock lock(stateLock_);
      if (!routeState_.active) return;
      before = transition({source});
      (source == TrackSource::mic ? routeState_.microphone : routeState_.systemAudio) = route;
      ++routeState_.transitionCount;
      after = transition({source});
      if (source == TrackSource::system && outputGuard_)
        reportOutputChange = outputGuard_->observe(route.uid);
    }
    if (reportOutputChange)
      base::log::info("systap", "system output changed to {}; the track follows it", route.uid);
    if (routeActivities) {
      routeActivities(MeetingAudioRouteActivity::switching, before);
      routeActivities(MeetingAudioRouteActivity::continued, after);
    }
  });
}

void MeetingCaptureEngine::routeFailed(TrackSource source, const std::string& reason) {
  routeGate_.run([&] {
    MeetingAudioRouteTransition now;
    {
      base::MutexLock lock(stateLock_);
      if (!routeState_.active) return;
      routeState_.unavailableSources.insert(source);
      now = transition({source});
    }
    if (source == TrackSource::mic)
      base::log::warn("meeting", "meeting: microphone route restart failed: {}", reason);
    else
      base::log::warn("meeting", "meeting: system route restart failed: {}", reason);
    if (routeActivities) routeActivities(MeetingAudioRouteActivity::degraded, now);
  });
}

// ---- recorder ----

MeetingRecorder::MeetingRecorder(std::filesystem::path folder, bool withSystem, Sealer sealer,
                                 double hostTicksPerSecond)
    : id_(base::newUUIDString()),
      folder_(std::move(folder)),
      paths_(MeetingRecordingPaths::in(folder_)),
      sealer_(std::move(sealer)) {
  const auto make = [&](TrackSource source) {
    auto recorder =
        std::make_shared<TrackRecorder>(source, paths_.rawTrack(source), hostTicksPerSecond);
    recorder->journalURL = paths_.journal(source);
    return recorder;
  };
  micRecorder_ = make(TrackSource::mic);
  if (withSystem) systemRecorder_ = make(TrackSource::system);
}

void MeetingRecorder::start(MeetingCaptureEngine& engine) {
  const bool system = engine.start(micRecorder_, systemRecorder_);
  base::MutexLock lock(lock_);
  systemStarted_ = system;
}

MeetingStopToken MeetingRecorder::stop() {
  bool withSystem = false;
  {
    base::MutexLock lock(lock_);
    if (state_ != State::capturing)
      throw MeetingRecorderException({MeetingRecorderError::AlreadyStopping{}});
    state_ = State::stopping;
    withSystem = systemStarted_;
  }
  MeetingStopToken token{id_, micRecorder_->stop(), std::nullopt};
  if (withSystem) token.system = systemRecorder_->stop();
  return token;
}

MeetingRecordingResult MeetingRecorder::finish(const MeetingStopToken& token) {
  {
    base::MutexLock lock(lock_);
    if (state_ == State::capturing)
      throw MeetingRecorderException({MeetingRecorderError::FinishBeforeStopping{}});
    if (token.id != id_) throw MeetingRecorderException({MeetingRecorderError::InvalidStopToken{}});
  }
  MeetingRecordingResult result;
  if (token.mic) result.mic = micRecorder_->finish(*token.mic);
  if (token.system && systemRecorder_) result.system = systemRecorder_->finish(*token.system);
  bool first = false;
  {
    base::MutexLock lock(lock_);
    first = !std::exchange(finished_, true);
  }
  if (first && onWritersAcked) onWritersAcked();
  return result;
}

void MeetingRecorder::seal(const MeetingStopToken& token) {
  {
    base::MutexLock lock(lock_);
    if (token.id != id_) throw MeetingRecorderException({MeetingRecorderError::InvalidStopToken{}});
    if (state_ == State::capturing)
      throw MeetingRecorderException({MeetingRecorderError::FinishBeforeStopping{}});
    if (state_ == State::sealing)
      throw MeetingRecorderException({MeetingRecorderError::SealingAlreadyStarted{}});
    state_ = State::sealing;
  }
  // The files must be closed before anyone reads them.
  finish(token);
  if (sealer_) sealer_(folder_);
}

void MeetingRecorder::failTrack(TrackSource source, TrackRecordingFailure failure) {
  {
    base::MutexLock lock(lock_);
    if (state_ != State::capturing || (source == TrackSource::system && !systemStarted_)) return;
  }
  (source == TrackSource::mic ? micRecorder_ : systemRecorder_)->fail(std::move(failure));
}

MeetingRecorder::State MeetingRecorder::state() const {
  base::MutexLock lock(lock_);
  return state_;
}

namespace {

class EngineRecording final : public MeetingRecording {
 public:
  EngineRecording(const std::filesystem::path& folder, MeetingRecordingOptions options)
      : engine_(std::move(options.sources), options.systemCaptureDisabled),
        recorder_(folder, !options.systemCaptureDisabled, std::move(options.sealer)) {
    engine_.routeActivities = std::move(options.routeActivities);
    engine_.warnings = std::move(options.warnings);
    recorder_.start(engine_);
  }
  const std::filesystem::path& folder() const override { return recorder_.folder(); }
  MeetingRecordingResult stop() override {
    engine_.stop();
    token_ = recorder_.stop();
    return recorder_.finish(*token_);
  }
  void seal() override {
    if (!token_) throw MeetingRecorderException({MeetingRecorderError::FinishBeforeStopping{}});
    recorder_.seal(*token_);
  }
  std::optional<CaptureHealth> health(TrackSource source) const override {
    return engine_.health(source);
  }
  void failTrack(TrackSource source, TrackRecordingFailure failure) override {
    recorder_.failTrack(source, std::move(failure));
  }

 private:
  MeetingCaptureEngine engine_;
  MeetingRecorder recorder_;
  std::optional<MeetingStopToken> token_;
};

}  // namespace

std::unique_ptr<MeetingRecording> startMeetingRecording(const std::filesystem::path& folder,
                                                        MeetingRecordingOptions options) {
  return std::make_unique<EngineRecording>(folder, std::move(options));
}

}  // namespace tamsel::meeting
