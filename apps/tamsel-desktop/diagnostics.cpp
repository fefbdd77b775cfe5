#include "diagnostics.hpp"

#include <QDateTime>
#include <QSysInfo>
#include <QtGlobal>

#include "engine_bar.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/version.hpp"
#include "tamsel/bridge/rpc/desktop_rpc_service.hpp"
#include "tamsel/desktop/daemon_manager.hpp"

namespace tamsel::desktopui {

QString diagnosticsReport(app::DesktopServices& services) {
  auto& manager = services.daemonManager();
  const auto path = [](const std::filesystem::path& p) {
    return QString::fromStdString(p.string());
  };
  QStringList out;
  out << QStringLiteral("Tamsel Desktop diagnostics, %1")
             .arg(QDateTime::currentDateTimeUtc().toString(Qt::ISODate));
  out << QStringLiteral("tamsel-desktop %1, Qt %2, %3, kernel %4")
             .arg(QString::fromUtf8(tamsel::base::appVersion().data(),
                                    tamsel::base::appVersion().size()),
                  QString::fromLatin1(qVersion()), QSysInfo::prettyProductName(),
                  QSysInfo::kernelVersion());
  out << QString() << QStringLiteral("[engine]");
  out << QStringLiteral("state: %1 (%2)")
             .arg(QString::fromStdString(manager.state().displayText()),
                  QString::fromStdString(manager.state().name()));
  out << QStringLiteral("endpoint: %1, port %2")
             .arg(QString::fromStdString(desktop::DaemonManager::name(manager.localEndpoint())))
             .arg(services.options().enginePort);
  out << QStringLiteral("version: %1")
             .arg(QString::fromStdString(manager.installedVersion().value_or("unknown")));
  out << QStringLiteral("executable: %1")
             .arg(manager.enginePath() ? path(*manager.enginePath()) : QStringLiteral("not found"));
  QString arguments;
  for (const auto& a : manager.lastLaunchArguments()) arguments += QString::fromStdString(a) + ' ';
  out << QStringLiteral("arguments: %1").arg(arguments.trimmed());
  out << QStringLiteral("PID: %1, started by this desktop: %2, restarts: %3")
             .arg(manager.enginePID() ? QString::number(*manager.enginePID())
                                      : QStringLiteral("none"))
             .arg(manager.ownsEngineProcess() ? QStringLiteral("yes") : QStringLiteral("no"))
             .arg(manager.restartCount());
  if (const auto& exit = manager.lastExit())
    out << QStringLiteral("last exit: %1").arg(QString::fromStdString(exit->describe()));
  if (auto* rpc = services.rpcService())
    out << QStringLiteral("RPC channel: %1%2")
               .arg(rpc->isOnline() ? QStringLiteral("online") : QStringLiteral("offline"))
               .arg(rpc->lastError()
                        ? QStringLiteral(" (") + QString::fromStdString(*rpc->lastError()) + ')'
                        : QString());
  else
    out << QStringLiteral("RPC channel: disabled");
  out << QString() << QStringLiteral("[paths]");
  out << QStringLiteral("app folder: %1").arg(path(services.appFolder()));
  out << QStringLiteral("engine folder: %1")
             .arg(path(services.daemonPaths().engineSupportDirectory()));
  out << QStringLiteral("engine home: %1").arg(path(services.engineHome()));
  const auto log = services.daemonPaths().engineLogPath();
  out << QStringLiteral("engine log: %1").arg(path(log));
  out << QString() << QStringLiteral("[engine log, last lines]");
  out << EngineBar::tailOf(log.string(), 200);
  QString report = out.join('\n') + '\n';
  const auto token = QString::fromStdString(services.presenceToken());
  if (!token.trimmed().isEmpty()) report.replace(token, QStringLiteral("<presence token removed>"));
  return report;
}

void exportDiagnostics(app::DesktopServices& services, const std::filesystem::path& file) {
  base::writeFileAtomically(file, diagnosticsReport(services).toStdString(), 0600);
}

}  // namespace tamsel::desktopui
