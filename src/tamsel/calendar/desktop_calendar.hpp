#pragma once
// The calendar as the desktop front ends set it up: the local vdir store (with a "Personal"
// calendar on first use) and any CalDAV accounts behind one store, the grant kept in the
// preferences, and the engine told about changes while the RPC channel is online.
#include <boost/asio/any_io_executor.hpp>
#include <memory>

#include "tamsel/calendar/calendar_provider.hpp"

namespace tamsel::bridge::rpc {
class DesktopRPCService;
}

namespace tamsel::calendar {

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
