#include "tamsel/meeting/meeting_application.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <set>

namespace tamsel::meeting {

namespace {

constexpr std::array<std::string_view, 3> familyNames{"tencentMeeting", "zoom", "microsoftTeams"};

struct KnownApplication {
  std::string_view identifier;  // lower case
  MeetingApplicationFamily family;
};

// The desktop bundle identifiers, then what the same applications are called on Linux: their
// binaries and Flatpak ids.
constexpr KnownApplication knownApplications[] = {
    {"com.tencent.meeting", MeetingApplicationFamily::tencentMeeting},
    {"us.zoom.xos", MeetingApplicationFamily::zoom},
    {"com.microsoft.teams", MeetingApplicationFamily::microsoftTeams},
    {"com.microsoft.teams2", MeetingApplicationFamily::microsoftTeams},
    {"zoom", MeetingApplicationFamily::zoom},
    {"us.zoom.zoom", MeetingApplicationFamily::zoom},
    {"teams-for-linux", MeetingApplicationFamily::microsoftTeams},
    {"com.github.ismaelmartinez.teams_for_linux", MeetingApplicationFamily::microsoftTeams},
    {"wemeetapp", MeetingApplicationFamily::tencentMeeting},
};

std::string lowerASCII(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

}  // namespace

std::string_view toString(MeetingApplicationFamily family) {
  return familyNames[static_cast<std::size_t>(family)];
}

std::optional<MeetingApplicationFamily> meetingApplicationFamilyFromString(std::string_view text) {
  for (std::size_t i = 0; i < familyNames.size(); ++i)
    if (familyNames[i] == text) return static_cast<MeetingApplicationFamily>(i);
  return std::nullopt;
}

boost::json::value toJSON(const MeetingApplicationIdentity& identity) {
  return boost::json::object{{"family", toString(identity.family)},
                             {"bundleID", identity.bundleID},
                             {"pid", identity.pid}};
}

std::optional<MeetingApplicationIdentity> meetingApplicationIdentityFromJSON(
    const boost::json::value& json) {
  const auto* o = json.if_object();
  if (!o) return std::nullopt;
  const auto* family = o->if_contains("family");
  const auto* bundle = o->if_contains("bundleID");
  const auto* pid = o->if_contains("pid");
  if (!family || !family->is_string() || !bundle || !bundle->is_string() || !pid ||
      !pid->is_int64())
    return std::nullopt;
  const auto parsed = meetingApplicationFamilyFromString(family->as_string());
  const auto value = pid->as_int64();
  if (!parsed || value < INT32_MIN || value > INT32_MAX) return std::nullopt;
  return MeetingApplicationIdentity{*parsed, std::string(bundle->as_string()),
                                    static_cast<std::int32_t>(value)};
}

std::string describe(const MeetingApplicationDetection& detection) {
  if (const auto* identity = detection.identity())
    return fmt::format("{} ({}, PID {})", toString(identity->family), identity->bundleID,
                       identity->pid);
  return detection.isAmbiguous() ? "ambiguous" : "none";
}

std::optional<MeetingApplicationFamily> MeetingApplicationDetector::family(
    std::string_view identifier) {
  if (identifier.empty()) return std::nullopt;
  const auto lowered = lowerASCII(identifier);
  for (const auto& known : knownApplications)
    if (known.identifier == lowered) return known.family;
  return std::nullopt;
}

MeetingApplicationDetection MeetingApplicationDetector::detect(
    const AudioProcessSnapshot& snapshot) {
  std::set<MeetingApplicationIdentity> identities;
  for (const auto& process : snapshot.states) {
    if (!process.isRunningInput) continue;
    if (const auto found = family(process.bundleID))
      identities.insert({*found, process.bundleID, process.pid});
  }
  if (identities.size() == 1) return MeetingApplicationDetection::identified(*identities.begin());
  return identities.empty() ? MeetingApplicationDetection::none()
                            : MeetingApplicationDetection::ambiguous();
}

bool MeetingApplicationDetector::isRunning(MeetingApplicationFamily wanted,
                                           const AudioProcessSnapshot& snapshot) {
  return std::any_of(snapshot.states.begin(), snapshot.states.end(), [&](const auto& process) {
    return (process.isRunningInput || process.isRunningOutput) &&
           family(process.bundleID) == wanted;
  });
}

std::string processIdentifier(std::string_view flatpakAppID, std::string_view applicationID,
                              std::string_view binary) {
  const std::string_view candidates[] = {flatpakAppID, applicationID, binary};
  for (const auto candidate : candidates)
    if (MeetingApplicationDetector::family(candidate)) return std::string(candidate);
  for (const auto candidate : candidates)
    if (!candidate.empty()) return std::string(candidate);
  return {};
}

}  // namespace tamsel::meeting
