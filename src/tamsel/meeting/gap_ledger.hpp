#pragma once
// Accounts for every frame of one track: each chunk's metadata is checked against what was
// expected next, and any stretch the timeline skipped becomes a Gap. Touched by the track's
// writer thread only.
#include <optional>
#include <vector>

#include "tamsel/meeting/track_types.hpp"

namespace tamsel::meeting {

struct GapLedger {
  std::vector<Gap> gaps;
  std::int64_t acceptedFrames = 0;
  std::int64_t droppedFrames = 0;
  std::optional<std::int64_t> lastSampleTime;
  TrackSource track = TrackSource::mic;
  std::uint64_t expectedNextSequence = 0;
  std::int64_t expectedNextSampleTime = 0;
  bool isFinished = false;

  explicit GapLedger(TrackSource source) : track(source) {}

  // Checks and accounts for one chunk; a failure leaves the ledger unchanged.
  // Throws CaptureAccountingException.
  void record(const AudioChunkMeta& meta);
  // Records the frames produced after the last recorded chunk that never arrived (they were
  // dropped), as one gap up to `finalSampleTime`, then refuses further records. A final time at
  // or before the expected position adds nothing.
  void finish(std::optional<std::int64_t> finalSampleTime = std::nullopt,
              std::optional<CaptureGapReason> trailingReason = std::nullopt);
};

}  // namespace tamsel::meeting
