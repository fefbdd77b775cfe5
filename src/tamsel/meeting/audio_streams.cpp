#include "tamsel/meeting/audio_streams.hpp"

#include <charconv>

namespace tamsel::meeting {

bool operator==(const AudioStreamInfo& a, const AudioStreamInfo& b) {
  return a.index == b.index && a.direction == b.direction && a.client == b.client &&
         a.corked == b.corked && a.device == b.device && a.deviceIsMonitor == b.deviceIsMonitor &&
         a.sampleRate == b.sampleRate && a.properties == b.properties &&
         a.propertiesRead == b.propertiesRead;
}

namespace {

std::optional<std::int32_t> processID(const AudioStreamInfo& stream) {
  const auto* text = stream.property("application.process.id");
  if (!text) return std::nullopt;
  std::int32_t pid = 0;
  const auto* end = text->data() + text->size();
  const auto [ptr, ec] = std::from_chars(text->data(), end, pid);
  if (ec != std::errc() || ptr != end || pid <= 0) return std::nullopt;
  return pid;
}

std::string_view propertyOr(const AudioStreamInfo& stream, const std::string& key) {
  const auto* value = stream.property(key);
  return value ? std::string_view(*value) : std::string_view();
}

}  // namespace

bool isOwnStream(const AudioStreamInfo& stream, const AudioSelf& self) {
  if (self.pid > 0 && processID(stream) == self.pid) return true;
  return !self.applicationID.empty() &&
         propertyOr(stream, "application.id") == std::string_view(self.applicationID);
}

bool isLevelMeter(const AudioStreamInfo& stream) {
  if (stream.direction != AudioStreamInfo::Direction::record) return false;
  return (stream.sampleRate > 0 && stream.sampleRate < 1000) ||
         propertyOr(stream, "media.name") == "Peak detect";
}

bool isIgnoredStream(const AudioStreamInfo& stream, const AudioSelf& self) {
  if (!stream.client) return true;
  if (stream.direction == AudioStreamInfo::Direction::record && stream.deviceIsMonitor) return true;
  return isOwnStream(stream, self) || isLevelMeter(stream);
}

AudioProcessSnapshot buildAudioProcessSnapshot(const AudioStreamTable& table,
                                               const AudioSelf& self) {
  AudioProcessSnapshot snapshot;
  for (const auto& stream : table.streams) {
    if (!stream.propertiesRead || isIgnoredStream(stream, self)) continue;
    const auto pid = processID(stream);
    if (!pid) continue;
    AudioProcessState* process = nullptr;
    for (auto& known : snapshot.states)
      if (known.pid == *pid) process = &known;
    if (!process) {
      process = &snapshot.states.emplace_back();
      process->objectID = *stream.client;
      process->pid = *pid;
    }
    // The first identifier that names a meeting application wins over a plain one, whichever
    // stream of the process says it.
    const auto identifier = processIdentifier(propertyOr(stream, "pipewire.access.portal.app_id"),
                                              propertyOr(stream, "application.id"),
                                              propertyOr(stream, "application.process.binary"));
    if (process->bundleID.empty() || (!MeetingApplicationDetector::family(process->bundleID) &&
                                      MeetingApplicationDetector::family(identifier)))
      if (!identifier.empty()) process->bundleID = identifier;
    if (stream.corked) continue;
    if (stream.direction == AudioStreamInfo::Direction::record)
      process->isRunningInput = true;
    else
      process->isRunningOutput = true;
  }
  return snapshot;
}

bool defaultInputInUse(const AudioStreamTable& table, const AudioSelf& self) {
  if (!table.defaultSourceRunning || table.defaultSource.empty()) return false;
  for (const auto& stream : table.streams)
    if (stream.direction == AudioStreamInfo::Direction::record && !stream.corked &&
        stream.device == table.defaultSource && !isIgnoredStream(stream, self))
      return true;
  return false;
}

}  // namespace tamsel::meeting
