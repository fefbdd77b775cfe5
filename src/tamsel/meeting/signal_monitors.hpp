#pragma once
// Warnings about the microphone's signal: digital silence (a muted or dead input delivering
// exact zeros) and a signal too low to transcribe. Each monitor reports at most one warning per
// stretch and clears it when signal returns.
#include <optional>

#include "tamsel/base/mutex.hpp"

namespace tamsel::meeting {

enum class MicrophoneSignalActivity { silenceDetected, lowSignalDetected, signalDetected };
const char* toString(MicrophoneSignalActivity activity);

class DigitalSilenceMonitor {
 public:
  explicit DigitalSilenceMonitor(double graceSeconds)
      : graceSeconds_(graceSeconds < 0 ? 0 : graceSeconds) {}
  std::optional<MicrophoneSignalActivity> observe(bool digitallySilent, double seconds);
  bool warningIssued() const;

 private:
  mutable base::Mutex lock_;
  const double graceSeconds_;
  double silentSeconds_ GUARDED_BY(lock_) = 0;
  bool warningIssued_ GUARDED_BY(lock_) = false;
};

class LowSignalMonitor {
 public:
  static constexpr double kThresholdLinear = 0.0031622776601683794;  // -50 dBFS
  explicit LowSignalMonitor(double graceSeconds = 30.0)
      : graceSeconds_(graceSeconds < 0 ? 0 : graceSeconds) {}
  // `level` is the buffer's RMS; nothing changes for a buffer without one.
  std::optional<MicrophoneSignalActivity> observe(std::optional<double> level, double seconds);
  bool warningIssued() const;

 private:
  mutable base::Mutex lock_;
  const double graceSeconds_;
  const double thresholdLinear_ = kThresholdLinear;
  double quietSeconds_ GUARDED_BY(lock_) = 0;
  bool warningIssued_ GUARDED_BY(lock_) = false;
};

// What one microphone buffer publishes, in order (at most two entries). The silence monitor's
// report comes first; its signalDetected becomes lowSignalDetected while the low-signal warning
// is still active, since the user still has too little signal.
struct SignalPublication {
  std::optional<MicrophoneSignalActivity> first, second;
};
SignalPublication publish(std::optional<MicrophoneSignalActivity> silenceReport,
                          std::optional<MicrophoneSignalActivity> lowSignalReport,
                          bool lowSignalWarningActive);

}  // namespace tamsel::meeting
