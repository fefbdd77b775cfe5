#include "tamsel/kit/cancellation_planning.hpp"

namespace tamsel::kit {

namespace {

bool present(const std::optional<std::string>& id) { return id && !id->empty(); }

bool restoreNames(const PendingCancelCleanupPlanner::Input& in) {
  if (!in.restore) return false;
  if (in.restore->pendingLocalID == in.candidate.id) return true;
  return present(in.realSessionID) && in.restore->sessionID == in.realSessionID;
}

}  // namespace

PendingCancelCleanupPlan PendingCancelCleanupPlanner::plan(const Input& in) {
  if (in.candidate.id.empty()) return PendingCancelCleanupPlan::ignoreStaleOrphan;
  if (restoreNames(in)) return PendingCancelCleanupPlan::skip;
  if (!in.isListedPending) {
    return in.currentPendingSessionLocalID == in.candidate.id
               ? PendingCancelCleanupPlan::detachStalePendingMarker
               : PendingCancelCleanupPlan::ignoreStaleOrphan;
  }
  // An id the registry maps to itself is no real id yet.
  if (present(in.realSessionID) && *in.realSessionID != in.candidate.id)
    return PendingCancelCleanupPlan::promoteToReal;
  return in.candidate.canBeDiscarded ? PendingCancelCleanupPlan::discardPendingDraft
                                     : PendingCancelCleanupPlan::skip;
}

StreamOwnership StreamOwnershipPlanner::decide(
    const std::string& streamToken, const std::string& sessionKey,
    const std::map<std::string, std::string>& streamingTokensBySession,
    const std::optional<std::string>& visibleSessionKey) {
  if (streamToken.empty()) return StreamOwnership::drop;
  auto it = streamingTokensBySession.find(sessionKey);
  if (it == streamingTokensBySession.end() || it->second != streamToken)
    return StreamOwnership::drop;
  return visibleSessionKey == sessionKey ? StreamOwnership::deliverToView
                                         : StreamOwnership::deliverInBackground;
}

void StreamCancellationTracker::markCancelling(const std::string& token) {
  if (!token.empty()) cancellingTokens_.insert(token);
}

void StreamCancellationTracker::clear(const std::string& token) { cancellingTokens_.erase(token); }

bool StreamCancellationTracker::isCancelling(const std::string& token) const {
  return cancellingTokens_.count(token) > 0;
}

const char* name(PendingCancelCleanupPlan plan) {
  switch (plan) {
    case PendingCancelCleanupPlan::promoteToReal:
      return "promoteToReal";
    case PendingCancelCleanupPlan::discardPendingDraft:
      return "discardPendingDraft";
    case PendingCancelCleanupPlan::skip:
      return "skip";
    case PendingCancelCleanupPlan::detachStalePendingMarker:
      return "detachStalePendingMarker";
    case PendingCancelCleanupPlan::ignoreStaleOrphan:
      return "ignoreStaleOrphan";
  }
  return "?";
}

const char* name(StreamOwnership ownership) {
  switch (ownership) {
    case StreamOwnership::deliverToView:
      return "deliverToView";
    case StreamOwnership::deliverInBackground:
      return "deliverInBackground";
    case StreamOwnership::drop:
      return "drop";
  }
  return "?";
}

}  // namespace tamsel::kit
