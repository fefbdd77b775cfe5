#include "tamsel/meeting/clock_aligner.hpp"

#include <cmath>

namespace tamsel::meeting::ClockAligner {

namespace {
[[noreturn]] void fail(ClockAlignmentError::Kind kind, TrackSource track,
                       TrackSource actual = TrackSource::mic) {
  throw ClockAlignmentException(ClockAlignmentError{kind, track, actual});
}
}  // namespace

double driftPPM(const TrackClock& clock, double hostTicksPerSecond) {
  using K = ClockAlignmentError::Kind;
  const auto source = clock.source;
  if (!std::isfinite(clock.sampleRate) || clock.sampleRate <= 0) fail(K::invalidSampleRate, source);
  if (clock.lastHostTime <= clock.firstHostTime) fail(K::nonIncreasingHostTime, source);
  if (clock.lastSampleTime <= clock.firstSampleTime) fail(K::nonIncreasingSampleTime, source);
  std::int64_t frames;
  if (__builtin_sub_overflow(clock.lastSampleTime, clock.firstSampleTime, &frames))
    fail(K::arithmeticOverflow, source);
  const double elapsed =
      static_cast<double>(clock.lastHostTime - clock.firstHostTime) / hostTicksPerSecond;
  const double expected = clock.sampleRate * elapsed;
  const double ppm = (static_cast<double>(frames) - expected) / expected * 1'000'000.0;
  if (!std::isfinite(elapsed) || !std::isfinite(expected) || expected == 0 || !std::isfinite(ppm))
    fail(K::nonFiniteCalculation, source);
  return ppm;
}

ClockAlignment align(const TrackClock& mic, const TrackClock& system, double hostTicksPerSecond) {
  using K = ClockAlignmentError::Kind;
  if (!std::isfinite(hostTicksPerSecond) || hostTicksPerSecond <= 0)
    throw ClockAlignmentException(ClockAlignmentError{K::invalidHostTicksPerSecond});
  if (mic.source != TrackSource::mic) fail(K::unexpectedTrackSource, TrackSource::mic, mic.source);
  if (system.source != TrackSource::system)
    fail(K::unexpectedTrackSource, TrackSource::system, system.source);
  ClockAlignment out;
  out.micPPM = driftPPM(mic, hostTicksPerSecond);
  out.systemPPM = driftPPM(system, hostTicksPerSecond);
  const bool systemFirst = system.firstHostTime < mic.firstHostTime;
  const std::uint64_t delta = systemFirst ? mic.firstHostTime - system.firstHostTime
                                          : system.firstHostTime - mic.firstHostTime;
  const double magnitude = static_cast<double>(delta) / hostTicksPerSecond;
  out.interTrackOffsetSeconds = systemFirst ? -magnitude : magnitude;
  // The offset belongs to the pair; its failure is reported on the system track.
  if (!std::isfinite(out.interTrackOffsetSeconds))
    fail(K::nonFiniteCalculation, TrackSource::system);
  out.resampleRequired = std::abs(out.micPPM) >= 1.0 || std::abs(out.systemPPM) >= 1.0;
  return out;
}

}  // namespace tamsel::meeting::ClockAligner
