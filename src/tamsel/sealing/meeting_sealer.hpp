#pragma once
// What a controller calls to seal a stopped meeting: the seal itself and the job record's moves
// around it (sealing, then queued with the artifact's hash, or sealingFailed / retryableFailed
// with the reason). Never throws: the result says what happened.
#include <atomic>
#include <filesystem>
#include <optional>
#include <string>

#include "tamsel/sealing/audio_artifact_sealer.hpp"

namespace tamsel::sealing {

struct MeetingSealResult {
  std::optional<MeetingSealingOutput> output;  // set when the seal succeeded
  std::string error;                           // why it did not
  bool retryable = false;                      // whether sealing again can help
  bool noCapturedSignal = false;
  SealingTimings timings;
  // The job's state after the seal ("queued", "sealingFailed", ...); nothing when the job
  // record could not be read or written (the seal itself still counts).
  std::optional<std::string> jobState;
  std::string jobWarning;
};

class MeetingSealer {
 public:
  MeetingSealer() = default;
  explicit MeetingSealer(AudioArtifactSealer::Options options) : sealer_(std::move(options)) {}

  // Seals `meetingFolder` and keeps its job record ("job.json") in step; a folder without one
  // (recorded before jobs existed) gets one. Blocks for the seal's length (seconds for an hour):
  // call it from a worker thread, never the main executor. `progress` runs on the sealing's
  // threads; `cancel` stops it (the job becomes retryableFailed).
  MeetingSealResult seal(const std::filesystem::path& meetingFolder,
                         const AudioArtifactSealer::ProgressCallback& progress = {},
                         const std::atomic<bool>* cancel = nullptr) const;

  const AudioArtifactSealer& sealer() const { return sealer_; }

 private:
  AudioArtifactSealer sealer_;
};

}  // namespace tamsel::sealing
