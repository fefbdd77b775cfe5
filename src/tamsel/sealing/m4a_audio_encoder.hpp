#pragma once
// Encodes a stereo 48 kHz timeline as AAC-LC in an M4A file, using every core it is given: the
// timeline is cut into segments at multiples of 1024 samples and each segment is coded by its own
// encoder from a little before its start to a little after its end, keeping only the packets of
// the segment itself. Every encoder has then seen the same audio as a one-pass encoder would
// around each seam, so the decoded seams are as clean as the rest; the packets are muxed in
// order into one file whose edit list removes the encoder's priming once.
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace tamsel::sealing {

// Interleaved stereo float frames that an encoder reads by position. read() may block until the
// frames exist (a timeline still being rendered) and may be called from several threads at once.
class StereoFrameSource {
 public:
  virtual ~StereoFrameSource() = default;
  virtual std::int64_t totalFrames() const = 0;
  // Fills `out` with 2 × count floats from frame `start`. Throws on failure.
  virtual void read(std::int64_t start, std::int64_t count, float* out) = 0;
};

struct M4AEncoderOptions {
  std::int64_t bitrate = 64000;
  // FFmpeg's native coder: "fast" codes speech about 2.7x quicker than the default "twoloop"
  // and measured no worse.
  std::string coder = "fast";
  int workers = 2;
  // Rounded down to a multiple of 1024; half a minute keeps the workers evenly loaded to the end
  // at a cost of 0.6 % more audio coded.
  std::int64_t segmentFrames = 30 * 48000;
  // Audio coded before and after each segment and then dropped. 0 makes seams naive cuts.
  std::int64_t overlapFrames = 4096;
};

class M4AAudioEncoder {
 public:
  static constexpr int sampleRate = 48000;
  static constexpr int channels = 2;

  explicit M4AAudioEncoder(M4AEncoderOptions options = {});

  // Frames coded so far (all workers together), called from the workers' threads.
  using Progress = std::function<void(std::int64_t framesEncoded)>;

  // Writes `source` into `output` (created new with mode 0600, synced to disk). Stops with an
  // exception when `cancel` becomes true or the source throws (that exception is rethrown);
  // the caller removes the partial file. Throws M4AAudioEncoderException for codec and
  // container failures, std::system_error for file errors.
  void encode(StereoFrameSource& source, const std::filesystem::path& output,
              const Progress& progress = {}, const std::atomic<bool>* cancel = nullptr) const;

  const M4AEncoderOptions& options() const { return options_; }

 private:
  M4AEncoderOptions options_;
};

}  // namespace tamsel::sealing
