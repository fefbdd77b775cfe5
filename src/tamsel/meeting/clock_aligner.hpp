#pragma once
// Clock arithmetic that lays two tracks on one timeline: each track's drift against the host
// clock and the offset between the tracks' starts. Pure functions.
#include "tamsel/meeting/track_types.hpp"

namespace tamsel::meeting::ClockAligner {

// Parts per million by which the track's sample clock ran fast (+) or slow (-) against the host
// clock. Throws ClockAlignmentException naming the clock's track.
double driftPPM(const TrackClock& clock, double hostTicksPerSecond);

// `mic` must be the microphone's clock and `system` the system track's. The offset is negative
// when the system track started first. Throws ClockAlignmentException.
ClockAlignment align(const TrackClock& mic, const TrackClock& system, double hostTicksPerSecond);

}  // namespace tamsel::meeting::ClockAligner
