#!/usr/bin/env python3
"""Faults and hostile input, end to end: the real `tamsel` against a misbehaving engine, killed
at random moments, and on a full or read-only disk.

Each case runs in a sandbox of its own (see tests/integration/test_cli.py) and is bounded in
time. The disk cases need a small tmpfs; where this machine does not allow mounting one they are
skipped with the reason.

Run: python3 tests/faults/test_faults.py
Env: TAMSEL_BIN (the binary), VERD_SIM (the simulator), FAULT_KILLS (kill -9 rounds, default 40).
"""

import glob
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "integration"))
from test_cli import SIM, TAMSEL, Sandbox, describe, pid_alive, wait_gone  # noqa: E402


def peak_rss_kib(pid):
    """The process's peak resident memory (VmHWM) while it is alive."""
    try:
        with open("/proc/%d/status" % pid, encoding="utf-8") as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def bystander():
    """A live process that has nothing to do with any engine."""
    proc = subprocess.Popen(["/bin/sleep", "120"])
    return proc


class HostileEngine(unittest.TestCase):
    def setUp(self):
        self.sb = Sandbox(self)

    def start_hostile(self, scenario, *extra):
        return self.sb.launch_sim("--scenario", self.sb.write_scenario(scenario), *extra)

    def test_endless_event_line_is_dropped_and_the_stream_reconnects(self):
        self.start_hostile({"events_endless_line": True})
        proc = self.sb.popen("events")
        peak = 0
        deadline = time.monotonic() + 20
        err_path = os.path.join(self.sb.root, "tamsel-stderr.log")
        reconnects = 0
        while time.monotonic() < deadline:
            peak = max(peak, peak_rss_kib(proc.pid) or 0)
            with open(err_path, encoding="utf-8") as f:
                reconnects = f.read().count("event stream lost (The engine sent an event-stream line longer "
                                            "than 8 MiB; the stream was dropped); reconnecting")
            if reconnects >= 2:
                break
            time.sleep(0.1)
        proc.send_signal(signal.SIGINT)
        proc.wait(10)
        print("\n  tamsel events against an endless line: peak RSS %.1f MB over %d dropped connections"
              % (peak / 1024, reconnects), file=sys.stderr)
        self.assertGreaterEqual(reconnects, 2, "the error was not reported, or the stream did not reconnect")

    def test_endless_reply_line_ends_the_reply_with_the_error(self):
        self.start_hostile({"stream_events": [{"event": "delta", "data": {"text": "partial "}},
                                              {"endless_line": True}]})
        proc = self.sb.run("chat", "-m", "hello", timeout=60)
        self.assertNotEqual(proc.returncode, 0, describe(proc))
        self.assertIn("The engine sent an event-stream line longer than 8 MiB; the stream was dropped",
                      proc.stderr)

    def test_oversized_control_reply_is_refused(self):
        self.start_hostile({"responses": [{"method": "POST", "path": "/shutdown",
                                           "body_bytes": 512 * 1024 * 1024}]})
        proc = self.sb.run("engine", "stop", timeout=60)
        self.assertIn("The engine's answer to POST /shutdown was larger than 64 MiB; the call was dropped",
                      proc.stderr + proc.stdout)

    def test_socket_owner_that_is_not_the_pidfile_pid_is_never_signalled(self):
        sb = self.sb
        engine = self.start_hostile({"rpc_version": "1.0.1"}, "--rpc-socket", sb.socket_path)
        stranger = bystander()
        self.addCleanup(stranger.wait)
        self.addCleanup(stranger.kill)
        with open(sb.pidfile, "w", encoding="utf-8") as f:
            f.write("%d\n" % stranger.pid)
        proc = sb.run("engine", "start", timeout=60)
        self.assertNotEqual(proc.returncode, 0, describe(proc))
        self.assertIn("is answered by PID %d, not by PID %d of the pidfile" % (engine.pid, stranger.pid),
                      proc.stderr)
        self.assertIn("nothing was signalled", proc.stderr)
        self.assertIsNone(stranger.poll(), "an unrelated process was signalled")
        self.assertIsNone(engine.poll(), "the engine on the socket was signalled")
        self.assertEqual(len(sb.argv_entries()), 1, "a second engine was started beside the first")

    def test_engine_stop_with_a_stale_pidfile_names_no_stranger(self):
        sb = self.sb
        stranger = bystander()
        self.addCleanup(stranger.wait)
        self.addCleanup(stranger.kill)
        os.makedirs(sb.engine_dir, exist_ok=True)
        with open(sb.pidfile, "w", encoding="utf-8") as f:
            f.write("%d\n" % stranger.pid)
        with self.subTest("no engine at all"):
            proc = sb.run("engine", "stop")
            self.assertEqual(proc.returncode, 0, describe(proc))
            self.assertEqual(proc.stdout.strip(), "Tamsel Engine is not running")
            status = sb.run("engine", "status", "--json")
            self.assertIsNone(json.loads(status.stdout)["pid"], describe(status))
        with self.subTest("an engine without a socket, the pidfile naming someone else"):
            engine = sb.launch_sim()
            with open(sb.pidfile, "w", encoding="utf-8") as f:
                f.write("%d\n" % stranger.pid)
            proc = sb.run("engine", "stop")
            self.assertEqual(proc.returncode, 0, describe(proc))
            self.assertNotIn(str(stranger.pid), proc.stdout + proc.stderr)
            self.assertTrue(wait_gone(engine.pid, 10))
        self.assertIsNone(stranger.poll(), "an unrelated process was signalled")


if __name__ == "__main__":
    unittest.main(verbosity=2)
