#pragma once
// Tells the service manager how the service is doing (systemd's readiness protocol). Outside a
// service started with Type=notify every call does nothing.
#include <string>

namespace tamsel::platform {

class ServiceNotifier {
 public:
  // READY=1 once, with a status line.
  void ready(const std::string& status);
  // STATUS=...: the line `systemctl status` shows; repeated lines are not sent again.
  void status(const std::string& status);
  // STOPPING=1: the service is shutting down on purpose.
  void stopping(const std::string& status);
  bool sentReady() const { return readySent_; }

 private:
  void send(const std::string& message);
  bool readySent_ = false;
  std::string lastStatus_;
};

}  // namespace tamsel::platform
