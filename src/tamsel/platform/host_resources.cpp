#include "tamsel/platform/host_resources.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>
#include <system_error>

namespace tamsel::platform {

ExclusiveFileLock::ExclusiveFileLock(const std::filesystem::path& file) {
  fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), file.string());
  if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
    held_ = true;
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd_, 0) == 0) {
      [[maybe_unused]] const auto written = ::pwrite(fd_, pid.data(), pid.size(), 0);
    }
    return;
  }
  char text[32] = {};
  const auto n = ::pread(fd_, text, sizeof text - 1, 0);
  std::int32_t pid = 0;
  if (n > 0) {
    const auto [end, ec] = std::from_chars(text, text + n, pid);
    if (ec == std::errc() && pid > 0) holder_ = pid;
  }
}

ExclusiveFileLock::~ExclusiveFileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}

bool loopbackPortAcceptsConnections(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool accepted = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return accepted;
}

}  // namespace tamsel::platform
