// The queue, the recorder's producer and writer sides, and the CAF writer.
#include "tamsel/meeting/track_recorder.hpp"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/json.hpp>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "tamsel/base/atomic_file.hpp"
#include "tamsel/meeting/capture_callback_router.hpp"

namespace tamsel::meeting {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using Queue = BoundedAudioQueue<int, std::string>;

TEST(BoundedAudioQueue, BoundsByCountAndWeightAndFinishesOnce) {
  Queue byCount(2, 1000);
  int a = 1, b = 2, c = 3;
  EXPECT_TRUE(byCount.push(a, 1));
  EXPECT_TRUE(byCount.push(b, 1));
  EXPECT_FALSE(byCount.push(c, 1));  // ring full: refused, never waits
  EXPECT_EQ(c, 3);

  Queue byWeight(8, 10);
  EXPECT_TRUE(byWeight.push(a, 6));
  EXPECT_FALSE(byWeight.push(b, 5));  // 11 > 10
  EXPECT_TRUE(byWeight.push(b, 4));   // exactly the budget fits
  EXPECT_EQ(byWeight.weight(), 10);

  EXPECT_TRUE(byWeight.finish("done"));
  EXPECT_FALSE(byWeight.finish("again"));
  EXPECT_FALSE(byWeight.push(c, 0));  // nothing after the finish

  std::vector<std::string> seen;
  while (auto e = byWeight.next())
    seen.push_back(e->isFinish() ? std::get<1>(e->value) : std::to_string(std::get<0>(e->value)));
  EXPECT_EQ(seen, (std::vector<std::string>{"1", "2", "done"}));
  EXPECT_FALSE(byWeight.next());
  EXPECT_EQ(byWeight.weight(), 0);
}

TEST(BoundedAudioQueue, DrainBlocksUntilAProducerDelivers) {
  Queue queue(4, 100);
  std::vector<int> got;
  std::thread consumer([&] {
    while (auto e = queue.next())
      if (!e->isFinish()) got.push_back(std::get<0>(e->value));
  });
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(5ms);
    int v = i;
    while (!queue.push(v, 1)) std::this_thread::yield();
  }
  queue.finish("");
  consumer.join();
  EXPECT_EQ(got, (std::vector<int>{0, 1, 2}));
}

TEST(BoundedAudioQueue, PollingConsumerFindsElementsWithoutAWakeUp) {
  Queue queue(64, 1000, 5ms);
  std::vector<int> got;
  std::thread consumer([&] {
    while (auto e = queue.next())
      if (!e->isFinish()) got.push_back(std::get<0>(e->value));
  });
  for (int i = 0; i < 40; ++i) {
    std::this_thread::sleep_for(1ms);
    int v = i;
    EXPECT_TRUE(queue.push(v, 1));
  }
  queue.finish("");
  consumer.join();
  ASSERT_EQ(got.size(), 40u);
  EXPECT_EQ(got.back(), 39);
}

TEST(TrackRecorder, QueueBudgetIsThreeSecondsOfTheSourceFormat) {
  struct Case {
    AudioFormat format;
    std::optional<std::int64_t> override;
    std::optional<std::int64_t> budget;
  };
  const Case cases[] = {
      {{48000, 1, SampleType::float32, true}, {}, 576000},
      {{44100, 2, SampleType::int16, true}, {}, 529200},
      {{48000, 2, SampleType::float32, false}, {}, 1152000},  // two planes
      {{48000, 0, SampleType::float32, false}, {}, 576000},   // at least one plane
      {{0, 1, SampleType::float32, true}, {}, std::nullopt},
      {{NAN, 1, SampleType::float32, true}, {}, std::nullopt},
      {{1e300, 1, SampleType::float32, true}, {}, std::nullopt},  // not representable
      {{0, 1, SampleType::float32, true}, 4096, 4096},            // an override is used as is
      {{48000, 1, SampleType::float32, true}, 0, std::nullopt},
      {{48000, 1, SampleType::float32, true}, -1, std::nullopt},
  };
  for (const auto& c : cases) {
    try {
      EXPECT_EQ(TrackRecorder::queueBudget(c.format, c.override), c.budget);
    } catch (const TrackRecorderException& e) {
      EXPECT_FALSE(c.budget) << e.what();
      EXPECT_EQ(e.error().kind, TrackRecorderError::Kind::invalidBufferBudget);
    }
  }
  EXPECT_EQ(TrackRecorder::writerQueueLabel(TrackSource::system),
            "dev.tamsel.desktop.meeting-writer.system");
}

// Keeps what it was given; can be held back to act as a stalled disk.
struct FakeWriter : TrackWriter {
  struct Shared {
    std::atomic<std::int64_t> frames{0};
    std::atomic<bool> stalled{false};
    std::atomic<int> failAfter{-1};
    std::atomic<std::int64_t> shortBy{0};  // frames silently left out of each write
    std::vector<float> samples;
  };
  explicit FakeWriter(std::shared_ptr<Shared> s) : shared(std::move(s)) {}
  void write(const AudioBuffer& buffer) override {
    while (shared->stalled) std::this_thread::sleep_for(1ms);
    if (shared->failAfter == 0) throw std::runtime_error("disk full");
    if (shared->failAfter > 0) --shared->failAfter;
    const float* p = buffer.floatPlane(0);
    shared->samples.insert(shared->samples.end(), p, p + buffer.frameLength());
    shared->frames += buffer.frameLength() - shared->shortBy;
  }
  void close() override {}
  std::int64_t framesWritten() const override { return shared->frames; }
  std::shared_ptr<Shared> shared;
};

struct Harness {
  std::shared_ptr<FakeWriter::Shared> shared = std::make_shared<FakeWriter::Shared>();
  std::shared_ptr<TrackRecorder> recorder;
  std::vector<float> samples = std::vector<float>(8192, 0.5f);  // enough for any feed below
  AudioFormat format{48000, 1, SampleType::float32, true};

  explicit Harness(TrackSource source = TrackSource::mic) {
    recorder = std::make_shared<TrackRecorder>(
        source, "unused.caf", 1e9,
        [s = shared](const fs::path&, double, const AudioFormat&) -> std::unique_ptr<TrackWriter> {
          return std::make_unique<FakeWriter>(s);
        });
  }
  // A buffer of `frames` at device sample time `sample`, host time from it at 48 kHz.
  void feed(std::int64_t sample, std::int64_t frames, std::uint64_t hostBase = 1'000'000) {
    const auto host = hostBase + static_cast<std::uint64_t>(sample) * 1'000'000'000 / 48000;
    recorder->accept({format, samples.data(), frames},
                     {static_cast<double>(sample), host, true, true});
  }
  TrackRecording stopAndFinish() { return recorder->finish(recorder->stop()); }
};

TEST(TrackRecorder, LifecycleErrors) {
  Harness h;
  const auto kind = [](auto&& f) {
    try {
      f();
    } catch (const TrackRecorderException& e) {
      return std::optional(e.error().kind);
    }
    return std::optional<TrackRecorderError::Kind>();
  };
  using K = TrackRecorderError::Kind;
  EXPECT_EQ(kind([&] { h.recorder->stop(); }), K::notPrepared);
  EXPECT_EQ(kind([&] {
              h.recorder->prepare({0, 1, SampleType::float32, true});
            }),
            K::invalidBufferBudget);
  h.recorder->prepare(h.format);
  EXPECT_EQ(kind([&] { h.recorder->prepare(h.format); }), K::alreadyPrepared);
  const auto token = h.recorder->stop();
  EXPECT_EQ(kind([&] { h.recorder->stop(); }), K::alreadyStopping);
  const auto r = h.recorder->finish(token);
  // Nothing arrived: not usable, and said so.
  EXPECT_FALSE(r.usable);
  ASSERT_TRUE(r.failure);
  EXPECT_TRUE(std::holds_alternative<TrackRecordingFailure::NoCapturedAudio>(r.failure->value));
}

TEST(TrackRecorder, FinishWithoutWaitingResolvesOnceTheWriterDrains) {
  Harness h;
  h.recorder->prepare(h.format);
  h.shared->stalled = true;
  h.feed(0, 480);
  h.feed(480, 480);
  const auto token = h.recorder->stop();
  std::promise<TrackRecording> resolved;
  std::atomic<int> calls{0};
  const auto caller = std::this_thread::get_id();
  std::thread::id resolvedOn;
  h.recorder->finish(token, [&](TrackRecording r) {
    resolvedOn = std::this_thread::get_id();
    ++calls;
    resolved.set_value(std::move(r));
  });
  auto future = resolved.get_future();
  // The writer is held back: nothing can be resolved yet.
  EXPECT_EQ(future.wait_for(50ms), std::future_status::timeout);
  h.shared->stalled = false;
  const auto r = future.get();
  EXPECT_EQ(calls, 1);
  EXPECT_NE(resolvedOn, caller);
  EXPECT_EQ(r.clock.totalFrames, 960);
  EXPECT_TRUE(r.usable);
  // Once finished, a late handler runs at once, on the caller's thread, with the same result.
  std::optional<TrackRecording> late;
  h.recorder->finish(token, [&](TrackRecording again) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    late = std::move(again);
  });
  ASSERT_TRUE(late);
  EXPECT_EQ(late->clock.totalFrames, r.clock.totalFrames);
  EXPECT_EQ(h.recorder->finish(token).clock.totalFrames, 960);
}

TEST(TrackRecorder, TimelineGapsAndClock) {
  Harness h(TrackSource::system);
  h.recorder->prepare(h.format);
  h.feed(1000, 480);  // the device's clock starts anywhere: timeline frame 0
  h.feed(1480, 480);
  h.feed(2440, 480);  // 480 frames the device never delivered
  h.feed(2920, 100);
  const auto r = h.stopAndFinish();
  EXPECT_TRUE(r.usable);
  EXPECT_FALSE(r.failure);
  EXPECT_EQ(r.gaps,
            (std::vector<Gap>{{TrackSource::system, 960, 480, CaptureGapReason::captureLoss}}));
  EXPECT_EQ(r.clock.source, TrackSource::system);
  EXPECT_EQ(r.clock.firstSampleTime, 0);
  EXPECT_EQ(r.clock.lastSampleTime, 1920);
  EXPECT_EQ(r.clock.totalFrames, 2020);
  EXPECT_EQ(r.clock.droppedFrames, 480);
  EXPECT_EQ(r.clock.lastHostTime - r.clock.firstHostTime, 1920ull * 1'000'000'000 / 48000);
  EXPECT_EQ(h.shared->frames, 1540);
}

TEST(TrackRecorder, RouteRebindReBasesTheTimelineOnTheHostClock) {
  Harness h;
  h.recorder->prepare(h.format);
  h.feed(0, 480);
  h.feed(480, 480);
  h.recorder->rebindRoute();
  // The new device's clock restarts at 0, one second after the track began.
  h.recorder->accept({h.format, h.samples.data(), 480},
                     {0.0, 1'000'000 + 1'000'000'000, true, true});
  h.recorder->accept({h.format, h.samples.data(), 480},
                     {480.0, 1'000'000 + 1'010'000'000, true, true});
  const auto r = h.stopAndFinish();
  EXPECT_TRUE(r.usable);
  EXPECT_EQ(
      r.gaps,
      (std::vector<Gap>{{TrackSource::mic, 960, 48000 - 960, CaptureGapReason::routeTransition}}));
  EXPECT_EQ(r.clock.totalFrames, 48960);

  // A rebind whose host clock says "earlier than what was produced" still leaves the seam on
  // record: one frame.
  Harness back;
  back.recorder->prepare(back.format);
  back.feed(0, 4800);
  back.recorder->rebindRoute();
  back.recorder->accept({back.format, back.samples.data(), 480}, {7.0, 1'000'000, true, true});
  const auto r2 = back.stopAndFinish();
  EXPECT_EQ(r2.gaps,
            (std::vector<Gap>{{TrackSource::mic, 4800, 1, CaptureGapReason::routeTransition}}));
  EXPECT_EQ(r2.clock.totalFrames, 5281);
}

TEST(TrackRecorder, FailuresAreKeptNotThrown) {
  {
    Harness h;
    h.recorder->prepare(h.format);
    h.feed(0, 480);
    h.recorder->accept({h.format, h.samples.data(), 480}, {NAN, 5, true, true});
    h.feed(480, 480);  // ignored: the track stopped accepting
    const auto r = h.stopAndFinish();
    ASSERT_TRUE(r.failure);
    EXPECT_EQ(r.failure->description(), "invalid timestamp");
    EXPECT_FALSE(r.usable);
    EXPECT_EQ(h.shared->frames, 480);
  }
  {
    Harness h;
    h.shared->failAfter = 1;
    h.recorder->prepare(h.format);
    h.feed(0, 480);
    h.feed(480, 480);
    const auto r = h.stopAndFinish();
    ASSERT_TRUE(r.failure);
    EXPECT_EQ(r.failure->description(), "writer: disk full");
    EXPECT_FALSE(r.usable);
  }
  {
    Harness h;
    h.shared->shortBy = 2;  // a writer that loses time is caught at the end
    h.recorder->prepare(h.format);
    h.feed(0, 480);
    h.feed(480, 480);
    const auto r = h.stopAndFinish();
    ASSERT_TRUE(r.failure);
    EXPECT_EQ(r.failure->description(), "writer: expected 960 frames, wrote 956");
    EXPECT_FALSE(r.usable);
  }
  {
    Harness h;
    h.recorder->prepare(h.format);
    h.feed(4800, 480);
    h.feed(0, 480);  // the device clock went backwards: an accounting failure
    const auto r = h.stopAndFinish();
    ASSERT_TRUE(r.failure);
    EXPECT_EQ(r.failure->description(),
              "accounting: sample time regressed: expected 480, got -4800");
  }
  {
    Harness h;
    h.recorder->prepare(h.format);
    h.feed(0, 480);
    h.recorder->fail({TrackRecordingFailure::MicInputRouteChanged{}});
    const auto r = h.stopAndFinish();
    EXPECT_EQ(r.failure->description(), "mic input route changed");
    EXPECT_TRUE(r.usable);  // what came before the lost route is still there
  }
}

TEST(TrackRecorder, StalledWriterLosesChunksAsGapsWithExactTotals) {
  Harness h;
  h.recorder->maxElementCount = 16;
  h.recorder->prepare(h.format);
  h.shared->stalled = true;
  std::int64_t produced = 0;
  std::vector<std::int64_t> sizes = {480, 441, 1024, 7, 960};
  for (int i = 0; i < 400; ++i) {
    const auto frames = sizes[static_cast<std::size_t>(i) % sizes.size()];
    h.feed(produced, frames);
    produced += frames;
    if (i == 250) h.shared->stalled = false;
    if (i > 250 && i % 3 == 0) std::this_thread::sleep_for(100us);
  }
  h.shared->stalled = true;  // the tail is lost as well
  h.feed(produced, 480);
  produced += 480;
  for (int i = 0; i < 40; ++i) {
    h.feed(produced, 480);
    produced += 480;
  }
  const auto token = h.recorder->stop();
  h.shared->stalled = false;
  const auto r = h.recorder->finish(token);
  EXPECT_GT(h.recorder->chunksDropped(), 0u);
  EXPECT_FALSE(r.failure);
  std::int64_t inGaps = 0;
  std::int64_t expectedStart = -1;
  for (const auto& g : r.gaps) {
    EXPECT_EQ(g.reason, CaptureGapReason::captureLoss);
    EXPECT_GT(g.startSample, expectedStart);
    expectedStart = g.startSample + g.droppedFrames;
    inGaps += g.droppedFrames;
  }
  EXPECT_EQ(h.shared->frames + inGaps, produced);
  EXPECT_EQ(r.clock.totalFrames, produced);
  EXPECT_EQ(r.clock.droppedFrames, inGaps);
  EXPECT_EQ(r.gaps.back().startSample + r.gaps.back().droppedFrames, produced);  // trailing gap
}

TEST(TrackRecorder, RouterDoesNothingOnceTheRecorderIsGone) {
  auto h = std::make_unique<Harness>();
  h->recorder->prepare(h->format);
  CaptureCallbackRouter router(h->recorder);
  std::vector<float> samples(480, 0.1f);
  EXPECT_TRUE(router.deliver({h->format, samples.data(), 480}, {0, 1, true, true}));
  h->recorder->finish(h->recorder->stop());
  h.reset();
  EXPECT_FALSE(router.deliver({AudioFormat{}, samples.data(), 480}, {480, 2, true, true}));
}

TEST(TrackRecorder, BufferCopiesComeFromThePoolAndGoBack) {
  AudioBufferPool pool(4096, 2);
  std::vector<float> samples(1025, 0.25f);
  const AudioFormat format{48000, 1, SampleType::float32, true};
  auto a = AudioBuffer::copyOf({format, samples.data(), 1024}, &pool);
  auto b = AudioBuffer::copyOf({format, samples.data(), 10}, &pool);
  auto c = AudioBuffer::copyOf({format, samples.data(), 10}, &pool);    // pool empty: heap
  auto d = AudioBuffer::copyOf({format, samples.data(), 1025}, &pool);  // too large: heap
  EXPECT_TRUE(a.fromPool());
  EXPECT_TRUE(b.fromPool());
  EXPECT_FALSE(c.fromPool());
  EXPECT_FALSE(d.fromPool());
  EXPECT_EQ(a.floatPlane(0)[1023], 0.25f);
  EXPECT_EQ(pool.inUse(), 2u);
  { auto moved = std::move(a); }
  EXPECT_EQ(pool.inUse(), 1u);
}

class CAFTrackWriterTest : public ::testing::Test {
 protected:
  fs::path dir =
      fs::temp_directory_path() / ("tamsel-caf-" + std::to_string(::getpid()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  void SetUp() override { fs::create_directories(dir); }
  void TearDown() override { fs::remove_all(dir); }

  static std::vector<float> readBack(const fs::path& file, SF_INFO& info) {
    SNDFILE* f = sf_open(file.c_str(), SFM_READ, &info);
    EXPECT_TRUE(f) << sf_strerror(nullptr);
    if (!f) return {};
    std::vector<float> out(static_cast<std::size_t>(info.frames));
    sf_readf_float(f, out.data(), info.frames);
    sf_close(f);
    return out;
  }
};

TEST_F(CAFTrackWriterTest, WritesMonoFloatCAFOwnerOnly) {
  const auto file = dir / "mic.caf";
  {
    std::ofstream(file) << "old";
    ::chmod(file.c_str(), 0644);
    CAFTrackWriter writer(file);
    std::vector<float> ramp(480);
    for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<float>(i) / 480.0f;
    writer.write(AudioBuffer::copyOf({kTrackOutputFormat, ramp.data(), 480}, nullptr));
    writer.write(AudioBuffer::copyOf({kTrackOutputFormat, ramp.data(), 100}, nullptr));
    EXPECT_EQ(writer.framesWritten(), 580);
    EXPECT_EQ(writer.convertersBuilt(), 0);
    writer.close();
    try {
      writer.write(AudioBuffer::copyOf({kTrackOutputFormat, ramp.data(), 1}, nullptr));
      ADD_FAILURE();
    } catch (const CAFTrackWriterException& e) {
      EXPECT_EQ(e.error().kind, CAFTrackWriterError::Kind::writerClosed);
    }
  }
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  SF_INFO info{};
  const auto samples = readBack(file, info);
  EXPECT_EQ(info.format, SF_FORMAT_CAF | SF_FORMAT_FLOAT);
  EXPECT_EQ(info.channels, 1);
  EXPECT_EQ(info.samplerate, 48000);
  ASSERT_EQ(samples.size(), 580u);
  EXPECT_FLOAT_EQ(samples[479], 479.0f / 480.0f);
  EXPECT_FLOAT_EQ(samples[480], 0.0f);
}

TEST_F(CAFTrackWriterTest, ConvertsOtherFormatsWithoutLosingTime) {
  const auto file = dir / "system.caf";
  CAFTrackWriter writer(file);
  // Stereo int16 at 48 kHz: down-mixed, no resampler.
  std::vector<std::int16_t> stereo(2 * 480);
  for (std::size_t i = 0; i < stereo.size(); i += 2) {
    stereo[i] = 16384;
    stereo[i + 1] = 0;
  }
  const AudioFormat s16{48000, 2, SampleType::int16, true};
  writer.write(AudioBuffer::copyOf({s16, stereo.data(), 480}, nullptr));
  writer.write(AudioBuffer::copyOf({s16, stereo.data(), 480}, nullptr));
  EXPECT_EQ(writer.convertersBuilt(), 1);  // cached across buffers of one format
  // 44.1 kHz mono float: resampled; each buffer yields exactly its share of output frames.
  const AudioFormat f441{44100, 1, SampleType::float32, true};
  std::vector<float> tone(441);
  for (std::size_t i = 0; i < tone.size(); ++i)
    tone[i] = 0.5f * std::sin(2 * M_PI * 1000.0 * static_cast<double>(i) / 44100.0);
  for (int i = 0; i < 20; ++i) writer.write(AudioBuffer::copyOf({f441, tone.data(), 441}, nullptr));
  EXPECT_EQ(writer.convertersBuilt(), 2);
  EXPECT_EQ(writer.framesWritten(), 960 + 20 * 480);
  writer.close();
  SF_INFO info{};
  const auto samples = readBack(file, info);
  ASSERT_EQ(samples.size(), 960u + 9600u);
  EXPECT_NEAR(samples[10], 0.25f, 1e-4);
  double energy = 0;
  for (std::size_t i = 960 + 4800; i < samples.size(); ++i) energy += samples[i] * samples[i];
  EXPECT_NEAR(std::sqrt(energy / 4800), 0.5 / std::sqrt(2.0), 0.02);  // the tone came through
}

TEST_F(CAFTrackWriterTest, ConversionErrorTexts) {
  const auto message = [](auto&& f) {
    try {
      f();
    } catch (const CAFTrackWriterException& e) {
      return std::string(e.what());
    }
    return std::string();
  };
  EXPECT_EQ(message([] { CAFTrackWriter::expectedFrameCount(-10, 48000, 48000); }),
            "invalid expected frame count -10");
  EXPECT_EQ(message([] { CAFTrackWriter::expectedFrameCount(10, 0, 48000); }).substr(0, 29),
            "invalid expected frame count ");
  std::int64_t frames = 5;
  EXPECT_EQ(message([&] { CAFTrackWriter::padToExpected(nullptr, frames, 10, 40); }),
            "converted output has no float channel");
  std::vector<float> out(8, 1.0f);
  EXPECT_EQ(message([&] { CAFTrackWriter::padToExpected(out.data(), frames, 10, 8); }),
            "expected 10 frames exceeds capacity 8");
  CAFTrackWriter::padToExpected(out.data(), frames, 7, 8);
  EXPECT_EQ(frames, 7);
  EXPECT_EQ(out[4], 1.0f);
  EXPECT_EQ(out[6], 0.0f);
  EXPECT_EQ(out[7], 1.0f);
  EXPECT_THROW(CAFTrackWriter(dir / "no" / "such" / "dir.caf"), std::runtime_error);
}

TEST_F(CAFTrackWriterTest, TheFinalJournalOfAFailedTrackNamesTheFailure) {
  TrackRecorder recorder(TrackSource::system, dir / "system.caf");
  recorder.journalURL = dir / "system.journal.json";
  recorder.prepare(kTrackOutputFormat);
  recorder.fail(TrackRecordingFailure{TrackRecordingFailure::SystemExclusion{"no tap"}});
  const auto r = recorder.finish(recorder.stop());
  std::string text;
  ASSERT_TRUE(base::readFile(dir / "system.journal.json", text));
  const auto journal = boost::json::parse(text).as_object();
  EXPECT_EQ(journal.at("usable"), false);
  ASSERT_TRUE(r.failure);
  EXPECT_EQ(journal.at("failure").as_string(), r.failure->description());
}

TEST_F(CAFTrackWriterTest, RecorderKeepsAJournalBesideTheTrack) {
  const auto file = dir / "mic.caf";
  TrackRecorder recorder(TrackSource::mic, file);
  recorder.journalURL = dir / "mic.journal.json";
  recorder.journalInterval = 0ms;
  recorder.prepare(kTrackOutputFormat);
  std::vector<float> samples(480, 0.1f);
  recorder.accept({kTrackOutputFormat, samples.data(), 480}, {0, 1000, true, true});
  recorder.accept({kTrackOutputFormat, samples.data(), 480}, {960, 2000, true, true});
  const auto r = recorder.finish(recorder.stop());
  std::string text;
  ASSERT_TRUE(base::readFile(dir / "mic.journal.json", text));
  const auto journal = boost::json::parse(text).as_object();
  EXPECT_EQ(journal.at("finished"), true);
  EXPECT_EQ(journal.at("frames_written"), 960);
  ASSERT_EQ(journal.at("gaps").as_array().size(), 1u);
  EXPECT_EQ(gapFromJSON(journal.at("gaps").as_array()[0]), r.gaps[0]);
  EXPECT_EQ(trackClockFromJSON(journal.at("clock"))->totalFrames, 1440);
  // The final journal says how the track ended, for a seal in another process.
  EXPECT_EQ(journal.at("usable"), true);
  EXPECT_TRUE(journal.at("failure").is_null());
  SF_INFO info{};
  EXPECT_EQ(readBack(file, info).size(), 960u);
}

}  // namespace
}  // namespace tamsel::meeting
