// The local vdir store on real files: recurring series edited and removed with each span,
// all-day events across a DST change, overrides and exclusions written by other tools.
#include "tamsel/calendar/vdir_calendar_store.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "../test_support.hpp"
#include "tamsel/base/atomic_file.hpp"
#include "tamsel/calendar/calendar_error.hpp"

namespace tamsel::calendar {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

Timestamp at(const char* text) { return *parseTimestamp(text); }

class VdirStore : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    savedTZ = tz ? std::optional<std::string>(tz) : std::nullopt;
    // A zone with a DST change at the end of March 2026 (29th, 02:00 -> 03:00).
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    calendar = store.addCalendar("personal", "Personal", "#FF8800");
  }
  void TearDown() override {
    if (savedTZ)
      ::setenv("TZ", savedTZ->c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }

  std::vector<CalendarEvent> list(const char* from, const char* to) {
    auto events = store.events(at(from), at(to), {});
    std::sort(events.begin(), events.end(),
              [](const auto& a, const auto& b) { return a.start < b.start; });
    return events;
  }
  // "title@local start" for each event, in order.
  std::vector<std::string> summary(const char* from, const char* to) {
    std::vector<std::string> out;
    for (const auto& e : list(from, to)) out.push_back(e.title + "@" + formatTimestamp(e.start));
    return out;
  }
  std::vector<fs::path> files() const {
    std::vector<fs::path> out;
    for (const auto& entry : fs::directory_iterator(dir.path() / "personal"))
      if (entry.path().extension() == ".ics") out.push_back(entry.path());
    return out;
  }
  std::string allText() const {
    std::string all;
    for (const auto& f : files()) {
      std::string text;
      base::readFile(f, text);
      all += text;
    }
    return all;
  }
  EventFields weekly(const char* title, const char* start,
                     std::optional<std::int64_t> count = std::nullopt) {
    EventFields f;
    f.title = title;
    f.start = at(start);
    f.end = f.start + 30min;
    f.recurrenceRule = RecurrenceRule{"weekly", 1, {}, std::nullopt, count, ""};
    return f;
  }
  static EventFields fieldsOf(const CalendarEvent& e) {
    return EventFields{e.title, e.start, e.end,       e.allDay, e.location,
                       e.notes, e.url,   e.attendees, e.alarms, e.recurrenceRule};
  }

  std::optional<std::string> savedTZ;
  test::TempDir dir;
  VdirCalendarStore store{dir.path()};
  std::string calendar;
};

TEST_F(VdirStore, WeeklySeriesEditedThisThenThisAndFutureThenDeletedAll) {
  const auto created = store.createEvent(calendar, weekly("Standup", "2026-03-02T09:00:00+01:00"));
  EXPECT_EQ(summary("2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z"),
            (std::vector<std::string>{
                "Standup@2026-03-02T09:00:00+01:00", "Standup@2026-03-09T09:00:00+01:00",
                "Standup@2026-03-16T09:00:00+01:00", "Standup@2026-03-23T09:00:00+01:00",
                "Standup@2026-03-30T09:00:00+02:00"}))
      << "occurrences keep their wall time across the DST change";

  // "this": the second occurrence moves an hour and gets its own title.
  auto second = list("2026-03-09T00:00:00Z", "2026-03-10T00:00:00Z").at(0);
  EXPECT_TRUE(second.isRecurringInstance);
  EXPECT_EQ(second.seriesMasterID, created.id);
  auto fields = fieldsOf(second);
  fields.title = "Standup (moved)";
  fields.start += 1h;
  fields.end += 1h;
  const auto edited = store.updateEvent(second.id, fields, SaveSpan::thisEvent);
  EXPECT_EQ(edited.id, second.id) << "an override keeps its occurrence's id";
  EXPECT_EQ(store.event(second.id)->title, "Standup (moved)");
  EXPECT_EQ(summary("2026-03-01T00:00:00Z", "2026-03-17T00:00:00Z"),
            (std::vector<std::string>{"Standup@2026-03-02T09:00:00+01:00",
                                      "Standup (moved)@2026-03-09T10:00:00+01:00",
                                      "Standup@2026-03-16T09:00:00+01:00"}));
  EXPECT_EQ(files().size(), 1u) << "the override lives in the series' file";

  // "this_and_future" from the fourth occurrence: the series splits in two files.
  auto fourth = list("2026-03-23T00:00:00Z", "2026-03-24T00:00:00Z").at(0);
  fields = fieldsOf(fourth);
  fields.title = "Standup v2";
  const auto split = store.updateEvent(fourth.id, fields, SaveSpan::futureEvents);
  EXPECT_NE(split.id, created.id);
  EXPECT_EQ(summary("2026-03-01T00:00:00Z", "2026-04-07T00:00:00Z"),
            (std::vector<std::string>{
                "Standup@2026-03-02T09:00:00+01:00", "Standup (moved)@2026-03-09T10:00:00+01:00",
                "Standup@2026-03-16T09:00:00+01:00", "Standup v2@2026-03-23T09:00:00+01:00",
                "Standup v2@2026-03-30T09:00:00+02:00", "Standup v2@2026-04-06T09:00:00+02:00"}));
  EXPECT_EQ(files().size(), 2u);
  const auto oldSeries = store.event(created.id);
  ASSERT_TRUE(oldSeries && oldSeries->recurrenceRule && oldSeries->recurrenceRule->endDate);
  EXPECT_EQ(*oldSeries->recurrenceRule->endDate, at("2026-03-23T07:59:59Z"))
      << "UNTIL just before the split, in UTC";
  EXPECT_NE(allText().find("UNTIL=20260323T075959Z"), std::string::npos);

  // "all" on an occurrence of the new series removes it and leaves the old one.
  const auto later = list("2026-03-30T00:00:00Z", "2026-03-31T00:00:00Z").at(0);
  store.removeEvent(later.id, RemoveSpan::all);
  EXPECT_EQ(summary("2026-03-17T00:00:00Z", "2026-05-01T00:00:00Z"), std::vector<std::string>{});
  EXPECT_EQ(summary("2026-03-01T00:00:00Z", "2026-05-01T00:00:00Z").size(), 3u);
  store.removeEvent(created.id, RemoveSpan::all);
  EXPECT_TRUE(files().empty());
  EXPECT_FALSE(store.event(created.id));
}

TEST_F(VdirStore, CountCarriesOverASplitAndNeverStandsBesideUntil) {
  const auto created =
      store.createEvent(calendar, weekly("Course", "2026-03-02T18:00:00+01:00", 6));
  EXPECT_EQ(list("2026-01-01T00:00:00Z", "2027-01-01T00:00:00Z").size(), 6u);
  const auto third = list("2026-03-16T00:00:00Z", "2026-03-17T00:00:00Z").at(0);
  auto fields = fieldsOf(third);
  fields.location = "Room B";
  store.updateEvent(third.id, fields, SaveSpan::futureEvents);
  const auto all = list("2026-01-01T00:00:00Z", "2027-01-01T00:00:00Z");
  ASSERT_EQ(all.size(), 6u) << "the split keeps the number of occurrences";
  EXPECT_FALSE(all[1].location);
  EXPECT_EQ(all[2].location, "Room B");
  EXPECT_EQ(all[5].location, "Room B");
  EXPECT_EQ(all[5].recurrenceRule->occurrenceCount, 4);
  for (const auto& f : files()) {
    std::string text;
    base::readFile(f, text);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("RRULE:")) {
        EXPECT_FALSE(line.find("UNTIL=") != std::string::npos &&
                     line.find("COUNT=") != std::string::npos)
            << line;
      }
    }
  }
}

TEST_F(VdirStore, DeletingOneOccurrenceOrTheRestOfTheSeries) {
  const auto created = store.createEvent(calendar, weekly("Gym", "2026-03-02T07:00:00+01:00"));
  const auto occurrences = list("2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z");
  store.removeEvent(occurrences[1].id, RemoveSpan::thisEvent);
  EXPECT_FALSE(store.event(occurrences[1].id)) << "an excluded occurrence is gone";
  EXPECT_NE(allText().find("EXDATE;TZID=Europe/Berlin:20260309T070000"), std::string::npos)
      << allText();
  store.removeEvent(occurrences[3].id, RemoveSpan::futureEvents);
  EXPECT_EQ(
      summary("2026-03-01T00:00:00Z", "2026-06-01T00:00:00Z"),
      (std::vector<std::string>{"Gym@2026-03-02T07:00:00+01:00", "Gym@2026-03-16T07:00:00+01:00"}));
  // From the first occurrence, "this and future" is everything.
  store.removeEvent(created.id, RemoveSpan::futureEvents);
  EXPECT_TRUE(files().empty());
}

TEST_F(VdirStore, AllDayEventsAreDatesAndFollowLocalMidnightsAcrossDST) {
  EventFields f;
  f.title = "Trip";
  f.allDay = true;
  f.start = at("2026-03-28T00:00:00+01:00");
  f.end = at("2026-03-29T00:00:00+01:00");
  f.recurrenceRule = RecurrenceRule{"daily", 1, {}, std::nullopt, 3, ""};
  store.createEvent(calendar, f);
  EXPECT_NE(allText().find("DTSTART;VALUE=DATE:20260328"), std::string::npos) << allText();
  const auto days = list("2026-03-27T00:00:00Z", "2026-04-05T00:00:00Z");
  ASSERT_EQ(days.size(), 3u);
  EXPECT_TRUE(days[1].allDay);
  EXPECT_EQ(formatTimestamp(days[1].start), "2026-03-29T00:00:00+01:00");
  EXPECT_EQ(formatTimestamp(days[1].end), "2026-03-30T00:00:00+02:00");
  EXPECT_EQ(days[1].end - days[1].start, 23h) << "the short day is a whole day";
  EXPECT_EQ(formatTimestamp(days[2].start), "2026-03-30T00:00:00+02:00");
  EXPECT_EQ(days[2].id.substr(days[2].id.rfind('|') + 1), "20260330")
      << "all-day occurrences are named by date";

  // Ending it "this and future" from the last day writes UNTIL as a date.
  store.removeEvent(days[2].id, RemoveSpan::futureEvents);
  EXPECT_NE(allText().find("RRULE:FREQ=DAILY;UNTIL=20260329\r\n"), std::string::npos) << allText();
  EXPECT_EQ(list("2026-03-27T00:00:00Z", "2026-04-05T00:00:00Z").size(), 2u);
}

// As another calendar tool writes it: a floating RECURRENCE-ID beside a zoned master, an
// override that moves the 16th to the 12th, an excluded 23rd.
constexpr const char* kForeignSeries =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Tool//EN\r\n"
    "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"
    "BEGIN:STANDARD\r\nDTSTART:19701025T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\n"
    "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nEND:STANDARD\r\n"
    "BEGIN:DAYLIGHT\r\nDTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\n"
    "TZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nEND:DAYLIGHT\r\nEND:VTIMEZONE\r\n"
    "BEGIN:VEVENT\r\nUID:review@example.org\r\nDTSTAMP:20260101T000000Z\r\n"
    "DTSTART;TZID=Europe/Berlin:20260302T140000\r\nDTEND;TZID=Europe/Berlin:20260302T150000\r\n"
    "RRULE:FREQ=WEEKLY\r\nEXDATE;TZID=Europe/Berlin:20260323T140000\r\nSUMMARY:Review\r\n"
    "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Review\r\nTRIGGER:-PT15M\r\nEND:VALARM\r\nEND:"
    "VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:review@example.org\r\nDTSTAMP:20260101T000000Z\r\n"
    "RECURRENCE-ID:20260316T140000\r\n"
    "DTSTART;TZID=Europe/Berlin:20260312T160000\r\nDTEND;TZID=Europe/Berlin:20260312T170000\r\n"
    "SUMMARY:Review (early)\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";

TEST_F(VdirStore, OverridesMovedIntoTheRangeAndExclusionsFromOtherTools) {
  base::writeFileAtomically(dir.path() / "personal" / "review.ics", kForeignSeries);
  EXPECT_EQ(summary("2026-03-10T00:00:00Z", "2026-03-14T00:00:00Z"),
            std::vector<std::string>{"Review (early)@2026-03-12T16:00:00+01:00"})
      << "the override's own time decides, not its RECURRENCE-ID";
  EXPECT_EQ(summary("2026-03-15T00:00:00Z", "2026-03-25T00:00:00Z"), std::vector<std::string>{})
      << "the overridden 16th and the excluded 23rd are not listed";
  const auto month = list("2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z");
  ASSERT_EQ(month.size(), 4u);
  EXPECT_EQ(month[0].alarms, std::vector<Alarm>{Alarm{15}});
  EXPECT_TRUE(month[0].hasAlarms);
  // The override is found by its id, and editing it again keeps one override.
  const auto early = month[2];
  EXPECT_EQ(early.id, "local:personal|review@example.org|20260316T130000Z");
  auto fields = fieldsOf(early);
  fields.notes = "bring numbers";
  store.updateEvent(early.id, fields, SaveSpan::thisEvent);
  EXPECT_EQ(store.event(early.id)->notes, "bring numbers");
  EXPECT_EQ(list("2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z").size(), 4u);
}

TEST_F(VdirStore, CalendarFoldersAreOwnerOnlyAndAFailedAddLeavesNoFolder) {
  const auto modeOf = [](const fs::path& p) {
    return fs::status(p).permissions() & fs::perms::all;
  };
  EXPECT_EQ(modeOf(dir.path()), fs::perms::owner_all);
  EXPECT_EQ(modeOf(dir.path() / "personal"), fs::perms::owner_all);

  // Writes fail (as on a full disk: no file may grow), so the calendar cannot be made.
  struct rlimit saved {};
  ::getrlimit(RLIMIT_FSIZE, &saved);
  const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit none = saved;
  none.rlim_cur = 0;
  ::setrlimit(RLIMIT_FSIZE, &none);
  try {
    store.addCalendar("work", "Work", "#00FF00");
    ADD_FAILURE() << "the calendar was added without its files";
  } catch (const CalendarException& e) {
    EXPECT_NE(std::string(e.what()).find("cannot add the calendar work"), std::string::npos)
        << e.what();
  }
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(fs::exists(dir.path() / "work")) << "an empty folder would list as a calendar";
  EXPECT_EQ(store.calendars().size(), 1u);
}

TEST_F(VdirStore, CalendarsDefaultsAndFilesThatDoNotParse) {
  const auto feed = store.addCalendar("feed", "Holidays", "", true);
  auto calendars = store.calendars();
  ASSERT_EQ(calendars.size(), 2u);
  EXPECT_EQ(calendars[0].id, "local:feed");
  EXPECT_FALSE(calendars[0].writable);
  EXPECT_EQ(calendars[0].kind, SourceKind::subscribed);
  EXPECT_EQ(calendars[1].title, "Personal");
  EXPECT_EQ(calendars[1].colorHex, "#FF8800");
  EXPECT_EQ(store.defaultCalendarID(), calendar) << "the first writable calendar";
  store.addCalendar("work", "Work", "");
  store.setDefaultCalendar("local:work");
  EXPECT_EQ(store.defaultCalendarID(), "local:work");

  const std::string garbage = "BEGIN:VCALENDAR\r\nthis is not an event\r\n";
  base::writeFileAtomically(dir.path() / "personal" / "broken.ics", garbage);
  store.createEvent(calendar, weekly("Ok", "2026-03-02T09:00:00+01:00", 1));
  EXPECT_EQ(list("2026-03-01T00:00:00Z", "2026-04-01T00:00:00Z").size(), 1u);
  std::string still;
  base::readFile(dir.path() / "personal" / "broken.ics", still);
  EXPECT_EQ(still, garbage) << "a file we cannot read is left alone";

  const auto token = store.changeToken();
  EXPECT_EQ(store.changeToken(), token);
  store.createEvent(calendar, weekly("More", "2026-03-03T09:00:00+01:00", 1));
  EXPECT_NE(store.changeToken(), token);
  EXPECT_THROW(store.updateEvent("local:personal|nope", {}, SaveSpan::thisEvent),
               CalendarException);
  EXPECT_FALSE(store.event("not an id"));
}

TEST(EventIDs, RoundTripWithAndWithoutOccurrence) {
  const auto plain = EventID::parse("local:a|x@y");
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->calendarID, "local:a");
  EXPECT_EQ(plain->uid, "x@y");
  EXPECT_FALSE(plain->occurrence);
  const auto one = EventID::parse("caldav:1:/cal/|x|20260101T090000Z");
  ASSERT_TRUE(one);
  EXPECT_EQ(one->uid, "x");
  EXPECT_EQ(one->occurrence, "20260101T090000Z");
  EXPECT_EQ(one->text(), "caldav:1:/cal/|x|20260101T090000Z");
  EXPECT_EQ(EventID::parse("local:a|x|notadate")->uid, "x|notadate");
  EXPECT_FALSE(EventID::parse("nobar"));
}

}  // namespace
}  // namespace tamsel::calendar
