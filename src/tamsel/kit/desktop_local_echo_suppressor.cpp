#include "tamsel/kit/desktop_local_echo_suppressor.hpp"

namespace tamsel::kit {

bool DesktopLocalEchoSuppressor::decide(const DesktopLocalEchoSuppressionState& s) {
  if (s.source != desktopSource) return false;
  if (!s.eventSessionID || s.eventSessionID->empty()) return false;
  const std::string& session = *s.eventSessionID;
  if (s.isForegroundStreamActive) return true;
  if (s.currentSessionID == session) return true;
  const auto& alias = s.pendingAliasForEventSession;
  if (alias && s.currentPendingSessionLocalID == alias) return true;
  if (s.runningSessionIDs.count(session)) return true;
  if (alias && s.runningPendingSessionIDs.count(*alias)) return true;
  return false;
}

}  // namespace tamsel::kit
