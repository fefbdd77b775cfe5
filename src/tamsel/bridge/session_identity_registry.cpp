#include "tamsel/bridge/session_identity_registry.hpp"

namespace tamsel::bridge {

void SessionIdentityRegistry::registerPair(const std::string& pendingID,
                                           const std::string& realID) {
  if (pendingID.empty() || realID.empty()) return;
  auto it = pendingToReal_.find(pendingID);
  if (it != pendingToReal_.end()) {
    if (it->second == realID) return;
    realToPending_.erase(it->second);
  }
  pendingToReal_[pendingID] = realID;
  realToPending_[realID] = pendingID;
  ++version_;
  changed_.emit();
}

std::string SessionIdentityRegistry::realID(const std::string& id) const {
  if (id.empty()) return id;
  auto it = pendingToReal_.find(id);
  return it == pendingToReal_.end() ? id : it->second;
}

std::string SessionIdentityRegistry::pendingID(const std::string& id) const {
  if (id.empty()) return id;
  auto it = realToPending_.find(id);
  return it == realToPending_.end() ? id : it->second;
}

std::optional<std::string> SessionIdentityRegistry::realIDIfRegistered(
    const std::string& pendingID) const {
  auto it = pendingToReal_.find(pendingID);
  if (it == pendingToReal_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> SessionIdentityRegistry::pendingIDIfRegistered(
    const std::string& realID) const {
  auto it = realToPending_.find(realID);
  if (it == realToPending_.end()) return std::nullopt;
  return it->second;
}

}  // namespace tamsel::bridge
