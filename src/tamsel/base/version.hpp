#pragma once
// What this build is. The strings are generated at build time (cmake/version_info.cmake), so only
// the one file that holds them is rebuilt when the revision changes.
#include <string_view>

namespace tamsel::base {

// The project's version, "0.1.0".
std::string_view projectVersion();
// The git revision built from (short hash), empty when built outside a git checkout.
std::string_view sourceRevision();
// The version with the revision: "0.1.0+git.4fd9e56ab1". What `--version`, the About box and
// the engine's RPC channel ("app_version") all show.
std::string_view appVersion();

}  // namespace tamsel::base
