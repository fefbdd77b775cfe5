#include "tamsel/base/json.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <charconv>
#include <cmath>

#include "tamsel/base/numbers.hpp"

namespace tamsel::base::json {

bj::value parse(std::string_view text) {
  boost::system::error_code ec;
  bj::value value = bj::parse(text, ec);
  if (ec) throw DecodeError("invalid JSON: " + ec.message());
  return value;
}

namespace {

void serializeInto(std::string& out, const bj::value& value) {
  switch (value.kind()) {
    case bj::kind::double_: {
      const double d = value.get_double();
      if (!std::isfinite(d)) {
        out += "null";
        return;
      }
      char buffer[32];
      auto result = std::to_chars(buffer, buffer + sizeof buffer, d);
      std::string_view text(buffer, static_cast<size_t>(result.ptr - buffer));
      out += text;
      // Keep a double recognisable as one when a peer reads it back.
      if (text.find_first_of(".eEn") == std::string_view::npos) out += ".0";
      return;
    }
    case bj::kind::array: {
      out += '[';
      bool first = true;
      for (const auto& item : value.get_array()) {
        if (!first) out += ',';
        first = false;
        serializeInto(out, item);
      }
      out += ']';
      return;
    }
    case bj::kind::object: {
      out += '{';
      bool first = true;
      for (const auto& entry : value.get_object()) {
        if (!first) out += ',';
        first = false;
        out += bj::serialize(bj::string_view(entry.key()));
        out += ':';
        serializeInto(out, entry.value());
      }
      out += '}';
      return;
    }
    default:
      out += bj::serialize(value);
  }
}

}  // namespace

std::string serialize(const bj::value& value) {
  std::string out;
  serializeInto(out, value);
  return out;
}

std::string Path::text() const {
  if (!parent) return "$";
  std::string out = parent->text();
  if (key.empty())
    out += "[" + std::to_string(index) + "]";
  else
    out.append(".").append(key);
  return out;
}

void typeMismatch(const Path& path, std::string_view expected) {
  throw DecodeError("expected " + std::string(expected) + " at " + path.text());
}

void invalidValue(const Path& path, std::string_view what) {
  throw DecodeError(std::string(what) + " at " + path.text());
}

void decodeFrom(const bj::value& in, bool& out, const Path& path) {
  if (!in.is_bool()) typeMismatch(path, "a bool");
  out = in.get_bool();
}

void decodeFrom(const bj::value& in, std::string& out, const Path& path) {
  if (!in.is_string()) typeMismatch(path, "a string");
  out.assign(in.get_string().data(), in.get_string().size());
}

void decodeFrom(const bj::value& in, double& out, const Path& path) {
  if (in.is_double())
    out = in.get_double();
  else if (in.is_int64())
    out = static_cast<double>(in.get_int64());
  else if (in.is_uint64())
    out = static_cast<double>(in.get_uint64());
  else
    typeMismatch(path, "a number");
}

void decodeFrom(const bj::value& in, std::int64_t& out, const Path& path) {
  if (in.is_int64())
    out = in.get_int64();
  else if (in.is_uint64() && in.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX))
    out = static_cast<std::int64_t>(in.get_uint64());
  else if (const auto whole = in.is_double() ? exactInt64(in.get_double()) : std::nullopt)
    out = *whole;
  else
    typeMismatch(path, "an integer");
}

void decodeFrom(const bj::value& in, Timestamp& out, const Path& path) {
  if (!in.is_string()) typeMismatch(path, "a date string");
  const auto& s = in.get_string();
  auto parsed = parseISO8601(std::string_view(s.data(), s.size()));
  if (!parsed) invalidValue(path, "invalid date \"" + std::string(s.data(), s.size()) + "\"");
  out = *parsed;
}

void decodeFrom(const bj::value& in, bj::object& out, const Path& path) {
  if (!in.is_object()) typeMismatch(path, "an object");
  out = in.get_object();
}

}  // namespace tamsel::base::json
