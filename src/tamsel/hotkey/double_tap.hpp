#pragma once
// The Alt double-tap trigger, free of any input system: which Alt key counts, the detector that
// decides whether a press completes a double tap, the setting that chooses the trigger, and the
// monitor's edge detection over abstract key events. The input backends (X11, evdev) only turn
// their events into KeyEvents.
#include <chrono>
#include <functional>
#include <optional>
#include <string_view>

namespace tamsel::hotkey {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// Which Alt key (the Option key on some keyboards).
enum class OptionSide { left, right, either };

std::string_view rawValue(OptionSide side);
// Any other text is no side.
std::optional<OptionSide> optionSideFrom(std::string_view raw);

// A plain value: copy it, compare it.
struct OptionDoubleTapDetector {
  OptionSide side;
  double window;  // seconds between the two presses, at most
  std::optional<TimePoint> lastDown;

  OptionDoubleTapDetector(OptionSide side, double window) : side(side), window(window) {}

  // True when this press (its side, its time) completes a double tap. A press of the other key
  // changes nothing; the interval is not required to be positive (a clock that steps back still
  // pairs); with `either` a left press and a right one pair.
  bool registerPress(OptionSide pressed, TimePoint at);

  bool operator==(const OptionDoubleTapDetector&) const = default;
};

// The user's choice of trigger, kept in the preferences.
enum class HotkeyTriggerMode { doubleTapLeft, doubleTapRight, custom, off };

std::string_view rawValue(HotkeyTriggerMode mode);
std::optional<HotkeyTriggerMode> triggerModeFrom(std::string_view raw);
// The side a double-tap detector watches for this mode; nothing when the monitor does not run
// (`off`, and `custom`, whose shortcut is not a double tap).
std::optional<OptionSide> doubleTapSide(HotkeyTriggerMode mode);

// The window the application's detector uses.
inline constexpr double kDoubleTapWindowSeconds = 0.4;

// Which key changed, as far as the trigger cares.
enum class ModifierKey { leftAlt, rightAlt, other };

struct KeyEvent {
  ModifierKey key;
  bool down;  // a press (or a repeat); false: a release
};

// Edge detection over key presses and releases: a press counts only when no Alt key was down, so
// other keys while Alt is held are not presses and a release re-arms. Releases of an Alt key that
// is not down are ignored (synthetic input sends stray ones). Used on one thread.
class ModifierDoubleTapMonitor {
 public:
  using Handler = std::function<void(OptionSide)>;
  using Now = std::function<TimePoint()>;

  ModifierDoubleTapMonitor(OptionDoubleTapDetector detector, Handler onDoubleTap,
                           Now now = &Clock::now);

  // One key change; calls the handler (with the side of the completing press) on a double tap.
  void handle(KeyEvent event);
  // Forgets which keys are down and whether Alt was down; the pending press stays pending.
  void reset();

  bool optionWasDown() const { return optionWasDown_; }
  const OptionDoubleTapDetector& detector() const { return detector_; }

 private:
  OptionDoubleTapDetector detector_;
  Handler onDoubleTap_;
  Now now_;
  bool optionWasDown_ = false;
  bool leftDown_ = false;
  bool rightDown_ = false;
};

}  // namespace tamsel::hotkey
