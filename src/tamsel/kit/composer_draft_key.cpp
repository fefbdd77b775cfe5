#include "tamsel/kit/composer_draft_key.hpp"

#include "tamsel/base/strings.hpp"

namespace tamsel::kit {

std::string ComposerDraftKey::forSession(const std::string& sessionID) {
  return sessionPrefix + sessionID;
}

std::string ComposerDraftKey::forPendingSession(const std::string& pendingLocalID) {
  return pendingPrefix + pendingLocalID;
}

std::string ComposerDraftKey::forNewSession(const std::string& agent) {
  return newSessionPrefix + agent;
}

std::optional<std::string> ComposerDraftKey::pendingLocalID(const std::string& key) {
  const std::string_view prefix = pendingPrefix;
  if (!base::startsWith(key, prefix) || key.size() == prefix.size()) return std::nullopt;
  return key.substr(prefix.size());
}

}  // namespace tamsel::kit
