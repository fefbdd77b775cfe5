#include "tamsel/base/dates.hpp"

#include <date/date.h>

#include <sstream>

namespace tamsel::base {

namespace {

// `date` wants the offset as "+00:00"; the engine also writes "Z".
std::string normaliseZone(std::string_view text) {
  std::string s(text);
  if (!s.empty() && (s.back() == 'Z' || s.back() == 'z')) {
    s.pop_back();
    s += "+00:00";
  }
  return s;
}

template <class Duration>
std::optional<Timestamp> parseWith(const std::string& text) {
  std::istringstream in(text);
  date::sys_time<Duration> when;
  in >> date::parse("%FT%T%Ez", when);
  if (in.fail()) return std::nullopt;
  // Trailing bytes mean the form did not match the whole text.
  if (in.peek() != std::char_traits<char>::eof()) return std::nullopt;
  return std::chrono::time_point_cast<std::chrono::microseconds>(when);
}

}  // namespace

std::optional<Timestamp> parseISO8601(std::string_view text) {
  if (text.size() < 20 || text.size() > 40) return std::nullopt;
  if (text[10] != 'T' && text[10] != 't') return std::nullopt;
  std::string s = normaliseZone(text);
  s[10] = 'T';
  // With fractional seconds: a '.' must follow the seconds field.
  if (s.size() > 19 && s[19] == '.') {
    // The parser would take "02." as whole seconds; a fraction needs a digit.
    if (s.size() < 21 || s[20] < '0' || s[20] > '9') return std::nullopt;
    return parseWith<std::chrono::nanoseconds>(s);
  }
  return parseWith<std::chrono::seconds>(s);
}

std::string formatISO8601(Timestamp when) {
  return date::format("%FT%TZ", std::chrono::time_point_cast<std::chrono::milliseconds>(when));
}

}  // namespace tamsel::base
