#pragma once
// Logging with a source prefix: every line reads "[Source] message".
// Goes to the journal when the service manager connected our output to it, else to stderr; the
// level comes from TAMSEL_LOG (trace, debug, info, warn, error, off; default warn so that command
// output stays clean). Thread-safe. Never pass secrets (the presence token) to these functions.
#include <fmt/format.h>

#include <string_view>

namespace tamsel::base::log {

enum class Level { trace, debug, info, warn, error };

void write(Level level, std::string_view source, std::string_view message);
bool enabled(Level level);

template <class... Args>
void info(std::string_view source, fmt::format_string<Args...> format, Args&&... args) {
  if (enabled(Level::info))
    write(Level::info, source, fmt::format(format, std::forward<Args>(args)...));
}
template <class... Args>
void debug(std::string_view source, fmt::format_string<Args...> format, Args&&... args) {
  if (enabled(Level::debug))
    write(Level::debug, source, fmt::format(format, std::forward<Args>(args)...));
}
template <class... Args>
void warn(std::string_view source, fmt::format_string<Args...> format, Args&&... args) {
  if (enabled(Level::warn))
    write(Level::warn, source, fmt::format(format, std::forward<Args>(args)...));
}
template <class... Args>
void error(std::string_view source, fmt::format_string<Args...> format, Args&&... args) {
  if (enabled(Level::error))
    write(Level::error, source, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace tamsel::base::log
