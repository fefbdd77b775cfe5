#pragma once
// The calendar as the desktop front ends set it up: the local vdir store (with a "Personal"
// calendar on first use) and any CalDAV accounts behind one store, the grant kept in the
// preferences, and the engine told about changes while the RPC channel is online.
#include <boost/asio/any_io_executor.hpp>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tamsel/calendar/calendar_provider.hpp"

namespace tamsel::bridge::rpc {
class DesktopRPCMethodDispatcher;
class DesktopRPCService;
}  // namespace tamsel::bridge::rpc

namespace tamsel::calendar {

// Several stores behind one front: each part owns the calendar ids that start with its prefix
// ("local:", "caldav:<account>/"). A part that fails (an account out of reach) is left out of
// listings, with a warning, unless one of its calendars was asked for by id, so an offline
// computer still sees its local calendars. The default for new events is the first part's.
class CombinedCalendarStore : public CalendarStore {
 public:
  struct Part {
    std::string idPrefix;
    std::shared_ptr<CalendarStore> store;
  };
  explicit CombinedCalendarStore(std::vector<Part> parts) : parts_(std::move(parts)) {}

  std::vector<StoreCalendar> calendars() override;
  std::optional<std::string> defaultCalendarID() override;
  std::vector<CalendarEvent> events(Timestamp start, Timestamp end,
                                    const std::vector<std::string>& calendarIDs) override;
  void collectEvents(Timestamp start, Timestamp end, const std::vector<std::string>& calendarIDs,
                     EventCollector& into) override;
  std::optional<CalendarEvent> event(const std::string& id) override;
  StoreWriteOutcome createEvent(const std::string& calendarID, const EventFields& fields) override;
  StoreWriteOutcome updateEvent(const std::string& id, const EventFields& fields,
                                SaveSpan span) override;
  bool removeEvent(const std::string& id, RemoveSpan span) override;
  std::string changeToken() override;

 private:
  // The part that owns a calendar id, or throws notFound(idForErrors).
  CalendarStore& owner(const std::string& calendarID, const std::string& idForErrors) const;
  std::vector<Part> parts_;
};

// Every store the desktop knows, under the app folder; throws CalendarException when it is
// unusable.
std::shared_ptr<CalendarStore> openDesktopCalendarStore(const std::filesystem::path& appFolder);

// `prompter` is how calendar.request_permission asks the user (on a terminal, in a dialog);
// without one the status stays as it is.
std::shared_ptr<CalendarProvider> makeDesktopCalendarProvider(
    boost::asio::any_io_executor executor, const std::filesystem::path& appFolder,
    std::shared_ptr<CalendarPermissionStore> permissions, PermissionPrompter prompter);

// Registers the calendar methods on the RPC channel. Each answers from the provider while it
// exists and "internal_error" once it is gone; every calendar failure becomes its RPC error.
void registerCalendarMethods(bridge::rpc::DesktopRPCMethodDispatcher& dispatcher,
                             std::weak_ptr<CalendarProvider> provider);

// Sends each of the provider's changes to the engine as "calendar_data_changed" or
// "calendar_permission_changed" while `service` is online, and starts watching. Either may be
// destroyed first: the forwarding then stops.
void forwardCalendarChanges(const std::shared_ptr<CalendarProvider>& provider,
                            std::weak_ptr<bridge::rpc::DesktopRPCService> service,
                            boost::asio::any_io_executor executor);

}  // namespace tamsel::calendar
