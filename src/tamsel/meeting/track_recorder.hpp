#pragma once
// One track's capture path: the platform's callback hands buffers to accept(), which numbers and
// time-stamps them onto the track's timeline and queues a copy; the track's writer thread
// accounts for every chunk in a GapLedger and writes it through a TrackWriter. Lost chunks (a
// full queue, a stalled process, a route change) become gaps, never errors or back-pressure.
//
// Threads: accept() runs on the real-time callback thread and takes only stateLock and the
// queue's lock, never waits and never throws. prepare/rebindRoute/stop/finish may be called from
// any one controlling thread. The writer thread alone touches the ledger and the writer.
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tamsel/base/mutex.hpp"
#include "tamsel/meeting/audio_buffer.hpp"
#include "tamsel/meeting/bounded_audio_queue.hpp"
#include "tamsel/meeting/caf_track_writer.hpp"
#include "tamsel/meeting/gap_ledger.hpp"
#include "tamsel/meeting/track_types.hpp"

namespace tamsel::meeting {

struct CapturedAudioChunk {
  AudioChunkMeta meta;
  std::int64_t captureStartSampleTime = 0;
  AudioBuffer buffer;
};

struct TrackCaptureSnapshot {
  TrackSource source = TrackSource::mic;
  double sampleRate = 48000;
  std::optional<std::uint64_t> firstHostTime, lastHostTime;
  std::optional<std::int64_t> firstSampleTime, lastSampleTime;
  std::uint64_t finalSequenceExclusive = 0;
  std::int64_t finalSampleTime = 0;
  std::optional<CaptureGapReason> trailingGapReason;
};

struct TrackStopToken {
  TrackCaptureSnapshot snapshot;
};

class TrackRecorder {
 public:
  using WriterFactory = std::function<std::unique_ptr<TrackWriter>(
      const std::filesystem::path& fileURL, double sampleRate, const AudioFormat& sourceFormat)>;
  // Called on the writer thread with each chunk after it was written (signal monitors, meters).
  using ChunkObserver = std::function<void(const AudioBuffer& buffer)>;

  static WriterFactory defaultWriterFactory();
  // The writer thread's label: "<app prefix>.meeting-writer.mic" or "...system".
  static std::string writerQueueLabel(TrackSource source);
  // The queue's byte budget for a source format (3 s of it), or the override. Throws
  // TrackRecorderException(invalidBufferBudget).
  static std::int64_t queueBudget(const AudioFormat& sourceFormat,
                                  std::optional<std::int64_t> maxWeightOverride);

  TrackRecorder(TrackSource source, std::filesystem::path fileURL, double hostTicksPerSecond = 1e9,
                WriterFactory writerFactory = {});
  // Stops and waits for the writer when it still runs.
  ~TrackRecorder();
  TrackRecorder(const TrackRecorder&) = delete;
  TrackRecorder& operator=(const TrackRecorder&) = delete;

  // Settings read by prepare().
  std::int64_t maxElementCount = 1024;
  double bufferSeconds = 3.0;  // kept for callers; the budget uses a fixed 3.0 s
  std::optional<std::int64_t> maxWeightOverride;
  ChunkObserver chunkObserver;
  // When set, the writer keeps the clock and gaps so far in this file (atomically, twice a
  // second), so a recording cut by a crash can still be accounted for.
  std::optional<std::filesystem::path> journalURL;
  std::chrono::milliseconds journalInterval{500};

  TrackSource source() const { return source_; }
  const std::filesystem::path& fileURL() const { return fileURL_; }

  // Creates the queue and starts the writer; accepting from now on.
  // Throws TrackRecorderException(alreadyPrepared, invalidBufferBudget).
  void prepare(const AudioFormat& sourceFormat);

  // The capture callback's entry: never blocks, never throws.
  void accept(const AudioBufferView& buffer, const PlatformTimestamp& timestamp) noexcept;

  // The device behind the track changed: the next buffer starts a new mapping of the device's
  // sample clock onto the timeline and carries a routeTransition gap.
  void rebindRoute();

  // Ends the track with this failure (a route the source could not follow, an exclusion that
  // failed); the first failure stays. Capture stops accepting.
  void fail(TrackRecordingFailure failure);

  // Stops accepting and tells the writer to finish. Throws TrackRecorderException(notPrepared,
  // alreadyStopping).
  TrackStopToken stop();

  // Waits until the writer drained the queue and closed the file.
  TrackRecording finish(const TrackStopToken& token);
  // The same without waiting: `done` runs once with the track's result, on the writer thread when
  // it finishes, or at once on the caller's thread when it already has. A controller hands the
  // result on to its own executor from there.
  using FinishHandler = std::function<void(TrackRecording)>;
  void finish(const TrackStopToken& token, FinishHandler done);
  // The result when the writer is done, without waiting.
  std::optional<TrackRecording> result() const;

  // Live figures for meters (any thread).
  std::uint64_t chunksDropped() const;
  std::uint64_t chunksProduced() const;

 private:
  struct ProducerState {
    bool prepared = false, accepting = false, stopping = false;
    std::unique_ptr<BoundedAudioQueue<CapturedAudioChunk, TrackCaptureSnapshot>> queue;
    double sampleRate = 48000;
    double sourceSampleRate = 0;
    std::uint64_t nextSequence = 0;
    std::optional<std::uint64_t> firstHostTime, lastHostTime;
    std::optional<std::int64_t> firstSampleTime, lastSampleTime, finalSampleTime;
    std::uint64_t timelineOriginHostTime = 0;
    std::int64_t timelineOriginSampleTime = 0;
    std::int64_t routeSourceSampleTime = 0, routeTimelineSampleTime = 0;
    bool rebindPending = false;
    std::optional<CaptureGapReason> pendingGapReason;
    std::uint64_t routeGeneration = 0;
    std::optional<TrackRecordingFailure> failure;
    std::uint64_t dropped = 0;
  };

  void runWriter(AudioFormat sourceFormat);
  void setFailure(TrackRecordingFailure failure);
  TrackRecording buildResult(const TrackCaptureSnapshot& snapshot, GapLedger& ledger,
                             std::int64_t framesWritten, std::int64_t expectedFrames);
  void writeJournal(const GapLedger& ledger, std::int64_t framesWritten, bool finished,
                    const TrackRecording* result = nullptr);

  const TrackSource source_;
  const std::filesystem::path fileURL_;
  const double hostTicksPerSecond_;
  WriterFactory writerFactory_;
  std::string writerQueue_;

  // Declared before the state so that queued buffers go back to it before it goes.
  std::unique_ptr<AudioBufferPool> pool_;
  mutable base::Mutex stateLock_;
  ProducerState state_ GUARDED_BY(stateLock_);

  mutable base::Mutex completionLock_;
  base::ConditionVariable completed_;
  std::optional<TrackRecording> completion_ GUARDED_BY(completionLock_);
  std::vector<FinishHandler> finishHandlers_ GUARDED_BY(completionLock_);

  std::thread writer_;
};

}  // namespace tamsel::meeting
