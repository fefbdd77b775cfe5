#!/usr/bin/env python3
"""The summon hotkey under Xvfb (started and stopped here): how long after the second tap reaches
the X server `tamsel hotkey watch` prints its line (median and worst of N double taps), and the
watcher's CPU while nothing is typed and while other keys are typed fast.

Run: python3 bench/hotkey_x11.py [double-taps]   (needs a built tamsel and xtest_keys)
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "tests", "integration"))
from test_cli import TAMSEL, LineReader  # noqa: E402
from test_hotkey_x11 import XTEST_KEYS, Xvfb  # noqa: E402

taps = int(sys.argv[1]) if len(sys.argv) > 1 else 30
ticks = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid, encoding="utf-8") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / ticks


x = Xvfb()
try:
    with tempfile.TemporaryDirectory() as home:
        env = dict(os.environ, HOME=home, DISPLAY=x.name)
        env.pop("WAYLAND_DISPLAY", None)
        proc = subprocess.Popen([TAMSEL, "hotkey", "watch", "--side", "left", "--json"], env=env,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert "watching" in proc.stderr.readline()
        out = LineReader(proc.stdout)

        delays = []
        for _ in range(taps):
            stamped = subprocess.run([XTEST_KEYS, x.name, "+Alt_L", "-Alt_L", "sleep:50", "+Alt_L", "stamp"],
                                     check=True, capture_output=True, text=True)
            sent = float(stamped.stdout)  # the helper synced: the server had the press by then
            hit = out.next_matching(lambda line: True, 5)
            if hit is None:
                sys.exit("no line for a double tap")
            delays.append((hit[0] - sent) * 1000)
            x.keys("-Alt_L", "sleep:450")
        delays.sort()
        print(f"double tap to printed line over {taps} taps: median {statistics.median(delays):.2f} ms, "
              f"worst {delays[-1]:.2f} ms (X server to stdout, read through a pipe)")

        before, start = cpu_seconds(proc.pid), time.monotonic()
        time.sleep(10)
        idle = cpu_seconds(proc.pid) - before
        print(f"idle watcher: {idle:.2f} s CPU in {time.monotonic() - start:.1f} s "
              f"= {100 * idle / (time.monotonic() - start):.3f} % of one core")

        steps = []
        for _ in range(1000):
            steps += ["+a", "-a"]
        before, start = cpu_seconds(proc.pid), time.monotonic()
        subprocess.run([XTEST_KEYS, x.name, *steps], check=True)
        time.sleep(0.5)
        busy = cpu_seconds(proc.pid) - before
        print(f"2,000 other key events: watcher used {busy * 1000:.0f} ms CPU "
              f"({busy * 1e6 / 2000:.1f} µs per event, at clock-tick resolution)")
        proc.terminate()
        proc.wait(timeout=10)
finally:
    x.stop()
