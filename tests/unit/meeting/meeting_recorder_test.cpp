// The recorder's states and errors, the capture engine's route handling (one route operation at a
// time, a system output change reported once), the process observer's subscriptions, and the tap
// exclusion's translation and failure.
#include "tamsel/meeting/meeting_recorder.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "../test_support.hpp"
#include "tamsel/meeting/audio_process_observer.hpp"
#include "tamsel/meeting/tap_exclusion.hpp"

namespace tamsel::meeting {
namespace {

namespace fs = std::filesystem;

// A source that delivers one second of a quiet tone when it starts, and lets the test raise
// route changes and failures from threads of its own.
class FakeSource final : public MeetingCaptureSource {
 public:
  FakeSource(TrackSource source, bool failStart) : source_(source), failStart_(failStart) {}
  TrackSource source() const override { return source_; }
  AudioCaptureRoute start(std::shared_ptr<TrackRecorder> sink) override {
    if (failStart_) throw std::runtime_error("device busy");
    const AudioFormat format{48000, 1, SampleType::float32, true};
    sink->prepare(format);
    std::vector<float> samples(480, 0.1f);
    for (int i = 0; i < 100; ++i)
      sink->accept({format, samples.data(), 480},
                   {480.0 * i, 1'000'000'000ull + 10'000'000ull * static_cast<std::uint64_t>(i),
                    true, true});
    return {source_ == TrackSource::mic ? "mic-1" : "speakers.monitor", "device"};
  }
  void stop() override { stopped = true; }
  CaptureHealth health() const override { return {}; }
  std::atomic<bool> stopped{false};

 private:
  TrackSource source_;
  bool failStart_;
};

struct Sources {
  bool failMic = false, failSystem = false;
  FakeSource* mic = nullptr;
  FakeSource* system = nullptr;
  MeetingCaptureEngine::SourceFactory factory() {
    return [this](TrackSource s) -> std::unique_ptr<MeetingCaptureSource> {
      auto source = std::make_unique<FakeSource>(s, s == TrackSource::mic ? failMic : failSystem);
      (s == TrackSource::mic ? mic : system) = source.get();
      return source;
    };
  }
};

template <class F>
void expectRecorderError(F&& f, const char* code) {
  try {
    f();
    ADD_FAILURE() << "no " << code;
  } catch (const MeetingRecorderException& e) {
    EXPECT_EQ(e.code(), code) << e.what();
  }
}

TEST(MeetingRecorder, StopFinishSealInOrderEachOnce) {
  test::TempDir dir;
  Sources sources;
  MeetingCaptureEngine engine(sources.factory(), false);
  std::vector<fs::path> sealed;
  MeetingRecorder recorder(dir.path(), true, [&](const fs::path& f) { sealed.push_back(f); });
  int acked = 0;
  recorder.onWritersAcked = [&] { ++acked; };
  recorder.start(engine);
  EXPECT_EQ(recorder.state(), MeetingRecorder::State::capturing);

  MeetingStopToken early{recorder.id(), std::nullopt, std::nullopt};
  expectRecorderError([&] { recorder.finish(early); }, "finishBeforeStopping");
  expectRecorderError([&] { recorder.seal(early); }, "finishBeforeStopping");

  engine.stop();
  const auto token = recorder.stop();
  EXPECT_TRUE(token.mic && token.system);
  expectRecorderError([&] { recorder.stop(); }, "alreadyStopping");
  auto foreign = token;
  foreign.id = "another";
  expectRecorderError([&] { recorder.finish(foreign); }, "invalidStopToken");
  expectRecorderError([&] { recorder.seal(foreign); }, "invalidStopToken");

  const auto result = recorder.finish(token);
  ASSERT_TRUE(result.mic && result.system);
  EXPECT_EQ(result.mic->clock.totalFrames, 48000);
  EXPECT_TRUE(fs::exists(dir.path() / "mic.caf"));
  EXPECT_TRUE(fs::exists(dir.path() / "system.journal.json"));
  recorder.seal(token);
  EXPECT_EQ(recorder.state(), MeetingRecorder::State::sealing);
  EXPECT_EQ(sealed, std::vector<fs::path>{dir.path()});
  EXPECT_EQ(acked, 1) << "the writers are acknowledged once";
  expectRecorderError([&] { recorder.seal(token); }, "sealingAlreadyStarted");
}

TEST(MeetingRecorder, MicrophoneFailureFailsTheStartAndSystemFailureDegrades) {
  test::TempDir dir;
  Sources sources;
  sources.failMic = true;
  MeetingCaptureEngine failing(sources.factory(), false);
  MeetingRecorder recorder(dir.path(), true, {});
  try {
    recorder.start(failing);
    ADD_FAILURE() << "started without a microphone";
  } catch (const MeetingRecorderException& e) {
    EXPECT_EQ(e.code(), "trackFailure");
    EXPECT_NE(std::string(e.what()).find("device busy"), std::string::npos);
  }

  test::TempDir second;
  sources = {};
  sources.failSystem = true;
  MeetingCaptureEngine engine(sources.factory(), false);
  std::vector<std::string> warnings;
  engine.warnings = [&](const std::string& w) { warnings.push_back(w); };
  MeetingRecorder micOnly(second.path(), true, {});
  micOnly.start(engine);
  const auto state = engine.routeState();
  EXPECT_FALSE(state.systemCaptureEnabled);
  EXPECT_EQ(state.unavailableSources, std::set<TrackSource>{TrackSource::system});
  ASSERT_EQ(warnings.size(), 1u);
  engine.stop();
  const auto token = micOnly.stop();
  EXPECT_FALSE(token.system);
  const auto result = micOnly.finish(token);
  EXPECT_TRUE(result.mic);
  EXPECT_FALSE(result.system);
}

TEST(MeetingCaptureEngine, SystemSwitchOffRecordsTheMicrophoneAlone) {
  test::TempDir dir;
  Sources sources;
  MeetingCaptureEngine engine(sources.factory(), /*systemCaptureDisabled=*/true);
  MeetingRecorder recorder(dir.path(), false, {});
  recorder.start(engine);
  EXPECT_EQ(sources.system, nullptr) << "no system source is even made";
  EXPECT_FALSE(engine.routeState().systemCaptureEnabled);
  EXPECT_TRUE(engine.routeState().unavailableSources.empty());
  engine.stop();
  recorder.finish(recorder.stop());
  EXPECT_FALSE(fs::exists(dir.path() / "system.caf"));
}

TEST(MeetingCaptureEngine, RouteOperationsNeverOverlapAndAreReportedInOrder) {
  test::TempDir dir;
  Sources sources;
  MeetingCaptureEngine engine(sources.factory(), false);
  std::atomic<int> inside{0}, most{0};
  std::vector<std::pair<MeetingAudioRouteActivity, std::set<TrackSource>>> seen;
  engine.routeActivities = [&](MeetingAudioRouteActivity a, const MeetingAudioRouteTransition& t) {
    most = std::max(most.load(), ++inside);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    seen.emplace_back(a, t.changedSources);  // under the gate: no lock needed
    --inside;
  };
  MeetingRecorder recorder(dir.path(), true, {});
  recorder.start(engine);

  std::thread a([&] {
    for (int i = 0; i < 10; ++i) sources.mic->routeChangeHandler({"mic-" + std::to_string(i), ""});
  });
  std::thread b([&] {
    for (int i = 0; i < 10; ++i)
      sources.system->routeChangeHandler({"out-" + std::to_string(i) + ".monitor", ""});
  });
  a.join();
  b.join();
  EXPECT_EQ(most.load(), 1) << "two route operations ran at once";
  ASSERT_EQ(seen.size(), 40u);
  for (std::size_t i = 0; i < seen.size(); i += 2) {
    EXPECT_EQ(seen[i].first, MeetingAudioRouteActivity::switching);
    EXPECT_EQ(seen[i + 1].first, MeetingAudioRouteActivity::continued);
    EXPECT_EQ(seen[i].second, seen[i + 1].second);
  }
  auto state = engine.routeState();
  EXPECT_EQ(state.transitionCount, 20);
  EXPECT_EQ(state.microphone->uid, "mic-9");
  EXPECT_EQ(state.systemAudio->uid, "out-9.monitor");

  sources.system->routeFailureHandler("no device to record from");
  EXPECT_EQ(seen.back().first, MeetingAudioRouteActivity::degraded);
  EXPECT_EQ(engine.routeState().unavailableSources, std::set<TrackSource>{TrackSource::system});
  engine.stop();
  const auto before = seen.size();
  sources.mic->routeChangeHandler({"late", ""});
  EXPECT_EQ(seen.size(), before) << "nothing is reported once stopped";
  recorder.finish(recorder.stop());
}

TEST(SystemOutputRouteGuard, ReportsAChangeOnce) {
  SystemOutputRouteGuard guard("speakers.monitor");
  EXPECT_FALSE(guard.observe("speakers.monitor"));
  EXPECT_TRUE(guard.observe("headset.monitor"));
  EXPECT_TRUE(guard.state().didReportChange);
  EXPECT_FALSE(guard.observe("speakers.monitor"));
  EXPECT_FALSE(guard.observe("hdmi.monitor"));
}

// ---- observer and exclusion ----

class FakeBackend final : public AudioProcessBackend {
 public:
  void start(Handler h) override {
    handler = std::move(h);
    ++starts;
  }
  void stop() override {
    handler = nullptr;
    ++stops;
  }
  void send(AudioProcessSnapshot s) {
    if (handler) handler(s);
  }
  Handler handler;
  int starts = 0, stops = 0;
};

AudioProcessSnapshot snapshotOf(std::vector<AudioProcessState> states) {
  return {std::move(states)};
}

TEST(AudioProcessObserver, FirstSubscriberStartsLastStopsLatestIsReplayedRepeatsDropped) {
  auto owned = std::make_unique<FakeBackend>();
  auto& backend = *owned;
  AudioProcessObserver observer(std::move(owned));
  EXPECT_FALSE(observer.running());

  std::vector<AudioProcessSnapshot> a, b;
  auto first = observer.subscribe([&](const AudioProcessSnapshot& s) { a.push_back(s); });
  EXPECT_EQ(backend.starts, 1);
  const auto zoom = snapshotOf({{1, 42, "zoom", true, false}});
  backend.send(zoom);
  backend.send(zoom);  // unchanged: not published again
  EXPECT_EQ(a.size(), 1u);

  auto second = observer.subscribe([&](const AudioProcessSnapshot& s) { b.push_back(s); });
  EXPECT_EQ(backend.starts, 1);
  ASSERT_EQ(b.size(), 1u) << "a late subscriber gets the latest at once";
  EXPECT_EQ(b[0], zoom);
  backend.send(snapshotOf({}));
  EXPECT_EQ(a.size(), 2u);
  EXPECT_EQ(b.size(), 2u);

  first.cancel();
  EXPECT_EQ(backend.stops, 0);
  backend.send(zoom);
  EXPECT_EQ(a.size(), 2u) << "a cancelled subscriber hears nothing";
  EXPECT_EQ(b.size(), 3u);
  second = {};
  EXPECT_EQ(backend.stops, 1);
  EXPECT_FALSE(observer.running());
  EXPECT_FALSE(observer.latest()) << "what was seen before the pause is not handed out";

  auto third = observer.subscribe([](const AudioProcessSnapshot&) {});
  EXPECT_EQ(backend.starts, 2);
}

TEST(TapExclusion, TranslatesProcessIDsAndKeepsTheUnresolved) {
  const auto snapshot = snapshotOf(
      {{10, 42, "a", false, true}, {11, 43, "b", false, true}, {12, 42, "a", true, false}});
  std::vector<std::int32_t> unresolved;
  EXPECT_EQ(TapExclusion::objectIDs({43, 42, 99, 42}, snapshot, &unresolved),
            (std::vector<std::uint32_t>{10, 11, 12}));
  EXPECT_EQ(unresolved, std::vector<std::int32_t>{99});
}

TEST(TapExclusionMonitor, AppliesChangesAndFailsOnceWhenItCannot) {
  auto owned = std::make_unique<FakeBackend>();
  auto& backend = *owned;
  AudioProcessObserver observer(std::move(owned));
  std::vector<std::vector<std::uint32_t>> applied;
  std::vector<std::string> failures;
  std::vector<std::int32_t> companion;
  bool refuse = false;
  TapExclusionMonitor monitor(
      500, [&] { return companion; }, observer,
      [&](const std::vector<std::uint32_t>& ids) {
        if (refuse) throw std::runtime_error("cannot");
        applied.push_back(ids);
      },
      [&](const std::string& why) { failures.push_back(why); });
  monitor.start();
  backend.send(snapshotOf({{10, 42, "zoom", true, true}}));
  EXPECT_TRUE(applied.empty()) << "nothing to leave out yet";
  EXPECT_EQ(monitor.state().unresolvedPIDs, std::vector<std::int32_t>{500});

  companion = {77};
  backend.send(snapshotOf({{10, 42, "zoom", true, true}, {20, 77, "companion", false, true}}));
  EXPECT_EQ(applied, (std::vector<std::vector<std::uint32_t>>{{20}}));
  backend.send(snapshotOf({{20, 77, "companion", false, true}}));
  EXPECT_EQ(applied.size(), 1u) << "same objects: not applied again";

  refuse = true;
  backend.send(snapshotOf({{21, 77, "companion", false, true}}));
  EXPECT_EQ(failures, std::vector<std::string>{"cannot"});
  backend.send(snapshotOf({{22, 77, "companion", false, true}}));
  EXPECT_EQ(failures.size(), 1u);
  EXPECT_FALSE(monitor.state().active);
  monitor.stop();

  EXPECT_NO_THROW(TapExclusionMonitor::pulseApplier()({}));
  EXPECT_THROW(TapExclusionMonitor::pulseApplier()({3}), std::runtime_error);
}

}  // namespace
}  // namespace tamsel::meeting
