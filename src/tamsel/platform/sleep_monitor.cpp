#include "tamsel/platform/sleep_monitor.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "tamsel/base/log.hpp"
#include "tamsel/base/mutex.hpp"

namespace tamsel::platform {

namespace {
constexpr const char* kLogin = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
std::atomic<bool> reportedUnavailable{false};
}  // namespace

struct SleepMonitor::Impl {
  Handler handler;
  sd_bus* bus = nullptr;  // monitor thread only once started
  sd_bus_slot* slot = nullptr;
  int wakeFd = -1;
  std::thread thread;
  std::atomic<bool> stopRequested{false};
  std::atomic<bool> wantHold{false};
  std::atomic<bool> sleeping{false};
  std::atomic<int> lockFd{-1};  // written on the monitor thread, read anywhere

  ~Impl() {
    if (slot) sd_bus_slot_unref(slot);
    if (bus) sd_bus_flush_close_unref(bus);
    if (wakeFd >= 0) ::close(wakeFd);
    release();
  }

  void release() {
    const int fd = lockFd.exchange(-1);
    if (fd >= 0) ::close(fd);
  }

  void take() {
    if (lockFd.load() >= 0) return;
    sd_bus_error error{nullptr, nullptr, 0};  // SD_BUS_ERROR_NULL, without its C compound literal
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call_method(bus, kLogin, kPath, kManager, "Inhibit", &error, &reply,
                                     "ssss", "sleep", "Tamsel Desktop",
                                     "Stopping the meeting recording before sleep", "delay");
    if (r < 0) {
      base::log::warn("meeting", "cannot hold off sleep while recording: {}",
                      error.message ? error.message : std::strerror(-r));
      sd_bus_error_free(&error);
      return;
    }
    int fd = -1;
    if (sd_bus_message_read(reply, "h", &fd) >= 0 && fd >= 0)
      lockFd.store(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    sd_bus_message_unref(reply);
  }

  // The holder's wish, applied on the monitor thread (sd-bus objects are not shared).
  void applyHold() {
    if (wantHold.load() && !sleeping.load())
      take();
    else if (!wantHold.load())
      release();
  }

  static int onPrepareForSleep(sd_bus_message* message, void* data, sd_bus_error*) {
    auto& self = *static_cast<Impl*>(data);
    int start = 0;
    if (sd_bus_message_read(message, "b", &start) < 0) return 0;
    self.sleeping.store(start != 0);
    base::log::info("meeting", "{}",
                    start ? "the machine is going to sleep" : "the machine woke up");
    if (self.handler) self.handler(start != 0);
    if (start)
      self.release();  // the recording has stopped: let the machine sleep
    else
      self.applyHold();
    return 0;
  }

  void run() {
    for (;;) {
      if (stopRequested.load()) return;
      applyHold();
      int r;
      while ((r = sd_bus_process(bus, nullptr)) > 0) {
      }
      if (r < 0) {
        base::log::warn("meeting", "the system bus connection ended: {}", std::strerror(-r));
        return;
      }
      pollfd fds[2] = {{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0},
                       {wakeFd, POLLIN, 0}};
      std::uint64_t usec = UINT64_MAX;
      sd_bus_get_timeout(bus, &usec);
      int timeout = -1;
      if (usec != UINT64_MAX) {
        timespec ts{};
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        const auto now = static_cast<std::uint64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
        timeout = usec > now ? static_cast<int>((usec - now + 999) / 1000) : 0;
      }
      ::poll(fds, 2, timeout);
      if (fds[1].revents & POLLIN) {
        std::uint64_t value;
        (void)!::read(wakeFd, &value, sizeof value);
      }
    }
  }

  void wake() const {
    const std::uint64_t one = 1;
    if (wakeFd >= 0) (void)!::write(wakeFd, &one, sizeof one);
  }
};

SleepMonitor::SleepMonitor(Handler handler) : impl_(std::make_shared<Impl>()) {
  impl_->handler = std::move(handler);
}

SleepMonitor::~SleepMonitor() { stop(); }

bool SleepMonitor::start() {
  if (impl_->thread.joinable()) return true;
  const auto unavailable = [](const char* what, int r) {
    if (!reportedUnavailable.exchange(true))
      base::log::info("meeting", "no stop before sleep: {} ({})", what, std::strerror(-r));
    return false;
  };
  int r = sd_bus_open_system(&impl_->bus);
  if (r < 0) {
    impl_->bus = nullptr;
    return unavailable("no system bus", r);
  }
  r = sd_bus_match_signal(impl_->bus, &impl_->slot, kLogin, kPath, kManager, "PrepareForSleep",
                          &Impl::onPrepareForSleep, impl_.get());
  if (r < 0) return unavailable("cannot watch logind", r);
  impl_->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (impl_->wakeFd < 0) return unavailable("no eventfd", -errno);
  impl_->thread = std::thread([impl = impl_] { impl->run(); });
  return true;
}

void SleepMonitor::stop() {
  impl_->stopRequested.store(true);
  impl_->wake();
  if (impl_->thread.joinable()) impl_->thread.join();
  impl_->release();
}

void SleepMonitor::setHoldsInhibitor(bool hold) {
  impl_->wantHold.store(hold);
  if (!hold && !impl_->thread.joinable()) impl_->release();
  impl_->wake();
}

bool SleepMonitor::holdsInhibitor() const { return impl_->lockFd.load() >= 0; }

}  // namespace tamsel::platform
