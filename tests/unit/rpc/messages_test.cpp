// The channel's records on the wire: keys, omitted optionals, the JSON value's decoding order
// and the frame types that are refused.
#include "tamsel/bridge/rpc/messages.hpp"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

namespace tamsel::bridge::rpc {
namespace {

namespace bj = boost::json;

JSONValue decodeValue(std::string_view text) { return JSONValue::fromJSON(bj::parse(text)); }

std::string corruption(std::string_view body) {
  try {
    Frame::decode(body);
  } catch (const DataCorruptedError& e) {
    return e.what();
  }
  return "accepted";
}

TEST(JSONValue, DecodesNumbersAndBooleansToTheirOwnCases) {
  EXPECT_EQ(decodeValue("3"), JSONValue(std::int64_t{3}));
  EXPECT_NE(decodeValue("3"), JSONValue(3.0));
  EXPECT_EQ(decodeValue("3.5"), JSONValue(3.5));
  // A written fraction stays a double, as our own serializer writes 3.0 back.
  EXPECT_TRUE(decodeValue("3.0").ifDouble());
  EXPECT_TRUE(decodeValue("-9223372036854775808").ifInt());
  // Past int64 the next case that fits is double.
  EXPECT_TRUE(decodeValue("9223372036854775808").ifDouble());
  EXPECT_EQ(decodeValue("true"), JSONValue(true));
  EXPECT_FALSE(decodeValue("true").ifInt());
  EXPECT_FALSE(decodeValue("1").ifBool());
  EXPECT_TRUE(decodeValue("null").isNull());
}

TEST(JSONValue, RoundTripsNestedValuesExactly) {
  const auto value = decodeValue(R"({"a":[1,1.5,"s",false,null,{"b":{}}],"n":null,"e":[]})");
  EXPECT_TRUE(value.find("n") && value.find("n")->isNull()) << "a null member must survive";
  EXPECT_EQ(value.serialize(), R"({"a":[1,1.5,"s",false,null,{"b":{}}],"e":[],"n":null})");
  EXPECT_EQ(decodeValue(value.serialize()), value);
  EXPECT_EQ(JSONValue(1.0).serialize(), "1.0");
  EXPECT_EQ(decodeValue(JSONValue(1.0).serialize()), JSONValue(1.0));
}

TEST(JSONValue, ANumberNoCaseCanHoldIsRefused) {
  try {
    decodeValue("[1e400]");  // the parser makes it infinity, which JSON cannot carry back
    FAIL() << "infinity was accepted";
  } catch (const DataCorruptedError& e) {
    EXPECT_STREQ(e.what(), "JSON value does not match any supported variant");
  }
}

TEST(RPCMessages, RequestAlwaysWritesAllEightKeys) {
  RPCRequest empty;
  const auto json = empty.toJSON().as_object();
  EXPECT_EQ(json.size(), 8u);
  for (const char* key :
       {"request_id", "method", "params", "timeout_ms", "session_id", "agent", "source", "ts"})
    EXPECT_TRUE(json.contains(key)) << key;

  const RPCRequest request{"r1", "system.ping", JSONValue::object({{"x", 1}}), 5000, "s",
                           "a",  "src",         "2026-01-02T03:04:05.678Z"};
  EXPECT_EQ(RPCRequest::fromJSON(request.toJSON()), request);
}

TEST(RPCMessages, AbsentOptionalsAreOmittedNotNull) {
  const auto ok = RPCResult::success("r1", JSONValue::object({})).toJSON().as_object();
  EXPECT_TRUE(ok.contains("result"));
  EXPECT_FALSE(ok.contains("error"));

  const auto bare = RPCResult{"r2", true, std::nullopt, std::nullopt}.toJSON().as_object();
  EXPECT_EQ(bare.size(), 2u);
  EXPECT_FALSE(bare.contains("result"));
  EXPECT_FALSE(bare.contains("error"));

  const auto failed =
      RPCResult::failure("r3", RPCError{"not_found", "gone", false, std::nullopt}).toJSON();
  EXPECT_FALSE(failed.as_object().contains("result"));
  EXPECT_EQ(failed.at("error").as_object().size(), 3u) << "details omitted when absent";
  EXPECT_EQ(RPCResult::fromJSON(failed).error->code, "not_found");

  // A result of JSON null is still a result that is present.
  const auto nullResult = RPCResult::success("r4", JSONValue(nullptr));
  EXPECT_TRUE(nullResult.toJSON().as_object().contains("result"));

  const DesktopEvent bareEvent{"desktop_online", std::nullopt, "t"};
  EXPECT_FALSE(bareEvent.toJSON().as_object().contains("data"));
}

TEST(Frame, CarriesItsTypeAndPayload) {
  const auto frame = Frame::rpcResult(RPCResult::success("r1", JSONValue("pong")));
  const auto text = frame.encode();
  EXPECT_EQ(
      text,
      R"({"type":"desktop_rpc_result","payload":{"request_id":"r1","ok":true,"result":"pong"}})");
  EXPECT_EQ(Frame::decode(text), frame);
  const auto event =
      Frame::event(DesktopEvent{"desktop_online", JSONValue::object({{"version", "1.0.0"}}), "t"});
  EXPECT_EQ(Frame::decode(event.encode()), event);
}

TEST(Frame, RefusesUnknownTypesAndBrokenBodies) {
  EXPECT_EQ(corruption(R"({"type":"desktop_rpc_cancel","payload":{}})"),
            "Unknown frame type: desktop_rpc_cancel");
  EXPECT_EQ(corruption(R"({"type":"desktop_rpc_reply"})"), "Unknown frame type: desktop_rpc_reply");
  EXPECT_EQ(corruption(R"({"payload":{}})"), "Frame: missing key \"type\"");
  EXPECT_EQ(corruption(R"({"type":"desktop_rpc_result","payload":{"request_id":"r","ok":"yes"}})"),
            "RPCResult: \"ok\" is not a boolean");
  EXPECT_EQ(
      corruption(
          R"({"type":"desktop_rpc_request","payload":{"request_id":"r","method":"m","params":{},)"
          R"("timeout_ms":1.5,"session_id":"","agent":"","source":"","ts":""}})"),
      "RPCRequest: \"timeout_ms\" is not a 64-bit integer");
  EXPECT_TRUE(corruption("not json").starts_with("invalid JSON: "));
  EXPECT_EQ(corruption("[]"), "Frame: expected an object");
}

}  // namespace
}  // namespace tamsel::bridge::rpc
