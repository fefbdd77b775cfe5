// Launch replay of meeting job records: 1,000 meeting folders, each with its job and journals,
// replayed the way `tamsel run` does at launch. Prints the time to load every record and the
// time of the whole replay (policy, folder facts, the records it rewrites).
//
// Run: ./build/bench/tamsel_bench_meeting_jobs [records]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tamsel/base/dates.hpp"
#include "tamsel/base/uuid.hpp"
#include "tamsel/meeting/meeting_job.hpp"

using namespace tamsel;
using namespace tamsel::meeting;
namespace fs = std::filesystem;

namespace {

double msSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

// A realistic mix: most jobs finished or waiting in the cloud, some cut by a crash.
void populate(const fs::path& root, int count, base::Timestamp now) {
  const MeetingJobStore store(root);
  const MeetingJobState states[] = {
      MeetingJobState::done,         MeetingJobState::queued,
      MeetingJobState::transcribing, MeetingJobState::releasingCapture,
      MeetingJobState::sealing,      MeetingJobState::sealingFailed};
  for (int i = 0; i < count; ++i) {
    const auto folder =
        root / ("2026-11-" + std::to_string(10 + i % 18) + "T00-00-00Z-" + std::to_string(i));
    fs::create_directories(folder);
    auto record = newMeetingJob(base::newUUIDString(), now - std::chrono::hours(i % 1000));
    record.state = states[i % 6];
    record.captureQuality = MeetingCaptureQualitySummary{1, {{TrackSource::system, 0.25}}};
    if (record.state != MeetingJobState::releasingCapture)
      record.artifactSHA256 = std::string(64, 'a');
    store.save(folder, record);
    for (const char* journal : {"mic.journal.json", "system.journal.json"})
      std::ofstream(folder / journal)
          << R"({"raw_file":"mic.caf","finished":)" << (i % 12 == 3 ? "false" : "true") << "}\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 1000;
  const auto root = fs::temp_directory_path() / ("tamsel-bench-jobs-" + base::newUUIDString());
  const auto now = base::nowTimestamp();
  populate(root, count, now);
  const MeetingJobStore store(root);

  auto start = std::chrono::steady_clock::now();
  const auto loaded = store.loadAll();
  const double loadMs = msSince(start);

  start = std::chrono::steady_clock::now();
  const auto entries = replayMeetingJobs(store, now, {}, MeetingJobReplayMode::launch);
  const double replayMs = msSince(start);
  int rewritten = 0, swept = 0;
  for (const auto& e : entries) {
    rewritten += e.after ? 1 : 0;
    swept += e.action == MeetingJobPolicy::LaunchAction::sweepDelete ? 1 : 0;
  }

  start = std::chrono::steady_clock::now();
  const auto again = replayMeetingJobs(store, now, {}, MeetingJobReplayMode::launch);
  const double steadyMs = msSince(start);

  std::printf("load %zu job records: %.1f ms (%.1f us per record)\n", loaded.size(), loadMs,
              1000 * loadMs / static_cast<double>(loaded.size()));
  std::printf("launch replay of %zu records (%d rewritten, %d swept): %.1f ms\n", entries.size(),
              rewritten, swept, replayMs);
  int rewrittenAgain = 0;
  for (const auto& e : again) rewrittenAgain += e.after ? 1 : 0;
  std::printf("the next launch's replay (%zu records, %d rewritten): %.1f ms\n", again.size(),
              rewrittenAgain, steadyMs);
  fs::remove_all(root);
  return 0;
}
