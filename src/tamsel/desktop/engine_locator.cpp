#include "tamsel/desktop/engine_locator.hpp"

#include <system_error>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/env.hpp"
#include "tamsel/base/strings.hpp"
#include "tamsel/platform/child_process.hpp"

namespace tamsel::desktop {

namespace fs = std::filesystem;

std::optional<fs::path> EngineLocator::locate(const Inputs& in) {
  auto hit = [&](const fs::path& candidate) { return in.isExecutable(candidate); };
  if (in.verdBinary && !in.verdBinary->empty() && hit(*in.verdBinary))
    return fs::path(*in.verdBinary);
  if (!in.executableDirectory.empty()) {
    const auto bundled =
        (in.executableDirectory / ".." / "libexec" / "tamsel" / "verd").lexically_normal();
    if (hit(bundled)) return bundled;
  }
  for (const fs::path& candidate :
       {fs::path("/opt/homebrew/bin/verd"), fs::path("/usr/local/bin/verd"),
        in.homeDirectory / ".local/bin/verd"}) {
    if (hit(candidate)) return candidate;
  }
  std::error_code ec;
  for (fs::directory_iterator it(in.homeDirectory / ".nvm/versions/node", ec), end;
       !ec && it != end; it.increment(ec)) {
    const auto candidate = it->path() / "bin" / "verd";
    if (hit(candidate)) return candidate;
  }
  if (in.which) {
    if (auto output = in.which()) {
      const fs::path candidate(std::string(base::trim(*output)));
      if (hit(candidate)) return candidate;
    }
  }
  return std::nullopt;
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
