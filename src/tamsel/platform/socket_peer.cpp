#include "tamsel/platform/socket_peer.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace tamsel::platform {

std::optional<SocketPeer> unixSocketPeer(const std::filesystem::path& socket) noexcept {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& path = socket.native();
  if (path.empty() || path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::nullopt;
  std::optional<SocketPeer> peer;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
        length == sizeof credentials && credentials.pid > 0)
      peer = SocketPeer{static_cast<std::int32_t>(credentials.pid), credentials.uid};
  }
  ::close(fd);
  return peer;
}

}  // namespace tamsel::platform
