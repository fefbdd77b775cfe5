#pragma once
// Processes whose playback must stay out of the system track (the desktop's own helpers, such as
// a voice-call companion), followed as they come and go. Each snapshot of the audio processes
// turns the excluded process ids into the server's objects for them; when that set changes the
// applier is asked to apply it, and an applier that cannot ends the system track through
// `onFailure` (systemExclusion) rather than letting excluded audio into the recording.
//
// The desktop's own streams are never in a snapshot (the observer leaves them out), so its own
// process id stays unresolved: the pulse protocol cannot take one client out of a monitor, which
// the system track's result says (SystemAudioTapSource::exclusionNote).
//
// Threads: snapshots arrive on the observer's thread; state is guarded by one lock.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/audio_process_observer.hpp"

namespace tamsel::meeting {

struct TapExclusion {
  // The objects of the snapshot's processes whose id is excluded, sorted, each once; excluded ids
  // with no process in the snapshot go to `unresolved`.
  static std::vector<std::uint32_t> objectIDs(const std::vector<std::int32_t>& pids,
                                              const AudioProcessSnapshot& snapshot,
                                              std::vector<std::int32_t>* unresolved);
};

class TapExclusionMonitor {
 public:
  using PIDSource = std::function<std::vector<std::int32_t>()>;
  using Translate = std::function<std::vector<std::uint32_t>(
      const std::vector<std::int32_t>&, const AudioProcessSnapshot&, std::vector<std::int32_t>*)>;
  // Applies the set of objects to leave out; throws when it cannot.
  using Applier = std::function<void(const std::vector<std::uint32_t>& objectIDs)>;

  struct State {
    bool active = false;
    std::vector<std::uint32_t> lastObjectIDs;
    std::vector<std::int32_t> unresolvedPIDs;
  };

  // The pulse server's applier: nothing to leave out is fine; anything else cannot be done.
  static Applier pulseApplier();

  TapExclusionMonitor(std::int32_t selfPID, PIDSource source, AudioProcessObserver& observer,
                      Applier applier, std::function<void(const std::string&)> onFailure,
                      Translate translate = &TapExclusion::objectIDs);
  ~TapExclusionMonitor();

  void start();
  void stop();
  State state() const;

 private:
  void apply(const AudioProcessSnapshot& snapshot);

  const std::int32_t selfPID_;
  PIDSource source_;
  AudioProcessObserver& processObserver_;
  Translate translate_;
  Applier applier_;
  std::function<void(const std::string&)> onFailure_;
  mutable base::Mutex lock_;
  State state_ GUARDED_BY(lock_);
  AudioProcessObserver::Subscription processTask_;
};

}  // namespace tamsel::meeting
