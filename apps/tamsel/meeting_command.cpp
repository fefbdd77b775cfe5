// tamsel meeting: records a meeting as two raw tracks (microphone and what the machine plays)
// and lists the audio devices it can record from.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/json.hpp>
#include <chrono>
#include <cmath>
#include <csignal>
#include <ctime>
#include <deque>
#include <iostream>
#include <thread>

#include "cli.hpp"
#include "runtime.hpp"
#include "tamsel/base/mutex.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/meeting/clock_aligner.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/meeting/meeting_recording_paths.hpp"
#include "tamsel/meeting/pulse_capture.hpp"

namespace tamsel::cli {

namespace fs = std::filesystem;
using namespace tamsel::meeting;

namespace {

std::atomic<bool> interrupted{false};
extern "C" void onInterrupt(int) { interrupted.store(true); }

// Warnings arrive on the sources' control threads and the mic's writer thread; the status
// loop prints them.
class WarningBoard {
 public:
  void post(std::string text) {
    base::MutexLock lock(mutex_);
    pending_.push_back(std::move(text));
  }
  std::deque<std::string> take() {
    base::MutexLock lock(mutex_);
    return std::exchange(pending_, {});
  }

 private:
  base::Mutex mutex_;
  std::deque<std::string> pending_ GUARDED_BY(mutex_);
};

std::string formatLevel(double dbfs) {
  if (dbfs <= -120) return "  -inf dBFS";
  char text[32];
  std::snprintf(text, sizeof text, "%6.1f dBFS", dbfs);
  return text;
}

std::string formatElapsed(double seconds) {
  const auto s = static_cast<long>(seconds);
  char text[32];
  std::snprintf(text, sizeof text, "%02ld:%02ld", s / 60, s % 60);
  return text;
}

std::optional<double> drift(const TrackClock& clock) {
  try {
    return ClockAligner::driftPPM(clock, 1e9);
  } catch (const ClockAlignmentException&) {
    return std::nullopt;
  }
}

void printResult(const TrackRecording& r, bool asJSON, bool exclusionUnsupported) {
  if (asJSON) {
    auto json = toJSON(r);
    if (exclusionUnsupported) json.as_object()["exclusion"] = SystemAudioTapSource::exclusionNote();
    std::cout << boost::json::serialize(json) << std::endl;
    return;
  }
  std::int64_t dropped = 0;
  for (const auto& g : r.gaps) dropped += g.droppedFrames;
  const auto ppm = drift(r.clock);
  char driftText[32] = "n/a";
  if (ppm) std::snprintf(driftText, sizeof driftText, "%.1f ppm", *ppm);
  std::cout << toString(r.clock.source) << ": " << r.rawFileURL << "\n"
            << "  frames " << r.clock.totalFrames - r.clock.droppedFrames << " written, "
            << r.gaps.size() << (r.gaps.size() == 1 ? " gap" : " gaps") << " (" << dropped
            << " frames), drift " << driftText << ", " << (r.usable ? "usable" : "not usable")
            << ", failure: " << (r.failure ? r.failure->description() : "none") << "\n";
  for (const auto& g : r.gaps)
    std::cout << "  gap at " << g.startSample << ": " << g.droppedFrames << " frames ("
              << toString(g.reason) << ")\n";
  if (exclusionUnsupported)
    std::cout << "  exclusion: " << SystemAudioTapSource::exclusionNote() << "\n";
}

}  // namespace

int meetingRecord(const GlobalOptions& options, const MeetingRecordOptions& o) {
  Runtime rt(options);
  const bool withSystem = !o.noSystem && rt.services.meetingSystemAudioEnabled();
  fs::path folder;
  try {
    if (o.dir) {
      folder = *o.dir;
      fs::create_directories(folder);
      ::chmod(folder.c_str(), 0700);
    } else {
      folder = createMeetingFolder(rt.services.meetingsFolder(), base::nowTimestamp());
    }
  } catch (const std::exception& e) {
    printError(e.what());
    return kExitFailure;
  }
  // The job exists from the first moment, so a crash leaves a record behind; the folder's lock
  // tells a later launch that this process is alive.
  const MeetingJobStore jobs(folder.parent_path());
  std::optional<MeetingFolderLock> folderLock;
  auto job = newMeetingJob(base::newUUIDString(), base::nowTimestamp());
  try {
    folderLock = MeetingFolderLock::tryAcquire(folder);
    if (!folderLock) {
      printError("another process is recording into " + folder.string());
      return kExitFailure;
    }
    jobs.save(folder, job);
  } catch (const std::exception& e) {
    printError(e.what());
    return kExitFailure;
  }

  WarningBoard warnings;
  struct Track {
    std::shared_ptr<TrackRecorder> recorder;
    std::unique_ptr<PulseCaptureSource> source;
  };
  std::vector<Track> tracks;
  const auto paths = MeetingRecordingPaths::in(folder);
  const auto makeRecorder = [&](TrackSource source) {
    auto recorder = std::make_shared<TrackRecorder>(source, paths.rawTrack(source));
    recorder->journalURL = paths.journal(source);
    return recorder;
  };
  {
    auto mic = std::make_unique<MicrophoneSource>(o.mic);
    mic->signalActivities = [&warnings](MicrophoneSignalActivity a) {
      switch (a) {
        case MicrophoneSignalActivity::silenceDetected:
          warnings.post("mic: the microphone delivers digital silence (muted?)");
          break;
        case MicrophoneSignalActivity::lowSignalDetected:
          warnings.post("mic: the microphone signal is very low (below -50 dBFS)");
          break;
        case MicrophoneSignalActivity::signalDetected:
          warnings.post("mic: signal is back");
          break;
      }
    };
    tracks.push_back({makeRecorder(TrackSource::mic), std::move(mic)});
  }
  if (withSystem)
    tracks.push_back({makeRecorder(TrackSource::system), std::make_unique<SystemAudioTapSource>()});

  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
  for (auto& t : tracks) {
    t.source->warningHandler = [&warnings](const std::string& text) { warnings.post(text); };
    t.source->routeChangeHandler = [&warnings,
                                    s = t.source->source()](const AudioCaptureRoute& route) {
      warnings.post(std::string(s == TrackSource::mic ? "mic" : "systap") +
                    ": now recording from " + route.name + " (" + route.uid + ")");
    };
    try {
      const auto route = t.source->start(t.recorder);
      std::cerr << (t.source->source() == TrackSource::mic ? "microphone: " : "system audio: ")
                << route.name << " (" << route.uid << ")\n";
    } catch (const std::exception& e) {
      printError(e.what());
      for (auto& other : tracks) other.source->stop();
      job.state = MeetingJobState::sealingFailed;
      job.lastError = std::string("could not start recording: ") + e.what();
      jobs.save(folder, job);
      return kExitFailure;
    }
  }
  if (!withSystem)
    std::cerr << "system audio: off" << (o.noSystem ? "" : " (TamselMeetingDisableSystap is set)")
              << "\n";
  std::cerr << "recording into " << folder.string() << "; Ctrl-C stops\n";

  const bool tty = ::isatty(STDERR_FILENO) == 1;
  const auto started = std::chrono::steady_clock::now();
  auto lastLine = started - std::chrono::seconds(10);
  for (;;) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (interrupted.load() || (o.duration && elapsed >= *o.duration)) break;
    for (const auto& w : warnings.take())
      std::cerr << (tty ? "\r\033[K" : "") << "warning: " << w << "\n";
    const auto now = std::chrono::steady_clock::now();
    if (tty || now - lastLine >= std::chrono::seconds(5)) {
      lastLine = now;
      std::string line = formatElapsed(elapsed);
      for (const auto& t : tracks) {
        const auto h = t.source->health();
        line += std::string("  ") + (t.source->source() == TrackSource::mic ? "mic " : "system ") +
                formatLevel(h.levelDBFS);
      }
      std::cerr << (tty ? "\r\033[K" : "") << line << (tty ? "" : "\n") << std::flush;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  if (tty) std::cerr << "\n";
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);

  std::vector<TrackStopToken> tokens;
  for (auto& t : tracks) t.source->stop();
  for (auto& t : tracks) tokens.push_back(t.recorder->stop());
  bool allUsable = true;
  std::optional<TrackRecording> recordings[2];
  for (std::size_t i = 0; i < tracks.size(); ++i) {
    const auto recording = tracks[i].recorder->finish(tokens[i]);
    allUsable = allUsable && recording.usable;
    printResult(recording, o.asJSON, tracks[i].source->source() == TrackSource::system);
    recordings[static_cast<int>(tracks[i].source->source())] = recording;
  }
  markCaptureReleased(job, recordings[0], recordings[1], base::nowTimestamp());
  try {
    jobs.save(folder, job);
    std::cerr << "job: " << toString(job.state) << "\n";
  } catch (const std::exception& e) {
    printError(e.what());
    allUsable = false;
  }
  for (const auto& w : warnings.take()) std::cerr << "warning: " << w << "\n";
  if (o.noSeal) return allUsable ? kExitOK : kExitFailure;
  const int sealed = sealMeetingFolder(folder, o.asJSON);
  return allUsable && sealed == kExitOK ? kExitOK : kExitFailure;
}

int meetingDevices(const GlobalOptions&, bool asJSON) {
  AudioDeviceList list;
  try {
    PulseConnection connection("Tamsel Desktop");
    list = connection.devices();
  } catch (const std::exception& e) {
    printError(e.what());
    return kExitFailure;
  }
  if (asJSON) {
    const auto toArray = [](const std::vector<AudioDevice>& devices) {
      boost::json::array out;
      for (const auto& d : devices)
        out.push_back(boost::json::object{{"name", d.name},
                                          {"description", d.description},
                                          {"default", d.isDefault},
                                          {"monitor", d.isMonitor},
                                          {"sample_rate", d.sampleRate},
                                          {"channels", d.channels}});
      return out;
    };
    std::cout << boost::json::serialize(boost::json::object{{"server", list.serverName},
                                                            {"server_version", list.serverVersion},
                                                            {"sources", toArray(list.sources)},
                                                            {"sinks", toArray(list.sinks)}})
              << std::endl;
    return kExitOK;
  }
  std::cout << "server: " << list.serverName << " " << list.serverVersion << "\n";
  std::cout << "sources (microphones; * is the default):\n";
  for (const auto& d : list.sources)
    std::cout << (d.isDefault ? "  * " : "    ") << d.name << "  " << d.description
              << (d.isMonitor ? "  (monitor)" : "") << "\n";
  std::cout << "sinks (outputs; * is the default, recorded through its monitor):\n";
  for (const auto& d : list.sinks)
    std::cout << (d.isDefault ? "  * " : "    ") << d.name << "  " << d.description << "\n";
  return kExitOK;
}

}  // namespace tamsel::cli
