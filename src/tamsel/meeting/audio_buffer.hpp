#pragma once
// PCM buffers as the capture path moves them: a format, a frame count and the bytes. A capture
// callback copies the platform's buffer (the platform reuses it) into storage taken from a
// preallocated pool when one fits, so the real-time path does not reach the heap.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace tamsel::meeting {

enum class SampleType : std::uint8_t { float32, int16 };

struct AudioFormat {
  double sampleRate = 48000;
  std::uint32_t channels = 1;
  SampleType sampleType = SampleType::float32;
  bool interleaved = true;

  std::uint32_t bytesPerSample() const { return sampleType == SampleType::float32 ? 4 : 2; }
  // Bytes of one frame in one plane: every channel when interleaved, one otherwise.
  std::uint32_t bytesPerFrame() const {
    return interleaved ? bytesPerSample() * channels : bytesPerSample();
  }
  std::uint32_t planes() const { return interleaved ? 1 : (channels < 1 ? 1 : channels); }
  bool operator==(const AudioFormat&) const = default;
};

// The writer's format: mono 32-bit float at 48 kHz.
inline constexpr AudioFormat kTrackOutputFormat{48000, 1, SampleType::float32, false};

// Fixed-size blocks handed out and returned without locks: a slot is claimed by flipping its
// flag, so the capture thread and the writer thread never wait on each other.
class AudioBufferPool {
 public:
  AudioBufferPool(std::size_t slotBytes, std::size_t slotCount);
  AudioBufferPool(const AudioBufferPool&) = delete;
  AudioBufferPool& operator=(const AudioBufferPool&) = delete;

  // A free slot of at least `bytes`, or -1 when the request is too large or every slot is taken.
  std::int64_t acquire(std::size_t bytes) noexcept;
  void release(std::int64_t slot) noexcept;
  std::byte* slotData(std::int64_t slot) noexcept {
    return storage_.get() + static_cast<std::size_t>(slot) * slotBytes_;
  }
  std::size_t slotBytes() const { return slotBytes_; }
  std::size_t inUse() const noexcept;

 private:
  std::size_t slotBytes_, slotCount_;
  std::unique_ptr<std::byte[]> storage_;
  std::unique_ptr<std::atomic<bool>[]> taken_;
  std::atomic<std::size_t> hint_{0};
};

// A platform's buffer as a callback sees it: the planes' bytes one after the other.
struct AudioBufferView {
  AudioFormat format;
  const void* data = nullptr;
  std::int64_t frameLength = 0;
};

// An owned copy. Movable only; returns its pool slot when destroyed. The pool must outlive it.
class AudioBuffer {
 public:
  AudioBuffer() = default;
  AudioBuffer(AudioFormat format, std::int64_t frameLength);  // zeroed, from the heap
  static AudioBuffer copyOf(const AudioBufferView& view, AudioBufferPool* pool);
  AudioBuffer(AudioBuffer&& other) noexcept { *this = std::move(other); }
  AudioBuffer& operator=(AudioBuffer&& other) noexcept;
  ~AudioBuffer() { reset(); }

  const AudioFormat& format() const { return format_; }
  std::int64_t frameLength() const { return frameLength_; }
  std::size_t byteSize() const { return bytes_; }
  std::byte* data() { return data_; }
  const std::byte* data() const { return data_; }
  // The samples of one plane as floats, or null when the format is not float.
  const float* floatPlane(std::uint32_t plane) const;
  bool fromPool() const { return slot_ >= 0; }

 private:
  void reset() noexcept;
  AudioFormat format_;
  std::int64_t frameLength_ = 0;
  std::size_t bytes_ = 0;
  std::byte* data_ = nullptr;
  std::unique_ptr<std::byte[]> heap_;
  AudioBufferPool* pool_ = nullptr;
  std::int64_t slot_ = -1;
};

// Root mean square over every sample of every channel; nothing when the buffer has no float
// data, frames or channels.
struct BufferLevel {
  bool hasLevel = false;
  double rms = 0;
  bool digitallySilent = false;  // float data, every sample exactly 0.0 (NaN counts as signal)
};
BufferLevel measure(const AudioFormat& format, const void* data, std::int64_t frameLength);

}  // namespace tamsel::meeting
