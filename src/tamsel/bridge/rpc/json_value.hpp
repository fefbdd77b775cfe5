#pragma once
// Any JSON value, as the RPC channel carries parameters and results. It travels as the bare
// value (no tag); integers and doubles stay apart, so 3 comes back as an integer and 3.5 (or
// 3.0) as a double.
#include <boost/json/fwd.hpp>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tamsel/base/error.hpp"

namespace tamsel::bridge::rpc {

// A message body that is not what the channel expects: the peer sent corrupt data.
class DataCorruptedError : public base::Error {
 public:
  static constexpr std::string_view category = "rpc_data";
  explicit DataCorruptedError(const std::string& message)
      : Error(category, "data_corrupted", message) {}
};

struct JSONValue {
  using Array = std::vector<JSONValue>;
  using Object = std::map<std::string, JSONValue>;
  // Cases in decoding order after null: the first that fits a JSON value wins.
  using Variant =
      std::variant<bool, std::int64_t, double, std::string, Array, Object, std::nullptr_t>;

  Variant value{nullptr};

  JSONValue() = default;
  JSONValue(std::nullptr_t) {}
  JSONValue(bool v) : value(v) {}
  template <class T>
  requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) JSONValue(T v)
      : value(static_cast<std::int64_t>(v)) {}
  JSONValue(double v) : value(v) {}
  JSONValue(std::string v) : value(std::move(v)) {}
  JSONValue(std::string_view v) : value(std::string(v)) {}
  JSONValue(const char* v) : value(std::string(v)) {}
  JSONValue(Array v) : value(std::move(v)) {}
  JSONValue(Object v) : value(std::move(v)) {}

  static JSONValue object(std::initializer_list<std::pair<const std::string, JSONValue>> members) {
    return JSONValue(Object(members));
  }

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(value); }
  const Object* ifObject() const { return std::get_if<Object>(&value); }
  const Array* ifArray() const { return std::get_if<Array>(&value); }
  const std::string* ifString() const { return std::get_if<std::string>(&value); }
  const std::int64_t* ifInt() const { return std::get_if<std::int64_t>(&value); }
  const double* ifDouble() const { return std::get_if<double>(&value); }
  const bool* ifBool() const { return std::get_if<bool>(&value); }
  // A member of an object, or null when this is no object or has no such key.
  const JSONValue* find(std::string_view key) const;

  bool operator==(const JSONValue&) const = default;

  // Throws DataCorruptedError("JSON value does not match any supported variant") for a value no
  // case can hold (a number beyond double range, which the parser turns into infinity).
  static JSONValue fromJSON(const boost::json::value& json);
  boost::json::value toJSON() const;
  // Compact text, doubles in their shortest round-trip form.
  std::string serialize() const;
};

}  // namespace tamsel::bridge::rpc
