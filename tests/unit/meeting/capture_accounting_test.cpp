// Time stamps, the gap ledger and the clock arithmetic: the pure core of a track's accounting.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <cmath>
#include <limits>

#include "tamsel/meeting/clock_aligner.hpp"
#include "tamsel/meeting/gap_ledger.hpp"

namespace tamsel::meeting {
namespace {

using Reason = CaptureGapReason;

TEST(CaptureTimestamp, ConversionNeedsBothFlagsAFiniteValueAndAFit) {
  constexpr double nan = std::numeric_limits<double>::quiet_NaN();
  constexpr double inf = std::numeric_limits<double>::infinity();
  struct Case {
    PlatformTimestamp in;
    std::optional<std::int64_t> sample;
  };
  const Case cases[] = {
      {{100.0, 7, true, true}, 100},
      {{2.5, 7, true, true}, 3},    // halves away from zero
      {{-2.5, 7, true, true}, -3},  // on both sides
      {{2.4999, 7, true, true}, 2},
      {{-0.4, 7, true, true}, 0},
      {{100.0, 7, false, true}, std::nullopt},
      {{100.0, 7, true, false}, std::nullopt},
      {{nan, 7, true, true}, std::nullopt},
      {{inf, 7, true, true}, std::nullopt},
      {{-inf, 7, true, true}, std::nullopt},
      {{9223372036854775808.0, 7, true, true}, std::nullopt},  // 2^63 does not fit
      {{-9223372036854775808.0, 7, true, true}, std::numeric_limits<std::int64_t>::min()},
      {{9223372036854774784.0, 7, true, true}, 9223372036854774784LL},  // largest below 2^63
  };
  for (const auto& c : cases) {
    const auto out = toCaptureTimestamp(c.in);
    ASSERT_EQ(out.has_value(), c.sample.has_value()) << c.in.sampleTime;
    if (out) {
      EXPECT_EQ(out->sampleTime, *c.sample) << c.in.sampleTime;
      EXPECT_EQ(out->hostTime, 7u);
    }
  }
}

TEST(TrackRecords, JSONKeysAndRoundTrips) {
  const Gap gap{TrackSource::system, 480, 96, Reason::routeTransition};
  const auto gapJSON = toJSON(gap);
  EXPECT_EQ(
      boost::json::serialize(gapJSON),
      R"({"track":"system","startSample":480,"droppedFrames":96,"reason":"routeTransition"})");
  EXPECT_EQ(gapFromJSON(gapJSON), gap);
  EXPECT_FALSE(gapFromJSON(boost::json::parse(
      R"({"track":"mic","startSample":0,"droppedFrames":0,"reason":"captureLoss"})")));
  EXPECT_FALSE(gapFromJSON(boost::json::parse(
      R"({"track":"left","startSample":0,"droppedFrames":4,"reason":"captureLoss"})")));

  const TrackClock clock{TrackSource::mic, 48000, 96000, 1'000, 2'000'000'000, 0, 95'040, 480};
  const auto clockJSON = toJSON(clock);
  for (const char* key : {"source", "sampleRate", "totalFrames", "firstHostTime", "lastHostTime",
                          "firstSampleTime", "lastSampleTime", "droppedFrames"})
    EXPECT_TRUE(clockJSON.as_object().contains(key)) << key;
  EXPECT_EQ(trackClockFromJSON(clockJSON), clock);

  TrackRecording recording{"/m/mic.caf",
                           clock,
                           {gap},
                           false,
                           TrackRecordingFailure{TrackRecordingFailure::MicInputRouteChanged{}}};
  const auto r = toJSON(recording).as_object();
  EXPECT_EQ(r.at("source"), "mic");
  EXPECT_EQ(r.at("raw_file"), "/m/mic.caf");
  EXPECT_EQ(r.at("failure"), "mic input route changed");
  recording.failure.reset();
  EXPECT_TRUE(toJSON(recording).as_object().at("failure").is_null());
}

AudioChunkMeta chunk(std::uint64_t sequence, std::int64_t sampleTime, std::int64_t frames = 480,
                     std::optional<Reason> reason = std::nullopt,
                     TrackSource track = TrackSource::mic) {
  return AudioChunkMeta{track, sequence, 0, sampleTime, frames, reason};
}

std::string errorOf(GapLedger& ledger, const AudioChunkMeta& meta) {
  try {
    ledger.record(meta);
    return "";
  } catch (const CaptureAccountingException& e) {
    return e.what();
  }
}

TEST(GapLedger, RecordsGapsOnlyWhereTheTimelineSkips) {
  struct Case {
    const char* name;
    std::vector<AudioChunkMeta> chunks;
    std::vector<Gap> gaps;
    std::int64_t accepted, dropped;
  };
  const auto mic = TrackSource::mic;
  const Case cases[] = {
      {"continuous", {chunk(0, 0), chunk(1, 480), chunk(2, 960)}, {}, 1440, 0},
      {"480 frames late",
       {chunk(0, 0), chunk(1, 960)},
       {{mic, 480, 480, Reason::captureLoss}},
       960,
       480},
      {"dropped chunks",
       {chunk(0, 0), chunk(3, 1440)},
       {{mic, 480, 960, Reason::captureLoss}},
       960,
       960},
      {"route change",
       {chunk(0, 0), chunk(1, 5000, 480, Reason::routeTransition)},
       {{mic, 480, 4520, Reason::routeTransition}},
       960,
       4520},
      {"reason without a skip adds nothing",
       {chunk(0, 0), chunk(1, 480, 480, Reason::routeTransition)},
       {},
       960,
       0},
      {"first chunk late", {chunk(0, 100, 10)}, {{mic, 0, 100, Reason::captureLoss}}, 10, 100},
  };
  for (const auto& c : cases) {
    GapLedger ledger(TrackSource::mic);
    for (const auto& m : c.chunks) ledger.record(m);
    EXPECT_EQ(ledger.gaps, c.gaps) << c.name;
    EXPECT_EQ(ledger.acceptedFrames, c.accepted) << c.name;
    EXPECT_EQ(ledger.droppedFrames, c.dropped) << c.name;
    EXPECT_EQ(ledger.expectedNextSequence, c.chunks.back().sequence + 1) << c.name;
    EXPECT_EQ(ledger.lastSampleTime, c.chunks.back().sampleTime) << c.name;
  }
}

TEST(GapLedger, ValidationOrderAndAFailedRecordChangesNothing) {
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  struct Case {
    const char* name;
    AudioChunkMeta meta;  // after chunk(0, 0) and chunk(1, 480) were recorded
    std::string error;
  };
  const Case cases[] = {
      {"track first", chunk(0, 0, 0, std::nullopt, TrackSource::system),
       "track mismatch: expected mic, got system"},
      {"zero length", chunk(0, 0, 0), "invalid frame length 0"},
      {"negative length", chunk(2, 960, -5), "invalid frame length -5"},
      {"old sequence before time", chunk(1, 0), "out-of-order sequence: expected 2, got 1"},
      {"time regressed", chunk(2, 959), "sample time regressed: expected 960, got 959"},
      {"sequence skips, time continues", chunk(4, 960),
       "unrecoverable sequence gap: expected 2, got 4"},
      {"end overflows", chunk(2, max - 10, 11), "arithmetic overflow"},
      {"sequence overflows", chunk(std::numeric_limits<std::uint64_t>::max(), 2000),
       "arithmetic overflow"},
  };
  for (const auto& c : cases) {
    GapLedger ledger(TrackSource::mic);
    ledger.record(chunk(0, 0));
    ledger.record(chunk(1, 480));
    const auto before = ledger;
    EXPECT_EQ(errorOf(ledger, c.meta), c.error) << c.name;
    EXPECT_EQ(ledger.gaps, before.gaps) << c.name;
    EXPECT_EQ(ledger.acceptedFrames, before.acceptedFrames) << c.name;
    EXPECT_EQ(ledger.droppedFrames, before.droppedFrames) << c.name;
    EXPECT_EQ(ledger.expectedNextSequence, before.expectedNextSequence) << c.name;
    EXPECT_EQ(ledger.expectedNextSampleTime, before.expectedNextSampleTime) << c.name;
    EXPECT_EQ(ledger.lastSampleTime, before.lastSampleTime) << c.name;
  }
}

TEST(GapLedger, DroppedTotalOverflowFailsAndFinishRefusesMore) {
  GapLedger ledger(TrackSource::mic);
  ledger.droppedFrames = std::numeric_limits<std::int64_t>::max() - 10;
  EXPECT_EQ(errorOf(ledger, chunk(1, 100, 1)), "arithmetic overflow");
  EXPECT_TRUE(ledger.gaps.empty());

  GapLedger finished(TrackSource::system);
  finished.record(chunk(0, 0, 480, std::nullopt, TrackSource::system));
  finished.finish(1000, Reason::routeTransition);
  EXPECT_EQ(finished.gaps,
            (std::vector<Gap>{{TrackSource::system, 480, 520, Reason::routeTransition}}));
  EXPECT_EQ(errorOf(finished, chunk(1, 1000, 480, std::nullopt, TrackSource::system)),
            "ledger already finished");
  // Finishing at or before the expected position adds no gap.
  GapLedger exact(TrackSource::mic);
  exact.record(chunk(0, 0));
  exact.finish(480);
  EXPECT_TRUE(exact.gaps.empty());
}

TrackClock clockOf(TrackSource source, std::uint64_t firstHost, std::uint64_t lastHost,
                   std::int64_t firstSample, std::int64_t lastSample, double rate = 48000) {
  return TrackClock{source, rate, 0, firstHost, lastHost, firstSample, lastSample, 0};
}

TEST(ClockAligner, DriftAndItsErrorsNameTheTrack) {
  using K = ClockAlignmentError::Kind;
  const auto sys = TrackSource::system;
  struct Case {
    const char* name;
    TrackClock clock;
    double ticks;
    std::optional<double> ppm;
    std::optional<K> error;
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Case cases[] = {
      {"nominal", clockOf(sys, 0, 1'000'000'000, 0, 48000), 1e9, 0.0, {}},
      {"one frame fast", clockOf(sys, 0, 1'000'000'000, 0, 48001), 1e9, 1e6 / 48000, {}},
      {"slow", clockOf(sys, 5, 2'000'000'005, 100, 100 + 95990), 1e9, -104.1666, {}},
      {"zero rate", clockOf(sys, 0, 10, 0, 10, 0), 1e9, {}, K::invalidSampleRate},
      {"nan rate", clockOf(sys, 0, 10, 0, 10, nan), 1e9, {}, K::invalidSampleRate},
      {"equal host", clockOf(sys, 10, 10, 0, 10), 1e9, {}, K::nonIncreasingHostTime},
      {"host backwards", clockOf(sys, 11, 10, 0, 10), 1e9, {}, K::nonIncreasingHostTime},
      {"equal samples", clockOf(sys, 0, 10, 5, 5), 1e9, {}, K::nonIncreasingSampleTime},
      {"sample span overflows",
       clockOf(sys, 0, 10, std::numeric_limits<std::int64_t>::min(), 10),
       1e9,
       {},
       K::arithmeticOverflow},
      {"zero ticks", clockOf(sys, 0, 10, 0, 10), 0.0, {}, K::nonFiniteCalculation},
      {"infinite ticks", clockOf(sys, 0, 10, 0, 10), INFINITY, {}, K::nonFiniteCalculation},
  };
  for (const auto& c : cases) {
    try {
      const double ppm = ClockAligner::driftPPM(c.clock, c.ticks);
      ASSERT_TRUE(c.ppm) << c.name;
      EXPECT_NEAR(ppm, *c.ppm, 1e-3) << c.name;
    } catch (const ClockAlignmentException& e) {
      ASSERT_TRUE(c.error) << c.name << ": " << e.what();
      EXPECT_EQ(e.error().kind, *c.error) << c.name;
      EXPECT_EQ(e.error().track, sys) << c.name;
    }
  }
}

TEST(ClockAligner, AlignChecksOrderSignAndResampling) {
  using K = ClockAlignmentError::Kind;
  const auto mic = TrackSource::mic;
  const auto sys = TrackSource::system;
  const auto nominalMic = clockOf(mic, 250'000'000, 1'250'000'000, 0, 48000);
  const auto earlySystem = clockOf(sys, 0, 1'000'000'000, 0, 48000);
  const auto alignment = ClockAligner::align(nominalMic, earlySystem, 1e9);
  EXPECT_DOUBLE_EQ(alignment.interTrackOffsetSeconds, -0.25);
  EXPECT_FALSE(alignment.resampleRequired);

  const auto lateFast = clockOf(sys, 500'000'000, 1'500'000'000, 0, 48001);
  const auto late = ClockAligner::align(nominalMic, lateFast, 1e9);
  EXPECT_DOUBLE_EQ(late.interTrackOffsetSeconds, 0.25);
  EXPECT_NEAR(late.systemPPM, 20.833, 1e-3);
  EXPECT_TRUE(late.resampleRequired);

  struct Case {
    TrackClock a, b;
    double ticks;
    ClockAlignmentError error;
  };
  const Case cases[] = {
      {nominalMic, earlySystem, 0.0, {K::invalidHostTicksPerSecond}},
      {nominalMic, earlySystem, -1.0, {K::invalidHostTicksPerSecond}},
      {earlySystem, earlySystem, 1e9, {K::unexpectedTrackSource, mic, sys}},
      {nominalMic, nominalMic, 1e9, {K::unexpectedTrackSource, sys, mic}},
      // The microphone's clock is checked first; errors pass through naming it.
      {clockOf(mic, 5, 5, 0, 10), clockOf(sys, 5, 5, 0, 10), 1e9, {K::nonIncreasingHostTime, mic}},
      {nominalMic, clockOf(sys, 5, 5, 0, 10), 1e9, {K::nonIncreasingHostTime, sys}},
  };
  for (const auto& c : cases) {
    try {
      ClockAligner::align(c.a, c.b, c.ticks);
      ADD_FAILURE() << c.error.description();
    } catch (const ClockAlignmentException& e) {
      EXPECT_EQ(e.error(), c.error) << e.what();
    }
  }
}

}  // namespace
}  // namespace tamsel::meeting
