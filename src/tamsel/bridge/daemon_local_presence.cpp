#include "tamsel/bridge/daemon_local_presence.hpp"

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/base/uuid.hpp"

namespace tamsel::bridge {

std::string DaemonLocalPresence::generate() {
  return base::newUUIDString() + "-" + base::newUUIDString();
}

std::string DaemonLocalPresence::resolve(const std::optional<std::string>& environmentValue,
                                         const std::optional<std::string>& inheritedFileValue,
                                         const std::function<std::string()>& generator) {
  if (environmentValue && !base::trim(*environmentValue).empty()) return *environmentValue;
  if (inheritedFileValue && !base::trim(*inheritedFileValue).empty()) return *inheritedFileValue;
  return generator();
}

std::string DaemonLocalPresence::forThisProcess(const std::optional<std::string>& environmentValue,
                                                const std::filesystem::path& tokenFile) {
  std::optional<std::string> fromFile;
  if (!environmentValue || base::trim(*environmentValue).empty()) fromFile = loadSaved(tokenFile);
  std::string value = resolve(environmentValue, fromFile, &DaemonLocalPresence::generate);
  if (value != environmentValue) base::env::set(environmentKey, value);
  return value;
}

void DaemonLocalPresence::saveForEngine(const std::filesystem::path& tokenFile,
                                        const std::string& token) {
  base::writeFileAtomically(tokenFile, token, 0600);
}

std::optional<std::string> DaemonLocalPresence::loadSaved(const std::filesystem::path& tokenFile) {
  std::string contents;
  if (!base::readFile(tokenFile, contents)) return std::nullopt;
  if (base::trim(contents).empty()) return std::nullopt;
  return contents;
}

}  // namespace tamsel::bridge
