#include "tamsel/meeting/track_types.hpp"

#include <boost/json.hpp>
#include <cmath>

#include "tamsel/base/overloaded.hpp"

namespace tamsel::meeting {

namespace json = boost::json;

std::string_view toString(TrackSource source) {
  return source == TrackSource::mic ? "mic" : "system";
}

std::optional<TrackSource> trackSourceFromString(std::string_view text) {
  if (text == "mic") return TrackSource::mic;
  if (text == "system") return TrackSource::system;
  return std::nullopt;
}

std::optional<CaptureTimestamp> toCaptureTimestamp(const PlatformTimestamp& stamp) {
  if (!stamp.sampleTimeValid || !stamp.hostTimeValid || !std::isfinite(stamp.sampleTime))
    return std::nullopt;
  const double rounded = std::round(stamp.sampleTime);  // halves away from zero
  // 2^63 is exact as a double; every double below it converts without overflow.
  constexpr double limit = 9223372036854775808.0;
  if (rounded < -limit || rounded >= limit) return std::nullopt;
  return CaptureTimestamp{stamp.hostTime, static_cast<std::int64_t>(rounded)};
}

std::string_view toString(CaptureGapReason reason) {
  return reason == CaptureGapReason::captureLoss ? "captureLoss" : "routeTransition";
}

json::value toJSON(const Gap& gap) {
  return json::object{{"track", toString(gap.track)},
                      {"startSample", gap.startSample},
                      {"droppedFrames", gap.droppedFrames},
                      {"reason", toString(gap.reason)}};
}

namespace {
std::optional<std::int64_t> int64At(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  if (!v) return std::nullopt;
  if (v->is_int64()) return v->as_int64();
  if (v->is_uint64() && v->as_uint64() <= static_cast<std::uint64_t>(INT64_MAX))
    return static_cast<std::int64_t>(v->as_uint64());
  return std::nullopt;
}
std::optional<std::uint64_t> uint64At(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  if (!v) return std::nullopt;
  if (v->is_uint64()) return v->as_uint64();
  if (v->is_int64() && v->as_int64() >= 0) return static_cast<std::uint64_t>(v->as_int64());
  return std::nullopt;
}
std::optional<std::string_view> stringAt(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  if (!v || !v->is_string()) return std::nullopt;
  return std::string_view(v->as_string());
}
}  // namespace

std::optional<Gap> gapFromJSON(const json::value& value) {
  const auto* o = value.if_object();
  if (!o) return std::nullopt;
  const auto track = stringAt(*o, "track");
  const auto start = int64At(*o, "startSample");
  const auto dropped = int64At(*o, "droppedFrames");
  const auto reason = stringAt(*o, "reason");
  if (!track || !start || !dropped || !reason) return std::nullopt;
  const auto source = trackSourceFromString(*track);
  if (!source || *dropped <= 0) return std::nullopt;
  Gap gap{*source, *start, *dropped, CaptureGapReason::captureLoss};
  if (*reason == "routeTransition")
    gap.reason = CaptureGapReason::routeTransition;
  else if (*reason != "captureLoss")
    return std::nullopt;
  return gap;
}

json::value toJSON(const TrackClock& c) {
  return json::object{{"source", toString(c.source)},       {"sampleRate", c.sampleRate},
                      {"totalFrames", c.totalFrames},       {"firstHostTime", c.firstHostTime},
                      {"lastHostTime", c.lastHostTime},     {"firstSampleTime", c.firstSampleTime},
                      {"lastSampleTime", c.lastSampleTime}, {"droppedFrames", c.droppedFrames}};
}

std::optional<TrackClock> trackClockFromJSON(const json::value& value) {
  const auto* o = value.if_object();
  if (!o) return std::nullopt;
  const auto source = stringAt(*o, "source");
  const auto* rate = o->if_contains("sampleRate");
  TrackClock c;
  const auto s = source ? trackSourceFromString(*source) : std::nullopt;
  if (!s || !rate || !rate->is_number()) return std::nullopt;
  c.source = *s;
  c.sampleRate = rate->to_number<double>();
  const auto total = int64At(*o, "totalFrames");
  const auto firstHost = uint64At(*o, "firstHostTime");
  const auto lastHost = uint64At(*o, "lastHostTime");
  const auto firstSample = int64At(*o, "firstSampleTime");
  const auto lastSample = int64At(*o, "lastSampleTime");
  const auto dropped = int64At(*o, "droppedFrames");
  if (!total || !firstHost || !lastHost || !firstSample || !lastSample || !dropped)
    return std::nullopt;
  c.totalFrames = *total;
  c.firstHostTime = *firstHost;
  c.lastHostTime = *lastHost;
  c.firstSampleTime = *firstSample;
  c.lastSampleTime = *lastSample;
  c.droppedFrames = *dropped;
  return c;
}

json::value toJSON(const DriftInfo& d) {
  return json::object{{"micPPM", d.micPPM},
                      {"systemPPM", d.systemPPM},
                      {"interTrackOffsetSeconds", d.interTrackOffsetSeconds},
                      {"resampleApplied", d.resampleApplied}};
}

using base::Overloaded;

std::string CaptureAccountingError::description() const {
  using E = CaptureAccountingError;
  return std::visit(
      Overloaded{
          [](const E::TrackMismatch& e) {
            return "track mismatch: expected " + std::string(toString(e.expected)) + ", got " +
                   std::string(toString(e.actual));
          },
          [](const E::InvalidFrameLength& e) {
            return "invalid frame length " + std::to_string(e.frameLength);
          },
          [](const E::OutOfOrderSequence& e) {
            return "out-of-order sequence: expected " + std::to_string(e.expected) + ", got " +
                   std::to_string(e.actual);
          },
          [](const E::SampleTimeRegressed& e) {
            return "sample time regressed: expected " + std::to_string(e.expected) + ", got " +
                   std::to_string(e.actual);
          },
          [](const E::UnrecoverableSequenceGap& e) {
            return "unrecoverable sequence gap: expected " + std::to_string(e.expected) + ", got " +
                   std::to_string(e.actual);
          },
          [](const E::AlreadyFinished&) { return std::string("ledger already finished"); },
          [](const E::ArithmeticOverflow&) { return std::string("arithmetic overflow"); },
      },
      value);
}

std::string ClockAlignmentError::description() const {
  const std::string t(toString(track));
  switch (kind) {
    case Kind::unexpectedTrackSource:
      return "unexpected track source: expected " + t + ", got " + std::string(toString(actual));
    case Kind::invalidSampleRate:
      return "invalid sample rate on the " + t + " track";
    case Kind::nonIncreasingHostTime:
      return "host time does not increase on the " + t + " track";
    case Kind::nonIncreasingSampleTime:
      return "sample time does not increase on the " + t + " track";
    case Kind::arithmeticOverflow:
      return "arithmetic overflow on the " + t + " track";
    case Kind::nonFiniteCalculation:
      return "non-finite clock calculation on the " + t + " track";
    case Kind::invalidHostTicksPerSecond:
      return "invalid host ticks per second";
  }
  return "clock alignment error";
}

std::string TrackRecorderError::description() const {
  switch (kind) {
    case Kind::alreadyPrepared:
      return "track recorder already prepared";
    case Kind::notPrepared:
      return "track recorder not prepared";
    case Kind::alreadyStopping:
      return "track recorder already stopping";
    case Kind::invalidBufferBudget:
      return "invalid buffer budget";
  }
  return "track recorder error";
}

std::string CAFTrackWriterError::description() const {
  switch (kind) {
    case Kind::conversionFailed:
      return message;
    case Kind::cannotCreateOutputFormat:
      return "cannot create output format";
    case Kind::cannotCreateConverter:
      return "cannot create converter";
    case Kind::writerClosed:
      return "writer closed";
  }
  return "writer error";
}

std::string TrackRecordingFailure::description() const {
  using F = TrackRecordingFailure;
  return std::visit(
      Overloaded{
          [](const F::Accounting& f) { return "accounting: " + f.error.description(); },
          [](const F::Writer& f) { return "writer: " + f.message; },
          [](const F::SystemExclusion& f) { return "system exclusion: " + f.message; },
          [](const F::SystemOutputRouteChanged&) {
            return std::string("system output route changed");
          },
          [](const F::MicInputRouteChanged&) { return std::string("mic input route changed"); },
          [](const F::InvalidTimestamp&) { return std::string("invalid timestamp"); },
          [](const F::NoCapturedAudio&) { return std::string("no captured audio"); },
      },
      value);
}

json::value toJSON(const TrackRecording& r) {
  json::array gaps;
  for (const auto& g : r.gaps) gaps.push_back(toJSON(g));
  json::object o{{"source", toString(r.clock.source)},
                 {"raw_file", r.rawFileURL},
                 {"clock", toJSON(r.clock)},
                 {"gaps", std::move(gaps)},
                 {"usable", r.usable}};
  if (r.failure)
    o["failure"] = r.failure->description();
  else
    o["failure"] = nullptr;
  return o;
}

}  // namespace tamsel::meeting
