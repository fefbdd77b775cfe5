// Parameter decoding, error texts and the small mappings the engine relies on word for word.
#include "tamsel/calendar/calendar_records.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <tuple>

#include "tamsel/bridge/rpc/protocol_constants.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/calendar_mappers.hpp"

namespace tamsel::calendar {
namespace {

using bridge::rpc::RPCError;

// The error a decoder throws, as the engine receives it.
template <class F>
RPCError failureOf(F&& decode) {
  try {
    decode();
  } catch (const CalendarException& e) {
    return e.error().toRPCError();
  }
  ADD_FAILURE() << "decoding did not fail";
  return {};
}

JSONValue listParams(const char* start, const char* end) {
  return JSONValue::object({{"start", start}, {"end", end}});
}

TEST(CalendarParams, TimestampsNeedAZoneOffsetAndNameTheFieldOtherwise) {
  const auto noOffset = failureOf(
      [] { decodeListEventsParams(listParams("2026-01-01T10:00:00", "2026-01-02T10:00:00Z")); });
  EXPECT_EQ(noOffset.code, "invalid_argument");
  EXPECT_EQ(noOffset.message, "Invalid argument for `start`: expected RFC 3339 with zone offset");
  EXPECT_EQ(noOffset.details, JSONValue::object({{"field", "start"}}));

  const auto badEnd =
      failureOf([] { decodeListEventsParams(listParams("2026-01-01T10:00:00Z", "tomorrow")); });
  EXPECT_EQ(badEnd.details, JSONValue::object({{"field", "end"}}));
  const auto missing = failureOf([] {
    decodeListEventsParams(JSONValue::object({{"start", "2026-01-01T10:00:00Z"}}));
  });
  EXPECT_EQ(missing.details, JSONValue::object({{"field", "end"}}));

  // Both accepted forms, and they name the instants they should.
  const auto p =
      decodeListEventsParams(listParams("2026-01-01T10:00:00Z", "2026-01-01T14:00:00.250+02:00"));
  EXPECT_EQ(p.end - p.start, std::chrono::hours(2)) << "the offset applies and the fraction goes";
}

TEST(CalendarParams, ListDefaultsAndFilters) {
  const auto p = decodeListEventsParams(listParams("2026-01-01T00:00:00Z", "2026-02-01T00:00:00Z"));
  EXPECT_EQ(p.limit, 500);
  EXPECT_FALSE(p.calendarIDs);
  EXPECT_FALSE(p.query);
  const auto limited =
      decodeListEventsParams(JSONValue::object({{"start", "2026-01-01T00:00:00Z"},
                                                {"end", "2026-02-01T00:00:00Z"},
                                                {"limit", 3},
                                                {"calendar_ids", JSONValue::Array{"local:a"}},
                                                {"query", "Dentist"}}));
  EXPECT_EQ(limited.limit, 3);
  EXPECT_EQ(limited.calendarIDs, std::vector<std::string>{"local:a"});
  EXPECT_EQ(failureOf([] {
              decodeListEventsParams(JSONValue::object({{"start", "2026-01-01T00:00:00Z"},
                                                        {"end", "2026-02-01T00:00:00Z"},
                                                        {"limit", "ten"}}));
            }).message,
            "Invalid argument for `limit`: expected an integer");
}

TEST(CalendarParams, UpdateScopes) {
  const auto withScope = [](const char* scope) {
    return JSONValue::object(
        {{"id", "local:a|X"}, {"scope", scope}, {"patch", JSONValue::object({})}});
  };
  const auto all = failureOf([&] { decodeUpdateEventParams(withScope("all")); });
  EXPECT_EQ(all.code, "invalid_argument");
  EXPECT_EQ(all.message, std::string("Invalid argument for `scope`: ") +
                             CalendarRPCError::updateScopeAllRefusal);
  EXPECT_EQ(failureOf([&] { decodeUpdateEventParams(withScope("everything")); }).message,
            "Invalid argument for `scope`: unknown scope everything");
  EXPECT_EQ(decodeUpdateEventParams(withScope("this_and_future")).scope, EventScope::thisAndFuture);
  EXPECT_EQ(decodeDeleteEventParams(JSONValue::object({{"id", "x|y"}, {"scope", "all"}})).scope,
            EventScope::all);
  EXPECT_EQ(failureOf([] {
              decodeDeleteEventParams(JSONValue::object({{"id", "x|y"}, {"scope", "some"}}));
            }).message,
            "Invalid argument for `scope`: unknown scope some");
}

TEST(CalendarParams, PatchesKeepAbsentFieldsAndRefuseClearingTimes) {
  const auto p = decodeUpdateEventParams(JSONValue::object(
      {{"id", "e"},
       {"clear_recurrence", true},
       {"patch",
        JSONValue::object(
            {{"title", "New"}, {"location", nullptr}, {"end", "2026-01-01T11:00:00+01:00"}})}}));
  EXPECT_EQ(p.scope, EventScope::thisEvent);
  EXPECT_TRUE(p.clearRecurrence);
  EXPECT_EQ(p.patch.title, "New");
  ASSERT_TRUE(p.patch.location.has_value()) << "null clears the location";
  EXPECT_FALSE(p.patch.location->has_value());
  EXPECT_FALSE(p.patch.notes.has_value()) << "absent leaves the notes";
  EXPECT_FALSE(p.patch.start.has_value());
  EXPECT_TRUE(p.patch.end.has_value());

  for (const char* field : {"start", "end"}) {
    const auto error = failureOf([&] {
      decodeUpdateEventParams(
          JSONValue::object({{"id", "e"}, {"patch", JSONValue::object({{field, nullptr}})}}));
    });
    EXPECT_EQ(error.message,
              std::string("Invalid argument for `") + field + "`: " + field + " cannot be cleared");
  }
}

TEST(CalendarParams, DraftsValidateRulesAttendeesAndAlarms) {
  const auto draft = decodeEventDraft(JSONValue::object(
      {{"title", "Standup"},
       {"start", "2026-03-02T09:00:00+01:00"},
       {"end", "2026-03-02T09:15:00+01:00"},
       {"attendees",
        JSONValue::Array{JSONValue::object({{"email", "ana@example.org"}, {"name", "Ana"}})}},
       {"alarms", JSONValue::Array{JSONValue::object({{"minutes_before", 10}})}},
       {"recurrence_rule", JSONValue::object({{"frequency", "weekly"},
                                              {"by_day", JSONValue::Array{"MO", "-1FR"}}})}}));
  EXPECT_FALSE(draft.calendarID);
  ASSERT_TRUE(draft.recurrenceRule);
  EXPECT_EQ(draft.recurrenceRule->interval, 1);
  EXPECT_EQ(draft.recurrenceRule->byDay, (std::vector<std::string>{"MO", "-1FR"}));
  EXPECT_EQ(draft.alarms, std::vector<Alarm>{Alarm{10}});

  const auto base = [](const char* key, JSONValue value) {
    JSONValue::Object o{{"start", "2026-03-02T09:00:00Z"}, {"end", "2026-03-02T10:00:00Z"}};
    o[key] = std::move(value);
    return JSONValue(o);
  };
  EXPECT_EQ(
      failureOf([&] {
        decodeEventDraft(base("recurrence_rule", JSONValue::object({{"frequency", "hourly"}})));
      }).details,
      JSONValue::object({{"field", "frequency"}}));
  EXPECT_EQ(failureOf([&] {
              decodeEventDraft(
                  base("recurrence_rule", JSONValue::object({{"frequency", "daily"},
                                                             {"end_date", "2026-04-01T00:00:00Z"},
                                                             {"occurrence_count", 3}})));
            }).code,
            "invalid_argument")
      << "UNTIL and COUNT never together";
  EXPECT_EQ(failureOf([&] {
              decodeEventDraft(base(
                  "recurrence_rule",
                  JSONValue::object({{"frequency", "daily"}, {"by_day", JSONValue::Array{"XX"}}})));
            }).details,
            JSONValue::object({{"field", "by_day"}}));
  EXPECT_EQ(failureOf([&] {
              decodeEventDraft(
                  base("attendees", JSONValue::Array{JSONValue::object({{"email", "nobody"}})}));
            }).details,
            JSONValue::object({{"field", "attendees"}}));
  EXPECT_EQ(failureOf([&] { decodeEventDraft(base("end", "2026-03-02T08:00:00Z")); }).details,
            JSONValue::object({{"field", "end"}}));
}

TEST(CalendarParams, NumbersThatCannotBeStoredAreRefusedNotWrapped) {
  // An int64 from the engine that libical would cut down (a short interval, an int count, an
  // alarm in int seconds) or that overflows when turned into seconds is an invalid argument.
  const auto draftWith = [](const char* key, JSONValue value) {
    return JSONValue::object({{"start", "2026-03-02T09:00:00Z"},
                              {"end", "2026-03-02T10:00:00Z"},
                              {key, std::move(value)}});
  };
  const auto rule = [](const char* key, std::int64_t n) {
    return JSONValue::object({{"frequency", "daily"}, {key, n}});
  };
  struct TooLarge {
    const char* key;
    std::int64_t n;
  };
  for (const TooLarge c : {TooLarge{"interval", 32768}, TooLarge{"interval", std::int64_t(1) << 40},
                           TooLarge{"occurrence_count", std::int64_t(1) << 31}}) {
    const auto error =
        failureOf([&] { decodeEventDraft(draftWith("recurrence_rule", rule(c.key, c.n))); });
    EXPECT_EQ(error.details, JSONValue::object({{"field", c.key}})) << c.key << " " << c.n;
  }
  EXPECT_EQ(decodeEventDraft(draftWith("recurrence_rule", rule("interval", 32767)))
                .recurrenceRule->interval,
            32767);
  for (std::int64_t minutes :
       {std::int64_t(1) << 62, -(std::int64_t(1) << 62), std::int64_t(35791395)}) {
    const auto error = failureOf([&] {
      decodeEventDraft(
          draftWith("alarms", JSONValue::Array{JSONValue::object({{"minutes_before", minutes}})}));
    });
    EXPECT_EQ(error.message,
              "Invalid argument for `alarms`: minutes_before must lie between -35791394 and "
              "35791394")
        << minutes;
  }
}

TEST(CalendarErrors, WireCodesAndTexts) {
  const auto text = [](CalendarRPCError e) { return std::make_pair(e.code(), e.message()); };
  EXPECT_EQ(text({CalendarRPCError::PermissionDenied{CalendarPermissionStatus::writeOnly}}),
            std::make_pair(std::string("calendar_permission_denied"),
                           std::string("Calendar access write_only; user must grant full access in "
                                       "Tamsel Desktop settings.")));
  EXPECT_EQ(text(CalendarRPCError::notFound("local:x|1")),
            std::make_pair(std::string("not_found"),
                           std::string("Calendar or event not found: local:x|1")));
  EXPECT_EQ(text({CalendarRPCError::ReadOnlyCalendar{"Holidays"}}),
            std::make_pair(
                std::string("read_only_calendar"),
                std::string("Calendar Holidays is read-only (subscription / birthdays / feed).")));
  EXPECT_EQ(text(CalendarRPCError::internalError("remove failed: disk full")),
            std::make_pair(std::string("internal_error"), std::string("remove failed: disk full")));
  EXPECT_EQ(text({CalendarRPCError::PermissionNotDetermined{}}),
            std::make_pair(std::string("calendar_permission_not_determined"),
                           std::string("Calendar permission has not been requested yet; call "
                                       "calendar.request_permission first.")));
  EXPECT_EQ(text({CalendarRPCError::Timeout{}}),
            std::make_pair(std::string("timeout"), std::string("Operation timed out.")));
  EXPECT_FALSE(CalendarRPCError::notFound("x").toRPCError().details)
      << "only invalid_argument has details";
}

TEST(CalendarMappers, AccountTypeByTitleFirstThenKind) {
  using CalendarMappers::accountType;
  EXPECT_EQ(accountType("iCloud", SourceKind::calDAV), "icloud");
  EXPECT_EQ(accountType("me@GOOGLE.com", SourceKind::calDAV), "google");
  EXPECT_EQ(accountType("Office 365", SourceKind::calDAV), "exchange");
  EXPECT_EQ(accountType("Exchange and Outlook", SourceKind::other), "exchange")
      << "exchange is tested before outlook";
  EXPECT_EQ(accountType("Outlook.com", SourceKind::calDAV), "outlook");
  EXPECT_EQ(accountType("Work", SourceKind::calDAV), "other");
  EXPECT_EQ(accountType("On this computer", SourceKind::local), "local");
  EXPECT_EQ(accountType("Feeds", SourceKind::subscribed), "subscription");
  EXPECT_EQ(accountType("Google holidays", SourceKind::subscribed), "google");
}

TEST(CalendarMappers, OnlyFullAccessPasses) {
  using CalendarMappers::requireFullAccess;
  EXPECT_NO_THROW(requireFullAccess(CalendarPermissionStatus::granted));
  const auto codeFor = [](CalendarPermissionStatus s) {
    try {
      requireFullAccess(s);
    } catch (const CalendarException& e) {
      return e.error().code();
    }
    return std::string("passed");
  };
  EXPECT_EQ(codeFor(CalendarPermissionStatus::notDetermined), "calendar_permission_not_determined");
  for (auto s : {CalendarPermissionStatus::denied, CalendarPermissionStatus::restricted,
                 CalendarPermissionStatus::writeOnly})
    EXPECT_EQ(codeFor(s), "calendar_permission_denied") << toWire(s);
}

class LocalZone : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    saved_ = tz ? std::optional<std::string>(tz) : std::nullopt;
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
  }
  void TearDown() override {
    if (saved_)
      ::setenv("TZ", saved_->c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }
  std::optional<std::string> saved_;
};

TEST_F(LocalZone, TimesAreWrittenInTheLocalOffsetAndRawRulesUseLocalCompactTimes) {
  const auto winter = *parseTimestamp("2026-01-15T08:30:00Z");
  EXPECT_EQ(formatTimestamp(winter), "2026-01-15T09:30:00+01:00");
  EXPECT_EQ(formatTimestamp(*parseTimestamp("2026-07-15T08:30:00Z")), "2026-07-15T10:30:00+02:00");
  RecurrenceRule rule{"weekly", 2, {"MO", "WE"}, winter, std::nullopt, ""};
  EXPECT_EQ(CalendarMappers::rawRRule(rule),
            "FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE;UNTIL=20260115T093000");
  rule.endDate.reset();
  rule.occurrenceCount = 4;
  EXPECT_EQ(CalendarMappers::rawRRule(rule), "FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE;COUNT=4");
}

}  // namespace
}  // namespace tamsel::calendar
