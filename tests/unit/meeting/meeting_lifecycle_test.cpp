// The lifecycle reducer's whole operation table, its tokens, the call-activity reducer and the
// start origin's serialised form.
#include "tamsel/meeting/meeting_lifecycle.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>

namespace tamsel::meeting {
namespace {

using namespace std::chrono_literals;
using Phase = MeetingLifecyclePhase;
using Action = MeetingLifecycleAction;
using Reason = MeetingStopReason;
using Event = CallActivityReducer::Event;

const MeetingApplicationIdentity zoom{MeetingApplicationFamily::zoom, "us.zoom.xos", 42};
const auto t0 = *base::parseISO8601("2026-11-24T12:00:00Z");

Phase recording(MeetingStartOrigin origin) { return {Phase::Recording{std::move(origin)}}; }

TEST(CallActivityReducer, CallsStartAndEndOnlyForOthersAndOnlyOnChange) {
  CallActivityReducer r;
  EXPECT_EQ(r.inputRunningChanged(false), std::nullopt);  // repeated initial value
  EXPECT_EQ(r.inputRunningChanged(true), Event::callStarted);
  EXPECT_EQ(r.inputRunningChanged(true), std::nullopt);
  EXPECT_TRUE(r.callActive());
  EXPECT_EQ(r.inputRunningChanged(false), Event::callEnded);
  EXPECT_EQ(r.inputRunningChanged(false), std::nullopt);

  // Our own recording: input starting emits nothing, stopping afterwards neither.
  r.setSelfRecording(true);
  EXPECT_EQ(r.inputRunningChanged(true), std::nullopt);
  EXPECT_FALSE(r.callActive());
  r.setSelfRecording(false);  // never emits by itself
  EXPECT_EQ(r.inputRunningChanged(false), std::nullopt);

  // A call that began before we recorded still ends.
  EXPECT_EQ(r.inputRunningChanged(true), Event::callStarted);
  r.setSelfRecording(true);
  EXPECT_EQ(r.inputRunningChanged(false), Event::callEnded);
}

TEST(MeetingStartOrigin, SerialisedWithOneKey) {
  EXPECT_EQ(boost::json::serialize(toJSON(MeetingStartOrigin::manual())), R"({"manual":{}})");
  const auto detected = MeetingStartOrigin::detected(zoom);
  EXPECT_EQ(boost::json::serialize(toJSON(detected)),
            R"({"detected":{"_0":{"family":"zoom","bundleID":"us.zoom.xos","pid":42}}})");
  EXPECT_EQ(meetingStartOriginFromJSON(toJSON(detected)), detected);
  EXPECT_EQ(meetingStartOriginFromJSON(boost::json::parse(R"({"manual":{}})")),
            MeetingStartOrigin::manual());
  EXPECT_FALSE(meetingStartOriginFromJSON(boost::json::parse(R"({"manual":{},"detected":{}})")));
  EXPECT_FALSE(meetingStartOriginFromJSON(boost::json::parse(R"({"detected":{"0":{}}})")));
}

TEST(MeetingLifecycleReducer, DetectedMeetingEndsAfterItsGrace) {
  MeetingLifecycleReducer r(30);
  EXPECT_EQ(r.phase(), Phase{});
  r.start(MeetingStartOrigin::detected(zoom));
  EXPECT_EQ(r.generation(), 1);
  EXPECT_EQ(r.phase(), recording(MeetingStartOrigin::detected(zoom)));
  EXPECT_TRUE(r.applicationPresenceChanged(true, t0).empty());

  const auto actions = r.applicationPresenceChanged(false, t0);
  const MeetingGraceToken token{2};
  ASSERT_EQ(actions, (std::vector<Action>{{Action::ScheduleGrace{t0 + 30s, token}}}));
  EXPECT_TRUE(r.isInGrace());
  EXPECT_EQ(r.phase(),
            (Phase{Phase::EndingGrace{MeetingStartOrigin::detected(zoom), t0 + 30s, token}}));
  EXPECT_TRUE(r.applicationPresenceChanged(false, t0 + 5s).empty());  // still gone: no new grace

  EXPECT_TRUE(r.graceExpired(token, t0 + 29s).empty()) << "an early timer does nothing";
  EXPECT_TRUE(r.graceExpired({1}, t0 + 31s).empty()) << "a stale token does nothing";
  EXPECT_TRUE(r.isInGrace());
  EXPECT_EQ(r.graceExpired(token, t0 + 30s),
            (std::vector<Action>{{Action::Stop{Reason::detectedApplicationEnded}}}));
  EXPECT_EQ(r.phase(), (Phase{Phase::Stopping{Reason::detectedApplicationEnded}}));
  EXPECT_EQ(r.generation(), 2) << "grace expiry leaves the generation as it is";

  // Stopping and idle ignore everything but start and reset.
  EXPECT_TRUE(r.applicationPresenceChanged(true, t0).empty());
  EXPECT_TRUE(r.requestStop(Reason::explicit_).empty());
  EXPECT_TRUE(r.keepRecording().empty());
  EXPECT_TRUE(r.graceExpired(token, t0 + 60s).empty());
  r.reset();
  EXPECT_EQ(r.phase(), Phase{});
  EXPECT_EQ(r.generation(), 3);
  EXPECT_TRUE(r.applicationPresenceChanged(false, t0).empty());
  EXPECT_TRUE(r.requestStop(Reason::sleep).empty());
}

TEST(MeetingLifecycleReducer, ApplicationBackCancelsTheGraceAndItsTokenGoesStale) {
  MeetingLifecycleReducer r(10);
  r.start(MeetingStartOrigin::detected(zoom));
  const auto first = r.applicationPresenceChanged(false, t0);
  const auto firstToken = std::get<Action::ScheduleGrace>(first[0].value).token;
  EXPECT_EQ(r.applicationPresenceChanged(true, t0 + 1s),
            (std::vector<Action>{{Action::CancelGrace{}}}));
  EXPECT_EQ(r.phase(), recording(MeetingStartOrigin::detected(zoom)));

  const auto second = r.applicationPresenceChanged(false, t0 + 2s);
  const auto secondToken = std::get<Action::ScheduleGrace>(second[0].value).token;
  EXPECT_NE(secondToken, firstToken);
  // The old timer fires after the new grace's deadline: still stale.
  EXPECT_TRUE(r.graceExpired(firstToken, t0 + 60s).empty());
  EXPECT_EQ(r.graceExpired(secondToken, t0 + 12s).size(), 1u);
}

TEST(MeetingLifecycleReducer, ManualRecordingIgnoresPresenceAndKeepRecordingMakesManual) {
  MeetingLifecycleReducer r(10);
  r.start(MeetingStartOrigin::manual());
  EXPECT_TRUE(r.applicationPresenceChanged(false, t0).empty());
  EXPECT_TRUE(r.keepRecording().empty()) << "only a grace can be kept";
  EXPECT_EQ(r.phase(), recording(MeetingStartOrigin::manual()));

  r.start(MeetingStartOrigin::detected(zoom));  // unconditional, from any phase
  r.applicationPresenceChanged(false, t0);
  EXPECT_EQ(r.keepRecording(), (std::vector<Action>{{Action::CancelGrace{}}}));
  EXPECT_EQ(r.phase(), recording(MeetingStartOrigin::manual()));
  // The application being gone no longer ends it.
  EXPECT_TRUE(r.applicationPresenceChanged(false, t0 + 1s).empty());
}

TEST(MeetingLifecycleReducer, RequestStopCancelsAGraceFirst) {
  MeetingLifecycleReducer r(10);
  r.start(MeetingStartOrigin::manual());
  EXPECT_EQ(r.requestStop(Reason::explicit_),
            (std::vector<Action>{{Action::Stop{Reason::explicit_}}}));
  EXPECT_EQ(r.phase(), (Phase{Phase::Stopping{Reason::explicit_}}));

  r.start(MeetingStartOrigin::detected(zoom));
  const auto scheduled = r.applicationPresenceChanged(false, t0);
  const auto token = std::get<Action::ScheduleGrace>(scheduled[0].value).token;
  EXPECT_EQ(r.requestStop(Reason::sleep),
            (std::vector<Action>{{Action::CancelGrace{}}, {Action::Stop{Reason::sleep}}}));
  EXPECT_EQ(r.phase(), (Phase{Phase::Stopping{Reason::sleep}}));
  EXPECT_TRUE(r.graceExpired(token, t0 + 60s).empty());
}

TEST(MeetingLifecycleReducer, EndingGracePhasesDifferByDeadlineOrToken) {
  const auto origin = MeetingStartOrigin::detected(zoom);
  const Phase a{Phase::EndingGrace{origin, t0, {3}}};
  EXPECT_EQ(a, (Phase{Phase::EndingGrace{origin, t0, {3}}}));
  EXPECT_NE(a, (Phase{Phase::EndingGrace{origin, t0 + 1s, {3}}}));
  EXPECT_NE(a, (Phase{Phase::EndingGrace{origin, t0, {4}}}));
  EXPECT_NE(a, (Phase{Phase::EndingGrace{MeetingStartOrigin::manual(), t0, {3}}}));
}

}  // namespace
}  // namespace tamsel::meeting
