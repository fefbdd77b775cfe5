#pragma once
// What a platform callback holds instead of the recorder: a weak reference, so a callback that
// fires after the recorder went does nothing. Locking the weak reference is an atomic count
// change, no lock and no allocation.
#include <memory>

#include "tamsel/meeting/track_recorder.hpp"

namespace tamsel::meeting {

class CaptureCallbackRouter {
 public:
  explicit CaptureCallbackRouter(std::weak_ptr<TrackRecorder> recordingSink)
      : recordingSink_(std::move(recordingSink)) {}

  // False when the recorder is gone.
  bool deliver(const AudioBufferView& buffer, const PlatformTimestamp& timestamp) const noexcept {
    if (auto sink = recordingSink_.lock()) {
      sink->accept(buffer, timestamp);
      return true;
    }
    return false;
  }

 private:
  std::weak_ptr<TrackRecorder> recordingSink_;
};

}  // namespace tamsel::meeting
