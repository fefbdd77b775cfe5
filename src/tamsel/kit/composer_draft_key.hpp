#pragma once
// Keys under which composer drafts are stored: "session:<id>" for a session the engine knows,
// "pending:<local id>" for a session shown before the engine created it, "new:<agent>" for the
// new-session composer of an agent. The kind prefix keeps the three id spaces apart.
#include <optional>
#include <string>

namespace tamsel::kit {

struct ComposerDraftKey {
  static constexpr const char* sessionPrefix = "session:";
  static constexpr const char* pendingPrefix = "pending:";
  static constexpr const char* newSessionPrefix = "new:";

  static std::string forSession(const std::string& sessionID);  // an existing (real) session
  static std::string forPendingSession(const std::string& pendingLocalID);
  static std::string forNewSession(
      const std::string& agent);  // the new-session composer of an agent

  // Where the files attached in the composer of `draftKey` are kept beside its text. A suffix,
  // not a prefix, so that a pending session's attachments are still recognised as pending.
  static std::string attachmentsKey(const std::string& draftKey) {
    return draftKey + "#attachments";
  }

  // The pending local id a key was built from, when it is a pending key.
  static std::optional<std::string> pendingLocalID(const std::string& key);
};

}  // namespace tamsel::kit
