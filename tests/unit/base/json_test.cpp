#include "tamsel/base/json.hpp"

#include <gtest/gtest.h>

#include <boost/describe/class.hpp>
#include <cmath>

#include "tamsel/base/numbers.hpp"

namespace tamsel::base::json {
namespace {

struct Inner {
  std::string label;
  std::optional<double> weight;
};
BOOST_DESCRIBE_STRUCT(Inner, (), (label, weight))

struct Record {
  std::string sessionId;
  bool isConnected = false;
  std::int64_t msgCount = 0;
  std::optional<std::string> lastEventID;
  std::optional<Timestamp> updatedAt;
  std::vector<Inner> items;
  std::map<std::string, std::int64_t> counters;
  std::optional<bj::value> extra;
};
BOOST_DESCRIBE_STRUCT(Record, (),
                      (sessionId, isConnected, msgCount, lastEventID, updatedAt, items, counters,
                       extra))

TEST(SnakeCase, FollowsWordBoundaries) {
  EXPECT_EQ(snakeCase("isConnected"), "is_connected");
  EXPECT_EQ(snakeCase("msgCount"), "msg_count");
  EXPECT_EQ(snakeCase("lastEventID"), "last_event_id");
  EXPECT_EQ(snakeCase("myURLValue"), "my_url_value");
  EXPECT_EQ(snakeCase("costUsd"), "cost_usd");
  EXPECT_EQ(snakeCase("id"), "id");
  EXPECT_EQ(snakeCase("cacheReadTokens2x"), "cache_read_tokens2x");
}

TEST(RecordMapping, EncodesSnakeCaseKeysAndOmitsAbsentOptionals) {
  Record r;
  r.sessionId = "s1";
  r.isConnected = true;
  r.msgCount = 3;
  r.items = {{"a", 2.5}, {"b", std::nullopt}};
  const auto text = serialize(encode(r));
  EXPECT_EQ(
      text,
      R"({"session_id":"s1","is_connected":true,"msg_count":3,"items":[{"label":"a","weight":2.5},{"label":"b"}],"counters":{}})");
}

TEST(RecordMapping, RoundTripsThroughText) {
  Record r;
  r.sessionId = "s1";
  r.lastEventID = "e9";
  r.updatedAt = parseISO8601("2026-11-20T09:15:02.123Z");
  r.counters = {{"x", 1}};
  r.extra = bj::value{{"k", "v"}};
  const auto back = decode<Record>(serialize(encode(r)));
  EXPECT_EQ(back.sessionId, "s1");
  EXPECT_EQ(back.lastEventID, "e9");
  EXPECT_EQ(back.updatedAt, r.updatedAt);
  EXPECT_EQ(back.counters.at("x"), 1);
  EXPECT_EQ(serialize(*back.extra), R"({"k":"v"})");
}

TEST(RecordMapping, DecodeIsStrictAboutShapeButNotAboutExtras) {
  const std::string ok =
      R"({"session_id":"s","is_connected":false,"msg_count":2,"items":[],"counters":{},"unknown":1,"last_event_id":null})";
  EXPECT_FALSE(decode<Record>(ok).lastEventID.has_value());
  // Missing required member, wrong type, integer given as fraction.
  EXPECT_THROW(decode<Record>(R"({"is_connected":false,"msg_count":2,"items":[],"counters":{}})"),
               DecodeError);
  EXPECT_THROW(
      decode<Record>(
          R"({"session_id":1,"is_connected":false,"msg_count":2,"items":[],"counters":{}})"),
      DecodeError);
  EXPECT_THROW(
      decode<Record>(
          R"({"session_id":"s","is_connected":false,"msg_count":2.5,"items":[],"counters":{}})"),
      DecodeError);
  EXPECT_THROW(decode<Record>("not json"), DecodeError);
  // A whole number written as a double fits; one past int64 is refused (not converted: that is
  // undefined behaviour, which the sanitizer build turns into a failure).
  const auto withCount = [](const char* count) {
    return std::string(
               R"({"session_id":"s","is_connected":false,"items":[],"counters":{},"msg_count":)") +
           count + "}";
  };
  EXPECT_EQ(decode<Record>(withCount("3E2")).msgCount, 300);
  for (const char* count : {"5E20", "-5E20", "9.223372036854775807E18", "1E400"})
    EXPECT_THROW(decode<Record>(withCount(count)), DecodeError) << count;
}

TEST(ExactInt64, OnlyWholeNumbersInRange) {
  EXPECT_EQ(exactInt64(3.0), 3);
  EXPECT_EQ(exactInt64(-9223372036854775808.0), INT64_MIN);
  EXPECT_EQ(exactInt64(9223372036854774784.0), 9223372036854774784);  // largest below 2^63
  for (double bad : {9223372036854775808.0, 5e20, -1e19, 2.5, std::nan(""), HUGE_VAL, -HUGE_VAL})
    EXPECT_FALSE(exactInt64(bad)) << bad;
  EXPECT_EQ(inRange<short>(32767), std::optional<short>(32767));
  EXPECT_FALSE(inRange<short>(32768));
  EXPECT_FALSE(inRange<int>(-1, 0, 10));
}

TEST(DateRule, AcceptsBothFormsAndFailsTheWholeDecodeOtherwise) {
  const auto withFraction = parseISO8601("2026-11-20T09:15:02.123Z");
  const auto without = parseISO8601("2026-11-20T09:15:02Z");
  ASSERT_TRUE(withFraction && without);
  EXPECT_EQ(*withFraction - *without, std::chrono::milliseconds(123));
  const auto offset = parseISO8601("2026-11-20T10:15:02+01:00");
  ASSERT_TRUE(offset);
  EXPECT_EQ(*offset, *without);
  EXPECT_TRUE(parseISO8601("2026-11-20T09:15:02.123456789Z"));
  EXPECT_EQ(*parseISO8601("2026-11-20T09:15:02.5-02:30") - *without,
            std::chrono::minutes(150) + std::chrono::milliseconds(500));
  for (const char* bad :
       {"2026-11-20", "2026-11-20 09:15:02Z", "2026-11-20T09:15:02", "2026-11-20T09:15:02.Z",
        "2026-11-20T09:15:02Zjunk", "yesterday", "", "2026-02-30T09:15:02Z", "2026-11-20T24:00:00Z",
        "2026-11-20T09:15:02+0100", "2026-11-20T09:15:02.12.3Z", "2026-11-20T09:15Z"}) {
    EXPECT_FALSE(parseISO8601(bad)) << bad;
  }
  EXPECT_THROW(
      decode<Record>(
          R"({"session_id":"s","is_connected":false,"msg_count":0,"items":[],"counters":{},"updated_at":"2026-11-20"})"),
      DecodeError);
  EXPECT_EQ(formatISO8601(*withFraction), "2026-11-20T09:15:02.123Z");
}

TEST(Serialize, KeepsIntegersAndDoublesApart) {
  bj::object o;
  o["i"] = 3;
  o["d"] = 3.0;
  o["f"] = 3.5;
  EXPECT_EQ(serialize(o), R"({"i":3,"d":3.0,"f":3.5})");
  const auto back = parse(serialize(o));
  EXPECT_TRUE(back.at("i").is_int64());
  EXPECT_TRUE(back.at("d").is_double());
}

}  // namespace
}  // namespace tamsel::base::json
