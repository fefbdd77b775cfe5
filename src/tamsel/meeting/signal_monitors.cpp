#include "tamsel/meeting/signal_monitors.hpp"

namespace tamsel::meeting {

const char* toString(MicrophoneSignalActivity activity) {
  switch (activity) {
    case MicrophoneSignalActivity::silenceDetected:
      return "silenceDetected";
    case MicrophoneSignalActivity::lowSignalDetected:
      return "lowSignalDetected";
    case MicrophoneSignalActivity::signalDetected:
      return "signalDetected";
  }
  return "";
}

std::optional<MicrophoneSignalActivity> DigitalSilenceMonitor::observe(bool digitallySilent,
                                                                       double seconds) {
  base::MutexLock lock(lock_);
  if (digitallySilent) {
    if (warningIssued_) return std::nullopt;
    silentSeconds_ += seconds;
    if (silentSeconds_ >= graceSeconds_) {
      warningIssued_ = true;
      return MicrophoneSignalActivity::silenceDetected;
    }
    return std::nullopt;
  }
  silentSeconds_ = 0;
  if (warningIssued_) {
    warningIssued_ = false;
    return MicrophoneSignalActivity::signalDetected;
  }
  return std::nullopt;
}

bool DigitalSilenceMonitor::warningIssued() const {
  base::MutexLock lock(lock_);
  return warningIssued_;
}

std::optional<MicrophoneSignalActivity> LowSignalMonitor::observe(std::optional<double> level,
                                                                  double seconds) {
  if (!level) return std::nullopt;
  base::MutexLock lock(lock_);
  if (*level >= thresholdLinear_) {
    quietSeconds_ = 0;
    if (warningIssued_) {
      warningIssued_ = false;
      return MicrophoneSignalActivity::signalDetected;
    }
    return std::nullopt;
  }
  if (warningIssued_) return std::nullopt;
  quietSeconds_ += seconds;
  if (quietSeconds_ >= graceSeconds_) {
    warningIssued_ = true;
    return MicrophoneSignalActivity::lowSignalDetected;
  }
  return std::nullopt;
}

bool LowSignalMonitor::warningIssued() const {
  base::MutexLock lock(lock_);
  return warningIssued_;
}

SignalPublication publish(std::optional<MicrophoneSignalActivity> silenceReport,
                          std::optional<MicrophoneSignalActivity> lowSignalReport,
                          bool lowSignalWarningActive) {
  SignalPublication out;
  if (silenceReport == MicrophoneSignalActivity::signalDetected && lowSignalWarningActive)
    out.first = MicrophoneSignalActivity::lowSignalDetected;
  else
    out.first = silenceReport;
  out.second = lowSignalReport;
  if (!out.first) std::swap(out.first, out.second);
  if (out.first == out.second) out.second.reset();  // one report per change
  return out;
}

}  // namespace tamsel::meeting
