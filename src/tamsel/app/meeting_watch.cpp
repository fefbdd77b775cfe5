#include "tamsel/app/meeting_watch.hpp"

#include <unistd.h>

#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/platform/sleep_monitor.hpp"
#include "tamsel/sealing/meeting_sealer.hpp"

namespace tamsel::app {

namespace fs = std::filesystem;
using desktop::MeetingController;

std::function<void(const fs::path&)> meetingSealer(const std::atomic<bool>* cancel) {
  return [cancel](const fs::path& folder) {
    const auto result = sealing::MeetingSealer().seal(folder, {}, cancel);
    if (!result.output) base::log::warn("meeting", "sealing {}: {}", folder.string(), result.error);
  };
}

MeetingWatch::MeetingWatch() = default;

MeetingWatch::~MeetingWatch() {
  controller.reset();
  sleepMonitor.reset();
  callMonitor.reset();
  observer.reset();
}

std::unique_ptr<MeetingWatch> DesktopServices::startMeetingWatch(
    bool autoStart, double graceSeconds,
    std::function<void(desktop::MeetingController&)> beforeStart) {
  using namespace tamsel::meeting;
  auto watch = std::make_unique<MeetingWatch>();
  const AudioSelf self{static_cast<std::int32_t>(::getpid()), ownAudioApplicationID};
  watch->observer = std::make_unique<AudioProcessObserver>(makePulseAudioProcessBackend(self));
  auto* main = &main_;
  watch->callMonitor = std::make_unique<CallActivityMonitor>(
      makePulseInputActivityBackend(self),
      [main, w = watch.get()](CallActivityReducer::Event event) {
        main->post([w, event] {
          if (w->controller) w->controller->applyCallEvent(event);
        });
      });
  watch->sleepMonitor =
      std::make_unique<platform::SleepMonitor>([w = watch.get()](bool goingToSleep) {
        if (goingToSleep && w->controller) w->controller->stopBeforeSleep();
      });

  MeetingController::Configuration config;
  config.meetingsRoot = meetingsFolder();
  config.graceSeconds = graceSeconds;
  config.autoStart = autoStart;
  config.recordingOptions.systemCaptureDisabled = !meetingSystemAudioEnabled();
  config.recordingOptions.sealer = meetingSealer();
  watch->controller =
      std::make_unique<MeetingController>(main_, std::move(config), watch->observer.get(),
                                          watch->callMonitor.get(), watch->sleepMonitor.get());
  // The front end listens before the first event can come.
  if (beforeStart) beforeStart(*watch->controller);
  watch->sleepMonitor->start();
  watch->callMonitor->start();
  watch->controller->start();
  return watch;
}

}  // namespace tamsel::app
