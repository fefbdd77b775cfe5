#include "tamsel/meeting/caf_track_writer.hpp"

#include <fcntl.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <string>

namespace tamsel::meeting {

namespace {
[[noreturn]] void conversionFailed(std::string message) {
  throw CAFTrackWriterException(
      CAFTrackWriterError{CAFTrackWriterError::Kind::conversionFailed, std::move(message)});
}

std::string formatNumber(double value) {
  if (std::isfinite(value) && value == std::floor(value) && std::abs(value) < 1e18)
    return std::to_string(static_cast<long long>(value));
  return std::to_string(value);
}
}  // namespace

struct CAFTrackWriter::Converter {
  soxr_t resampler = nullptr;  // null when only the sample layout changes
  std::vector<float> mono;     // the source down-mixed to mono float
  std::vector<float> output;
  std::deque<float> carry;  // what the resampler gave beyond a buffer's expected count
  ~Converter() {
    if (resampler) soxr_delete(resampler);
  }
};

CAFTrackWriter::CAFTrackWriter(std::filesystem::path fileURL, double sampleRate)
    : fileURL_(std::move(fileURL)),
      sampleRate_(sampleRate),
      outputFormat_{sampleRate, 1, SampleType::float32, false} {
  if (!std::isfinite(sampleRate) || sampleRate <= 0)
    throw CAFTrackWriterException(
        CAFTrackWriterError{CAFTrackWriterError::Kind::cannotCreateOutputFormat, {}});
  const int fd = ::open(fileURL_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0)
    throw std::runtime_error("cannot create " + fileURL_.string() + ": " + std::strerror(errno));
  ::fchmod(fd, 0600);  // an existing file keeps its old mode through O_CREAT
  SF_INFO info{};
  info.samplerate = static_cast<int>(std::lround(sampleRate));
  info.channels = 1;
  info.format = SF_FORMAT_CAF | SF_FORMAT_FLOAT;
  file_ = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
  if (!file_) {
    const std::string reason = sf_strerror(nullptr);
    ::close(fd);
    throw CAFTrackWriterException(
        CAFTrackWriterError{CAFTrackWriterError::Kind::cannotCreateOutputFormat, reason});
  }
  // No peak chunk: the header rewritten twice a second stays small, and a crash cannot leave a
  // stale peak that readers would scale the samples by.
  sf_command(file_, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
}

CAFTrackWriter::~CAFTrackWriter() {
  close();
  delete converter_;
}

std::int64_t CAFTrackWriter::expectedFrameCount(std::int64_t frameLength, double sourceRate,
                                                double outputRate) {
  const double expected = static_cast<double>(frameLength) * outputRate / sourceRate;
  if (!std::isfinite(expected) || expected < 0)
    conversionFailed("invalid expected frame count " + formatNumber(expected));
  return static_cast<std::int64_t>(std::llround(expected));
}

void CAFTrackWriter::padToExpected(float* output, std::int64_t& frames, std::int64_t expected,
                                   std::int64_t capacity) {
  if (frames >= expected) return;
  if (!output) conversionFailed("converted output has no float channel");
  if (expected > capacity)
    conversionFailed("expected " + std::to_string(expected) + " frames exceeds capacity " +
                     std::to_string(capacity));
  std::fill(output + frames, output + expected, 0.0f);
  frames = expected;
}

void CAFTrackWriter::write(const AudioBuffer& buffer) {
  if (!file_)
    throw CAFTrackWriterException(CAFTrackWriterError{CAFTrackWriterError::Kind::writerClosed, {}});
  if (buffer.frameLength() <= 0) return;
  const auto& f = buffer.format();
  if (f.sampleType == SampleType::float32 && f.channels == 1 && f.sampleRate == sampleRate_) {
    writeFloats(buffer.floatPlane(0), buffer.frameLength());
    return;
  }
  std::int64_t frames = 0;
  auto& out = convert(buffer, frames);
  writeFloats(out.data(), frames);
}

std::vector<float>& CAFTrackWriter::convert(const AudioBuffer& buffer, std::int64_t& frames) {
  const auto& f = buffer.format();
  if (!converterSourceFormat_ || !(*converterSourceFormat_ == f)) {
    if (!std::isfinite(f.sampleRate) || f.sampleRate <= 0 || f.channels == 0)
      throw CAFTrackWriterException(
          CAFTrackWriterError{CAFTrackWriterError::Kind::cannotCreateConverter, {}});
    auto* next = new Converter;
    if (f.sampleRate != sampleRate_) {
      soxr_error_t error = nullptr;
      const auto io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
      const auto quality = soxr_quality_spec(SOXR_HQ, 0);
      next->resampler = soxr_create(f.sampleRate, sampleRate_, 1, &error, &io, &quality, nullptr);
      if (error) {
        delete next;
        throw CAFTrackWriterException(
            CAFTrackWriterError{CAFTrackWriterError::Kind::cannotCreateConverter, error});
      }
    }
    delete converter_;
    converter_ = next;
    converterSourceFormat_ = f;
    ++convertersBuilt_;
  }
  Converter& c = *converter_;
  const std::int64_t n = buffer.frameLength();
  c.mono.assign(static_cast<std::size_t>(n), 0.0f);
  const std::uint32_t channels = f.channels;
  for (std::uint32_t ch = 0; ch < channels; ++ch) {
    for (std::int64_t i = 0; i < n; ++i) {
      const std::size_t index = f.interleaved ? static_cast<std::size_t>(i) * channels + ch
                                              : static_cast<std::size_t>(ch * n + i);
      float x;
      if (f.sampleType == SampleType::float32)
        x = reinterpret_cast<const float*>(buffer.data())[index];
      else
        x = static_cast<float>(reinterpret_cast<const std::int16_t*>(buffer.data())[index]) /
            32768.0f;
      c.mono[static_cast<std::size_t>(i)] += x / static_cast<float>(channels);
    }
  }
  const std::int64_t expected = expectedFrameCount(n, f.sampleRate, sampleRate_);
  const auto capacity = static_cast<std::int64_t>(
      std::max(1.0, std::ceil(static_cast<double>(n) * sampleRate_ / f.sampleRate + 32.0)));
  c.output.resize(static_cast<std::size_t>(capacity));
  if (!c.resampler) {
    std::copy(c.mono.begin(), c.mono.end(), c.output.begin());
    frames = n;
    return c.output;
  }
  // What the resampler gave beyond earlier buffers' counts comes first.
  std::vector<float> produced(c.carry.begin(), c.carry.end());
  c.carry.clear();
  std::vector<float> fresh(static_cast<std::size_t>(capacity));
  std::size_t done = 0;
  if (const soxr_error_t error =
          soxr_process(c.resampler, c.mono.data(), static_cast<std::size_t>(n), nullptr,
                       fresh.data(), fresh.size(), &done))
    conversionFailed(error);
  produced.insert(produced.end(), fresh.begin(), fresh.begin() + static_cast<std::ptrdiff_t>(done));
  frames = std::min<std::int64_t>(static_cast<std::int64_t>(produced.size()), expected);
  std::copy(produced.begin(), produced.begin() + frames, c.output.begin());
  c.carry.insert(c.carry.end(), produced.begin() + frames, produced.end());
  padToExpected(c.output.data(), frames, expected, capacity);
  return c.output;
}

void CAFTrackWriter::writeFloats(const float* samples, std::int64_t frames) {
  if (!samples) conversionFailed("converted output has no float channel");
  const sf_count_t written = sf_writef_float(file_, samples, frames);
  if (written != frames) conversionFailed(sf_strerror(file_));
  framesWritten_ += written;
}

void CAFTrackWriter::sync() {
  if (!file_) return;
  sf_command(file_, SFC_UPDATE_HEADER_NOW, nullptr, 0);
}

void CAFTrackWriter::close() {
  if (!file_) return;
  sf_close(file_);
  file_ = nullptr;
}

}  // namespace tamsel::meeting
