#pragma once
// Who is listening on a Unix-domain socket, as the kernel reports it.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace tamsel::platform {

struct SocketPeer {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
};

// Connects to the socket and reads the credentials the kernel recorded for the process that
// listens on it (SO_PEERCRED: fixed when that process called listen(2), so a PID a pidfile merely
// names cannot fake it). Nothing when the socket cannot be reached at once (missing, refused,
// its backlog full) or the path is too long. Never blocks, never throws.
std::optional<SocketPeer> unixSocketPeer(const std::filesystem::path& socket) noexcept;

}  // namespace tamsel::platform
