// tamsel history SESSION_ID: a session's displayed messages, read from the engine's files.
#include <iostream>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/dates.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/bridge/session_history.hpp"

namespace tamsel::cli {

namespace {

void indented(const std::string& text) {
  std::size_t start = 0;
  while (start <= text.size()) {
    const auto end = text.find('\n', start);
    std::cout << "  "
              << text.substr(start, end == std::string::npos ? std::string::npos : end - start)
              << "\n";
    if (end == std::string::npos) break;
    start = end + 1;
  }
}

}  // namespace

int showHistory(const GlobalOptions& options, const std::string& sessionID,
                const std::optional<std::string>& agent, bool asJSON) {
  Runtime rt(options);
  const auto& history = rt.services.sessionHistory();
  const auto result = history.loadNow(sessionID, agent, std::nullopt);
  if (!result.found) {
    printError("Session " + sessionID + " not found" +
               (agent ? " for agent " + *agent : std::string()) + " in " +
               options.engineHome.string());
    return kExitFailure;
  }
  if (asJSON) {
    boost::json::array out;
    for (const auto& m : result.messages) out.push_back(bridge::toJSON(m));
    std::cout << base::json::serialize(out) << std::endl;
    return kExitOK;
  }
  std::cout << "Session " << sessionID;
  if (result.title) std::cout << " — " << *result.title;
  std::cout << "\n";
  if (result.messages.empty()) std::cout << "(no messages)\n";
  for (const auto& m : result.messages) {
    std::cout << "\n" << (m.role == "user" ? "You" : "Assistant");
    if (m.timestamp) std::cout << "  " << base::formatLocalTime(*m.timestamp);
    std::cout << "  [" << m.rawIndex;
    if (m.rawIndexEnd != m.rawIndex) std::cout << "–" << m.rawIndexEnd;
    std::cout << "]\n";
    if (m.toolBlock) {
      for (const auto& tool : m.toolBlock->tools) {
        std::cout << "  [tool] " << tool.name;
        if (tool.args) std::cout << ": " << *tool.args;
        std::cout << " (" << kit::name(tool.status) << (tool.isError ? ", error" : "") << ")\n";
        if (tool.preview && !tool.preview->empty())
          std::cout << "         → " << *tool.preview << "\n";
      }
    }
    if (!m.content.empty()) indented(m.content);
    for (const auto& a : m.attachments) {
      std::cout << "  [" << (a.kind == kit::Attachment::Kind::image ? "image" : "file") << "] "
                << a.filename;
      if (a.byteSize) std::cout << " (" << *a.byteSize << " bytes)";
      if (a.filePath) std::cout << " " << *a.filePath;
      std::cout << "\n";
    }
  }
  if (!result.deliverables.empty()) {
    std::cout << "\nDelivered files:\n";
    for (const auto& d : result.deliverables) {
      std::cout << "  " << d.resource.title.value_or(d.resource.id);
      if (d.resource.filePath) std::cout << "  " << *d.resource.filePath;
      std::cout << "\n";
    }
  }
  std::cout << std::flush;
  return kExitOK;
}

}  // namespace tamsel::cli
