#include "tamsel/meeting/audio_process_observer.hpp"

#include "tamsel/base/log.hpp"
#include "tamsel/meeting/pulse_stream_watcher.hpp"

namespace tamsel::meeting {

namespace {

class PulseAudioProcessBackend final : public AudioProcessBackend {
 public:
  explicit PulseAudioProcessBackend(AudioSelf self) : self_(std::move(self)) {}
  void start(Handler onSnapshot) override {
    watcher_ = std::make_unique<PulseStreamWatcher>(
        "Tamsel Desktop meeting detection",
        [self = self_, handler = std::move(onSnapshot)](const AudioStreamTable& table) {
          // A stream the server could not describe drops its process, not the snapshot.
          for (const auto& stream : table.streams)
            if (!stream.propertiesRead)
              base::log::warn("meeting",
                              "process activity listener partial failure object={} input={} "
                              "output={}",
                              stream.client.value_or(0),
                              stream.direction == AudioStreamInfo::Direction::record ? 1 : 0,
                              stream.direction == AudioStreamInfo::Direction::playback ? 1 : 0);
          handler(buildAudioProcessSnapshot(table, self));
        });
    watcher_->start();
  }
  void stop() override { watcher_.reset(); }

 private:
  AudioSelf self_;
  std::unique_ptr<PulseStreamWatcher> watcher_;
};

}  // namespace

std::unique_ptr<AudioProcessBackend> makePulseAudioProcessBackend(AudioSelf self) {
  return std::make_unique<PulseAudioProcessBackend>(std::move(self));
}

AudioProcessObserver::Subscription& AudioProcessObserver::Subscription::operator=(
    Subscription&& other) noexcept {
  if (this != &other) {
    cancel();
    observer_ = std::exchange(other.observer_, nullptr);
    id_ = other.id_;
  }
  return *this;
}

void AudioProcessObserver::Subscription::cancel() {
  if (auto* observer = std::exchange(observer_, nullptr)) observer->unsubscribe(id_);
}

AudioProcessObserver::AudioProcessObserver(std::unique_ptr<AudioProcessBackend> backend)
    : backend_(std::move(backend)) {}

AudioProcessObserver::~AudioProcessObserver() {
  base::MutexLock backendLock(backendLock_);
  bool wasRunning = false;
  {
    base::MutexLock lock(lock_);
    wasRunning = std::exchange(state_.running, false);
    state_.continuations.clear();
  }
  if (wasRunning) backend_->stop();
}

AudioProcessObserver::Subscription AudioProcessObserver::subscribe(Subscriber subscriber) {
  auto shared = std::make_shared<Subscriber>(std::move(subscriber));
  base::MutexLock backendLock(backendLock_);
  std::optional<AudioProcessSnapshot> current;
  bool first = false;
  std::uint64_t id = 0;
  {
    base::MutexLock lock(lock_);
    id = state_.nextID++;
    state_.continuations.emplace(id, shared);
    first = !state_.running;
    state_.running = true;
    current = state_.snapshot;
  }
  if (current) (*shared)(*current);
  if (first) backend_->start([this](const AudioProcessSnapshot& s) { publish(s); });
  return Subscription(this, id);
}

void AudioProcessObserver::unsubscribe(std::uint64_t id) {
  base::MutexLock backendLock(backendLock_);
  bool last = false;
  {
    base::MutexLock lock(lock_);
    state_.continuations.erase(id);
    last = state_.running && state_.continuations.empty();
    if (last) {
      state_.running = false;
      // A later first subscriber must not be handed what was true before the listening paused.
      state_.snapshot.reset();
    }
  }
  if (last) backend_->stop();
}

void AudioProcessObserver::publish(const AudioProcessSnapshot& snapshot) {
  std::vector<std::shared_ptr<Subscriber>> subscribers;
  {
    base::MutexLock lock(lock_);
    if (!state_.running || state_.snapshot == snapshot) return;
    state_.snapshot = snapshot;
    for (const auto& [id, subscriber] : state_.continuations) subscribers.push_back(subscriber);
  }
  for (const auto& subscriber : subscribers) (*subscriber)(snapshot);
}

std::optional<AudioProcessSnapshot> AudioProcessObserver::latest() const {
  base::MutexLock lock(lock_);
  return state_.snapshot;
}

bool AudioProcessObserver::running() const {
  base::MutexLock lock(lock_);
  return state_.running;
}

}  // namespace tamsel::meeting
