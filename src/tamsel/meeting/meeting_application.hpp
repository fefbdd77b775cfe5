#pragma once
// Which running processes are meeting applications using audio. Pure functions over a snapshot
// of the audio server's processes; the snapshot itself comes from AudioProcessObserver.
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tamsel::meeting {

enum class MeetingApplicationFamily : std::uint8_t { tencentMeeting, zoom, microsoftTeams };
std::string_view toString(MeetingApplicationFamily family);
std::optional<MeetingApplicationFamily> meetingApplicationFamilyFromString(std::string_view text);

struct MeetingApplicationIdentity {
  MeetingApplicationFamily family = MeetingApplicationFamily::zoom;
  std::string bundleID;  // as the process reported it, case kept
  std::int32_t pid = 0;
  bool operator==(const MeetingApplicationIdentity&) const = default;
  auto operator<=>(const MeetingApplicationIdentity&) const = default;
};
// {"family", "bundleID", "pid"}
boost::json::value toJSON(const MeetingApplicationIdentity& identity);
std::optional<MeetingApplicationIdentity> meetingApplicationIdentityFromJSON(
    const boost::json::value& json);

// One process as the audio server sees it. On Linux a process is the set of streams that carry
// its process id; `objectID` is the server's index of the client of its first stream, and
// `bundleID` the identifier chosen by `processIdentifier`.
struct AudioProcessState {
  std::uint32_t objectID = 0;
  std::int32_t pid = 0;
  std::string bundleID;  // empty when unknown
  bool isRunningInput = false;
  bool isRunningOutput = false;
  bool operator==(const AudioProcessState&) const = default;
};

struct AudioProcessSnapshot {
  std::vector<AudioProcessState> states;  // in the order the server lists the processes
  bool operator==(const AudioProcessSnapshot&) const = default;
};

struct MeetingApplicationDetection {
  struct Identified {
    MeetingApplicationIdentity identity;
    bool operator==(const Identified&) const = default;
  };
  struct None {
    bool operator==(const None&) const = default;
  };
  struct Ambiguous {
    bool operator==(const Ambiguous&) const = default;
  };
  std::variant<Identified, None, Ambiguous> value;
  bool operator==(const MeetingApplicationDetection&) const = default;

  static MeetingApplicationDetection identified(MeetingApplicationIdentity identity) {
    return {Identified{std::move(identity)}};
  }
  static MeetingApplicationDetection none() { return {None{}}; }
  static MeetingApplicationDetection ambiguous() { return {Ambiguous{}}; }
  const MeetingApplicationIdentity* identity() const {
    const auto* found = std::get_if<Identified>(&value);
    return found ? &found->identity : nullptr;
  }
  bool isAmbiguous() const { return std::holds_alternative<Ambiguous>(value); }
};
std::string describe(const MeetingApplicationDetection& detection);

struct MeetingApplicationDetector {
  // The family an identifier names: lower-cased, then matched exactly against the table of
  // bundle identifiers, Linux binary names and Flatpak ids.
  static std::optional<MeetingApplicationFamily> family(std::string_view identifier);
  // Exactly one identity among the processes running input: identified; none; or ambiguous
  // (two applications, or two processes of one application), which never starts a recording.
  static MeetingApplicationDetection detect(const AudioProcessSnapshot& snapshot);
  // Whether any process of the family still uses audio at all (input or output).
  static bool isRunning(MeetingApplicationFamily family, const AudioProcessSnapshot& snapshot);
};

// The identifier a process is known by, from what its streams say of it: the first candidate
// that names a meeting application (Flatpak app id, then application.id, then the binary), else
// the first one that is set. Empty when none is.
std::string processIdentifier(std::string_view flatpakAppID, std::string_view applicationID,
                              std::string_view binary);

}  // namespace tamsel::meeting
