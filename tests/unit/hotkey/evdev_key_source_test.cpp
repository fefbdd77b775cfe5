// The evdev backend fed `struct input_event` records through pipes, as the kernel would hand them.
#include "tamsel/hotkey/evdev_key_source.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <fstream>
#include <thread>
#include <vector>

#include "../test_support.hpp"
#include "tamsel/base/main_executor.hpp"
#include "tamsel/hotkey/double_tap_watcher.hpp"

namespace tamsel::hotkey {
namespace {

using namespace std::chrono_literals;

input_event record(unsigned short type, unsigned short code, int value) {
  input_event e{};
  e.type = type;
  e.code = code;
  e.value = value;
  return e;
}

// One fake keyboard: the write end of a pipe whose read end the source owns.
struct FakeKeyboard {
  int writeEnd = -1;
  FakeKeyboard(EvdevKeySource& source, const std::string& name) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    writeEnd = ends[1];
    source.addDevice(ends[0], name);
  }
  ~FakeKeyboard() { unplug(); }
  void unplug() {
    if (writeEnd >= 0) ::close(writeEnd);
    writeEnd = -1;
  }
  void write(const std::vector<input_event>& records) {
    const auto bytes = records.size() * sizeof(input_event);
    ASSERT_EQ(::write(writeEnd, records.data(), bytes), static_cast<ssize_t>(bytes));
  }
  // A key change followed by its report, as a keyboard sends it.
  void key(unsigned short code, int value) {
    write({record(EV_KEY, code, value), record(EV_SYN, SYN_REPORT, 0)});
  }
  void tap(unsigned short code) {
    key(code, 1);
    key(code, 0);
  }
};

// The source under a real watcher on an io_context the test runs between writes. The monitor's
// clock is the test's: it moves only by advance(), so a slow machine cannot turn a quick double
// tap into a slow one.
struct Rig {
  TimePoint clock{std::chrono::seconds(1)};
  test::TempDir dir;
  boost::asio::io_context io;
  // Keeps run_for() running for its whole time while the reading thread has not posted yet.
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> busy{io.get_executor()};
  base::AsioMainExecutor main{io};
  std::vector<OptionSide> taps;
  std::vector<std::string> notices;
  EvdevKeySource* source = nullptr;
  DoubleTapWatcher watcher;

  explicit Rig(OptionSide side)
      : watcher(
            main, side, [this](OptionSide s) { taps.push_back(s); },
            [this](const std::string& n) { notices.push_back(n); }, [this] { return clock; }) {
    auto owned = std::make_unique<EvdevKeySource>(dir.path());
    source = owned.get();
    watcher.start(std::move(owned));
  }
  // Lets the reading thread and the main executor catch up.
  void settle() {
    io.restart();
    io.run_for(80ms);
  }
  // Handles what was written, then moves the monitor's clock on.
  void advance(std::chrono::milliseconds time) {
    settle();
    clock += time;
  }
};

TEST(EvdevKeySource, DoubleTapsFromRecordsInAPipe) {
  Rig rig(OptionSide::left);
  FakeKeyboard keyboard(*rig.source, "pipe keyboard");
  rig.settle();
  EXPECT_NE(rig.source->description().find("1 keyboard: pipe keyboard"), std::string::npos)
      << rig.source->description();

  keyboard.tap(KEY_LEFTALT);
  rig.advance(100ms);
  keyboard.tap(KEY_LEFTALT);
  rig.advance(500ms);
  EXPECT_EQ(rig.taps, std::vector<OptionSide>{OptionSide::left}) << "a quick double tap";

  rig.taps.clear();
  keyboard.tap(KEY_LEFTALT);
  rig.advance(600ms);
  keyboard.tap(KEY_LEFTALT);
  rig.advance(500ms);
  EXPECT_TRUE(rig.taps.empty()) << "a slow pair";

  keyboard.key(KEY_LEFTALT, 1);
  keyboard.key(KEY_LEFTALT, 2);  // auto-repeat
  keyboard.key(KEY_LEFTSHIFT, 1);
  keyboard.key(KEY_LEFTSHIFT, 0);
  keyboard.key(KEY_LEFTALT, 0);
  rig.advance(500ms);
  EXPECT_TRUE(rig.taps.empty()) << "Shift (and a repeat) while Alt is held";

  keyboard.tap(KEY_RIGHTALT);
  keyboard.tap(KEY_RIGHTALT);
  rig.advance(500ms);
  EXPECT_TRUE(rig.taps.empty()) << "the right key on a left watcher";

  keyboard.tap(KEY_LEFTALT);
  keyboard.key(KEY_LEFTALT, 0);  // stray
  keyboard.key(KEY_RIGHTALT, 0);
  keyboard.tap(KEY_LEFTALT);
  rig.advance(500ms);
  EXPECT_EQ(rig.taps, std::vector<OptionSide>{OptionSide::left}) << "stray releases";
}

TEST(EvdevKeySource, RecordsCutAcrossReadsAreJoined) {
  Rig rig(OptionSide::right);
  FakeKeyboard keyboard(*rig.source, "slow writer");
  std::vector<input_event> records;
  for (int i = 0; i < 2; ++i)
    for (int value : {1, 0})
      records.insert(records.end(),
                     {record(EV_KEY, KEY_RIGHTALT, value), record(EV_SYN, SYN_REPORT, 0)});
  const auto* bytes = reinterpret_cast<const char*>(records.data());
  const std::size_t total = records.size() * sizeof(input_event);
  for (std::size_t at = 0; at < total; at += 7) {  // 7 divides no record's size
    ASSERT_GT(::write(keyboard.writeEnd, bytes + at, std::min<std::size_t>(7, total - at)), 0);
    rig.io.restart();
    rig.io.run_for(2ms);
  }
  rig.advance(200ms);
  EXPECT_EQ(rig.taps, std::vector<OptionSide>{OptionSide::right});
}

TEST(EvdevKeySource, AKeyboardThatGoesAwayLetsGoOfItsKeys) {
  Rig rig(OptionSide::left);
  auto first = std::make_unique<FakeKeyboard>(*rig.source, "usb keyboard");
  FakeKeyboard second(*rig.source, "laptop keyboard");
  rig.settle();
  first->key(KEY_LEFTALT, 1);  // held when it is unplugged
  rig.advance(500ms);          // and its press long past
  first.reset();
  rig.settle();
  EXPECT_EQ(rig.notices, std::vector<std::string>{"keyboard gone: usb keyboard"});
  EXPECT_NE(rig.source->description().find("1 keyboard: laptop keyboard"), std::string::npos)
      << rig.source->description();
  // Had the held key stayed down, the first of these would be no press and nothing would come.
  second.tap(KEY_LEFTALT);
  second.tap(KEY_LEFTALT);
  rig.advance(300ms);
  EXPECT_EQ(rig.taps, std::vector<OptionSide>{OptionSide::left});
}

TEST(EvdevKeySource, DroppedEventsAreSkippedAndTheKeysResynchronised) {
  Rig rig(OptionSide::left);
  FakeKeyboard keyboard(*rig.source, "busy keyboard");
  keyboard.key(KEY_LEFTALT, 1);
  rig.advance(500ms);  // held past the window
  // The kernel dropped events: what follows up to the report is partial and not trusted, even
  // when it looks like a double tap. A pipe has no key state, so the resync finds Alt up.
  keyboard.write({record(EV_SYN, SYN_DROPPED, 0), record(EV_KEY, KEY_LEFTALT, 0),
                  record(EV_KEY, KEY_LEFTALT, 1), record(EV_KEY, KEY_LEFTALT, 0),
                  record(EV_KEY, KEY_LEFTALT, 1), record(EV_SYN, SYN_REPORT, 0)});
  rig.advance(300ms);
  EXPECT_TRUE(rig.taps.empty()) << "presses inside a dropped run counted";
  // The resync let go of the held key, so the next two taps are two presses.
  keyboard.tap(KEY_LEFTALT);
  keyboard.tap(KEY_LEFTALT);
  rig.advance(300ms);
  EXPECT_EQ(rig.taps, std::vector<OptionSide>{OptionSide::left});
}

TEST(EvdevKeySource, AKeyboardPluggedInLaterIsFollowed) {
  Rig rig(OptionSide::left);  // started on an empty folder
  // A FIFO stands in for the new device node; the probe takes it for a keyboard.
  rig.source = nullptr;
  auto owned = std::make_unique<EvdevKeySource>(
      rig.dir.path(), [](int) { return std::optional<std::string>("hot keyboard"); });
  auto* source = owned.get();
  rig.watcher.start(std::move(owned));
  rig.settle();
  EXPECT_NE(source->description().find("no keyboard yet"), std::string::npos);

  const auto node = rig.dir.path() / "event7";
  ASSERT_EQ(::mkfifo(node.c_str(), 0600), 0);
  for (int i = 0; i < 50 && rig.notices.empty(); ++i) rig.settle();
  ASSERT_EQ(rig.notices,
            std::vector<std::string>{"keyboard added: hot keyboard (" + node.string() + ")"});
  const int writer = ::open(node.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(writer, 0) << "the source does not hold the node open";
  std::vector<input_event> taps;
  for (int i = 0; i < 2; ++i)
    for (int value : {1, 0})
      taps.insert(taps.end(), {record(EV_KEY, KEY_LEFTALT, value), record(EV_SYN, SYN_REPORT, 0)});
  ASSERT_EQ(::write(writer, taps.data(), taps.size() * sizeof(input_event)),
            static_cast<ssize_t>(taps.size() * sizeof(input_event)));
  rig.advance(100ms);
  EXPECT_EQ(rig.taps, std::vector<OptionSide>{OptionSide::left});
  ::close(writer);
  rig.settle();
  EXPECT_EQ(rig.notices.back(), "keyboard gone: hot keyboard (" + node.string() + ")");
}

TEST(EvdevKeySource, OpeningSaysWhyWhenNoDeviceCanBeRead) {
  test::TempDir dir;
  {
    const auto missing = openEvdevKeySource(dir.path() / "input");
    EXPECT_EQ(missing.source, nullptr);
    EXPECT_NE(missing.failure.find("No such file or directory"), std::string::npos);
    const auto empty = openEvdevKeySource(dir.path());
    EXPECT_EQ(empty.source, nullptr);
    EXPECT_EQ(empty.failure, "input devices: no device under " + dir.path().string());
  }
  // Devices that are there but not readable: the user is not in the `input` group. Mode 000
  // stops everyone but root, so the check runs in a child that is not root.
  const auto node = dir.path() / "event3";
  std::ofstream(node) << "x";
  ::chmod(node.c_str(), 0);
  ::chmod(dir.path().c_str(), 0755);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::getuid() == 0 && ::setuid(65534) != 0) ::_exit(3);
    const auto opening = openEvdevKeySource(dir.path());
    const bool saysWhy = !opening.source &&
                         opening.failure.find("Permission denied") != std::string::npos &&
                         opening.failure.find("join the `input` group") != std::string::npos;
    ::_exit(saysWhy ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "no explanation naming the permission and the group";

  // A readable device that is no keyboard (a regular file is no evdev device) is still a
  // working backend that waits for a keyboard.
  ::chmod(node.c_str(), 0644);
  const auto waiting = openEvdevKeySource(dir.path());
  ASSERT_NE(waiting.source, nullptr) << waiting.failure;
  EXPECT_NE(waiting.source->description().find("no keyboard yet"), std::string::npos);
}

}  // namespace
}  // namespace tamsel::hotkey
