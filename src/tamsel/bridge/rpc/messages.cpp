#include "tamsel/bridge/rpc/messages.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <chrono>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/rpc/protocol_constants.hpp"

namespace tamsel::bridge::rpc {

namespace bj = boost::json;
namespace FrameType = ProtocolConstants::FrameType;

namespace {

// Reads the members of one record, naming the record in every complaint.
class Reader {
 public:
  Reader(const bj::value& json, std::string_view record) : record_(record) {
    object_ = json.if_object();
    if (!object_) fail("expected an object");
  }

  const bj::value* optional(std::string_view key) const {
    const auto* found = object_->if_contains(key);
    return found && !found->is_null() ? found : nullptr;
  }
  const bj::value& required(std::string_view key) const {
    const auto* found = object_->if_contains(key);
    if (!found) fail("missing key \"" + std::string(key) + "\"");
    return *found;
  }
  std::string string(std::string_view key) const {
    const auto& v = required(key);
    if (!v.is_string()) fail("\"" + std::string(key) + "\" is not a string");
    return std::string(v.get_string());
  }
  bool boolean(std::string_view key) const {
    const auto& v = required(key);
    if (!v.is_bool()) fail("\"" + std::string(key) + "\" is not a boolean");
    return v.get_bool();
  }
  std::int64_t integer(std::string_view key) const {
    const auto& v = required(key);
    if (v.is_int64()) return v.get_int64();
    if (v.is_uint64() && v.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX))
      return static_cast<std::int64_t>(v.get_uint64());
    fail("\"" + std::string(key) + "\" is not a 64-bit integer");
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw DataCorruptedError(std::string(record_) + ": " + what);
  }

 private:
  std::string_view record_;
  const bj::object* object_ = nullptr;
};

}  // namespace

bj::value RPCRequest::toJSON() const {
  bj::object out;
  out.reserve(8);
  out["request_id"] = requestID;
  out["method"] = method;
  out["params"] = params.toJSON();
  out["timeout_ms"] = timeoutMs;
  out["session_id"] = sessionID;
  out["agent"] = agent;
  out["source"] = source;
  out["ts"] = ts;
  return out;
}

RPCRequest RPCRequest::fromJSON(const bj::value& json) {
  Reader in(json, "RPCRequest");
  RPCRequest r;
  r.requestID = in.string("request_id");
  r.method = in.string("method");
  r.params = JSONValue::fromJSON(in.required("params"));
  r.timeoutMs = in.integer("timeout_ms");
  r.sessionID = in.string("session_id");
  r.agent = in.string("agent");
  r.source = in.string("source");
  r.ts = in.string("ts");
  return r;
}

bj::value RPCError::toJSON() const {
  bj::object out;
  out["code"] = code;
  out["message"] = message;
  out["retriable"] = retriable;
  if (details) out["details"] = details->toJSON();
  return out;
}

RPCError RPCError::fromJSON(const bj::value& json) {
  Reader in(json, "RPCError");
  RPCError e;
  e.code = in.string("code");
  e.message = in.string("message");
  e.retriable = in.boolean("retriable");
  if (const auto* details = in.optional("details")) e.details = JSONValue::fromJSON(*details);
  return e;
}

bj::value RPCResult::toJSON() const {
  bj::object out;
  out["request_id"] = requestID;
  out["ok"] = ok;
  if (result) out["result"] = result->toJSON();
  if (error) out["error"] = error->toJSON();
  return out;
}

RPCResult RPCResult::fromJSON(const bj::value& json) {
  Reader in(json, "RPCResult");
  RPCResult r;
  r.requestID = in.string("request_id");
  r.ok = in.boolean("ok");
  if (const auto* result = in.optional("result")) r.result = JSONValue::fromJSON(*result);
  if (const auto* error = in.optional("error")) r.error = RPCError::fromJSON(*error);
  return r;
}

bj::value DesktopEvent::toJSON() const {
  bj::object out;
  out["event"] = event;
  if (data) out["data"] = data->toJSON();
  out["ts"] = ts;
  return out;
}

DesktopEvent DesktopEvent::fromJSON(const bj::value& json) {
  Reader in(json, "DesktopEvent");
  DesktopEvent e;
  e.event = in.string("event");
  if (const auto* data = in.optional("data")) e.data = JSONValue::fromJSON(*data);
  e.ts = in.string("ts");
  return e;
}

std::string_view Frame::type() const {
  switch (value.index()) {
    case 0:
      return FrameType::rpcRequest;
    case 1:
      return FrameType::rpcResult;
    default:
      return FrameType::event;
  }
}

bj::value Frame::toJSON() const {
  bj::object out;
  out["type"] = type();
  out["payload"] = std::visit([](const auto& payload) { return payload.toJSON(); }, value);
  return out;
}

Frame Frame::fromJSON(const bj::value& json) {
  Reader in(json, "Frame");
  const std::string type = in.string("type");
  if (type == FrameType::rpcRequest)
    return rpcRequest(RPCRequest::fromJSON(in.required("payload")));
  if (type == FrameType::rpcResult) return rpcResult(RPCResult::fromJSON(in.required("payload")));
  if (type == FrameType::event) return event(DesktopEvent::fromJSON(in.required("payload")));
  throw DataCorruptedError("Unknown frame type: " + type);
}

std::string Frame::encode() const { return base::json::serialize(toJSON()); }

Frame Frame::decode(std::string_view body) {
  bj::parse_options options;
  // Parameters may nest deeper than the parser's default of 32; the limit still bounds recursion.
  options.max_depth = 256;
  boost::system::error_code ec;
  bj::value json = bj::parse(body, ec, {}, options);
  if (ec) throw DataCorruptedError("invalid JSON: " + ec.message());
  return fromJSON(json);
}

std::string rpcTimestampNow() { return base::formatISO8601(base::nowTimestamp()); }

}  // namespace tamsel::bridge::rpc
