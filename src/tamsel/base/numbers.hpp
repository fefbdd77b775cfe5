#pragma once
// Range-checked conversions of numbers that come from outside (files, the engine, the RPC
// channel). Converting a double that does not fit to an integer type is undefined behaviour, so
// every such conversion goes through here.
#include <cstdint>
#include <limits>
#include <optional>

namespace tamsel::base {

// The integer `value` stands for when it is a whole number within int64's range; nothing for a
// fraction, NaN, an infinity or a number out of range (5E20).
inline std::optional<std::int64_t> exactInt64(double value) {
  // 2^63 is exact as a double; every double below it and at or above -2^63 fits.
  constexpr double limit = 9223372036854775808.0;
  if (!(value >= -limit && value < limit)) return std::nullopt;
  const auto whole = static_cast<std::int64_t>(value);
  if (static_cast<double>(whole) != value) return std::nullopt;
  return whole;
}

// `value` when it lies within [low, high], else nothing.
template <class T>
std::optional<T> inRange(std::int64_t value, T low = std::numeric_limits<T>::min(),
                         T high = std::numeric_limits<T>::max()) {
  if (value < static_cast<std::int64_t>(low) || value > static_cast<std::int64_t>(high))
    return std::nullopt;
  return static_cast<T>(value);
}

}  // namespace tamsel::base
