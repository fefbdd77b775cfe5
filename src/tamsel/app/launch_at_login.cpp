#include "tamsel/app/launch_at_login.hpp"

#include <system_error>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/platform/child_process.hpp"

namespace tamsel::app {

namespace fs = std::filesystem;

LaunchAtLogin::System LaunchAtLogin::defaultSystem() {
  System system;
  system.systemctl = [](const std::vector<std::string>& arguments) -> std::pair<int, std::string> {
    std::vector<std::string> argv{"--user"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    try {
      const auto result = platform::runToCompletion("/usr/bin/systemctl", argv, true, 10);
      return {result.status.signaled ? 128 + result.status.code : result.status.code,
              result.output};
    } catch (const std::system_error& e) {
      return {127, e.what()};
    }
  };
  system.userServiceAvailable = [run = system.systemctl] {
    // `cat` needs the manager and finds the unit wherever it is installed.
    return run({"cat", unitName}).first == 0;
  };
  return system;
}

LaunchAtLogin::LaunchAtLogin(fs::path configHome, std::string autostartCommand, System system)
    : configHome_(std::move(configHome)),
      autostartCommand_(std::move(autostartCommand)),
      system_(std::move(system)) {}

fs::path LaunchAtLogin::autostartEntry() const {
  return configHome_ / "autostart" / autostartFileName;
}

fs::path LaunchAtLogin::unitWantsLink() const {
  return configHome_ / "systemd" / "user" / "default.target.wants" / unitName;
}

std::optional<LaunchAtLogin::Mechanism> LaunchAtLogin::current() const {
  std::error_code ec;
  if (fs::is_symlink(unitWantsLink(), ec) || fs::exists(unitWantsLink(), ec))
    return Mechanism::userService;
  if (fs::exists(autostartEntry(), ec)) return Mechanism::autostartEntry;
  return std::nullopt;
}

LaunchAtLogin::Mechanism LaunchAtLogin::preferred() const {
  return system_.userServiceAvailable() ? Mechanism::userService : Mechanism::autostartEntry;
}

void LaunchAtLogin::systemctl(const std::vector<std::string>& arguments) const {
  const auto [status, output] = system_.systemctl(arguments);
  if (status == 0) return;
  std::string line = "systemctl --user";
  for (const auto& a : arguments) line += " " + a;
  throw LaunchAtLoginError(line + " failed (exit " + std::to_string(status) + ")" +
                           (output.empty() ? std::string() : ": " + output));
}

void LaunchAtLogin::removeAutostartEntry() const {
  std::error_code ec;
  fs::remove(autostartEntry(), ec);
  if (ec)
    throw LaunchAtLoginError("cannot remove " + autostartEntry().string() + ": " + ec.message());
}

void LaunchAtLogin::disableUnit() const {
  std::error_code ec;
  if (!fs::is_symlink(unitWantsLink(), ec) && !fs::exists(unitWantsLink(), ec)) return;
  if (system_.userServiceAvailable()) return systemctl({"disable", unitName});
  // No manager to ask (a session without one): the link is all `enable` left behind.
  fs::remove(unitWantsLink(), ec);
  if (ec)
    throw LaunchAtLoginError("cannot remove " + unitWantsLink().string() + ": " + ec.message());
}

void LaunchAtLogin::setEnabled(bool on) {
  if (!on) {
    disableUnit();
    removeAutostartEntry();
    return;
  }
  if (preferred() == Mechanism::userService) {
    // Enable first: when that fails, the autostart entry the user had stays.
    systemctl({"enable", unitName});
    removeAutostartEntry();
    return;
  }
  const std::string entry =
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=Tamsel Desktop\n"
      "Comment=Supervises the local agent engine from login\n"
      "Exec=" +
      autostartCommand_ +
      "\n"
      "Icon=dev.tamsel.desktop\n"
      "Terminal=false\n"
      "X-GNOME-Autostart-enabled=true\n";
  try {
    fs::create_directories(autostartEntry().parent_path());
    base::writeFileAtomically(autostartEntry(), entry, 0644);
  } catch (const std::exception& e) {
    throw LaunchAtLoginError("cannot write " + autostartEntry().string() + ": " + e.what());
  }
  try {
    disableUnit();
  } catch (const LaunchAtLoginError&) {
    // Never both: back to the unit alone, as it was.
    std::error_code ec;
    fs::remove(autostartEntry(), ec);
    throw;
  }
}

}  // namespace tamsel::app
