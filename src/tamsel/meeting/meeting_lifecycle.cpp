#include "tamsel/meeting/meeting_lifecycle.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cmath>

#include "tamsel/base/overloaded.hpp"

namespace tamsel::meeting {

std::optional<CallActivityReducer::Event> CallActivityReducer::inputRunningChanged(bool running) {
  if (running == inputRunning_) return std::nullopt;
  inputRunning_ = running;
  if (running) {
    if (selfRecording_) return std::nullopt;
    callActive_ = true;
    return Event::callStarted;
  }
  if (!callActive_) return std::nullopt;
  callActive_ = false;
  return Event::callEnded;
}

std::string_view toString(CallActivityReducer::Event event) {
  return event == CallActivityReducer::Event::callStarted ? "callStarted" : "callEnded";
}

boost::json::value toJSON(const MeetingStartOrigin& origin) {
  if (const auto* identity = origin.detectedIdentity())
    return boost::json::object{{"detected", boost::json::object{{"_0", toJSON(*identity)}}}};
  return boost::json::object{{"manual", boost::json::object{}}};
}

std::optional<MeetingStartOrigin> meetingStartOriginFromJSON(const boost::json::value& json) {
  const auto* o = json.if_object();
  if (!o || o->size() != 1) return std::nullopt;
  if (const auto* manual = o->if_contains("manual"))
    return manual->is_object() ? std::optional(MeetingStartOrigin::manual()) : std::nullopt;
  const auto* detected = o->if_contains("detected");
  const auto* inner = detected ? detected->if_object() : nullptr;
  const auto* identity = inner ? inner->if_contains("_0") : nullptr;
  if (!identity) return std::nullopt;
  auto parsed = meetingApplicationIdentityFromJSON(*identity);
  if (!parsed) return std::nullopt;
  return MeetingStartOrigin::detected(std::move(*parsed));
}

std::string_view toString(MeetingStopReason reason) {
  switch (reason) {
    case MeetingStopReason::explicit_:
      return "explicit";
    case MeetingStopReason::detectedApplicationEnded:
      return "detectedApplicationEnded";
    case MeetingStopReason::sleep:
      return "sleep";
  }
  return "explicit";
}

std::string describe(const MeetingLifecyclePhase& phase) {
  const auto origin = [](const MeetingStartOrigin& o) {
    const auto* identity = o.detectedIdentity();
    return identity ? fmt::format("detected {}", toString(identity->family))
                    : std::string("manual");
  };
  return std::visit(
      base::Overloaded{[&](const MeetingLifecyclePhase::Recording& r) {
                         return fmt::format("recording ({})", origin(r.origin));
                       },
                       [&](const MeetingLifecyclePhase::EndingGrace& g) {
                         return fmt::format("ending grace ({}) until {}", origin(g.origin),
                                            base::formatISO8601(g.deadline));
                       },
                       [](const MeetingLifecyclePhase::Stopping& s) {
                         return fmt::format("stopping ({})", toString(s.reason));
                       },
                       [](const MeetingLifecyclePhase::Idle&) { return std::string("idle"); }},
      phase.value);
}

void MeetingLifecycleReducer::start(MeetingStartOrigin origin) {
  ++generation_;
  phase_.value = MeetingLifecyclePhase::Recording{std::move(origin)};
}

MeetingLifecycleReducer::Actions MeetingLifecycleReducer::applicationPresenceChanged(
    bool present, base::Timestamp now) {
  using Phase = MeetingLifecyclePhase;
  if (auto* recording = std::get_if<Phase::Recording>(&phase_.value)) {
    if (present || !recording->origin.detectedIdentity()) return {};
    ++generation_;
    const auto deadline = now + std::chrono::duration_cast<std::chrono::microseconds>(
                                    std::chrono::duration<double>(graceSeconds_));
    const MeetingGraceToken token{generation_};
    phase_.value = Phase::EndingGrace{std::move(recording->origin), deadline, token};
    return {{MeetingLifecycleAction::ScheduleGrace{deadline, token}}};
  }
  if (auto* grace = std::get_if<Phase::EndingGrace>(&phase_.value)) {
    if (!present) return {};
    ++generation_;
    phase_.value = Phase::Recording{std::move(grace->origin)};
    return {{MeetingLifecycleAction::CancelGrace{}}};
  }
  return {};
}

MeetingLifecycleReducer::Actions MeetingLifecycleReducer::graceExpired(MeetingGraceToken token,
                                                                       base::Timestamp now) {
  const auto* grace = std::get_if<MeetingLifecyclePhase::EndingGrace>(&phase_.value);
  if (!grace || grace->token != token || grace->deadline > now) return {};
  // Deliberately no generation step here: the token that fired stays the newest one.
  phase_.value = MeetingLifecyclePhase::Stopping{MeetingStopReason::detectedApplicationEnded};
  return {{MeetingLifecycleAction::Stop{MeetingStopReason::detectedApplicationEnded}}};
}

MeetingLifecycleReducer::Actions MeetingLifecycleReducer::keepRecording() {
  if (!isInGrace()) return {};
  ++generation_;
  phase_.value = MeetingLifecyclePhase::Recording{MeetingStartOrigin::manual()};
  return {{MeetingLifecycleAction::CancelGrace{}}};
}

MeetingLifecycleReducer::Actions MeetingLifecycleReducer::requestStop(MeetingStopReason reason) {
  if (std::holds_alternative<MeetingLifecyclePhase::Recording>(phase_.value)) {
    ++generation_;
    phase_.value = MeetingLifecyclePhase::Stopping{reason};
    return {{MeetingLifecycleAction::Stop{reason}}};
  }
  if (isInGrace()) {
    ++generation_;
    phase_.value = MeetingLifecyclePhase::Stopping{reason};
    return {{MeetingLifecycleAction::CancelGrace{}}, {MeetingLifecycleAction::Stop{reason}}};
  }
  return {};
}

void MeetingLifecycleReducer::reset() {
  ++generation_;
  phase_.value = MeetingLifecyclePhase::Idle{};
}

}  // namespace tamsel::meeting
