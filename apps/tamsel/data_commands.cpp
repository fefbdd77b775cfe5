// tamsel agents, tamsel sessions.
#include <iostream>

#include "cli.hpp"
#include "runtime.hpp"
#include "table.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"
#include "tamsel/bridge/http_transport.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;

namespace {

// Runs one engine call; a transport failure gets a hint, since it usually means no engine.
template <class T>
std::optional<T> callEngine(Runtime& rt, asio::awaitable<T> work) {
  try {
    return rt.runToEnd(std::move(work));
  } catch (const bridge::ResponseTooLargeError& e) {
    printError(e.what());  // the engine answered: it is there, the answer was refused
  } catch (const bridge::DaemonClientException& e) {
    printError(e.what());
  }
  return std::nullopt;
}

std::string cell(const std::optional<std::string>& text) {
  return text && !text->empty() ? *text : "-";
}

}  // namespace

int listAgents(const GlobalOptions& options, bool asJSON) {
  ensureEngine(options);
  Runtime rt(options);
  auto& client = rt.services.client();
  auto agents = callEngine(rt, client.agents());
  if (!agents) return kExitFailure;
  if (asJSON) {
    std::cout << base::json::serialize(base::json::encode(*agents)) << std::endl;
    return kExitOK;
  }
  if (agents->empty()) {
    std::cout << "No agents." << std::endl;
    return kExitOK;
  }
  Table table{{"NAME", "DISPLAY NAME", "BUILTIN", "SKILLS", "COMMANDS"}, {}, 1};
  for (const auto& agent : *agents)
    table.rows.push_back({agent.name, cell(agent.displayName),
                          agent.builtin.value_or(false) ? "yes" : "no",
                          std::to_string(agent.skillCount.value_or(0)),
                          std::to_string(agent.commandCount.value_or(0))});
  printTable(std::cout, table, terminalWidth());
  return kExitOK;
}

int listSessions(const GlobalOptions& options, const std::optional<std::string>& agent,
                 bool asJSON) {
  ensureEngine(options);
  Runtime rt(options);
  auto& client = rt.services.client();
  bridge::SessionListQuery query;
  query.agent = agent;
  auto sessions = callEngine(rt, client.sessions(query));
  if (!sessions) return kExitFailure;
  if (asJSON) {
    std::cout << base::json::serialize(base::json::encode(*sessions)) << std::endl;
    return kExitOK;
  }
  if (sessions->empty()) {
    std::cout << "No sessions." << std::endl;
    return kExitOK;
  }
  Table table{{"ID", "UPDATED", "MSGS", "AGENT", "TITLE"}, {}, 4};
  for (const auto& s : *sessions)
    table.rows.push_back({s.id, s.updatedAt ? base::formatLocalTime(*s.updatedAt) : "-",
                          std::to_string(s.msgCount.value_or(0)), cell(s.agent), cell(s.title)});
  printTable(std::cout, table, terminalWidth());
  return kExitOK;
}

std::string latestSessionID(const GlobalOptions& options, const std::optional<std::string>& agent) {
  ensureEngine(options);
  Runtime rt(options);
  bridge::SessionListQuery query;
  query.agent = agent;
  auto sessions = callEngine(rt, rt.services.client().sessions(query));
  if (!sessions) throw std::runtime_error("could not list the sessions to continue");
  const bridge::DaemonSession* latest = nullptr;
  for (const auto& s : *sessions)
    if (!latest || s.updatedAt > latest->updatedAt) latest = &s;
  if (!latest)
    throw std::runtime_error("no session to continue" +
                             (agent ? " for agent " + *agent : std::string()) +
                             "; leave out --continue to start one");
  return latest->id;
}

}  // namespace tamsel::cli
