#include "tamsel/meeting/track_recorder.hpp"

#include <boost/json.hpp>
#include <cmath>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/log.hpp"

namespace tamsel::meeting {

namespace {
constexpr double kQueueBudgetSeconds = 3.0;  // fixed: not bufferSeconds
// Pool slots fit a pulse fragment of up to 1024 mono float frames; sources split larger reads.
constexpr std::size_t kPoolSlotFrames = 1024;
// The writer looks at its queue this often; the callback wakes it only when the queue fills up,
// so it makes no system call in the common case.
constexpr std::chrono::milliseconds kWriterPollInterval{40};

std::string logSource(TrackSource source) { return source == TrackSource::mic ? "mic" : "systap"; }
}  // namespace

TrackRecorder::WriterFactory TrackRecorder::defaultWriterFactory() {
  return [](const std::filesystem::path& url, double rate,
            const AudioFormat&) -> std::unique_ptr<TrackWriter> {
    return std::make_unique<CAFTrackWriter>(url, rate);
  };
}

std::string TrackRecorder::writerQueueLabel(TrackSource source) {
  return std::string("dev.tamsel.desktop.meeting-writer.") + std::string(toString(source));
}

std::int64_t TrackRecorder::queueBudget(const AudioFormat& format,
                                        std::optional<std::int64_t> maxWeightOverride) {
  const auto invalid = [] {
    return TrackRecorderException(
        TrackRecorderError{TrackRecorderError::Kind::invalidBufferBudget});
  };
  if (maxWeightOverride) {
    if (*maxWeightOverride > 0) return *maxWeightOverride;
    throw invalid();
  }
  if (!std::isfinite(format.sampleRate) || format.sampleRate <= 0) throw invalid();
  const double planes = format.interleaved ? 1.0 : std::max<double>(1.0, format.channels);
  const double budget =
      std::ceil(format.sampleRate * format.bytesPerFrame() * planes * kQueueBudgetSeconds);
  if (!(budget >= 1.0) || budget >= 9223372036854775808.0) throw invalid();
  return static_cast<std::int64_t>(budget);
}

TrackRecorder::TrackRecorder(TrackSource source, std::filesystem::path fileURL,
                             double hostTicksPerSecond, WriterFactory writerFactory)
    : source_(source),
      fileURL_(std::move(fileURL)),
      hostTicksPerSecond_(hostTicksPerSecond),
      writerFactory_(writerFactory ? std::move(writerFactory) : defaultWriterFactory()),
      writerQueue_(writerQueueLabel(source)) {}

TrackRecorder::~TrackRecorder() {
  std::optional<TrackStopToken> token;
  {
    base::MutexLock lock(stateLock_);
    if (state_.prepared && !state_.stopping) {
      lock.unlock();
      try {
        token = stop();
      } catch (const TrackRecorderException&) {
      }
    }
  }
  if (writer_.joinable()) writer_.join();
}

void TrackRecorder::prepare(const AudioFormat& sourceFormat) {
  {
    base::MutexLock lock(stateLock_);
    if (state_.prepared)
      throw TrackRecorderException(TrackRecorderError{TrackRecorderError::Kind::alreadyPrepared});
    const std::int64_t budget = queueBudget(sourceFormat, maxWeightOverride);
    const std::size_t slotBytes =
        kPoolSlotFrames * sourceFormat.bytesPerFrame() * sourceFormat.planes();
    // Enough slots for the whole budget in small chunks, never more than the ring holds.
    const auto slots = static_cast<std::size_t>(std::min<std::int64_t>(
        std::max<std::int64_t>(maxElementCount, 1) + 8,
        std::max<std::int64_t>(64,
                               2 * budget / std::max<std::int64_t>(1, std::int64_t(slotBytes)))));
    pool_ = std::make_unique<AudioBufferPool>(slotBytes, slots);
    state_.queue = std::make_unique<BoundedAudioQueue<CapturedAudioChunk, TrackCaptureSnapshot>>(
        maxElementCount, budget, kWriterPollInterval);
    state_.prepared = true;
    state_.accepting = true;
    state_.sourceSampleRate = sourceFormat.sampleRate;
  }
  writer_ = std::thread([this, sourceFormat] { runWriter(sourceFormat); });
}

void TrackRecorder::accept(const AudioBufferView& view, const PlatformTimestamp& stamp) noexcept {
  base::MutexLock lock(stateLock_);
  auto& s = state_;
  if (!s.accepting || view.frameLength <= 0) return;
  const auto timestamp = toCaptureTimestamp(stamp);
  if (!timestamp) {
    if (!s.failure) s.failure = TrackRecordingFailure{TrackRecordingFailure::InvalidTimestamp{}};
    s.accepting = false;
    return;
  }
  const std::int64_t device = timestamp->sampleTime;
  if (!s.firstHostTime) {
    s.firstHostTime = timestamp->hostTime;
    s.timelineOriginHostTime = timestamp->hostTime;
    s.timelineOriginSampleTime = device;
    s.routeSourceSampleTime = device;
    s.routeTimelineSampleTime = 0;
  } else if (s.rebindPending) {
    // A new device's clock restarts anywhere: place its first frame where the host clock says it
    // lies on the timeline, and at least one frame after what was already produced, so the seam
    // between the devices is always on record as a routeTransition gap.
    const double elapsed = static_cast<double>(timestamp->hostTime - s.timelineOriginHostTime) *
                           s.sampleRate / hostTicksPerSecond_;
    std::int64_t position = s.finalSampleTime.value_or(0) + 1;
    if (timestamp->hostTime > s.timelineOriginHostTime && std::isfinite(elapsed) &&
        elapsed < 9.0e18)
      position = std::max(position, static_cast<std::int64_t>(std::llround(elapsed)));
    s.routeSourceSampleTime = device;
    s.routeTimelineSampleTime = position;
    s.pendingGapReason = CaptureGapReason::routeTransition;
    ++s.routeGeneration;
  }
  s.rebindPending = false;
  std::int64_t offset, mapped, end;
  if (__builtin_sub_overflow(device, s.routeSourceSampleTime, &offset) ||
      __builtin_add_overflow(s.routeTimelineSampleTime, offset, &mapped) ||
      __builtin_add_overflow(mapped, view.frameLength, &end)) {
    if (!s.failure)
      s.failure = TrackRecordingFailure{
          TrackRecordingFailure::Accounting{{CaptureAccountingError::ArithmeticOverflow{}}}};
    s.accepting = false;
    return;
  }
  if (!s.firstSampleTime) s.firstSampleTime = mapped;

  CapturedAudioChunk chunk{AudioChunkMeta{source_, s.nextSequence, timestamp->hostTime, mapped,
                                          view.frameLength, s.pendingGapReason},
                           s.timelineOriginSampleTime, AudioBuffer::copyOf(view, pool_.get())};
  s.pendingGapReason.reset();
  ++s.nextSequence;
  const auto weight = static_cast<std::int64_t>(chunk.buffer.byteSize());
  if (!s.queue->push(chunk, weight)) {
    // Refused: the ledger sees the jump; a route change it announced must not be lost with it.
    if (chunk.meta.gapReasonBefore) s.pendingGapReason = chunk.meta.gapReasonBefore;
    ++s.dropped;
  }
  s.lastHostTime = timestamp->hostTime;
  s.lastSampleTime = mapped;
  s.finalSampleTime = end;
}

void TrackRecorder::rebindRoute() {
  base::MutexLock lock(stateLock_);
  if (state_.firstHostTime) state_.rebindPending = true;
}

void TrackRecorder::setFailure(TrackRecordingFailure failure) {
  base::MutexLock lock(stateLock_);
  if (!state_.failure) state_.failure = std::move(failure);
  state_.accepting = false;
}

void TrackRecorder::fail(TrackRecordingFailure failure) { setFailure(std::move(failure)); }

TrackStopToken TrackRecorder::stop() {
  base::MutexLock lock(stateLock_);
  auto& s = state_;
  if (!s.prepared)
    throw TrackRecorderException(TrackRecorderError{TrackRecorderError::Kind::notPrepared});
  if (s.stopping)
    throw TrackRecorderException(TrackRecorderError{TrackRecorderError::Kind::alreadyStopping});
  s.accepting = false;
  s.stopping = true;
  TrackCaptureSnapshot snapshot{
      source_,           s.sampleRate,     s.firstHostTime, s.lastHostTime,
      s.firstSampleTime, s.lastSampleTime, s.nextSequence,  s.finalSampleTime.value_or(0),
      s.pendingGapReason};
  s.queue->finish(snapshot);
  return TrackStopToken{snapshot};
}

TrackRecording TrackRecorder::finish(const TrackStopToken&) {
  base::MutexLock lock(completionLock_);
  while (!completion_) completed_.wait(completionLock_);
  return *completion_;
}

void TrackRecorder::finish(const TrackStopToken&, FinishHandler done) {
  std::optional<TrackRecording> ready;
  {
    base::MutexLock lock(completionLock_);
    if (completion_)
      ready = completion_;
    else
      finishHandlers_.push_back(std::move(done));
  }
  if (ready) done(std::move(*ready));
}

std::optional<TrackRecording> TrackRecorder::result() const {
  base::MutexLock lock(completionLock_);
  return completion_;
}

std::uint64_t TrackRecorder::chunksDropped() const {
  base::MutexLock lock(stateLock_);
  return state_.dropped;
}

std::uint64_t TrackRecorder::chunksProduced() const {
  base::MutexLock lock(stateLock_);
  return state_.nextSequence;
}

void TrackRecorder::runWriter(AudioFormat sourceFormat) {
  BoundedAudioQueue<CapturedAudioChunk, TrackCaptureSnapshot>* queue;
  {
    base::MutexLock lock(stateLock_);
    queue = state_.queue.get();
  }
  GapLedger ledger(source_);
  std::unique_ptr<TrackWriter> writer;
  bool broken = false;  // after a failure the queue is still drained, nothing more is written
  try {
    writer = writerFactory_(fileURL_, 48000, sourceFormat);
  } catch (const std::exception& e) {
    setFailure(TrackRecordingFailure{TrackRecordingFailure::Writer{e.what()}});
    broken = true;
  }
  auto lastJournal = std::chrono::steady_clock::now();
  // What the writer should have written: a buffer in another format yields its converted count.
  std::int64_t expectedOutput = 0;
  while (auto event = queue->next()) {
    if (event->isFinish()) {
      auto& snapshot = std::get<1>(event->value);
      const std::int64_t written = writer ? writer->framesWritten() : 0;
      if (writer) {
        try {
          writer->close();
        } catch (const std::exception& e) {
          if (!broken) setFailure(TrackRecordingFailure{TrackRecordingFailure::Writer{e.what()}});
        }
      }
      auto recording = buildResult(snapshot, ledger, written, expectedOutput);
      if (journalURL) writeJournal(ledger, written, true, &recording);
      std::vector<FinishHandler> handlers;
      {
        base::MutexLock lock(completionLock_);
        completion_ = recording;
        handlers.swap(finishHandlers_);
      }
      completed_.notifyAll();
      for (auto& handler : handlers) handler(recording);
      return;
    }
    auto& chunk = std::get<0>(event->value);
    if (broken) continue;
    try {
      ledger.record(chunk.meta);
    } catch (const CaptureAccountingException& e) {
      setFailure(TrackRecordingFailure{TrackRecordingFailure::Accounting{e.error()}});
      broken = true;
      continue;
    }
    try {
      const auto& f = chunk.buffer.format();
      expectedOutput +=
          f.sampleRate == 48000
              ? chunk.buffer.frameLength()
              : CAFTrackWriter::expectedFrameCount(chunk.buffer.frameLength(), f.sampleRate, 48000);
      writer->write(chunk.buffer);
    } catch (const std::exception& e) {
      setFailure(TrackRecordingFailure{TrackRecordingFailure::Writer{e.what()}});
      broken = true;
      continue;
    }
    if (chunkObserver) chunkObserver(chunk.buffer);
    const auto now = std::chrono::steady_clock::now();
    if (journalURL && now - lastJournal >= journalInterval) {
      lastJournal = now;
      writer->sync();
      writeJournal(ledger, writer->framesWritten(), false);
    }
  }
}

TrackRecording TrackRecorder::buildResult(const TrackCaptureSnapshot& snapshot, GapLedger& ledger,
                                          std::int64_t framesWritten, std::int64_t expectedFrames) {
  // Chunks produced after the last one written never arrived: one final gap to the end.
  if (!ledger.isFinished && ledger.acceptedFrames > 0)
    ledger.finish(snapshot.finalSampleTime, snapshot.trailingGapReason);
  else
    ledger.finish();
  std::optional<TrackRecordingFailure> failure;
  {
    base::MutexLock lock(stateLock_);
    failure = state_.failure;
  }
  if (!failure && framesWritten != expectedFrames) {
    failure = TrackRecordingFailure{
        TrackRecordingFailure::Writer{"expected " + std::to_string(expectedFrames) +
                                      " frames, wrote " + std::to_string(framesWritten)}};
  }
  if (!failure && framesWritten == 0)
    failure = TrackRecordingFailure{TrackRecordingFailure::NoCapturedAudio{}};

  TrackRecording r;
  r.rawFileURL = fileURL_.string();
  r.clock.source = source_;
  r.clock.sampleRate = snapshot.sampleRate;
  // The timeline's length: frames written plus frames accounted as gaps.
  r.clock.totalFrames = ledger.acceptedFrames + ledger.droppedFrames;
  r.clock.firstHostTime = snapshot.firstHostTime.value_or(0);
  r.clock.lastHostTime = snapshot.lastHostTime.value_or(0);
  r.clock.firstSampleTime = snapshot.firstSampleTime.value_or(0);
  r.clock.lastSampleTime = snapshot.lastSampleTime.value_or(0);
  r.clock.droppedFrames = ledger.droppedFrames;
  r.gaps = ledger.gaps;
  r.failure = failure;
  // A route the source could not follow ends the track, but what it recorded until then holds.
  const bool routeEnded =
      failure &&
      (std::holds_alternative<TrackRecordingFailure::MicInputRouteChanged>(failure->value) ||
       std::holds_alternative<TrackRecordingFailure::SystemOutputRouteChanged>(failure->value));
  r.usable = framesWritten > 0 && (!failure || routeEnded);
  if (r.failure) base::log::warn(logSource(source_), "track ended: {}", r.failure->description());
  return r;
}

void TrackRecorder::writeJournal(const GapLedger& ledger, std::int64_t framesWritten, bool finished,
                                 const TrackRecording* result) {
  TrackClock clock;
  {
    base::MutexLock lock(stateLock_);
    clock.source = source_;
    clock.sampleRate = state_.sampleRate;
    clock.firstHostTime = state_.firstHostTime.value_or(0);
    clock.lastHostTime = state_.lastHostTime.value_or(0);
    clock.firstSampleTime = state_.firstSampleTime.value_or(0);
    clock.lastSampleTime = state_.lastSampleTime.value_or(0);
  }
  // What is on disk: the ledger's view, not what the producer has queued since.
  clock.totalFrames = ledger.acceptedFrames + ledger.droppedFrames;
  clock.droppedFrames = ledger.droppedFrames;
  boost::json::array gaps;
  for (const auto& g : ledger.gaps) gaps.push_back(toJSON(g));
  boost::json::object journal{{"raw_file", fileURL_.filename().string()},
                              {"clock", toJSON(clock)},
                              {"gaps", std::move(gaps)},
                              {"frames_written", framesWritten},
                              {"next_sequence", ledger.expectedNextSequence},
                              {"finished", finished}};
  // The final journal says whether the track holds, so sealing can tell without the process.
  if (result) {
    journal["usable"] = result->usable;
    journal["failure"] = result->failure ? boost::json::value(result->failure->description())
                                         : boost::json::value(nullptr);
  }
  try {
    base::writeFileAtomically(*journalURL, boost::json::serialize(journal) + "\n", 0600);
  } catch (const std::exception& e) {
    base::log::warn(logSource(source_), "journal not written: {}", e.what());
  }
}

}  // namespace tamsel::meeting
