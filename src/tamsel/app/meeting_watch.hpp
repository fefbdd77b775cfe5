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
std::function<void(const std::filesystem::path&)> meetingSealer(
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
