#pragma once
// The RPC channel's messages and the frame that carries one of them. Each record declares its
// wire keys literally; timestamps travel as the sender's own RFC 3339 text.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "tamsel/bridge/rpc/json_value.hpp"

namespace tamsel::bridge::rpc {

struct RPCRequest {
  std::string requestID;       // "request_id"
  std::string method;          // "method"
  JSONValue params;            // "params"
  std::int64_t timeoutMs = 0;  // "timeout_ms"
  std::string sessionID;       // "session_id"
  std::string agent;           // "agent"
  std::string source;          // "source"
  std::string ts;              // "ts"

  bool operator==(const RPCRequest&) const = default;
  // All eight keys, always.
  boost::json::value toJSON() const;
  static RPCRequest fromJSON(const boost::json::value& json);
};

struct RPCError {
  std::string code;                  // "code", one of ProtocolConstants::ErrorCode
  std::string message;               // "message"
  bool retriable = false;            // "retriable"
  std::optional<JSONValue> details;  // "details", left out when absent

  bool operator==(const RPCError&) const = default;
  boost::json::value toJSON() const;
  static RPCError fromJSON(const boost::json::value& json);
};

struct RPCResult {
  std::string requestID;            // "request_id"
  bool ok = false;                  // "ok"
  std::optional<JSONValue> result;  // "result", left out when absent
  std::optional<RPCError> error;    // "error", left out when absent

  static RPCResult success(std::string requestID, JSONValue result) {
    return {std::move(requestID), true, std::move(result), std::nullopt};
  }
  static RPCResult failure(std::string requestID, RPCError error) {
    return {std::move(requestID), false, std::nullopt, std::move(error)};
  }

  bool operator==(const RPCResult&) const = default;
  boost::json::value toJSON() const;
  static RPCResult fromJSON(const boost::json::value& json);
};

struct DesktopEvent {
  std::string event;              // "event", one of ProtocolConstants::DesktopEvent
  std::optional<JSONValue> data;  // "data", left out when absent
  std::string ts;                 // "ts"

  bool operator==(const DesktopEvent&) const = default;
  boost::json::value toJSON() const;
  static DesktopEvent fromJSON(const boost::json::value& json);
};

// One frame body: {"type": ..., "payload": {...}}. "desktop_rpc_cancel" is a reserved type
// with no case here; it is refused like any unknown type.
struct Frame {
  std::variant<RPCRequest, RPCResult, DesktopEvent> value;

  static Frame rpcRequest(RPCRequest request) { return {std::move(request)}; }
  static Frame rpcResult(RPCResult result) { return {std::move(result)}; }
  static Frame event(DesktopEvent event) { return {std::move(event)}; }

  const RPCRequest* ifRequest() const { return std::get_if<RPCRequest>(&value); }
  const RPCResult* ifResult() const { return std::get_if<RPCResult>(&value); }
  const DesktopEvent* ifEvent() const { return std::get_if<DesktopEvent>(&value); }
  std::string_view type() const;

  bool operator==(const Frame&) const = default;
  boost::json::value toJSON() const;
  // Throws DataCorruptedError ("Unknown frame type: <type>", a missing key, a wrong type).
  static Frame fromJSON(const boost::json::value& json);

  // The frame body as UTF-8 JSON text, ready for LengthPrefixedCodec::encode.
  std::string encode() const;
  // Parses and decodes one body; throws DataCorruptedError for anything else.
  static Frame decode(std::string_view body);
};

// RFC 3339 with fractional seconds, UTC: the channel's timestamps.
std::string rpcTimestampNow();

}  // namespace tamsel::bridge::rpc
