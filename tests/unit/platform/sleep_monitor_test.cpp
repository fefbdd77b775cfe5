// The stop before sleep against a stand-in logind on a private bus: the delay lock is held while
// wanted, PrepareForSleep reaches the handler, and the lock is let go once the handler returns.
#include "tamsel/platform/sleep_monitor.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "../test_support.hpp"

namespace tamsel::platform {
namespace {

// A dbus-daemon of our own, named as the system bus for this process.
class PrivateBus {
 public:
  PrivateBus() {
    int out[2];
    if (::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address", nullptr);
      ::_exit(127);
    }
    ::close(out[1]);
    char buffer[512];
    const auto n = ::read(out[0], buffer, sizeof buffer - 1);
    ::close(out[0]);
    if (n > 0) address_.assign(buffer, static_cast<std::size_t>(n));
    while (!address_.empty() && (address_.back() == '\n')) address_.pop_back();
  }
  ~PrivateBus() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

// Answers Inhibit with the write end of a pipe (the test keeps the read end to see when every
// copy of the lock is closed) and sends PrepareForSleep on request.
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address) {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, address.c_str());
    sd_bus_set_bus_client(bus_, 1);
    if (sd_bus_start(bus_) < 0) return;
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "ssss", "h", &FakeLogind::inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("PrepareForSleep", "b", 0), SD_BUS_VTABLE_END};
    sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/login1",
                             "org.freedesktop.login1.Manager", vtable, this);
    ready_ = sd_bus_request_name(bus_, "org.freedesktop.login1", 0) >= 0;
    thread_ = std::thread([this] {
      while (!stop_) {
        while (sd_bus_process(bus_, nullptr) > 0) {
        }
        sd_bus_wait(bus_, 20'000);
      }
    });
  }
  ~FakeLogind() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (lockRead_ >= 0) ::close(lockRead_);
    sd_bus_flush_close_unref(bus_);
  }
  bool ready() const { return ready_; }
  int inhibits() const { return inhibits_; }
  // Whether some process still holds the last lock handed out.
  bool lockHeld() const {
    if (lockRead_ < 0) return false;
    pollfd p{lockRead_, POLLIN, 0};
    ::poll(&p, 1, 0);
    return !(p.revents & POLLHUP);
  }
  // Emitted from the test's thread: sd-bus allows one thread at a time, so hold the loop off.
  void prepareForSleep(bool start) {
    stop_ = true;
    thread_.join();
    sd_bus_emit_signal(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                       "PrepareForSleep", "b", static_cast<int>(start));
    sd_bus_flush(bus_);
    stop_ = false;
    thread_ = std::thread([this] {
      while (!stop_) {
        while (sd_bus_process(bus_, nullptr) > 0) {
        }
        sd_bus_wait(bus_, 20'000);
      }
    });
  }

 private:
  static int inhibit(sd_bus_message* m, void* data, sd_bus_error*) {
    auto& self = *static_cast<FakeLogind*>(data);
    int fds[2];
    if (::pipe(fds) != 0) return -errno;
    if (self.lockRead_ >= 0) ::close(self.lockRead_);
    self.lockRead_ = fds[0];
    ++self.inhibits_;
    const int r = sd_bus_reply_method_return(m, "h", fds[1]);
    ::close(fds[1]);  // the reply carried its own copy
    return r;
  }

  sd_bus* bus_ = nullptr;
  bool ready_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::atomic<int> lockRead_{-1};
  std::atomic<int> inhibits_{0};
};

bool waitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 300 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST(SleepMonitor, HoldsTheDelayLockWhileWantedAndLetsGoAfterTheHandler) {
  if (std::system("command -v dbus-daemon >/dev/null 2>&1") != 0) GTEST_SKIP() << "no dbus-daemon";
  PrivateBus bus;
  ASSERT_FALSE(bus.address().empty());
  const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  const std::string saved = previous ? previous : "";
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
  FakeLogind logind(bus.address());
  ASSERT_TRUE(logind.ready());

  std::atomic<int> sleeps{0}, wakes{0};
  std::atomic<bool> heldDuringHandler{false};
  SleepMonitor monitor([&](bool goingToSleep) {
    (goingToSleep ? sleeps : wakes)++;
    if (goingToSleep) heldDuringHandler = logind.lockHeld();
  });
  ASSERT_TRUE(monitor.start());
  EXPECT_FALSE(monitor.holdsInhibitor());
  monitor.setHoldsInhibitor(true);
  ASSERT_TRUE(waitFor([&] { return monitor.holdsInhibitor() && logind.lockHeld(); }));

  logind.prepareForSleep(true);
  ASSERT_TRUE(waitFor([&] { return sleeps == 1; }));
  EXPECT_TRUE(heldDuringHandler) << "the machine must wait for the handler";
  EXPECT_TRUE(waitFor([&] { return !logind.lockHeld(); })) << "lock kept after the handler";
  EXPECT_FALSE(monitor.holdsInhibitor());

  logind.prepareForSleep(false);
  ASSERT_TRUE(waitFor([&] { return wakes == 1; }));
  EXPECT_TRUE(waitFor([&] { return logind.inhibits() == 2 && logind.lockHeld(); }))
      << "still recording after resume: the lock is taken again";
  monitor.setHoldsInhibitor(false);
  EXPECT_TRUE(waitFor([&] { return !logind.lockHeld(); }));
  monitor.stop();
  if (previous)
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", saved.c_str(), 1);
  else
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST(SleepMonitor, WithoutASystemBusItSaysSoAndGoesOn) {
  const char* previous = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  const std::string saved = previous ? previous : "";
  test::TempDir dir;
  const auto address = "unix:path=" + (dir.path() / "nobody").string();
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  SleepMonitor monitor([](bool) {});
  EXPECT_FALSE(monitor.start());
  monitor.setHoldsInhibitor(true);
  EXPECT_FALSE(monitor.holdsInhibitor());
  monitor.stop();
  if (previous)
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", saved.c_str(), 1);
  else
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

}  // namespace
}  // namespace tamsel::platform
