#pragma once
// The trigger setting in the user's preferences.
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/hotkey/double_tap.hpp"

namespace tamsel::hotkey {

inline constexpr const char* kTriggerModeKey = "dev.tamsel.desktop.hotkey.triggerMode";
// A double tap of the left Alt key until the user chooses otherwise.
inline constexpr HotkeyTriggerMode kDefaultTriggerMode = HotkeyTriggerMode::doubleTapLeft;

// The stored mode; the default when none is stored or the stored text is not a mode (logged).
HotkeyTriggerMode loadTriggerMode(const base::PreferencesStore& preferences);
// Throws what PreferencesStore::set throws.
void saveTriggerMode(base::PreferencesStore& preferences, HotkeyTriggerMode mode);

}  // namespace tamsel::hotkey
