// tamsel-desktop: the chat window over the same composition root as `tamsel`. It starts (or
// reuses) the engine, shows its state, and on quit asks the engine to shut down.
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QIcon>
#include <QListView>
#include <QPainter>
#include <QPixmap>
#include <QRegularExpression>
#include <QScreen>
#include <QTimer>
#include <boost/asio/signal_set.hpp>
#include <cstdio>
#include <fstream>

#include "engine_bar.hpp"
#include "main_window.hpp"
#include "qt_main_executor.hpp"
#include "screen_report.hpp"
#include "session_list_model.hpp"
#include "tamsel/app/desktop_services.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/base/version.hpp"
#include "tray_icon.hpp"

namespace {

using namespace tamsel;

long long monotonicNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1'000'000'000LL + now.tv_nsec;
}

double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return 0;
}

// Reports the first paint of the window, for the launch benchmark.
class FirstPaint final : public QObject {
 public:
  using QObject::QObject;
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() == QEvent::Paint && !seen_) {
      seen_ = true;
      std::printf("first_paint_monotonic_ns=%lld\n", monotonicNanoseconds());
      std::fflush(stdout);
    }
    return QObject::eventFilter(watched, event);
  }

 private:
  bool seen_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("tamsel-desktop"));
  QApplication::setApplicationVersion(
      QString::fromUtf8(tamsel::base::appVersion().data(), tamsel::base::appVersion().size()));
  QApplication::setDesktopFileName(QStringLiteral("dev.tamsel.desktop"));
  QApplication::setWindowIcon(QIcon(QStringLiteral(":/dev.tamsel.desktop.svg")));

  QCommandLineParser parser;
  parser.setApplicationDescription(QStringLiteral("The Tamsel desktop window."));
  parser.addHelpOption();
  parser.addVersionOption();
  QCommandLineOption port(
      QStringLiteral("engine-port"),
      QStringLiteral("The engine's port on 127.0.0.1 (env TAMSEL_ENGINE_PORT)."),
      QStringLiteral("PORT"));
  QCommandLineOption home(QStringLiteral("engine-home"),
                          QStringLiteral("The engine's home folder with its session files."),
                          QStringLiteral("DIR"));
  QCommandLineOption args(QStringLiteral("engine-args"),
                          QStringLiteral("The engine's daemon-mode arguments, {port} replaced "
                                         "(env TAMSEL_ENGINE_ARGS)."),
                          QStringLiteral("ARGS"));
  QCommandLineOption screenshots(
      QStringLiteral("screenshot-dir"),
      QStringLiteral("On SIGUSR1, save the window as DIR/screen-N.png (N from 1) and what it "
                     "shows as text in DIR/screen-N.txt."),
      QStringLiteral("DIR"));
  QCommandLineOption timings(QStringLiteral("print-timings"),
                             QStringLiteral("Print the first paint, when the engine answers, and "
                                            "the CPU and memory at rest with a session open, "
                                            "then quit."));
  parser.addOptions({port, home, args, screenshots, timings});
  // A usage error exits 2, as every tamsel command does.
  if (!parser.parse(QCoreApplication::arguments())) {
    std::fprintf(stderr, "tamsel-desktop: %s (see --help)\n", qPrintable(parser.errorText()));
    return 2;
  }
  if (parser.isSet(QStringLiteral("help"))) parser.showHelp(0);
  if (parser.isSet(QStringLiteral("version"))) parser.showVersion();

  app::DesktopOptions options;
  const auto portText =
      parser.isSet(port) ? parser.value(port) : qEnvironmentVariable("TAMSEL_ENGINE_PORT");
  if (!portText.isEmpty()) {
    bool ok = false;
    const int value = portText.toInt(&ok);
    if (!ok || value < 1 || value > 65535) {
      std::fprintf(stderr, "tamsel-desktop: the port must be 1-65535, not %s\n",
                   qPrintable(portText));
      return 2;
    }
    options.enginePort = static_cast<std::uint16_t>(value);
  }
  const auto argsText =
      parser.isSet(args) ? parser.value(args) : qEnvironmentVariable("TAMSEL_ENGINE_ARGS");
  for (const auto& word :
       argsText.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts))
    options.engineArguments.push_back(word.toStdString());
  if (parser.isSet(home)) options.engineHome = parser.value(home).toStdString();

  desktopui::QtMainExecutor main;
  desktopui::MainWindow* shown = nullptr;
  app::DesktopServices services(main, base::env::read(), options, desktopui::windowHooks(&shown));
  desktopui::MainWindow window(services);
  shown = &window;
  FirstPaint firstPaint;
  if (parser.isSet(timings)) window.installEventFilter(&firstPaint);
  window.show();

  auto& manager = services.daemonManager();
  bool quitting = false;
  const auto quit = [&] {
    if (quitting) return;
    quitting = true;
    window.hide();
    // The engine is asked to go; one that does not within 5 s and is ours is ended.
    manager.stop([] { QApplication::quit(); }, 5);
  };
  QApplication::setQuitOnLastWindowClosed(false);
  QObject::connect(&application, &QGuiApplication::lastWindowClosed, &application, quit);
  std::unique_ptr<desktopui::TrayIcon> tray;
  if (QSystemTrayIcon::isSystemTrayAvailable()) {
    tray = std::make_unique<desktopui::TrayIcon>(manager, window);
    QObject::connect(tray.get(), &desktopui::TrayIcon::quitRequested, &application, quit);
    tray->show();
  }

  boost::asio::signal_set stopSignals(main.context(), SIGINT, SIGTERM);
  std::function<void(const boost::system::error_code&, int)> onStop =
      [&](const boost::system::error_code& ec, int) {
        if (!ec) quit();
      };
  stopSignals.async_wait(onStop);

  int shot = 0;
  const auto screenshotDir = parser.value(screenshots);
  boost::asio::signal_set shotSignal(main.context());
  std::function<void(const boost::system::error_code&, int)> onShot;
  if (!screenshotDir.isEmpty()) {
    shotSignal.add(SIGUSR1);
    onShot = [&](const boost::system::error_code& ec, int) {
      if (ec) return;
      // Painted now, so the picture shows what the window holds at this moment.
      window.repaint();
      const auto path = QDir(screenshotDir).filePath(QStringLiteral("screen-%1.png").arg(++shot));
      // The screen's pixels where the platform gives them (X11); Wayland does not let a client
      // read the screen, so there the window renders itself. A dialog in front (settings, the
      // always-allowed tools) is what is on screen, so it is the picture; the text report below
      // lists its controls with the window's, as they are its children.
      QWidget* front = QApplication::activeModalWidget();
      if (!front) front = &window;
      auto* screen = front->screen();
      QPixmap picture = screen ? screen->grabWindow(front->winId()) : QPixmap();
      if (picture.isNull()) picture = front->grab();
      const bool saved = picture.save(path);
      if (QFile report(QDir(screenshotDir).filePath(QStringLiteral("screen-%1.txt").arg(shot)));
          report.open(QIODevice::WriteOnly | QIODevice::Truncate))
        report.write(desktopui::describeVisible(&window).toUtf8());
      std::printf("screenshot %s %s\n", qPrintable(path), saved ? "saved" : "failed");
      std::fflush(stdout);
      shotSignal.async_wait(onShot);
    };
    shotSignal.async_wait(onShot);
    std::printf("screenshots: SIGUSR1 saves one in %s\n", qPrintable(screenshotDir));
    std::fflush(stdout);
  }

  if (parser.isSet(timings)) {
    auto connection = std::make_shared<base::Signal<>::Connection>();
    *connection = manager.changed().connect([&, connection] {
      if (manager.state().kind != desktop::DaemonManager::State::Kind::running) return;
      manager.changed().disconnect(*connection);
      std::printf("engine_running_monotonic_ns=%lld\n", monotonicNanoseconds());
      std::fflush(stdout);
      // With a session open, as someone would leave it.
      QTimer::singleShot(1000, &application, [&] {
        if (window.sessionModel().rowCount() > 0)
          window.sessionView().clicked(window.sessionModel().index(0));
      });
      auto cpuAtRest = std::make_shared<double>(0);
      QTimer::singleShot(2000, &application, [cpuAtRest] { *cpuAtRest = cpuSeconds(); });
      QTimer::singleShot(5000, &application, [&, cpuAtRest] {
        std::printf("idle_cpu_percent=%.2f\n", (cpuSeconds() - *cpuAtRest) / 3.0 * 100);
        std::printf("idle_rss_kb=%ld\n", residentKilobytes());
        std::fflush(stdout);
        // Leaves the engine running: the benchmark owns it.
        QApplication::quit();
      });
    });
  }

  manager.start();
  // Both may find nothing to use (no keyboard to read, no audio server); the window says so
  // and works on.
  window.setHotkeyStatus(services.startSummonHotkey());
  window.startMeetings();
  const int status = QApplication::exec();
  services.stopSummonHotkey();
  return status;
}
