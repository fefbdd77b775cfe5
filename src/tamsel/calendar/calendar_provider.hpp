#pragma once
// Serves the calendar methods over one CalendarStore, holding the user's calendar grant.
//
// Lives on one executor (the main executor in the app): call it and observe changeEvents()
// there. Store calls run on the provider's own worker thread, one at a time, each in a race
// against a timer (the request's timeout, capped at 3600 s); when the timer wins the caller is
// answered `timeout` and the store call is left to finish in the background.
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <memory>
#include <string_view>

#include "tamsel/base/signal.hpp"
#include "tamsel/calendar/calendar_error.hpp"
#include "tamsel/calendar/calendar_permission_store.hpp"
#include "tamsel/calendar/calendar_records.hpp"
#include "tamsel/calendar/calendar_store.hpp"

namespace tamsel::calendar {

class CalendarProvider {
 public:
  struct Options {
    // Used when a request names no timeout of its own.
    std::chrono::milliseconds defaultTimeout{30000};
    // How often the store and the grant are checked for changes made elsewhere.
    std::chrono::milliseconds watchInterval{2000};
  };
  static constexpr std::chrono::seconds maximumTimeout{3600};
  // The most events one listing returns, whatever its limit: each is held in memory until the
  // answer is encoded. More matches are reported as truncated.
  static constexpr std::size_t kMaxListedEvents = 10000;

  CalendarProvider(boost::asio::any_io_executor executor, std::shared_ptr<CalendarStore> store,
                   std::shared_ptr<CalendarPermissionStore> permissions,
                   PermissionPrompter prompter, Options options);
  CalendarProvider(boost::asio::any_io_executor executor, std::shared_ptr<CalendarStore> store,
                   std::shared_ptr<CalendarPermissionStore> permissions,
                   PermissionPrompter prompter = {});
  ~CalendarProvider();
  CalendarProvider(const CalendarProvider&) = delete;
  CalendarProvider& operator=(const CalendarProvider&) = delete;

  // Serves one "calendar." method: decodes `params`, answers the result object. Throws
  // CalendarException for every failure (an unknown method is notFound).
  boost::asio::awaitable<JSONValue> handle(std::string method, JSONValue params,
                                           std::int64_t timeoutMs);

  boost::asio::awaitable<std::vector<CalendarSource>> listSources(
      std::chrono::milliseconds timeout);
  boost::asio::awaitable<CalendarEventList> listEvents(ListEventsParams params,
                                                       std::chrono::milliseconds timeout);
  boost::asio::awaitable<CalendarEvent> getEvent(GetEventParams params,
                                                 std::chrono::milliseconds timeout);
  boost::asio::awaitable<WriteEventResult> createEvent(CalendarEventDraft draft,
                                                       std::chrono::milliseconds timeout);
  boost::asio::awaitable<WriteEventResult> updateEvent(UpdateEventParams params,
                                                       std::chrono::milliseconds timeout);
  boost::asio::awaitable<DeleteEventResult> deleteEvent(DeleteEventParams params,
                                                        std::chrono::milliseconds timeout);
  PermissionResult checkPermission() const;
  boost::asio::awaitable<PermissionResult> requestPermission(std::chrono::milliseconds timeout);
  // For front ends that take the user's answer themselves (`tamsel calendar permission`).
  void setPermission(CalendarPermissionStatus status);

  // The timer a request gets: its own timeout when positive, capped at 3600 s.
  std::chrono::milliseconds timerFor(std::int64_t timeoutMs) const;

  // dataChanged when the store's data changed (by us or anyone else), permissionChanged when
  // the grant did. Fed only while watching.
  base::Signal<CalendarChangeEvent>& changeEvents();
  void startWatching();
  void stopWatching();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace tamsel::calendar
