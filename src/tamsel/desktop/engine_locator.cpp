#include "tamsel/desktop/engine_locator.hpp"

#include <system_error>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/platform/child_process.hpp"

namespace tamsel::desktop {

namespace fs = std::filesystem;

namespace {
// Calls `visit` with each path in search order until it returns true; `which` runs only when
// every earlier path was passed over.
bool eachCandidate(const EngineLocator::Inputs& in,
                   const std::function<bool(const fs::path&)>& visit) {
  if (in.verdBinary && !in.verdBinary->empty() && visit(*in.verdBinary)) return true;
  if (!in.executableDirectory.empty() &&
      visit((in.executableDirectory / ".." / "libexec" / "tamsel" / "verd").lexically_normal()))
    return true;
  for (const fs::path& candidate :
       {fs::path("/opt/homebrew/bin/verd"), fs::path("/usr/local/bin/verd"),
        in.homeDirectory / ".local/bin/verd"}) {
    if (visit(candidate)) return true;
  }
  std::error_code ec;
  for (fs::directory_iterator it(in.homeDirectory / ".nvm/versions/node", ec), end;
       !ec && it != end; it.increment(ec)) {
    if (visit(it->path() / "bin" / "verd")) return true;
  }
  if (in.which) {
    if (auto output = in.which()) {
      const auto trimmed = base::trim(*output);
      if (!trimmed.empty() && visit(fs::path(std::string(trimmed)))) return true;
    }
  }
  return false;
}
}  // namespace

std::optional<fs::path> EngineLocator::locate(const Inputs& in) {
  std::optional<fs::path> found;
  eachCandidate(in, [&](const fs::path& candidate) {
    if (!in.isExecutable(candidate)) return false;
    found = candidate;
    return true;
  });
  return found;
}

std::vector<fs::path> EngineLocator::candidates(const Inputs& in) {
  std::vector<fs::path> out;
  eachCandidate(in, [&](const fs::path& candidate) {
    out.push_back(candidate);
    return false;
  });
  return out;
}

EngineLocator::Inputs EngineLocator::forThisProcess(const base::env::Environment& environment) {
  Inputs in;
  in.verdBinary = environment.verdBinary;
  in.executableDirectory = platform::executableDirectory();
  in.homeDirectory = environment.home;
  in.which = []() -> std::optional<std::string> {
    if (!platform::isExecutableFile("/usr/bin/which")) return std::nullopt;
    try {
      auto result = platform::runToCompletion("/usr/bin/which", {"verd"}, true, 5);
      if (result.status.signaled || result.status.code != 0) return std::nullopt;
      return result.output;
    } catch (const std::exception&) {
      return std::nullopt;
    }
  };
  in.isExecutable = [](const fs::path& p) { return platform::isExecutableFile(p); };
  return in;
}

std::optional<std::string> EngineLocator::bundledVersion(const fs::path& engine) {
  std::string text;
  if (!base::readFile(engine.parent_path() / "VERSION", text)) return std::nullopt;
  auto trimmed = base::trim(text);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

}  // namespace tamsel::desktop
