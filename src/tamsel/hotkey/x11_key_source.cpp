// The X11 backend: XInput2 raw key events on the root window. Raw events are delivered whichever
// client has focus and need no grab, so nothing is taken from other applications; they carry no
// modifier state, which the monitor tracks from the presses and releases itself.
#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>
#include <X11/keysym.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "tamsel/base/mutex.hpp"
#include "tamsel/hotkey/key_source.hpp"

namespace tamsel::hotkey {

namespace {

struct AltKeycodes {
  std::set<int> left, right;
  bool rightIsAltGr = false;
};

// The Alt keys by keysym from the server's keymap. Where the layout makes the right Alt key
// AltGr (ISO_Level3_Shift, no Alt_R anywhere), that key counts as the right Alt: tapping it
// alone types nothing, and it is the key the user knows as right Alt.
AltKeycodes readAltKeycodes(Display* display) {
  AltKeycodes codes;
  int minCode = 0, maxCode = 0, perCode = 0;
  XDisplayKeycodes(display, &minCode, &maxCode);
  KeySym* map =
      XGetKeyboardMapping(display, static_cast<KeyCode>(minCode), maxCode - minCode + 1, &perCode);
  if (!map) return codes;
  std::set<int> altGr;
  for (int code = minCode; code <= maxCode; ++code) {
    const KeySym first = map[(code - minCode) * perCode];
    if (first == XK_Alt_L) codes.left.insert(code);
    if (first == XK_Alt_R) codes.right.insert(code);
    if (first == XK_ISO_Level3_Shift) altGr.insert(code);
  }
  XFree(map);
  if (codes.right.empty() && !altGr.empty()) {
    codes.right = std::move(altGr);
    codes.rightIsAltGr = true;
  }
  return codes;
}

class X11KeySource final : public KeySource {
 public:
  X11KeySource(Display* display, int xiOpcode, std::string name)
      : display_(display), xiOpcode_(xiOpcode), name_(std::move(name)) {
    codes_ = readAltKeycodes(display_);
    // Xlib speaks XKB to the server, which then reports keymap changes as XKB events rather
    // than core MappingNotify: ask for those.
    int opcode = 0, error = 0, major = XkbMajorVersion, minor = XkbMinorVersion;
    if (XkbQueryExtension(display_, &opcode, &xkbEventBase_, &error, &major, &minor))
      XkbSelectEvents(display_, XkbUseCoreKbd, XkbMapNotifyMask | XkbNewKeyboardNotifyMask,
                      XkbMapNotifyMask | XkbNewKeyboardNotifyMask);
    else
      xkbEventBase_ = -1;
  }

  ~X11KeySource() override {
    stop();
    // After the server went away Xlib would end the process on any call: only close the socket.
    if (serverGone_)
      ::close(ConnectionNumber(display_));
    else
      XCloseDisplay(display_);
    ::close(wake_);
  }

  std::string description() const override {
    base::MutexLock lock(mutex_);
    std::string text = "X11 (XInput2 raw key events on " + name_ + "; Alt_L keycode ";
    auto list = [](const std::set<int>& codes) {
      std::string out;
      for (int code : codes) out += (out.empty() ? "" : "/") + std::to_string(code);
      return out.empty() ? std::string("none") : out;
    };
    text += list(codes_.left) +
            (codes_.rightIsAltGr ? ", AltGr as right Alt keycode " : ", Alt_R keycode ") +
            list(codes_.right) + ")";
    return text;
  }

  void start(Sink sink, Notice notice) override {
    sink_ = std::move(sink);
    notice_ = std::move(notice);
    XIEventMask mask;
    unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(bits, XI_RawKeyPress);
    XISetMask(bits, XI_RawKeyRelease);
    // Master devices only: a slave's raw event would come a second time through its master.
    mask.deviceid = XIAllMasterDevices;
    mask.mask_len = sizeof bits;
    mask.mask = bits;
    XISelectEvents(display_, DefaultRootWindow(display_), &mask, 1);
    XFlush(display_);
    thread_ = std::thread([this] { run(); });
  }

  void stop() override {
    stopping_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] auto ignored = ::write(wake_, &one, sizeof one);
    if (thread_.joinable()) thread_.join();
  }

 private:
  ModifierKey keyFor(int keycode) const {
    base::MutexLock lock(mutex_);
    if (codes_.left.count(keycode)) return ModifierKey::leftAlt;
    if (codes_.right.count(keycode)) return ModifierKey::rightAlt;
    return ModifierKey::other;
  }

  // The socket reads as end of file once the server is gone; Xlib must not see that.
  bool connectionClosed() const {
    char byte;
    return ::recv(ConnectionNumber(display_), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }

  void handle(XEvent& event) {
    const bool keymapChanged =
        event.type == MappingNotify ||
        (xkbEventBase_ >= 0 && event.type == xkbEventBase_ &&
         (reinterpret_cast<XkbEvent&>(event).any.xkb_type == XkbMapNotify ||
          reinterpret_cast<XkbEvent&>(event).any.xkb_type == XkbNewKeyboardNotify));
    if (keymapChanged) {
      if (event.type == MappingNotify) XRefreshKeyboardMapping(&event.xmapping);
      auto codes = readAltKeycodes(display_);
      base::MutexLock lock(mutex_);
      codes_ = std::move(codes);
      return;
    }
    if (event.type != GenericEvent || event.xcookie.extension != xiOpcode_) return;
    if (!XGetEventData(display_, &event.xcookie)) return;
    const int type = event.xcookie.evtype;
    if (type == XI_RawKeyPress || type == XI_RawKeyRelease) {
      const auto* raw = static_cast<const XIRawEvent*>(event.xcookie.data);
      if (sink_) sink_(KeyEvent{keyFor(raw->detail), type == XI_RawKeyPress});
    }
    XFreeEventData(display_, &event.xcookie);
  }

  void run() {
    const int fd = ConnectionNumber(display_);
    while (!stopping_) {
      // Events Xlib already read come first; XPending only reads when its queue is empty.
      while (XEventsQueued(display_, QueuedAlready) > 0) {
        XEvent event;
        XNextEvent(display_, &event);
        handle(event);
      }
      pollfd fds[2] = {{wake_, POLLIN, 0}, {fd, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) continue;
      if (stopping_) return;
      if (fds[1].revents & (POLLHUP | POLLERR) || (fds[1].revents & POLLIN && connectionClosed())) {
        serverGone_ = true;
        if (notice_) notice_("the X server " + name_ + " closed the connection");
        return;
      }
      if (fds[1].revents & POLLIN) XEventsQueued(display_, QueuedAfterReading);
    }
  }

  Display* display_;
  int xiOpcode_;
  int xkbEventBase_ = -1;
  std::string name_;
  int wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> serverGone_{false};
  Sink sink_;
  Notice notice_;
  mutable base::Mutex mutex_;  // the keycodes: read by description() on another thread
  AltKeycodes codes_ GUARDED_BY(mutex_);
};

}  // namespace

KeySourceOpening openX11KeySource(const std::optional<std::string>& display) {
  const std::string name = display.value_or("");
  if (name.empty()) return {nullptr, "X11: DISPLAY is not set (no X server to ask)"};
  Display* connection = XOpenDisplay(name.c_str());
  if (!connection) return {nullptr, "X11: cannot open display " + name};
  int opcode = 0, event = 0, error = 0;
  int major = 2, minor = 1;  // raw events to the root window without a grab came with 2.1
  if (!XQueryExtension(connection, "XInputExtension", &opcode, &event, &error) ||
      XIQueryVersion(connection, &major, &minor) != Success || major < 2 ||
      (major == 2 && minor < 1)) {
    XCloseDisplay(connection);
    return {nullptr, "X11: the server on " + name + " has no XInput 2.1 (raw key events)"};
  }
  return {std::make_unique<X11KeySource>(connection, opcode, name), {}};
}

}  // namespace tamsel::hotkey
