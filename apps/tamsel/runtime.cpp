#include "runtime.hpp"

#include <unistd.h>

#include "tamsel/app/meeting_watch.hpp"
#include "tamsel/calendar/calendar_permission_store.hpp"

namespace tamsel::cli {

namespace {
app::DesktopOptions desktopOptions(const GlobalOptions& options,
                                   desktop::DaemonManager::Config supervision) {
  app::DesktopOptions out;
  out.enginePort = options.enginePort;
  out.engineArguments = options.engineArguments;
  out.axServerBundle = options.axServerBundle;
  out.engineHome = options.engineHome;
  out.supervision = std::move(supervision);
  return out;
}
}  // namespace

Runtime::Runtime(const GlobalOptions& options, app::FrontEndHooks hooks,
                 desktop::DaemonManager::Config supervision)
    : services(main, base::env::read(), desktopOptions(options, std::move(supervision)), [&] {
        // A person at the terminal can answer calendar.request_permission; nobody else is asked.
        if (!hooks.askCalendarPermission && ::isatty(STDIN_FILENO) == 1)
          hooks.askCalendarPermission = &calendar::askOnTerminal;
        // The command line seals in its own process: it links the encoder for `meeting seal`.
        if (!hooks.meetingSealer) hooks.meetingSealer = &app::inProcessMeetingSealer;
        return std::move(hooks);
      }()) {}

}  // namespace tamsel::cli
