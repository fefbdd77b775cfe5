#include "tamsel/hotkey/evdev_key_source.hpp"

#include <fcntl.h>
#include <libevdev/libevdev.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "tamsel/base/mutex.hpp"

namespace tamsel::hotkey {

namespace fs = std::filesystem;

namespace {

struct Device {
  int fd = -1;
  std::string name;
  std::optional<fs::path> path;
  std::string pending;  // a record cut by the read
  bool leftDown = false, rightDown = false;
  bool dropping = false;  // the kernel dropped events: skip to the next report, then resync
};

bool isEventNode(const fs::path& path) { return path.filename().string().starts_with("event"); }

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

}  // namespace

struct EvdevKeySource::Impl {
  fs::path directory;
  KeyboardProbe probe;
  int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  int inotify = -1;
  std::thread thread;
  Sink sink;
  Notice notice;

  base::Mutex mutex;
  std::vector<Device> incoming GUARDED_BY(mutex);
  std::vector<std::string> names GUARDED_BY(mutex);  // for description()
  bool stopping GUARDED_BY(mutex) = false;

  std::vector<Device> devices;  // the reading thread's own once started

  ~Impl() {
    for (auto& device : devices) ::close(device.fd);
    base::MutexLock lock(mutex);
    for (auto& device : incoming) ::close(device.fd);
    if (inotify >= 0) ::close(inotify);
    if (wake >= 0) ::close(wake);
  }

  void publishNames() {
    std::vector<std::string> now;
    for (const auto& device : devices) now.push_back(device.name);
    base::MutexLock lock(mutex);
    names = std::move(now);
  }

  void emit(ModifierKey key, bool down) {
    if (sink) sink(KeyEvent{key, down});
  }

  // Releases whatever this device held, so the next press counts as one.
  void releaseHeld(Device& device) {
    if (device.leftDown) emit(ModifierKey::leftAlt, false);
    if (device.rightDown) emit(ModifierKey::rightAlt, false);
    device.leftDown = device.rightDown = false;
  }

  // After dropped events the kernel's key bits are the truth. Keys found up are released; keys
  // found down are only marked, because a press we did not see must not complete a double tap.
  void resync(Device& device) {
    std::array<unsigned char, KEY_MAX / 8 + 1> bits{};
    const bool known = ::ioctl(device.fd, EVIOCGKEY(bits.size()), bits.data()) >= 0;
    auto isDown = [&](int code) { return known && (bits[code / 8] >> (code % 8)) & 1; };
    const bool left = isDown(KEY_LEFTALT), right = isDown(KEY_RIGHTALT);
    if (device.leftDown && !left) emit(ModifierKey::leftAlt, false);
    if (device.rightDown && !right) emit(ModifierKey::rightAlt, false);
    device.leftDown = left;
    device.rightDown = right;
  }

  void decode(Device& device, const input_event& record) {
    if (record.type == EV_SYN) {
      if (record.code == SYN_DROPPED) {
        device.dropping = true;
      } else if (record.code == SYN_REPORT && device.dropping) {
        device.dropping = false;
        resync(device);
      }
      return;
    }
    if (device.dropping || record.type != EV_KEY) return;
    const bool down = record.value != 0;  // 1 press, 2 repeat, 0 release
    const ModifierKey key = record.code == KEY_LEFTALT    ? ModifierKey::leftAlt
                            : record.code == KEY_RIGHTALT ? ModifierKey::rightAlt
                                                          : ModifierKey::other;
    if (key == ModifierKey::leftAlt) device.leftDown = down;
    if (key == ModifierKey::rightAlt) device.rightDown = down;
    emit(key, down);
  }

  // False when the device is gone.
  bool drain(Device& device) {
    char buffer[sizeof(input_event) * 64];
    for (;;) {
      const ssize_t n = ::read(device.fd, buffer, sizeof buffer);
      if (n > 0) {
        device.pending.append(buffer, static_cast<std::size_t>(n));
        std::size_t used = 0;
        for (; device.pending.size() - used >= sizeof(input_event); used += sizeof(input_event)) {
          input_event record;
          std::memcpy(&record, device.pending.data() + used, sizeof record);
          decode(device, record);
        }
        device.pending.erase(0, used);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
      return false;  // end of file, ENODEV, EIO: unplugged
    }
  }

  void remove(std::size_t index) {
    Device& device = devices[index];
    releaseHeld(device);
    if (notice) notice("keyboard gone: " + device.name);
    ::close(device.fd);
    devices.erase(devices.begin() + static_cast<std::ptrdiff_t>(index));
    publishNames();
  }

  bool isOpen(const fs::path& path) const {
    return std::any_of(devices.begin(), devices.end(),
                       [&](const Device& d) { return d.path == path; });
  }

  // Opens `path` when it is a keyboard; counts what it found in `scan`.
  void tryOpen(const fs::path& path, Scan& scan) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      ++scan.unreadable;
      if (scan.problem.empty()) scan.problem = path.string() + ": " + std::strerror(errno);
      return;
    }
    const auto name = probe(fd);
    if (!name) {
      ++scan.others;
      ::close(fd);
      return;
    }
    ++scan.keyboards;
    devices.push_back(Device{fd, *name + " (" + path.string() + ")", path});
    if (notice) notice("keyboard added: " + devices.back().name);
  }

  Scan scanDirectory() {
    Scan scan;
    std::error_code ec;
    fs::directory_iterator it(directory, ec);
    if (ec) {
      scan.directoryMissing = true;
      scan.problem = directory.string() + ": " + ec.message();
      return scan;
    }
    std::vector<fs::path> entries;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
      if (ec) break;
      if (isEventNode(it->path())) entries.push_back(it->path());
    }
    std::sort(entries.begin(), entries.end());
    for (const auto& path : entries)
      if (!isOpen(path)) tryOpen(path, scan);
    publishNames();
    return scan;
  }

  void readInotify() {
    alignas(inotify_event) char buffer[4096];
    bool changed = false;
    for (;;) {
      const ssize_t n = ::read(inotify, buffer, sizeof buffer);
      if (n <= 0) break;
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        if (event->len && std::string_view(event->name).starts_with("event") &&
            (event->mask & (IN_CREATE | IN_ATTRIB)))
          changed = true;
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    // udev sets the mode after the node appears: a new node is tried again on its attribute
    // change. The ones already open are skipped.
    if (changed) scanDirectory();
  }

  void run() {
    for (;;) {
      {
        base::MutexLock lock(mutex);
        if (stopping) return;
        for (auto& device : incoming) devices.push_back(std::move(device));
        if (!incoming.empty()) {
          incoming.clear();
          lock.unlock();
          publishNames();
        }
      }
      std::vector<pollfd> fds{{wake, POLLIN, 0}, {inotify, POLLIN, 0}};
      for (const auto& device : devices) fds.push_back({device.fd, POLLIN, 0});
      if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) return;
      if (fds[0].revents) {
        std::uint64_t count;
        [[maybe_unused]] auto ignored = ::read(wake, &count, sizeof count);
      }
      // Devices first: the inotify scan below may add to the list.
      for (std::size_t i = fds.size(); i-- > 2;) {
        if (!fds[i].revents) continue;
        if (!drain(devices[i - 2])) remove(i - 2);
      }
      if (inotify >= 0 && fds[1].revents) readInotify();
    }
  }
};

std::optional<std::string> EvdevKeySource::probeWithLibevdev(int fd) {
  libevdev* dev = nullptr;
  if (libevdev_new_from_fd(fd, &dev) < 0) return std::nullopt;
  const bool keyboard = libevdev_has_event_code(dev, EV_KEY, KEY_LEFTALT) ||
                        libevdev_has_event_code(dev, EV_KEY, KEY_RIGHTALT);
  const char* name = libevdev_get_name(dev);
  std::optional<std::string> result;
  if (keyboard) result = name && *name ? name : "keyboard";
  libevdev_free(dev);
  return result;
}

EvdevKeySource::EvdevKeySource(fs::path directory, KeyboardProbe probe)
    : impl_(std::make_unique<Impl>()) {
  impl_->directory = std::move(directory);
  impl_->probe = std::move(probe);
}

EvdevKeySource::~EvdevKeySource() { stop(); }

EvdevKeySource::Scan EvdevKeySource::scan() { return impl_->scanDirectory(); }

void EvdevKeySource::addDevice(int fd, std::string name) {
  setNonBlocking(fd);
  {
    base::MutexLock lock(impl_->mutex);
    impl_->incoming.push_back(Device{fd, std::move(name), std::nullopt});
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] auto ignored = ::write(impl_->wake, &one, sizeof one);
}

std::string EvdevKeySource::description() const {
  std::vector<std::string> names;
  {
    base::MutexLock lock(impl_->mutex);
    names = impl_->names;
  }
  std::string text = "input devices under " + impl_->directory.string() + " (evdev; ";
  if (names.empty()) return text + "no keyboard yet, waiting for one)";
  text += std::to_string(names.size()) + (names.size() == 1 ? " keyboard: " : " keyboards: ");
  for (std::size_t i = 0; i < names.size(); ++i) text += (i ? ", " : "") + names[i];
  return text + ")";
}

void EvdevKeySource::start(Sink sink, Notice notice) {
  impl_->sink = std::move(sink);
  impl_->notice = std::move(notice);
  impl_->inotify = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (impl_->inotify >= 0 &&
      ::inotify_add_watch(impl_->inotify, impl_->directory.c_str(), IN_CREATE | IN_ATTRIB) < 0) {
    ::close(impl_->inotify);
    impl_->inotify = -1;
  }
  impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

void EvdevKeySource::stop() {
  {
    base::MutexLock lock(impl_->mutex);
    impl_->stopping = true;
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] auto ignored = ::write(impl_->wake, &one, sizeof one);
  if (impl_->thread.joinable()) impl_->thread.join();
}

KeySourceOpening openEvdevKeySource(const fs::path& directory) {
  auto source = std::make_unique<EvdevKeySource>(directory);
  const auto scan = source->scan();
  if (scan.directoryMissing)
    return {nullptr, "input devices: " + scan.problem + " (no input devices to read here)"};
  if (scan.keyboards > 0 || scan.others > 0) return {std::move(source), {}};
  if (scan.unreadable > 0)
    return {nullptr, "input devices: cannot read any of " + std::to_string(scan.unreadable) +
                         " devices under " + directory.string() + " (" + scan.problem +
                         "); join the `input` group (sudo usermod -aG input $USER) and log in "
                         "again"};
  return {nullptr, "input devices: no device under " + directory.string()};
}

}  // namespace tamsel::hotkey
