#!/usr/bin/env python3
"""`tamsel meeting seal` on meeting folders made here (tones written by sox, journals as capture
writes them), checked with ffprobe, ffmpeg, sox and sha256sum.

Run: python3 tests/integration/test_meeting_seal.py
Env: TAMSEL_BIN (the binary).
"""
import array
import glob
import hashlib
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from audio_servers import RATE, have, tone_level  # noqa: E402

TAMSEL = os.environ.get("TAMSEL_BIN", "build/apps/tamsel/tamsel")
MANIFEST_KEYS = ["formatVersion", "tracks", "combinedDuration", "gaps", "trackMapping",
                 "driftCorrection", "sha256"]
TEMPORARY = ("*.tmp.*", "mic.render.caf", "rendered.caf")


def sox_tone(path, seconds, frequency, amplitude=0.3):
    subprocess.run(["sox", "-n", "-r", str(RATE), "-c", "1", "-e", "floating-point", "-b", "32",
                    "-t", "caf", path, "synth", str(seconds), "sine", str(frequency),
                    "vol", str(amplitude)], check=True)


def sox_silence(path, seconds):
    subprocess.run(["sox", "-n", "-r", str(RATE), "-c", "1", "-e", "floating-point", "-b", "32",
                    "-t", "caf", path, "trim", "0", str(seconds)], check=True)


def write_journal(folder, source, total_frames, first_host, gaps=(), ppm=0.0):
    """The journal capture keeps beside a raw track (the final one)."""
    seconds = total_frames / RATE / (1 + ppm * 1e-6)
    clock = {"source": source, "sampleRate": RATE, "totalFrames": total_frames,
             "firstHostTime": first_host, "lastHostTime": first_host + int(round(seconds * 1e9)),
             "firstSampleTime": 0, "lastSampleTime": total_frames,
             "droppedFrames": sum(g[1] for g in gaps)}
    journal = {"raw_file": f"{source}.caf", "clock": clock,
               "gaps": [{"track": source, "startSample": s, "droppedFrames": n,
                         "reason": "captureLoss"} for s, n in gaps],
               "frames_written": total_frames - clock["droppedFrames"], "finished": True,
               "usable": True, "failure": None}
    with open(os.path.join(folder, f"{source}.journal.json"), "w") as f:
        json.dump(journal, f)


def probe(path):
    out = subprocess.run(["ffprobe", "-v", "error", "-show_entries",
                          "stream=codec_name,profile,sample_rate,channels:format=duration,format_name",
                          "-of", "json", path], capture_output=True, text=True, check=True).stdout
    return json.loads(out)


def decode(path):
    """(left, right) as lists of floats in -1..1, from ffmpeg's decode to 16-bit PCM."""
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "s16le", "-ac", "2", "-"],
                         capture_output=True, check=True).stdout
    samples = array.array("h")
    samples.frombytes(raw)
    return [x / 32768 for x in samples[0::2]], [x / 32768 for x in samples[1::2]]


def silent_stretches(channel, threshold=0.01, window=48):
    """[start, end) seconds of each run of 1 ms windows whose peak is below `threshold`."""
    runs, start = [], None
    for i in range(0, len(channel) - window + 1, window):
        quiet = max(abs(x) for x in channel[i:i + window]) < threshold
        if quiet and start is None:
            start = i
        elif not quiet and start is not None:
            runs.append((start / RATE, i / RATE))
            start = None
    if start is not None:
        runs.append((start / RATE, len(channel) / RATE))
    return runs


def sha256_file(path):
    out = subprocess.run(["sha256sum", path], capture_output=True, text=True, check=True).stdout
    return out.split()[0]


@unittest.skipUnless(have("sox", "ffprobe", "ffmpeg", "sha256sum"), "sox and ffmpeg are needed")
class MeetingSeal(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="tamsel-seal-")
        self.dir = os.path.join(self.root, "meeting")
        os.mkdir(self.dir)

    def tearDown(self):
        shutil.rmtree(self.root, ignore_errors=True)

    def seal(self, folder=None, *extra, expect=0):
        proc = subprocess.run([TAMSEL, "meeting", "seal", folder or self.dir, "--json", *extra],
                              capture_output=True, text=True, timeout=120)
        self.assertEqual(proc.returncode, expect, proc.stderr)
        return json.loads(proc.stdout) if expect == 0 else proc.stderr

    def file(self, name):
        return os.path.join(self.dir, name)

    def leftovers(self, folder=None):
        return sorted(p for pattern in TEMPORARY
                      for p in glob.glob(os.path.join(folder or self.dir, pattern)))

    def job(self):
        with open(self.file("job.json")) as f:
            return json.load(f)

    def test_two_tracks_become_mic_left_system_right_on_one_timeline(self):
        # Mic: 3 s of timeline with 0.5 s lost at 1.0 s (the file holds 2.5 s); the system
        # track starts 0.25 s after the microphone.
        sox_tone(self.file("mic.caf"), 2.5, 1000)
        write_journal(self.dir, "mic", 3 * RATE, 10**9, gaps=[(RATE, RATE // 2)])
        sox_tone(self.file("system.caf"), 3.0, 440)
        write_journal(self.dir, "system", 3 * RATE, 10**9 + 250_000_000)
        result = self.seal()

        combined = self.file("combined.m4a")
        self.assertEqual(result["artifact"], combined)
        info = probe(combined)
        stream = info["streams"][0]
        self.assertEqual((stream["codec_name"], stream["profile"], stream["sample_rate"],
                          stream["channels"]), ("aac", "LC", "48000", 2))
        self.assertIn("mp4", info["format"]["format_name"])
        self.assertAlmostEqual(float(info["format"]["duration"]), 3.25, delta=0.001)
        for name in ("combined.m4a", "manifest.json"):
            self.assertEqual(os.stat(self.file(name)).st_mode & 0o777, 0o600)

        # Channels: which tone is where, measured on the decoded file.
        wav = os.path.join(self.root, "decoded.wav")
        subprocess.run(["ffmpeg", "-v", "error", "-i", combined, wav], check=True)
        for channel, tone, other in ((1, 1000, 440), (2, 440, 1000)):
            single = os.path.join(self.root, f"channel{channel}.wav")
            subprocess.run(["sox", wav, single, "remix", str(channel)], check=True)
            start = 0.3 if channel == 1 else 1.8  # inside a stretch where the track sounds
            self.assertGreater(tone_level(single, start, 0.5, tone),
                               20 * tone_level(single, start, 0.5, other), channel)

        # Silence exactly where the timeline has none of a track, within 10 ms.
        left, right = decode(combined)
        # (The microphone's timeline ends at 3.0 s: silence follows to the end.)
        gap = [r for r in silent_stretches(left) if r[1] - r[0] > 0.1 and r[0] < 2.9]
        self.assertEqual(len(gap), 1, gap)
        self.assertAlmostEqual(gap[0][0], 1.0, delta=0.01)
        self.assertAlmostEqual(gap[0][1], 1.5, delta=0.01)
        lead = silent_stretches(right)[0]
        self.assertAlmostEqual(lead[0], 0.0, delta=0.001)
        self.assertAlmostEqual(lead[1], 0.25, delta=0.01)  # the system track's late start

        with open(self.file("manifest.json")) as f:
            text = f.read()
        manifest = json.loads(text)
        self.assertEqual(list(manifest), MANIFEST_KEYS)
        self.assertEqual(manifest["sha256"], sha256_file(combined))
        self.assertEqual(manifest["sha256"], result["sha256"])
        self.assertEqual(manifest["trackMapping"], {"left": "mic", "right": "system"})
        self.assertEqual(manifest["gaps"], [{"track": "mic", "startSample": RATE,
                                             "droppedFrames": RATE // 2, "reason": "captureLoss"}])
        self.assertEqual(manifest["driftCorrection"]["interTrackOffsetSeconds"], 0.25)
        self.assertEqual([t["source"] for t in manifest["tracks"]], ["mic", "system"])
        self.assertEqual(self.job()["state"], "queued")
        self.assertEqual(self.job()["artifactSHA256"], manifest["sha256"])
        self.assertEqual(self.leftovers(), [])
        for raw in ("mic.caf", "system.caf"):
            self.assertTrue(os.path.exists(self.file(raw)))

        # The text form names the artifact, its duration, hash and drift.
        text = subprocess.run([TAMSEL, "meeting", "seal", self.dir], capture_output=True,
                              text=True, check=True).stdout
        self.assertIn(f"sealed {combined}", text)
        self.assertIn("duration 00:03.25", text)
        self.assertIn(manifest["sha256"], text)
        self.assertIn("system audio starts 0.250 s after the microphone", text)

    def test_microphone_alone_and_drift_resampled_to_the_exact_length(self):
        sox_tone(self.file("mic.caf"), 10, 1000)
        write_journal(self.dir, "mic", 10 * RATE, 10**9, ppm=20.0)
        result = self.seal()
        self.assertTrue(result["driftCorrection"]["resampleApplied"])
        self.assertAlmostEqual(result["driftCorrection"]["micPPM"], 20.0, delta=0.01)
        # 20 ppm fast for 480000 frames: 479990 frames by the host clock.
        self.assertAlmostEqual(float(probe(self.file("combined.m4a"))["format"]["duration"]),
                               479990 / RATE, delta=1.5 / RATE)
        left, right = decode(self.file("combined.m4a"))
        self.assertEqual(max(abs(x) for x in right), 0.0)
        self.assertGreater(max(abs(x) for x in left[RATE:2 * RATE]), 0.25)
        self.assertEqual(result["channels"], {"left": "mic", "right": "silence"})

    def test_a_second_seal_replaces_both_files_while_readers_read(self):
        sox_tone(self.file("mic.caf"), 20, 1000)
        sox_tone(self.file("system.caf"), 20, 440)
        first = self.seal()
        inode = os.stat(self.file("combined.m4a")).st_ino
        seen, stop = [], threading.Event()

        def read_loop():
            while not stop.is_set():
                with open(self.file("combined.m4a"), "rb") as f:
                    seen.append(hashlib.sha256(f.read()).hexdigest())
                with open(self.file("manifest.json")) as f:
                    json.load(f)  # always a whole document

        reader = threading.Thread(target=read_loop)
        reader.start()
        try:
            for _ in range(3):
                again = self.seal()
        finally:
            stop.set()
            reader.join()
        self.assertNotEqual(os.stat(self.file("combined.m4a")).st_ino, inode)
        self.assertGreater(len(seen), 3)
        self.assertEqual(set(seen), {first["sha256"]})  # never a half-written file
        self.assertEqual(again["sha256"], first["sha256"])
        self.assertEqual(self.leftovers(), [])

    def test_all_zero_tracks_fail_with_no_captured_signal(self):
        sox_silence(self.file("mic.caf"), 2)
        sox_silence(self.file("system.caf"), 2)
        err = self.seal(expect=1)
        self.assertIn("no captured signal", err)
        self.assertFalse(os.path.exists(self.file("combined.m4a")))
        self.assertFalse(os.path.exists(self.file("manifest.json")))
        self.assertEqual(self.leftovers(), [])
        self.assertEqual(self.job()["state"], "sealingFailed")
        self.assertIn("no captured signal", self.job()["lastError"])

    def test_a_killed_seal_is_retried_to_the_same_result(self):
        sox_tone(self.file("mic.caf"), 240, 1000)
        sox_tone(self.file("system.caf"), 240, 440)
        clean = os.path.join(self.root, "clean")
        shutil.copytree(self.dir, clean)
        proc = subprocess.Popen([TAMSEL, "meeting", "seal", self.dir], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        deadline = time.time() + 30
        working = self.file("mic.render.caf")

        def midway():  # rendering well under way, or done and the encoders still at work
            return os.path.exists(self.file("rendered.caf")) or (
                os.path.exists(working) and os.path.getsize(working) > 20_000_000)
        while time.time() < deadline and not midway():
            time.sleep(0.005)
        os.kill(proc.pid, signal.SIGKILL)
        proc.wait()
        self.assertNotEqual(self.leftovers(), [], "killed before it wrote anything")
        self.assertFalse(os.path.exists(self.file("combined.m4a")))
        self.assertEqual(self.job()["state"], "sealing")

        retried = self.seal()
        self.assertEqual(self.leftovers(), [])
        self.assertEqual(retried["sha256"], self.seal(clean)["sha256"])
        self.assertEqual(self.job()["state"], "queued")

    def test_bad_folders_are_refused_clearly(self):
        err = self.seal(os.path.join(self.root, "nowhere"), expect=2)
        self.assertIn("is not a meeting folder", err)
        err = self.seal(expect=1)
        self.assertIn("no microphone track", err)
        with open(self.file("mic.caf"), "wb") as f:
            f.write(b"not audio")
        err = self.seal(expect=1)
        self.assertIn("cannot read", err)
        self.assertEqual(self.job()["state"], "sealingFailed")
        self.assertEqual(self.leftovers(), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
