#!/usr/bin/env python3
"""`tamsel meeting watch` against real audio servers (a headless PulseAudio, and PipeWire with
pipewire-pulse and wireplumber): stand-in meeting applications are pacat clients whose stream
properties carry a meeting application's binary name and Flatpak id; they record from the
microphone and play to the output like the real ones. Also: a recording killed with SIGKILL is
marked crashed by the next launch, with its raw tracks and journals kept.

Run: python3 tests/integration/test_meeting_lifecycle.py [pulseaudio|pipewire]
Env: TAMSEL_BIN (the binary), VERD_SIM (the engine simulator, for `tamsel run`).
"""
import json
import os
import queue
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from audio_servers import RATE, AudioServer, have  # noqa: E402

TAMSEL = os.environ.get("TAMSEL_BIN", "build/apps/tamsel/tamsel")
VERD_SIM = os.environ.get("VERD_SIM", "tools/verd-sim/verd-sim")
KIND = sys.argv.pop(1) if len(sys.argv) > 1 and sys.argv[1] in ("pulseaudio", "pipewire") else "pulseaudio"
NEEDS = {"pulseaudio": ("pulseaudio", "pactl", "pacat", "sox"),
         "pipewire": ("pipewire", "wireplumber", "pipewire-pulse", "dbus-run-session", "pactl",
                      "pacat", "sox")}
GRACE = 2


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Watch:
    """A running `tamsel meeting watch --json`, its events read on a thread."""

    def __init__(self, env, *args):
        self.proc = subprocess.Popen([TAMSEL, "meeting", "watch", "--json", "--grace", str(GRACE),
                                      *args], env=env, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.events = []
        self.queue = queue.Queue()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.proc.stdout:
            event = json.loads(line)
            self.queue.put(event)

    def drain(self):
        while True:
            try:
                self.events.append(self.queue.get_nowait())
            except queue.Empty:
                return self.events

    def wait_for(self, name, timeout=15, **match):
        deadline = time.time() + timeout
        seen = len(self.drain())
        for event in self.events:
            if event["event"] == name and all(event.get(k) == v for k, v in match.items()):
                return event
        while time.time() < deadline:
            try:
                event = self.queue.get(timeout=0.1)
            except queue.Empty:
                continue
            self.events.append(event)
            if event["event"] == name and all(event.get(k) == v for k, v in match.items()):
                return event
        raise AssertionError(f"no {name} event within {timeout} s; saw {self.events[:seen + 40]}")

    def names(self):
        return [e["event"] for e in self.drain()]

    def say(self, text):
        self.proc.stdin.write(text + "\n")
        self.proc.stdin.flush()

    def end(self):
        self.proc.send_signal(signal.SIGINT)
        try:
            self.proc.wait(timeout=15)
        finally:
            self.close()
        self.drain()
        return self.proc.returncode

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        self.reader.join(timeout=5)
        for f in (self.proc.stdin, self.proc.stdout, self.proc.stderr):
            try:
                f.close()
            except BrokenPipeError:
                pass


@unittest.skipUnless(have(*NEEDS[KIND]), f"{KIND} is not installed")
class MeetingLifecycle(unittest.TestCase):
    server = None

    @classmethod
    def setUpClass(cls):
        cls.server = AudioServer(KIND).start()
        cls.tone = os.path.join(cls.server.root, "voice.raw")
        subprocess.run(["sox", "-n", "-r", str(RATE), "-c", "1", "-b", "16", "-e",
                        "signed-integer", "-t", "raw", cls.tone, "synth", "60", "sine", "300",
                        "gain", "-10"], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="tamsel-lifecycle-")
        # An engine port of the test's own: the other audio server's run of these tests may
        # supervise an engine at the same time.
        self.env = dict(self.server.env, XDG_DATA_HOME=os.path.join(self.home, "data"),
                        TAMSEL_ENGINE_PORT=str(free_port()))
        self.env.pop("TamselMeetingDisableSystap", None)
        self.clients = []
        self.watch = None

    def tearDown(self):
        if self.watch:
            self.watch.close()
        for p in self.clients:
            if p.poll() is None:
                p.kill()
            p.wait()
        shutil.rmtree(self.home, ignore_errors=True)

    @property
    def meetings(self):
        return os.path.join(self.home, "data", "dev.tamsel.desktop", "meetings")

    # A stand-in meeting application: a capture client and a playback client carrying the
    # application's identifiers (real clients often split the two across processes too). The
    # capture client is the one identified; the playback one keeps the application present.
    def meeting_app(self, binary, flatpak_id=None):
        props = [f"--property=application.process.binary={binary}"]
        if flatpak_id:
            props.append(f"--property=pipewire.access.portal.app_id={flatpak_id}")
        record = subprocess.Popen(["pacat", "--record", *props, "/dev/null"], env=self.server.env,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        play = subprocess.Popen(["pacat", "--playback", "--raw", f"--rate={RATE}", "--channels=1",
                                 "--format=s16le", *props, self.tone], env=self.server.env,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.clients += [record, play]
        return record, play

    def wait_for_streams(self, *pids):
        deadline = time.time() + 10
        while time.time() < deadline:
            listing = self.server.pactl("list", "source-outputs")
            if all(f'application.process.id = "{pid}"' in listing for pid in pids):
                return
            time.sleep(0.1)
        self.fail(f"no record streams from {pids}")

    def stop_clients(self, *procs):
        for p in procs:
            p.kill()
            p.wait()

    def jobs(self):
        out = subprocess.run([TAMSEL, "meeting", "jobs", "--json"], env=self.env,
                             capture_output=True, text=True)
        self.assertEqual(out.returncode, 0, out.stderr)
        return json.loads(out.stdout)

    def test_auto_watch_records_a_detected_meeting_until_its_grace_ends(self):
        self.watch = Watch(self.env, "--auto")
        self.watch.wait_for("detection", text="none")
        record, play = self.meeting_app("zoom", "us.zoom.Zoom")
        detected = self.watch.wait_for("detection", text=f"zoom (us.zoom.Zoom, PID {record.pid})")
        started = self.watch.wait_for("started")
        self.assertEqual(started["identity"],
                         {"family": "zoom", "bundleID": "us.zoom.Zoom", "pid": record.pid})
        folder = started["folder"]
        self.assertTrue(folder.startswith(self.meetings), folder)
        self.watch.wait_for("job", text="releasingCapture")

        # Input ends but the application still plays: still present, no grace yet.
        self.stop_clients(record)
        time.sleep(1.0)
        self.assertNotIn("grace", self.watch.names())
        # Gone altogether: grace, then the stop after it.
        self.stop_clients(play)
        grace = self.watch.wait_for("grace")
        stopping = self.watch.wait_for("stopping", timeout=GRACE + 10)
        self.assertEqual(stopping["text"], "detectedApplicationEnded")
        stopped = self.watch.wait_for("stopped")
        self.assertIn(stopped["job"]["state"], ("sealing", "queued"), stopped)
        self.assertEqual(self.watch.end(), 0)

        names = self.watch.names()
        self.assertLess(names.index("started"), names.index("grace"))
        self.assertLess(names.index("grace"), names.index("stopping"))
        (job,) = self.jobs()
        self.assertEqual(job["folder"], folder)
        self.assertEqual(job["job"]["state"], "queued", job)
        self.assertIn("captureQuality", job["job"])
        self.assertEqual(list(job["job"])[:3], ["id", "state", "createdAt"])
        for name in ("mic.caf", "system.caf", "mic.journal.json", "job.json"):
            self.assertTrue(os.path.exists(os.path.join(folder, name)), name)
        self.assertEqual(os.stat(os.path.join(folder, "job.json")).st_mode & 0o777, 0o600)
        del detected, grace

    def test_without_auto_a_proposal_waits_for_the_answer(self):
        self.watch = Watch(self.env)
        self.watch.wait_for("detection", text="none")
        record, play = self.meeting_app("teams-for-linux")
        proposal = self.watch.wait_for("proposal")
        self.assertEqual(proposal["identity"]["family"], "microsoftTeams")
        time.sleep(0.5)
        self.assertNotIn("started", self.watch.names())
        self.assertEqual(os.listdir(self.meetings) if os.path.exists(self.meetings) else [], [])
        self.watch.say("y")
        self.watch.wait_for("started")
        # The user keeps recording past the application's end, then stops.
        self.stop_clients(record, play)
        self.watch.wait_for("grace")
        self.watch.say("k")
        self.watch.wait_for("grace cancelled", text="keeping the recording going until you stop it")
        time.sleep(GRACE + 1)
        self.assertNotIn("stopping", self.watch.names())
        self.watch.say("s")
        self.assertEqual(self.watch.wait_for("stopping")["text"], "explicit")
        self.watch.wait_for("stopped")
        self.watch.end()

    def test_two_meeting_applications_are_ambiguous_and_start_nothing(self):
        # Both already talk when watching starts, so no moment shows one of them alone.
        zoom, _ = self.meeting_app("zoom")
        wemeet, _ = self.meeting_app("wemeetapp")
        self.wait_for_streams(zoom.pid, wemeet.pid)
        self.watch = Watch(self.env, "--auto")
        self.watch.wait_for("detection", text="ambiguous")
        time.sleep(1.0)
        names = self.watch.names()
        self.assertNotIn("started", names)
        self.assertNotIn("proposal", names)
        self.watch.end()
        self.assertFalse(os.path.exists(self.meetings) and os.listdir(self.meetings))

    def test_our_own_recording_and_a_level_meter_trigger_nothing(self):
        self.watch = Watch(self.env, "--auto")
        self.watch.wait_for("detection", text="none")
        # A mixer's peak meter on the microphone: a record stream at a tiny rate.
        meter = subprocess.Popen(["pacat", "--record", "--rate=25", "--channels=1",
                                  "--format=float32le", "--property=application.name=pavucontrol",
                                  "--property=media.name=Peak detect", "/dev/null"],
                                 env=self.server.env, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        self.clients.append(meter)
        # Another tamsel recording, into a folder of its own.
        own_dir = os.path.join(self.home, "own")
        own = subprocess.Popen([TAMSEL, "meeting", "record", "--dir", own_dir, "--duration", "4"],
                               env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.clients.append(own)
        own.wait(timeout=20)
        self.assertEqual(own.returncode, 0)
        meter.kill()
        meter.wait()
        time.sleep(0.5)
        names = self.watch.names()
        for name in ("started", "proposal", "call activity"):
            self.assertNotIn(name, names, self.watch.events)
        self.watch.end()

        # While a plain recorder on the microphone is a call (but no meeting).
        self.watch = Watch(self.env, "--auto")
        self.watch.wait_for("detection", text="none")
        arecord = subprocess.Popen(["pacat", "--record", "/dev/null"], env=self.server.env,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.clients.append(arecord)
        self.watch.wait_for("call activity", text="callStarted: the microphone is in use by another application")
        arecord.kill()
        arecord.wait()
        self.watch.wait_for("call activity", text="callEnded: the microphone is free again")
        self.assertNotIn("started", self.watch.names())
        self.watch.end()

    def test_killed_recording_is_marked_crashed_with_its_tracks_kept(self):
        self.server.play("speakers", 440, 20)
        self.server.play("mic_feed", 1000, 20)
        rec = subprocess.Popen([TAMSEL, "meeting", "record"], env=self.env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.clients.append(rec)
        deadline = time.time() + 15
        folder = None
        while time.time() < deadline and not folder:
            if os.path.exists(self.meetings):
                for name in os.listdir(self.meetings):
                    mic = os.path.join(self.meetings, name, "mic.caf")
                    if os.path.exists(mic) and os.path.getsize(mic) > 2 * RATE * 4:
                        folder = os.path.join(self.meetings, name)
            time.sleep(0.1)
        self.assertIsNotNone(folder, "no audio was recorded")
        # While it records, a listing leaves its job alone.
        (live,) = self.jobs()
        self.assertEqual(live["job"]["state"], "releasingCapture")
        rec.kill()
        rec.wait()

        # The next launch (a supervisor against the simulator) replays the job.
        run = subprocess.Popen([TAMSEL, "run", "--json"], env=dict(self.env, VERD_BINARY=VERD_SIM),
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.clients.append(run)
        replayed = None
        deadline = time.time() + 20
        while time.time() < deadline and not replayed:
            line = run.stdout.readline()
            if not line:
                break
            event = json.loads(line)
            if event.get("event") == "meeting_job_replay":
                replayed = event
        run.send_signal(signal.SIGINT)
        run.wait(timeout=20)
        errors = run.stderr.read()
        run.stdout.close()
        run.stderr.close()
        self.assertIsNotNone(replayed, errors)
        self.assertEqual(replayed["action"], "markCrashedWhileRecording")
        self.assertEqual(replayed["folder"], folder)
        # Marked crashed, then sealed from what the tracks and journals hold; the raw tracks stay.
        (job,) = self.jobs()
        self.assertEqual(job["job"]["state"], "queued", job)
        self.assertEqual(len(job["job"]["artifactSHA256"]), 64, job)
        for name in ("mic.caf", "system.caf", "mic.journal.json", "system.journal.json",
                     "combined.m4a", "manifest.json"):
            self.assertGreater(os.path.getsize(os.path.join(folder, name)), 0, name)

    def test_run_watches_only_with_auto_record_on(self):
        run_env = dict(self.env, VERD_BINARY=VERD_SIM)

        def run_with_meeting(seconds):
            run = subprocess.Popen([TAMSEL, "run", "--json"], env=run_env, stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, text=True)
            time.sleep(1.5)
            record, play = self.meeting_app("wemeetapp")
            time.sleep(seconds)
            run.send_signal(signal.SIGINT)
            out, _ = run.communicate(timeout=20)
            self.stop_clients(record, play)
            return [json.loads(line) for line in out.splitlines()]

        events = run_with_meeting(2)
        self.assertFalse([e for e in events if e.get("event") in ("detection", "started")])
        self.assertFalse(os.path.exists(self.meetings) and os.listdir(self.meetings))

        out = subprocess.run([TAMSEL, "meeting", "auto-record", "on"], env=self.env,
                             capture_output=True, text=True)
        self.assertIn("auto-record on", out.stdout)
        events = run_with_meeting(3)
        started = [e for e in events if e.get("event") == "started"]
        self.assertEqual(len(started), 1, events)
        self.assertEqual(started[0]["identity"]["family"], "tencentMeeting")
        # Ending the supervisor ends the recording cleanly: its job was sealed and queued.
        (job,) = self.jobs()
        self.assertEqual(job["folder"], started[0]["folder"])
        self.assertEqual(job["job"]["state"], "queued", job)

    def test_a_grace_that_is_not_seconds_is_a_usage_error(self):
        for value in ("-1", "soon", "7200"):
            out = subprocess.run([TAMSEL, "meeting", "watch", "--grace", value], env=self.env,
                                 capture_output=True, text=True, stdin=subprocess.DEVNULL)
            self.assertEqual(out.returncode, 2, value)
            self.assertIn("is not a grace period", out.stderr)

    def test_listing_marks_a_dead_recorder_and_keeps_a_damaged_record(self):
        os.makedirs(os.path.join(self.meetings, "b-damaged"))
        with open(os.path.join(self.meetings, "b-damaged", "job.json"), "w") as f:
            f.write('{"id": ')
        dead = os.path.join(self.meetings, "a-dead")
        os.makedirs(dead)
        with open(os.path.join(dead, "job.json"), "w") as f:
            json.dump({"id": "x", "state": "releasingCapture",
                       "createdAt": "2026-11-24T09:00:00Z", "retryCount": 0}, f)
        with open(os.path.join(dead, "mic.journal.json"), "w") as f:
            json.dump({"finished": True}, f)
        out = subprocess.run([TAMSEL, "meeting", "jobs"], env=self.env, capture_output=True,
                             text=True)
        self.assertEqual(out.returncode, 1)
        self.assertIn("b-damaged/job.json is damaged", out.stderr)
        self.assertIn("crashed while releasing capture", out.stdout)
        with open(os.path.join(self.meetings, "b-damaged", "job.json")) as f:
            self.assertEqual(f.read(), '{"id": ')


if __name__ == "__main__":
    unittest.main(verbosity=2)
