#pragma once
// What sealing reads and writes: the tracks as capture left them on disk, the manifest that
// describes the sealed file, and the closed error families of the sealing steps. Plain values.
#include <boost/json/value.hpp>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/meeting/meeting_recording_paths.hpp"
#include "tamsel/meeting/track_types.hpp"

namespace tamsel::sealing {

using meeting::DriftInfo;
using meeting::Gap;
using meeting::MeetingRecordingPaths;
using meeting::TrackClock;
using meeting::TrackSource;

// One raw track as read back from disk: the CAF file and the clock and gaps from its journal.
struct PersistedTrackRecording {
  std::filesystem::path rawFilePath;
  TrackClock clock;
  std::vector<Gap> gaps;
  bool usable = false;
  // What capture said when the track ended unusable (empty when usable or unknown).
  std::string failure;
};

struct StereoTimelineRendererError {
  enum class Kind {
    unexpectedTrack,
    failedTrack,
    cannotCreateConverter,
    nonMonoInput,
    conversionFailed,
    invalidBlockSize,
    cannotCreateFormat
  };
  Kind kind;
  std::optional<TrackSource> track;
  std::string detail;  // the file, the library's message, the value refused
  std::string description() const;
};

struct M4AAudioEncoderError {
  std::string message;
  std::string description() const { return "cannot encode the meeting as M4A: " + message; }
};

struct AudioArtifactSealerError {
  enum class Kind {
    noCapturedSignal,
    missingTrack,     // no microphone track in the folder
    unreadableInput,  // a journal or track that cannot be read back
    sealInProgress,   // another seal holds the folder
    io                // a file we write could not be written or installed
  };
  Kind kind;
  std::string detail;
  std::string description() const;
  // Whether trying again later can help (a full disk can; all-zero tracks cannot).
  bool retryable() const { return kind == Kind::io || kind == Kind::sealInProgress; }
};

using StereoTimelineRendererException = meeting::MeetingException<StereoTimelineRendererError>;
using M4AAudioEncoderException = meeting::MeetingException<M4AAudioEncoderError>;
using AudioArtifactSealerException = meeting::MeetingException<AudioArtifactSealerError>;

// The tracks of one meeting folder. A meeting recorded with the microphone alone has no system
// track; it seals with a silent right channel.
struct MeetingSealingInput {
  PersistedTrackRecording mic;
  std::optional<PersistedTrackRecording> system;

  // Reads the tracks back from what capture wrote: each raw track with its journal, also one a
  // crash cut short (the file may then hold more frames than the journal last counted). A track
  // without a journal is taken as one gapless stretch of unknown drift. Throws
  // AudioArtifactSealerException (missingTrack, unreadableInput); the renderer checks the rest.
  static MeetingSealingInput load(const MeetingRecordingPaths& paths);
};

struct TrackMapping {
  TrackSource left = TrackSource::mic;
  TrackSource right = TrackSource::system;
};

struct TrackManifestFormat {
  static constexpr int currentVersion = 1;
};

struct TrackManifest {
  int formatVersion = TrackManifestFormat::currentVersion;
  std::vector<PersistedTrackRecording> tracks;
  double combinedDuration = 0;  // seconds
  std::vector<Gap> gaps;        // both tracks', each on its own track's timeline
  TrackMapping trackMapping;
  DriftInfo driftCorrection;
  std::string sha256;  // lower-case hex of the combined file
};

struct RecordingArtifact {
  std::filesystem::path combinedFileURL;
  TrackManifest manifest;
  bool usable = false;
};

struct MeetingSealingOutput {
  RecordingArtifact artifact;
  std::filesystem::path manifestURL;
  std::vector<std::filesystem::path> rawTrackURLs;
};

// The manifest file: keys "formatVersion", "tracks", "combinedDuration", "gaps", "trackMapping",
// "driftCorrection", "sha256" in this order; track files named relative to the meeting folder.
struct JSONMeetingManifestEncoder {
  static boost::json::value toJSON(const TrackManifest& manifest);
  static std::string encode(const TrackManifest& manifest);  // one line of text and a newline
};

}  // namespace tamsel::sealing
