#include "tamsel/hotkey/double_tap_watcher.hpp"

#include <array>
#include <vector>

namespace tamsel::hotkey {

namespace {
constexpr std::array<std::string_view, 3> kBackendNames{"auto", "x11", "evdev"};
}

std::string_view rawValue(HotkeyBackend backend) {
  return kBackendNames[static_cast<std::size_t>(backend)];
}

std::optional<HotkeyBackend> hotkeyBackendFrom(std::string_view raw) {
  for (std::size_t i = 0; i < kBackendNames.size(); ++i)
    if (kBackendNames[i] == raw) return static_cast<HotkeyBackend>(i);
  return std::nullopt;
}

DoubleTapWatcher::DoubleTapWatcher(base::MainExecutor& main, OptionSide side, Handler onDoubleTap,
                                   Notice onNotice, ModifierDoubleTapMonitor::Now now)
    : main_(main),
      onNotice_(std::move(onNotice)),
      state_(std::make_shared<State>(
          State{ModifierDoubleTapMonitor(OptionDoubleTapDetector(side, kDoubleTapWindowSeconds),
                                         std::move(onDoubleTap), std::move(now)),
                0})) {}

DoubleTapWatcher::~DoubleTapWatcher() { stop(); }

std::optional<std::string> DoubleTapWatcher::start(const HotkeySession& session,
                                                   HotkeyBackend backend) {
  std::vector<HotkeyBackend> order;
  if (backend != HotkeyBackend::automatic)
    order = {backend};
  else if (session.waylandDisplay && !session.waylandDisplay->empty())
    order = {HotkeyBackend::evdev, HotkeyBackend::x11};
  else
    order = {HotkeyBackend::x11, HotkeyBackend::evdev};

  std::string reasons;
  for (const auto candidate : order) {
    auto opening = candidate == HotkeyBackend::x11 ? openX11KeySource(session.display)
                                                   : openEvdevKeySource(session.inputDirectory);
    if (!opening.source) {
      reasons += "\n  " + opening.failure;
      continue;
    }
    const bool xwaylandOnly = candidate == HotkeyBackend::x11 && session.waylandDisplay &&
                              !session.waylandDisplay->empty();
    start(std::move(opening.source));
    if (xwaylandOnly && onNotice_)
      onNotice_(
          "on Wayland the X11 backend sees only keys typed into X11 applications; join the "
          "`input` group for every application" +
          reasons);
    return std::nullopt;
  }
  return kAccessibilityMessage + reasons;
}

void DoubleTapWatcher::start(std::unique_ptr<KeySource> source) {
  stop();
  source_ = std::move(source);
  std::weak_ptr<State> weak = state_;
  const auto generation = state_->generation;
  auto& main = main_;
  source_->start(
      [&main, weak, generation](KeyEvent event) {
        main.post([weak, generation, event] {
          if (auto state = weak.lock(); state && state->generation == generation)
            state->monitor.handle(event);
        });
      },
      [&main, weak, generation, notice = onNotice_](const std::string& text) {
        if (!notice) return;
        main.post([weak, generation, notice, text] {
          if (auto state = weak.lock(); state && state->generation == generation) notice(text);
        });
      });
}

void DoubleTapWatcher::stop() {
  if (!source_) return;
  source_->stop();
  source_.reset();
  ++state_->generation;
  state_->monitor.reset();
}

std::string DoubleTapWatcher::backendDescription() const {
  return source_ ? source_->description() : std::string();
}

}  // namespace tamsel::hotkey
