#pragma once
// Whether an engine event announcing a user message should be ignored because this desktop sent
// that message and already shows it. Pure; any thread.
//
// Decision, in order:
//   1. a message from another source, or without a session, is shown;
//   2. from this desktop, it is suppressed when the foreground stream is active for its session,
//      when its session is the current one, when it is the pending alias of the current pending
//      session, or when its session (or its pending alias) has a reply running here;
//   3. otherwise it is shown: this desktop is not running that session, so the message came
//      from elsewhere (another window or process of the desktop) and nothing shows it yet.
#include <optional>
#include <set>
#include <string>

namespace tamsel::kit {

struct DesktopLocalEchoSuppressionState {
  std::optional<std::string> source;
  std::optional<std::string> agent;
  std::optional<std::string> eventSessionID;
  bool selectedAgentIsDefault = false;
  std::optional<std::string> currentSessionID;
  std::optional<std::string> currentPendingSessionLocalID;
  std::optional<std::string> pendingAliasForEventSession;
  std::set<std::string> runningSessionIDs;
  std::set<std::string> runningPendingSessionIDs;
  bool sessionsContainEventSession = false;
  bool isForegroundStreamActive = false;  // for the event's session
};

struct DesktopLocalEchoSuppressor {
  static constexpr const char* desktopSource = "desktop";
  static bool decide(const DesktopLocalEchoSuppressionState& state);
};

}  // namespace tamsel::kit
