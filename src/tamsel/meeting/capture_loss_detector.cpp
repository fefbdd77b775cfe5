#include "tamsel/meeting/capture_loss_detector.hpp"

#include <algorithm>
#include <cmath>

namespace tamsel::meeting {

void CaptureLossDetector::restart() {
  anchored_ = false;
  suspect_ = false;
  baseline_ = 0;
}

void CaptureLossDetector::anchor(std::uint64_t now, std::int64_t frames) {
  anchored_ = true;
  const auto span = static_cast<std::uint64_t>(static_cast<double>(frames) * 1e9 / rate_);
  anchorHost_ = now > span ? now - span : 0;
}

std::int64_t CaptureLossDetector::check(std::uint64_t now, std::int64_t position) {
  if (!anchored_ || now < anchorHost_) return 0;
  const double wall = static_cast<double>(now - anchorHost_) * rate_ / 1e9;
  const double deficit = wall - static_cast<double>(position);
  if (deficit < tuning_.thresholdSeconds * rate_) {
    if (deficit > -rate_) baseline_ += (deficit - baseline_) * 0.05;
    suspect_ = false;
    return 0;
  }
  if (!suspect_ || suspectDeficit_ - deficit > tuning_.shrinkToleranceSeconds * rate_) {
    suspect_ = true;  // (still) reading a backlog: wait until the deficit holds
    suspectHost_ = now;
    suspectDeficit_ = deficit;
    return 0;
  }
  if (now - suspectHost_ < tuning_.settleNanos) return 0;
  suspect_ = false;
  return std::max<std::int64_t>(0, std::llround(deficit - std::max(0.0, baseline_)));
}

}  // namespace tamsel::meeting
