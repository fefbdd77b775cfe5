#!/usr/bin/env python3
"""CPU used by a two-track recording: `tamsel meeting record --duration 60` against a headless
PulseAudio (started and stopped here) with a tone on the speakers and one on the microphone.
Prints the recorder's user+system CPU time as a percentage of one core over the recording.

Run: python3 bench/meeting_cpu.py [seconds] [pulseaudio|pipewire]   (needs a built tamsel)
"""
import os
import resource
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

with AudioServer(kind) as server, tempfile.TemporaryDirectory() as folder:
    server.play("speakers", 440, seconds + 10)
    server.play("mic_feed", 1000, seconds + 10)
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    proc = subprocess.run([tamsel, "meeting", "record", "--json", "--duration", str(seconds),
                           "--dir", folder], env=server.env, capture_output=True, text=True)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if proc.returncode != 0:
        sys.exit(proc.stderr)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    print(f"two-track recording on {kind}: {cpu:.2f} s CPU "
          f"(user {after.ru_utime - before.ru_utime:.2f} s, system {after.ru_stime - before.ru_stime:.2f} s) in {wall:.1f} s = "
          f"{100 * cpu / wall:.2f} % of one core")
