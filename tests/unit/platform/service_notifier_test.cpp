// The readiness messages as the service manager receives them, on a datagram socket of our own.
#include "tamsel/platform/service_notifier.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tamsel::platform {
namespace {

struct ManagerSocket {
  int fd = -1;
  std::filesystem::path path;
  ManagerSocket() {
    path = std::filesystem::temp_directory_path() /
           ("tamsel-notify-" + std::to_string(::getpid()) + ".sock");
    std::filesystem::remove(path);
    fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~ManagerSocket() {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(fd);
    std::filesystem::remove(path);
  }
  std::vector<std::string> received() {
    std::vector<std::string> out;
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) out.emplace_back(buffer, n);
    return out;
  }
};

TEST(ServiceNotifier, ReadyOnceStatusOnChangeAndStopping) {
  ManagerSocket manager;
  ServiceNotifier notifier;
  notifier.status("Tamsel Engine starting…");
  notifier.status("Tamsel Engine starting…");  // unchanged: not sent again
  notifier.ready("Tamsel Engine is running");
  notifier.ready("Tamsel Engine is running");  // ready is said once
  EXPECT_TRUE(notifier.sentReady());
  notifier.status("Engine not responding");
  notifier.stopping("Shutting down the engine");
  EXPECT_EQ(manager.received(),
            (std::vector<std::string>{
                "STATUS=Tamsel Engine starting…", "READY=1\nSTATUS=Tamsel Engine is running",
                "STATUS=Engine not responding", "STOPPING=1\nSTATUS=Shutting down the engine"}));
}

TEST(ServiceNotifier, AManagerSocketThatIsGoneDoesNotStopTheService) {
  ::setenv("NOTIFY_SOCKET", "/nonexistent/tamsel-notify.sock", 1);
  ServiceNotifier notifier;
  EXPECT_NO_THROW(notifier.ready("Tamsel Engine is running"));
  EXPECT_NO_THROW(notifier.stopping("Shutting down the engine"));
  ::unsetenv("NOTIFY_SOCKET");
}

}  // namespace
}  // namespace tamsel::platform
