// Job records: their JSON form, the store over a meetings folder, the folder lock, and every
// launch decision.
#include "tamsel/meeting/meeting_job.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/json.hpp"
#include "../test_support.hpp"

namespace tamsel::meeting {
namespace {

namespace fs = std::filesystem;
using Action = MeetingJobPolicy::LaunchAction;
using namespace std::chrono_literals;

base::Timestamp at(const char* text) { return *base::parseISO8601(text); }

MeetingJobRecord fullRecord() {
  MeetingJobRecord r;
  r.id = "7f1c";
  r.state = MeetingJobState::queued;
  r.createdAt = at("2026-11-20T09:15:02.123Z");
  r.sealingDeadline = at("2026-11-20T09:45:02Z");
  r.artifactSHA256 = "ab12";
  r.cloudJobID = "cj-1";
  r.retryCount = 2;
  r.lastError = "boom";
  r.noteDeliveryAttempt = 1;
  r.stageDeadline = at("2026-11-20T10:00:00Z");
  r.stageDeadlineState = MeetingStageDeadlineState::pending;
  r.captureQuality = MeetingCaptureQualitySummary{3, {{TrackSource::system, 1.5}}};
  return r;
}

void writeText(const fs::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

TEST(MeetingJobRecord, KeysInOrderOptionalOnesLeftOutAndRoundTrip) {
  const auto full = fullRecord();
  const auto text = serializeJobRecord(full);
  EXPECT_EQ(text,
            R"({"id":"7f1c","state":"queued","createdAt":"2026-11-20T09:15:02.123Z",)"
            R"("sealingDeadline":"2026-11-20T09:45:02.000Z","artifactSHA256":"ab12",)"
            R"("cloudJobID":"cj-1","retryCount":2,"lastError":"boom","noteDeliveryAttempt":1,)"
            R"("stageDeadline":"2026-11-20T10:00:00.000Z","stageDeadlineState":"pending",)"
            R"("captureQuality":{"routeTransitionCount":3,"missingCoverage":)"
            R"([{"source":"system","durationSeconds":1.5}]}})"
            "\n");
  EXPECT_EQ(meetingJobRecordFromJSON(base::json::parse(text)), full);

  MeetingJobRecord minimal;
  minimal.id = "m";
  minimal.createdAt = at("2026-11-20T09:15:02Z");
  const auto minimalText = serializeJobRecord(minimal);
  EXPECT_EQ(minimalText,
            R"({"id":"m","state":"releasingCapture","createdAt":"2026-11-20T09:15:02.000Z",)"
            R"("retryCount":0,"stageDeadlineState":"none"})"
            "\n");
  EXPECT_EQ(meetingJobRecordFromJSON(base::json::parse(minimalText)), minimal);
}

TEST(MeetingJobRecord, EveryStateHasItsNameBothWays) {
  const char* names[] = {"releasingCapture", "sealing",         "queued",
                         "sealingFailed",    "uploading",       "transcribing",
                         "generatingNotes",  "waitingForApproval", "cancelling",
                         "done",             "retryableFailed"};
  for (std::size_t i = 0; i < std::size(names); ++i) {
    const auto state = static_cast<MeetingJobState>(i);
    EXPECT_EQ(toString(state), names[i]);
    EXPECT_EQ(meetingJobStateFromString(names[i]), state);
  }
  EXPECT_FALSE(meetingJobStateFromString("Queued"));
  EXPECT_FALSE(meetingJobStateFromString(""));
}

TEST(MeetingJobRecord, DecodeRefusesWhatIsNotARecordAndNamesTheKey) {
  const auto expectRefused = [](const char* text, const char* key) {
    try {
      meetingJobRecordFromJSON(base::json::parse(text));
      ADD_FAILURE() << "accepted " << text;
    } catch (const base::json::DecodeError& e) {
      EXPECT_NE(std::string(e.what()).find(key), std::string::npos) << e.what();
    }
  };
  expectRefused(R"([1])", "record");
  expectRefused(R"({"state":"queued","createdAt":"2026-11-20T09:15:02Z","retryCount":0})", "id");
  expectRefused(R"({"id":"a","state":"lost","createdAt":"2026-11-20T09:15:02Z","retryCount":0})",
                "state");
  expectRefused(R"({"id":"a","state":"queued","createdAt":"yesterday","retryCount":0})",
                "createdAt");
  expectRefused(R"({"id":"a","state":"queued","createdAt":"2026-11-20T09:15:02Z"})", "retryCount");
  expectRefused(
      R"({"id":"a","state":"queued","createdAt":"2026-11-20T09:15:02Z","retryCount":-1})",
      "retryCount");
  expectRefused(
      R"({"id":"a","state":"queued","createdAt":"2026-11-20T09:15:02Z","retryCount":0,)"
      R"("captureQuality":{"routeTransitionCount":0,"missingCoverage":[{"source":"x",)"
      R"("durationSeconds":1}]}})",
      "source");
}

TEST(MeetingCaptureQualitySummary, CountsRouteTransitionsAndMissingTimePerSource) {
  TrackRecording mic;
  mic.clock = {TrackSource::mic, 48000, 48000 * 60};
  mic.gaps = {{TrackSource::mic, 100, 4800, CaptureGapReason::captureLoss},
              {TrackSource::mic, 9000, 24000, CaptureGapReason::routeTransition}};
  TrackRecording system;
  system.clock = {TrackSource::system, 48000, 48000 * 59};
  system.gaps = {{TrackSource::system, 500, 48000, CaptureGapReason::routeTransition}};

  auto summary = MeetingCaptureQualitySummary::fromTracks(mic, system);
  EXPECT_EQ(summary.routeTransitionCount, 2);
  ASSERT_EQ(summary.missingCoverage.size(), 2u);
  EXPECT_EQ(summary.missingCoverage[0].source, TrackSource::mic);
  EXPECT_DOUBLE_EQ(summary.missingCoverage[0].durationSeconds, 0.6);
  EXPECT_DOUBLE_EQ(summary.missingCoverage[1].durationSeconds, 1.0);

  // Without a system track the whole meeting is missing there; a clean mic misses nothing.
  mic.gaps.clear();
  summary = MeetingCaptureQualitySummary::fromTracks(mic, std::nullopt);
  EXPECT_EQ(summary.routeTransitionCount, 0);
  ASSERT_EQ(summary.missingCoverage.size(), 1u);
  EXPECT_EQ(summary.missingCoverage[0].source, TrackSource::system);
  EXPECT_DOUBLE_EQ(summary.missingCoverage[0].durationSeconds, 60.0);
}

TEST(MeetingJobStore, SavesAtomicallyPrivateAndLoadsBack) {
  test::TempDir root;
  const auto folder = root.path() / "2026-11-20T09-15-02Z";
  fs::create_directories(folder);
  MeetingJobStore store(root.path());
  EXPECT_FALSE(store.load(folder));

  const auto record = fullRecord();
  store.save(folder, record);
  struct stat info {};
  ASSERT_EQ(::stat((folder / "job.json").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(store.load(folder), record);

  auto changed = record;
  changed.state = MeetingJobState::done;
  store.save(folder, changed);
  EXPECT_EQ(store.load(folder)->state, MeetingJobState::done);
  // Nothing but the record (no temporaries) is left beside it.
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
}

TEST(MeetingJobStore, CorruptFileIsReportedKeptAndDoesNotStopTheOthers) {
  test::TempDir root;
  MeetingJobStore store(root.path());
  for (const char* name : {"b", "a", "c", "no-job"}) fs::create_directories(root.path() / name);
  writeText(root.path() / "stray-file", "x");
  auto record = fullRecord();
  store.save(root.path() / "c", record);
  record.id = "first";
  store.save(root.path() / "a", record);
  writeText(root.path() / "b" / "job.json", "{\"id\":");

  try {
    store.load(root.path() / "b");
    ADD_FAILURE() << "a damaged record loaded";
  } catch (const MeetingJobStoreException& e) {
    EXPECT_EQ(e.code(), "corrupt");
    EXPECT_NE(std::string(e.what()).find("job.json"), std::string::npos);
  }

  std::vector<MeetingJobLoadProblem> problems;
  const auto all = store.loadAll(&problems);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].first, root.path() / "a");
  EXPECT_EQ(all[0].second.id, "first");
  EXPECT_EQ(all[1].first, root.path() / "c");
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].meetingFolder, root.path() / "b");
  std::string kept;
  ASSERT_TRUE(base::readFile(root.path() / "b" / "job.json", kept));
  EXPECT_EQ(kept, "{\"id\":");

  EXPECT_TRUE(MeetingJobStore(root.path() / "missing").loadAll().empty());
}

TEST(MeetingFolderLock, HeldWhileAProcessLivesAndFreedWhenItDies) {
  test::TempDir root;
  EXPECT_FALSE(MeetingFolderLock::isHeldElsewhere(root.path()));
  {
    auto lock = MeetingFolderLock::tryAcquire(root.path());
    ASSERT_TRUE(lock);
    EXPECT_TRUE(MeetingFolderLock::isHeldElsewhere(root.path()));
    EXPECT_FALSE(MeetingFolderLock::tryAcquire(root.path()));
  }
  EXPECT_FALSE(MeetingFolderLock::isHeldElsewhere(root.path()));

  // A child takes the lock and is killed: the kernel lets go of it.
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    auto lock = MeetingFolderLock::tryAcquire(root.path());
    char c = lock ? 'y' : 'n';
    (void)!::write(ready[1], &c, 1);
    ::pause();
    ::_exit(0);
  }
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  EXPECT_EQ(c, 'y');
  EXPECT_TRUE(MeetingFolderLock::isHeldElsewhere(root.path()));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(MeetingFolderLock::isHeldElsewhere(root.path()));
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST(MeetingCaptureFinished, ReadsTheJournalsFinishedFlags) {
  test::TempDir root;
  EXPECT_TRUE(meetingCaptureFinished(root.path()));
  writeText(root.path() / "mic.journal.json", R"({"finished":true})");
  writeText(root.path() / "system.journal.json", R"({"finished":false})");
  EXPECT_FALSE(meetingCaptureFinished(root.path()));
  writeText(root.path() / "system.journal.json", R"({"finished":true})");
  EXPECT_TRUE(meetingCaptureFinished(root.path()));
  writeText(root.path() / "mic.journal.json", R"({"finished")");
  EXPECT_FALSE(meetingCaptureFinished(root.path()));
}

struct LaunchCase {
  MeetingJobState state;
  MeetingJobFolderFacts facts;
  std::optional<std::string> artifact;
  std::int64_t retryCount;
  std::chrono::hours age;  // now - createdAt
  Action expected;
};

TEST(MeetingJobPolicy, EveryStateGetsItsLaunchAction) {
  const auto now = at("2026-11-24T12:00:00Z");
  const MeetingJobFolderFacts dead{false, false}, deadFinished{false, true}, live{true, false};
  const LaunchCase cases[] = {
      {MeetingJobState::releasingCapture, dead, {}, 0, 1h, Action::markCrashedWhileRecording},
      {MeetingJobState::releasingCapture, deadFinished, {}, 0, 1h,
       Action::markCrashedWhileReleasingCapture},
      {MeetingJobState::releasingCapture, live, {}, 0, 1h, Action::keep},
      {MeetingJobState::sealing, dead, {}, 0, 0h, Action::resumeSealing},
      {MeetingJobState::sealing, live, {}, 0, 0h, Action::keep},
      {MeetingJobState::sealing, dead, {}, 0, 2h, Action::escalateSealingFailed},
      {MeetingJobState::queued, dead, "ab", 0, 1h, Action::keepQueued},
      {MeetingJobState::sealingFailed, dead, {}, 0, 1h, Action::keep},
      {MeetingJobState::uploading, dead, "ab", 0, 1h, Action::keep},
      {MeetingJobState::transcribing, dead, "ab", 0, 1h, Action::keep},
      {MeetingJobState::generatingNotes, dead, "ab", 0, 1h, Action::keep},
      {MeetingJobState::waitingForApproval, dead, "ab", 0, 1h, Action::keep},
      {MeetingJobState::cancelling, dead, "ab", 0, 1h, Action::keep},
      {MeetingJobState::done, dead, "ab", 0, 24h * 29, Action::keep},
      {MeetingJobState::done, dead, "ab", 0, 24h * 30, Action::sweepDelete},
      {MeetingJobState::done, live, "ab", 0, 24h * 90, Action::keep},
      {MeetingJobState::retryableFailed, dead, {}, 0, 1h, Action::resumeSealing},
      {MeetingJobState::retryableFailed, dead, {}, 3, 1h, Action::keep},
      {MeetingJobState::retryableFailed, dead, "ab", 0, 1h, Action::keep},
  };
  for (const auto& c : cases) {
    MeetingJobRecord record;
    record.id = "j";
    record.state = c.state;
    record.createdAt = now - std::chrono::duration_cast<std::chrono::microseconds>(c.age);
    record.artifactSHA256 = c.artifact;
    record.retryCount = c.retryCount;
    EXPECT_EQ(MeetingJobPolicy::launchAction(record, c.facts, now), c.expected)
        << toString(c.state) << " aged " << c.age.count() << "h: got "
        << toString(MeetingJobPolicy::launchAction(record, c.facts, now));
  }
}

TEST(MeetingJobPolicy, SealingDeadlineOnTheRecordDecidesOverItsAge) {
  const auto now = at("2026-11-24T12:00:00Z");
  MeetingJobRecord record;
  record.id = "j";
  record.state = MeetingJobState::sealing;
  record.createdAt = now - 48h;
  record.sealingDeadline = now + 1min;
  EXPECT_EQ(MeetingJobPolicy::launchAction(record, {}, now), Action::resumeSealing);
  record.sealingDeadline = now;
  EXPECT_EQ(MeetingJobPolicy::launchAction(record, {}, now), Action::escalateSealingFailed);
}

TEST(MeetingJobPolicy, ApplyingAnActionWritesTheJobsNextState) {
  const auto now = at("2026-11-24T12:00:00Z");
  MeetingJobRecord record;
  record.id = "j";
  record.createdAt = now - 1h;

  auto crashed = MeetingJobPolicy::applyLaunchAction(record, Action::markCrashedWhileRecording, now);
  ASSERT_TRUE(crashed);
  EXPECT_EQ(crashed->state, MeetingJobState::sealing);
  EXPECT_EQ(crashed->lastError, std::string(MeetingJobConfiguration::crashedWhileRecordingMessage));
  EXPECT_EQ(crashed->sealingDeadline, now + MeetingJobConfiguration::sealingDeadline);
  EXPECT_TRUE(MeetingJobPolicy::sealsAfter(Action::markCrashedWhileRecording));

  auto released =
      MeetingJobPolicy::applyLaunchAction(record, Action::markCrashedWhileReleasingCapture, now);
  EXPECT_EQ(released->lastError,
            std::string(MeetingJobConfiguration::crashedWhileReleasingCaptureMessage));

  record.state = MeetingJobState::retryableFailed;
  record.retryCount = 1;
  auto retried = MeetingJobPolicy::applyLaunchAction(record, Action::resumeSealing, now);
  EXPECT_EQ(retried->state, MeetingJobState::sealing);
  EXPECT_EQ(retried->retryCount, 2);

  // Resuming an interrupted seal keeps its original deadline, so retries cannot extend it.
  record.state = MeetingJobState::sealing;
  record.sealingDeadline = now + 5min;
  EXPECT_EQ(MeetingJobPolicy::applyLaunchAction(record, Action::resumeSealing, now)->sealingDeadline,
            now + 5min);
  const auto failed =
      MeetingJobPolicy::applyLaunchAction(record, Action::escalateSealingFailed, now);
  EXPECT_EQ(failed->state, MeetingJobState::sealingFailed);
  EXPECT_TRUE(failed->lastError);
  EXPECT_FALSE(MeetingJobPolicy::sealsAfter(Action::escalateSealingFailed));

  for (auto action : {Action::keep, Action::keepQueued, Action::sweepDelete})
    EXPECT_FALSE(MeetingJobPolicy::applyLaunchAction(record, action, now));
}

}  // namespace
}  // namespace tamsel::meeting
