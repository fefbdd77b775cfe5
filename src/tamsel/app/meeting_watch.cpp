#include "tamsel/app/meeting_watch.hpp"

#include <unistd.h>

#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/platform/child_process.hpp"
#include "tamsel/platform/sleep_monitor.hpp"

namespace tamsel::app {

namespace fs = std::filesystem;
using desktop::MeetingController;

MeetingSealerFn childProcessMeetingSealer(fs::path tamselBinary, const std::atomic<bool>* cancel) {
  return [tamselBinary = std::move(tamselBinary), cancel](const fs::path& folder) {
    try {
      const auto done = platform::runCancellable(
          tamselBinary, {"meeting", "seal", folder.string(), "--json", "--handed-over"}, cancel);
      if (done.status.signaled || done.status.code != 0) {
        // Its last line says why ("tamsel: cannot seal …"); the job record holds the state.
        auto output = std::string(base::trim(done.output));
        if (const auto last = output.rfind('\n'); last != std::string::npos)
          output = output.substr(last + 1);
        base::log::warn("meeting", "sealing {}: {} ({})", folder.string(), output,
                        done.status.describe());
      }
    } catch (const std::exception& e) {
      base::log::warn("meeting", "sealing {}: cannot run {}: {}", folder.string(),
                      tamselBinary.string(), e.what());
    }
  };
}

MeetingSealerFn DesktopServices::meetingSealer(const std::atomic<bool>* cancel) const {
  if (hooks_.meetingSealer) return hooks_.meetingSealer(cancel);
  return [](const fs::path& folder) {
    base::log::warn("meeting", "no sealer here: {} waits for the next launch", folder.string());
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
