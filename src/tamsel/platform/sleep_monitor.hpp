#pragma once
// The machine going to sleep, from logind's PrepareForSleep signal on the system bus (sd-bus).
// While a recording runs the monitor holds a "delay" sleep inhibitor, so logind waits (up to
// its InhibitDelayMaxSec) until the handler has stopped the recording; the lock is let go as
// soon as the handler returns, and taken again after resume if it is still wanted.
//
// Without a system bus or logind (containers, CI) start() logs once and returns false; the rest
// of the desktop goes on without a stop before sleep.
//
// Threads: the handler runs on the monitor's own thread. Other members may be called from any
// thread.
#include <functional>
#include <memory>

namespace tamsel::platform {

class SleepMonitor {
 public:
  // `goingToSleep` true before suspend, false after resume.
  using Handler = std::function<void(bool goingToSleep)>;

  explicit SleepMonitor(Handler handler);
  ~SleepMonitor();  // stops
  SleepMonitor(const SleepMonitor&) = delete;
  SleepMonitor& operator=(const SleepMonitor&) = delete;

  bool start();
  void stop();
  void setHoldsInhibitor(bool hold);
  // Whether a delay lock is held right now.
  bool holdsInhibitor() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::platform
