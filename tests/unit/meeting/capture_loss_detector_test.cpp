// Loss found against the monotonic clock (a simulated device, server buffer and reader), and
// what a source does when the default device moves while it starts.
#include "tamsel/meeting/capture_loss_detector.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "tamsel/meeting/pulse_capture.hpp"

namespace tamsel::meeting {
namespace {

constexpr double kRate = 48000;
constexpr std::int64_t kPerMs = 48;
constexpr std::int64_t kFragment = 1920;  // 40 ms

// A device producing 48 frames a millisecond into a server buffer of `bufferFrames` (what does
// not fit is dropped), and a reader that, when `readsAt(ms)` allows, takes up to `perRead`
// frames in fragments and checks after the last one, as the capture callback does.
struct Simulation {
  std::int64_t bufferFrames = 2 * 48000;
  std::function<bool(int)> readsAt;
  std::function<std::int64_t(int)> perRead = [](int) { return INT64_MAX; };

  std::int64_t produced = 0, dropped = 0, received = 0, counted = 0;
  std::vector<std::int64_t> losses;

  void run(int milliseconds) {
    CaptureLossDetector detector(kRate);
    std::int64_t queued = 0;
    const std::uint64_t start = 5'000'000'000;
    for (int ms = 1; ms <= milliseconds; ++ms) {
      produced += kPerMs;
      queued += kPerMs;
      if (queued > bufferFrames) {
        dropped += queued - bufferFrames;
        queued = bufferFrames;
      }
      if (!readsAt(ms) || queued == 0) continue;
      const std::uint64_t now = start + static_cast<std::uint64_t>(ms) * 1'000'000;
      std::int64_t take = std::min(queued, perRead(ms));
      queued -= take;
      if (!detector.anchored()) detector.anchor(now, std::min(take, kFragment));
      received += take;
      if (const auto lost = detector.check(now, received + counted)) {
        losses.push_back(lost);
        counted += lost;
      }
    }
  }
};

TEST(CaptureLossDetector, SteadyOrJitteryReadingIsNeverLoss) {
  struct Case {
    const char* name;
    std::function<bool(int)> readsAt;
  };
  const Case cases[] = {
      {"every 40 ms", [](int ms) { return ms % 40 == 0; }},
      {"every 10 ms", [](int ms) { return ms % 10 == 0; }},
      {"irregular, up to 150 ms late",
       [](int ms) { return (ms * 7919) % 97 < 2 || ms % 150 == 0; }},
      {"a 1.5 s pause the buffer rides out",
       [](int ms) { return ms % 40 == 0 && (ms < 3000 || ms > 4500); }},
  };
  for (const auto& c : cases) {
    Simulation sim;
    sim.readsAt = c.readsAt;
    sim.run(20'000);
    EXPECT_TRUE(sim.losses.empty()) << c.name << ": " << sim.losses.size();
    EXPECT_EQ(sim.dropped, 0) << c.name;
  }
}

TEST(CaptureLossDetector, AStallBeyondTheBufferIsOneLossOfWhatWasDropped) {
  struct Case {
    const char* name;
    std::function<std::int64_t(int)> perRead;
  };
  const Case cases[] = {
      {"backlog read at once", [](int) { return INT64_MAX; }},
      // The backlog trickles in at twice real time: no loss until it is all read.
      {"backlog at twice real time", [](int) { return 2 * 40 * kPerMs; }},
  };
  for (const auto& c : cases) {
    Simulation sim;
    sim.readsAt = [](int ms) { return ms % 40 == 0 && (ms < 2000 || ms > 7000); };
    sim.perRead = c.perRead;
    sim.run(12'000);
    ASSERT_EQ(sim.losses.size(), 1u) << c.name;
    EXPECT_GT(sim.dropped, 3 * 48000) << c.name;  // about 5 s stopped, 2 s buffered
    // Within a fragment of what the server dropped: the timeline matches the clock.
    EXPECT_NEAR(static_cast<double>(sim.losses[0]), static_cast<double>(sim.dropped), kFragment)
        << c.name;
  }
}

TEST(CaptureLossDetector, RestartAnchorsAgain) {
  CaptureLossDetector detector(kRate);
  EXPECT_EQ(detector.check(1'000'000'000, 0), 0);  // not anchored: nothing to compare
  detector.anchor(1'000'000'000, 480);
  EXPECT_TRUE(detector.anchored());
  detector.restart();
  EXPECT_FALSE(detector.anchored());
  // A new device a minute later: no loss from the time in between.
  detector.anchor(61'000'000'000, 480);
  EXPECT_EQ(detector.check(61'000'000'000, 480), 0);
  EXPECT_EQ(detector.check(61'400'000'000, 480 + 19200), 0);
}

}  // namespace
}  // namespace tamsel::meeting

TEST(StartDeviceCheck, TheSystemTrackFailsOnAMovedDefaultTheMicrophoneFollowsItAFewTimes) {
  using tamsel::meeting::checkStartDevice;
  using tamsel::meeting::kMicStartAttempts;
  using tamsel::meeting::StartDeviceCheck;
  using tamsel::meeting::TrackSource;
  struct Case {
    TrackSource source;
    const char *connected, *defaultNow;
    int attempt;
    StartDeviceCheck expected;
  };
  const Case cases[] = {
      {TrackSource::system, "a.monitor", "a.monitor", 1, StartDeviceCheck::settled},
      {TrackSource::system, "a.monitor", "b.monitor", 1, StartDeviceCheck::fail},
      // No default output any more: the control thread deals with it after start.
      {TrackSource::system, "a.monitor", ".monitor", 1, StartDeviceCheck::settled},
      {TrackSource::mic, "usb", "usb", 1, StartDeviceCheck::settled},
      {TrackSource::mic, "usb", "", 2, StartDeviceCheck::settled},
      {TrackSource::mic, "usb", "builtin", 1, StartDeviceCheck::reconnect},
      {TrackSource::mic, "usb", "builtin", kMicStartAttempts - 1, StartDeviceCheck::reconnect},
      {TrackSource::mic, "usb", "builtin", kMicStartAttempts, StartDeviceCheck::fail},
  };
  for (const auto& c : cases)
    EXPECT_EQ(checkStartDevice(c.source, c.connected, c.defaultNow, c.attempt), c.expected)
        << c.connected << " -> " << c.defaultNow << " attempt " << c.attempt;
  // The failures read as what happened.
  EXPECT_EQ(tamsel::meeting::SystemTapException(
                {tamsel::meeting::SystemTapError::Kind::outputDeviceChangedDuringStart, {}})
                .what(),
            std::string("systap: the default output device changed while the recording started"));
}
