#pragma once
// Finding the engine executable. First hit wins; a hit is a path naming an executable file.
//   1. $VERD_BINARY
//   2. <folder of our executable>/../libexec/tamsel/verd (the installed layout)
//   3. /opt/homebrew/bin/verd, /usr/local/bin/verd, ~/.local/bin/verd
//   4. ~/.nvm/versions/node/<each version, in listing order>/bin/verd
//   5. what `/usr/bin/which verd` prints
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tamsel/base/env.hpp"

namespace tamsel::desktop {

struct EngineLocator {
  struct Inputs {
    std::optional<std::string> verdBinary;
    std::filesystem::path executableDirectory;
    std::filesystem::path homeDirectory;
    // Runs `which verd` and returns its output, or nothing when it fails.
    std::function<std::optional<std::string>()> which;
    std::function<bool(const std::filesystem::path&)> isExecutable;
  };

  static std::optional<std::filesystem::path> locate(const Inputs& inputs);
  // Every path the search tries, in order (for saying where it looked); `which` is run.
  static std::vector<std::filesystem::path> candidates(const Inputs& inputs);
  // The inputs of this process, from its environment.
  static Inputs forThisProcess(const base::env::Environment& environment);
  // The engine's version, from a VERSION file beside a bundled engine.
  static std::optional<std::string> bundledVersion(const std::filesystem::path& engine);
};

}  // namespace tamsel::desktop
