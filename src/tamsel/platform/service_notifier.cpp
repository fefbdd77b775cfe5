#include "tamsel/platform/service_notifier.hpp"

#include <systemd/sd-daemon.h>

#include "tamsel/base/log.hpp"

namespace tamsel::platform {

void ServiceNotifier::ready(const std::string& status) {
  if (readySent_) return this->status(status);
  readySent_ = true;
  lastStatus_ = status;
  send("READY=1\nSTATUS=" + status);
}

void ServiceNotifier::status(const std::string& status) {
  if (status == lastStatus_) return;
  lastStatus_ = status;
  send("STATUS=" + status);
}

void ServiceNotifier::stopping(const std::string& status) {
  lastStatus_ = status;
  send("STOPPING=1\nSTATUS=" + status);
}

void ServiceNotifier::send(const std::string& message) {
  // 0: not under a service manager; negative: the manager's socket failed, which must not stop
  // the supervisor itself.
  if (const int r = sd_notify(0, message.c_str()); r < 0)
    base::log::warn("service", "cannot notify the service manager: error {}", -r);
}

}  // namespace tamsel::platform
