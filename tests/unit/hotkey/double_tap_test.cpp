#include "tamsel/hotkey/double_tap.hpp"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <string>
#include <vector>

#include "../test_support.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/base/preferences_store.hpp"
#include "tamsel/hotkey/double_tap_watcher.hpp"
#include "tamsel/hotkey/trigger_preference.hpp"

namespace tamsel::hotkey {
namespace {

using std::chrono::milliseconds;
const TimePoint t0{std::chrono::seconds(1000)};

TEST(OptionSide, RawFormRoundTripsAndOtherTextIsNoSide) {
  for (auto side : {OptionSide::left, OptionSide::right, OptionSide::either})
    EXPECT_EQ(optionSideFrom(rawValue(side)), side);
  EXPECT_EQ(rawValue(OptionSide::either), "either");
  for (const char* text : {"", "Left", "both", "left ", "right\n"})
    EXPECT_EQ(optionSideFrom(text), std::nullopt) << text;
}

TEST(HotkeyTriggerMode, ChoosesTheSideAndWhetherTheMonitorRuns) {
  EXPECT_EQ(doubleTapSide(HotkeyTriggerMode::doubleTapLeft), OptionSide::left);
  EXPECT_EQ(doubleTapSide(HotkeyTriggerMode::doubleTapRight), OptionSide::right);
  EXPECT_EQ(doubleTapSide(HotkeyTriggerMode::custom), std::nullopt);
  EXPECT_EQ(doubleTapSide(HotkeyTriggerMode::off), std::nullopt);
  for (auto mode : {HotkeyTriggerMode::doubleTapLeft, HotkeyTriggerMode::doubleTapRight,
                    HotkeyTriggerMode::custom, HotkeyTriggerMode::off})
    EXPECT_EQ(triggerModeFrom(rawValue(mode)), mode);
  EXPECT_EQ(triggerModeFrom("doubletapleft"), std::nullopt);
}

// One press: its side, its time after t0 in milliseconds, and what registering it returns.
struct Press {
  OptionSide side;
  int at;
  bool completes;
};
struct DetectorCase {
  const char* name;
  OptionSide side;
  std::vector<Press> presses;
};

TEST(OptionDoubleTapDetector, DecidesByTable) {
  using enum OptionSide;
  const std::vector<DetectorCase> cases{
      {"two presses inside the window, then a third starts over",
       left,
       {{left, 0, false}, {left, 150, true}, {left, 200, false}}},
      {"exactly the window apart still counts", left, {{left, 0, false}, {left, 400, true}}},
      {"farther apart: the second becomes the pending one",
       left,
       {{left, 0, false}, {left, 401, false}, {left, 700, true}}},
      {"the other key is ignored and leaves the pending press",
       left,
       {{left, 0, false}, {right, 100, false}, {left, 200, true}}},
      {"a right detector takes only the right key",
       right,
       {{left, 0, false}, {left, 100, false}, {right, 150, false}, {right, 300, true}}},
      {"either mixes the sides", either, {{left, 0, false}, {right, 300, true}}},
      {"the interval may be negative", left, {{left, 500, false}, {left, 100, true}}},
      {"far in the past is negative too", left, {{left, 5000, false}, {left, 0, true}}},
  };
  for (const auto& c : cases) {
    OptionDoubleTapDetector detector(c.side, 0.4);
    for (std::size_t i = 0; i < c.presses.size(); ++i) {
      const auto& p = c.presses[i];
      EXPECT_EQ(detector.registerPress(p.side, t0 + milliseconds(p.at)), p.completes)
          << c.name << ", press " << i;
    }
  }
}

TEST(OptionDoubleTapDetector, IgnoredPressChangesNothingAndEqualityCoversEveryField) {
  OptionDoubleTapDetector detector(OptionSide::left, 0.4);
  EXPECT_FALSE(detector.registerPress(OptionSide::left, t0));
  const auto before = detector;
  EXPECT_FALSE(detector.registerPress(OptionSide::right, t0 + milliseconds(10)));
  EXPECT_EQ(detector, before);
  EXPECT_EQ(detector.lastDown, t0);

  const OptionDoubleTapDetector fresh(OptionSide::left, 0.4);
  EXPECT_EQ(fresh, OptionDoubleTapDetector(OptionSide::left, 0.4));
  EXPECT_NE(fresh, OptionDoubleTapDetector(OptionSide::right, 0.4));
  EXPECT_NE(fresh, OptionDoubleTapDetector(OptionSide::left, 0.5));
  EXPECT_NE(fresh, before) << "a pending press makes them differ";
}

// The monitor over a script of key changes, with a clock the test moves.
struct MonitorRig {
  TimePoint now = t0;
  std::vector<OptionSide> taps;
  ModifierDoubleTapMonitor monitor;
  explicit MonitorRig(OptionSide side)
      : monitor(
            OptionDoubleTapDetector(side, kDoubleTapWindowSeconds),
            [this](OptionSide s) { taps.push_back(s); }, [this] { return now; }) {}

  // "L+" "L-" "R+" "R-" "S+" "S-" (Shift, any other key), "wait:N" (milliseconds).
  void play(const std::vector<std::string>& steps) {
    for (const auto& step : steps) {
      if (step.starts_with("wait:")) {
        now += milliseconds(std::stoi(step.substr(5)));
        continue;
      }
      const ModifierKey key = step[0] == 'L'   ? ModifierKey::leftAlt
                              : step[0] == 'R' ? ModifierKey::rightAlt
                                               : ModifierKey::other;
      monitor.handle({key, step[1] == '+'});
    }
  }
};

struct MonitorCase {
  const char* name;
  OptionSide side;
  std::vector<std::string> steps;
  std::vector<OptionSide> taps;
};

TEST(ModifierDoubleTapMonitor, TurnsKeyChangesIntoPressesByTable) {
  using enum OptionSide;
  const std::vector<MonitorCase> cases{
      {"a quick double tap", left, {"L+", "L-", "wait:100", "L+", "L-"}, {left}},
      {"a slow pair", left, {"L+", "L-", "wait:500", "L+", "L-"}, {}},
      {"the window counts from press to press",
       left,
       {"L+", "wait:300", "L-", "wait:150", "L+", "L-"},
       {}},
      {"Shift while Alt is held is no press", left, {"L+", "S+", "S-", "S+", "S-", "L-"}, {}},
      {"a key repeat while held is no press", left, {"L+", "L+", "L+", "L-"}, {}},
      {"other keys between taps do not matter", left, {"L+", "L-", "S+", "S-", "L+"}, {left}},
      {"the right key on a left monitor", left, {"R+", "R-", "R+", "R-"}, {}},
      {"a right press leaves the left one pending", left, {"L+", "L-", "R+", "R-", "L+"}, {left}},
      {"the second Alt while the first is held is no press", either, {"L+", "R+", "R-", "L-"}, {}},
      {"Alt stays down while either key is", either, {"L+", "R+", "L-", "L+", "R-", "L-"}, {}},
      {"the side is the completing key's", either, {"L+", "L-", "R+", "R-"}, {right}},
      {"stray releases are ignored", left, {"L+", "L-", "L-", "R-", "L+"}, {left}},
      {"a stray release while the other is held does not re-arm",
       left,
       {"L+", "L-", "R+", "L-", "L+", "L-", "R-"},
       {}},
      {"four taps are two double taps",
       right,
       {"R+", "R-", "R+", "R-", "R+", "R-", "R+"},
       {right, right}},
  };
  for (const auto& c : cases) {
    MonitorRig rig(c.side);
    rig.play(c.steps);
    EXPECT_EQ(rig.taps, c.taps) << c.name;
  }
}

TEST(ModifierDoubleTapMonitor, ResetForgetsHeldKeysButKeepsThePendingPress) {
  MonitorRig rig(OptionSide::left);
  rig.play({"L+", "L-", "L+"});  // a double tap, Alt still down
  ASSERT_EQ(rig.taps.size(), 1u);
  rig.play({"L+", "L-", "L+"});  // the held key's release, then a pending press
  EXPECT_TRUE(rig.monitor.optionWasDown());
  rig.monitor.reset();
  EXPECT_FALSE(rig.monitor.optionWasDown());
  EXPECT_TRUE(rig.monitor.detector().lastDown.has_value());
  rig.play({"L+"});  // counts: the reset let go of the held key
  EXPECT_EQ(rig.taps.size(), 2u);
}

TEST(TriggerPreference, DefaultsToTheLeftKeyAndPersists) {
  test::TempDir dir;
  const auto file = base::PreferencesStore::fileIn(dir.path());
  {
    base::PreferencesStore store(file);
    EXPECT_EQ(loadTriggerMode(store), HotkeyTriggerMode::doubleTapLeft);
    saveTriggerMode(store, HotkeyTriggerMode::off);
  }
  base::PreferencesStore again(file);
  EXPECT_EQ(loadTriggerMode(again), HotkeyTriggerMode::off);
  EXPECT_EQ(again.value(kTriggerModeKey), boost::json::value("off"));
  for (const auto& junk : {boost::json::value("sideways"), boost::json::value(3)}) {
    again.set(kTriggerModeKey, junk);
    EXPECT_EQ(loadTriggerMode(again), HotkeyTriggerMode::doubleTapLeft);
  }
}

// A key source the test drives from its own thread, as a backend would.
class ScriptedSource final : public KeySource {
 public:
  Sink sink;
  Notice notice;
  bool stopped = false;
  std::string description() const override { return "scripted"; }
  void start(Sink s, Notice n) override {
    sink = std::move(s);
    notice = std::move(n);
  }
  void stop() override { stopped = true; }
};

TEST(DoubleTapWatcher, RunsTheMonitorOnTheMainExecutorAndDropsEventsAfterStop) {
  boost::asio::io_context io;
  base::AsioMainExecutor main(io);
  std::vector<OptionSide> taps;
  std::vector<std::string> notices;
  DoubleTapWatcher watcher(
      main, OptionSide::left, [&](OptionSide s) { taps.push_back(s); },
      [&](const std::string& n) { notices.push_back(n); });
  auto owned = std::make_unique<ScriptedSource>();
  auto* source = owned.get();
  watcher.start(std::move(owned));
  ASSERT_TRUE(watcher.running());
  EXPECT_EQ(watcher.backendDescription(), "scripted");

  std::thread backend([&] {
    source->sink({ModifierKey::leftAlt, true});
    source->sink({ModifierKey::leftAlt, false});
    source->sink({ModifierKey::leftAlt, true});
    source->notice("keyboard gone: test");
  });
  backend.join();
  EXPECT_TRUE(taps.empty()) << "nothing runs on the backend's thread";
  io.run();
  EXPECT_EQ(taps, std::vector<OptionSide>{OptionSide::left});
  EXPECT_EQ(notices, std::vector<std::string>{"keyboard gone: test"});

  // Events already queued when the watcher stops are not delivered.
  source->sink({ModifierKey::leftAlt, false});
  source->sink({ModifierKey::leftAlt, true});
  auto sink = source->sink;
  watcher.stop();
  EXPECT_FALSE(watcher.running());
  sink({ModifierKey::leftAlt, false});
  sink({ModifierKey::leftAlt, true});
  io.restart();
  io.run();
  EXPECT_EQ(taps.size(), 1u);
  EXPECT_FALSE(watcher.monitor().optionWasDown());
}

TEST(DoubleTapWatcher, WithoutAnyBackendSaysWhyForEach) {
  boost::asio::io_context io;
  base::AsioMainExecutor main(io);
  test::TempDir dir;
  DoubleTapWatcher watcher(main, OptionSide::left, [](OptionSide) {});
  HotkeySession session{std::nullopt, std::string("wayland-0"), dir.path() / "missing"};
  const auto failure = watcher.start(session);
  ASSERT_TRUE(failure.has_value());
  EXPECT_FALSE(watcher.running());
  // Under Wayland the input devices are tried first.
  EXPECT_EQ(*failure, std::string(kAccessibilityMessage) +
                          "\n  input devices: " + (dir.path() / "missing").string() +
                          ": No such file or directory (no input devices to read here)" +
                          "\n  X11: DISPLAY is not set (no X server to ask)");
  const auto onlyX11 = watcher.start(session, HotkeyBackend::x11);
  ASSERT_TRUE(onlyX11.has_value());
  EXPECT_EQ(onlyX11->find("input devices"), std::string::npos);
}

}  // namespace
}  // namespace tamsel::hotkey
