// tamsel: the command-line desktop client.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "cli.hpp"
#include "tamsel/base/env.hpp"

namespace {

std::vector<std::string> splitWords(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tamsel;
  // A closed pipe on our output is reported by write errors, not by dying.
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app{"Tamsel Desktop: supervise and talk to the local agent engine"};
  app.set_version_flag("--version", std::string("tamsel ") + TAMSEL_VERSION);
  app.require_subcommand(1);

  cli::GlobalOptions options;
  options.engineHome = std::filesystem::path(base::env::homeDirectory()) / ".verdane";
  std::string engineArgs = "daemon --port {port}";
  app.add_option("--engine-port", options.enginePort, "Engine HTTP port on 127.0.0.1")
      ->envname("TAMSEL_ENGINE_PORT")
      ->capture_default_str();
  app.add_option("--engine-home", options.engineHome, "The engine's home folder (session files)")
      ->capture_default_str();
  app.add_option("--engine-args", engineArgs,
                 "The engine's daemon-mode arguments; {port} becomes the port")
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
  chat->add_option("-m,--message", chatOptions.message,
                   "The message (without it: an interactive chat)");
  chat->add_option("--agent", chatOptions.agent, "The agent to talk to");
  chat->add_option("--session", chatOptions.sessionID,
                   "Continue this session (default: a new one)");
  chat->add_flag("--json", chatOptions.asJSON, "One JSON object per reply event");
  auto* approveOption = chat->add_option("--approve", approve, "Answer approvals without asking")
                            ->check(CLI::IsMember({"once", "session", "always"}));
  chat->add_flag("--deny", chatOptions.deny, "Deny approvals without asking")
      ->excludes(approveOption);

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
      calendarCmd->add_subcommand("events", "List events between two times (RFC 3339 with offset)");
  calEvents->add_option("--from", calendarOptions.from, "Start, e.g. 2026-03-01T00:00:00+01:00")
      ->required();
  calEvents->add_option("--to", calendarOptions.to, "End")->required();
  calEvents->add_option("--calendar", calendarOptions.calendarIDs, "Only these calendar ids");
  calEvents->add_option("--query", calendarOptions.query, "Text in title, location or notes");
  calEvents->add_option("--limit", calendarOptions.limit, "At most this many events")
      ->capture_default_str();
  calEvents->add_flag("--json", calendarOptions.asJSON, "Print JSON");
  auto* calAddLocal = calendarCmd->add_subcommand("add-local", "Add a calendar on this computer");
  calAddLocal->add_option("name", calendarOptions.name, "Folder name")->required();
  calAddLocal->add_option("--title", calendarOptions.title, "Display name");
  calAddLocal->add_option("--color", calendarOptions.color, "Colour, #RRGGBB");
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
  auto* meetingDevices =
      meetingCmd->add_subcommand("devices", "List the audio sources and sinks, defaults marked");
  bool devicesJSON = false;
  meetingDevices->add_flag("--json", devicesJSON, "Print JSON");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
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
    if (*calendarCmd) {
      for (auto* sub : calendarCmd->get_subcommands()) calendarOptions.action = sub->get_name();
      return cli::calendarCommand(options, calendarOptions);
    }
    if (*chat) {
      if (chatOptions.message.empty())
        return cli::chatInteractive(options, chatOptions.agent, chatOptions.sessionID);
      if (!approve.empty()) chatOptions.autoApprove = approve;
      return cli::chatOnce(options, chatOptions);
    }
  } catch (const std::exception& e) {
    cli::printError(e.what());
    return cli::kExitFailure;
  }
  return cli::kExitUsage;
}
