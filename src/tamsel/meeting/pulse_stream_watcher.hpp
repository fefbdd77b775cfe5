#pragma once
// Keeps an AudioStreamTable of the audio server current: subscribes to the server's events and,
// after each burst of them, reads the default source, the sources, clients, record and playback
// streams again, and hands the new table to `onTable` when it differs from the last one.
//
// Threads: `onTable` runs on the watcher's own thread (never the server's main loop), one call at
// a time. When the server goes away the table empties (nothing is using audio any more) and the
// watcher reconnects every two seconds until it is back. Nothing runs while nothing changes.
#include <functional>
#include <memory>
#include <string>

#include "tamsel/meeting/audio_streams.hpp"

namespace tamsel::meeting {

class PulseStreamWatcher {
 public:
  using Handler = std::function<void(const AudioStreamTable&)>;

  PulseStreamWatcher(std::string clientName, Handler onTable);
  ~PulseStreamWatcher();  // stops
  PulseStreamWatcher(const PulseStreamWatcher&) = delete;
  PulseStreamWatcher& operator=(const PulseStreamWatcher&) = delete;

  void start();
  // Waits for the thread; `onTable` is not called after it returns. Safe to call twice.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tamsel::meeting
