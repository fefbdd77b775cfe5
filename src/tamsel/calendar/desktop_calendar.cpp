#include "tamsel/calendar/desktop_calendar.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <filesystem>

#include "tamsel/base/log.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/calendar/vdir_calendar_store.hpp"
#include "tamsel/desktop/preferences_store.hpp"

namespace tamsel::calendar {

namespace asio = boost::asio;

std::shared_ptr<CalendarStore> openDesktopCalendarStore() {
  const auto root = VdirCalendarStore::defaultRoot();
  auto local = std::make_shared<VdirCalendarStore>(root);
  std::error_code ec;
  // The embedded store starts with one calendar so new events have somewhere to go.
  if (!std::filesystem::exists(root, ec)) local->addCalendar("personal", "Personal", "#3A87AD");
  return local;
}

std::shared_ptr<CalendarPermissionStore> openDesktopPermissionStore() {
  return std::make_shared<PreferencesPermissionStore>(desktop::PreferencesStore::defaultFile());
}

std::shared_ptr<CalendarProvider> makeDesktopCalendarProvider(asio::any_io_executor executor, bool askOnTerminal) {
  PermissionPrompter prompter;
  if (askOnTerminal) prompter = &calendar::askOnTerminal;
  return std::make_shared<CalendarProvider>(std::move(executor), openDesktopCalendarStore(),
                                            openDesktopPermissionStore(), std::move(prompter));
}

namespace {

asio::awaitable<void> sendChange(bridge::rpc::DesktopRPCService* service, bridge::rpc::DesktopEvent event) {
  const bool sent = co_await service->sendEvent(std::move(event));
  if (!sent) base::log::debug("calendar", "change not forwarded: the channel is offline");
}

}  // namespace

void forwardCalendarChanges(CalendarProvider& provider, bridge::rpc::DesktopRPCService& service,
                            asio::any_io_executor executor) {
  provider.changeEvents().connect([&provider, &service, executor](CalendarChangeEvent change) {
    if (!service.isOnline()) return;
    bridge::rpc::DesktopEvent event{std::string(desktopEventName(change)), std::nullopt, bridge::rpc::rpcTimestampNow()};
    if (change == CalendarChangeEvent::permissionChanged)
      event.data = JSONValue::object({{"status", toWire(provider.checkPermission().status)}});
    asio::co_spawn(executor, sendChange(&service, std::move(event)), asio::detached);
  });
  provider.startWatching();
}

}  // namespace tamsel::calendar
