#!/usr/bin/env python3
"""The Alt double tap against a real X server.

Each test class starts its own Xvfb (-nolisten tcp, a free display number) and stops it by PID;
keys are sent by the xtest_keys helper in exact sequences. `tamsel hotkey watch` must print one
line per double tap and nothing else on stdout; `tamsel run` must open a chat (here a stand-in
terminal that records how it was called) on a double tap.

Run: python3 tests/integration/test_hotkey_x11.py
Env: TAMSEL_BIN, XTEST_KEYS (the helper), VERD_SIM.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from test_cli import TAMSEL, LineReader, Sandbox, describe  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
XTEST_KEYS = os.environ.get("XTEST_KEYS") or os.path.join(REPO, "build", "tests", "xtest_keys")
XVFB = shutil.which("Xvfb")
TAP_LINE = r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  double tap  (left|right)$"


def free_display():
    for number in range(90, 400):
        if not os.path.exists("/tmp/.X%d-lock" % number) and \
                not os.path.exists("/tmp/.X11-unix/X%d" % number):
            return number
    raise RuntimeError("no free X display number")


class Xvfb:
    def __init__(self):
        self.number = free_display()
        self.name = ":%d" % self.number
        self.log = tempfile.TemporaryFile()
        self.proc = subprocess.Popen([XVFB, self.name, "-screen", "0", "1280x800x24", "-nolisten", "tcp"],
                                     stdout=self.log, stderr=self.log)
        deadline = time.monotonic() + 10
        while not os.path.exists("/tmp/.X11-unix/X%d" % self.number):
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise RuntimeError("Xvfb %s did not start" % self.name)
            time.sleep(0.05)
        # The socket exists slightly before the server accepts: wait for a client to get in.
        while subprocess.run([XTEST_KEYS, self.name], capture_output=True).returncode != 0:
            if time.monotonic() > deadline:
                self.stop()
                raise RuntimeError("Xvfb %s accepts no client" % self.name)
            time.sleep(0.05)

    def keys(self, *steps):
        done = subprocess.run([XTEST_KEYS, self.name, *steps], capture_output=True, text=True, timeout=30)
        if done.returncode != 0:
            raise RuntimeError("xtest_keys failed: %s" % done.stderr)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()


def tap(key, gap_ms=100):
    """Two taps of `key` with `gap_ms` between them."""
    return ["+" + key, "-" + key, "sleep:%d" % gap_ms, "+" + key, "-" + key]


@unittest.skipUnless(XVFB, "Xvfb is not installed (apt install xvfb); the X11 hotkey is not tested")
class WatchTests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.x = Xvfb()

    @classmethod
    def tearDownClass(cls):
        cls.x.stop()

    def setUp(self):
        self.sb = Sandbox(self)

    def watch(self, *args, x=None):
        before = self.stderr().count("watching for double taps")
        proc = self.sb.popen("hotkey", "watch", *args, env={"DISPLAY": (x or self.x).name, "WAYLAND_DISPLAY": None})
        out = LineReader(proc.stdout)
        # The backend is announced once it listens: keys sent before then would be lost.
        deadline = time.monotonic() + 10
        while self.stderr().count("watching for double taps") == before:
            self.assertIsNone(proc.poll(), self.stderr())
            self.assertLess(time.monotonic(), deadline, self.stderr())
            time.sleep(0.02)
        return proc, out

    def stderr(self):
        try:
            with open(os.path.join(self.sb.root, "tamsel-stderr.log"), encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def lines_after(self, out, steps, settle=0.6, x=None):
        """The tap lines that follow sending `steps`; waits past the window so none is in flight."""
        (x or self.x).keys(*steps, "sleep:%d" % int(settle * 1000))
        found = []
        while True:
            hit = out.next_matching(lambda line: True, 0.3)
            if hit is None:
                return found
            self.assertRegex(hit[1], TAP_LINE)
            found.append(hit[1].rsplit(" ", 1)[1])

    def test_left_watcher(self):
        proc, out = self.watch("--side", "left")
        self.assertIn("X11 (XInput2 raw key events on %s; Alt_L keycode 64, Alt_R keycode 108)" % self.x.name,
                      self.stderr())
        cases = [
            ("a double tap within the window, once", tap("Alt_L"), ["left"]),
            ("a slow pair", tap("Alt_L", 700), []),
            ("Shift while Alt is held is not a second press",
             ["+Alt_L", "+Shift_L", "-Shift_L", "+Shift_L", "-Shift_L", "-Alt_L"], []),
            ("right taps on a left watcher", tap("Alt_R"), []),
            ("a right press leaves the left one pending",
             ["+Alt_L", "-Alt_L", "+Alt_R", "-Alt_R", "+Alt_L", "-Alt_L"], ["left"]),
            ("stray releases are ignored",
             ["+Alt_L", "-Alt_L", "-Alt_L", "-Alt_R", "sleep:50", "+Alt_L", "-Alt_L"], ["left"]),
            ("a stray release while the other Alt is held does not re-arm",
             ["+Alt_L", "-Alt_L", "+Alt_R", "-Alt_L", "+Alt_L", "-Alt_L", "-Alt_R"], []),
            ("Alt held through a second Alt key is one press", ["+Alt_L", "+Alt_R", "-Alt_R", "-Alt_L"], []),
            ("four quick taps are two double taps", tap("Alt_L") + ["sleep:50"] + tap("Alt_L"), ["left", "left"]),
        ]
        for name, steps, expected in cases:
            with self.subTest(name):
                self.assertEqual(self.lines_after(out, steps), expected)
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=10), 0)

    def test_right_and_either_watchers(self):
        proc, out = self.watch("--side", "right")
        self.assertEqual(self.lines_after(out, tap("Alt_R")), ["right"])
        self.assertEqual(self.lines_after(out, tap("Alt_L")), [])
        proc.send_signal(signal.SIGTERM)
        self.assertEqual(proc.wait(timeout=10), 0)

        proc, out = self.watch("--side", "either")
        # Mixing sides is a double tap; the line names the key that completed it.
        self.assertEqual(self.lines_after(out, ["+Alt_L", "-Alt_L", "+Alt_R", "-Alt_R"]), ["right"])
        proc.send_signal(signal.SIGTERM)
        self.assertEqual(proc.wait(timeout=10), 0)

    def test_keymap_changes_are_followed_and_altgr_counts_as_right_alt(self):
        x = Xvfb()  # its own server: the keymap changes
        try:
            proc, out = self.watch("--side", "right", x=x)
            self.assertEqual(self.lines_after(out, tap("#108"), x=x), ["right"])
            # A layout with AltGr where the right Alt was: no key carries Alt_R any more.
            x.keys("map:108=ISO_Level3_Shift", "sleep:200")
            self.assertEqual(self.lines_after(out, tap("#108"), x=x), ["right"])
            # That key becomes a letter, and Alt_R moves to another key.
            x.keys("map:108=a", "map:92=a", "map:105=Alt_R", "sleep:200")
            self.assertEqual(self.lines_after(out, tap("#108"), x=x), [])
            self.assertEqual(self.lines_after(out, tap("#105"), x=x), ["right"])
            proc.send_signal(signal.SIGINT)
            self.assertEqual(proc.wait(timeout=10), 0)
        finally:
            x.stop()

    def test_side_comes_from_the_trigger_mode(self):
        done = self.sb.run("hotkey", "mode", "doubleTapRight")
        self.assertEqual(done.returncode, 0, describe(done))
        proc, out = self.watch()
        self.assertIn("double taps of the right Alt key", self.stderr())
        self.assertEqual(self.lines_after(out, tap("Alt_L") + ["sleep:600"] + tap("Alt_R")), ["right"])

    def test_server_going_away_is_said(self):
        x = Xvfb()
        try:
            proc = self.sb.popen("hotkey", "watch", env={"DISPLAY": x.name, "WAYLAND_DISPLAY": None})
            deadline = time.monotonic() + 10
            while "watching for double taps" not in self.stderr() and time.monotonic() < deadline:
                time.sleep(0.02)
        finally:
            x.stop()
        deadline = time.monotonic() + 5
        while "closed the connection" not in self.stderr() and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertIn("the X server %s closed the connection" % x.name, self.stderr())
        self.assertIsNone(proc.poll(), "the watcher died with the server:\n" + self.stderr())
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=10), 0)


class UnavailableTests(unittest.TestCase):
    def setUp(self):
        self.sb = Sandbox(self)

    def test_without_x11_or_input_devices_says_why_and_fails(self):
        readable = [d for d in (os.listdir("/dev/input") if os.path.isdir("/dev/input") else [])
                    if d.startswith("event") and os.access(os.path.join("/dev/input", d), os.R_OK)]
        if readable:
            self.skipTest("this machine has readable input devices: the evdev backend works here")
        done = self.sb.run("hotkey", "watch", "--side", "left", env={"DISPLAY": None, "WAYLAND_DISPLAY": None})
        self.assertEqual(done.returncode, 1, describe(done))
        self.assertEqual(done.stdout, "")
        lines = done.stderr.splitlines()
        self.assertEqual(lines[0], "tamsel: Grant Accessibility to Tamsel Desktop so double-tap and Esc work in any app.")
        self.assertEqual(lines[1], "  X11: DISPLAY is not set (no X server to ask)")
        self.assertTrue(lines[2].startswith("  input devices: "), done.stderr)

    def test_unreachable_display_named(self):
        done = self.sb.run("hotkey", "watch", "--backend", "x11", env={"DISPLAY": ":4999"})
        self.assertEqual(done.returncode, 1, describe(done))
        self.assertIn("  X11: cannot open display :4999", done.stderr.splitlines())


@unittest.skipUnless(XVFB, "Xvfb is not installed (apt install xvfb); the X11 hotkey is not tested")
class RunSummonsTests(unittest.TestCase):
    """`tamsel run` watches as the trigger mode says, and a double tap opens `tamsel chat`."""

    @classmethod
    def setUpClass(cls):
        cls.x = Xvfb()

    @classmethod
    def tearDownClass(cls):
        cls.x.stop()

    def setUp(self):
        self.sb = Sandbox(self)
        # A stand-in terminal first on PATH: records its arguments and stays open a while.
        self.bin = os.path.join(self.sb.root, "bin")
        os.makedirs(self.bin)
        self.calls = os.path.join(self.sb.root, "terminal-calls")
        with open(os.path.join(self.bin, "x-terminal-emulator"), "w", encoding="utf-8") as f:
            f.write("#!/bin/sh\necho \"$@\" >> %s\nexec sleep 30\n" % self.calls)
        os.chmod(os.path.join(self.bin, "x-terminal-emulator"), 0o755)

    def stderr(self):
        with open(os.path.join(self.sb.root, "tamsel-stderr.log"), encoding="utf-8") as f:
            return f.read()

    def start_run(self, env):
        proc = self.sb.popen("run", env=env)
        out = LineReader(proc.stdout)
        self.assertIsNotNone(out.next_matching(lambda l: "Tamsel Engine is running" in l, 15), out.seen)
        return proc, out

    def calls_made(self):
        try:
            with open(self.calls, encoding="utf-8") as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

    def test_double_tap_opens_one_chat_at_a_time(self):
        proc, out = self.start_run({"DISPLAY": self.x.name, "WAYLAND_DISPLAY": None,
                                    "PATH": self.bin + ":/usr/bin:/bin"})
        # Said once the supervisor starts, so it may come before the engine runs.
        watching = [l for l in out.seen if l.startswith("Summon hotkey: ")]
        self.assertEqual(len(watching), 1, out.seen)
        self.assertIn("double tap of the left Alt key summons, through X11", watching[0])
        self.x.keys(*tap("Alt_L"))
        hit = out.next_matching(lambda l: "Summoned by a double tap of the left Alt key" in l, 10)
        self.assertIsNotNone(hit, out.seen)
        self.assertIn("`tamsel chat` opened in x-terminal-emulator", hit[1])
        deadline = time.monotonic() + 5
        while not self.calls_made() and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(len(self.calls_made()), 1)
        args = self.calls_made()[0].split()
        self.assertEqual(args[0], "-e")
        self.assertTrue(args[1].endswith("/tamsel"), args)
        self.assertEqual(args[2:4], ["--engine-port", str(self.sb.port)])
        self.assertEqual(args[-1], "chat")
        # While that chat is open a second double tap opens no other.
        self.x.keys("sleep:600", *tap("Alt_L"))
        hit = out.next_matching(lambda l: "Summoned" in l, 10)
        self.assertIsNotNone(hit, out.seen)
        self.assertIn("the chat it opened is still open", hit[1])
        self.assertEqual(len(self.calls_made()), 1)
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=15), 0)

    def test_mode_off_watches_nothing(self):
        done = self.sb.run("hotkey", "mode", "off")
        self.assertEqual(done.returncode, 0, describe(done))
        proc, out = self.start_run({"DISPLAY": self.x.name, "PATH": self.bin + ":/usr/bin:/bin"})
        self.x.keys(*tap("Alt_L"), "sleep:500")
        self.assertIsNone(out.next_matching(lambda l: "Summon" in l, 1), out.seen)
        self.assertEqual(self.calls_made(), [])
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=15), 0)

    def test_without_any_backend_run_goes_on(self):
        proc, out = self.start_run({"DISPLAY": None, "WAYLAND_DISPLAY": None})
        deadline = time.monotonic() + 5
        while "running without the summon hotkey" not in self.stderr() and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertIn("tamsel: Grant Accessibility to Tamsel Desktop so double-tap and Esc work in any app.",
                      self.stderr())
        self.assertIsNone(proc.poll())
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=15), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
