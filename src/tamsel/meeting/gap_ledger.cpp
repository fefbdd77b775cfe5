#include "tamsel/meeting/gap_ledger.hpp"

namespace tamsel::meeting {

namespace {
[[noreturn]] void fail(CaptureAccountingError error) {
  throw CaptureAccountingException(std::move(error));
}
}  // namespace

void GapLedger::record(const AudioChunkMeta& meta) {
  using E = CaptureAccountingError;
  if (isFinished) fail({E::AlreadyFinished{}});
  if (meta.track != track) fail({E::TrackMismatch{track, meta.track}});
  if (meta.frameLength <= 0) fail({E::InvalidFrameLength{meta.frameLength}});
  if (meta.sequence < expectedNextSequence)
    fail({E::OutOfOrderSequence{expectedNextSequence, meta.sequence}});
  if (meta.sampleTime < expectedNextSampleTime)
    fail({E::SampleTimeRegressed{expectedNextSampleTime, meta.sampleTime}});
  if (meta.sequence > expectedNextSequence && meta.sampleTime == expectedNextSampleTime)
    fail({E::UnrecoverableSequenceGap{expectedNextSequence, meta.sequence}});

  std::uint64_t nextSequence;
  std::int64_t nextSampleTime, nextAccepted;
  if (__builtin_add_overflow(meta.sequence, std::uint64_t{1}, &nextSequence) ||
      __builtin_add_overflow(meta.sampleTime, meta.frameLength, &nextSampleTime) ||
      __builtin_add_overflow(acceptedFrames, meta.frameLength, &nextAccepted))
    fail({E::ArithmeticOverflow{}});

  std::optional<Gap> gap;
  std::int64_t nextDropped = droppedFrames;
  if (meta.sampleTime > expectedNextSampleTime) {
    std::int64_t missing;
    if (__builtin_sub_overflow(meta.sampleTime, expectedNextSampleTime, &missing) || missing <= 0 ||
        __builtin_add_overflow(droppedFrames, missing, &nextDropped))
      fail({E::ArithmeticOverflow{}});
    gap = Gap{track, expectedNextSampleTime, missing,
              meta.gapReasonBefore.value_or(CaptureGapReason::captureLoss)};
  }
  if (gap) gaps.push_back(*gap);  // the only step that can throw (allocation) comes first
  droppedFrames = nextDropped;
  expectedNextSequence = nextSequence;
  expectedNextSampleTime = nextSampleTime;
  acceptedFrames = nextAccepted;
  lastSampleTime = meta.sampleTime;
}

void GapLedger::finish(std::optional<std::int64_t> finalSampleTime,
                       std::optional<CaptureGapReason> trailingReason) {
  if (isFinished) return;
  if (finalSampleTime && *finalSampleTime > expectedNextSampleTime) {
    std::int64_t missing, total;
    if (!__builtin_sub_overflow(*finalSampleTime, expectedNextSampleTime, &missing) &&
        !__builtin_add_overflow(droppedFrames, missing, &total)) {
      gaps.push_back(Gap{track, expectedNextSampleTime, missing,
                         trailingReason.value_or(CaptureGapReason::captureLoss)});
      droppedFrames = total;
      expectedNextSampleTime = *finalSampleTime;
    }
  }
  isFinished = true;
}

}  // namespace tamsel::meeting
