#include "tamsel/sealing/sealing_types.hpp"

#include <boost/json.hpp>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/json.hpp"

namespace tamsel::sealing {

namespace json = boost::json;

std::string StereoTimelineRendererError::description() const {
  using K = Kind;
  std::string text;
  switch (kind) {
    case K::unexpectedTrack:
      text = "unexpected track";
      break;
    case K::failedTrack:
      text = "the track's recording failed";
      break;
    case K::cannotCreateConverter:
      text = "cannot create the drift converter";
      break;
    case K::nonMonoInput:
      text = "the raw track is not mono";
      break;
    case K::conversionFailed:
      text = "conversion failed";
      break;
    case K::invalidBlockSize:
      text = "invalid block size";
      break;
    case K::cannotCreateFormat:
      text = "cannot create the rendered format";
      break;
  }
  if (track) text = std::string(meeting::toString(*track)) + ": " + text;
  if (!detail.empty()) text += " (" + detail + ")";
  return text;
}

std::string AudioArtifactSealerError::description() const {
  std::string text;
  switch (kind) {
    case Kind::noCapturedSignal:
      text = "no captured signal: both tracks hold only digital silence";
      break;
    case Kind::missingTrack:
      text = "no microphone track";
      break;
    case Kind::unreadableInput:
      text = "cannot read the recording";
      break;
    case Kind::sealInProgress:
      text = "another seal of this meeting is running";
      break;
    case Kind::io:
      text = "cannot write the sealed files";
      break;
  }
  if (!detail.empty()) text += ": " + detail;
  return text;
}

namespace {

[[noreturn]] void unreadable(const std::filesystem::path& file, const std::string& why) {
  throw AudioArtifactSealerException(AudioArtifactSealerError{
      AudioArtifactSealerError::Kind::unreadableInput, file.filename().string() + ": " + why});
}

PersistedTrackRecording loadTrack(const MeetingRecordingPaths& paths, TrackSource source) {
  PersistedTrackRecording track;
  track.rawFilePath = paths.rawTrack(source);
  track.clock.source = source;
  track.usable = true;
  const auto journalPath = paths.journal(source);
  std::string text;
  if (!base::readFile(journalPath, text)) {
    // No journal (a track from before journals): one stretch, no gaps, unknown drift. The
    // renderer takes its length from the file.
    return track;
  }
  json::value journal;
  try {
    journal = base::json::parse(text);
  } catch (const std::exception& e) {
    unreadable(journalPath, e.what());
  }
  const auto* o = journal.if_object();
  if (!o) unreadable(journalPath, "not a JSON object");
  const auto* clock = o->if_contains("clock");
  const auto parsed = clock ? meeting::trackClockFromJSON(*clock) : std::nullopt;
  if (!parsed) unreadable(journalPath, "no valid \"clock\"");
  track.clock = *parsed;
  if (const auto* gaps = o->if_contains("gaps")) {
    const auto* array = gaps->if_array();
    if (!array) unreadable(journalPath, "\"gaps\" is not a list");
    for (const auto& g : *array) {
      const auto gap = meeting::gapFromJSON(g);
      if (!gap || gap->droppedFrames <= 0 || gap->startSample < 0)
        unreadable(journalPath, "a gap is not valid: " + json::serialize(g));
      track.gaps.push_back(*gap);
    }
  }
  // Only the final journal knows how the track ended; a journal cut by a crash counts what
  // reached the file, which is usable.
  if (const auto* usable = o->if_contains("usable"); usable && usable->is_bool())
    track.usable = usable->as_bool();
  if (const auto* failure = o->if_contains("failure"); failure && failure->is_string())
    track.failure = std::string(failure->as_string());
  return track;
}

json::value trackJSON(const PersistedTrackRecording& t) {
  return json::object{{"source", meeting::toString(t.clock.source)},
                      {"file", t.rawFilePath.filename().string()},
                      {"clock", meeting::toJSON(t.clock)},
                      {"usable", t.usable}};
}

}  // namespace

MeetingSealingInput MeetingSealingInput::load(const MeetingRecordingPaths& paths) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(paths.micCAF, ec))
    throw AudioArtifactSealerException(
        AudioArtifactSealerError{AudioArtifactSealerError::Kind::missingTrack,
                                 paths.micCAF.string() + " does not exist or is not a file"});
  MeetingSealingInput input;
  input.mic = loadTrack(paths, TrackSource::mic);
  if (std::filesystem::is_regular_file(paths.systemCAF, ec))
    input.system = loadTrack(paths, TrackSource::system);
  return input;
}

json::value JSONMeetingManifestEncoder::toJSON(const TrackManifest& m) {
  json::array tracks;
  for (const auto& t : m.tracks) tracks.push_back(trackJSON(t));
  json::array gaps;
  for (const auto& g : m.gaps) gaps.push_back(meeting::toJSON(g));
  // Insertion order is the key order on disk.
  return json::object{
      {"formatVersion", m.formatVersion},
      {"tracks", std::move(tracks)},
      {"combinedDuration", m.combinedDuration},
      {"gaps", std::move(gaps)},
      {"trackMapping", json::object{{"left", meeting::toString(m.trackMapping.left)},
                                    {"right", meeting::toString(m.trackMapping.right)}}},
      {"driftCorrection", meeting::toJSON(m.driftCorrection)},
      {"sha256", m.sha256}};
}

std::string JSONMeetingManifestEncoder::encode(const TrackManifest& manifest) {
  return base::json::serialize(toJSON(manifest)) + "\n";
}

}  // namespace tamsel::sealing
