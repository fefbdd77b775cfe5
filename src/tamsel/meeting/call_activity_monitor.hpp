#pragma once
// Whether the default input device is in use by anyone but us, fed through CallActivityReducer
// so that the desktop's own recording is never reported as a call. Follows a change of the
// default source: the backend always judges the device that is the default now.
//
// Threads: `onEvent` runs on the backend's thread. setSelfRecording may be called from any thread.
#include <functional>
#include <memory>

#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/audio_streams.hpp"
#include "tamsel/meeting/meeting_lifecycle.hpp"

namespace tamsel::meeting {

class InputActivityBackend {
 public:
  // Called with whether the default input is in use by someone else now, on every change.
  using Handler = std::function<void(bool inputRunning)>;
  virtual ~InputActivityBackend() = default;
  virtual void start(Handler onChange) = 0;
  virtual void stop() = 0;  // waits until no handler call runs
};

std::unique_ptr<InputActivityBackend> makePulseInputActivityBackend(AudioSelf self);

class CallActivityMonitor {
 public:
  using EventHandler = std::function<void(CallActivityReducer::Event)>;

  CallActivityMonitor(std::unique_ptr<InputActivityBackend> backend, EventHandler onEvent);
  ~CallActivityMonitor();

  void start();
  void stop();
  void setSelfRecording(bool recording);
  bool callActive() const;

 private:
  void inputRunningChanged(bool running);

  std::unique_ptr<InputActivityBackend> backend_;
  EventHandler onEvent_;
  mutable base::Mutex lock_;
  CallActivityReducer reducer_ GUARDED_BY(lock_);
  bool started_ = false;
};

}  // namespace tamsel::meeting
