// tamsel meeting seal: a meeting folder's raw tracks become one stereo M4A and its manifest.
#include <unistd.h>

#include <atomic>
#include <boost/json.hpp>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "cli.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/sealing/meeting_sealer.hpp"

namespace tamsel::cli {

namespace fs = std::filesystem;
using namespace tamsel::sealing;

namespace {

std::atomic<bool> sealInterrupted{false};
extern "C" void onSealInterrupt(int) { sealInterrupted.store(true); }

std::string formatDuration(double seconds) {
  const auto whole = static_cast<long>(seconds);
  char text[48];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%05.2f", whole / 3600, whole / 60 % 60,
                  seconds - static_cast<double>(whole / 60 * 60));
  else
    std::snprintf(text, sizeof text, "%02ld:%05.2f", whole / 60,
                  seconds - static_cast<double>(whole / 60 * 60));
  return text;
}

std::string describeDrift(const DriftInfo& d, bool withSystem) {
  char text[200];
  if (!withSystem) {
    std::snprintf(text, sizeof text, "mic %.1f ppm (no system track)%s", d.micPPM,
                  d.resampleApplied ? ", resampled" : "");
    return text;
  }
  const double offset = d.interTrackOffsetSeconds;
  std::snprintf(text, sizeof text,
                "mic %.1f ppm, system %.1f ppm; system audio starts %.3f s %s the microphone%s",
                d.micPPM, d.systemPPM, std::abs(offset), offset < 0 ? "before" : "after",
                d.resampleApplied ? "; resampled" : "");
  return text;
}

// A bar on a terminal, redrawn at most ten times a second.
class ProgressBar {
 public:
  explicit ProgressBar(bool enabled) : enabled_(enabled) {}
  void show(const SealingProgress& p) {
    if (!enabled_) return;
    std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (p.stage != SealingStage::finished && now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    constexpr int width = 30;
    const double f = p.fraction();
    const int filled = static_cast<int>(f * width);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(width - filled), '-');
    std::fprintf(stderr, "\r\033[Ksealing [%s] %3d%%  %.0fx real time  %s", bar.c_str(),
                 static_cast<int>(f * 100), p.speed(), std::string(toString(p.stage)).c_str());
    std::fflush(stderr);
    drawn_ = true;
  }
  void clear() {
    if (drawn_) std::fprintf(stderr, "\r\033[K");
  }

 private:
  bool enabled_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point last_{};
  bool drawn_ = false;
};

}  // namespace

int sealMeetingFolder(const fs::path& folder, bool asJSON) {
  const bool tty = ::isatty(STDERR_FILENO) == 1;
  ProgressBar bar(tty);
  sealInterrupted = false;
  auto previousInt = std::signal(SIGINT, onSealInterrupt);
  auto previousTerm = std::signal(SIGTERM, onSealInterrupt);
  MeetingSealer sealer;
  const auto result = sealer.seal(
      folder, [&](const SealingProgress& p) { bar.show(p); }, &sealInterrupted);
  bar.clear();
  std::signal(SIGINT, previousInt);
  std::signal(SIGTERM, previousTerm);
  if (sealInterrupted) {
    std::cerr << "tamsel: sealing interrupted; the raw tracks are kept, seal again with `tamsel "
                 "meeting seal "
              << folder.string() << "`\n";
    return kExitInterrupted;
  }
  if (!result.output) {
    printError("cannot seal " + folder.string() + ": " + result.error);
    return kExitFailure;
  }
  const auto& out = *result.output;
  const auto& manifest = out.artifact.manifest;
  const bool withSystem = manifest.tracks.size() > 1;
  if (asJSON) {
    boost::json::object o{
        {"artifact", out.artifact.combinedFileURL.string()},
        {"manifest", out.manifestURL.string()},
        {"duration", manifest.combinedDuration},
        {"sha256", manifest.sha256},
        {"driftCorrection", meeting::toJSON(manifest.driftCorrection)},
        {"channels",
         boost::json::object{{"left", "mic"}, {"right", withSystem ? "system" : "silence"}}},
        {"sealSeconds", result.timings.total}};
    if (result.jobState) o["job"] = *result.jobState;
    std::cout << base::json::serialize(o) << std::endl;
  } else {
    std::cout << "sealed " << out.artifact.combinedFileURL.string() << "\n"
              << "  duration " << formatDuration(manifest.combinedDuration)
              << ", AAC 48000 Hz stereo: microphone left, "
              << (withSystem ? "system audio right" : "right silent (no system track)") << "\n"
              << "  sha256 " << manifest.sha256 << "\n"
              << "  drift " << describeDrift(manifest.driftCorrection, withSystem) << "\n"
              << "  manifest " << out.manifestURL.string() << "\n";
    if (result.jobState) std::cout << "  job " << *result.jobState << "\n";
  }
  if (result.timings.total > 0)
    std::fprintf(stderr, "tamsel: sealed in %.2f s (%.0fx real time)\n", result.timings.total,
                 manifest.combinedDuration / result.timings.total);
  return kExitOK;
}

int meetingSeal(const GlobalOptions&, const fs::path& folder, bool asJSON, bool handedOver) {
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) {
    printError(folder.string() + " is not a meeting folder");
    return kExitUsage;
  }
  if (!handedOver && meeting::MeetingFolderLock::isHeldElsewhere(folder)) {
    printError(folder.string() + " is still being recorded; seal it once the recording stops");
    return kExitFailure;
  }
  return sealMeetingFolder(folder, asJSON);
}

}  // namespace tamsel::cli
