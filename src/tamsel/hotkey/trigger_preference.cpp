#include "tamsel/hotkey/trigger_preference.hpp"

#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"

namespace tamsel::hotkey {

HotkeyTriggerMode loadTriggerMode(const base::PreferencesStore& preferences) {
  const auto stored = preferences.value(kTriggerModeKey);
  if (!stored) return kDefaultTriggerMode;
  if (stored->is_string())
    if (auto mode = triggerModeFrom(std::string_view(stored->as_string()))) return *mode;
  base::log::warn("Hotkey", "{} holds {}, not a trigger mode; using {}", kTriggerModeKey,
                  base::json::serialize(*stored), rawValue(kDefaultTriggerMode));
  return kDefaultTriggerMode;
}

void saveTriggerMode(base::PreferencesStore& preferences, HotkeyTriggerMode mode) {
  preferences.set(kTriggerModeKey, boost::json::value(std::string(rawValue(mode))));
}

}  // namespace tamsel::hotkey
