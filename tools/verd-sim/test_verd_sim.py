#!/usr/bin/env python3
"""Checks of verd-sim as a black box: each test starts the real script on a
free port in a temporary directory and talks HTTP to it.

Run: python3 tools/verd-sim/test_verd_sim.py
"""

import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SIM = os.path.join(os.path.dirname(os.path.abspath(__file__)), "verd-sim")
TOKEN = "presence-test-token-5f1c"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def parse_sse(text):
    """[(event, data)] for events; comments come back as ("#", text)."""
    out = []
    for block in text.split("\n\n"):
        event, data = None, []
        for line in block.split("\n"):
            if line.startswith(":"):
                out.append(("#", line[1:].strip()))
            elif line.startswith("event: "):
                event = line[7:]
            elif line.startswith("data: "):
                data.append(line[6:])
        if event:
            out.append((event, json.loads("\n".join(data))))
    return out


class Sim:
    def __init__(self, test, *args, token=TOKEN, scenario=None):
        self.dir = tempfile.mkdtemp(prefix="verd-sim-test-")
        test.addCleanup(shutil.rmtree, self.dir, True)
        self.port = free_port()
        self.pidfile = os.path.join(self.dir, "run", "daemon.pid")
        self.socket_path = os.path.join(self.dir, "run", "daemon.sock")
        self.record = os.path.join(self.dir, "record.jsonl")
        self.token = token
        cmd = [sys.executable, SIM, "daemon", "--port", str(self.port), "--record", self.record,
               "--rpc-pidfile", self.pidfile, "--rpc-socket", self.socket_path] + list(args)
        if scenario is not None:
            path = os.path.join(self.dir, "scenario.json")
            with open(path, "w") as f:
                json.dump(scenario, f)
            cmd += ["--scenario", path]
        env = dict(os.environ)
        env.pop("TAMSEL_LOCAL_PRESENCE_TOKEN", None)
        if token is not None:
            env["TAMSEL_LOCAL_PRESENCE_TOKEN"] = token
        self.stderr_path = os.path.join(self.dir, "stderr.log")
        with open(self.stderr_path, "w") as err:
            self.proc = subprocess.Popen(cmd, env=env, stdout=subprocess.DEVNULL, stderr=err)
        test.addCleanup(self.kill)
        self.wait_listening()

    def wait_listening(self, timeout=5.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise AssertionError("verd-sim exited early:\n" + self.stderr())
            # The pidfile is written right after the port is bound: wait for both.
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=0.2).close()
                if os.path.exists(self.pidfile):
                    return
            except OSError:
                pass
            time.sleep(0.03)
        raise AssertionError("verd-sim did not start listening")

    def stderr(self):
        with open(self.stderr_path) as f:
            return f.read()

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()

    def conn(self, timeout=5.0):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)

    def request(self, method, path, body=None, token=None, conn=None):
        headers = {"X-Tamsel-Local-Presence": token if token is not None else (self.token or "")}
        data = None
        if body is not None:
            data = json.dumps(body) if not isinstance(body, (bytes, str)) else body
            headers["Content-Type"] = "application/json"
        c = conn or self.conn()
        c.request(method, path, body=data, headers=headers)
        resp = c.getresponse()
        raw = resp.read()
        if conn is None:
            c.close()
        is_json = (resp.getheader("Content-Type") or "").startswith("application/json")
        return resp, (json.loads(raw) if is_json else raw.decode())


class PresenceAndRecording(unittest.TestCase):
    def test_token_enforced_everywhere_and_never_recorded(self):
        sim = Sim(self)
        for path in ("/health", "/status", "/agents", "/no-such-path"):
            resp, body = sim.request("GET", path, token="")
            self.assertEqual((resp.status, body["code"]), (401, "presence_required"), path)
        resp, body = sim.request("GET", "/health", token=TOKEN + "x")
        self.assertEqual(resp.status, 401)
        resp, body = sim.request("GET", "/health")
        self.assertEqual((resp.status, body), (200, {"ok": True}))

        c = sim.conn()
        c.request("POST", "/queue", body=json.dumps({"text": "hi"}), headers={
            "X-Tamsel-Local-Presence": TOKEN, "X-Tamsel-Desktop-Device-ID": "dev-1",
            "Content-Type": "application/json", "Accept": "application/json"})
        c.getresponse().read()
        c.close()
        with open(sim.record) as f:
            text = f.read()
        self.assertNotIn(TOKEN, text)
        lines = [json.loads(line) for line in text.splitlines()]
        self.assertEqual([entry["presence_ok"] for entry in lines], [False] * 5 + [True] * 2)
        self.assertEqual(lines[-1]["device_id"], "dev-1")
        self.assertEqual(lines[-1]["body"], {"text": "hi"})
        self.assertEqual(lines[-1]["accept"], "application/json")

    def test_blank_token_accepts_any_caller(self):
        sim = Sim(self, token="  ")
        resp, _ = sim.request("GET", "/status", token="")
        self.assertEqual(resp.status, 200)


class Lifecycle(unittest.TestCase):
    def test_sigterm_removes_pidfile_and_socket(self):
        sim = Sim(self)
        with open(sim.pidfile) as f:
            self.assertEqual(f.read(), "%d\n" % sim.proc.pid)
        with socket.socket(socket.AF_UNIX) as s:
            s.connect(sim.socket_path)
        sim.proc.send_signal(signal.SIGTERM)
        self.assertEqual(sim.proc.wait(5), 0)
        self.assertFalse(os.path.exists(sim.pidfile))
        self.assertFalse(os.path.exists(sim.socket_path))

    def test_crash_leaves_pidfile_behind(self):
        sim = Sim(self, "--crash-after", "0.2")
        self.assertEqual(sim.proc.wait(5), 3)
        self.assertTrue(os.path.exists(sim.pidfile))

    def test_ignored_sigterm_still_honours_shutdown(self):
        sim = Sim(self, "--ignore-sigterm")
        sim.proc.send_signal(signal.SIGTERM)
        time.sleep(0.3)
        self.assertIsNone(sim.proc.poll())
        resp, body = sim.request("POST", "/shutdown")
        self.assertEqual((resp.status, body), (200, {"ok": True}))
        self.assertEqual(sim.proc.wait(5), 0)
        self.assertFalse(os.path.exists(sim.pidfile))

    def test_busy_port_exits_1(self):
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            s.listen()
            port = s.getsockname()[1]
            proc = subprocess.run([sys.executable, SIM, "daemon", "--port", str(port)],
                                  capture_output=True, text=True, timeout=5)
        self.assertEqual(proc.returncode, 1)
        self.assertIn("cannot listen", proc.stderr)

    def test_unknown_option_is_a_usage_error(self):
        proc = subprocess.run([sys.executable, SIM, "daemon", "--port", "1", "--bogus"],
                              capture_output=True, text=True, timeout=5)
        self.assertEqual(proc.returncode, 2)
        self.assertIn("--bogus", proc.stderr)


class Overrides(unittest.TestCase):
    def test_times_then_normal_and_dropped_connection(self):
        sim = Sim(self, "--fail", "/status=503", scenario={"responses": [
            {"method": "GET", "path": "/agents", "status": 402, "body": {"error": "pay"}, "times": 2},
            {"path": "/config", "status": 200, "raw_body": "not json", "content_type": "text/plain"},
            {"method": "POST", "path": "/cancel", "status": 0}]})
        for _ in range(2):
            resp, body = sim.request("GET", "/agents")
            self.assertEqual((resp.status, body), (402, {"error": "pay"}))
        resp, body = sim.request("GET", "/agents")
        self.assertEqual(resp.status, 200)
        self.assertIn("main", [a["name"] for a in body])
        self.assertEqual(sim.request("GET", "/config")[1], "not json")
        self.assertEqual(sim.request("GET", "/status")[0].status, 503)
        with self.assertRaises(http.client.RemoteDisconnected):
            sim.request("POST", "/cancel", {})


class Conversation(unittest.TestCase):
    def test_queue_dedupes_and_validates(self):
        sim = Sim(self)
        resp, first = sim.request("POST", "/queue", {"text": "later", "client_message_id": "m1"})
        self.assertEqual((first["outcome"], first["message_id"][:2]), ("queued", "q_"))
        _, again = sim.request("POST", "/queue", {"text": "later", "client_message_id": "m1"})
        self.assertEqual(again, {"ok": True, "outcome": "deduped"})
        _, other = sim.request("POST", "/queue", {"text": "later", "client_message_id": "m2"})
        self.assertEqual(other["outcome"], "queued")
        self.assertNotEqual(other["message_id"], first["message_id"])
        resp, body = sim.request("POST", "/queue", {"source": "desktop"})
        self.assertEqual((resp.status, body["code"]), (400, "invalid_request"))
        resp, body = sim.request("POST", "/queue", "{not json")
        self.assertEqual((resp.status, body), (400, {"error": "invalid JSON body"}))

    def test_message_stream_is_chunked_ordered_and_recorded(self):
        sim = Sim(self)
        c = sim.conn()
        self.addCleanup(c.close)
        c.request("POST", "/message", body=json.dumps({
            "text": "plan my week", "new_session": True, "agent": "researcher", "client_message_id": "c1"}),
            headers={"X-Tamsel-Local-Presence": TOKEN, "Content-Type": "application/json"})
        resp = c.getresponse()
        self.assertEqual(resp.getheader("Transfer-Encoding"), "chunked")
        self.assertIsNone(resp.getheader("Content-Length"))
        self.assertTrue(resp.getheader("Content-Type").startswith("text/event-stream"))
        events = parse_sse(resp.read().decode())
        self.assertEqual(events[0], ("#", "keepalive"))
        names = [name for name, _ in events[1:]]
        deltas = names.count("delta")
        self.assertGreater(deltas, 1)
        self.assertEqual(names, ["session_started", "tool", "tool"] + ["delta"] * deltas
                         + ["assistant_text", "done"])
        data = dict(events[1:])
        sid = events[1][1]["session_id"]
        self.assertEqual([e[1]["status"] for e in events if e[0] == "tool"], ["running", "done"])
        reply = "".join(d["text"] for n, d in events if n == "delta")
        self.assertIn("plan my week", reply)
        self.assertEqual(data["assistant_text"]["text"], reply)
        self.assertEqual((data["done"]["reply"], data["done"]["session_id"], data["done"]["agent"]),
                         (reply, sid, "researcher"))

        # Same connection stays usable after the stream's last chunk.
        _, detail = sim.request("GET", "/sessions/%s?agent=researcher" % sid, conn=c)
        self.assertEqual([(m["role"], m["content"]) for m in detail["messages"]],
                         [("user", "plan my week"), ("assistant", reply)])
        resp, body = sim.request("POST", "/message", {"text": "plan my week", "client_message_id": "c1"})
        self.assertEqual((resp.status, body["code"]), (409, "idempotent_request_failed"))

        _, listed = sim.request("GET", "/sessions?agent=researcher")
        self.assertIn(sid, [s["id"] for s in listed])
        self.assertTrue(all(s["agent"] == "researcher" for s in listed))

    def test_held_stream_can_be_cancelled_while_others_are_served(self):
        sim = Sim(self, scenario={"message_hold_seconds": 10, "stream_framing": "close"})
        sock = socket.create_connection(("127.0.0.1", sim.port), timeout=5)
        body = json.dumps({"text": "slow one", "session_id": "s_2b81d4e7", "client_message_id": "h1"})
        sock.sendall(("POST /message HTTP/1.1\r\nHost: x\r\nX-Tamsel-Local-Presence: %s\r\n"
                      "Content-Type: application/json\r\nContent-Length: %d\r\n\r\n%s"
                      % (TOKEN, len(body), body)).encode())
        received = b""
        while b"event: tool" not in received:
            received += sock.recv(4096)
        head = received.split(b"\r\n\r\n")[0].decode()
        self.assertIn("Connection: close", head)
        self.assertNotIn("Transfer-Encoding", head)

        resp, body = sim.request("POST", "/message", {"text": "x", "client_message_id": "h1"})
        self.assertEqual((resp.status, body["code"]), (409, "idempotent_request_in_progress"))
        _, listed = sim.request("GET", "/sessions")
        self.assertTrue(next(s for s in listed if s["id"] == "s_2b81d4e7")["in_progress"])
        # While held, keepalive comments keep flowing so the client's idle timer stays quiet.
        while b": keepalive" not in received.split(b"event: tool", 1)[1]:
            received += sock.recv(4096)
        self.assertEqual(sim.request("POST", "/cancel", {"session_id": "s_2b81d4e7"})[1],
                         {"ok": True, "cancelled": True})

        started = time.monotonic()
        while chunk := sock.recv(4096):  # close-delimited: the stream ends at EOF
            received += chunk
        sock.close()
        self.assertLess(time.monotonic() - started, 3)
        events = parse_sse(received.split(b"\r\n\r\n", 1)[1].decode())
        done = [d for n, d in events if n == "done"]
        self.assertEqual(len(done), 1)
        self.assertEqual((done[0]["partial"], done[0]["failure_code"]), (True, "cancelled"))
        self.assertNotIn("delta", [n for n, _ in events])
        self.assertEqual(sim.request("POST", "/cancel", {"session_id": "s_2b81d4e7"})[1]["cancelled"], False)

    def test_hundred_open_streams_do_not_block_short_calls(self):
        sim = Sim(self, scenario={"message_hold_seconds": 3})
        socks = []
        self.addCleanup(lambda: [s.close() for s in socks])

        def open_stream(i):
            s = socket.create_connection(("127.0.0.1", sim.port), timeout=5)
            body = json.dumps({"text": "stream %d" % i, "new_session": True})
            s.sendall(("POST /message HTTP/1.1\r\nHost: x\r\nX-Tamsel-Local-Presence: %s\r\n"
                       "Content-Length: %d\r\n\r\n%s" % (TOKEN, len(body), body)).encode())
            data = b""
            while b"session_started" not in data:
                data += s.recv(4096)
            socks.append(s)

        threads = [threading.Thread(target=open_stream, args=(i,)) for i in range(100)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(10)
        self.assertEqual(len(socks), 100)
        started = time.monotonic()
        resp, body = sim.request("GET", "/status")
        self.assertEqual(resp.status, 200)
        self.assertLess(time.monotonic() - started, 1)


if __name__ == "__main__":
    unittest.main()
