#include "tamsel/calendar/desktop_calendar.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <filesystem>

#include "tamsel/base/log.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_method_dispatcher.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/calendar/caldav_calendar_store.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/calendar_protocol.hpp"
#include "tamsel/calendar/ical_series.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"

namespace tamsel::calendar {

namespace asio = boost::asio;

std::vector<StoreCalendar> CombinedCalendarStore::calendars() {
  std::vector<StoreCalendar> out;
  for (const auto& part : parts_) {
    try {
      auto some = part.store->calendars();
      out.insert(out.end(), std::make_move_iterator(some.begin()),
                 std::make_move_iterator(some.end()));
    } catch (const std::exception& e) {
      base::log::warn("calendar", "calendars of {} left out: {}", part.idPrefix, e.what());
    }
  }
  return out;
}

std::optional<std::string> CombinedCalendarStore::defaultCalendarID() {
  for (const auto& part : parts_) {
    try {
      if (auto id = part.store->defaultCalendarID()) return id;
    } catch (const std::exception& e) {
      base::log::warn("calendar", "no default from {}: {}", part.idPrefix, e.what());
    }
  }
  return std::nullopt;
}

std::vector<CalendarEvent> CombinedCalendarStore::events(
    Timestamp start, Timestamp end, const std::vector<std::string>& calendarIDs) {
  EventCollector all;
  collectEvents(start, end, calendarIDs, all);
  return all.take();
}

void CombinedCalendarStore::collectEvents(Timestamp start, Timestamp end,
                                          const std::vector<std::string>& calendarIDs,
                                          EventCollector& into) {
  for (const auto& part : parts_) {
    std::vector<std::string> mine;
    for (const auto& id : calendarIDs)
      if (id.starts_with(part.idPrefix)) mine.push_back(id);
    if (!calendarIDs.empty() && mine.empty()) continue;
    if (into.budgetSpent()) return;
    try {
      part.store->collectEvents(start, end, mine, into);
    } catch (const std::exception& e) {
      if (!mine.empty()) throw;
      base::log::warn("calendar", "events of {} left out: {}", part.idPrefix, e.what());
    }
  }
}

CalendarStore& CombinedCalendarStore::owner(const std::string& calendarID,
                                            const std::string& idForErrors) const {
  for (const auto& part : parts_)
    if (calendarID.starts_with(part.idPrefix)) return *part.store;
  throw CalendarException(CalendarRPCError::notFound(idForErrors));
}

std::optional<CalendarEvent> CombinedCalendarStore::event(const std::string& id) {
  const auto parsed = EventID::parse(id);
  if (!parsed) return std::nullopt;
  for (const auto& part : parts_)
    if (parsed->calendarID.starts_with(part.idPrefix)) return part.store->event(id);
  return std::nullopt;
}

StoreWriteOutcome CombinedCalendarStore::createEvent(const std::string& calendarID,
                                                     const EventFields& fields) {
  return owner(calendarID, calendarID).createEvent(calendarID, fields);
}

StoreWriteOutcome CombinedCalendarStore::updateEvent(const std::string& id,
                                                     const EventFields& fields, SaveSpan span) {
  const auto parsed = EventID::parse(id);
  if (!parsed) throw CalendarException(CalendarRPCError::notFound(id));
  return owner(parsed->calendarID, id).updateEvent(id, fields, span);
}

bool CombinedCalendarStore::removeEvent(const std::string& id, RemoveSpan span) {
  const auto parsed = EventID::parse(id);
  if (!parsed) throw CalendarException(CalendarRPCError::notFound(id));
  return owner(parsed->calendarID, id).removeEvent(id, span);
}

std::string CombinedCalendarStore::changeToken() {
  std::string token;
  for (const auto& part : parts_) {
    try {
      token += part.store->changeToken();
    } catch (const std::exception& e) {
      // Coming back online changes the token, and the engine hears about it.
      base::log::debug("calendar", "change check of {} failed: {}", part.idPrefix, e.what());
      token += "offline";
    }
    token += '\n';
  }
  return token;
}

std::shared_ptr<CalendarStore> openDesktopCalendarStore(const std::filesystem::path& appFolder) {
  const auto root = VdirCalendarStore::rootIn(appFolder);
  auto local = std::make_shared<VdirCalendarStore>(root);
  std::error_code ec;
  // The embedded store starts with one calendar so new events have somewhere to go.
  if (!std::filesystem::exists(root, ec)) local->addCalendar("personal", "Personal", "#3A87AD");
  std::vector<CalDAVAccount> accounts;
  try {
    accounts = loadCalDAVAccounts(calDAVAccountsFileIn(appFolder));
  } catch (const CalendarException& e) {
    // The local calendars still work; the file is left for the user to fix.
    base::log::error("calendar", "CalDAV accounts not loaded: {}", e.what());
  }
  if (accounts.empty()) return local;
  std::vector<CombinedCalendarStore::Part> parts{{VdirCalendarStore::idPrefix, local}};
  for (auto& account : accounts) {
    try {
      auto remote = std::make_shared<CalDAVCalendarStore>(std::move(account));
      parts.push_back({remote->idPrefix(), remote});
    } catch (const CalendarException& e) {
      base::log::error("calendar", "CalDAV account left out: {}", e.what());
    }
  }
  return std::make_shared<CombinedCalendarStore>(std::move(parts));
}

std::shared_ptr<CalendarProvider> makeDesktopCalendarProvider(
    asio::any_io_executor executor, const std::filesystem::path& appFolder,
    std::shared_ptr<CalendarPermissionStore> permissions, PermissionPrompter prompter) {
  return std::make_shared<CalendarProvider>(std::move(executor),
                                            openDesktopCalendarStore(appFolder),
                                            std::move(permissions), std::move(prompter));
}

void registerCalendarMethods(bridge::rpc::DesktopRPCMethodDispatcher& dispatcher,
                             std::weak_ptr<CalendarProvider> provider) {
  namespace Method = CalendarProtocol::Method;
  for (std::string_view name :
       {Method::calendarListSources, Method::calendarListEvents, Method::calendarGetEvent,
        Method::calendarCheckPermission, Method::calendarRequestPermission,
        Method::calendarCreateEvent, Method::calendarUpdateEvent, Method::calendarDeleteEvent}) {
    dispatcher.registerMethod(
        std::string(name),
        [provider](bridge::rpc::RPCRequest request) -> asio::awaitable<bridge::rpc::RPCResult> {
          std::optional<bridge::rpc::RPCError> failure;
          try {
            const auto served = provider.lock();
            if (!served) throw std::runtime_error("the calendar is no longer available");
            std::string method = request.method;
            JSONValue params = request.params;
            const std::int64_t timeoutMs = request.timeoutMs;
            JSONValue result =
                co_await served->handle(std::move(method), std::move(params), timeoutMs);
            co_return bridge::rpc::RPCResult::success(request.requestID, std::move(result));
          } catch (const CalendarException& e) {
            failure = e.error().toRPCError();
          } catch (const std::exception& e) {
            failure = CalendarRPCError::internalError(e.what()).toRPCError();
          }
          co_return bridge::rpc::RPCResult::failure(request.requestID, std::move(*failure));
        });
  }
}

namespace {

asio::awaitable<void> sendChange(std::weak_ptr<bridge::rpc::DesktopRPCService> weak,
                                 bridge::rpc::DesktopEvent event) {
  const auto service = weak.lock();
  if (!service) co_return;
  const bool sent = co_await service->sendEvent(std::move(event));
  if (!sent) base::log::debug("calendar", "change not forwarded: the channel is offline");
}

}  // namespace

void forwardCalendarChanges(const std::shared_ptr<CalendarProvider>& provider,
                            std::weak_ptr<bridge::rpc::DesktopRPCService> service,
                            asio::any_io_executor executor) {
  std::weak_ptr<CalendarProvider> weakProvider = provider;
  provider->changeEvents().connect([weakProvider, service, executor](CalendarChangeEvent change) {
    const auto channel = service.lock();
    const auto source = weakProvider.lock();
    if (!channel || !source || !channel->isOnline()) return;
    bridge::rpc::DesktopEvent event{std::string(desktopEventName(change)), std::nullopt,
                                    bridge::rpc::rpcTimestampNow()};
    if (change == CalendarChangeEvent::permissionChanged)
      event.data = JSONValue::object({{"status", toWire(source->checkPermission().status)}});
    asio::co_spawn(executor, sendChange(service, std::move(event)), asio::detached);
  });
  provider->startWatching();
}

}  // namespace tamsel::calendar
