#!/usr/bin/env python3
"""`tamsel meeting record` against real audio servers: a headless PulseAudio, and PipeWire with
pipewire-pulse and wireplumber. Tones play into null sinks (the system track) and into sinks
remapped as microphones (the mic track); the CAF files are checked with sox.

Run: python3 tests/integration/test_meeting_audio.py [pulseaudio|pipewire]
Env: TAMSEL_BIN (the binary).
"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from audio_servers import RATE, AudioServer, have, sox_info, tone_at, tone_level  # noqa: E402

TAMSEL = os.environ.get("TAMSEL_BIN", "build/apps/tamsel/tamsel")
KIND = sys.argv.pop(1) if len(sys.argv) > 1 and sys.argv[1] in ("pulseaudio", "pipewire") else "pulseaudio"
NEEDS = {"pulseaudio": ("pulseaudio", "pactl", "pacat", "sox", "ffmpeg"),
         "pipewire": ("pipewire", "wireplumber", "pipewire-pulse", "dbus-run-session", "pactl",
                      "pacat", "sox", "ffmpeg")}
# sox scales a float file by its loudest sample, so levels are relative: a tone that is there
# measures well above this through the band-pass, what leaks into another tone's band far below.
PRESENT = 0.05


def near(measured, wanted):
    return abs(measured - wanted) <= 40  # sox's zero-crossing estimate


@unittest.skipUnless(have(*NEEDS[KIND]), f"{KIND} is not installed")
class MeetingRecording(unittest.TestCase):
    server = None

    @classmethod
    def setUpClass(cls):
        cls.server = AudioServer(KIND).start()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def setUp(self):
        self.sealed = None
        self.dir = tempfile.mkdtemp(prefix="tamsel-meeting-")
        self.server.pactl("set-default-sink", "speakers")
        self.server.pactl("set-default-source", "virtual_mic")
        self.server.wait_for_defaults("speakers", "virtual_mic")

    def tearDown(self):
        for p in self.server.players:
            if p.poll() is None:
                p.kill()
            p.wait()
        self.server.players = []

    def start_recorder(self, *args, env=None):
        e = dict(self.server.env, **(env or {}))
        self.stderr = open(os.path.join(self.dir, "stderr.txt"), "w+")
        return subprocess.Popen([TAMSEL, "meeting", "record", "--json", "--dir", self.dir, *args],
                                env=e, stdout=subprocess.PIPE, stderr=self.stderr, text=True)

    def finish(self, proc, timeout=30):
        out, _ = proc.communicate(timeout=timeout)
        self.stderr.seek(0)
        log = self.stderr.read()
        self.stderr.close()
        tracks = {}
        for line in out.splitlines():
            record = json.loads(line)
            if "artifact" in record:  # the seal that follows the recording
                self.sealed = record
                continue
            tracks[record["source"]] = record
        return tracks, log, proc.returncode

    def wait_for_audio(self, *tracks, timeout=10):
        """Waits until every named track's file holds audio (the monitor starts late)."""
        deadline = time.time() + timeout
        while time.time() < deadline:
            if all(os.path.exists(self.path(t)) and os.path.getsize(self.path(t)) > 48000
                   for t in tracks):
                return
            time.sleep(0.05)
        self.fail(f"no audio arrived in {tracks}")

    def path(self, track):
        return os.path.join(self.dir, f"{track}.caf")

    def check_file_matches(self, record):
        rate, channels, frames = sox_info(record["raw_file"])
        self.assertEqual((rate, channels), (RATE, 1))
        clock = record["clock"]
        written = clock["totalFrames"] - clock["droppedFrames"]
        self.assertEqual(frames, written, record)
        self.assertEqual(sum(g["droppedFrames"] for g in record["gaps"]), clock["droppedFrames"])
        return frames

    def check_timeline_is_wall_clock(self, record):
        # The timeline (written plus gaps) spans what the host clock says, within 20 ms.
        c = record["clock"]
        host_frames = (c["lastHostTime"] - c["firstHostTime"]) * RATE / 1e9
        sample_frames = c["lastSampleTime"] - c["firstSampleTime"]
        self.assertLess(abs(sample_frames - host_frames), 0.02 * RATE, record)

    def test_ten_seconds_two_tones_no_gaps(self):
        self.server.play("speakers", 440, 16)
        self.server.play("mic_feed", 1000, 16)
        time.sleep(0.5)
        tracks, log, rc = self.finish(self.start_recorder("--duration", "10"))
        self.assertEqual(rc, 0, log)
        self.assertEqual(set(tracks), {"mic", "system"}, log)
        for source, tone, other in (("mic", 1000, 440), ("system", 440, 1000)):
            record = tracks[source]
            self.assertEqual(record["gaps"], [], record)
            self.assertTrue(record["usable"])
            self.assertIsNone(record["failure"])
            frames = self.check_file_matches(record)
            self.assertGreater(frames, 7 * RATE, record)  # the monitor may start up to 2 s late
            self.assertLessEqual(frames, 10.2 * RATE)
            for start in (1.0, frames / RATE - 2.0):
                rms, freq = tone_at(record["raw_file"], start, 1.0)
                self.assertGreater(rms, 0.05, (source, start))
                self.assertTrue(near(freq, tone), (source, start, freq))
                self.assertLess(tone_level(record["raw_file"], start, 1.0, other),
                                tone_level(record["raw_file"], start, 1.0, tone) / 4)
            self.check_timeline_is_wall_clock(record)
        self.assertEqual(os.stat(self.path("mic")).st_mode & 0o777, 0o600)
        self.assertIn("microphone: virtual_mic", log)
        self.assertIn("system audio: speakers", log)
        self.check_sealed_channels()

    def check_sealed_channels(self):
        """The seal at the end of the recording: mic tone left, system tone right."""
        self.assertIsNotNone(self.sealed, "the recording was not sealed")
        combined = os.path.join(self.dir, "combined.m4a")
        self.assertEqual(self.sealed["artifact"], combined)
        self.assertEqual(self.sealed["job"], "queued")
        wav = os.path.join(self.dir, "combined.wav")
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-i", combined, wav], check=True)
        _, channels, frames = sox_info(wav)
        self.assertEqual(channels, 2)
        self.assertAlmostEqual(frames / RATE, self.sealed["duration"], delta=0.03)
        for channel, tone, other in ((1, 1000, 440), (2, 440, 1000)):
            single = os.path.join(self.dir, f"channel{channel}.wav")
            subprocess.run(["sox", wav, single, "remix", str(channel)], check=True)
            start = frames / RATE - 2.5
            self.assertGreater(tone_level(single, start, 1.0, tone),
                               4 * tone_level(single, start, 1.0, other), channel)

    def test_default_device_switches_continue_the_tracks(self):
        self.server.play("speakers", 440, 20)
        self.server.play("speakers2", 660, 20)
        self.server.play("mic_feed", 1000, 20)
        self.server.play("mic_feed2", 1500, 20)
        proc = self.start_recorder("--duration", "10")
        self.wait_for_audio("mic", "system")
        time.sleep(2)
        self.server.pactl("set-default-sink", "speakers2")
        self.server.pactl("set-default-source", "virtual_mic2")
        tracks, log, rc = self.finish(proc)
        self.assertEqual(rc, 0, log)
        for source, before, after in (("mic", 1000, 1500), ("system", 440, 660)):
            record = tracks[source]
            self.assertTrue(record["usable"], record)
            self.assertIsNone(record["failure"])
            frames = self.check_file_matches(record)
            self.assertEqual([g["reason"] for g in record["gaps"]], ["routeTransition"], record)
            self.assertLess(record["gaps"][0]["droppedFrames"], RATE, record)  # within a second
            gap_at = record["gaps"][0]["startSample"] / RATE
            first = tone_level(record["raw_file"], 0.2, 1.0, before)
            self.assertGreater(first, PRESENT)
            self.assertLess(tone_level(record["raw_file"], 0.2, 1.0, after), first / 4, record)
            # After the switch the new device's tone is there (PulseAudio may move the
            # players to the new default sink as well, so the old tone is not checked).
            self.assertGreater(tone_level(record["raw_file"], gap_at + 0.5, 1.0, after), PRESENT)
            self.assertGreater(tone_level(record["raw_file"], frames / RATE - 1.5, 1.0, after),
                               PRESENT)
        self.assertIn("systap: now recording from speakers2 (speakers2.monitor)", log)
        self.assertIn("mic: now recording from virtual_mic2", log)

    def test_stalled_recorder_keeps_the_lost_stretch_as_a_gap(self):
        self.server.play("speakers", 440, 25)
        self.server.play("mic_feed", 1000, 25)
        proc = self.start_recorder()
        self.wait_for_audio("mic", "system")
        time.sleep(1.5)
        proc.send_signal(signal.SIGSTOP)
        time.sleep(5)
        proc.send_signal(signal.SIGCONT)
        time.sleep(3)
        proc.send_signal(signal.SIGINT)
        tracks, log, rc = self.finish(proc)
        self.assertEqual(rc, 0, log)
        for source in ("mic", "system"):
            record = tracks[source]
            self.assertTrue(record["usable"], record)
            self.check_file_matches(record)
            losses = [g for g in record["gaps"] if g["reason"] == "captureLoss"]
            self.assertEqual(len(losses), len(record["gaps"]), record)
            # One stall, one gap; a backlog read in bursts on a busy machine may split it.
            self.assertIn(len(losses), (1, 2, 3), record)
            # 5 s stopped, up to about 4 s of it held by the servers' buffers.
            lost = sum(g["droppedFrames"] for g in losses)
            self.assertGreater(lost, 0.5 * RATE, record)
            self.assertLess(lost, 5 * RATE, record)
            self.check_timeline_is_wall_clock(record)

    def test_killed_recorder_leaves_readable_tracks_and_journals(self):
        self.server.play("speakers", 440, 15)
        self.server.play("mic_feed", 1000, 15)
        proc = self.start_recorder()
        self.wait_for_audio("mic", "system")
        time.sleep(3)
        proc.kill()
        proc.wait()
        self.stderr.close()
        for source in ("mic", "system"):
            rate, channels, frames = sox_info(self.path(source))
            self.assertEqual((rate, channels), (RATE, 1))
            # The header lags what was written by at most a second.
            on_disk = (os.path.getsize(self.path(source)) - 4096) / 4
            self.assertGreater(frames, on_disk - RATE, source)
            self.assertGreater(frames, 2 * RATE, source)
            with open(os.path.join(self.dir, f"{source}.journal.json")) as f:
                journal = json.load(f)
            self.assertFalse(journal["finished"])
            self.assertEqual(journal["clock"]["source"], source)
            self.assertLessEqual(journal["frames_written"], frames)
            self.assertEqual(journal["clock"]["totalFrames"] - journal["clock"]["droppedFrames"],
                             journal["frames_written"])
            self.assertEqual(journal["gaps"], [])
        # The crashed recording seals from what its journals and files hold.
        sealed = subprocess.run([TAMSEL, "meeting", "seal", "--json", self.dir],
                                capture_output=True, text=True, timeout=60)
        self.assertEqual(sealed.returncode, 0, sealed.stderr)
        self.assertGreater(json.loads(sealed.stdout)["duration"], 2.0)

    def test_unplugged_output_moves_the_system_track_to_the_new_default(self):
        module = self.server.pactl("load-module", "module-null-sink", "sink_name=headphones",
                                   "sink_properties=device.description=headphones").strip()
        try:
            self.server.pactl("set-default-sink", "headphones")
            self.server.play("headphones", 660, 20)
            self.server.play("speakers", 440, 20)
            self.server.play("mic_feed", 1000, 20)
            proc = self.start_recorder("--duration", "8")
            self.wait_for_audio("system")
            time.sleep(1.5)
        finally:
            self.server.pactl("unload-module", module)  # the headphones are pulled out
        self.server.pactl("set-default-sink", "speakers")
        tracks, log, rc = self.finish(proc)
        self.assertEqual(rc, 0, log)
        record = tracks["system"]
        self.assertTrue(record["usable"], record)
        self.assertIsNone(record["failure"], record)
        frames = self.check_file_matches(record)
        self.assertGreaterEqual(len(record["gaps"]), 1, record)
        self.assertTrue(all(g["reason"] == "routeTransition" for g in record["gaps"]), record)
        self.assertGreater(tone_level(record["raw_file"], 0.2, 1.0, 660), PRESENT)
        tail = frames / RATE - 1.5
        self.assertGreater(tone_level(record["raw_file"], tail, 1.0, 440), PRESENT)
        self.assertLess(tone_level(record["raw_file"], tail, 1.0, 1000),
                        tone_level(record["raw_file"], tail, 1.0, 440) / 4)  # not the mic

    @unittest.skipUnless(KIND == "pulseaudio", "PipeWire ignores suspending a busy source")
    def test_suspended_microphone_warns_and_leaves_a_gap(self):
        self.server.play("mic_feed", 1000, 20)
        proc = self.start_recorder("--duration", "9", "--no-system")
        self.wait_for_audio("mic")
        time.sleep(1)
        self.server.pactl("suspend-source", "virtual_mic", "1")
        time.sleep(4)
        self.server.pactl("suspend-source", "virtual_mic", "0")
        tracks, log, rc = self.finish(proc)
        self.assertEqual(rc, 0, log)
        self.assertIn("warning: mic: no audio from virtual_mic for 3 s", log)
        record = tracks["mic"]
        self.assertTrue(record["usable"], record)
        self.check_file_matches(record)
        lost = sum(g["droppedFrames"] for g in record["gaps"] if g["reason"] == "captureLoss")
        self.assertGreater(lost, 3 * RATE, record)
        self.assertLess(lost, 5 * RATE, record)
        self.check_timeline_is_wall_clock(record)

    def test_microphone_alone_and_device_list(self):
        # A microphone nothing was ever played into: a fresh null sink's monitor gives exact zeros
        # (the shared microphone may still hold the tail of an earlier test's tone).
        module = self.server.pactl("load-module", "module-null-sink", "sink_name=quiet_room",
                                   "sink_properties=device.description=quiet_room").strip()
        self.addCleanup(self.server.pactl, "unload-module", module)
        tracks, log, rc = self.finish(
            self.start_recorder("--duration", "6.5", "--mic", "quiet_room.monitor",
                                env={"TamselMeetingDisableSystap": "1"}))
        # Capture worked; the seal that follows finds nothing but zeros and makes no artifact.
        self.assertEqual(rc, 1, log)
        self.assertIn("no captured signal", log)
        self.assertFalse(os.path.exists(os.path.join(self.dir, "combined.m4a")))
        self.assertEqual(list(tracks), ["mic"])
        self.assertIn("TamselMeetingDisableSystap", log)
        self.assertIn("warning: mic: the microphone delivers digital silence", log)
        out = subprocess.run([TAMSEL, "meeting", "devices", "--json"], env=self.server.env,
                             capture_output=True, text=True, check=True).stdout
        devices = json.loads(out)
        self.assertEqual([s["name"] for s in devices["sinks"] if s["default"]], ["speakers"])
        self.assertEqual([s["name"] for s in devices["sources"] if s["default"]], ["virtual_mic"])


if __name__ == "__main__":
    unittest.main()
