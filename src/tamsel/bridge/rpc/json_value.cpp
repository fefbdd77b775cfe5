#include "tamsel/bridge/rpc/json_value.hpp"

#include <boost/json/value.hpp>
#include <cmath>
#include <limits>

#include "tamsel/base/json.hpp"

namespace tamsel::bridge::rpc {

namespace bj = boost::json;

const JSONValue* JSONValue::find(std::string_view key) const {
  const auto* members = ifObject();
  if (!members) return nullptr;
  auto it = members->find(std::string(key));
  return it == members->end() ? nullptr : &it->second;
}

JSONValue JSONValue::fromJSON(const bj::value& json) {
  switch (json.kind()) {
    case bj::kind::null:
      return JSONValue(nullptr);
    case bj::kind::bool_:
      return JSONValue(json.get_bool());
    case bj::kind::int64:
      return JSONValue(json.get_int64());
    case bj::kind::uint64: {
      // Above the int64 range the next case that fits is double.
      const std::uint64_t u = json.get_uint64();
      if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return JSONValue(static_cast<std::int64_t>(u));
      return JSONValue(static_cast<double>(u));
    }
    case bj::kind::double_:
      if (std::isfinite(json.get_double())) return JSONValue(json.get_double());
      break;
    case bj::kind::string:
      return JSONValue(std::string(json.get_string()));
    case bj::kind::array: {
      Array items;
      items.reserve(json.get_array().size());
      for (const auto& item : json.get_array()) items.push_back(fromJSON(item));
      return JSONValue(std::move(items));
    }
    case bj::kind::object: {
      Object members;
      for (const auto& entry : json.get_object())
        members.insert_or_assign(std::string(entry.key()), fromJSON(entry.value()));
      return JSONValue(std::move(members));
    }
  }
  throw DataCorruptedError("JSON value does not match any supported variant");
}

bj::value JSONValue::toJSON() const {
  return std::visit(
      [](const auto& v) -> bj::value {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::nullptr_t>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, std::string>) {
          return bj::string(v);
        } else if constexpr (std::is_same_v<T, Array>) {
          bj::array out;
          out.reserve(v.size());
          for (const auto& item : v) out.push_back(item.toJSON());
          return out;
        } else if constexpr (std::is_same_v<T, Object>) {
          bj::object out;
          out.reserve(v.size());
          for (const auto& [key, item] : v) out[key] = item.toJSON();
          return out;
        } else {
          return bj::value(v);
        }
      },
      value);
}

std::string JSONValue::serialize() const { return base::json::serialize(toJSON()); }

}  // namespace tamsel::bridge::rpc
