#!/usr/bin/env python3
"""`tamsel events` against the simulator: events printed as they come, across an engine restart."""
import json
import os
import queue
import threading
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TAMSEL = os.environ.get("TAMSEL_BIN", os.path.join(ROOT, "build", "apps", "tamsel", "tamsel"))
SIM = os.environ.get("VERD_SIM", os.path.join(ROOT, "tools", "verd-sim", "verd-sim"))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class EventsCommand(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="tamsel-events-")
        self.port = free_port()
        self.engine_dir = os.path.join(self.home, "data", "dev.tamsel.engine")
        self.record = os.path.join(self.home, "requests.jsonl")
        self.env = {"HOME": self.home, "XDG_DATA_HOME": os.path.join(self.home, "data"), "PATH": "/usr/bin:/bin",
                    "VERD_BINARY": SIM,
                    "TAMSEL_ENGINE_ARGS": "daemon --port {port} --record " + self.record}
        self.follower = None

    def tearDown(self):
        if self.follower and self.follower.poll() is None:
            self.follower.kill()
            self.follower.wait()
        self.kill_engine()
        shutil.rmtree(self.home, ignore_errors=True)

    def tamsel(self, *args):
        return subprocess.run([TAMSEL, "--engine-port", str(self.port), *args], env=self.env, capture_output=True,
                              text=True, timeout=60)

    def engine_pid(self):
        with open(os.path.join(self.engine_dir, "daemon.pid")) as f:
            return int(f.read().strip())

    def kill_engine(self):
        try:
            os.kill(self.engine_pid(), signal.SIGKILL)
        except (OSError, ValueError):
            pass

    def emit(self, name, data):
        with open(os.path.join(self.engine_dir, "daemon.token")) as f:
            token = f.read()
        request = urllib.request.Request("http://127.0.0.1:%d/debug/emit" % self.port,
                                         data=json.dumps({"event": name, "data": data}).encode(), method="POST",
                                         headers={"X-Tamsel-Local-Presence": token,
                                                  "Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=5) as reply:
            return json.load(reply)

    def next_event(self, timeout=15):
        if not hasattr(self, "lines"):
            # Read on a thread, so a follower that prints nothing fails the test instead of hanging it.
            self.lines = queue.Queue()
            stdout = self.follower.stdout
            threading.Thread(target=lambda: [self.lines.put(line) for line in stdout], daemon=True).start()
        try:
            return json.loads(self.lines.get(timeout=timeout))
        except queue.Empty:
            self.fail("no event printed within %d s" % timeout)

    def test_follows_events_across_an_engine_restart_without_skipping_the_new_engines(self):
        self.assertEqual(self.tamsel("engine", "start").returncode, 0)
        self.follower = subprocess.Popen([TAMSEL, "--engine-port", str(self.port), "events", "--json"], env=self.env,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        time.sleep(1.0)
        sent = self.emit("session_title_updated", {"session_id": "s1", "title": "First"})
        first = self.next_event()
        self.assertEqual(first["event"], "session_title_updated")
        self.assertEqual(first["id"], str(sent["id"]))
        self.assertEqual(first["data"]["title"], "First")

        more = [self.emit("notification", {"title": "Old %d" % i, "body": ""}) for i in range(3)]
        for _ in more:
            self.next_event()

        # A new engine numbers its events from 1 again. Its first events are published before
        # the follower is back (it waits out its backoff): they must still be shown.
        self.kill_engine()
        time.sleep(0.5)
        self.assertEqual(self.tamsel("engine", "start").returncode, 0)
        early = [self.emit("notification", {"title": "New %d" % i, "body": ""}) for i in range(2)]
        self.assertLess(early[-1]["id"], more[-1]["id"], "the new engine numbers from 1 again")
        shown = [self.next_event(timeout=40) for _ in early]
        self.assertEqual([e["data"]["title"] for e in shown], ["New 0", "New 1"])
        with open(self.record) as f:
            asked = [json.loads(line)["query"].get("last_event_id") for line in f
                     if json.loads(line)["path"] == "/events"]
        self.assertEqual(asked[-1], "0", "the new engine is read from its first event")
        self.emit("notification", {"title": "Back", "body": "after the restart"})
        second = self.next_event()
        self.assertEqual((second["event"], second["data"]["title"]), ("notification", "Back"))
        self.follower.send_signal(signal.SIGINT)
        self.assertEqual(self.follower.wait(timeout=5), 0)


if __name__ == "__main__":
    unittest.main()
