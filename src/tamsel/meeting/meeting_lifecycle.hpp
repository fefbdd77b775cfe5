#pragma once
// When a recording starts and stops: a pure reducer from start, presence, grace-timer and stop
// events to phases and the actions the controller performs, plus the call-activity reducer that
// tells a call from the desktop's own use of the microphone.
#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tamsel/base/dates.hpp"
#include "tamsel/meeting/meeting_application.hpp"

namespace tamsel::meeting {

// Whether the default input device is in use by someone else. The desktop's own recording is
// never taken for a call: input that starts running while we record emits nothing and leaves no
// call behind to end.
class CallActivityReducer {
 public:
  enum class Event : std::uint8_t { callStarted, callEnded };

  std::optional<Event> inputRunningChanged(bool running);
  void setSelfRecording(bool recording) { selfRecording_ = recording; }

  bool inputRunning() const { return inputRunning_; }
  bool selfRecording() const { return selfRecording_; }
  bool callActive() const { return callActive_; }

 private:
  bool inputRunning_ = false;
  bool selfRecording_ = false;
  bool callActive_ = false;
};
std::string_view toString(CallActivityReducer::Event event);

struct MeetingStartOrigin {
  struct Detected {
    MeetingApplicationIdentity identity;
    bool operator==(const Detected&) const = default;
  };
  struct Manual {
    bool operator==(const Manual&) const = default;
  };
  std::variant<Detected, Manual> value;
  bool operator==(const MeetingStartOrigin&) const = default;

  static MeetingStartOrigin detected(MeetingApplicationIdentity identity) {
    return {Detected{std::move(identity)}};
  }
  static MeetingStartOrigin manual() { return {Manual{}}; }
  const MeetingApplicationIdentity* detectedIdentity() const {
    const auto* d = std::get_if<Detected>(&value);
    return d ? &d->identity : nullptr;
  }
};
// {"detected": {"_0": identity}} or {"manual": {}}
boost::json::value toJSON(const MeetingStartOrigin& origin);
std::optional<MeetingStartOrigin> meetingStartOriginFromJSON(const boost::json::value& json);

enum class MeetingStopReason : std::uint8_t { explicit_, detectedApplicationEnded, sleep };
std::string_view toString(MeetingStopReason reason);  // "explicit", ...

struct MeetingGraceToken {
  std::int64_t rawValue = 0;
  bool operator==(const MeetingGraceToken&) const = default;
};

struct MeetingLifecyclePhase {
  struct Recording {
    MeetingStartOrigin origin;
    bool operator==(const Recording&) const = default;
  };
  struct EndingGrace {
    MeetingStartOrigin origin;
    base::Timestamp deadline;
    MeetingGraceToken token;
    bool operator==(const EndingGrace&) const = default;
  };
  struct Stopping {
    MeetingStopReason reason;
    bool operator==(const Stopping&) const = default;
  };
  struct Idle {
    bool operator==(const Idle&) const = default;
  };
  std::variant<Recording, EndingGrace, Stopping, Idle> value{Idle{}};
  bool operator==(const MeetingLifecyclePhase&) const = default;
};
std::string describe(const MeetingLifecyclePhase& phase);

struct MeetingLifecycleAction {
  struct ScheduleGrace {
    base::Timestamp deadline;
    MeetingGraceToken token;
    bool operator==(const ScheduleGrace&) const = default;
  };
  struct Stop {
    MeetingStopReason reason;
    bool operator==(const Stop&) const = default;
  };
  struct CancelGrace {
    bool operator==(const CancelGrace&) const = default;
  };
  std::variant<ScheduleGrace, Stop, CancelGrace> value;
  bool operator==(const MeetingLifecycleAction&) const = default;
};

// Every operation that changes the phase, except graceExpired, first increments `generation`; a
// grace token is the generation right after the increment made when its grace began, so tokens
// are never reused and a timer that fires for an old grace, or early, does nothing.
class MeetingLifecycleReducer {
 public:
  using Actions = std::vector<MeetingLifecycleAction>;

  explicit MeetingLifecycleReducer(double graceSeconds) : graceSeconds_(graceSeconds) {}

  void start(MeetingStartOrigin origin);
  Actions applicationPresenceChanged(bool present, base::Timestamp now);
  Actions graceExpired(MeetingGraceToken token, base::Timestamp now);
  // Once the user keeps recording, the detected application's absence no longer ends it.
  Actions keepRecording();
  Actions requestStop(MeetingStopReason reason);
  void reset();

  const MeetingLifecyclePhase& phase() const { return phase_; }
  bool isInGrace() const {
    return std::holds_alternative<MeetingLifecyclePhase::EndingGrace>(phase_.value);
  }
  double graceSeconds() const { return graceSeconds_; }
  std::int64_t generation() const { return generation_; }

 private:
  MeetingLifecyclePhase phase_;
  double graceSeconds_;
  std::int64_t generation_ = 0;
};

}  // namespace tamsel::meeting
