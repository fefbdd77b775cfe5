#include "tamsel/meeting/audio_buffer.hpp"

#include <cmath>
#include <cstring>

namespace tamsel::meeting {

AudioBufferPool::AudioBufferPool(std::size_t slotBytes, std::size_t slotCount)
    : slotBytes_(slotBytes),
      slotCount_(slotCount),
      storage_(std::make_unique<std::byte[]>(slotBytes * slotCount)),
      taken_(std::make_unique<std::atomic<bool>[]>(slotCount)) {
  for (std::size_t i = 0; i < slotCount_; ++i) taken_[i].store(false, std::memory_order_relaxed);
}

std::int64_t AudioBufferPool::acquire(std::size_t bytes) noexcept {
  if (bytes > slotBytes_ || slotCount_ == 0) return -1;
  const std::size_t start = hint_.load(std::memory_order_relaxed);
  for (std::size_t n = 0; n < slotCount_; ++n) {
    const std::size_t i = (start + n) % slotCount_;
    bool expected = false;
    if (!taken_[i].load(std::memory_order_relaxed) &&
        taken_[i].compare_exchange_strong(expected, true, std::memory_order_acquire)) {
      hint_.store((i + 1) % slotCount_, std::memory_order_relaxed);
      return static_cast<std::int64_t>(i);
    }
  }
  return -1;
}

void AudioBufferPool::release(std::int64_t slot) noexcept {
  taken_[static_cast<std::size_t>(slot)].store(false, std::memory_order_release);
}

std::size_t AudioBufferPool::inUse() const noexcept {
  std::size_t n = 0;
  for (std::size_t i = 0; i < slotCount_; ++i) n += taken_[i].load(std::memory_order_relaxed);
  return n;
}

AudioBuffer::AudioBuffer(AudioFormat format, std::int64_t frameLength)
    : format_(format), frameLength_(frameLength < 0 ? 0 : frameLength) {
  bytes_ = static_cast<std::size_t>(frameLength_) * format_.bytesPerFrame() * format_.planes();
  heap_ = std::make_unique<std::byte[]>(bytes_ ? bytes_ : 1);
  data_ = heap_.get();
}

AudioBuffer AudioBuffer::copyOf(const AudioBufferView& view, AudioBufferPool* pool) {
  AudioBuffer out;
  out.format_ = view.format;
  out.frameLength_ = view.frameLength < 0 ? 0 : view.frameLength;
  out.bytes_ = static_cast<std::size_t>(out.frameLength_) * view.format.bytesPerFrame() *
               view.format.planes();
  if (pool) {
    out.slot_ = pool->acquire(out.bytes_);
    if (out.slot_ >= 0) {
      out.pool_ = pool;
      out.data_ = pool->slotData(out.slot_);
    }
  }
  if (!out.data_) {
    out.heap_.reset(new std::byte[out.bytes_ ? out.bytes_ : 1]);
    out.data_ = out.heap_.get();
  }
  if (out.bytes_ && view.data) std::memcpy(out.data_, view.data, out.bytes_);
  return out;
}

AudioBuffer& AudioBuffer::operator=(AudioBuffer&& other) noexcept {
  if (this == &other) return *this;
  reset();
  format_ = other.format_;
  frameLength_ = other.frameLength_;
  bytes_ = other.bytes_;
  data_ = other.data_;
  heap_ = std::move(other.heap_);
  pool_ = other.pool_;
  slot_ = other.slot_;
  other.data_ = nullptr;
  other.pool_ = nullptr;
  other.slot_ = -1;
  other.bytes_ = 0;
  other.frameLength_ = 0;
  return *this;
}

void AudioBuffer::reset() noexcept {
  if (pool_ && slot_ >= 0) pool_->release(slot_);
  pool_ = nullptr;
  slot_ = -1;
  heap_.reset();
  data_ = nullptr;
}

const float* AudioBuffer::floatPlane(std::uint32_t plane) const {
  if (format_.sampleType != SampleType::float32 || plane >= format_.planes() || !data_)
    return nullptr;
  return reinterpret_cast<const float*>(data_ + plane * static_cast<std::size_t>(frameLength_) *
                                                    format_.bytesPerFrame());
}

BufferLevel measure(const AudioFormat& format, const void* data, std::int64_t frameLength) {
  BufferLevel level;
  if (format.sampleType != SampleType::float32 || !data || frameLength <= 0 || format.channels == 0)
    return level;
  const auto* samples = static_cast<const float*>(data);
  const std::size_t count = static_cast<std::size_t>(frameLength) * format.channels;
  double sum = 0;
  bool silent = true;
  for (std::size_t i = 0; i < count; ++i) {
    const double x = samples[i];
    if (x != 0.0) silent = false;  // NaN compares unequal: it counts as signal
    sum += x * x;
  }
  level.hasLevel = true;
  level.rms = std::sqrt(sum / static_cast<double>(count));
  level.digitallySilent = silent;
  return level;
}

}  // namespace tamsel::meeting
