#pragma once
// Resources one user's processes share on this computer: a lock file that only one process
// holds at a time, and whether a loopback TCP port is already taken.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace tamsel::platform {

// An exclusive advisory lock (flock) on a file that holds the owner's PID. Released when the
// object goes or the process dies, however it dies.
class ExclusiveFileLock {
 public:
  // Takes the lock without waiting. On success the file then holds our PID; when another
  // process holds it, `holder` tells which (from the file) and `held()` is false. Throws
  // std::system_error when the file cannot be opened.
  explicit ExclusiveFileLock(const std::filesystem::path& file);
  ~ExclusiveFileLock();
  ExclusiveFileLock(const ExclusiveFileLock&) = delete;
  ExclusiveFileLock& operator=(const ExclusiveFileLock&) = delete;

  bool held() const { return held_; }
  std::optional<std::int32_t> holder() const { return holder_; }

 private:
  int fd_ = -1;
  bool held_ = false;
  std::optional<std::int32_t> holder_;
};

// True when something accepts TCP connections on 127.0.0.1:port.
bool loopbackPortAcceptsConnections(std::uint16_t port);

}  // namespace tamsel::platform
