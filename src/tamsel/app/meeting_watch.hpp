#pragma once
// Watching for meetings, as every front end wires it: the audio-process observer, the call
// monitor and the sleep monitor feeding one MeetingController, whose stopped recordings are
// sealed on the recorder's worker. Made by DesktopServices::startMeetingWatch.
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>

#include "tamsel/desktop/meeting_controller.hpp"

namespace tamsel::platform {
class SleepMonitor;
}

namespace tamsel::app {

// What a stopped recording's folder is handed to, on a worker thread with the folder's lock held:
// sealed into combined.m4a and its manifest, the job moving on to `queued` (or a failed state
// with its reason, which a later launch's replay retries). `cancel`, when given, stops a seal
// in progress (the job becomes retryableFailed).
using MeetingSealerFn = std::function<void(const std::filesystem::path&)>;

// Seals in this process. Linking it brings in the encoder's libraries (FFmpeg and the codecs it
// loads, some 90 shared libraries): for the command line, which seals by itself anyway.
MeetingSealerFn inProcessMeetingSealer(const std::atomic<bool>* cancel = nullptr);

// Seals by running `tamsel meeting seal FOLDER` and waiting for it. The window seals this way so
// that it never loads the encoder (15 MB resident and a slower start for a feature used after
// meetings), and a fault in a codec cannot take the window down. Cancelling ends the child with
// SIGTERM, which leaves the job to be sealed again.
MeetingSealerFn childProcessMeetingSealer(std::filesystem::path tamselBinary,
                                          const std::atomic<bool>* cancel = nullptr);

// Everything watching needs, torn down controller first.
struct MeetingWatch {
  std::unique_ptr<meeting::AudioProcessObserver> observer;
  std::unique_ptr<meeting::CallActivityMonitor> callMonitor;
  std::unique_ptr<platform::SleepMonitor> sleepMonitor;
  std::unique_ptr<desktop::MeetingController> controller;

  MeetingWatch();
  ~MeetingWatch();
  MeetingWatch(const MeetingWatch&) = delete;
  MeetingWatch& operator=(const MeetingWatch&) = delete;
};

}  // namespace tamsel::app
