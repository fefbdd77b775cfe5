// tamsel agents, tamsel sessions.
#include <iomanip>
#include <iostream>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/daemon_client.hpp"
#include "tamsel/bridge/daemon_client_error.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;

namespace {

// Runs one engine call; a transport failure gets a hint, since it usually means no engine.
template <class T>
std::optional<T> callEngine(Runtime& rt, asio::awaitable<T> work) {
  try {
    return rt.runToEnd(std::move(work));
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
  std::cout << std::left << std::setw(20) << "NAME" << std::setw(28) << "DISPLAY NAME"
            << std::setw(9) << "BUILTIN" << std::setw(8) << "SKILLS"
            << "COMMANDS\n";
  for (const auto& agent : *agents) {
    std::cout << std::left << std::setw(20) << agent.name << std::setw(28)
              << cell(agent.displayName) << std::setw(9)
              << (agent.builtin.value_or(false) ? "yes" : "no") << std::setw(8)
              << agent.skillCount.value_or(0) << agent.commandCount.value_or(0) << "\n";
  }
  std::cout << std::flush;
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
  std::cout << std::left << std::setw(38) << "ID" << std::setw(22) << "UPDATED" << std::setw(6)
            << "MSGS" << std::setw(14) << "AGENT"
            << "TITLE\n";
  for (const auto& s : *sessions) {
    const std::string updated = s.updatedAt ? base::formatISO8601(*s.updatedAt).substr(0, 19) : "-";
    std::cout << std::left << std::setw(38) << s.id << std::setw(22) << updated << std::setw(6)
              << s.msgCount.value_or(0) << std::setw(14) << cell(s.agent) << cell(s.title) << "\n";
  }
  std::cout << std::flush;
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
