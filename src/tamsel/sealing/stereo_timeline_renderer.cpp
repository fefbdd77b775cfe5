#include "tamsel/sealing/stereo_timeline_renderer.hpp"

#include <fcntl.h>
#include <sndfile.h>
#include <soxr.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tamsel/base/log.hpp"
#include "tamsel/meeting/clock_aligner.hpp"

namespace tamsel::sealing {

namespace {

constexpr double kTimelineRate = 48000;
constexpr double kHostTicksPerSecond = 1e9;  // CLOCK_MONOTONIC nanoseconds
constexpr double kMaxDriftPPM = 50'000;

using Kind = StereoTimelineRendererError::Kind;

[[noreturn]] void fail(Kind kind, std::optional<TrackSource> track, std::string detail) {
  throw StereoTimelineRendererException(
      StereoTimelineRendererError{kind, track, std::move(detail)});
}

struct SndfileClose {
  void operator()(SNDFILE* f) const { sf_close(f); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileClose>;

// Opens a raw track and checks it is what capture writes: mono float at 48 kHz.
SndfilePtr openRawTrack(const PersistedTrackRecording& track, TrackSource source, SF_INFO& info) {
  if (!track.usable)
    fail(Kind::failedTrack, source, track.failure.empty() ? "not usable" : track.failure);
  if (track.clock.source != source) fail(Kind::unexpectedTrack, source, "");
  info = {};
  SndfilePtr file(sf_open(track.rawFilePath.c_str(), SFM_READ, &info));
  if (!file)
    fail(Kind::failedTrack, source,
         "cannot read " + track.rawFilePath.string() + ": " + sf_strerror(nullptr));
  if (info.channels != 1)
    fail(Kind::nonMonoInput, source,
         track.rawFilePath.filename().string() + " has " + std::to_string(info.channels) +
             " channels");
  if (info.samplerate != static_cast<int>(kTimelineRate))
    fail(Kind::cannotCreateFormat, source,
         track.rawFilePath.filename().string() + " is at " + std::to_string(info.samplerate) +
             " Hz; tracks are recorded at 48000 Hz");
  return file;
}

std::optional<double> trackPPM(const TrackClock& clock) {
  try {
    return meeting::ClockAligner::driftPPM(clock, kHostTicksPerSecond);
  } catch (const meeting::ClockAlignmentException&) {
    return std::nullopt;  // a clock too short to tell (or none): taken as exact
  }
}

std::int64_t gapFrames(const std::vector<Gap>& gaps) {
  std::int64_t sum = 0;
  for (const auto& g : gaps) sum += std::max<std::int64_t>(0, g.droppedFrames);
  return sum;
}

// One track's frames on the stereo timeline: silence before it starts and after it ends, its
// file's frames with silence where it has gaps, resampled when its clock drifted.
class TrackStream {
 public:
  TrackStream(const PersistedTrackRecording* track, const TrackPlacement& placement,
              TrackSource source, std::int64_t blockSize)
      : placement_(placement), source_(source), blockSize_(blockSize) {
    if (!placement.present) return;
    SF_INFO info;
    file_ = openRawTrack(*track, source, info);
    gaps_ = track->gaps;
    std::sort(gaps_.begin(), gaps_.end(),
              [](const Gap& a, const Gap& b) { return a.startSample < b.startSample; });
    inputLeft_ = placement.sourceFrames;
    if (placement.resample) {
      // Crystals drift by tens of ppm; a clock 5 % off is broken bookkeeping, and following it
      // would stretch the meeting by as much.
      if (!(std::abs(placement.ppm) < kMaxDriftPPM))
        fail(Kind::cannotCreateConverter, source,
             "a drift of " + std::to_string(placement.ppm) + " ppm is no clock drift");
      soxr_error_t error = nullptr;
      const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
      // 16-bit precision is far beyond what 64 kb/s AAC keeps, at two thirds of HQ's cost.
      const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_MQ, 0);
      // The track ran (1e6 + ppm) samples per million host-clock samples: bring it back.
      soxr_ = soxr_create(1e6 + placement.ppm, 1e6, 1, &error, &io, &quality, nullptr);
      if (!soxr_ || error)
        fail(Kind::cannotCreateConverter, source, error ? error : "soxr_create failed");
      input_.resize(static_cast<std::size_t>(blockSize));
    }
  }
  ~TrackStream() {
    if (soxr_) soxr_delete(soxr_);
  }
  TrackStream(const TrackStream&) = delete;
  TrackStream& operator=(const TrackStream&) = delete;

  std::int64_t framesRead() const { return timelinePos_; }

  // The next `n` frames of this channel, from timeline frame `at`.
  void next(std::int64_t at, float* out, std::int64_t n) {
    const std::int64_t end = at + n;
    const std::int64_t bodyFrom = std::clamp(placement_.startFrame, at, end);
    const std::int64_t bodyTo =
        placement_.present ? std::clamp(placement_.endFrame(), bodyFrom, end) : bodyFrom;
    std::fill(out, out + (bodyFrom - at), 0.0f);
    if (bodyTo > bodyFrom) produce(out + (bodyFrom - at), bodyTo - bodyFrom);
    std::fill(out + (bodyTo - at), out + n, 0.0f);
  }

 private:
  void produce(float* out, std::int64_t n) {
    if (!soxr_) {
      readTimeline(out, n);
      return;
    }
    std::int64_t have = 0;
    int idle = 0;
    while (have < n) {
      if (inputOffset_ == inputLength_ && inputLeft_ > 0) {
        inputLength_ = std::min<std::int64_t>(blockSize_, inputLeft_);
        readTimeline(input_.data(), inputLength_);
        inputLeft_ -= inputLength_;
        inputOffset_ = 0;
      }
      std::size_t used = 0, made = 0;
      soxr_error_t error;
      if (inputOffset_ < inputLength_) {
        error = soxr_process(soxr_, input_.data() + inputOffset_,
                             static_cast<std::size_t>(inputLength_ - inputOffset_), &used,
                             out + have, static_cast<std::size_t>(n - have), &made);
      } else {
        error = soxr_process(soxr_, nullptr, 0, nullptr, out + have,
                             static_cast<std::size_t>(n - have), &made);
        if (!error && made == 0) break;  // drained: the exact length is made up below
      }
      if (error) fail(Kind::conversionFailed, source_, error);
      inputOffset_ += static_cast<std::int64_t>(used);
      have += static_cast<std::int64_t>(made);
      if (used == 0 && made == 0 && ++idle > 1000)
        fail(Kind::conversionFailed, source_, "the resampler makes no progress");
    }
    std::fill(out + have, out + n, 0.0f);
  }

  // The track's own timeline: file frames, with silence over every gap and past the file's end.
  void readTimeline(float* out, std::int64_t n) {
    while (n > 0) {
      while (gapIndex_ < gaps_.size() &&
             timelinePos_ >= gaps_[gapIndex_].startSample + gaps_[gapIndex_].droppedFrames)
        ++gapIndex_;
      std::int64_t k;
      if (gapIndex_ < gaps_.size() && timelinePos_ >= gaps_[gapIndex_].startSample) {
        k = std::min(n,
                     gaps_[gapIndex_].startSample + gaps_[gapIndex_].droppedFrames - timelinePos_);
        std::fill(out, out + k, 0.0f);
      } else {
        k = n;
        if (gapIndex_ < gaps_.size()) k = std::min(k, gaps_[gapIndex_].startSample - timelinePos_);
        const sf_count_t got = fileDone_ ? 0 : sf_readf_float(file_.get(), out, k);
        if (got < k) {
          fileDone_ = true;
          std::fill(out + std::max<sf_count_t>(got, 0), out + k, 0.0f);
        }
      }
      timelinePos_ += k;
      out += k;
      n -= k;
    }
  }

  TrackPlacement placement_;
  TrackSource source_;
  std::int64_t blockSize_;
  SndfilePtr file_;
  bool fileDone_ = false;
  std::vector<Gap> gaps_;
  std::size_t gapIndex_ = 0;
  std::int64_t timelinePos_ = 0;  // on the track's own timeline
  std::int64_t inputLeft_ = 0;    // track frames not yet fed to the resampler
  soxr_t soxr_ = nullptr;
  std::vector<float> input_;
  std::int64_t inputOffset_ = 0, inputLength_ = 0;
};

}  // namespace

// ---- plan ----

RenderPlan RenderPlan::make(const MeetingSealingInput& input, std::int64_t micFileFrames,
                            std::optional<std::int64_t> systemFileFrames) {
  RenderPlan plan;
  const auto place = [](const PersistedTrackRecording& track, std::int64_t fileFrames) {
    TrackPlacement p;
    p.present = true;
    // A crash can leave more frames in the file than the journal last counted.
    p.sourceFrames = std::max(track.clock.totalFrames,
                              std::max<std::int64_t>(0, fileFrames) + gapFrames(track.gaps));
    p.outputFrames = p.sourceFrames;
    return p;
  };
  plan.mic = place(input.mic, micFileFrames);
  const auto micPPM = trackPPM(input.mic.clock);
  plan.mic.ppm = micPPM.value_or(0);
  std::optional<double> systemPPM;
  if (input.system && systemFileFrames) {
    plan.system = place(*input.system, *systemFileFrames);
    systemPPM = trackPPM(input.system->clock);
    plan.system.ppm = systemPPM.value_or(0);
    // Where the system track starts against the microphone, by the host clock.
    const auto& m = input.mic.clock;
    const auto& s = input.system->clock;
    if (m.firstHostTime > 0 && s.firstHostTime > 0) {
      const bool systemLater = s.firstHostTime >= m.firstHostTime;
      const double magnitude =
          static_cast<double>(systemLater ? s.firstHostTime - m.firstHostTime
                                          : m.firstHostTime - s.firstHostTime) /
          kHostTicksPerSecond;
      plan.drift.interTrackOffsetSeconds = systemLater ? magnitude : -magnitude;
      const auto shift = static_cast<std::int64_t>(std::llround(magnitude * kTimelineRate));
      (systemLater ? plan.system : plan.mic).startFrame = shift;
    }
  }
  plan.drift.micPPM = plan.mic.ppm;
  plan.drift.systemPPM = plan.system.ppm;
  const bool required =
      std::abs(plan.mic.ppm) >= 1.0 || (plan.system.present && std::abs(plan.system.ppm) >= 1.0);
  if (required) {
    for (auto* p : {&plan.mic, &plan.system}) {
      if (!p->present || p->ppm == 0) continue;
      p->resample = true;
      p->outputFrames = static_cast<std::int64_t>(
          std::llround(static_cast<double>(p->sourceFrames) * 1e6 / (1e6 + p->ppm)));
    }
    plan.drift.resampleApplied = true;
  }
  plan.totalFrames =
      std::max(plan.mic.endFrame(), plan.system.present ? plan.system.endFrame() : 0);
  return plan;
}

// ---- analyzer ----

void DigitalAudioSignalAnalyzer::observe(const float* interleaved, std::int64_t frames) {
  if (left_ && right_) return;
  for (std::int64_t i = 0; i < frames; ++i) {
    // NaN compares unequal to zero: it counts as signal, as in capture's silence check.
    left_ = left_ || interleaved[2 * i] != 0.0f;
    right_ = right_ || interleaved[2 * i + 1] != 0.0f;
  }
}

// ---- the growing file ----

RenderedStereoFile::RenderedStereoFile(std::filesystem::path path, std::int64_t totalFrames)
    : totalFrames_(totalFrames), path_(std::move(path)) {}

RenderedStereoFile::~RenderedStereoFile() {
  if (fd_ >= 0) ::close(fd_);
}

void RenderedStereoFile::opened(std::int64_t dataOffset) {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  {
    std::lock_guard lock(mutex_);
    if (fd < 0 && !error_)
      error_ = std::make_exception_ptr(
          std::runtime_error("cannot read " + path_.string() + ": " + std::strerror(errno)));
    fd_ = fd;
    dataOffset_ = dataOffset;
  }
  changed_.notify_all();
}

void RenderedStereoFile::published(std::int64_t frames) {
  {
    std::lock_guard lock(mutex_);
    published_ = frames;
  }
  changed_.notify_all();
}

void RenderedStereoFile::moveTo(const std::filesystem::path& path) {
  // The descriptor readers use follows the file; the name is only for messages.
  std::lock_guard lock(mutex_);
  std::filesystem::rename(path_, path);
  path_ = path;
}

void RenderedStereoFile::failed(std::exception_ptr error) {
  {
    std::lock_guard lock(mutex_);
    if (!error_) error_ = std::move(error);
  }
  changed_.notify_all();
}

void RenderedStereoFile::read(std::int64_t start, std::int64_t count, float* out) {
  int fd;
  std::int64_t offset;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return error_ || (fd_ >= 0 && published_ >= start + count); });
    if (error_) std::rethrow_exception(error_);
    fd = fd_;
    offset = dataOffset_;
  }
  // The samples are little-endian floats (see render()), read in place with pread, which
  // several encoder threads may do at once on one descriptor.
  auto* bytes = reinterpret_cast<char*>(out);
  std::size_t want = static_cast<std::size_t>(count) * 2 * sizeof(float);
  off_t at = static_cast<off_t>(offset + start * 2 * static_cast<std::int64_t>(sizeof(float)));
  while (want > 0) {
    const ssize_t n = ::pread(fd, bytes, want, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      throw std::runtime_error("cannot read the rendered timeline at frame " +
                               std::to_string(start));
    bytes += n;
    want -= static_cast<std::size_t>(n);
    at += n;
  }
  static_assert(std::endian::native == std::endian::little,
                "rendered samples are read in place as little-endian floats");
}

// ---- renderer ----

StereoTimelineRenderer::StereoTimelineRenderer(std::int64_t blockSize) : blockSize_(blockSize) {
  if (blockSize <= 0) fail(Kind::invalidBlockSize, std::nullopt, std::to_string(blockSize));
}

RenderPlan StereoTimelineRenderer::plan(const MeetingSealingInput& input) const {
  SF_INFO info;
  std::int64_t micFrames;
  {
    auto file = openRawTrack(input.mic, TrackSource::mic, info);
    micFrames = info.frames;
  }
  std::optional<std::int64_t> systemFrames;
  if (input.system) {
    auto file = openRawTrack(*input.system, TrackSource::system, info);
    systemFrames = info.frames;
  }
  return RenderPlan::make(input, micFrames, systemFrames);
}

void StereoTimelineRenderer::render(const MeetingSealingInput& input, const RenderPlan& plan,
                                    const std::filesystem::path& workingPath,
                                    const std::filesystem::path& finalPath,
                                    RenderedStereoFile* rendered,
                                    const std::atomic<bool>* cancel) const {
  TrackStream mic(&input.mic, plan.mic, TrackSource::mic, blockSize_);
  TrackStream system(input.system ? &*input.system : nullptr, plan.system, TrackSource::system,
                     blockSize_);

  const int fd = ::open(workingPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0)
    fail(Kind::cannotCreateFormat, std::nullopt,
         "cannot create " + workingPath.string() + ": " + std::strerror(errno));
  SF_INFO info{};
  info.samplerate = static_cast<int>(kTimelineRate);
  info.channels = 2;
  // Little-endian, so encoders can read the samples in place while the file grows.
  info.format = SF_FORMAT_CAF | SF_FORMAT_FLOAT | SF_ENDIAN_LITTLE;
  SndfilePtr out(sf_open_fd(fd, SFM_RDWR, &info, SF_TRUE));
  if (!out) {
    ::close(fd);
    fail(Kind::cannotCreateFormat, std::nullopt,
         "cannot write " + workingPath.string() + ": " + sf_strerror(nullptr));
  }
  // The header is written on open: the samples start where the descriptor stands now.
  const off_t dataOffset = ::lseek(fd, 0, SEEK_CUR);
  if (dataOffset <= 0)
    fail(Kind::cannotCreateFormat, std::nullopt,
         "cannot tell where the samples of " + workingPath.string() + " start");
  if (rendered) rendered->opened(dataOffset);
  std::vector<float> left(static_cast<std::size_t>(blockSize_)),
      right(static_cast<std::size_t>(blockSize_)),
      interleaved(static_cast<std::size_t>(blockSize_) * 2);
  for (std::int64_t at = 0; at < plan.totalFrames; at += blockSize_) {
    if (cancel && cancel->load(std::memory_order_relaxed)) throw std::runtime_error("cancelled");
    const std::int64_t n = std::min(blockSize_, plan.totalFrames - at);
    mic.next(at, left.data(), n);
    system.next(at, right.data(), n);
    for (std::int64_t i = 0; i < n; ++i) {
      interleaved[2 * i] = left[i];
      interleaved[2 * i + 1] = right[i];
    }
    if (blockObserver) blockObserver(interleaved.data(), n);
    if (sf_writef_float(out.get(), interleaved.data(), n) != n)
      fail(Kind::conversionFailed, std::nullopt,
           "cannot write " + workingPath.string() + ": " + sf_strerror(out.get()));
    if (rendered) rendered->published(at + n);
    if (readObserver) readObserver(at + n, plan.totalFrames);
  }
  // No fsync: the rendered timeline is an intermediate that a crash makes us render again.
  out.reset();
  try {
    if (rendered)
      rendered->moveTo(finalPath);
    else
      std::filesystem::rename(workingPath, finalPath);
  } catch (const std::filesystem::filesystem_error& e) {
    fail(Kind::cannotCreateFormat, std::nullopt, e.what());
  }
}

}  // namespace tamsel::sealing
