#pragma once
// Writes one track as a raw CAF file: mono 32-bit float at 48 kHz, through libsndfile. Buffers
// in another format go through one cached converter (down-mix to mono, resampling with libsoxr)
// that is rebuilt only when the source format changes; every buffer yields exactly its expected
// number of output frames (zeros make up what the converter still holds back), so a track never
// loses time in conversion. Used by one thread at a time (the track's writer).
#include <sndfile.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "tamsel/meeting/audio_buffer.hpp"
#include "tamsel/meeting/track_types.hpp"

namespace tamsel::meeting {

// What a recorder writes through; CAFTrackWriter is the real one, tests substitute others.
class TrackWriter {
 public:
  virtual ~TrackWriter() = default;
  // Throws CAFTrackWriterException (or std::runtime_error) on failure.
  virtual void write(const AudioBuffer& buffer) = 0;
  // Makes what was written so far readable after a crash (the header's frame count).
  virtual void sync() {}
  virtual void close() = 0;
  virtual std::int64_t framesWritten() const = 0;
};

class CAFTrackWriter final : public TrackWriter {
 public:
  // Creates (or truncates) the file with mode 0600. Throws std::runtime_error naming the path
  // when it cannot be created.
  CAFTrackWriter(std::filesystem::path fileURL, double sampleRate = 48000);
  ~CAFTrackWriter() override;

  void write(const AudioBuffer& buffer) override;
  void sync() override;
  void close() override;
  std::int64_t framesWritten() const override { return framesWritten_; }

  const std::filesystem::path& fileURL() const { return fileURL_; }
  // How many times a converter was built (one per source format change).
  int convertersBuilt() const { return convertersBuilt_; }

  // The expected output frames for `frameLength` source frames; throws conversionFailed with
  // "invalid expected frame count <value>" when negative or not finite.
  static std::int64_t expectedFrameCount(std::int64_t frameLength, double sourceRate,
                                         double outputRate);
  // Pads `frames` up to `expected` with zeros; `capacity` is the buffer's size in frames. Throws
  // conversionFailed "converted output has no float channel" for a null buffer, and "expected N
  // frames exceeds capacity M" when it does not fit.
  static void padToExpected(float* output, std::int64_t& frames, std::int64_t expected,
                            std::int64_t capacity);

 private:
  struct Converter;
  void writeFloats(const float* samples, std::int64_t frames);
  std::vector<float>& convert(const AudioBuffer& buffer, std::int64_t& frames);

  std::filesystem::path fileURL_;
  double sampleRate_;
  AudioFormat outputFormat_;
  SNDFILE* file_ = nullptr;
  Converter* converter_ = nullptr;
  std::optional<AudioFormat> converterSourceFormat_;
  std::int64_t framesWritten_ = 0;
  int convertersBuilt_ = 0;
};

}  // namespace tamsel::meeting
