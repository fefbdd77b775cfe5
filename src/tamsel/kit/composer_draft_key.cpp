#include "tamsel/kit/composer_draft_key.hpp"

#include "tamsel/base/strings.hpp"

namespace tamsel::kit {

std::string ComposerDraftKey::forSession(const std::string& sessionID) { return sessionPrefix + sessionID; }

std::string ComposerDraftKey::forPendingSession(const std::string& pendingLocalID) {
  return pendingPrefix + pendingLocalID;
}

std::string ComposerDraftKey::forNewSession(const std::string& agent) { return newSessionPrefix + agent; }

std::optional<std::string> ComposerDraftKey::pendingLocalID(const std::string& key) {
  const std::string_view prefix = pendingPrefix;
  if (!base::startsWith(key, prefix) || key.size() == prefix.size()) return std::nullopt;
  return key.substr(prefix.size());
}

std::string ComposerDraftKey::rekeyed(const std::string& key, const bridge::SessionIdentityRegistry& registry) {
  auto pending = pendingLocalID(key);
  if (!pending) return key;
  auto real = registry.realIDIfRegistered(*pending);
  if (!real || real->empty()) return key;
  return forSession(*real);
}

}  // namespace tamsel::kit
