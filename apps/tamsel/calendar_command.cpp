// tamsel calendar: the desktop's own calendars, read and set up by the person at the keyboard,
// and the grant that decides whether the engine may use them.
#include <cstdlib>
#include <iostream>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/calendar/caldav_calendar_store.hpp"
#include "tamsel/calendar/caldav_http.hpp"
#include "tamsel/calendar/desktop_calendar.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;
using namespace tamsel::calendar;

namespace {

std::string timeRange(const CalendarEvent& e) {
  if (e.allDay) return formatTimestamp(e.start).substr(0, 10) + " (all day)";
  return formatTimestamp(e.start) + " – " + formatTimestamp(e.end).substr(11, 5);
}

int permission(Runtime& rt, const CalendarCommandOptions& o) {
  auto permissions = std::make_shared<PreferencesPermissionStore>(rt.services.preferences().file());
  if (o.permissionAction == "grant") permissions->setStatus(CalendarPermissionStatus::granted);
  if (o.permissionAction == "deny") permissions->setStatus(CalendarPermissionStatus::denied);
  const auto status = permissions->status();
  if (o.asJSON) {
    std::cout << toJSON(PermissionResult{"calendar", status,
                                         CalendarMappers::permissionMessage(status)})
                     .serialize()
              << std::endl;
  } else {
    std::cout << "calendar access for the engine: " << toWire(status) << std::endl;
  }
  return kExitOK;
}

// Checks the account against the server before saving it, so a wrong URL or password is
// reported now and never replaces a working account.
int addCalDAV(Runtime& rt, const CalendarCommandOptions& o) {
  CalDAVAccount account{{}, o.url, o.user, {}};
  if (!o.passwordEnv.empty()) {
    const auto password = base::env::get(o.passwordEnv.c_str());
    if (!password) {
      printError("the environment variable " + o.passwordEnv + " is not set");
      return kExitUsage;
    }
    account.password = *password;
  }
  if (const auto reason = unsupportedDAVURL(o.url)) {
    printError(*reason);
    return kExitUsage;
  }
  const auto file = calDAVAccountsFileIn(rt.services.appFolder());
  loadCalDAVAccounts(file);  // a damaged file is reported before the server is asked
  account.id = "new";
  const auto found = CalDAVCalendarStore(account).calendars();
  if (found.empty()) {
    printError("no event calendars found at " + o.url);
    return kExitFailure;
  }
  const auto saved = saveCalDAVAccount(file, account);
  std::cout << "added CalDAV account " << saved.id << "\n";
  const std::string prefix = CalDAVCalendarStore(saved).idPrefix();
  for (const auto& c : found)
    std::cout << prefix << c.id.substr(c.id.find('/') + 1) << "  " << c.title
              << (c.writable ? "" : "  (read-only)") << "\n";
  return kExitOK;
}

}  // namespace

int calendarCommand(const GlobalOptions& options, const CalendarCommandOptions& o) {
  try {
    Runtime rt(options);
    const auto appFolder = rt.services.appFolder();
    if (o.action == "permission") return permission(rt, o);
    if (o.action == "add-local") {
      VdirCalendarStore local(VdirCalendarStore::rootIn(appFolder));
      const auto id = local.addCalendar(o.name, o.title, o.color);
      if (o.makeDefault) local.setDefaultCalendar(id);
      std::cout << id << std::endl;
      return kExitOK;
    }
    if (o.action == "add-caldav") return addCalDAV(rt, o);

    // The person at the keyboard reads their own calendars; the grant is the engine's.
    auto provider = std::make_shared<CalendarProvider>(
        rt.main.ioExecutor(), openDesktopCalendarStore(appFolder),
        std::make_shared<MemoryPermissionStore>(CalendarPermissionStatus::granted));
    const std::chrono::milliseconds limit = provider->timerFor(60'000);
    if (o.action == "sources") {
      const auto sources = rt.runToEnd(provider->listSources(limit));
      if (o.asJSON) {
        JSONValue::Array items;
        for (const auto& s : sources) items.push_back(toJSON(s));
        // The accounts without their passwords.
        JSONValue::Array accounts;
        for (const auto& a : loadCalDAVAccounts(calDAVAccountsFileIn(appFolder)))
          accounts.push_back(JSONValue::object({{"id", a.id}, {"url", a.url}, {"user", a.user}}));
        std::cout << JSONValue::object(
                         {{"sources", std::move(items)}, {"caldav_accounts", std::move(accounts)}})
                         .serialize()
                  << std::endl;
        return kExitOK;
      }
      for (const auto& s : sources)
        std::cout << s.id << "  " << s.title << "  (" << s.accountType
                  << (s.writable ? "" : ", read-only") << (s.defaultForNewEvents ? ", default" : "")
                  << ")\n";
      for (const auto& a : loadCalDAVAccounts(calDAVAccountsFileIn(appFolder)))
        std::cout << "CalDAV account " << a.id << "  " << a.url
                  << (a.user.empty() ? "" : "  (user " + a.user + ")") << "\n";
      return kExitOK;
    }
    if (o.action == "events") {
      JSONValue::Object params{{"start", o.from}, {"end", o.to}, {"limit", o.limit}};
      if (!o.calendarIDs.empty())
        params["calendar_ids"] = JSONValue::Array(o.calendarIDs.begin(), o.calendarIDs.end());
      if (o.query) params["query"] = *o.query;
      auto decoded = decodeListEventsParams(JSONValue(std::move(params)));
      const auto list = rt.runToEnd(provider->listEvents(std::move(decoded), limit));
      if (o.asJSON) {
        std::cout << toJSON(list).serialize() << std::endl;
        return kExitOK;
      }
      for (const auto& e : list.events)
        std::cout << timeRange(e) << "  " << e.title << (e.location ? "  @ " + *e.location : "")
                  << (e.isRecurring ? "  (repeats)" : "") << "\n";
      if (list.truncated) std::cout << "(more events than --limit " << o.limit << ")\n";
      return kExitOK;
    }
  } catch (const CalendarException& e) {
    printError(e.what());
    return e.error().code() == "invalid_argument" ? kExitUsage : kExitFailure;
  }
  return kExitUsage;
}

}  // namespace tamsel::cli
