// The meeting controller with a stand-in capture: proposals, starts, graces, stops and the job
// each recording leaves behind.
#include "tamsel/desktop/meeting_controller.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/io_context.hpp>

#include "../test_support.hpp"

namespace tamsel::desktop {
namespace {

using namespace tamsel::meeting;
using Kind = MeetingControllerEvent::Kind;
namespace fs = std::filesystem;

struct FakeRecordings {
  std::atomic<int> started{0}, stopped{0}, sealed{0};
  bool failToStart = false;
};

class FakeRecording final : public MeetingRecording {
 public:
  FakeRecording(fs::path folder, MeetingRecordingOptions options, FakeRecordings& counts)
      : folder_(std::move(folder)), options_(std::move(options)), counts_(counts) {
    ++counts_.started;
  }
  const fs::path& folder() const override { return folder_; }
  MeetingRecordingResult stop() override {
    ++counts_.stopped;
    TrackRecording mic;
    mic.clock = {TrackSource::mic, 48000, 48000 * 2};
    mic.gaps = {{TrackSource::mic, 10, 4800, CaptureGapReason::routeTransition}};
    mic.usable = true;
    return {mic, std::nullopt};
  }
  void seal() override {
    ++counts_.sealed;
    if (options_.sealer) options_.sealer(folder_);
  }
  std::optional<CaptureHealth> health(TrackSource) const override { return std::nullopt; }
  void failTrack(TrackSource, TrackRecordingFailure) override {}

 private:
  fs::path folder_;
  MeetingRecordingOptions options_;
  FakeRecordings& counts_;
};

const MeetingApplicationIdentity zoom{MeetingApplicationFamily::zoom, "zoom", 42};

AudioProcessSnapshot snapshotOf(std::vector<AudioProcessState> states) {
  return {std::move(states)};
}
AudioProcessState zoomTalking() { return {1, 42, "zoom", true, true}; }
AudioProcessState zoomListening() { return {1, 42, "zoom", false, true}; }
AudioProcessState teamsTalking() { return {2, 7, "teams-for-linux", true, false}; }

class MeetingControllerTest : public ::testing::Test {
 protected:
  MeetingController& make(bool autoStart = false, double grace = 0.05) {
    MeetingController::Configuration config;
    config.meetingsRoot = root.path() / "meetings";
    config.graceSeconds = grace;
    config.autoStart = autoStart;
    config.recordingOptions.sealer = [this](const fs::path& folder) {
      sealedFolders.push_back(folder);
    };
    config.recordingFactory =
        [this](const fs::path& folder,
               MeetingRecordingOptions options) -> std::unique_ptr<MeetingRecording> {
      if (counts.failToStart) throw std::runtime_error("no microphone");
      return std::make_unique<FakeRecording>(folder, std::move(options), counts);
    };
    controller =
        std::make_unique<MeetingController>(executor, std::move(config), nullptr, nullptr, nullptr);
    controller->events().connect([this](const MeetingControllerEvent& e) { events.push_back(e); });
    return *controller;
  }

  std::vector<Kind> kinds() const {
    std::vector<Kind> out;
    for (const auto& e : events) out.push_back(e.kind);
    return out;
  }
  bool saw(Kind kind) const {
    for (const auto& e : events)
      if (e.kind == kind) return true;
    return false;
  }
  void settle(const std::function<bool()>& done) {
    test::runUntil(io, done, std::chrono::seconds(5));
    ASSERT_TRUE(done());
  }

  test::TempDir root;
  boost::asio::io_context io;
  base::AsioMainExecutor executor{io};
  FakeRecordings counts;
  std::vector<fs::path> sealedFolders;
  std::vector<MeetingControllerEvent> events;
  std::unique_ptr<MeetingController> controller;
};

TEST_F(MeetingControllerTest, AcceptedProposalRecordsUntilTheApplicationIsGoneForItsGrace) {
  auto& c = make();
  c.applySnapshot(snapshotOf({zoomTalking()}));
  EXPECT_EQ(kinds(), (std::vector<Kind>{Kind::detection, Kind::proposal}));
  EXPECT_EQ(events.front().identity, zoom) << "a view names the application from the detection";
  EXPECT_EQ(c.proposal(), zoom);
  EXPECT_EQ(counts.started, 0) << "a proposal records nothing by itself";

  c.accept();
  ASSERT_TRUE(c.recording());
  const auto folder = *c.recordingFolder();
  const MeetingJobStore store(root.path() / "meetings");
  EXPECT_EQ(store.load(folder)->state, MeetingJobState::releasingCapture);
  EXPECT_TRUE(MeetingFolderLock::isHeldElsewhere(folder));

  // Output only is still present; gone altogether starts the grace; back cancels it.
  c.applySnapshot(snapshotOf({zoomListening()}));
  EXPECT_FALSE(saw(Kind::graceStarted));
  c.applySnapshot(snapshotOf({}));
  EXPECT_TRUE(saw(Kind::graceStarted));
  c.applySnapshot(snapshotOf({zoomTalking()}));
  EXPECT_TRUE(saw(Kind::graceCancelled));
  io.run_for(std::chrono::milliseconds(120));
  EXPECT_TRUE(c.recording()) << "a cancelled grace stops nothing";

  c.applySnapshot(snapshotOf({}));
  settle([&] { return saw(Kind::stopped); });
  c.drain();
  io.poll();
  EXPECT_EQ(counts.stopped, 1);
  EXPECT_EQ(sealedFolders, std::vector<fs::path>{folder});
  const auto job = store.load(folder);
  EXPECT_EQ(job->state, MeetingJobState::sealing) << "no sealer changed it";
  ASSERT_TRUE(job->captureQuality);
  EXPECT_EQ(job->captureQuality->routeTransitionCount, 1);
  ASSERT_EQ(job->captureQuality->missingCoverage.size(), 2u);  // mic gap, no system track
  EXPECT_TRUE(job->sealingDeadline);
  EXPECT_FALSE(MeetingFolderLock::isHeldElsewhere(folder));
  EXPECT_FALSE(c.recording());
  EXPECT_EQ(c.phase(), MeetingLifecyclePhase{});
}

TEST_F(MeetingControllerTest, AmbiguousOrDeclinedDetectionsStartNothing) {
  auto& c = make(/*autoStart=*/true);
  c.applySnapshot(snapshotOf({zoomTalking(), teamsTalking()}));
  EXPECT_EQ(counts.started, 0);
  EXPECT_FALSE(c.proposal());
  c.applyCallEvent(CallActivityReducer::Event::callStarted);
  EXPECT_EQ(counts.started, 0) << "call activity alone starts nothing";
  EXPECT_TRUE(saw(Kind::callActivity));

  // One left: auto-record starts at once.
  c.applySnapshot(snapshotOf({zoomTalking(), {2, 7, "teams-for-linux", false, false}}));
  EXPECT_EQ(counts.started, 1);
  c.stop();
  settle([&] { return saw(Kind::stopped); });
  // Stopped by the user while Zoom still talks: not started again until Zoom lets go.
  c.applySnapshot(snapshotOf({zoomTalking(), {3, 8, "firefox", true, true}}));
  EXPECT_EQ(counts.started, 1);
  c.applySnapshot(snapshotOf({zoomListening()}));
  c.applySnapshot(snapshotOf({zoomTalking()}));
  EXPECT_EQ(counts.started, 2);
  c.drain();
}

TEST_F(MeetingControllerTest, DeclineWithdrawsUntilTheApplicationStopsTalking) {
  auto& c = make();
  c.applySnapshot(snapshotOf({zoomTalking()}));
  c.decline();
  EXPECT_FALSE(c.proposal());
  EXPECT_TRUE(saw(Kind::proposalWithdrawn));
  events.clear();
  c.applySnapshot(snapshotOf({zoomTalking(), {3, 8, "firefox", false, true}}));
  EXPECT_FALSE(saw(Kind::proposal));
  c.applySnapshot(snapshotOf({}));
  c.applySnapshot(snapshotOf({zoomTalking()}));
  EXPECT_TRUE(saw(Kind::proposal));
  // A proposal whose application ends is withdrawn.
  events.clear();
  c.applySnapshot(snapshotOf({}));
  EXPECT_TRUE(saw(Kind::proposalWithdrawn));
  EXPECT_FALSE(c.proposal());
}

TEST_F(MeetingControllerTest, KeepRecordingOutlivesTheApplicationUntilStopped) {
  auto& c = make(false, 0.05);
  c.applySnapshot(snapshotOf({zoomTalking()}));
  c.accept();
  c.applySnapshot(snapshotOf({}));
  ASSERT_TRUE(saw(Kind::graceStarted));
  c.keepRecording();
  io.run_for(std::chrono::milliseconds(150));
  c.applySnapshot(snapshotOf({zoomListening()}));
  c.applySnapshot(snapshotOf({}));
  io.run_for(std::chrono::milliseconds(150));
  EXPECT_TRUE(c.recording());
  EXPECT_EQ(counts.stopped, 0);
  c.stop();
  settle([&] { return saw(Kind::stopped); });
  c.drain();
  EXPECT_EQ(counts.stopped, 1);
}

TEST_F(MeetingControllerTest, AFailedStartLeavesAJobSayingWhyAndIsNotRetriedAtOnce) {
  auto& c = make();
  counts.failToStart = true;
  c.startManual();
  EXPECT_FALSE(c.recording());
  ASSERT_TRUE(saw(Kind::error));
  const MeetingJobStore store(root.path() / "meetings");
  const auto jobs = store.loadAll();
  ASSERT_EQ(jobs.size(), 1u);
  EXPECT_EQ(jobs[0].second.state, MeetingJobState::sealingFailed);
  EXPECT_NE(jobs[0].second.lastError->find("no microphone"), std::string::npos);

  // An automatic start that fails is not retried on every change of the streams.
  controller.reset();
  events.clear();
  auto& automatic = make(/*autoStart=*/true);
  automatic.applySnapshot(snapshotOf({zoomTalking()}));
  automatic.applySnapshot(snapshotOf({zoomTalking(), {3, 8, "firefox", false, true}}));
  EXPECT_EQ(store.loadAll().size(), 2u);
  counts.failToStart = false;
  automatic.applySnapshot(snapshotOf({zoomListening()}));
  automatic.applySnapshot(snapshotOf({zoomTalking()}));
  EXPECT_TRUE(automatic.recording()) << "tried again once Zoom took the microphone anew";
  automatic.stop();
  settle([&] { return saw(Kind::stopped); });
  automatic.drain();

  auto& c2 = make();
  c2.startManual();
  ASSERT_TRUE(c2.recording());
  c2.applySnapshot(snapshotOf({}));  // a manual recording ignores applications
  io.run_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(c2.recording());
}

TEST_F(MeetingControllerTest, SleepStopsTheRecordingBeforeReturning) {
  auto& c = make();
  c.startManual();
  ASSERT_TRUE(c.recording());
  std::thread sleeper([&] { c.stopBeforeSleep(std::chrono::seconds(5)); });
  settle([&] { return saw(Kind::stopped); });
  sleeper.join();
  EXPECT_EQ(counts.stopped, 1);
  bool sawSleep = false;
  for (const auto& e : events)
    sawSleep = sawSleep || (e.kind == Kind::stopping && e.text == "sleep");
  EXPECT_TRUE(sawSleep);
  c.drain();
}

}  // namespace
}  // namespace tamsel::desktop
