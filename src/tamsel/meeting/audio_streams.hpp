#pragma once
// The audio server's streams as plain values, and the pure rules that turn them into the two
// signals meeting detection needs: which processes use audio (AudioProcessSnapshot) and whether
// the default input is in use by someone else. Kept free of libpulse so the rules test by table.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/meeting/meeting_application.hpp"

namespace tamsel::meeting {

// The desktop's own client identifier on the audio server (every connection of ours sets it).
inline constexpr const char* ownAudioApplicationID = "dev.tamsel.desktop";

struct AudioStreamInfo {
  enum class Direction : std::uint8_t { record, playback };
  std::uint32_t index = 0;
  Direction direction = Direction::record;
  // The server's client of the stream; nothing for streams a module owns (loopbacks, remaps).
  std::optional<std::uint32_t> client;
  bool corked = false;
  std::string device;            // the source (record) or sink (playback) it is connected to
  bool deviceIsMonitor = false;  // a record stream on a sink's monitor
  std::uint32_t sampleRate = 0;
  // The stream's properties, completed from its client's where the stream lacks them (under
  // PipeWire the process id may be on the client only).
  std::map<std::string, std::string> properties;
  // False when the server could not tell us the stream's properties.
  bool propertiesRead = true;

  const std::string* property(const std::string& key) const {
    const auto found = properties.find(key);
    return found == properties.end() ? nullptr : &found->second;
  }
};

struct AudioStreamTable {
  std::string defaultSource;
  bool defaultSourceRunning = false;     // the server's state for it is RUNNING
  std::vector<AudioStreamInfo> streams;  // record streams, then playback streams, by index
  bool operator==(const AudioStreamTable&) const = default;
};

// Who "us" is: streams of this process, or of any desktop process (another `tamsel` recording),
// never count as a meeting application or as a call.
struct AudioSelf {
  std::int32_t pid = 0;
  std::string applicationID = ownAudioApplicationID;
};

bool operator==(const AudioStreamInfo& a, const AudioStreamInfo& b);

bool isOwnStream(const AudioStreamInfo& stream, const AudioSelf& self);
// A peak meter (a mixer's level display): the server delivers it a handful of values a second,
// so its rate is tiny; mixers also name the stream "Peak detect".
bool isLevelMeter(const AudioStreamInfo& stream);
// Streams that say nothing about what a person is doing: ours, module-owned ones, level meters
// and records of a monitor (those hear the output, not a microphone).
bool isIgnoredStream(const AudioStreamInfo& stream, const AudioSelf& self);

// Streams grouped by the process id they carry ("application.process.id"), processes in the
// order of their first stream. A stream whose properties could not be read, or whose process id
// is missing or not a positive number, is left out with its process; the rest still count.
AudioProcessSnapshot buildAudioProcessSnapshot(const AudioStreamTable& table,
                                               const AudioSelf& self);

// The default input is in use by someone else: its state is RUNNING and it has an uncorked
// record stream that is not ignored.
bool defaultInputInUse(const AudioStreamTable& table, const AudioSelf& self);

}  // namespace tamsel::meeting
