#pragma once
// Decisions around cancelling a running reply: what becomes of the pending (not yet created)
// sessions afterwards, which stream still owns a session's view, and which streams are being
// cancelled. Planners are pure; the tracker is a plain value. Interface thread.
#include <map>
#include <optional>
#include <set>
#include <string>

namespace tamsel::kit {

enum class PendingCancelCleanupPlan {
  promoteToReal,             // the engine created it: show it under its real id
  discardPendingDraft,       // never created and nothing worth keeping: drop it and its draft
  skip,                      // leave it as it is
  detachStalePendingMarker,  // gone from the list but still marked current: clear the marker
  ignoreStaleOrphan,         // gone from the list and not current: nothing to clean up
};

// The session a force send (cancel, then send) is going to restore and send into.
struct PendingCancelInterruptRestoreSession {
  std::optional<std::string> sessionID;
  std::optional<std::string> pendingLocalID;
  bool operator==(const PendingCancelInterruptRestoreSession&) const = default;
};

struct PendingCancelPendingCandidate {
  std::string id;               // pending local id
  bool canBeDiscarded = false;  // nothing was sent or typed that must survive
  bool operator==(const PendingCancelPendingCandidate&) const = default;
};

// Per pending session after a cancel, first match wins:
//   1. empty candidate id                                                -> ignoreStaleOrphan
//   2. the interrupt restore names it (its pending id, or its real id)    -> skip
//      (the force send about to run takes care of that session)
//   3. not listed in the pending sessions:
//        it is the current pending session                                ->
//        detachStalePendingMarker otherwise -> ignoreStaleOrphan
//   4. listed, the engine has given it a real id                          -> promoteToReal
//   5. listed, no real id, can be discarded                               -> discardPendingDraft
//   6. listed, no real id, must be kept                                   -> skip
struct PendingCancelCleanupPlanner {
  struct Input {
    PendingCancelPendingCandidate candidate;
    std::optional<std::string> realSessionID;  // from the identity registry
    bool isListedPending = false;              // still in pendingSessions
    std::optional<std::string> currentPendingSessionLocalID;
    std::optional<PendingCancelInterruptRestoreSession> restore;
  };
  static PendingCancelCleanupPlan plan(const Input& input);
};

enum class StreamOwnership { deliverToView, deliverInBackground, drop };

// Whether an event of a reply stream may still change what is shown. Both keys are expected in
// the same form (the controller resolves pending ids through the identity registry first).
//   empty token, or the session's recorded stream token is missing or another token   -> drop
//     (the stream was superseded or cancelled; its late events must not touch the session)
//   the stream owns the session and it is the visible one                            ->
//   deliverToView the stream owns the session, another one (or none) is visible ->
//   deliverInBackground
struct StreamOwnershipPlanner {
  static StreamOwnership decide(const std::string& streamToken, const std::string& sessionKey,
                                const std::map<std::string, std::string>& streamingTokensBySession,
                                const std::optional<std::string>& visibleSessionKey);
};

// Tokens of reply streams whose cancellation was asked for and not yet confirmed.
class StreamCancellationTracker {
 public:
  void markCancelling(const std::string& token);
  void clear(const std::string& token);
  bool isCancelling(const std::string& token) const;
  const std::set<std::string>& cancellingTokens() const { return cancellingTokens_; }

 private:
  std::set<std::string> cancellingTokens_;
};

const char* name(PendingCancelCleanupPlan plan);
const char* name(StreamOwnership ownership);

}  // namespace tamsel::kit
