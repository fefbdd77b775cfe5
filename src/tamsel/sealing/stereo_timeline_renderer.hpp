#pragma once
// Lays a meeting's two mono tracks on one 48 kHz stereo timeline, microphone left and system
// audio right, block by block: each track's gaps become silence of their length at their place,
// the track that started later begins later by the offset between the tracks' first host times,
// and a track whose sample clock drifted against the host clock is resampled (libsoxr) to the
// length the host clock says it lasted. The result is a stereo float CAF; while it is written it
// carries a working name and readers can follow it as it grows.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "tamsel/sealing/m4a_audio_encoder.hpp"
#include "tamsel/sealing/sealing_types.hpp"

namespace tamsel::sealing {

// Where one track lands on the stereo timeline.
struct TrackPlacement {
  bool present = false;
  std::int64_t startFrame = 0;    // the timeline frame of the track's first frame
  std::int64_t sourceFrames = 0;  // the track's own length: frames in its file plus its gaps
  std::int64_t outputFrames = 0;  // its length on the timeline, after drift correction
  double ppm = 0;
  bool resample = false;
  std::int64_t endFrame() const { return startFrame + outputFrames; }
};

struct RenderPlan {
  TrackPlacement mic, system;
  std::int64_t totalFrames = 0;
  DriftInfo drift;

  // Decides placements from the tracks' clocks and how many frames each file holds. Pure.
  static RenderPlan make(const MeetingSealingInput& input, std::int64_t micFileFrames,
                         std::optional<std::int64_t> systemFileFrames);
};

// Looks at the rendered audio for anything but digital zeros.
class DigitalAudioSignalAnalyzer {
 public:
  void observe(const float* interleavedStereo, std::int64_t frames);
  bool hasSignal() const { return left_ || right_; }
  bool leftHasSignal() const { return left_; }
  bool rightHasSignal() const { return right_; }

 private:
  bool left_ = false, right_ = false;
};

// The rendered file as it grows: the renderer publishes how many frames are on disk, and
// encoders read frames by position, waiting for those not yet rendered. Thread-safe.
class RenderedStereoFile final : public StereoFrameSource {
 public:
  // `path` is where the renderer writes it.
  RenderedStereoFile(std::filesystem::path path, std::int64_t totalFrames);
  ~RenderedStereoFile() override;

  std::int64_t totalFrames() const override { return totalFrames_; }
  void read(std::int64_t start, std::int64_t count, float* out) override;

  // Renderer side: the file exists and its samples start at `dataOffset`; then how many frames
  // are written.
  void opened(std::int64_t dataOffset);
  void published(std::int64_t frames);
  // Renames the file (from the path it was created with); throws filesystem_error.
  void moveTo(const std::filesystem::path& path);
  // Wakes every reader with this error (the render failed or was cancelled).
  void failed(std::exception_ptr error);

 private:
  const std::int64_t totalFrames_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::filesystem::path path_;
  int fd_ = -1;
  std::int64_t dataOffset_ = 0;
  std::int64_t published_ = 0;
  std::exception_ptr error_;
};

class StereoTimelineRenderer {
 public:
  // Throws StereoTimelineRendererException(invalidBlockSize) for a block size of 0 or less.
  explicit StereoTimelineRenderer(std::int64_t blockSize = 32768);

  std::int64_t blockSize() const { return blockSize_; }
  // After each block: frames rendered so far and the timeline's length.
  std::function<void(std::int64_t rendered, std::int64_t total)> readObserver;
  // Each rendered block, interleaved stereo, before it is written.
  std::function<void(const float* interleaved, std::int64_t frames)> blockObserver;

  // Opens the raw tracks to check them (mono, 48 kHz, usable, the right source) and plans the
  // timeline. Throws StereoTimelineRendererException.
  RenderPlan plan(const MeetingSealingInput& input) const;

  // Writes the timeline into `workingPath` (created new, 0600) and renames it to `finalPath`
  // when complete. `file`, when given, is told of each block on disk. Throws
  // StereoTimelineRendererException, or std::runtime_error("cancelled") once `cancel` is set;
  // a partial working file is left for the caller to remove.
  void render(const MeetingSealingInput& input, const RenderPlan& plan,
              const std::filesystem::path& workingPath, const std::filesystem::path& finalPath,
              RenderedStereoFile* file = nullptr, const std::atomic<bool>* cancel = nullptr) const;

 private:
  std::int64_t blockSize_;
};

}  // namespace tamsel::sealing
