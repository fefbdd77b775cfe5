#include "input_checks.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "tamsel/base/dates.hpp"

namespace tamsel::cli {

std::string portProblem(const std::string& text) {
  long value = 0;
  const auto* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || ptr != end || value < 1 || value > 65535)
    return "'" + text + "' is not a port: use a number from 1 to 65535";
  return {};
}

std::string colourProblem(const std::string& text) {
  const bool ok = text.size() == 7 && text[0] == '#' &&
                  std::all_of(text.begin() + 1, text.end(),
                              [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
  return ok ? std::string() : "'" + text + "' is not a colour: use #RRGGBB, e.g. #3A7BD5";
}

std::string graceSecondsProblem(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  const bool ok = !text.empty() && end == text.c_str() + text.size() && value >= 0 && value <= 3600;
  return ok ? std::string() : "'" + text + "' is not a grace period: use seconds from 0 to 3600";
}

namespace {
// Local midnight of a calendar day, as RFC 3339 with the offset in force then.
std::string localMidnight(int year, int month, int day) {
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;  // mktime carries day 32 into the next month
  tm.tm_isdst = -1;
  const std::time_t t = std::mktime(&tm);
  std::tm local{};
  ::localtime_r(&t, &local);
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
  const std::string out(text);
  const auto split = out.size() - 2;  // +0100 → +01:00
  return out.substr(0, split) + ":" + out.substr(split);
}
}  // namespace

std::string calendarBound(const std::string& text, bool isEnd) {
  int year = 0, month = 0, day = 0;
  char extra = 0;
  if (text.size() == 10 &&
      std::sscanf(text.c_str(), "%4d-%2d-%2d%c", &year, &month, &day, &extra) == 3) {
    std::tm check{};
    check.tm_year = year - 1900;
    check.tm_mon = month - 1;
    check.tm_mday = day;
    check.tm_hour = 12;
    check.tm_isdst = -1;
    std::mktime(&check);
    if (month >= 1 && month <= 12 && check.tm_mday == day && check.tm_mon == month - 1)
      return localMidnight(year, month, isEnd ? day + 1 : day);
    throw std::invalid_argument("'" + text + "' is not a date on the calendar");
  }
  if (base::parseISO8601(text)) return text;
  throw std::invalid_argument("'" + text +
                              "' is not a date or time: use a date (2026-03-01, a whole day in "
                              "your zone) or a time with its offset (2026-03-01T09:00:00+01:00)");
}

std::optional<std::string> closestName(const std::string& word,
                                       const std::vector<std::string>& candidates) {
  const auto distance = [](const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
      std::size_t diagonal = row[0];
      row[0] = i;
      for (std::size_t j = 1; j <= b.size(); ++j) {
        const std::size_t above = row[j];
        row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
        diagonal = above;
      }
    }
    return row[b.size()];
  };
  std::optional<std::string> best;
  std::size_t bestDistance = std::max<std::size_t>(2, word.size() / 3) + 1;
  for (const auto& name : candidates) {
    if (word.size() >= 2 && name.starts_with(word)) return name;
    const auto d = distance(word, name);
    if (d < bestDistance) {
      bestDistance = d;
      best = name;
    }
  }
  return best;
}

}  // namespace tamsel::cli
