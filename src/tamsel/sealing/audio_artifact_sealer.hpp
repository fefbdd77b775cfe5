#pragma once
// Seals one meeting folder: its raw tracks become "combined.m4a" (AAC, microphone left, system
// audio right) and "manifest.json" (clocks, gaps, channel mapping, drift correction, SHA-256).
// Rendering, encoding and hashing run as a pipeline on their own threads; the finals are
// written under temporary names and installed by rename, so a reader sees the old file or the
// new one, never half of one. The raw tracks are never touched: a failed or killed seal is
// retried by sealing again, which first removes what the killed one left behind.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <utility>

#include "tamsel/sealing/m4a_audio_encoder.hpp"
#include "tamsel/sealing/meeting_file_hasher.hpp"
#include "tamsel/sealing/sealing_types.hpp"
#include "tamsel/sealing/stereo_timeline_renderer.hpp"

namespace tamsel::sealing {

enum class SealingStage { rendering, encoding, hashing, installing, finished };
std::string_view toString(SealingStage stage);

struct SealingProgress {
  SealingStage stage = SealingStage::rendering;
  std::int64_t framesRendered = 0, framesEncoded = 0, totalFrames = 0;
  double elapsedSeconds = 0;
  // 0…1 over the whole seal; encoding is most of the work.
  double fraction() const;
  // Seconds of meeting sealed per second so far.
  double speed() const;
};

// How long each stage took (render and encode overlap), for benchmarks and logs.
struct SealingTimings {
  double plan = 0, render = 0, encode = 0, hash = 0, manifestAndInstall = 0, total = 0;
};

// Held for one seal of a folder (an flock on the folder itself): a second seal of the same
// meeting is refused instead of removing the first one's temporaries from under it.
class SealingFolderLock {
 public:
  // Nothing when another seal holds the folder. Throws AudioArtifactSealerException(missingTrack)
  // when the folder cannot be opened.
  static std::optional<SealingFolderLock> tryAcquire(const std::filesystem::path& folder);
  SealingFolderLock(SealingFolderLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  SealingFolderLock& operator=(SealingFolderLock&& other) noexcept;
  SealingFolderLock(const SealingFolderLock&) = delete;
  ~SealingFolderLock();
  // Makes the renames done in the folder durable.
  void syncFolder() const;

 private:
  explicit SealingFolderLock(int fd) : fd_(fd) {}
  int fd_ = -1;
};

class AudioArtifactSealer {
 public:
  struct Options {
    std::int64_t bitrate = 64000;
    std::int64_t renderBlockSize = 32768;
    std::size_t hashBlockSize = 1 << 20;
    M4AEncoderOptions encoder;
  };

  // Called from the sealing's threads, one call at a time: hand it on, do not block.
  using ProgressCallback = std::function<void(const SealingProgress&)>;

  AudioArtifactSealer();
  explicit AudioArtifactSealer(Options options);

  // Seals `folder`. Throws AudioArtifactSealerException (noCapturedSignal when both tracks are
  // digital silence; missingTrack, unreadableInput, sealInProgress, io),
  // StereoTimelineRendererException or M4AAudioEncoderException; every temporary is removed
  // and the raw tracks kept, whatever happens. Setting `cancel` stops it with
  // std::runtime_error("cancelled").
  // `lock`, when given, is the folder's lock the caller already holds; otherwise the seal takes it.
  MeetingSealingOutput seal(const std::filesystem::path& folder,
                            const ProgressCallback& progress = {},
                            const std::atomic<bool>* cancel = nullptr,
                            SealingTimings* timings = nullptr,
                            const SealingFolderLock* lock = nullptr) const;

  // "<base>.tmp.<UUID>.<ext>" beside `finalPath`, with a new UUID.
  static std::filesystem::path temporaryPathFor(const std::filesystem::path& finalPath);
  // Removes what a killed seal left in `folder`: temporaries of the finals (found by their
  // pattern), the rendering under its working name and the rendered timeline. Returns how many.
  static std::size_t removeLeftovers(const MeetingRecordingPaths& paths);
  // The rendered timeline's name while it is written.
  static std::filesystem::path workingRenderPath(const MeetingRecordingPaths& paths);

  const StereoTimelineRenderer& renderer() const { return renderer_; }
  const M4AAudioEncoder& encoder() const { return encoder_; }
  const MeetingFileHasher& hasher() const { return hasher_; }
  std::int64_t bitrate() const { return bitrate_; }

 private:
  StereoTimelineRenderer renderer_;
  M4AAudioEncoder encoder_;
  MeetingFileHasher hasher_;
  JSONMeetingManifestEncoder manifestEncoder_;
  std::int64_t bitrate_;
};

}  // namespace tamsel::sealing
