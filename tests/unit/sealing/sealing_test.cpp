// Sealing: the timeline plan, the renderer on real CAF files, the signal check, the hasher, the
// manifest, reading tracks back from their journals, the seams of the parallel encoder (decoded
// with the ffmpeg tool) and whole seals with their failures, leftovers and job records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/json.hpp>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "../test_support.hpp"
#include "tamsel/base/atomic_file.hpp"
#include "tamsel/base/json.hpp"
#include "tamsel/meeting/meeting_job.hpp"
#include "tamsel/sealing/audio_artifact_sealer.hpp"
#include "tamsel/sealing/meeting_sealer.hpp"

namespace tamsel::sealing {
namespace {

namespace fs = std::filesystem;
using meeting::CaptureGapReason;
constexpr int kRate = 48000;

std::vector<float> tone(std::int64_t frames, double hz, float amplitude = 0.3f) {
  std::vector<float> out(static_cast<std::size_t>(frames));
  for (std::int64_t i = 0; i < frames; ++i)
    out[static_cast<std::size_t>(i)] =
        amplitude * static_cast<float>(std::sin(2 * M_PI * hz * static_cast<double>(i) / kRate));
  return out;
}

void writeCAF(const fs::path& path, const std::vector<float>& samples, int channels = 1,
              int rate = kRate) {
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = channels;
  info.format = SF_FORMAT_CAF | SF_FORMAT_FLOAT;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size()) / channels);
  sf_close(file);
}

std::vector<float> readCAF(const fs::path& path, int& channels) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  std::vector<float> out(static_cast<std::size_t>(info.frames * info.channels));
  sf_readf_float(file, out.data(), info.frames);
  sf_close(file);
  channels = info.channels;
  return out;
}

TrackClock clockFor(TrackSource source, std::int64_t frames, std::uint64_t firstHost,
                    double ppm = 0) {
  TrackClock c;
  c.source = source;
  c.totalFrames = frames;
  c.firstHostTime = firstHost;
  const double seconds = static_cast<double>(frames) / kRate / (1.0 + ppm * 1e-6);
  c.lastHostTime = firstHost + static_cast<std::uint64_t>(std::llround(seconds * 1e9));
  c.firstSampleTime = 0;
  c.lastSampleTime = frames;
  return c;
}

void writeJournal(const fs::path& folder, const TrackClock& clock, const std::vector<Gap>& gaps,
                  std::optional<bool> usable = true, const std::string& failure = "") {
  boost::json::array g;
  for (const auto& gap : gaps) g.push_back(meeting::toJSON(gap));
  boost::json::object o{{"raw_file", std::string(meeting::toString(clock.source)) + ".caf"},
                        {"clock", meeting::toJSON(clock)},
                        {"gaps", g},
                        {"finished", usable.has_value()}};
  if (usable) o["usable"] = *usable;
  if (!failure.empty()) o["failure"] = failure;
  base::writeFileAtomically(MeetingRecordingPaths::in(folder).journal(clock.source),
                            boost::json::serialize(o));
}

// A folder as capture leaves it: the mic a 1000 Hz tone, the system track a 440 Hz tone.
void makeMeeting(const fs::path& folder, double seconds, bool withSystem = true,
                 double systemLateSeconds = 0, double systemPPM = 0) {
  const auto frames = static_cast<std::int64_t>(seconds * kRate);
  writeCAF(folder / "mic.caf", tone(frames, 1000));
  writeJournal(folder, clockFor(TrackSource::mic, frames, 1'000'000'000), {});
  if (withSystem) {
    writeCAF(folder / "system.caf", tone(frames, 440));
    writeJournal(
        folder,
        clockFor(TrackSource::system, frames,
                 1'000'000'000 + static_cast<std::uint64_t>(systemLateSeconds * 1e9), systemPPM),
        {});
  }
}

std::vector<std::string> filesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(folder)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// ---- plan ----

TEST(RenderPlan, PlacesTheLaterTrackByTheHostClockAndCorrectsDriftToTheHostLength) {
  MeetingSealingInput input;
  input.mic.clock = clockFor(TrackSource::mic, 480000, 5'000'000'000);
  input.system = PersistedTrackRecording{};
  input.system->clock = clockFor(TrackSource::system, 480000, 5'250'000'000, 20.0);

  auto plan = RenderPlan::make(input, 480000, 480000);
  EXPECT_EQ(plan.mic.startFrame, 0);
  EXPECT_EQ(plan.system.startFrame, 12000);  // 0.25 s late
  EXPECT_DOUBLE_EQ(plan.drift.interTrackOffsetSeconds, 0.25);
  EXPECT_NEAR(plan.drift.systemPPM, 20.0, 0.01);
  EXPECT_TRUE(plan.system.resample);
  EXPECT_FALSE(plan.mic.resample);  // an exact clock is left alone
  EXPECT_TRUE(plan.drift.resampleApplied);
  EXPECT_EQ(plan.system.outputFrames, std::llround(480000 / (1 + plan.system.ppm * 1e-6)));
  EXPECT_EQ(plan.system.outputFrames, 479990);
  EXPECT_EQ(plan.totalFrames, 12000 + 479990);

  // The system track first: the microphone moves instead.
  input.system->clock = clockFor(TrackSource::system, 480000, 4'750'000'000, 0.5);
  plan = RenderPlan::make(input, 480000, 480000);
  EXPECT_EQ(plan.mic.startFrame, 12000);
  EXPECT_EQ(plan.system.startFrame, 0);
  EXPECT_DOUBLE_EQ(plan.drift.interTrackOffsetSeconds, -0.25);
  EXPECT_FALSE(plan.drift.resampleApplied);  // below 1 ppm
  EXPECT_EQ(plan.system.outputFrames, 480000);
}

TEST(RenderPlan, TakesTheLengthFromTheFileWhenACrashLeftTheJournalBehind) {
  MeetingSealingInput input;
  input.mic.clock = clockFor(TrackSource::mic, 48000, 1'000'000'000);
  input.mic.gaps = {{TrackSource::mic, 1000, 480, CaptureGapReason::captureLoss}};
  // The journal counted 1 s; the file went on for 2 s more before the process died.
  auto plan = RenderPlan::make(input, 3 * 48000, std::nullopt);
  EXPECT_EQ(plan.mic.sourceFrames, 3 * 48000 + 480);
  EXPECT_FALSE(plan.system.present);
  EXPECT_EQ(plan.totalFrames, 3 * 48000 + 480);

  // No journal at all: no host times, so no offset and no drift.
  MeetingSealingInput bare;
  bare.mic.clock.source = TrackSource::mic;
  bare.system = PersistedTrackRecording{};
  bare.system->clock.source = TrackSource::system;
  plan = RenderPlan::make(bare, 1000, 2000);
  EXPECT_EQ(plan.system.startFrame, 0);
  EXPECT_EQ(plan.totalFrames, 2000);
  EXPECT_FALSE(plan.drift.resampleApplied);
}

// ---- renderer ----

class RendererTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  MeetingRecordingPaths paths = MeetingRecordingPaths::in(dir.path());

  std::vector<float> render(const MeetingSealingInput& input, std::int64_t blockSize = 1000) {
    StereoTimelineRenderer renderer(blockSize);
    const auto plan = renderer.plan(input);
    renderer.render(input, plan, dir.path() / "mic.render.caf", paths.renderedStereoCAF);
    EXPECT_FALSE(fs::exists(dir.path() / "mic.render.caf"));
    int channels = 0;
    auto out = readCAF(paths.renderedStereoCAF, channels);
    EXPECT_EQ(channels, 2);
    return out;
  }
};

TEST_F(RendererTest, GapsAreSilenceInPlaceAndTheLaterTrackIsShifted) {
  // Mic: 1.0 s of samples 1..N around a 4800-frame gap at 0.5 s; system: starts 0.25 s late.
  std::vector<float> mic(48000);
  for (std::size_t i = 0; i < mic.size(); ++i) mic[i] = static_cast<float>(i + 1) / 1e5f;
  writeCAF(paths.micCAF, mic);
  std::vector<float> system(24000, 0.5f);
  system[0] = 0.25f;
  writeCAF(paths.systemCAF, system);
  const Gap gap{TrackSource::mic, 24000, 4800, CaptureGapReason::routeTransition};
  writeJournal(dir.path(), clockFor(TrackSource::mic, 48000 + 4800, 2'000'000'000), {gap});
  writeJournal(dir.path(), clockFor(TrackSource::system, 24000, 2'250'000'000), {});
  const auto input = MeetingSealingInput::load(paths);

  const auto out = render(input, 777);  // a block size that cuts across the gap
  ASSERT_EQ(out.size(), 2u * (48000 + 4800));
  const auto left = [&](std::size_t i) { return out[2 * i]; };
  const auto right = [&](std::size_t i) { return out[2 * i + 1]; };
  EXPECT_FLOAT_EQ(left(0), 1e-5f);
  EXPECT_FLOAT_EQ(left(23999), 24000e-5f);
  for (std::size_t i = 24000; i < 28800; ++i) ASSERT_EQ(left(i), 0.0f) << i;
  EXPECT_FLOAT_EQ(left(28800), 24001e-5f);  // the file goes on where it stopped
  EXPECT_FLOAT_EQ(left(48000 + 4799), 48000e-5f);
  for (std::size_t i = 0; i < 12000; ++i) ASSERT_EQ(right(i), 0.0f) << i;
  EXPECT_FLOAT_EQ(right(12000), 0.25f);
  EXPECT_FLOAT_EQ(right(12001), 0.5f);
  EXPECT_FLOAT_EQ(right(12000 + 23999), 0.5f);
  EXPECT_EQ(right(12000 + 24000), 0.0f);  // ended: silence to the timeline's end
}

TEST_F(RendererTest, MicrophoneAloneHasASilentRightChannel) {
  writeCAF(paths.micCAF, tone(4800, 1000));
  const auto out = render(MeetingSealingInput::load(paths));
  ASSERT_EQ(out.size(), 2u * 4800);
  float leftPeak = 0;
  for (std::size_t i = 0; i < 4800; ++i) {
    ASSERT_EQ(out[2 * i + 1], 0.0f);
    leftPeak = std::max(leftPeak, std::abs(out[2 * i]));
  }
  EXPECT_GT(leftPeak, 0.29f);
}

TEST_F(RendererTest, DriftIsResampledToExactlyTheHostClockLength) {
  const std::int64_t frames = 10 * kRate;
  writeCAF(paths.micCAF, tone(frames, 1000));
  writeCAF(paths.systemCAF, tone(frames, 440));
  writeJournal(dir.path(), clockFor(TrackSource::mic, frames, 1'000'000'000), {});
  writeJournal(dir.path(), clockFor(TrackSource::system, frames, 1'000'000'000, 20.0), {});
  const auto input = MeetingSealingInput::load(paths);
  const auto plan = StereoTimelineRenderer().plan(input);
  ASSERT_TRUE(plan.system.resample);
  EXPECT_EQ(plan.system.outputFrames, frames - 10);  // 20 ppm of 480000
  const auto out = render(input, 4096);
  ASSERT_EQ(out.size(), 2u * static_cast<std::size_t>(frames));  // the mic sets the length
  // The resampled tone is still a full-level 440 Hz tone up to its new end, then silence.
  double energy = 0;
  for (std::int64_t i = frames - 4000; i < frames - 10; ++i)
    energy += out[static_cast<std::size_t>(2 * i + 1)] * out[static_cast<std::size_t>(2 * i + 1)];
  EXPECT_NEAR(std::sqrt(energy / 3990), 0.3 / std::sqrt(2), 0.01);
  for (std::int64_t i = frames - 10; i < frames; ++i)
    EXPECT_EQ(out[static_cast<std::size_t>(2 * i + 1)], 0.0f);
}

TEST_F(RendererTest, RefusesWhatItCannotLayOnTheTimeline) {
  const auto kindOf = [&](const MeetingSealingInput& input) {
    try {
      StereoTimelineRenderer().plan(input);
    } catch (const StereoTimelineRendererException& e) {
      return std::optional(e.error().kind);
    }
    return std::optional<StereoTimelineRendererError::Kind>();
  };
  using K = StereoTimelineRendererError::Kind;
  EXPECT_THROW(StereoTimelineRenderer(0), StereoTimelineRendererException);
  try {
    StereoTimelineRenderer(-5);
  } catch (const StereoTimelineRendererException& e) {
    EXPECT_EQ(e.error().kind, K::invalidBlockSize);
  }

  writeCAF(paths.micCAF, std::vector<float>(200, 0.1f), 2);
  EXPECT_EQ(kindOf(MeetingSealingInput::load(paths)), K::nonMonoInput);

  writeCAF(paths.micCAF, std::vector<float>(200, 0.1f), 1, 44100);
  EXPECT_EQ(kindOf(MeetingSealingInput::load(paths)), K::cannotCreateFormat);

  writeCAF(paths.micCAF, std::vector<float>(200, 0.1f));
  writeJournal(dir.path(), clockFor(TrackSource::mic, 200, 1), {}, false, "no captured audio");
  auto input = MeetingSealingInput::load(paths);
  EXPECT_EQ(kindOf(input), K::failedTrack);
  try {
    StereoTimelineRenderer().plan(input);
  } catch (const StereoTimelineRendererException& e) {
    EXPECT_EQ(e.error().description(), "mic: the track's recording failed (no captured audio)");
  }

  // A clock 10 % off: not a drift to follow.
  writeJournal(dir.path(), clockFor(TrackSource::mic, 200, 1'000'000'000, 100'000), {});
  input = MeetingSealingInput::load(paths);
  const auto plan = StereoTimelineRenderer().plan(input);
  try {
    StereoTimelineRenderer().render(input, plan, dir.path() / "w.caf", dir.path() / "r.caf");
    ADD_FAILURE() << "followed a broken clock";
  } catch (const StereoTimelineRendererException& e) {
    EXPECT_EQ(e.error().kind, K::cannotCreateConverter);
  }

  // A journal of the other source beside "mic.caf".
  writeJournal(dir.path(), clockFor(TrackSource::system, 200, 1), {});
  fs::rename(paths.journal(TrackSource::system), paths.journal(TrackSource::mic));
  EXPECT_EQ(kindOf(MeetingSealingInput::load(paths)), K::unexpectedTrack);
}

// ---- reading back ----

TEST(MeetingSealingInput, ReadsTracksBackFromTheirJournals) {
  test::TempDir dir;
  const auto paths = MeetingRecordingPaths::in(dir.path());
  auto load = [&] { return MeetingSealingInput::load(paths); };
  const auto kindOf = [&] {
    try {
      load();
    } catch (const AudioArtifactSealerException& e) {
      return std::optional(e.error().kind);
    }
    return std::optional<AudioArtifactSealerError::Kind>();
  };
  EXPECT_EQ(kindOf(), AudioArtifactSealerError::Kind::missingTrack);

  writeCAF(paths.micCAF, std::vector<float>(100, 0.1f));
  auto input = load();
  EXPECT_TRUE(input.mic.usable);  // no journal: taken as one stretch
  EXPECT_FALSE(input.system);

  const Gap gap{TrackSource::system, 10, 20, CaptureGapReason::captureLoss};
  writeCAF(paths.systemCAF, std::vector<float>(100, 0.1f));
  writeJournal(dir.path(), clockFor(TrackSource::system, 120, 7), {gap}, std::nullopt);
  input = load();
  ASSERT_TRUE(input.system);
  EXPECT_EQ(input.system->gaps, std::vector<Gap>{gap});
  EXPECT_EQ(input.system->clock.firstHostTime, 7u);
  EXPECT_TRUE(input.system->usable);  // a journal cut by a crash: what reached the file holds

  std::ofstream(paths.journal(TrackSource::system)) << "{\"clock\": 3";
  EXPECT_EQ(kindOf(), AudioArtifactSealerError::Kind::unreadableInput);
  std::ofstream(paths.journal(TrackSource::system))
      << R"({"clock":)"
      << boost::json::serialize(meeting::toJSON(clockFor(TrackSource::system, 1, 1)))
      << R"(,"gaps":[{"track":"system","startSample":5,"droppedFrames":-3,"reason":"captureLoss"}]})";
  EXPECT_EQ(kindOf(), AudioArtifactSealerError::Kind::unreadableInput);
}

// ---- analyser, hasher, manifest ----

TEST(DigitalAudioSignalAnalyzer, OnlyExactZerosAreSilence) {
  DigitalAudioSignalAnalyzer zeros;
  std::vector<float> block(2000, 0.0f);
  zeros.observe(block.data(), 1000);
  EXPECT_FALSE(zeros.hasSignal());

  DigitalAudioSignalAnalyzer right;
  block[2 * 999 + 1] = 1e-30f;  // the very last right sample, denormal-small
  right.observe(block.data(), 1000);
  EXPECT_TRUE(right.hasSignal());
  EXPECT_FALSE(right.leftHasSignal());
  EXPECT_TRUE(right.rightHasSignal());

  DigitalAudioSignalAnalyzer nan;
  block.assign(2000, 0.0f);
  block[4] = std::nanf("");
  nan.observe(block.data(), 1000);
  EXPECT_TRUE(nan.leftHasSignal());
}

TEST(MeetingFileHasher, StreamsTheFileInBlocksToTheSameDigest) {
  test::TempDir dir;
  const auto file = dir.path() / "f";
  std::ofstream(file) << "abc";
  for (std::size_t block : {1u, 2u, 4096u})
    EXPECT_EQ(MeetingFileHasher(block).sha256Hex(file),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::string big(3'000'001, 'x');
  std::ofstream(file, std::ios::trunc) << big;
  EXPECT_EQ(MeetingFileHasher(1 << 20).sha256Hex(file), MeetingFileHasher(7).sha256Hex(file));
  EXPECT_THROW(MeetingFileHasher().sha256Hex(dir.path() / "missing"), std::system_error);
}

TEST(JSONMeetingManifestEncoder, WritesTheKeysInTheirOrder) {
  TrackManifest m;
  PersistedTrackRecording mic;
  mic.rawFilePath = "/somewhere/mic.caf";
  mic.clock = clockFor(TrackSource::mic, 96000, 1);
  mic.usable = true;
  m.tracks = {mic};
  m.combinedDuration = 2.5;
  m.gaps = {{TrackSource::mic, 100, 50, CaptureGapReason::captureLoss}};
  m.driftCorrection = {1.5, -2.0, 0.25, true};
  m.sha256 = "00ff";
  const auto text = JSONMeetingManifestEncoder::encode(m);
  const auto json = base::json::parse(text).as_object();
  std::vector<std::string> keys;
  for (const auto& kv : json) keys.emplace_back(kv.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"formatVersion", "tracks", "combinedDuration", "gaps",
                                            "trackMapping", "driftCorrection", "sha256"}));
  EXPECT_EQ(json.at("formatVersion").as_int64(), 1);
  EXPECT_EQ(json.at("tracks").as_array()[0].at("file").as_string(), "mic.caf");
  EXPECT_EQ(json.at("trackMapping").at("left").as_string(), "mic");
  EXPECT_EQ(json.at("trackMapping").at("right").as_string(), "system");
  EXPECT_EQ(json.at("driftCorrection").at("systemPPM").as_double(), -2.0);
  EXPECT_EQ(json.at("gaps").as_array()[0].at("droppedFrames").as_int64(), 50);
  EXPECT_NE(text.find("\"combinedDuration\":2.5"), std::string::npos);  // not 2.5E0
}

// ---- encoder seams, checked by decoding with the ffmpeg tool ----

bool haveTool(const char* name) {
  return std::system((std::string("command -v ") + name + " >/dev/null 2>&1").c_str()) == 0;
}

std::vector<float> decodeStereo(const fs::path& m4a) {
  const std::string command = "ffmpeg -v error -i '" + m4a.string() + "' -f f32le -ac 2 -";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run ffmpeg");
  std::vector<float> out;
  float buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, sizeof(float), 4096, pipe)) > 0)
    out.insert(out.end(), buffer, buffer + n);
  ::pclose(pipe);
  return out;
}

class VectorSource : public StereoFrameSource {
 public:
  explicit VectorSource(std::vector<float> frames) : frames_(std::move(frames)) {}
  std::int64_t totalFrames() const override {
    return static_cast<std::int64_t>(frames_.size() / 2);
  }
  void read(std::int64_t start, std::int64_t count, float* out) override {
    std::copy_n(frames_.begin() + 2 * start, 2 * count, out);
  }

 private:
  std::vector<float> frames_;
};

// The decoded error (decoded − original) in each seam's neighbourhood against the median
// error of the whole file, on the left channel.
double worstSeamErrorRatio(const std::vector<float>& original, const std::vector<float>& decoded,
                           std::int64_t segment) {
  const std::int64_t frames = static_cast<std::int64_t>(original.size() / 2);
  constexpr std::int64_t window = 512;
  const auto errorAt = [&](std::int64_t from) {
    double e = 0;
    for (std::int64_t i = from; i < from + window; ++i) {
      const double d =
          decoded[static_cast<std::size_t>(2 * i)] - original[static_cast<std::size_t>(2 * i)];
      e += d * d;
    }
    return std::sqrt(e / window);
  };
  std::vector<double> all;
  for (std::int64_t at = 4096; at + window < frames - 4096; at += window)
    all.push_back(errorAt(at));
  std::nth_element(all.begin(), all.begin() + static_cast<long>(all.size() / 2), all.end());
  const double typical = all[all.size() / 2];
  double worst = 0;
  for (std::int64_t seam = segment; seam < frames - window; seam += segment)
    for (std::int64_t at = seam - 2 * window; at <= seam + window; at += window / 2)
      worst = std::max(worst, errorAt(at) / typical);
  return worst;
}

TEST(M4AAudioEncoder, ParallelSegmentsDecodeWithoutClicksAtTheSeams) {
  if (!haveTool("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed";
  test::TempDir dir;
  const std::int64_t frames = 3 * kRate;
  std::vector<float> stereo(2 * static_cast<std::size_t>(frames));
  const auto left = tone(frames, 440), right = tone(frames, 1000, 0.2f);
  for (std::int64_t i = 0; i < frames; ++i) {
    stereo[static_cast<std::size_t>(2 * i)] = left[static_cast<std::size_t>(i)];
    stereo[static_cast<std::size_t>(2 * i + 1)] = right[static_cast<std::size_t>(i)];
  }
  VectorSource source(stereo);
  M4AEncoderOptions options;
  options.segmentFrames = 24 * 1024;  // 0.512 s: five seams in three seconds
  options.workers = 3;

  const auto encode = [&](M4AEncoderOptions o, const char* name) {
    const auto path = dir.path() / name;
    std::int64_t lastProgress = 0;
    M4AAudioEncoder(o).encode(source, path,
                              [&](std::int64_t f) { lastProgress = std::max(lastProgress, f); });
    EXPECT_EQ(lastProgress, frames);
    return decodeStereo(path);
  };
  const auto clean = encode(options, "overlap.m4a");
  // The edit list removes the priming once (the tool decodes the last packet whole, so up to
  // 1023 frames of padding may follow; ffprobe reports the exact duration).
  ASSERT_GE(clean.size(), stereo.size());
  ASSERT_LT(clean.size(), stereo.size() + 2 * 1024);
  // One pass over the whole timeline: how much the error varies anyway at those places.
  auto onePass = options;
  onePass.segmentFrames = frames + 1024;
  const double reference =
      worstSeamErrorRatio(stereo, encode(onePass, "one-pass.m4a"), options.segmentFrames);
  const double seams = worstSeamErrorRatio(stereo, clean, options.segmentFrames);
  EXPECT_LT(seams, 1.5 * reference) << "one pass: " << reference;

  // The same cut without the overlap clicks: the check above can see a bad seam.
  auto naive = options;
  naive.overlapFrames = 0;
  const auto clicking = encode(naive, "naive.m4a");
  ASSERT_GE(clicking.size(), stereo.size());
  EXPECT_GT(worstSeamErrorRatio(stereo, clicking, options.segmentFrames), 20 * reference);
}

// ---- whole seals ----

class SealTest : public ::testing::Test {
 protected:
  test::TempDir root;
  fs::path folder = root.path() / "2026-01-05T09-00-00Z";
  MeetingRecordingPaths paths = MeetingRecordingPaths::in(folder);
  void SetUp() override { fs::create_directories(folder); }
  static AudioArtifactSealer::Options smallSegments() {
    AudioArtifactSealer::Options o;
    o.encoder.segmentFrames = kRate;  // several segments even for short meetings
    o.renderBlockSize = 4096;
    return o;
  }
  std::optional<meeting::MeetingJobRecord> job() const {
    return meeting::MeetingJobStore(root.path()).load(folder);
  }
};

TEST_F(SealTest, InstallsTheArtifactAndManifestAndQueuesTheJob) {
  makeMeeting(folder, 3.0, true, 0.25, 20.0);
  std::vector<SealingProgress> seen;
  const auto result = MeetingSealer(smallSegments()).seal(folder, [&](const SealingProgress& p) {
    seen.push_back(p);
  });
  ASSERT_TRUE(result.output) << result.error;
  // Progress only moves forward and ends complete.
  ASSERT_FALSE(seen.empty());
  for (std::size_t i = 1; i < seen.size(); ++i) {
    EXPECT_GE(seen[i].framesEncoded, seen[i - 1].framesEncoded);
    EXPECT_GE(seen[i].framesRendered, seen[i - 1].framesRendered);
    EXPECT_GE(seen[i].fraction(), seen[i - 1].fraction());
  }
  EXPECT_EQ(seen.back().stage, SealingStage::finished);
  EXPECT_EQ(seen.back().framesEncoded, seen.back().totalFrames);
  EXPECT_EQ(seen.back().framesRendered, seen.back().totalFrames);
  EXPECT_EQ(seen.back().fraction(), 1.0);
  const auto& out = *result.output;
  EXPECT_EQ(out.artifact.combinedFileURL, paths.combinedM4A);
  EXPECT_EQ(out.manifestURL, paths.manifestJSON);
  EXPECT_EQ(out.rawTrackURLs, (std::vector<fs::path>{paths.micCAF, paths.systemCAF}));
  EXPECT_EQ(filesIn(folder),
            (std::vector<std::string>{"combined.m4a", "job.json", "manifest.json", "mic.caf",
                                      "mic.journal.json", "system.caf", "system.journal.json"}));
  for (const auto& f : {paths.combinedM4A, paths.manifestJSON})
    EXPECT_EQ(fs::status(f).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);

  std::string text;
  ASSERT_TRUE(base::readFile(paths.manifestJSON, text));
  const auto manifest = base::json::parse(text).as_object();
  EXPECT_EQ(manifest.at("sha256").as_string(), MeetingFileHasher().sha256Hex(paths.combinedM4A));
  EXPECT_TRUE(manifest.at("driftCorrection").at("resampleApplied").as_bool());
  EXPECT_DOUBLE_EQ(manifest.at("driftCorrection").at("interTrackOffsetSeconds").as_double(), 0.25);
  // 0.25 s late, 3 s long and 20 ppm short.
  EXPECT_NEAR(manifest.at("combinedDuration").as_double(), 3.25 - 3 * 20e-6, 1.0 / kRate);

  const auto record = job();
  ASSERT_TRUE(record);
  EXPECT_EQ(record->state, meeting::MeetingJobState::queued);
  EXPECT_EQ(record->artifactSHA256, std::optional<std::string>(manifest.at("sha256").as_string()));
  EXPECT_FALSE(record->lastError);
  EXPECT_EQ(result.jobState, std::optional<std::string>("queued"));
}

TEST_F(SealTest, ASecondSealReplacesBothFilesAndKeepsTheJobsIdentity) {
  makeMeeting(folder, 1.0);
  ASSERT_TRUE(MeetingSealer().seal(folder).output);
  const auto firstID = job()->id;
  struct stat before {};
  ::stat(paths.combinedM4A.c_str(), &before);
  // A reader holding the old file keeps reading the old file whole.
  const int oldFd = ::open(paths.combinedM4A.c_str(), O_RDONLY);
  const auto oldSize = fs::file_size(paths.combinedM4A);
  const auto again = MeetingSealer().seal(folder);
  ASSERT_TRUE(again.output);
  struct stat after {};
  ::stat(paths.combinedM4A.c_str(), &after);
  EXPECT_NE(before.st_ino, after.st_ino);  // a new file put in place, not rewritten in place
  struct stat held {};
  ::fstat(oldFd, &held);
  EXPECT_EQ(static_cast<std::uintmax_t>(held.st_size), oldSize);
  ::close(oldFd);
  EXPECT_EQ(job()->id, firstID);
  EXPECT_EQ(job()->artifactSHA256, again.output->artifact.manifest.sha256);
}

TEST_F(SealTest, AllZeroTracksFailWithNoCapturedSignalAndLeaveNothing) {
  const std::vector<float> zeros(kRate, 0.0f);
  writeCAF(paths.micCAF, zeros);
  writeCAF(paths.systemCAF, zeros);
  try {
    AudioArtifactSealer(smallSegments()).seal(folder);
    FAIL() << "sealed silence";
  } catch (const AudioArtifactSealerException& e) {
    EXPECT_EQ(e.error().kind, AudioArtifactSealerError::Kind::noCapturedSignal);
  }
  EXPECT_EQ(filesIn(folder), (std::vector<std::string>{"mic.caf", "system.caf"}));

  const auto result = MeetingSealer().seal(folder);
  EXPECT_TRUE(result.noCapturedSignal);
  EXPECT_FALSE(result.retryable);
  EXPECT_EQ(job()->state, meeting::MeetingJobState::sealingFailed);
  EXPECT_NE(job()->lastError.value_or("").find("no captured signal"), std::string::npos);
}

TEST_F(SealTest, AFailedOrCancelledSealLeavesOnlyTheRawTracksAndIsRetried) {
  makeMeeting(folder, 4.0);
  // What a killed seal leaves behind, and files that only look alike.
  const std::string uuid = "0A1B2C3D-0000-4000-8000-00000000ABCD";
  for (const auto& name : {"combined.tmp." + uuid + ".m4a", "manifest.tmp." + uuid + ".json",
                           std::string("mic.render.caf"), std::string("rendered.caf")})
    std::ofstream(folder / name) << "partial";
  std::ofstream(folder / "combined.tmp.notes.m4a") << "mine";

  std::atomic<bool> cancel{false};
  std::atomic<int> calls{0};
  auto options = smallSegments();
  options.encoder.segmentFrames = kRate / 4;
  const auto result = MeetingSealer(options).seal(
      folder,
      [&](const SealingProgress& p) {
        if (p.framesEncoded > kRate && ++calls == 1) cancel = true;
      },
      &cancel);
  EXPECT_FALSE(result.output);
  EXPECT_TRUE(result.retryable);
  EXPECT_EQ(job()->state, meeting::MeetingJobState::retryableFailed);
  EXPECT_EQ(filesIn(folder),
            (std::vector<std::string>{"combined.tmp.notes.m4a", "job.json", "mic.caf",
                                      "mic.journal.json", "system.caf", "system.journal.json"}));

  const auto retried = MeetingSealer().seal(folder);
  ASSERT_TRUE(retried.output) << retried.error;
  EXPECT_EQ(job()->state, meeting::MeetingJobState::queued);
  // The result does not depend on the failed attempt: the same bytes as a fresh seal elsewhere.
  test::TempDir other;
  makeMeeting(other.path(), 4.0);
  const auto fresh = MeetingSealer().seal(other.path());
  ASSERT_TRUE(fresh.output);
  EXPECT_EQ(fresh.output->artifact.manifest.sha256, retried.output->artifact.manifest.sha256);
}

TEST_F(SealTest, ASecondSealOfTheSameFolderAtOnceIsRefused) {
  makeMeeting(folder, 1.0);
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(::flock(fd, LOCK_EX), 0);
  try {
    AudioArtifactSealer().seal(folder);
    FAIL() << "sealed a folder another seal holds";
  } catch (const AudioArtifactSealerException& e) {
    EXPECT_EQ(e.error().kind, AudioArtifactSealerError::Kind::sealInProgress);
    EXPECT_TRUE(e.error().retryable());
  }
  // The running seal's job record is left as it has it.
  meeting::MeetingJobRecord running;
  running.id = "J";
  running.state = meeting::MeetingJobState::sealing;
  meeting::MeetingJobStore(root.path()).save(folder, running);
  const auto refused = MeetingSealer().seal(folder);
  EXPECT_FALSE(refused.output);
  EXPECT_TRUE(refused.retryable);
  EXPECT_NE(refused.error.find("another seal"), std::string::npos);
  EXPECT_EQ(job(), running);
  ::close(fd);
  EXPECT_FALSE(fs::exists(paths.combinedM4A));
}

TEST(AudioArtifactSealer, NamesTemporariesBesideTheFinal) {
  const auto p = AudioArtifactSealer::temporaryPathFor("/m/combined.m4a");
  EXPECT_EQ(p.parent_path(), "/m");
  EXPECT_TRUE(
      std::regex_match(p.filename().string(), std::regex(R"(combined\.tmp\.[0-9A-F-]{36}\.m4a)")))
      << p;
  EXPECT_NE(p, AudioArtifactSealer::temporaryPathFor("/m/combined.m4a"));
}

}  // namespace
}  // namespace tamsel::sealing
