// Microphone warnings: digital silence, low signal, and what gets published for one buffer.
#include "tamsel/meeting/signal_monitors.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "tamsel/meeting/audio_buffer.hpp"

namespace tamsel::meeting {
namespace {

using A = MicrophoneSignalActivity;

TEST(BufferLevel, SilenceIsExactZerosAndNaNIsSignal) {
  const AudioFormat mono{48000, 1, SampleType::float32, true};
  std::vector<float> zeros(480, 0.0f);
  auto level = measure(mono, zeros.data(), 480);
  EXPECT_TRUE(level.hasLevel);
  EXPECT_TRUE(level.digitallySilent);
  EXPECT_EQ(level.rms, 0.0);
  zeros[100] = NAN;
  EXPECT_FALSE(measure(mono, zeros.data(), 480).digitallySilent);
  zeros[100] = -0.0f;  // negative zero is still a zero
  EXPECT_TRUE(measure(mono, zeros.data(), 480).digitallySilent);
  const std::vector<float> square = {0.5f, -0.5f, 0.5f, -0.5f};
  EXPECT_DOUBLE_EQ(measure({48000, 2, SampleType::float32, true}, square.data(), 2).rms, 0.5);
  EXPECT_FALSE(measure({48000, 1, SampleType::int16, true}, square.data(), 2).hasLevel);
  EXPECT_FALSE(measure(mono, square.data(), 0).hasLevel);
}

TEST(DigitalSilenceMonitor, WarnsOncePerStretchAndClearsOnSignal) {
  DigitalSilenceMonitor monitor(3.0);
  std::vector<A> reports;
  const auto feed = [&](bool silent, int buffers) {
    for (int i = 0; i < buffers; ++i)
      if (auto r = monitor.observe(silent, 0.01)) reports.push_back(*r);
  };
  feed(true, 299);
  EXPECT_TRUE(reports.empty());
  feed(true, 2);  // reaching 3 s
  EXPECT_EQ(reports, std::vector<A>{A::silenceDetected});
  feed(true, 6000);  // a further minute adds nothing
  EXPECT_EQ(reports.size(), 1u);
  feed(false, 1);
  EXPECT_EQ(reports.back(), A::signalDetected);
  feed(true, 299);  // the count restarted
  EXPECT_EQ(reports.size(), 2u);
  EXPECT_FALSE(DigitalSilenceMonitor(-1).warningIssued());
  DigitalSilenceMonitor immediate(-1);  // clamped to 0: the first silent buffer warns
  EXPECT_EQ(immediate.observe(true, 0.01), A::silenceDetected);
}

TEST(LowSignalMonitor, ThresholdIsSignalAndGraceIsThirtySeconds) {
  LowSignalMonitor monitor;
  EXPECT_EQ(monitor.observe(std::nullopt, 100.0), std::nullopt);  // no level: untouched
  EXPECT_EQ(monitor.observe(0.001, 29.99), std::nullopt);
  EXPECT_EQ(monitor.observe(LowSignalMonitor::kThresholdLinear, 1.0), std::nullopt);  // resets
  EXPECT_EQ(monitor.observe(0.001, 29.99), std::nullopt);
  EXPECT_EQ(monitor.observe(0.001, 0.02), A::lowSignalDetected);
  EXPECT_EQ(monitor.observe(0.0, 60), std::nullopt);
  EXPECT_EQ(monitor.observe(0.01, 0.01), A::signalDetected);
  EXPECT_NEAR(20 * std::log10(LowSignalMonitor::kThresholdLinear), -50.0, 1e-12);
}

TEST(SignalPublication, SilenceEndingInQuietStaysAWarning) {
  struct Case {
    std::optional<A> silence, low;
    bool lowActive;
    std::optional<A> first, second;
  };
  const Case cases[] = {
      {A::silenceDetected, std::nullopt, false, A::silenceDetected, std::nullopt},
      {A::signalDetected, std::nullopt, true, A::lowSignalDetected, std::nullopt},
      {A::signalDetected, std::nullopt, false, A::signalDetected, std::nullopt},
      {A::signalDetected, A::signalDetected, false, A::signalDetected, std::nullopt},
      {std::nullopt, A::lowSignalDetected, true, A::lowSignalDetected, std::nullopt},
      {A::silenceDetected, A::lowSignalDetected, true, A::silenceDetected, A::lowSignalDetected},
      {std::nullopt, std::nullopt, false, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto p = publish(c.silence, c.low, c.lowActive);
    EXPECT_EQ(p.first, c.first);
    EXPECT_EQ(p.second, c.second);
  }
}

TEST(SignalMonitors, ThirtySecondsOfZerosThenAQuietBufferStaysLow) {
  DigitalSilenceMonitor silence(3.0);
  LowSignalMonitor low;
  std::vector<A> published;
  const auto buffer = [&](double rms, bool silent) {
    const auto s = silence.observe(silent, 0.1);
    const auto l = low.observe(rms, 0.1);
    const auto p = publish(s, l, low.warningIssued());
    if (p.first) published.push_back(*p.first);
    if (p.second) published.push_back(*p.second);
  };
  for (int i = 0; i < 310; ++i) buffer(0.0, true);
  EXPECT_EQ(published, (std::vector<A>{A::silenceDetected, A::lowSignalDetected}));
  buffer(0.0001, false);  // non-zero, but still below -50 dBFS
  EXPECT_EQ(published.back(), A::lowSignalDetected);
  EXPECT_EQ(published.size(), 3u);
  buffer(0.1, false);
  EXPECT_EQ(published.back(), A::signalDetected);
}

}  // namespace
}  // namespace tamsel::meeting
