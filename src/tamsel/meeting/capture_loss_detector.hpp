#pragma once
// Finds audio the server dropped while the recorder was not reading (the process was stopped,
// starved or suspended): the frames the stream delivered are counted against the monotonic
// clock. PulseAudio reports no such loss on a record stream; PipeWire shows a hole only in some
// cases. After a stall the server's backlog arrives first, so a deficit counts only once it has
// stopped shrinking. Pure: fed times and counts by the capture callback, no clock of its own.
#include <cstdint>

namespace tamsel::meeting {

class CaptureLossDetector {
 public:
  struct Tuning {
    double thresholdSeconds = 0.2;            // a smaller deficit is latency and jitter
    std::uint64_t settleNanos = 250'000'000;  // how long a deficit must hold
    double shrinkToleranceSeconds = 0.01;     // "holds": shrinks by less than this
  };
  explicit CaptureLossDetector(double sampleRate) : CaptureLossDetector(sampleRate, Tuning{}) {}
  CaptureLossDetector(double sampleRate, Tuning tuning) : rate_(sampleRate), tuning_(tuning) {}

  // A new stream or device: the next fragment anchors the count again.
  void restart();
  bool anchored() const { return anchored_; }
  // The first fragment of `frames`, read at `now` (ns): its first frame was captured then.
  void anchor(std::uint64_t now, std::int64_t frames);
  // After reading everything readable at `now`: `position` is the frames received plus those
  // already counted as lost, at the end of what was read. Returns the frames to count as lost
  // now (0 almost always).
  std::int64_t check(std::uint64_t now, std::int64_t position);

 private:
  double rate_;
  Tuning tuning_;
  bool anchored_ = false;
  std::uint64_t anchorHost_ = 0;
  bool suspect_ = false;
  std::uint64_t suspectHost_ = 0;
  double suspectDeficit_ = 0;
  double baseline_ = 0;  // the usual deficit (latency), left out of a loss
};

}  // namespace tamsel::meeting
