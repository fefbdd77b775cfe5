// tamsel: the command-line desktop client.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>

#include "cli.hpp"
#include "command_docs.hpp"
#include "input_checks.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/version.hpp"

namespace {

namespace cli = tamsel::cli;
namespace base = tamsel::base;

std::vector<std::string> splitWords(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// A CLI11 check from one of our own: an empty text means the value is fine.
CLI::Validator checkedBy(std::string (*problem)(const std::string&), std::string name) {
  return CLI::Validator([problem](std::string& value) { return problem(value); }, std::move(name));
}

CLI::Validator calendarBoundCheck(bool isEnd) {
  return CLI::Validator(
      [isEnd](std::string& value) {
        try {
          value = cli::calendarBound(value, isEnd);
          return std::string();
        } catch (const std::invalid_argument& e) {
          return std::string(e.what());
        }
      },
      "");
}

// The command a mistyped word was meant to be. Walks the words of the line the way the parser
// does: option values are skipped, known commands descended into.
std::optional<std::string> unknownCommandMessage(CLI::App& app, int argc, char** argv) {
  CLI::App* at = &app;
  std::string path = "tamsel";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") return std::nullopt;
    if (arg.size() > 1 && arg[0] == '-') {
      if (arg.find('=') != std::string::npos) continue;
      for (CLI::App* a = at; a; a = a->get_parent()) {
        if (const auto* option = a->get_option_no_throw(arg)) {
          if (option->get_items_expected_min() > 0) ++i;
          break;
        }
      }
      continue;
    }
    const auto subcommands = at->get_subcommands([](CLI::App*) { return true; });
    if (subcommands.empty()) return std::nullopt;  // a value, not a command
    std::vector<std::string> names;
    CLI::App* next = nullptr;
    for (auto* sub : subcommands) {
      if (sub->get_group().empty()) continue;  // hidden
      names.push_back(sub->get_name());
      if (sub->check_name(arg)) next = sub;
    }
    if (!next) {
      std::string message = "unknown command '" + arg + "' for '" + path + "'";
      if (auto near = cli::closestName(arg, names))
        message += "\nDid you mean '" + path + " " + *near + "'?";
      return message;
    }
    at = next;
    path += " " + arg;
  }
  return std::nullopt;
}

// A parse error: what is wrong, where to read more, and exit code 2.
int usageError(CLI::App& app, int argc, char** argv, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) return app.exit(error);
  std::string where = "tamsel";
  for (auto* sub = &app; !sub->get_subcommands().empty();) {
    sub = sub->get_subcommands().front();
    where += " " + sub->get_name();
  }
  if (auto unknown = unknownCommandMessage(app, argc, argv)) {
    cli::printError(*unknown);
  } else {
    cli::printError(error.what());
  }
  std::cerr << "Run '" << where << " --help' for its options." << std::endl;
  return cli::kExitUsage;
}

// Every command's help ends with one example and the options that work on any command.
void describeCommands(CLI::App& app, const std::map<std::string, std::string>& examples) {
  std::string globals = "Global options (anywhere on the line):\n";
  for (const auto* option : app.get_options()) {
    if (option->get_lnames().empty() || option->get_group().empty()) continue;
    if (option->get_lnames().front() == "help" || option->get_lnames().front() == "version")
      continue;
    std::string name = "--" + option->get_lnames().front();
    if (option->get_items_expected_min() > 0) name += " " + option->get_type_name();
    globals += "  " + name + std::string(name.size() < 28 ? 28 - name.size() : 1, ' ') +
               option->get_description() + "\n";
  }
  std::function<void(CLI::App*, const std::string&)> visit = [&](CLI::App* command,
                                                                 const std::string& path) {
    std::string footer;
    if (auto it = examples.find(path); it != examples.end())
      footer += "Example:\n  " + it->second + "\n\n";
    footer += globals;
    footer += "Exit codes: 0 success, 1 failure, 2 usage error, 3 engine not available.";
    command->footer(footer);
    for (auto* sub : command->get_subcommands([](CLI::App*) { return true; }))
      visit(sub, path.empty() ? sub->get_name() : path + " " + sub->get_name());
  };
  visit(&app, "");
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tamsel;
  // A closed pipe on our output is reported by write errors, not by dying.
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app{"Tamsel Desktop: supervise and talk to the local agent engine", "tamsel"};
  app.set_version_flag("--version",
                       std::string("tamsel ") + std::string(tamsel::base::appVersion()));
  app.require_subcommand(1);
  // Global options work after the command too (subcommands inherit this).
  app.fallthrough();

  cli::GlobalOptions options;
  options.engineHome = std::filesystem::path(base::env::homeDirectory()) / ".verdane";
  std::string engineArgs = "daemon --port {port}";
  std::string enginePort = std::to_string(options.enginePort);
  app.add_option("--engine-port", enginePort, "Engine HTTP port on 127.0.0.1")
      ->envname("TAMSEL_ENGINE_PORT")
      ->check(checkedBy(&cli::portProblem, ""))
      ->type_name("PORT")
      ->capture_default_str();
  app.add_option("--engine-home", options.engineHome, "The engine's home folder (session files)")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--engine-args", engineArgs,
                 "The engine's daemon-mode arguments; {port} becomes the port")
      ->type_name("ARGS")
      ->envname("TAMSEL_ENGINE_ARGS")
      ->capture_default_str();

  std::string axServerBundle;
  app.add_option("--ax-server-bundle", axServerBundle,
                 "Accessibility-server bundle handed to the engine (TAMSEL_AX_SERVER_BUNDLE_PATH)");

  auto* engine = app.add_subcommand("engine", "Start, inspect or stop the engine");
  engine->require_subcommand(1);
  auto* engineStart = engine->add_subcommand("start", "Start the engine, or reuse a running one");
  auto* engineStatus = engine->add_subcommand("status", "Show the engine's state; starts nothing");
  bool statusJSON = false;
  engineStatus->add_flag("--json", statusJSON, "Print one JSON object");
  auto* engineStop = engine->add_subcommand("stop", "Ask the engine to shut down");

  auto* run = app.add_subcommand("run", "Run headless: supervise the engine until interrupted");
  bool runJSON = false;
  run->add_flag("--json", runJSON, "Print each state change as one JSON object per line");

  auto* agents = app.add_subcommand("agents", "List the engine's agents");
  bool agentsJSON = false;
  agents->add_flag("--json", agentsJSON, "Print JSON");

  auto* sessions = app.add_subcommand("sessions", "List chat sessions");
  bool sessionsJSON = false;
  std::optional<std::string> sessionsAgent;
  sessions->add_option("--agent", sessionsAgent, "Only this agent's sessions");
  sessions->add_flag("--json", sessionsJSON, "Print JSON");

  auto* chat = app.add_subcommand("chat", "Send a message and watch the reply");
  cli::ChatOptions chatOptions;
  std::string approve;
  std::optional<std::string> message;
  auto* messageOption = chat->add_option(
      "-m,--message", message,
      "The message; '-' reads it from standard input (without it: an interactive chat, or the "
      "piped input when standard input is not a terminal)");
  chat->add_option("-f,--file", chatOptions.messageFile, "Read the message from this file")
      ->excludes(messageOption)
      ->check(CLI::ExistingFile)
      ->type_name("FILE");
  chat->add_option("--agent", chatOptions.agent, "The agent to talk to");
  auto* sessionOption = chat->add_option("--session", chatOptions.sessionID,
                                         "Continue this session (default: a new one)");
  chat->add_flag("-c,--continue", chatOptions.continueLatest,
                 "Continue the most recently updated session (of --agent, if given)")
      ->excludes(sessionOption);
  chat->add_flag("--json", chatOptions.asJSON, "One JSON object per reply event");
  auto* approveOption = chat->add_option("--approve", approve, "Answer approvals without asking")
                            ->check(CLI::IsMember({"once", "session", "always"}));
  chat->add_flag("--deny", chatOptions.deny, "Deny approvals and decline questions without asking")
      ->excludes(approveOption);
  auto* answerOption = chat->add_option(
      "--answer", chatOptions.answers,
      "Answer the reply's questions in order: an option's number or label, or your own text "
      "(repeat for several questions)");
  chat->add_flag("--decline-questions", chatOptions.declineQuestions,
                 "Decline the reply's questions without asking")
      ->excludes(answerOption);

  auto* eventsCommand =
      app.add_subcommand("events", "Follow the engine's event stream (survives engine restarts)");
  bool eventsJSON = false;
  eventsCommand->add_flag("--json", eventsJSON, "One JSON object per event");

  auto* history =
      app.add_subcommand("history", "Show a session's messages from the engine's files");
  std::string historySession;
  std::optional<std::string> historyAgent;
  bool historyJSON = false;
  history->add_option("session", historySession, "The session id")->required();
  history->add_option("--agent", historyAgent, "The agent the session belongs to");
  history->add_flag("--json", historyJSON, "Print a JSON array of the displayed messages");

  cli::CalendarCommandOptions calendarOptions;
  auto* calendarCmd =
      app.add_subcommand("calendar", "The desktop's calendars and the engine's access to them");
  calendarCmd->require_subcommand(1);
  auto* calPermission =
      calendarCmd->add_subcommand("permission", "Show, grant or deny the engine's calendar access");
  calPermission->add_option("action", calendarOptions.permissionAction, "status, grant or deny")
      ->check(CLI::IsMember({"status", "grant", "deny"}));
  calPermission->add_flag("--json", calendarOptions.asJSON, "Print JSON");
  auto* calSources = calendarCmd->add_subcommand("sources", "List calendars");
  calSources->add_flag("--json", calendarOptions.asJSON, "Print JSON");
  auto* calEvents =
      calendarCmd->add_subcommand("events", "List events between two times or over whole days");
  calEvents
      ->add_option("--from", calendarOptions.from,
                   "Start: a time with offset (2026-03-01T09:00:00+01:00) or a date (its start)")
      ->required()
      ->transform(calendarBoundCheck(false))
      ->type_name("TIME");
  calEvents->add_option("--to", calendarOptions.to, "End: a time with offset, or a date (its end)")
      ->required()
      ->transform(calendarBoundCheck(true))
      ->type_name("TIME");
  calEvents->add_option("--calendar", calendarOptions.calendarIDs, "Only these calendar ids");
  calEvents->add_option("--query", calendarOptions.query, "Text in title, location or notes");
  calEvents->add_option("--limit", calendarOptions.limit, "At most this many events")
      ->capture_default_str();
  calEvents->add_flag("--json", calendarOptions.asJSON, "Print JSON");
  auto* calAddLocal = calendarCmd->add_subcommand("add-local", "Add a calendar on this computer");
  calAddLocal->add_option("name", calendarOptions.name, "Folder name")->required();
  calAddLocal->add_option("--title", calendarOptions.title, "Display name");
  calAddLocal->add_option("--color", calendarOptions.color, "Colour, #RRGGBB")
      ->check(checkedBy(&cli::colourProblem, ""))
      ->type_name("#RRGGBB");
  calAddLocal->add_flag("--default", calendarOptions.makeDefault, "New events go here");
  auto* calAddCalDAV = calendarCmd->add_subcommand(
      "add-caldav", "Add a CalDAV account (its calendars are found on the server)");
  calAddCalDAV
      ->add_option("url", calendarOptions.url,
                   "The server's URL, e.g. https://cal.example.org/ or http://127.0.0.1:5232/")
      ->required();
  calAddCalDAV->add_option("--user", calendarOptions.user, "User name");
  calAddCalDAV->add_option("--password-env", calendarOptions.passwordEnv,
                           "Name of the environment variable holding the password");

  cli::MeetingRecordOptions meetingOptions;
  auto* meetingCmd = app.add_subcommand("meeting", "Record meetings as two audio tracks");
  meetingCmd->require_subcommand(1);
  auto* meetingRecord = meetingCmd->add_subcommand(
      "record", "Record the microphone and the system audio until the duration or Ctrl-C");
  meetingRecord->add_option("--duration", meetingOptions.duration, "Stop after this many seconds")
      ->check(CLI::PositiveNumber);
  meetingRecord->add_option("--dir", meetingOptions.dir,
                            "Record into this folder (default: a new one under meetings/)");
  meetingRecord->add_flag("--no-system", meetingOptions.noSystem, "Record the microphone alone");
  meetingRecord->add_option("--mic", meetingOptions.mic,
                            "Record this source instead of the default input");
  meetingRecord->add_flag("--json", meetingOptions.asJSON, "One JSON object per track at the end");
  meetingRecord->add_flag("--no-seal", meetingOptions.noSeal,
                          "Keep the raw tracks only; seal later with `tamsel meeting seal`");
  std::filesystem::path sealFolder;
  bool sealJSON = false;
  auto* meetingSeal = meetingCmd->add_subcommand(
      "seal",
      "Seal a recorded meeting into one stereo M4A (mic left, system right) and a manifest");
  meetingSeal->add_option("DIR", sealFolder, "The meeting folder")->required();
  meetingSeal->add_flag("--json", sealJSON, "Print the result as JSON");
  // For the window, which seals through this command: it holds the folder's recording lock
  // (its recording has stopped) and waits for the seal. Not for people, so not in the help.
  bool sealHandedOver = false;
  meetingSeal->add_flag("--handed-over", sealHandedOver)->group("");
  auto* meetingDevices =
      meetingCmd->add_subcommand("devices", "List the audio sources and sinks, defaults marked");
  bool devicesJSON = false;
  meetingDevices->add_flag("--json", devicesJSON, "Print JSON");
  cli::MeetingWatchOptions watchOptions;
  auto* meetingWatch = meetingCmd->add_subcommand(
      "watch", "Propose (or with --auto start) a recording when a meeting application starts");
  meetingWatch->add_flag("--auto", watchOptions.autoStart,
                         "Record detected meetings without asking");
  meetingWatch
      ->add_option("--grace", watchOptions.graceSeconds,
                   "Seconds a detected meeting's application may be gone before the recording "
                   "stops (default 15)")
      ->check(checkedBy(&cli::graceSecondsProblem, ""))
      ->type_name("SECONDS");
  meetingWatch->add_flag("--json", watchOptions.asJSON, "One JSON object per event");
  auto* meetingJobs =
      meetingCmd->add_subcommand("jobs", "List the recorded meetings' jobs with their folders");
  bool jobsJSON = false;
  meetingJobs->add_flag("--json", jobsJSON, "Print JSON");
  auto* meetingAuto = meetingCmd->add_subcommand(
      "auto-record", "Show or set whether detected meetings are recorded without asking");
  std::optional<std::string> autoSetting;
  meetingAuto->add_option("setting", autoSetting, "on or off")->check(CLI::IsMember({"on", "off"}));

  cli::HotkeyWatchOptions hotkeyWatchOptions;
  auto* hotkeyCmd =
      app.add_subcommand("hotkey", "The Alt double tap that summons Tamsel from any application");
  hotkeyCmd->require_subcommand(1);
  auto* hotkeyWatch = hotkeyCmd->add_subcommand(
      "watch", "Print a line for each double tap of the Alt key until interrupted");
  hotkeyWatch
      ->add_option("--side", hotkeyWatchOptions.side,
                   "Which Alt key counts (default: the trigger mode's side, else either)")
      ->check(CLI::IsMember({"left", "right", "either"}));
  hotkeyWatch
      ->add_option("--backend", hotkeyWatchOptions.backend,
                   "Where keys come from: auto, x11 (XInput2) or evdev (/dev/input)")
      ->check(CLI::IsMember({"auto", "x11", "evdev"}))
      ->capture_default_str();
  hotkeyWatch->add_flag("--json", hotkeyWatchOptions.asJSON, "One JSON object per double tap");
  auto* hotkeyModeCmd =
      hotkeyCmd->add_subcommand("mode", "Show or set the trigger that `tamsel run` watches for");
  std::optional<std::string> hotkeyModeValue;
  hotkeyModeCmd->add_option("mode", hotkeyModeValue, "doubleTapLeft, doubleTapRight, custom or off")
      ->check(CLI::IsMember({"doubleTapLeft", "doubleTapRight", "custom", "off"}));

  // Generated from this command tree, so they never drift from it; hidden from the listing.
  auto* completion =
      app.add_subcommand("completion", "Print a shell completion script (bash or zsh)")->group("");
  std::string completionShell;
  completion->add_option("shell", completionShell, "bash or zsh")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh"}));
  auto* manPage = app.add_subcommand("man", "Print the manual page (roff)")->group("");

  describeCommands(
      app, {
               {"", "tamsel chat -m \"What is on my calendar today?\""},
               {"engine", "tamsel engine status --json"},
               {"engine start", "tamsel --engine-port 7600 engine start"},
               {"engine status", "tamsel engine status --json"},
               {"engine stop", "tamsel engine stop"},
               {"run", "VERD_BINARY=/opt/verd/bin/verd tamsel run --json"},
               {"agents", "tamsel agents --json"},
               {"sessions", "tamsel sessions --agent researcher"},
               {"chat", "git diff | tamsel chat --json --deny -m - > reply.jsonl"},
               {"events", "tamsel events --json"},
               {"history", "tamsel history 4F1C9E52-0B7A-4D8E-9C1F-2A3B4C5D6E7F"},
               {"calendar", "tamsel calendar events --from 2026-03-01 --to 2026-03-07"},
               {"calendar permission", "tamsel calendar permission grant"},
               {"calendar sources", "tamsel calendar sources --json"},
               {"calendar events", "tamsel calendar events --from 2026-03-01 --to 2026-03-01"},
               {"calendar add-local", "tamsel calendar add-local work --color #3A7BD5"},
               {"calendar add-caldav",
                "CAL_PW=secret tamsel calendar add-caldav https://cal.example.org/ --user me "
                "--password-env CAL_PW"},
               {"completion",
                "tamsel completion bash > ~/.local/share/bash-completion/completions/tamsel"},
               {"man", "tamsel man > tamsel.1"},
               {"meeting", "tamsel meeting record --duration 60"},
               {"meeting record", "tamsel meeting record --duration 600 --json"},
               {"meeting devices", "tamsel meeting devices --json"},
               {"meeting seal", "tamsel meeting seal ./2026-01-05T09-00-00Z --json"},
               {"meeting watch", "tamsel meeting watch --auto"},
               {"meeting jobs", "tamsel meeting jobs --json"},
               {"meeting auto-record", "tamsel meeting auto-record on"},
               {"hotkey", "tamsel hotkey watch --side left"},
               {"hotkey watch", "tamsel hotkey watch --side either --json"},
               {"hotkey mode", "tamsel hotkey mode doubleTapRight"},
           });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return usageError(app, argc, argv, e);
  }
  if (*completion) {
    std::cout << cli::completionScript(app, completionShell);
    return cli::kExitOK;
  }
  if (*manPage) {
    std::cout << cli::manualPage(app, std::string(tamsel::base::projectVersion()));
    return cli::kExitOK;
  }
  options.enginePort = static_cast<std::uint16_t>(std::stoi(enginePort));
  options.engineArguments = splitWords(engineArgs);
  if (!axServerBundle.empty()) options.axServerBundle = axServerBundle;

  try {
    if (*engineStart) return cli::engineStart(options);
    if (*engineStatus) return cli::engineStatus(options, statusJSON);
    if (*engineStop) return cli::engineStop(options);
    if (*run) return cli::runHeadless(options, runJSON);
    if (*agents) return cli::listAgents(options, agentsJSON);
    if (*sessions) return cli::listSessions(options, sessionsAgent, sessionsJSON);
    if (*eventsCommand) return cli::followEvents(options, eventsJSON);
    if (*history) return cli::showHistory(options, historySession, historyAgent, historyJSON);
    if (*meetingRecord) return cli::meetingRecord(options, meetingOptions);
    if (*meetingDevices) return cli::meetingDevices(options, devicesJSON);
    if (*meetingSeal) return cli::meetingSeal(options, sealFolder, sealJSON, sealHandedOver);
    if (*meetingWatch) return cli::meetingWatch(options, watchOptions);
    if (*meetingJobs) return cli::meetingJobs(options, jobsJSON);
    if (*meetingAuto) return cli::meetingAutoRecord(options, autoSetting);
    if (*hotkeyWatch) return cli::hotkeyWatch(options, hotkeyWatchOptions);
    if (*hotkeyModeCmd) return cli::hotkeyMode(options, hotkeyModeValue);
    if (*calendarCmd) {
      for (auto* sub : calendarCmd->get_subcommands()) calendarOptions.action = sub->get_name();
      return cli::calendarCommand(options, calendarOptions);
    }
    if (*chat) {
      if (!approve.empty()) chatOptions.autoApprove = approve;
      if (message && *message == "-")
        chatOptions.messageFile = "-";
      else if (message)
        chatOptions.message = *message;
      else if (!chatOptions.messageFile && ::isatty(STDIN_FILENO) != 1)
        chatOptions.messageFile = "-";  // piped input is the message
      if (!message && !chatOptions.messageFile) {
        if (chatOptions.continueLatest)
          chatOptions.sessionID = cli::latestSessionID(options, chatOptions.agent);
        return cli::chatInteractive(options, chatOptions.agent, chatOptions.sessionID);
      }
      return cli::chatOnce(options, chatOptions);
    }
  } catch (const base::Error& e) {
    cli::printError(e.what());
    const int code = cli::exitCodeFor(e);
    if (code == cli::kExitEngineUnavailable && e.category() != cli::CommandError::category)
      cli::printError("no engine answers on port " + std::to_string(options.enginePort) +
                      "; `tamsel engine status` shows its state");
    return code;
  } catch (const std::exception& e) {
    cli::printError(e.what());
    return cli::kExitFailure;
  }
  return cli::kExitUsage;
}
