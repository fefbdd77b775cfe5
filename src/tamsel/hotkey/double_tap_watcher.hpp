#pragma once
// Runs the double-tap monitor over the first input backend that sees keys in every application,
// moving each key event to the main executor, where the monitor and its handler live.
//
// Backends are tried in the order that suits the session: X11 first under X11, the kernel's
// input devices first under Wayland (XWayland only sees keys typed into X11 clients). When none
// works, start() says why in words, beginning with the accessibility message; the application
// carries on without the hotkey.
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tamsel/base/main_executor.hpp"
#include "tamsel/hotkey/double_tap.hpp"
#include "tamsel/hotkey/key_source.hpp"

namespace tamsel::hotkey {

inline constexpr const char* kAccessibilityMessage =
    "Grant Accessibility to Tamsel Desktop so double-tap and Esc work in any app.";

enum class HotkeyBackend { automatic, x11, evdev };
std::string_view rawValue(HotkeyBackend backend);
std::optional<HotkeyBackend> hotkeyBackendFrom(std::string_view raw);

// What the backends need from the session (the composition root reads it once).
struct HotkeySession {
  std::optional<std::string> display;         // DISPLAY
  std::optional<std::string> waylandDisplay;  // WAYLAND_DISPLAY
  std::filesystem::path inputDirectory = "/dev/input";
};

class DoubleTapWatcher {
 public:
  using Handler = ModifierDoubleTapMonitor::Handler;
  using Notice = KeySource::Notice;

  // The handler and the notices run on `main`, which must outlive the watcher.
  DoubleTapWatcher(base::MainExecutor& main, OptionSide side, Handler onDoubleTap,
                   Notice onNotice = {}, ModifierDoubleTapMonitor::Now now = &Clock::now);
  ~DoubleTapWatcher();
  DoubleTapWatcher(const DoubleTapWatcher&) = delete;
  DoubleTapWatcher& operator=(const DoubleTapWatcher&) = delete;

  // Opens a backend and starts watching. Nothing on success; otherwise the explanation:
  // kAccessibilityMessage, then one line per backend tried with what failed and what to do.
  std::optional<std::string> start(const HotkeySession& session,
                                   HotkeyBackend backend = HotkeyBackend::automatic);
  // Starts over a source the caller opened.
  void start(std::unique_ptr<KeySource> source);
  // Stops the backend; events already on their way are dropped. Idempotent.
  void stop();

  bool running() const { return source_ != nullptr; }
  // The running backend in words; empty when stopped.
  std::string backendDescription() const;
  const ModifierDoubleTapMonitor& monitor() const { return state_->monitor; }

 private:
  struct State {
    ModifierDoubleTapMonitor monitor;
    std::uint64_t generation = 0;
  };
  base::MainExecutor& main_;
  Notice onNotice_;
  std::shared_ptr<State> state_;
  std::unique_ptr<KeySource> source_;
};

}  // namespace tamsel::hotkey
