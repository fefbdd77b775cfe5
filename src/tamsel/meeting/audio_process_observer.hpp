#pragma once
// Which processes use audio, as a stream of snapshots to any number of subscribers. The first
// subscriber starts the backend's listening and the last one leaving stops it; the latest
// snapshot is kept and handed to each new subscriber at once. Only a snapshot that differs from
// the latest is published.
//
// Threads: subscribers are called on the backend's thread, one snapshot at a time, in order.
// A subscription must not be dropped from inside its own callback (stopping the backend waits
// for that thread).
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/audio_streams.hpp"
#include "tamsel/meeting/meeting_application.hpp"

namespace tamsel::meeting {

class AudioProcessBackend {
 public:
  using Handler = std::function<void(const AudioProcessSnapshot&)>;
  virtual ~AudioProcessBackend() = default;
  virtual void start(Handler onSnapshot) = 0;
  // Waits until no handler call runs any more.
  virtual void stop() = 0;
};

// The audio server's streams through libpulse (PulseAudio or PipeWire's pulse server).
std::unique_ptr<AudioProcessBackend> makePulseAudioProcessBackend(AudioSelf self);

class AudioProcessObserver {
 public:
  using Subscriber = std::function<void(const AudioProcessSnapshot&)>;

  class Subscription {
   public:
    Subscription() = default;
    Subscription(Subscription&& other) noexcept
        : observer_(std::exchange(other.observer_, nullptr)), id_(other.id_) {}
    Subscription& operator=(Subscription&& other) noexcept;
    ~Subscription() { cancel(); }
    void cancel();

   private:
    friend class AudioProcessObserver;
    Subscription(AudioProcessObserver* observer, std::uint64_t id) : observer_(observer), id_(id) {}
    AudioProcessObserver* observer_ = nullptr;
    std::uint64_t id_ = 0;
  };

  explicit AudioProcessObserver(std::unique_ptr<AudioProcessBackend> backend);
  ~AudioProcessObserver();  // stops the backend; outstanding subscriptions must be gone

  [[nodiscard]] Subscription subscribe(Subscriber subscriber);
  std::optional<AudioProcessSnapshot> latest() const;
  bool running() const;

 private:
  void publish(const AudioProcessSnapshot& snapshot);
  void unsubscribe(std::uint64_t id);

  std::unique_ptr<AudioProcessBackend> backend_;
  base::Mutex backendLock_;  // start and stop of the backend, one at a time
  mutable base::Mutex lock_;
  struct State {
    bool running = false;
    std::optional<AudioProcessSnapshot> snapshot;
    std::map<std::uint64_t, std::shared_ptr<Subscriber>> continuations;
    std::uint64_t nextID = 1;
  } state_ GUARDED_BY(lock_);
};

}  // namespace tamsel::meeting
