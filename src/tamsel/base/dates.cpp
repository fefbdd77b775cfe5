#include "tamsel/base/dates.hpp"

#include <date/date.h>

#include <ctime>

namespace tamsel::base {

namespace {

// Reads `count` digits at `at`; false when any is not a digit.
bool digits(std::string_view text, size_t at, size_t count, int& out) {
  if (at + count > text.size()) return false;
  out = 0;
  for (size_t i = at; i < at + count; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return false;
    out = out * 10 + (c - '0');
  }
  return true;
}

// The fixed-layout fields are scanned by hand (this runs for every date of every session file);
// the calendar arithmetic is the date library's.
std::optional<Timestamp> parse(std::string_view s, bool withFraction) {
  int year, month, day, hour, minute, second;
  if (!digits(s, 0, 4, year) || s.size() < 20 || s[4] != '-' || !digits(s, 5, 2, month) ||
      s[7] != '-' || !digits(s, 8, 2, day) || (s[10] != 'T' && s[10] != 't') ||
      !digits(s, 11, 2, hour) || s[13] != ':' || !digits(s, 14, 2, minute) || s[16] != ':' ||
      !digits(s, 17, 2, second))
    return std::nullopt;
  size_t at = 19;
  std::int64_t micros = 0;
  if (withFraction) {
    if (at >= s.size() || s[at] != '.') return std::nullopt;
    ++at;
    const size_t first = at;
    std::int64_t scale = 100000;
    while (at < s.size() && s[at] >= '0' && s[at] <= '9') {
      micros += (s[at] - '0') * scale;
      scale /= 10;
      ++at;
    }
    if (at == first) return std::nullopt;
  }
  if (at >= s.size()) return std::nullopt;
  std::chrono::minutes offset{0};
  if (s[at] == 'Z' || s[at] == 'z') {
    ++at;
  } else if (s[at] == '+' || s[at] == '-') {
    int oh, om;
    if (!digits(s, at + 1, 2, oh) || at + 3 >= s.size() || s[at + 3] != ':' ||
        !digits(s, at + 4, 2, om) || oh > 23 || om > 59)
      return std::nullopt;
    offset = std::chrono::hours(oh) + std::chrono::minutes(om);
    if (s[at] == '-') offset = -offset;
    at += 6;
  } else {
    return std::nullopt;
  }
  if (at != s.size()) return std::nullopt;
  const date::year_month_day ymd{date::year(year), date::month(static_cast<unsigned>(month)),
                                 date::day(static_cast<unsigned>(day))};
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const auto when = date::sys_days(ymd) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                    std::chrono::seconds(second) + std::chrono::microseconds(micros) - offset;
  return std::chrono::time_point_cast<std::chrono::microseconds>(when);
}

}  // namespace

std::optional<Timestamp> parseISO8601(std::string_view text) {
  if (auto withFraction = parse(text, true)) return withFraction;
  return parse(text, false);
}

Timestamp nowTimestamp() {
  return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

std::string formatISO8601(Timestamp when) {
  return date::format("%FT%TZ", std::chrono::time_point_cast<std::chrono::milliseconds>(when));
}

std::string formatLocalTime(Timestamp when, bool withSeconds) {
  const std::time_t seconds =
      std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(when));
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char text[32];
  std::strftime(text, sizeof text, withSeconds ? "%Y-%m-%d %H:%M:%S" : "%Y-%m-%d %H:%M", &local);
  return text;
}

}  // namespace tamsel::base
