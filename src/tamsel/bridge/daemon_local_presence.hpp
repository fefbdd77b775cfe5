#pragma once
// The presence token that proves to the engine that a caller is this desktop.
//
// Resolved once per process by the composition root, which owns it. In order:
//   1. a non-blank TAMSEL_LOCAL_PRESENCE_TOKEN in our environment, used exactly as found;
//   2. the token of an engine an earlier desktop process started, kept in an owner-only file
//      beside the pidfile (the desktop runs as many short processes beside one engine);
//   3. a new token: two random upper-case UUIDs joined by "-" (73 characters).
// Cases 2 and 3 write the token into our environment so that every child inherits it.
// The token is a secret: never log or print it.
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace tamsel::bridge {

class DaemonLocalPresence {
 public:
  static constexpr const char* environmentKey = "TAMSEL_LOCAL_PRESENCE_TOKEN";
  static constexpr const char* headerName = "X-Tamsel-Local-Presence";

  // The token of this process, from our environment's value and the saved token file; writes it
  // into our environment (cases 2 and 3). Call once.
  static std::string forThisProcess(const std::optional<std::string>& environmentValue,
                                    const std::filesystem::path& tokenFile);

  // The decision itself, free of process state.
  static std::string resolve(const std::optional<std::string>& environmentValue,
                             const std::optional<std::string>& inheritedFileValue,
                             const std::function<std::string()>& generate);
  static std::string generate();

  // Keeps the token of an engine this desktop started, owner-only (0600), written atomically.
  static void saveForEngine(const std::filesystem::path& tokenFile, const std::string& token);
  static std::optional<std::string> loadSaved(const std::filesystem::path& tokenFile);
};

}  // namespace tamsel::bridge
