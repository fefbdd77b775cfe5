#include "tamsel/desktop/meeting_controller.hpp"

#include <unistd.h>

#include <boost/asio/steady_timer.hpp>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tamsel/base/log.hpp"
#include "tamsel/base/mutex.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/meeting/tap_exclusion.hpp"
#include "tamsel/platform/sleep_monitor.hpp"

namespace tamsel::desktop {

using namespace tamsel::meeting;
namespace fs = std::filesystem;
using Kind = MeetingControllerEvent::Kind;

std::string_view toString(MeetingControllerEvent::Kind kind) {
  switch (kind) {
    case Kind::detection:
      return "detection";
    case Kind::proposal:
      return "proposal";
    case Kind::proposalWithdrawn:
      return "proposal withdrawn";
    case Kind::started:
      return "started";
    case Kind::graceStarted:
      return "grace";
    case Kind::graceCancelled:
      return "grace cancelled";
    case Kind::stopping:
      return "stopping";
    case Kind::stopped:
      return "stopped";
    case Kind::jobState:
      return "job";
    case Kind::callActivity:
      return "call activity";
    case Kind::routeActivity:
      return "route";
    case Kind::warning:
      return "warning";
    case Kind::error:
      return "error";
  }
  return "event";
}

namespace {

const MeetingStartOrigin* originOf(const MeetingLifecyclePhase& phase) {
  if (const auto* r = std::get_if<MeetingLifecyclePhase::Recording>(&phase.value))
    return &r->origin;
  if (const auto* g = std::get_if<MeetingLifecyclePhase::EndingGrace>(&phase.value))
    return &g->origin;
  return nullptr;
}

bool runningInput(const MeetingApplicationIdentity& identity, const AudioProcessSnapshot& s) {
  for (const auto& p : s.states)
    if (p.pid == identity.pid && p.isRunningInput && p.bundleID == identity.bundleID) return true;
  return false;
}

std::string familyName(MeetingApplicationFamily family) {
  switch (family) {
    case MeetingApplicationFamily::tencentMeeting:
      return "Tencent Meeting";
    case MeetingApplicationFamily::zoom:
      return "Zoom";
    case MeetingApplicationFamily::microsoftTeams:
      return "Microsoft Teams";
  }
  return "A meeting application";
}

}  // namespace

struct MeetingController::Impl : std::enable_shared_from_this<Impl> {
  Impl(base::MainExecutor& e, Configuration c, AudioProcessObserver* o, CallActivityMonitor* m,
       platform::SleepMonitor* s)
      : executor(e),
        config(std::move(c)),
        observer(o),
        callMonitor(m),
        sleepMonitor(s),
        reducer(config.graceSeconds),
        store(config.meetingsRoot),
        graceTimer(e.ioExecutor()) {}

  base::MainExecutor& executor;
  Configuration config;
  AudioProcessObserver* observer;
  CallActivityMonitor* callMonitor;
  platform::SleepMonitor* sleepMonitor;
  MeetingLifecycleReducer reducer;
  MeetingJobStore store;
  boost::asio::steady_timer graceTimer;
  base::Signal<MeetingControllerEvent> events;
  AudioProcessObserver::Subscription subscription;
  bool closed = false;

  std::optional<AudioProcessSnapshot> latest;
  std::optional<MeetingApplicationDetection> lastDetection;
  std::optional<MeetingApplicationIdentity> proposal;
  std::set<MeetingApplicationIdentity> declined;

  // The recording in progress (main thread).
  std::shared_ptr<MeetingRecording> current;
  std::optional<MeetingStartOrigin> currentOrigin;
  std::optional<fs::path> currentFolder;
  std::optional<MeetingJobRecord> currentJob;
  std::shared_ptr<MeetingFolderLock> currentLock;
  std::unique_ptr<TapExclusionMonitor> exclusion;
  std::vector<std::promise<void>> sleepWaiters;

  base::Mutex workersLock;
  std::vector<std::thread> workers GUARDED_BY(workersLock);

  base::Timestamp now() const { return config.clock(); }

  void emit(MeetingControllerEvent event) {
    if (!closed) events.emit(event);
  }
  void emit(Kind kind, std::string text) { emit(MeetingControllerEvent{kind, std::move(text)}); }

  template <class F>
  void post(F work) {
    executor.post([weak = weak_from_this(), work = std::move(work)]() mutable {
      if (auto self = weak.lock(); self && !self->closed) work(*self);
    });
  }

  void applySnapshot(const AudioProcessSnapshot& snapshot) {
    latest = snapshot;
    const auto detection = MeetingApplicationDetector::detect(snapshot);
    if (!lastDetection || *lastDetection != detection) {
      lastDetection = detection;
      MeetingControllerEvent event{Kind::detection, describe(detection)};
      if (const auto* identity = detection.identity()) event.identity = *identity;
      event.ambiguous = detection.isAmbiguous();
      emit(std::move(event));
    }
    std::erase_if(declined, [&](const auto& id) { return !runningInput(id, snapshot); });

    if (std::holds_alternative<MeetingLifecyclePhase::Idle>(reducer.phase().value)) {
      const auto* identity = detection.identity();
      if (identity && !declined.count(*identity) && proposal != *identity) {
        if (config.autoStart) {
          proposal.reset();
          begin(MeetingStartOrigin::detected(*identity));
          return;
        }
        proposal = *identity;
        MeetingControllerEvent e{
            Kind::proposal,
            familyName(identity->family) + " is using the microphone: record this meeting?"};
        e.identity = *identity;
        emit(std::move(e));
      } else if (proposal && !identity &&
                 !MeetingApplicationDetector::isRunning(proposal->family, snapshot)) {
        withdraw(familyName(proposal->family) + " has ended");
      }
      return;
    }
    if (const auto* origin = originOf(reducer.phase()))
      if (const auto* identity = origin->detectedIdentity())
        perform(reducer.applicationPresenceChanged(
            MeetingApplicationDetector::isRunning(identity->family, snapshot), now()));
  }

  void withdraw(std::string why) {
    MeetingControllerEvent e{Kind::proposalWithdrawn, std::move(why)};
    e.identity = proposal;
    proposal.reset();
    emit(std::move(e));
  }

  void applyCallEvent(CallActivityReducer::Event event) {
    // Reported, never acted on: see the header.
    emit(Kind::callActivity, event == CallActivityReducer::Event::callStarted
                                 ? "callStarted: the microphone is in use by another application"
                                 : "callEnded: the microphone is free again");
  }

  bool idle() const {
    return std::holds_alternative<MeetingLifecyclePhase::Idle>(reducer.phase().value);
  }

  void begin(MeetingStartOrigin origin) {
    if (!idle()) return;
    std::optional<fs::path> folder;
    std::optional<MeetingJobRecord> job;
    std::shared_ptr<MeetingFolderLock> lock;
    try {
      folder = createMeetingFolder(config.meetingsRoot, now());
      auto acquired = MeetingFolderLock::tryAcquire(*folder);
      if (acquired) lock = std::make_shared<MeetingFolderLock>(std::move(*acquired));
      job = newMeetingJob(base::newUUIDString(), now());
      store.save(*folder, *job);
      auto options = config.recordingOptions;
      options.warnings = [weak = weak_from_this()](const std::string& text) {
        if (auto self = weak.lock()) self->post([text](Impl& s) { s.emit(Kind::warning, text); });
      };
      options.routeActivities = [weak = weak_from_this()](MeetingAudioRouteActivity activity,
                                                          const MeetingAudioRouteTransition& t) {
        std::string text(toString(activity));
        if (t.microphone) text += ", microphone " + t.microphone->uid;
        if (t.systemAudio) text += ", system " + t.systemAudio->uid;
        if (auto self = weak.lock())
          self->post([text](Impl& s) { s.emit(Kind::routeActivity, text); });
      };
      current = config.recordingFactory(*folder, std::move(options));
    } catch (const std::exception& e) {
      emit(Kind::error, std::string("could not start recording: ") + e.what());
      // Not tried again for this meeting on every change of the streams: it waits until the
      // application lets go of the microphone, or the user starts by hand.
      if (const auto* identity = origin.detectedIdentity()) declined.insert(*identity);
      proposal.reset();
      if (folder && job) {
        job->state = MeetingJobState::sealingFailed;
        job->lastError = std::string("could not start recording: ") + e.what();
        try {
          store.save(*folder, *job);
        } catch (const std::exception& saveError) {
          base::log::warn("meeting", "{}", saveError.what());
        }
      }
      return;
    }
    if (observer) {
      exclusion = std::make_unique<TapExclusionMonitor>(
          static_cast<std::int32_t>(::getpid()), nullptr, *observer,
          TapExclusionMonitor::pulseApplier(), [weak = weak_from_this()](const std::string& why) {
            if (auto self = weak.lock())
              self->post([why](Impl& s) {
                if (!s.current) return;
                s.current->failTrack(TrackSource::system,
                                     {TrackRecordingFailure::SystemExclusion{why}});
                s.emit(Kind::warning, "systap: " + why + "; the system track ends here");
              });
          });
      exclusion->start();
    }
    currentOrigin = origin;
    currentFolder = folder;
    currentJob = job;
    currentLock = std::move(lock);
    proposal.reset();
    reducer.start(origin);
    if (callMonitor) callMonitor->setSelfRecording(true);
    if (sleepMonitor) sleepMonitor->setHoldsInhibitor(true);
    MeetingControllerEvent started{Kind::started, "recording into " + folder->string()};
    if (const auto* identity = origin.detectedIdentity()) started.identity = *identity;
    started.folder = folder;
    emit(std::move(started));
    MeetingControllerEvent jobEvent{Kind::jobState, std::string(toString(job->state))};
    jobEvent.folder = folder;
    jobEvent.job = job;
    emit(std::move(jobEvent));
    // The application may have gone while capture was starting.
    if (const auto* identity = origin.detectedIdentity(); identity && latest)
      perform(reducer.applicationPresenceChanged(
          MeetingApplicationDetector::isRunning(identity->family, *latest), now()));
  }

  void perform(const MeetingLifecycleReducer::Actions& actions) {
    for (const auto& action : actions) {
      if (const auto* grace = std::get_if<MeetingLifecycleAction::ScheduleGrace>(&action.value)) {
        arm(*grace);
        const auto* origin = originOf(reducer.phase());
        const auto* identity = origin ? origin->detectedIdentity() : nullptr;
        MeetingControllerEvent e{
            Kind::graceStarted,
            fmt::format("{} stopped using audio; the recording stops in {:g} s unless it comes "
                        "back or you keep recording",
                        identity ? familyName(identity->family) : "The application",
                        reducer.graceSeconds())};
        e.deadline = grace->deadline;
        emit(std::move(e));
      } else if (std::holds_alternative<MeetingLifecycleAction::CancelGrace>(action.value)) {
        graceTimer.cancel();
        emit(Kind::graceCancelled, "the recording goes on");
      } else if (const auto* stop = std::get_if<MeetingLifecycleAction::Stop>(&action.value)) {
        finish(stop->reason);
      }
    }
  }

  void arm(MeetingLifecycleAction::ScheduleGrace grace) {
    const auto remaining = grace.deadline - now();
    graceTimer.expires_after(
        std::max(std::chrono::steady_clock::duration::zero(),
                 std::chrono::duration_cast<std::chrono::steady_clock::duration>(remaining)));
    graceTimer.async_wait([weak = weak_from_this(), grace](const boost::system::error_code& ec) {
      auto self = ec ? nullptr : weak.lock();
      if (!self || self->closed) return;
      auto actions = self->reducer.graceExpired(grace.token, self->now());
      // The steady timer and the wall clock may disagree by a little: still this grace and not
      // yet due by the clock means wait out the rest.
      const auto* phase =
          std::get_if<MeetingLifecyclePhase::EndingGrace>(&self->reducer.phase().value);
      if (actions.empty() && phase && phase->token == grace.token) return self->arm(grace);
      self->perform(actions);
    });
  }

  void finish(MeetingStopReason reason) {
    if (!current) return;
    emit(Kind::stopping, std::string(toString(reason)));
    // A meeting whose recording ended while its application still runs is not proposed again
    // until the application lets go of the microphone.
    if (currentOrigin && currentOrigin->detectedIdentity())
      declined.insert(*currentOrigin->detectedIdentity());
    if (lastDetection && lastDetection->identity()) declined.insert(*lastDetection->identity());
    currentOrigin.reset();
    exclusion.reset();
    auto recording = std::move(current);
    auto folder = *currentFolder;
    auto job = *currentJob;
    auto lock = std::move(currentLock);
    currentFolder.reset();
    currentJob.reset();
    base::MutexLock guard(workersLock);
    workers.emplace_back([weak = weak_from_this(), recording, folder, job, lock, store = store,
                          clock = config.clock]() mutable {
      MeetingRecordingResult result;
      std::string failure;
      try {
        result = recording->stop();
      } catch (const std::exception& e) {
        failure = e.what();
      }
      markCaptureReleased(job, result.mic, result.system, clock());
      if (!failure.empty()) job.lastError = failure;
      try {
        store.save(folder, job);
      } catch (const std::exception& e) {
        failure = e.what();
      }
      if (auto self = weak.lock())
        self->post([job, folder, failure](Impl& s) { s.released(folder, job, failure); });
      try {
        recording->seal();
      } catch (const std::exception& e) {
        base::log::warn("meeting", "sealing {}: {}", folder.string(), e.what());
      }
      std::optional<MeetingJobRecord> after;
      try {
        after = store.load(folder);
      } catch (const std::exception& e) {
        base::log::warn("meeting", "{}", e.what());
      }
      lock.reset();  // the folder is free for a later launch's replay
      // Compared as written: the file keeps dates to the millisecond.
      if (auto self = weak.lock();
          self && after && serializeJobRecord(*after) != serializeJobRecord(job))
        self->post([after, folder](Impl& s) {
          MeetingControllerEvent e{Kind::jobState, std::string(toString(after->state))};
          e.folder = folder;
          e.job = after;
          s.emit(std::move(e));
        });
    });
  }

  void released(const fs::path& folder, const MeetingJobRecord& job, const std::string& failure) {
    reducer.reset();
    graceTimer.cancel();
    if (callMonitor) callMonitor->setSelfRecording(false);
    if (sleepMonitor) sleepMonitor->setHoldsInhibitor(false);
    if (!failure.empty()) emit(Kind::error, failure);
    MeetingControllerEvent stopped{Kind::stopped, "capture released; " + folder.string()};
    stopped.folder = folder;
    stopped.job = job;
    emit(std::move(stopped));
    MeetingControllerEvent jobEvent{Kind::jobState, std::string(toString(job.state))};
    jobEvent.folder = folder;
    jobEvent.job = job;
    emit(std::move(jobEvent));
    for (auto& waiter : sleepWaiters) waiter.set_value();
    sleepWaiters.clear();
  }

  void joinWorkers() {
    std::vector<std::thread> done;
    {
      base::MutexLock guard(workersLock);
      done = std::move(workers);
      workers.clear();
    }
    for (auto& t : done)
      if (t.joinable()) t.join();
  }
};

MeetingController::MeetingController(base::MainExecutor& executor, Configuration configuration,
                                     AudioProcessObserver* observer,
                                     CallActivityMonitor* callMonitor,
                                     platform::SleepMonitor* sleepMonitor)
    : impl_(std::make_shared<Impl>(executor, std::move(configuration), observer, callMonitor,
                                   sleepMonitor)) {}

MeetingController::~MeetingController() {
  impl_->subscription.cancel();
  // A recording in progress ends cleanly with its job recorded.
  impl_->perform(impl_->reducer.requestStop(MeetingStopReason::explicit_));
  impl_->closed = true;
  impl_->graceTimer.cancel();
  impl_->joinWorkers();
}

void MeetingController::start() {
  if (!impl_->observer) return;
  impl_->subscription = impl_->observer->subscribe(
      [weak = std::weak_ptr<Impl>(impl_)](const AudioProcessSnapshot& s) {
        if (auto self = weak.lock()) self->post([s](Impl& i) { i.applySnapshot(s); });
      });
}

void MeetingController::accept() {
  if (!impl_->proposal || !impl_->idle()) return;
  impl_->begin(MeetingStartOrigin::detected(*impl_->proposal));
}

void MeetingController::setAutoStart(bool on) { impl_->config.autoStart = on; }

void MeetingController::decline() {
  if (!impl_->proposal) return;
  impl_->declined.insert(*impl_->proposal);
  impl_->withdraw("declined");
}

void MeetingController::startManual() { impl_->begin(MeetingStartOrigin::manual()); }

void MeetingController::keepRecording() {
  if (impl_->reducer.keepRecording().empty()) return;  // [cancelGrace] when it was in grace
  impl_->graceTimer.cancel();
  impl_->currentOrigin = MeetingStartOrigin::manual();
  impl_->emit(Kind::graceCancelled, "keeping the recording going until you stop it");
}

void MeetingController::stop() {
  impl_->perform(impl_->reducer.requestStop(MeetingStopReason::explicit_));
}

void MeetingController::applySnapshot(const AudioProcessSnapshot& snapshot) {
  impl_->applySnapshot(snapshot);
}

void MeetingController::applyCallEvent(CallActivityReducer::Event event) {
  impl_->applyCallEvent(event);
}

void MeetingController::stopBeforeSleep(std::chrono::milliseconds limit) {
  auto promise = std::make_shared<std::promise<void>>();
  auto done = promise->get_future();
  impl_->post([promise](Impl& s) mutable {
    if (!s.current) return promise->set_value();
    s.sleepWaiters.push_back(std::move(*promise));
    s.perform(s.reducer.requestStop(MeetingStopReason::sleep));
  });
  if (done.wait_for(limit) != std::future_status::ready)
    base::log::warn("meeting", "the recording did not stop within {} ms of sleep", limit.count());
}

const MeetingLifecyclePhase& MeetingController::phase() const { return impl_->reducer.phase(); }

bool MeetingController::recording() const { return impl_->current != nullptr; }

std::optional<MeetingApplicationIdentity> MeetingController::proposal() const {
  return impl_->proposal;
}

std::optional<fs::path> MeetingController::recordingFolder() const { return impl_->currentFolder; }

std::optional<CaptureHealth> MeetingController::health(TrackSource source) const {
  return impl_->current ? impl_->current->health(source) : std::nullopt;
}

void MeetingController::drain() { impl_->joinWorkers(); }

base::Signal<MeetingControllerEvent>& MeetingController::events() { return impl_->events; }

}  // namespace tamsel::desktop
