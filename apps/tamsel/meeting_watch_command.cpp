// tamsel meeting watch | jobs | auto-record, and the meeting part of `tamsel run`: the
// automatic lifecycle on the terminal, the job records, and the launch replay.
#include <fmt/format.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/json.hpp>
#include <iostream>
#include <thread>

#include "cli.hpp"
#include "runtime.hpp"
#include "table.hpp"
#include "tamsel/app/meeting_watch.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/base/log.hpp"
#include "tamsel/desktop/meeting_controller.hpp"

namespace tamsel::cli {

namespace asio = boost::asio;
namespace fs = std::filesystem;
using namespace tamsel::meeting;
using desktop::MeetingController;
using desktop::MeetingControllerEvent;
using Kind = MeetingControllerEvent::Kind;

namespace {

std::string stamp(bool asJSON) {
  return asJSON ? base::formatISO8601(base::nowTimestamp())
                : base::formatLocalTime(base::nowTimestamp(), true);
}

void printEvent(const MeetingControllerEvent& e, bool asJSON) {
  if (asJSON) {
    boost::json::object line{
        {"time", stamp(true)}, {"event", desktop::toString(e.kind)}, {"text", e.text}};
    if (e.identity) line["identity"] = toJSON(*e.identity);
    if (e.folder) line["folder"] = e.folder->string();
    if (e.job) line["job"] = toJSON(*e.job);
    if (e.deadline) line["deadline"] = base::formatISO8601(*e.deadline);
    std::cout << base::json::serialize(line) << std::endl;
    return;
  }
  std::string text = e.text;
  if (e.kind == Kind::proposal) text += " [y/n, then Enter]";
  if (e.kind == Kind::jobState && e.job) {
    text = std::string(toString(e.job->state));
    if (e.job->lastError) text += " (" + *e.job->lastError + ")";
    if (e.folder) text += " — " + e.folder->filename().string();
  }
  std::cout << stamp(false) << "  " << desktop::toString(e.kind) << ": " << text << std::endl;
}

std::string formatLevel(const std::optional<CaptureHealth>& health) {
  if (!health) return "off";
  if (health->levelDBFS <= -120) return "-inf dBFS";
  return fmt::format("{:.1f} dBFS", health->levelDBFS);
}

std::unique_ptr<app::MeetingWatch> startWatching(Runtime& rt, bool autoStart, double graceSeconds,
                                                 bool asJSON) {
  return rt.services.startMeetingWatch(
      autoStart, graceSeconds, [asJSON](MeetingController& controller) {
        controller.events().connect(
            [asJSON](const MeetingControllerEvent& e) { printEvent(e, asJSON); });
      });
}

void printReplay(const std::vector<MeetingJobReplayEntry>& entries, bool asJSON) {
  using Action = MeetingJobPolicy::LaunchAction;
  for (const auto& e : entries) {
    if (e.action == Action::keep || e.action == Action::keepQueued) continue;
    if (asJSON) {
      boost::json::object line{{"time", stamp(true)},
                               {"event", "meeting_job_replay"},
                               {"folder", e.meetingFolder.string()},
                               {"action", toString(e.action)}};
      if (e.after) line["job"] = toJSON(*e.after);
      if (!e.error.empty()) line["error"] = e.error;
      std::cout << base::json::serialize(line) << std::endl;
    } else {
      std::cout << stamp(false) << "  meeting job " << e.meetingFolder.filename().string() << ": "
                << toString(e.action);
      if (e.after) std::cout << " -> " << toString(e.after->state);
      if (!e.error.empty()) std::cout << " (failed: " << e.error << ")";
      std::cout << std::endl;
    }
  }
}

}  // namespace

int meetingWatch(const GlobalOptions& options, const MeetingWatchOptions& o) {
  Runtime rt(options);
  auto watch = startWatching(rt, o.autoStart, o.graceSeconds, o.asJSON);
  auto& controller = *watch->controller;
  if (!o.asJSON)
    std::cerr << "watching for meetings ("
              << (o.autoStart ? "recording them as they start" : "asking first") << ", grace "
              << o.graceSeconds
              << " s); keys + Enter: y record, n decline, r record now, k keep recording, s stop; "
                 "Ctrl-C ends\n";

  // Answers come as lines on standard input (a terminal, or a pipe); read apart from the loop.
  std::thread reader([&rt, &controller] {
    std::string line;
    while (std::getline(std::cin, line)) {
      const char key = line.empty() ? '\0' : static_cast<char>(std::tolower(line[0]));
      asio::post(rt.io, [&controller, key] {
        switch (key) {
          case 'y':
            controller.accept();
            break;
          case 'n':
            controller.decline();
            break;
          case 'r':
            controller.startManual();
            break;
          case 'k':
            controller.keepRecording();
            break;
          case 's':
            controller.stop();
            break;
          default:
            break;
        }
      });
    }
  });
  reader.detach();  // blocked in a read; ends with the process

  // A recording in progress is always on screen: a line every 10 s with its levels.
  asio::steady_timer status(rt.io);
  const auto started = std::make_shared<std::optional<std::chrono::steady_clock::time_point>>();
  std::function<void()> tick = [&] {
    status.expires_after(std::chrono::seconds(1));
    status.async_wait([&](const boost::system::error_code& ec) {
      if (ec) return;
      if (!controller.recording()) {
        started->reset();
      } else {
        const auto now = std::chrono::steady_clock::now();
        if (!*started) *started = now;
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(now - **started).count();
        if (seconds > 0 && seconds % 10 == 0 && !o.asJSON)
          std::cout << stamp(false)
                    << "  recording: " << fmt::format("{:02}:{:02}", seconds / 60, seconds % 60)
                    << "  mic " << formatLevel(controller.health(TrackSource::mic)) << "  system "
                    << formatLevel(controller.health(TrackSource::system)) << std::endl;
      }
      tick();
    });
  };
  tick();

  asio::signal_set signals(rt.io, SIGINT, SIGTERM);
  asio::steady_timer ending(rt.io);
  signals.async_wait([&](const boost::system::error_code& ec, int) {
    if (ec) return;
    status.cancel();
    controller.stop();
    // Let the stop finish (its events are posted here), then end.
    std::function<void()> waitStopped = [&] {
      ending.expires_after(std::chrono::milliseconds(50));
      ending.async_wait([&](const boost::system::error_code& e) {
        if (e) return;
        if (controller.recording() ||
            std::holds_alternative<MeetingLifecyclePhase::Stopping>(controller.phase().value))
          return waitStopped();
        controller.drain();
        rt.io.poll();
        rt.io.stop();
      });
    };
    waitStopped();
    signals.async_wait([&](const boost::system::error_code& again, int) {
      if (!again) rt.io.stop();
    });
  });
  rt.io.run();
  watch.reset();
  std::cout.flush();
  std::_Exit(kExitOK);  // the stdin reader may still be blocked in a read
}

int meetingJobs(const GlobalOptions& options, bool asJSON) {
  Runtime rt(options);
  const MeetingJobStore store(rt.services.meetingsFolder());
  std::vector<MeetingJobLoadProblem> problems;
  // A listing records what is known for certain (a dead recorder), and decides nothing else.
  const auto entries = replayMeetingJobs(store, base::nowTimestamp(), {},
                                         MeetingJobReplayMode::markCrashedOnly, &problems);
  if (asJSON) {
    boost::json::array list;
    for (const auto& e : entries)
      list.push_back(boost::json::object{{"folder", e.meetingFolder.string()},
                                         {"job", toJSON(e.after ? *e.after : e.before)}});
    std::cout << base::json::serialize(list) << std::endl;
  } else if (entries.empty() && problems.empty()) {
    std::cout << "no meeting jobs in " << store.root().string() << "\n";
  } else {
    Table table{{"MEETING", "STATE", "CREATED", "RETRIES", "NOTE"}, {}, 4};
    for (const auto& e : entries) {
      const auto& job = e.after ? *e.after : e.before;
      table.rows.push_back({e.meetingFolder.string(), std::string(toString(job.state)),
                            base::formatLocalTime(job.createdAt), std::to_string(job.retryCount),
                            job.lastError.value_or("")});
    }
    printTable(std::cout, table, terminalWidth());
  }
  for (const auto& p : problems) printError(p.message);
  return problems.empty() ? kExitOK : kExitFailure;
}

int meetingAutoRecord(const GlobalOptions& options, const std::optional<std::string>& setting) {
  Runtime rt(options);
  if (setting) rt.services.setMeetingAutoRecord(*setting == "on");
  std::cout << "auto-record " << (rt.services.meetingAutoRecord() ? "on" : "off")
            << ": detected meetings are "
            << (rt.services.meetingAutoRecord() ? "recorded at once" : "proposed first")
            << "; `tamsel run` " << (rt.services.meetingAutoRecord() ? "watches" : "does not watch")
            << " for meetings\n";
  return kExitOK;
}

std::shared_ptr<void> startMeetingsForRun(Runtime& rt, bool asJSON) {
  // Jobs an earlier run left behind are settled on a thread of their own: resealing a crashed
  // hour takes seconds, and the engine's supervision must not wait for it. Its report is printed
  // on the main loop; ending the run cancels a seal in progress (the next launch retries it).
  struct ForRun {
    std::atomic<bool> cancel{false};
    std::thread replay;
    std::shared_ptr<app::MeetingWatch> watch;
    ~ForRun() {
      watch.reset();
      cancel = true;
      if (replay.joinable()) replay.join();
    }
  };
  auto forRun = std::make_shared<ForRun>();
  forRun->replay = std::thread([&io = rt.io, folder = rt.services.meetingsFolder(),
                                sealer = rt.services.meetingSealer(&forRun->cancel), asJSON] {
    const MeetingJobStore store(folder);
    auto entries =
        replayMeetingJobs(store, base::nowTimestamp(), sealer, MeetingJobReplayMode::launch);
    asio::post(io, [entries = std::move(entries), asJSON] { printReplay(entries, asJSON); });
  });
  if (!rt.services.meetingAutoRecord()) return forRun;
  try {
    forRun->watch = startWatching(rt, true, MeetingController::defaultGraceSeconds, asJSON);
  } catch (const std::exception& e) {
    printError(std::string("not watching for meetings: ") + e.what());
  }
  return forRun;
}

}  // namespace tamsel::cli
