#include "tamsel/hotkey/double_tap.hpp"

#include <array>
#include <utility>

namespace tamsel::hotkey {

namespace {
constexpr std::array<std::string_view, 3> kSideNames{"left", "right", "either"};
constexpr std::array<std::string_view, 4> kModeNames{"doubleTapLeft", "doubleTapRight", "custom",
                                                     "off"};
}  // namespace

std::string_view rawValue(OptionSide side) { return kSideNames[static_cast<std::size_t>(side)]; }

std::optional<OptionSide> optionSideFrom(std::string_view raw) {
  for (std::size_t i = 0; i < kSideNames.size(); ++i)
    if (kSideNames[i] == raw) return static_cast<OptionSide>(i);
  return std::nullopt;
}

std::string_view rawValue(HotkeyTriggerMode mode) {
  return kModeNames[static_cast<std::size_t>(mode)];
}

std::optional<HotkeyTriggerMode> triggerModeFrom(std::string_view raw) {
  for (std::size_t i = 0; i < kModeNames.size(); ++i)
    if (kModeNames[i] == raw) return static_cast<HotkeyTriggerMode>(i);
  return std::nullopt;
}

std::optional<OptionSide> doubleTapSide(HotkeyTriggerMode mode) {
  switch (mode) {
    case HotkeyTriggerMode::doubleTapLeft:
      return OptionSide::left;
    case HotkeyTriggerMode::doubleTapRight:
      return OptionSide::right;
    case HotkeyTriggerMode::custom:
    case HotkeyTriggerMode::off:
      break;
  }
  return std::nullopt;
}

bool OptionDoubleTapDetector::registerPress(OptionSide pressed, TimePoint at) {
  if (side != pressed && side != OptionSide::either) return false;
  if (lastDown) {
    const double interval = std::chrono::duration<double>(at - *lastDown).count();
    if (interval <= window) {
      lastDown.reset();
      return true;
    }
  }
  lastDown = at;
  return false;
}

ModifierDoubleTapMonitor::ModifierDoubleTapMonitor(OptionDoubleTapDetector detector,
                                                   Handler onDoubleTap, Now now)
    : detector_(detector), onDoubleTap_(std::move(onDoubleTap)), now_(std::move(now)) {}

void ModifierDoubleTapMonitor::handle(KeyEvent event) {
  bool* keyDown = event.key == ModifierKey::leftAlt    ? &leftDown_
                  : event.key == ModifierKey::rightAlt ? &rightDown_
                                                       : nullptr;
  if (keyDown) {
    if (!event.down && !*keyDown) return;  // a release of a key that is not down
    *keyDown = event.down;
  }
  const bool optionDown = leftDown_ || rightDown_;
  if (optionDown && !optionWasDown_) {
    optionWasDown_ = true;
    const auto side = event.key == ModifierKey::rightAlt ? OptionSide::right : OptionSide::left;
    // The handler may reset or replace us: nothing of ours is touched after it.
    if (detector_.registerPress(side, now_()) && onDoubleTap_) onDoubleTap_(side);
    return;
  }
  optionWasDown_ = optionDown;
}

void ModifierDoubleTapMonitor::reset() {
  optionWasDown_ = false;
  leftDown_ = false;
  rightDown_ = false;
}

}  // namespace tamsel::hotkey
