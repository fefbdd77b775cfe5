#include "tamsel/meeting/call_activity_monitor.hpp"

#include "tamsel/meeting/pulse_stream_watcher.hpp"

namespace tamsel::meeting {

namespace {

class PulseInputActivityBackend final : public InputActivityBackend {
 public:
  explicit PulseInputActivityBackend(AudioSelf self) : self_(std::move(self)) {}
  void start(Handler onChange) override {
    watcher_ = std::make_unique<PulseStreamWatcher>(
        "Tamsel Desktop call activity",
        [self = self_, handler = std::move(onChange)](const AudioStreamTable& table) {
          // Repeats are fine: the reducer ignores a value equal to the last one.
          handler(defaultInputInUse(table, self));
        });
    watcher_->start();
  }
  void stop() override { watcher_.reset(); }

 private:
  AudioSelf self_;
  std::unique_ptr<PulseStreamWatcher> watcher_;
};

}  // namespace

std::unique_ptr<InputActivityBackend> makePulseInputActivityBackend(AudioSelf self) {
  return std::make_unique<PulseInputActivityBackend>(std::move(self));
}

CallActivityMonitor::CallActivityMonitor(std::unique_ptr<InputActivityBackend> backend,
                                         EventHandler onEvent)
    : backend_(std::move(backend)), onEvent_(std::move(onEvent)) {}

CallActivityMonitor::~CallActivityMonitor() { stop(); }

void CallActivityMonitor::start() {
  if (started_) return;
  started_ = true;
  backend_->start([this](bool running) { inputRunningChanged(running); });
}

void CallActivityMonitor::stop() {
  if (!started_) return;
  started_ = false;
  backend_->stop();
}

void CallActivityMonitor::setSelfRecording(bool recording) {
  base::MutexLock lock(lock_);
  reducer_.setSelfRecording(recording);
}

bool CallActivityMonitor::callActive() const {
  base::MutexLock lock(lock_);
  return reducer_.callActive();
}

void CallActivityMonitor::inputRunningChanged(bool running) {
  std::optional<CallActivityReducer::Event> event;
  {
    base::MutexLock lock(lock_);
    event = reducer_.inputRunningChanged(running);
  }
  if (event && onEvent_) onEvent_(*event);
}

}  // namespace tamsel::meeting
