#pragma once
// Ties the pending local id a new session is shown under to the id the engine gives it.
// One shared object, used on the main executor; every change bumps `version` and notifies.
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tamsel/base/signal.hpp"

namespace tamsel::bridge {

class SessionIdentityRegistry {
 public:
  void registerPair(const std::string& pendingID, const std::string& realID);

  // The real id for a pending id; any other id (already real, unknown, empty) unchanged.
  std::string realID(const std::string& id) const;
  // The pending id for a real id; any other id unchanged.
  std::string pendingID(const std::string& id) const;
  std::optional<std::string> realIDIfRegistered(const std::string& pendingID) const;
  std::optional<std::string> pendingIDIfRegistered(const std::string& realID) const;

  std::uint64_t version() const { return version_; }
  base::Signal<>& changed() { return changed_; }

 private:
  std::map<std::string, std::string> pendingToReal_;
  std::map<std::string, std::string> realToPending_;
  std::uint64_t version_ = 0;
  base::Signal<> changed_;
};

}  // namespace tamsel::bridge
