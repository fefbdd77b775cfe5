#pragma once
// Shared pieces of the command-line front end. Commands run on the main thread's io_context,
// which is the main executor of the core's controllers.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tamsel/base/error.hpp"
#include "tamsel/desktop/daemon_manager.hpp"
#include "tamsel/hotkey/double_tap.hpp"

namespace tamsel::platform {
class Process;
}
namespace tamsel::app {
class DesktopServices;
}

namespace tamsel::cli {

struct GlobalOptions {
  std::uint16_t enginePort = 7533;
  std::filesystem::path engineHome;          // the engine's home for session files
  std::vector<std::string> engineArguments;  // daemon-mode arguments; "{port}" is replaced
  std::optional<std::filesystem::path> axServerBundle;
};

// Exit codes, the same for every command (the README lists them).
inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
// The engine is not available: not found, not started, or not answering.
inline constexpr int kExitEngineUnavailable = 3;
inline constexpr int kExitNotRunning = kExitEngineUnavailable;
inline constexpr int kExitInterrupted = 130;

// Failures of a command itself, thrown to main(), which picks the exit code from the case.
struct CommandError {
  static constexpr std::string_view category = "command";
  struct EngineUnavailable {
    std::string message;
  };
  struct Usage {
    std::string message;
  };
  std::variant<EngineUnavailable, Usage> value;
  std::string description() const {
    return std::visit([](const auto& c) { return c.message; }, value);
  }
  std::string code() const { return base::caseName(value, {"engine_unavailable", "usage"}); }
};
using CommandException = base::ErrorOf<CommandError>;

// The exit code for an error that ended a command: decided on its family and case.
int exitCodeFor(const base::Error& error);

int engineStart(const GlobalOptions& options);
int engineStatus(const GlobalOptions& options, bool asJSON);
int engineStop(const GlobalOptions& options);
int runHeadless(const GlobalOptions& options, bool asJSON);
int followEvents(const GlobalOptions& options, bool asJSON);
int listAgents(const GlobalOptions& options, bool asJSON);
int listSessions(const GlobalOptions& options, const std::optional<std::string>& agent,
                 bool asJSON);

struct ChatOptions {
  std::string message;
  // Where the message comes from when not on the command line: "-" is standard input.
  std::optional<std::string> messageFile;
  bool continueLatest = false;  // --continue: the most recently updated session
  std::optional<std::string> agent;
  std::optional<std::string> sessionID;
  bool asJSON = false;
  std::optional<std::string> autoApprove;  // "once", "session" or "always"
  bool deny = false;                       // denies approvals and declines questions
  // Answers to the questions of the reply, in order: an option's number or label, or free text.
  std::vector<std::string> answers;
  bool declineQuestions = false;
};
int chatOnce(const GlobalOptions& options, const ChatOptions& chat);
// The most recently updated session (of `agent`, when given), for --continue; starts the engine
// like every command that needs it, and throws when there is no session to continue.
std::string latestSessionID(const GlobalOptions& options, const std::optional<std::string>& agent);
int chatInteractive(const GlobalOptions& options, const std::optional<std::string>& agent,
                    const std::optional<std::string>& sessionID);

int showHistory(const GlobalOptions& options, const std::string& sessionID,
                const std::optional<std::string>& agent, bool asJSON);

// `tamsel calendar ...`: the desktop's own calendars and the engine's grant to them.
struct CalendarCommandOptions {
  std::string action;  // "permission", "sources", "events", "add-local", "add-caldav"
  std::string permissionAction = "status";  // "status", "grant", "deny"
  bool asJSON = false;
  std::string from, to;
  std::vector<std::string> calendarIDs;
  std::optional<std::string> query;
  std::int64_t limit = 500;
  std::string name, title, color;
  bool makeDefault = false;
  std::string url, user,
      passwordEnv;  // add-caldav; the password only ever comes from the environment
};
int calendarCommand(const GlobalOptions& options, const CalendarCommandOptions& calendar);

// `tamsel meeting record`: two raw tracks into a meeting folder until the duration or Ctrl-C.
struct MeetingRecordOptions {
  std::optional<double> duration;  // seconds
  std::optional<std::filesystem::path> dir;
  bool noSystem = false;
  std::optional<std::string> mic;  // a source name instead of the default
  bool asJSON = false;
  bool noSeal = false;  // leave the raw tracks unsealed
};
int meetingRecord(const GlobalOptions& options, const MeetingRecordOptions& meeting);
int meetingDevices(const GlobalOptions& options, bool asJSON);
// `tamsel meeting watch`: the automatic lifecycle until interrupted.
struct MeetingWatchOptions {
  bool autoStart = false;
  double graceSeconds = 15;
  bool asJSON = false;
};
int meetingWatch(const GlobalOptions& options, const MeetingWatchOptions& watch);
// `tamsel meeting jobs`: every meeting's job record.
int meetingJobs(const GlobalOptions& options, bool asJSON);
// `tamsel meeting auto-record [on|off]`: the preference to record detected meetings at once.
int meetingAutoRecord(const GlobalOptions& options, const std::optional<std::string>& setting);

// `tamsel hotkey watch`: one line per double tap until interrupted.
struct HotkeyWatchOptions {
  std::optional<std::string> side;  // left, right, either; default: the trigger mode's
  std::string backend = "auto";     // auto, x11, evdev
  bool asJSON = false;
};
int hotkeyWatch(const GlobalOptions& options, const HotkeyWatchOptions& watch);
// `tamsel hotkey mode [MODE]`: shows or sets the trigger mode.
int hotkeyMode(const GlobalOptions& options, const std::optional<std::string>& mode);

// What a double tap does in the headless front end: it opens `tamsel chat` in a new terminal
// window (x-terminal-emulator, else xterm), once at a time, and says so; the desktop window
// raises itself instead. `quiet`: machine-read stdout, the lines go to stderr.
class HeadlessSummoner {
 public:
  HeadlessSummoner(const GlobalOptions& options, bool quiet);
  ~HeadlessSummoner();
  void summon(hotkey::OptionSide side);

 private:
  GlobalOptions options_;
  bool quiet_;
  std::unique_ptr<platform::Process> chat_;
};

// `tamsel run`'s hotkey: started as the trigger mode asks, and said so (on stderr when `asJSON`);
// when no backend can see keys, why, and the run goes on without it.
void startSummonHotkey(app::DesktopServices& services, bool asJSON);
// `tamsel meeting seal DIR`: the folder's raw tracks into combined.m4a and manifest.json.
// `handedOver`: the caller holds the folder's recording lock, its recording stopped, and waits.
int meetingSeal(const GlobalOptions& options, const std::filesystem::path& folder, bool asJSON,
                bool handedOver = false);
// Seals with a progress bar on a terminal and prints the result; the exit code.
int sealMeetingFolder(const std::filesystem::path& folder, bool asJSON);

// Every command that needs the engine starts it the way `engine start` does, saying so on
// stderr when it launched one; throws CommandException(EngineUnavailable) when it does not
// reach running. (The result is always true; it stays a bool for existing callers.)
bool ensureEngine(const GlobalOptions& options);

// Prints an error the way every command does: "tamsel: <text>" on stderr.
void printError(const std::string& text);

}  // namespace tamsel::cli
