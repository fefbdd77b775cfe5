// tamsel hotkey watch | mode, and what a double tap does under `tamsel run`.
#include <signal.h>

#include <boost/asio/signal_set.hpp>
#include <iostream>
#include <sstream>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/hotkey/double_tap_watcher.hpp"
#include "tamsel/platform/child_process.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;
namespace fs = std::filesystem;

namespace {

std::string describeMode(hotkey::HotkeyTriggerMode mode) {
  switch (mode) {
    case hotkey::HotkeyTriggerMode::doubleTapLeft:
      return "a double tap of the left Alt key summons Tamsel";
    case hotkey::HotkeyTriggerMode::doubleTapRight:
      return "a double tap of the right Alt key summons Tamsel";
    case hotkey::HotkeyTriggerMode::custom:
      return "a custom shortcut of the desktop's own; the Alt double tap is not watched";
    case hotkey::HotkeyTriggerMode::off:
      break;
  }
  return "no hotkey summons Tamsel";
}

// An explanation: its first line the way errors are printed, the details under it as they are.
void printLines(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  if (std::getline(lines, line)) printError(line);
  while (std::getline(lines, line)) std::cerr << line << std::endl;
}

std::optional<fs::path> onPath(const std::string& name) {
  const auto path = base::env::get("PATH");
  std::istringstream folders(path.value_or("/usr/local/bin:/usr/bin:/bin"));
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (folder.empty()) continue;
    const fs::path candidate = fs::path(folder) / name;
    if (platform::isExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace

int hotkeyWatch(const GlobalOptions& options, const HotkeyWatchOptions& watch) {
  Runtime rt(options);
  std::optional<hotkey::OptionSide> side;
  if (watch.side) {
    side = hotkey::optionSideFrom(*watch.side);
    if (!side)
      throw CommandException(
          CommandError{CommandError::Usage{"--side must be left, right or either"}});
  } else {
    side =
        hotkey::doubleTapSide(rt.services.hotkeyTriggerMode()).value_or(hotkey::OptionSide::either);
  }
  const auto backend = hotkey::hotkeyBackendFrom(watch.backend);
  if (!backend)
    throw CommandException(
        CommandError{CommandError::Usage{"--backend must be auto, x11 or evdev"}});

  const bool asJSON = watch.asJSON;
  hotkey::DoubleTapWatcher watcher(
      rt.main, *side,
      [asJSON](hotkey::OptionSide pressed) {
        const auto now = base::nowTimestamp();
        if (asJSON) {
          boost::json::object line{{"time", base::formatISO8601(now)},
                                   {"side", std::string(hotkey::rawValue(pressed))}};
          std::cout << base::json::serialize(line) << std::endl;
        } else {
          std::cout << base::formatLocalTime(now, true) << "  double tap  "
                    << hotkey::rawValue(pressed) << std::endl;
        }
      },
      [](const std::string& notice) { std::cerr << "tamsel: " << notice << std::endl; });
  if (auto failure = watcher.start(rt.services.hotkeySession(), *backend)) {
    printLines(*failure);
    return kExitFailure;
  }
  std::cerr << "tamsel: watching for double taps of the " << hotkey::rawValue(*side)
            << " Alt key through " << watcher.backendDescription() << "; Ctrl-C ends" << std::endl;

  asio::signal_set signals(rt.io, SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (!ec) rt.io.stop();
  });
  rt.io.run();
  watcher.stop();
  return kExitOK;
}

int hotkeyMode(const GlobalOptions& options, const std::optional<std::string>& newMode) {
  Runtime rt(options);
  if (newMode) {
    const auto mode = hotkey::triggerModeFrom(*newMode);
    if (!mode)
      throw CommandException(CommandError{
          CommandError::Usage{"the mode must be doubleTapLeft, doubleTapRight, custom or off"}});
    rt.services.setHotkeyTriggerMode(*mode);
    std::cout << "Trigger mode set to " << hotkey::rawValue(*mode) << ": " << describeMode(*mode)
              << " (a running `tamsel run` takes it up when it starts again)" << std::endl;
    return kExitOK;
  }
  const auto mode = rt.services.hotkeyTriggerMode();
  std::cout << hotkey::rawValue(mode) << ": " << describeMode(mode) << std::endl;
  return kExitOK;
}

void startSummonHotkey(app::DesktopServices& services, bool asJSON) {
  const auto status = services.startSummonHotkey();
  switch (status.kind) {
    case app::HotkeyStatus::Kind::watching:
      (asJSON ? std::cerr : std::cout) << "Summon hotkey: " << status.text << std::endl;
      break;
    case app::HotkeyStatus::Kind::unavailable:
      printLines(status.text);
      printError("running without the summon hotkey (`tamsel hotkey mode off` switches it off)");
      break;
    case app::HotkeyStatus::Kind::off:
      break;
  }
}

HeadlessSummoner::HeadlessSummoner(const GlobalOptions& options, bool quiet)
    : options_(options), quiet_(quiet) {}

HeadlessSummoner::~HeadlessSummoner() = default;

void HeadlessSummoner::summon(hotkey::OptionSide side) {
  // Machine-read output stays one kind of line: people's news goes to stderr then.
  std::ostream& out = quiet_ ? std::cerr : std::cout;
  const std::string stamp = base::formatLocalTime(base::nowTimestamp(), true);
  out << stamp << "  Summoned by a double tap of the " << hotkey::rawValue(side) << " Alt key";
  if (chat_ && chat_->isRunning()) {
    out << "; the chat it opened is still open (PID " << chat_->pid() << ")" << std::endl;
    return;
  }
  std::optional<fs::path> terminal;
  for (const char* name : {"x-terminal-emulator", "xterm"})
    if ((terminal = onPath(name))) break;
  if (!terminal) {
    out << "; no terminal emulator to open `tamsel chat` in (x-terminal-emulator, xterm)"
        << std::endl;
    return;
  }
  platform::LaunchOptions launch;
  launch.executable = *terminal;
  launch.arguments = {"-e",
                      (platform::executableDirectory() / "tamsel").string(),
                      "--engine-port",
                      std::to_string(options_.enginePort),
                      "--engine-home",
                      options_.engineHome.string(),
                      "chat"};
  launch.environment = platform::currentEnvironment();
  try {
    chat_ = platform::Process::launch(launch);
    out << ": `tamsel chat` opened in " << terminal->filename().string() << " (PID " << chat_->pid()
        << ")" << std::endl;
  } catch (const std::exception& e) {
    out << "; " << terminal->string() << " could not be started: " << e.what() << std::endl;
  }
}

}  // namespace tamsel::cli
