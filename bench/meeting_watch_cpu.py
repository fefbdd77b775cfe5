#!/usr/bin/env python3
"""CPU used while watching for meetings with nothing happening: `tamsel meeting watch` against a
headless audio server (started and stopped here) for a while, no application using audio.
Prints the watcher's user+system CPU time as a percentage of one core.

Run: python3 bench/meeting_watch_cpu.py [seconds] [pulseaudio|pipewire]   (needs a built tamsel)
"""
import os
import resource
import signal
import subprocess
import sys
import tempfile
import time

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "tests", "integration"))
from audio_servers import AudioServer  # noqa: E402

seconds = int(sys.argv[1]) if len(sys.argv) > 1 else 60
kind = sys.argv[2] if len(sys.argv) > 2 else "pulseaudio"
tamsel = os.environ.get("TAMSEL_BIN", os.path.join(here, "..", "build", "apps", "tamsel", "tamsel"))

with AudioServer(kind) as server, tempfile.TemporaryDirectory() as home:
    env = dict(server.env, XDG_DATA_HOME=home)
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    proc = subprocess.Popen([tamsel, "meeting", "watch"], env=env, stdin=subprocess.PIPE,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(seconds)
    proc.send_signal(signal.SIGINT)
    proc.wait(timeout=15)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    print(f"watching for meetings on {kind}, nothing happening: {cpu * 1000:.0f} ms CPU in "
          f"{wall:.1f} s = {100 * cpu / wall:.3f} % of one core "
          f"(start-up included; peak RSS {after.ru_maxrss / 1024:.1f} MB of any child so far)")
