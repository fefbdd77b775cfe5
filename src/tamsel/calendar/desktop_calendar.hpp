#pragma once
// The calendar as the desktop front ends set it up: the local vdir store (with a "Personal"
// calendar on first use) and any CalDAV accounts behind one store, the grant kept in the
// preferences, and the engine told about changes while the RPC channel is online.
#include <boost/asio/any_io_executor.hpp>
#include <memory>
#include <string>
#include <vector>

#include "tamsel/calendar/calendar_provider.hpp"

namespace tamsel::bridge::rpc {
class DesktopRPCService;
}

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
  std::vector<CalendarEvent> events(Timestamp start, Timestamp end, const std::vector<std::string>& calendarIDs) override;
  std::optional<CalendarEvent> event(const std::string& id) override;
  StoreWriteOutcome createEvent(const std::string& calendarID, const EventFields& fields) override;
  StoreWriteOutcome updateEvent(const std::string& id, const EventFields& fields, SaveSpan span) override;
  bool removeEvent(const std::string& id, RemoveSpan span) override;
  std::string changeToken() override;

 private:
  // The part that owns a calendar id, or throws notFound(idForErrors).
  CalendarStore& owner(const std::string& calendarID, const std::string& idForErrors) const;
  std::vector<Part> parts_;
};

// Every store the desktop knows; throws CalendarException when the app folder is unusable.
std::shared_ptr<CalendarStore> openDesktopCalendarStore();
std::shared_ptr<CalendarPermissionStore> openDesktopPermissionStore();

// `askOnTerminal`: calendar.request_permission asks on the controlling terminal (the headless
// and terminal front ends do when a person is there); otherwise the status stays as it is.
std::shared_ptr<CalendarProvider> makeDesktopCalendarProvider(boost::asio::any_io_executor executor,
                                                              bool askOnTerminal);

// Sends each of the provider's changes to the engine as "calendar_data_changed" or
// "calendar_permission_changed" while `service` is online, and starts watching. Both must
// outlive the returned connection's use; the provider's destructor stops it.
void forwardCalendarChanges(CalendarProvider& provider, bridge::rpc::DesktopRPCService& service,
                            boost::asio::any_io_executor executor);

}  // namespace tamsel::calendar
