#pragma once
// Mapping of records to and from JSON for the engine's HTTP API.
//
// A record is a struct described with BOOST_DESCRIBE_STRUCT; each member travels under the
// snake-case form of its name ("msgCount" as "msg_count"). Optional members are left out when
// absent and decode as absent from a missing key or null. Timestamps follow the engine's date
// rule (tamsel/base/dates.hpp); a date text that does not parse fails the whole decode, as does a
// missing required member or a value of the wrong type. Unknown keys are ignored.
#include <boost/describe/members.hpp>
#include <boost/json/value.hpp>
#include <boost/mp11/algorithm.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/error.hpp"
#include "tamsel/base/strings.hpp"

namespace tamsel::base::json {

namespace bj = boost::json;

// Thrown when a JSON value does not have the shape of the record asked for.
class DecodeError : public base::Error {
 public:
  static constexpr std::string_view category = "decode";
  explicit DecodeError(const std::string& message) : Error(category, "invalid", message) {}
};

// Parses text into a JSON value; throws DecodeError with the parser's reason on bad input.
bj::value parse(std::string_view text);
// Serialises compactly; doubles are written in their shortest round-trip form ("3.5", not "3.5E0").
std::string serialize(const bj::value& value);

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

// The snake-case keys of a record's members, computed once per type.
template <class T>
const std::vector<std::string>& memberKeys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> out;
    using Members = boost::describe::describe_members<T, boost::describe::mod_public>;
    boost::mp11::mp_for_each<Members>([&](auto member) { out.push_back(snakeCase(member.name)); });
    return out;
  }();
  return keys;
}

// ---- encoding ----

inline void encodeInto(bj::value& out, bool v) { out = v; }
inline void encodeInto(bj::value& out, const std::string& v) { out = bj::string(v); }
inline void encodeInto(bj::value& out, double v) { out = v; }
inline void encodeInto(bj::value& out, const bj::value& v) { out = v; }
inline void encodeInto(bj::value& out, const bj::object& v) { out = v; }
inline void encodeInto(bj::value& out, Timestamp v) { out = bj::string(formatISO8601(v)); }
template <class T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) void encodeInto(bj::value& out, T v) {
  out = static_cast<std::int64_t>(v);
}
template <class T>
void encodeInto(bj::value& out, const std::optional<T>& v);
template <class T>
void encodeInto(bj::value& out, const std::vector<T>& v);
template <class T>
void encodeInto(bj::value& out, const std::map<std::string, T>& v);
template <class T>
requires boost::describe::has_describe_members<T>::value void encodeInto(bj::value& out,
                                                                         const T& record);

template <class T>
void encodeInto(bj::value& out, const std::optional<T>& v) {
  if (v)
    encodeInto(out, *v);
  else
    out = nullptr;
}
template <class T>
void encodeInto(bj::value& out, const std::vector<T>& v) {
  bj::array array;
  array.reserve(v.size());
  for (const auto& item : v) {
    bj::value element;
    encodeInto(element, item);
    array.push_back(std::move(element));
  }
  out = std::move(array);
}
template <class T>
void encodeInto(bj::value& out, const std::map<std::string, T>& v) {
  bj::object object;
  for (const auto& [key, item] : v) {
    bj::value element;
    encodeInto(element, item);
    object[key] = std::move(element);
  }
  out = std::move(object);
}
template <class T>
requires boost::describe::has_describe_members<T>::value void encodeInto(bj::value& out,
                                                                         const T& record) {
  bj::object object;
  const auto& keys = memberKeys<T>();
  std::size_t next = 0;
  using Members = boost::describe::describe_members<T, boost::describe::mod_public>;
  boost::mp11::mp_for_each<Members>([&](auto member) {
    const std::size_t i = next++;
    const auto& field = record.*member.pointer;
    using Field = std::remove_cvref_t<decltype(field)>;
    if constexpr (IsOptional<Field>::value) {
      if (!field) return;
    }
    bj::value element;
    encodeInto(element, field);
    object[keys[i]] = std::move(element);
  });
  out = std::move(object);
}

template <class T>
bj::value encode(const T& value) {
  bj::value out;
  encodeInto(out, value);
  return out;
}

// ---- decoding ----

// Where a value sits in the document, built on the stack while decoding and turned into text
// ("$.sessions[3].updated_at") only when something fails.
struct Path {
  const Path* parent = nullptr;
  std::string_view key;  // member name, or empty for an array element
  std::size_t index = 0;
  std::string text() const;
};
inline const Path rootPath{};

[[noreturn]] void typeMismatch(const Path& path, std::string_view expected);
[[noreturn]] void invalidValue(const Path& path, std::string_view what);

void decodeFrom(const bj::value& in, bool& out, const Path& path);
void decodeFrom(const bj::value& in, std::string& out, const Path& path);
void decodeFrom(const bj::value& in, double& out, const Path& path);
void decodeFrom(const bj::value& in, std::int64_t& out, const Path& path);
void decodeFrom(const bj::value& in, Timestamp& out, const Path& path);
inline void decodeFrom(const bj::value& in, bj::value& out, const Path&) { out = in; }
void decodeFrom(const bj::value& in, bj::object& out, const Path& path);
template <class T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool> &&
         !std::is_same_v<T, std::int64_t>) void decodeFrom(const bj::value& in, T& out,
                                                           const Path& path) {
  std::int64_t wide = 0;
  decodeFrom(in, wide, path);
  if (wide < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
      static_cast<std::uint64_t>(wide) > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
    typeMismatch(path, "an integer in range");
  out = static_cast<T>(wide);
}
template <class T>
void decodeFrom(const bj::value& in, std::optional<T>& out, const Path& path);
template <class T>
void decodeFrom(const bj::value& in, std::vector<T>& out, const Path& path);
template <class T>
void decodeFrom(const bj::value& in, std::map<std::string, T>& out, const Path& path);
template <class T>
requires boost::describe::has_describe_members<T>::value void decodeFrom(const bj::value& in,
                                                                         T& out, const Path& path);

template <class T>
void decodeFrom(const bj::value& in, std::optional<T>& out, const Path& path) {
  if (in.is_null()) {
    out.reset();
    return;
  }
  T value{};
  decodeFrom(in, value, path);
  out = std::move(value);
}
template <class T>
void decodeFrom(const bj::value& in, std::vector<T>& out, const Path& path) {
  const auto* array = in.if_array();
  if (!array) typeMismatch(path, "an array");
  out.clear();
  out.reserve(array->size());
  for (size_t i = 0; i < array->size(); ++i) {
    const Path itemPath{&path, {}, i};
    T item{};
    decodeFrom((*array)[i], item, itemPath);
    out.push_back(std::move(item));
  }
}
template <class T>
void decodeFrom(const bj::value& in, std::map<std::string, T>& out, const Path& path) {
  const auto* object = in.if_object();
  if (!object) typeMismatch(path, "an object");
  out.clear();
  for (const auto& entry : *object) {
    T item{};
    decodeFrom(entry.value(), item, Path{&path, entry.key(), 0});
    out.emplace(std::string(entry.key()), std::move(item));
  }
}
template <class T>
requires boost::describe::has_describe_members<T>::value void decodeFrom(const bj::value& in,
                                                                         T& out, const Path& path) {
  const auto* object = in.if_object();
  if (!object) typeMismatch(path, "an object");
  const auto& keys = memberKeys<T>();
  std::size_t next = 0;
  using Members = boost::describe::describe_members<T, boost::describe::mod_public>;
  boost::mp11::mp_for_each<Members>([&](auto member) {
    const std::string& key = keys[next++];
    auto& field = out.*member.pointer;
    using Field = std::remove_cvref_t<decltype(field)>;
    const auto* found = object->if_contains(key);
    if (!found) {
      if constexpr (IsOptional<Field>::value) {
        field.reset();
        return;
      } else {
        invalidValue(path, "missing key \"" + key + "\"");
      }
    }
    decodeFrom(*found, field, Path{&path, key, 0});
  });
}

template <class T>
T decode(const bj::value& value) {
  T out{};
  decodeFrom(value, out, rootPath);
  return out;
}

template <class T>
T decode(std::string_view text) {
  return decode<T>(parse(text));
}
template <class T>
T decode(const char* text) {
  return decode<T>(std::string_view(text));
}

}  // namespace tamsel::base::json
