#pragma once
// The values a capture track is described by: its source, time stamps, chunk metadata, gaps,
// clocks, and the closed error families of accounting, alignment, recording and writing. Plain
// values, safe to copy between threads.
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tamsel::meeting {

enum class TrackSource : std::uint8_t { mic = 0, system = 1 };
std::string_view toString(TrackSource source);
std::optional<TrackSource> trackSourceFromString(std::string_view text);

// A time stamp on the host clock (CLOCK_MONOTONIC ns here) and the device's sample clock.
struct CaptureTimestamp {
  std::uint64_t hostTime = 0;
  std::int64_t sampleTime = 0;
  bool operator==(const CaptureTimestamp&) const = default;
};

// What a platform callback reports: a fractional sample time and validity flags.
struct PlatformTimestamp {
  double sampleTime = 0;
  std::uint64_t hostTime = 0;
  bool sampleTimeValid = false;
  bool hostTimeValid = false;
};

// Usable only with both flags set and a finite sample time that rounds (halves away from zero)
// into a signed 64-bit value; nothing otherwise.
std::optional<CaptureTimestamp> toCaptureTimestamp(const PlatformTimestamp& stamp);

enum class CaptureGapReason : std::uint8_t { captureLoss, routeTransition };
std::string_view toString(CaptureGapReason reason);

struct AudioChunkMeta {
  TrackSource track = TrackSource::mic;
  std::uint64_t sequence = 0;
  std::uint64_t hostTime = 0;
  std::int64_t sampleTime = 0;
  std::int64_t frameLength = 0;
  std::optional<CaptureGapReason> gapReasonBefore;
};

struct Gap {
  TrackSource track = TrackSource::mic;
  std::int64_t startSample = 0;
  std::int64_t droppedFrames = 0;
  CaptureGapReason reason = CaptureGapReason::captureLoss;
  bool operator==(const Gap&) const = default;
};
boost::json::value toJSON(const Gap& gap);
std::optional<Gap> gapFromJSON(const boost::json::value& json);

struct CaptureAccountingError {
  struct TrackMismatch {
    TrackSource expected, actual;
  };
  struct InvalidFrameLength {
    std::int64_t frameLength;
  };
  struct OutOfOrderSequence {
    std::uint64_t expected, actual;
  };
  struct SampleTimeRegressed {
    std::int64_t expected, actual;
  };
  struct UnrecoverableSequenceGap {
    std::uint64_t expected, actual;
  };
  struct AlreadyFinished {};
  struct ArithmeticOverflow {};
  std::variant<TrackMismatch, InvalidFrameLength, OutOfOrderSequence, SampleTimeRegressed,
               UnrecoverableSequenceGap, AlreadyFinished, ArithmeticOverflow>
      value;
  std::string description() const;
};

struct TrackClock {
  TrackSource source = TrackSource::mic;
  double sampleRate = 48000;
  std::int64_t totalFrames = 0;
  std::uint64_t firstHostTime = 0, lastHostTime = 0;
  std::int64_t firstSampleTime = 0, lastSampleTime = 0;
  std::int64_t droppedFrames = 0;
  bool operator==(const TrackClock&) const = default;
};
boost::json::value toJSON(const TrackClock& clock);
std::optional<TrackClock> trackClockFromJSON(const boost::json::value& json);

struct ClockAlignment {
  double micPPM = 0, systemPPM = 0, interTrackOffsetSeconds = 0;
  bool resampleRequired = false;
};

struct DriftInfo {
  double micPPM = 0, systemPPM = 0, interTrackOffsetSeconds = 0;
  bool resampleApplied = false;
};
boost::json::value toJSON(const DriftInfo& drift);

struct ClockAlignmentError {
  enum class Kind {
    unexpectedTrackSource,
    invalidSampleRate,
    nonIncreasingHostTime,
    nonIncreasingSampleTime,
    arithmeticOverflow,
    nonFiniteCalculation,
    invalidHostTicksPerSecond
  };
  Kind kind;
  // The track whose clock failed (for unexpectedTrackSource: the expected one).
  TrackSource track = TrackSource::mic;
  TrackSource actual = TrackSource::mic;  // unexpectedTrackSource only
  bool operator==(const ClockAlignmentError&) const = default;
  std::string description() const;
};

struct TrackRecorderError {
  enum class Kind { alreadyPrepared, notPrepared, alreadyStopping, invalidBufferBudget };
  Kind kind;
  std::string description() const;
};

struct CAFTrackWriterError {
  enum class Kind {
    conversionFailed,
    cannotCreateOutputFormat,
    cannotCreateConverter,
    writerClosed
  };
  Kind kind;
  std::string message;  // conversionFailed: what the converter said
  std::string description() const;
};

struct TrackRecordingFailure {
  struct Accounting {
    CaptureAccountingError error;
  };
  struct Writer {
    std::string message;
  };
  struct SystemExclusion {
    std::string message;
  };
  struct SystemOutputRouteChanged {};
  struct MicInputRouteChanged {};
  struct InvalidTimestamp {};
  struct NoCapturedAudio {};
  std::variant<Accounting, Writer, SystemExclusion, SystemOutputRouteChanged, MicInputRouteChanged,
               InvalidTimestamp, NoCapturedAudio>
      value;
  std::string description() const;
};

struct TrackRecording {
  std::string rawFileURL;
  TrackClock clock;
  std::vector<Gap> gaps;
  bool usable = false;
  std::optional<TrackRecordingFailure> failure;
};
// One object: "source", "raw_file", "clock", "gaps", "usable", "failure" (null or text).
boost::json::value toJSON(const TrackRecording& recording);

// Thrown by operations that fail with one of the families above.
template <class Error>
class MeetingException : public std::runtime_error {
 public:
  explicit MeetingException(Error error)
      : std::runtime_error(error.description()), error_(std::move(error)) {}
  const Error& error() const { return error_; }

 private:
  Error error_;
};
using CaptureAccountingException = MeetingException<CaptureAccountingError>;
using ClockAlignmentException = MeetingException<ClockAlignmentError>;
using TrackRecorderException = MeetingException<TrackRecorderError>;
using CAFTrackWriterException = MeetingException<CAFTrackWriterError>;

}  // namespace tamsel::meeting
