// Meeting detection: the identifier table, detect/isRunning, and how the server's streams become
// processes and "the microphone is in use".
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "tamsel/meeting/audio_streams.hpp"
#include "tamsel/meeting/meeting_application.hpp"

namespace tamsel::meeting {
namespace {

using F = MeetingApplicationFamily;
using D = MeetingApplicationDetector;

AudioProcessState process(std::int32_t pid, std::string id, bool input, bool output) {
  return {static_cast<std::uint32_t>(pid + 1000), pid, std::move(id), input, output};
}

TEST(MeetingApplicationDetector, IdentifierTableLowerCasesAndMatchesExactly) {
  const std::pair<const char*, std::optional<F>> cases[] = {
      {"com.tencent.meeting", F::tencentMeeting},
      {"US.ZOOM.XOS", F::zoom},
      {"com.microsoft.teams", F::microsoftTeams},
      {"com.microsoft.teams2", F::microsoftTeams},
      {"zoom", F::zoom},
      {"us.zoom.Zoom", F::zoom},
      {"teams-for-linux", F::microsoftTeams},
      {"com.github.IsmaelMartinez.teams_for_linux", F::microsoftTeams},
      {"wemeetapp", F::tencentMeeting},
      {"zoom.real", std::nullopt},
      {"us.zoom.xos.helper", std::nullopt},
      {" zoom", std::nullopt},
      {"firefox", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [id, family] : cases) EXPECT_EQ(D::family(id), family) << id;
}

TEST(MeetingApplicationDetector, OnlyInputIdentifiesOneApplication) {
  // Upper-case Zoom running input: identified, bundle id kept as reported.
  const AudioProcessSnapshot zoomTalking{
      {process(1, "firefox", true, true), process(42, "US.ZOOM.XOS", true, false)}};
  EXPECT_EQ(D::detect(zoomTalking),
            MeetingApplicationDetection::identified({F::zoom, "US.ZOOM.XOS", 42}));

  // Output only: not identified, but still present.
  const AudioProcessSnapshot zoomListening{{process(42, "us.zoom.xos", false, true)}};
  EXPECT_EQ(D::detect(zoomListening), MeetingApplicationDetection::none());
  EXPECT_TRUE(D::isRunning(F::zoom, zoomListening));
  EXPECT_FALSE(D::isRunning(F::microsoftTeams, zoomListening));

  // Listed but using no audio at all: gone.
  EXPECT_FALSE(D::isRunning(F::zoom, {{process(42, "zoom", false, false)}}));

  // Two applications, or two processes of one: ambiguous.
  EXPECT_TRUE(
      D::detect({{process(42, "zoom", true, false), process(7, "teams-for-linux", true, true)}})
          .isAmbiguous());
  EXPECT_TRUE(D::detect({{process(42, "zoom", true, false), process(43, "zoom", true, false)}})
                  .isAmbiguous());
  // The same process listed twice is one identity.
  EXPECT_EQ(D::detect({{process(42, "zoom", true, false), process(42, "zoom", true, true)}}),
            MeetingApplicationDetection::identified({F::zoom, "zoom", 42}));
  EXPECT_EQ(D::detect({}), MeetingApplicationDetection::none());
}

TEST(MeetingApplicationIdentity, JSONKeysAndRoundTrip) {
  const MeetingApplicationIdentity identity{F::microsoftTeams, "Teams-For-Linux", 99};
  EXPECT_EQ(boost::json::serialize(toJSON(identity)),
            R"({"family":"microsoftTeams","bundleID":"Teams-For-Linux","pid":99})");
  EXPECT_EQ(meetingApplicationIdentityFromJSON(toJSON(identity)), identity);
  EXPECT_FALSE(meetingApplicationIdentityFromJSON(
      boost::json::parse(R"({"family":"skype","bundleID":"x","pid":1})")));
}

TEST(ProcessIdentifier, PrefersAnIdentifierThatNamesAMeetingApplication) {
  EXPECT_EQ(processIdentifier("us.zoom.Zoom", "", "zoom"), "us.zoom.Zoom");
  EXPECT_EQ(processIdentifier("", "org.example.Player", "zoom"), "zoom");
  EXPECT_EQ(processIdentifier("", "org.example.Player", "player"), "org.example.Player");
  EXPECT_EQ(processIdentifier("", "", "pacat"), "pacat");
  EXPECT_EQ(processIdentifier("", "", ""), "");
}

// ---- streams to processes ----

using Dir = AudioStreamInfo::Direction;

AudioStreamInfo stream(std::uint32_t index, Dir direction, std::optional<std::int32_t> pid,
                       std::string binary, bool corked = false) {
  AudioStreamInfo s;
  s.index = index;
  s.direction = direction;
  s.client = index + 100;
  s.corked = corked;
  s.device = direction == Dir::record ? "mic" : "speakers";
  s.sampleRate = 48000;
  if (pid) s.properties["application.process.id"] = std::to_string(*pid);
  if (!binary.empty()) s.properties["application.process.binary"] = binary;
  return s;
}

const AudioSelf self{500, ownAudioApplicationID};

TEST(AudioProcessSnapshot, GroupsStreamsByProcessAndRunningMeansUncorked) {
  AudioStreamTable table;
  table.defaultSource = "mic";
  table.streams = {stream(1, Dir::record, 42, "zoom"), stream(2, Dir::record, 7, "arecord", true),
                   stream(3, Dir::playback, 42, "zoom", true),
                   stream(4, Dir::playback, 7, "arecord"),
                   stream(5, Dir::playback, 9, "mpv", true)};
  const auto snapshot = buildAudioProcessSnapshot(table, self);
  ASSERT_EQ(snapshot.states.size(), 3u);
  EXPECT_EQ(snapshot.states[0], (AudioProcessState{101, 42, "zoom", true, false}));
  EXPECT_EQ(snapshot.states[1], (AudioProcessState{102, 7, "arecord", false, true}));
  EXPECT_EQ(snapshot.states[2], (AudioProcessState{105, 9, "mpv", false, false}));
}

TEST(AudioProcessSnapshot, IgnoresOursModulesMonitorsMetersAndUnreadableStreams) {
  AudioStreamTable table;
  auto ours = stream(1, Dir::record, 500, "tamsel");
  auto otherTamsel = stream(2, Dir::record, 501, "tamsel");
  otherTamsel.properties["application.id"] = ownAudioApplicationID;
  auto loopback = stream(3, Dir::record, 42, "zoom");
  loopback.client.reset();
  auto monitor = stream(4, Dir::record, 43, "zoom");
  monitor.deviceIsMonitor = true;
  auto meter = stream(5, Dir::record, 44, "zoom");
  meter.sampleRate = 25;
  auto peak = stream(6, Dir::record, 45, "zoom");
  peak.properties["media.name"] = "Peak detect";
  auto unreadable = stream(7, Dir::record, 46, "zoom");
  unreadable.propertiesRead = false;
  auto badPid = stream(8, Dir::record, std::nullopt, "zoom");
  badPid.properties["application.process.id"] = "12x";
  auto noPid = stream(9, Dir::record, std::nullopt, "zoom");
  table.streams = {
      ours, otherTamsel, loopback, monitor, meter,
      peak, unreadable,  badPid,   noPid,   stream(10, Dir::record, 60, "teams-for-linux")};
  const auto snapshot = buildAudioProcessSnapshot(table, self);
  ASSERT_EQ(snapshot.states.size(), 1u) << "only the last stream counts";
  EXPECT_EQ(snapshot.states[0].pid, 60);
  // Every Zoom stream above was one to ignore, so Zoom is not present.
  EXPECT_FALSE(MeetingApplicationDetector::isRunning(F::zoom, snapshot));
}

TEST(AudioProcessSnapshot, FlatpakAndApplicationIDsIdentifyTheProcess) {
  AudioStreamTable table;
  auto playback = stream(1, Dir::playback, 42, "zoom.real");
  auto record = stream(2, Dir::record, 42, "zoom.real");
  record.properties["pipewire.access.portal.app_id"] = "us.zoom.Zoom";
  table.streams = {playback, record};
  const auto snapshot = buildAudioProcessSnapshot(table, self);
  ASSERT_EQ(snapshot.states.size(), 1u);
  EXPECT_EQ(snapshot.states[0].bundleID, "us.zoom.Zoom");
  EXPECT_EQ(MeetingApplicationDetector::detect(snapshot),
            MeetingApplicationDetection::identified({F::zoom, "us.zoom.Zoom", 42}));
}

TEST(DefaultInputInUse, NeedsARunningDefaultSourceAndAForeignUncorkedRecordStream) {
  AudioStreamTable table;
  table.defaultSource = "mic";
  table.defaultSourceRunning = true;
  EXPECT_FALSE(defaultInputInUse(table, self));

  table.streams = {stream(1, Dir::record, 500, "tamsel")};  // our own recording
  EXPECT_FALSE(defaultInputInUse(table, self));
  auto meter = stream(2, Dir::record, 70, "pavucontrol");
  meter.sampleRate = 25;
  table.streams.push_back(meter);
  EXPECT_FALSE(defaultInputInUse(table, self));
  table.streams.push_back(stream(3, Dir::record, 71, "arecord", true));  // corked
  EXPECT_FALSE(defaultInputInUse(table, self));
  auto elsewhere = stream(4, Dir::record, 72, "arecord");
  elsewhere.device = "usb-headset";  // not the default source
  table.streams.push_back(elsewhere);
  EXPECT_FALSE(defaultInputInUse(table, self));
  table.streams.push_back(stream(5, Dir::playback, 73, "mpv"));
  EXPECT_FALSE(defaultInputInUse(table, self));

  table.streams.push_back(stream(6, Dir::record, 74, "browser"));
  EXPECT_TRUE(defaultInputInUse(table, self));
  table.defaultSourceRunning = false;
  EXPECT_FALSE(defaultInputInUse(table, self));
  // The default moved to the headset that arecord uses.
  table.defaultSourceRunning = true;
  table.defaultSource = "usb-headset";
  table.streams.pop_back();
  EXPECT_TRUE(defaultInputInUse(table, self));
}

}  // namespace
}  // namespace tamsel::meeting
