#pragma once
// The diagnostics export: one text file a user can attach to a report, with the versions, the
// paths, the engine's state and how it last ended, the command line, the RPC channel, and the
// tail of the engine's output. The presence token is never in it: wherever it appears (a log
// line may echo the environment) it is replaced.
#include <QString>
#include <filesystem>

namespace tamsel::app {
class DesktopServices;
}

namespace tamsel::desktopui {

QString diagnosticsReport(app::DesktopServices& services);
// Writes the report atomically (owner-only); throws std::system_error when it cannot.
void exportDiagnostics(app::DesktopServices& services, const std::filesystem::path& file);

}  // namespace tamsel::desktopui
