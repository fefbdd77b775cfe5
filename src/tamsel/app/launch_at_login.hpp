#pragma once
// "Launch at login". Two ways exist on Linux: the systemd user unit (tamsel.service, the headless
// desktop under the service manager, with its log in the journal) and an XDG autostart entry (for
// sessions without a systemd user manager, or a desktop installed without the unit). Whichever is
// turned on, the other is turned off: two supervisors at login would fight over the engine.
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tamsel::app {

class LaunchAtLoginError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class LaunchAtLogin {
 public:
  enum class Mechanism { userService, autostartEntry };
  static constexpr const char* unitName = "tamsel.service";
  static constexpr const char* autostartFileName = "dev.tamsel.desktop.desktop";

  // What it asks of the system; tests replace it.
  struct System {
    // Whether `systemctl --user` reaches a user service manager that knows tamsel.service.
    std::function<bool()> userServiceAvailable;
    // Runs `systemctl --user ARGS...`: its exit status and what it printed.
    std::function<std::pair<int, std::string>(const std::vector<std::string>&)> systemctl;
  };
  static System defaultSystem();

  // `configHome`: $XDG_CONFIG_HOME. `autostartCommand`: the Exec line of the autostart entry.
  LaunchAtLogin(std::filesystem::path configHome, std::string autostartCommand,
                System system = defaultSystem());

  // What starts at login now, read from the files each way leaves (the unit's link under
  // default.target.wants, the autostart entry), so a change made with systemctl shows too.
  std::optional<Mechanism> current() const;
  bool enabled() const { return current().has_value(); }
  // The way turning it on uses here: the user unit when the service manager has it.
  Mechanism preferred() const;
  // Turns it on (the preferred way, the other one off) or off (both off). Throws
  // LaunchAtLoginError saying what failed; a failure leaves the previous state.
  void setEnabled(bool on);

  std::filesystem::path autostartEntry() const;
  std::filesystem::path unitWantsLink() const;

 private:
  void systemctl(const std::vector<std::string>& arguments) const;
  void removeAutostartEntry() const;
  void disableUnit() const;

  std::filesystem::path configHome_;
  std::string autostartCommand_;
  System system_;
};

}  // namespace tamsel::app
