#!/usr/bin/env python3
"""Checks of verd-sim as a black box: each test starts the real script on a
free port in a temporary directory and talks HTTP to it.

Run: python3 tools/verd-sim/test_verd_sim.py
"""

import base64
import http.client
import json
import os
import re
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


class SseStream:
    """Reads a server-sent event stream as it arrives, over a raw socket so a
    body that ends without its closing chunk can be told from a clean end."""

    def __init__(self, sim, method, path, body=None, headers=None, timeout=5.0):
        self.sock = socket.create_connection(("127.0.0.1", sim.port), timeout=timeout)
        # Keepalives would keep a stuck stream "alive" forever; fail instead of hanging.
        self.deadline = time.monotonic() + 2 * timeout
        data = json.dumps(body).encode() if body is not None else b""
        lines = ["%s %s HTTP/1.1" % (method, path), "Host: x", "X-Tamsel-Local-Presence: " + sim.token,
                 "Content-Type: application/json", "Content-Length: %d" % len(data)]
        lines += ["%s: %s" % kv for kv in (headers or {}).items()]
        self.sock.sendall(("\r\n".join(lines) + "\r\n\r\n").encode() + data)
        self.raw = b""
        while b"\r\n\r\n" not in self.raw:
            self._recv()
        head, self.raw = self.raw.split(b"\r\n\r\n", 1)
        head = head.decode()
        self.status = int(head.split()[1])
        self.head = head.lower()
        self.chunked = "transfer-encoding: chunked" in self.head
        self.body = b""
        self.ending = None  # "clean" (closing chunk or EOF of a close-framed body) or "cut"

    def close(self):
        self.sock.close()

    def _recv(self):
        if time.monotonic() > self.deadline:
            raise AssertionError("stream still going at its deadline; body so far: %r" % self.body[-300:])
        data = self.sock.recv(65536)
        if not data:
            raise EOFError
        self.raw += data

    def _decode(self):
        """Moves complete chunks from raw into body; True if it got anywhere."""
        before = (len(self.body), self.ending)
        if not self.chunked:
            self.body, self.raw = self.body + self.raw, b""
        while self.chunked and self.ending is None and b"\r\n" in self.raw:
            size_line, rest = self.raw.split(b"\r\n", 1)
            size = int(size_line, 16)
            if size == 0:
                self.ending = "clean"
            elif len(rest) < size + 2:
                break
            else:
                self.body += rest[:size]
                self.raw = rest[size + 2:]
        return (len(self.body), self.ending) != before

    def _more(self):
        if self._decode():
            return
        try:
            self._recv()
        except EOFError:
            self.ending = "cut" if self.chunked else "clean"
        except ConnectionResetError:
            self.ending = "cut"
        self._decode()

    def next(self):
        """(event, data, id) or ("#", comment, None); None once the body has ended."""
        while b"\n\n" not in self.body:
            if self.ending:
                return None
            self._more()
        block, self.body = self.body.split(b"\n\n", 1)
        event, event_id, data = None, None, []
        for line in block.decode().split("\n"):
            if line.startswith(":"):
                return ("#", line[1:].strip(), None)
            key, _, value = line.partition(": ")
            if key == "event":
                event = value
            elif key == "id":
                event_id = int(value)
            elif key == "data":
                data.append(value)
        return (event, json.loads("\n".join(data)), event_id)

    def until(self, name):
        """Events up to and including the first named one; fails if the body ends first."""
        seen = []
        while True:
            item = self.next()
            if item is None:
                raise AssertionError("stream ended before %r; got %r" % (name, [e[0] for e in seen]))
            seen.append(item)
            if item[0] == name:
                return seen

    def rest(self):
        seen = []
        while (item := self.next()) is not None:
            seen.append(item)
        return seen

    def events(self):
        """The remaining named events (comments left out) up to the end of the body."""
        return [e for e in self.rest() if e[0] != "#"]


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


# Unpaced replies and a silent event stream, for tests that do not time anything.
QUICK = {"event_delay_seconds": 0, "events_keepalive_seconds": 0}


def is_tool_results(message):
    return all(b.get("type") == "tool_result" for b in message["content"]) \
        if isinstance(message["content"], list) else False


def named(events, name):
    return [data for event, data, _ in events if event == name]


    def test_search_finds_titles_and_message_text_newest_first(self):
        sim = Sim(self)
        # "BLUEBERRIES" is only in a message, in another case; "release" is a title.
        _, page = sim.request("GET", "/sessions/search?q=BLUEBERRIES")
        self.assertEqual([s["id"] for s in page["sessions"]], ["s_5e6b2c18"])
        snippet = page["sessions"][0]["snippet"]
        self.assertIn("blueberries", snippet.lower())
        self.assertLess(len(snippet), 100)
        _, page = sim.request("GET", "/sessions/search?q=release")
        self.assertEqual([s["id"] for s in page["sessions"]], ["s_7f3a9c01"])
        self.assertNotIn("snippet", page["sessions"][0])
        self.assertNotIn("messages", page["sessions"][0])
        # Both kinds of match at once, newest first, then paged.
        _, page = sim.request("GET", "/sessions/search?q=the")
        ids = [s["id"] for s in page["sessions"]]
        self.assertEqual(ids, ["s_7f3a9c01", "s_c40e1f92", "s_2b81d4e7", "s_91d0aa35", "s_5e6b2c18"])
        _, second = sim.request("GET", "/sessions/search?q=the&limit=2&offset=2")
        self.assertEqual([s["id"] for s in second["sessions"]], ids[2:4])
        self.assertEqual((second["total"], second["has_more"]), (5, True))
        # A message sent now is found by its text at once.
        SseStream(sim, "POST", "/message", {"text": "Remember the Zanzibar itinerary"}).events()
        _, page = sim.request("GET", "/sessions/search?q=zanzibar%20ITINERARY")
        self.assertEqual(len(page["sessions"]), 1)
        self.assertNotIn("snippet", page["sessions"][0])  # its title holds it too
        resp, body = sim.request("GET", "/sessions/search?q=%20")
        self.assertEqual((resp.status, body["code"]), (400, "invalid_request"))

    def test_always_allow_list_adds_removes_and_clears(self):
        sim = Sim(self, scenario=QUICK)
        _, body = sim.request("GET", "/permissions/always-allow")
        self.assertEqual(body, {"tools": ["read_file"]})
        _, body = sim.request("POST", "/permissions/always-allow", {"tools": ["bash", "read_file"]})
        self.assertEqual(body, {"tools": ["read_file", "bash"]})
        _, body = sim.request("POST", "/permissions/always-allow", {"tool": "web_fetch"})
        self.assertEqual(body, {"tools": ["read_file", "bash", "web_fetch"]})
        _, body = sim.request("DELETE", "/permissions/always-allow", {"tools": ["bash"]})
        self.assertEqual(body, {"tools": ["read_file", "web_fetch"]})
        _, body = sim.request("DELETE", "/permissions/always-allow?tool=web_fetch")
        self.assertEqual(body, {"tools": ["read_file"]})
        _, body = sim.request("DELETE", "/permissions/always-allow")
        self.assertEqual(body, {"tools": []})
        # Answering an approval "always" puts its tool on the list before the reply goes on.
        stream = SseStream(sim, "POST", "/message", {"text": "tidy [approval]"})
        self.addCleanup(stream.close)
        ask = stream.until("approval")[-1][1]
        sim.request("POST", "/approval", {"request_id": ask["request_id"], "decision": "allow_always"})
        _, body = sim.request("GET", "/permissions/always-allow")
        self.assertEqual(body, {"tools": ["bash"]})
        stream.events()
        # "once" adds nothing.
        stream = SseStream(sim, "POST", "/message", {"text": "again [approval]"})
        self.addCleanup(stream.close)
        sim.request("DELETE", "/permissions/always-allow")
        ask = stream.until("approval")[-1][1]
        sim.request("POST", "/approval", {"request_id": ask["request_id"], "decision": "once"})
        stream.events()
        _, body = sim.request("GET", "/permissions/always-allow")
        self.assertEqual(body, {"tools": []})


class EventStream(unittest.TestCase):
    def open_events(self, sim, query="", **kw):
        stream = SseStream(sim, "GET", "/events" + query, **kw)
        self.addCleanup(stream.close)
        self.assertEqual(stream.status, 200)
        self.assertIn("content-type: text/event-stream", stream.head)
        return stream

    def emit(self, sim, name, data=None):
        resp, body = sim.request("POST", "/debug/emit", {"event": name, "data": data or {}})
        self.assertEqual(resp.status, 200, body)
        return body["id"]

    def test_ids_replay_and_live_events(self):
        sim = Sim(self)
        live = self.open_events(sim, headers={"X-Tamsel-Desktop-Device-ID": "dev-9"})
        ids = [self.emit(sim, "notification", {"title": "t%d" % i}) for i in range(3)]
        self.assertEqual(ids, [1, 2, 3])
        # Unknown event names go through untouched, so clients can be tested on them.
        self.assertEqual(self.emit(sim, "brand_new_kind", {"x": 1}), 4)
        got = [live.next() for _ in range(4)]
        self.assertEqual([(e, i) for e, _, i in got],
                         [("notification", 1), ("notification", 2), ("notification", 3), ("brand_new_kind", 4)])
        self.assertEqual(got[0][1], {"title": "t0"})

        resumed = self.open_events(sim, "?last_event_id=2")
        fresh = self.open_events(sim)
        self.assertEqual(self.emit(sim, "notification"), 5)
        self.assertEqual([resumed.next()[2] for _ in range(3)], [3, 4, 5])
        self.assertEqual(fresh.next()[2], 5)  # no last_event_id: live events only

        resp, body = sim.request("GET", "/events?last_event_id=abc")
        self.assertEqual((resp.status, body["code"]), (400, "invalid_request"))
        with open(sim.record) as f:
            records = [json.loads(line) for line in f if '"/events"' in line]
        self.assertEqual(records[0]["device_id"], "dev-9")
        self.assertEqual(records[1]["query"], {"last_event_id": "2"})

    def test_ring_keeps_the_last_thousand(self):
        sim = Sim(self)
        resp, body = sim.request("POST", "/debug/emit-burst", {"event": "tick", "data": {}, "count": 1500})
        self.assertEqual(body, {"ok": True, "first_id": 1, "last_id": 1500, "count": 1500})
        stream = self.open_events(sim, "?last_event_id=0")
        self.emit(sim, "tock")
        got = [stream.next() for _ in range(1001)]
        self.assertEqual([i for _, _, i in got], list(range(501, 1502)))
        self.assertEqual(got[-1][0], "tock")
        resp, body = sim.request("POST", "/debug/emit-burst", {"event": "tick", "count": 0})
        self.assertEqual(resp.status, 400)

    def test_keepalive_period_and_switched_off(self):
        sim = Sim(self, scenario={"events_keepalive_seconds": 0.1})
        stream = self.open_events(sim)
        started = time.monotonic()
        self.assertEqual(stream.next(), ("#", "keepalive", None))
        self.assertEqual(stream.next(), ("#", "keepalive", None))
        self.assertLess(time.monotonic() - started, 0.8)

        quiet = Sim(self, scenario={"events_keepalive_seconds": 0})
        stream = self.open_events(quiet)
        stream.sock.settimeout(0.3)
        with self.assertRaises(socket.timeout):
            stream.next()

    def test_drop_streams_cuts_and_client_resumes(self):
        sim = Sim(self, scenario={"events_keepalive_seconds": 0})
        first, second = self.open_events(sim), self.open_events(sim)
        self.emit(sim, "notification")
        self.assertEqual(first.next()[2], 1)
        self.assertEqual(second.next()[2], 1)
        self.assertEqual(sim.request("POST", "/debug/drop-streams")[1], {"ok": True, "dropped": 2})
        for stream in (first, second):
            self.assertEqual(stream.rest(), [])
            self.assertEqual(stream.ending, "cut")
        self.emit(sim, "notification", {"n": 2})  # published while nobody listens
        again = self.open_events(sim, "?last_event_id=1")
        self.assertEqual(again.next()[1:], ({"n": 2}, 2))
        self.assertEqual(sim.request("POST", "/debug/drop-streams")[1]["dropped"], 1)

        timed = Sim(self, scenario={"events_drop_after_seconds": 0.2, "events_keepalive_seconds": 0})
        stream = self.open_events(timed)
        started = time.monotonic()
        self.assertEqual(stream.rest(), [])
        self.assertEqual(stream.ending, "cut")
        self.assertTrue(0.15 < time.monotonic() - started < 2)

    def test_a_message_is_told_on_the_bus(self):
        sim = Sim(self, scenario={"events_keepalive_seconds": 0, "event_delay_seconds": 0})
        bus = self.open_events(sim)
        reply = SseStream(sim, "POST", "/message", {"text": "sum up the week", "new_session": True})
        self.addCleanup(reply.close)
        done = named(reply.events(), "done")[0]
        events = bus.until("session_title_updated")
        names = [e for e, _, _ in events]
        self.assertEqual(names, ["message_received", "tool_status", "tool_status", "assistant_text",
                                 "usage", "agent_reply", "session_title_updated"])
        self.assertEqual([i for _, _, i in events], list(range(1, 8)))
        received = events[0][1]
        self.assertEqual((received["text"], received["session_id"], received["queued"], received["agent"]),
                         ("sum up the week", done["session_id"], False, "main"))
        self.assertEqual([d["status"] for d in named(events, "tool_status")], ["running", "done"])
        self.assertTrue(all(d["session_id"] == done["session_id"] for _, d, _ in events))
        agent_reply = named(events, "agent_reply")[0]
        self.assertEqual((agent_reply["text"], agent_reply["partial"], agent_reply["failure_code"]),
                         (done["reply"], False, None))
        self.assertEqual(named(events, "usage")[0]["output_tokens"], done["usage"]["output_tokens"])


class Interactions(unittest.TestCase):
    def start(self, sim, text, **body):
        stream = SseStream(sim, "POST", "/message", dict(body, text=text))
        self.addCleanup(stream.close)
        self.assertEqual(stream.status, 200)
        return stream

    def test_approval_allow_and_deny(self):
        sim = Sim(self, scenario=QUICK)
        bus = SseStream(sim, "GET", "/events")
        self.addCleanup(bus.close)

        reply = self.start(sim, "tidy the folder [approval]")
        before = reply.until("approval")
        self.assertEqual([d["status"] for d in named(before, "tool")], ["running"])
        ask = before[-1][1]
        self.assertTrue(ask["request_id"].startswith("apr_"))
        self.assertEqual((ask["tool"], ask["args"], ask["flags"]), ("bash", {"command": "ls -la"}, ["writes_files"]))
        resp, body = sim.request("POST", "/approval", {"request_id": ask["request_id"], "decision": "maybe"})
        self.assertEqual((resp.status, body), (400, {"error": "unknown decision", "code": "invalid_request"}))
        resp, body = sim.request("POST", "/approval", {"request_id": "apr_nope", "decision": "once"})
        self.assertEqual((resp.status, body), (404, {"error": "approval not found", "code": "approval_not_found"}))
        resp, _ = sim.request("POST", "/approval", {"request_id": ask["request_id"], "decision": "allow_session"})
        self.assertEqual(resp.status, 200)
        after = reply.events()
        self.assertEqual(named(after, "tool")[0]["status"], "done")
        self.assertNotIn("not run", named(after, "done")[0]["reply"])
        resp, _ = sim.request("POST", "/approval", {"request_id": ask["request_id"], "decision": "once"})
        self.assertEqual(resp.status, 404)  # answered once, gone

        reply = self.start(sim, "tidy again [approval]")
        ask = reply.until("approval")[-1][1]
        sim.request("POST", "/approval", {"request_id": ask["request_id"], "decision": "deny"})
        after = reply.events()
        tool = named(after, "tool")[0]
        self.assertEqual((tool["status"], tool["is_error"]), ("denied", True))
        self.assertIn("was not run", named(after, "done")[0]["reply"])

        seen = bus.until("agent_reply") + bus.until("agent_reply")
        requests, resolutions = named(seen, "approval_request"), named(seen, "approval_resolved")
        self.assertEqual([r["tool"] for r in requests], ["bash", "bash"])
        self.assertEqual([(r["decision"], r["resolved_by"]) for r in resolutions],
                         [("session", "desktop"), ("deny", "desktop")])
        names = [e for e, _, _ in seen]
        self.assertLess(names.index("approval_request"), names.index("approval_resolved"))

    def test_approval_wait_ends_on_timeout_or_cancel(self):
        sim = Sim(self, scenario=dict(QUICK, approval_timeout_seconds=0.2))
        reply = self.start(sim, "anything [approval]")
        reply.until("approval")
        rest = reply.events()
        self.assertEqual(named(rest, "error"), [{"error": "approval timed out", "code": "approval_timeout"}])
        self.assertEqual(named(rest, "done"), [])
        self.assertEqual(reply.ending, "clean")

        sim = Sim(self, scenario=QUICK)  # default timeout: only the cancel can end this wait
        reply = self.start(sim, "anything [approval]", session_id="s_2b81d4e7")
        ask = reply.until("approval")[-1][1]
        started = time.monotonic()
        self.assertTrue(sim.request("POST", "/cancel", {"session_id": "s_2b81d4e7"})[1]["cancelled"])
        done = named(reply.events(), "done")
        self.assertEqual([(d["partial"], d["failure_code"]) for d in done], [(True, "cancelled")])
        self.assertLess(time.monotonic() - started, 1)
        self.assertEqual(sim.request("POST", "/approval", {"request_id": ask["request_id"],
                                                           "decision": "once"})[0].status, 404)

    def test_question_answer_and_decline(self):
        sim = Sim(self, scenario=QUICK)
        bus = SseStream(sim, "GET", "/events")
        self.addCleanup(bus.close)
        reply = self.start(sim, "summarise it [question]", new_session=True)
        ask = reply.until("question")[-1][1]
        self.assertTrue(ask["request_id"].startswith("q_"))
        self.assertEqual([o["label"] for o in ask["questions"][0]["options"]], ["Bullets", "Prose"])
        self.assertEqual((ask["source"], ask["thread_id"], ask["auto_resolution_ms"]), ("desktop", None, None))
        resp, body = sim.request("POST", "/question", {"request_id": ask["request_id"], "action": "shrug"})
        self.assertEqual((resp.status, body["code"]), (400, "invalid_request"))
        resp, body = sim.request("POST", "/question", {"request_id": "q_nope", "action": "decline"})
        self.assertEqual((resp.status, body["code"]), (404, "question_not_found"))
        sim.request("POST", "/question", {"request_id": ask["request_id"], "action": "answer",
                                          "answers": [{"id": "q1", "values": ["Prose"]}]})
        self.assertIn("You chose Prose", named(reply.events(), "done")[0]["reply"])
        seen = bus.until("agent_reply")
        self.assertEqual(named(seen, "question_request")[0]["request_id"], ask["request_id"])
        self.assertEqual([(r["action"], r["resolved_by"]) for r in named(seen, "question_resolved")],
                         [("answer", "desktop")])

        reply = self.start(sim, "again [question]")
        ask = reply.until("question")[-1][1]
        sim.request("POST", "/question", {"request_id": ask["request_id"], "action": "decline"})
        self.assertIn("declined", named(reply.events(), "done")[0]["reply"])

    def test_stream_errors(self):
        sim = Sim(self, scenario=QUICK)
        for marker, code, extra in (("[error:credits]", "credits_exhausted", "retry_after_seconds"),
                                    ("[error:quota]", "quota_exceeded", "reset_at")):
            events = self.start(sim, "hello " + marker).events()
            self.assertEqual(named(events, "done"), [], marker)
            [error] = named(events, "error")
            self.assertEqual(error["code"], code)
            self.assertIn(extra, error)
        self.assertEqual(named(events, "error")[0]["current_plan"], "free")

        events = self.start(sim, "hello [error:plain]").events()
        names = [e for e, _, _ in events]
        self.assertLess(names.index("error"), names.index("done"))
        self.assertEqual(named(events, "error"), [{"error": "tool crashed", "code": "internal"}])
        self.assertFalse(named(events, "done")[0]["partial"])

        reply = self.start(sim, "hello [cut]")
        events = reply.events()
        self.assertEqual(reply.ending, "cut")
        self.assertEqual(([e for e, _, _ in events][-1], named(events, "done")), ("delta", []))

        scripted = Sim(self, scenario=dict(QUICK, message_markers=["error:credits"]))
        events = self.start(scripted, "no marker in the text").events()
        self.assertEqual(named(events, "error")[0]["code"], "credits_exhausted")


class Injection(unittest.TestCase):
    def inject(self, sim, **body):
        stream = SseStream(sim, "POST", "/inject", dict({"session_id": "s_2b81d4e7"}, **body))
        self.addCleanup(stream.close)
        self.assertEqual(stream.status, 200)
        return stream

    def held_reply(self, sim):
        """A running reply parked on an approval: it takes nothing in until answered."""
        reply = SseStream(sim, "POST", "/message", {"text": "check it [approval]", "session_id": "s_2b81d4e7"})
        self.addCleanup(reply.close)
        return reply, reply.until("approval")[-1][1]["request_id"]

    def test_commit_retract_and_repeat(self):
        sim = Sim(self, scenario=QUICK)
        reply, approval = self.held_reply(sim)
        kept = self.inject(sim, text="  also look at drafts ", client_message_id="i1")
        kept_id = kept.until("injected")[0][1]["message_id"]
        self.assertTrue(kept_id.startswith("inj_"))
        dropped = self.inject(sim, text="never mind that")
        dropped_id = dropped.until("injected")[0][1]["message_id"]
        time.sleep(0.3)  # old enough to be taken: only the reply waiting on the user holds it back
        self.assertEqual(sim.request("DELETE", "/inject/" + dropped_id)[1], {"ok": True, "outcome": "retracted"})
        done = named(dropped.events(), "done")[0]
        self.assertEqual((done["partial"], done["failure_code"]), (True, "retracted"))
        resp, body = sim.request("POST", "/inject", {"text": "x", "session_id": "s_2b81d4e7",
                                                     "client_message_id": "i1"})
        self.assertEqual((resp.status, body["code"]), (409, "idempotent_request_in_progress"))

        sim.request("POST", "/approval", {"request_id": approval, "decision": "once"})
        events = reply.events()
        committed = named(events, "injected_committed")
        self.assertEqual(committed, [{"message_id": kept_id, "text": "  also look at drafts "}])
        final = named(events, "done")[0]["reply"]
        self.assertIn("also look at drafts", final)
        self.assertNotIn("never mind", final)
        self.assertEqual(named(events, "assistant_text")[0]["text"], final)
        rest = kept.events()
        self.assertEqual(named(rest, "injected_committed"), committed)
        done = named(rest, "done")[0]
        self.assertEqual((done["partial"], done["failure_code"], done["session_id"]), (False, None, "s_2b81d4e7"))

        resp, body = sim.request("DELETE", "/inject/" + kept_id)
        self.assertEqual((resp.status, body["code"]), (409, "already_committed"))
        resp, body = sim.request("DELETE", "/inject/inj_unknown")
        self.assertEqual((resp.status, body["code"]), (404, "inject_not_found"))
        _, detail = sim.request("GET", "/sessions/s_2b81d4e7")
        self.assertEqual([m["content"] for m in detail["messages"]][-3:],
                         ["check it [approval]", "  also look at drafts ", final])

        # The turn is over now.
        resp, body = sim.request("POST", "/inject", {"text": "late", "session_id": "s_2b81d4e7"})
        self.assertEqual((resp.status, body["code"]), (409, "no_active_turn"))
        resp, body = sim.request("POST", "/inject", {"text": "late", "session_id": "s_2b81d4e7",
                                                     "client_message_id": "i1"})
        self.assertEqual((resp.status, body["code"]), (409, "idempotent_request_failed"))
        resp, body = sim.request("POST", "/inject", {"text": "late", "session_id": "s_nope"})
        self.assertEqual((resp.status, body["code"]), (404, "session_not_found"))

    def test_cancelled_turn_does_not_take_a_waiting_injection(self):
        sim = Sim(self, scenario=QUICK)
        reply, _ = self.held_reply(sim)
        waiting = self.inject(sim, text="and this")
        waiting.until("injected")
        sim.request("POST", "/cancel", {"session_id": "s_2b81d4e7"})
        self.assertEqual(named(reply.events(), "injected_committed"), [])
        done = named(waiting.events(), "done")[0]
        self.assertEqual((done["partial"], done["failure_code"]), (True, "not_taken"))

    def test_taken_at_a_boundary_no_sooner_than_its_delay(self):
        sim = Sim(self, scenario={"event_delay_seconds": 0.05})
        for text, latest in (("go", 0.45), ("go [slow]", 1.2)):
            reply = SseStream(sim, "POST", "/message", {"text": text, "session_id": "s_2b81d4e7"})
            self.addCleanup(reply.close)
            reply.until("tool")
            sent = time.monotonic()
            self.inject(sim, text="one more thing").until("injected")
            reply.until("injected_committed")
            waited = time.monotonic() - sent
            # Events 0.05 s apart still wait out the 0.2 s; [slow] events 0.5 s apart add up to one more.
            self.assertTrue(0.2 <= waited < latest, (text, waited))
            if "slow" in text:
                sim.request("POST", "/cancel", {"session_id": "s_2b81d4e7"})
                self.assertEqual(named(reply.events(), "done")[0]["failure_code"], "cancelled")
            else:
                rest = [e for e, _, _ in reply.events()]
                self.assertIn("delta", rest)  # taken mid-reply, not tacked on after it
                self.assertEqual(rest[-1], "done")


class EngineHome(unittest.TestCase):
    """--engine-home: sessions kept as files in the engine's layout, for the desktop's reader."""

    STAMP = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")

    def start(self, scenario=QUICK):
        home = tempfile.mkdtemp(prefix="verd-sim-home-")
        self.addCleanup(shutil.rmtree, home, True)
        return Sim(self, "--engine-home", home, scenario=scenario), home

    def stream(self, sim, path, body):
        stream = SseStream(sim, "POST", path, body)
        self.addCleanup(stream.close)
        self.assertEqual(stream.status, 200)
        return stream

    @staticmethod
    def load(path):
        with open(path, encoding="utf-8") as f:
            return json.load(f)

    @staticmethod
    def streamed(events):
        return "".join(d["text"] for d in named(events, "delta"))

    def test_reply_with_a_tool_is_written_as_the_engine_lays_it_out(self):
        sim, home = self.start()
        folder = os.path.join(home, "sessions")
        seeded = self.load(os.path.join(folder, "s_7f3a9c01.json"))
        self.assertEqual([m["role"] for m in seeded["messages"]], ["user", "assistant"] * 2)
        self.assertEqual(seeded["messages"][1]["content"][0]["type"], "text")
        self.assertEqual(len(seeded["message_meta"]), 4)
        self.assertTrue(os.path.isfile(os.path.join(home, "agents", "researcher", "sessions", "s_91d0aa35.json")))

        events = self.stream(sim, "/message", {"text": "check my notes", "new_session": True}).events()
        sid = named(events, "session_started")[0]["session_id"]
        running, finished = named(events, "tool")
        streamed = self.streamed(events)
        self.assertEqual(named(events, "assistant_text")[0]["text"], streamed)

        saved = self.load(os.path.join(folder, sid + ".json"))
        self.assertEqual((saved["id"], saved["title"]), (sid, "check my notes"))
        msgs = saved["messages"]
        self.assertEqual([m["role"] for m in msgs], ["user", "assistant", "user", "assistant"])
        self.assertEqual(msgs[0]["content"], "check my notes")
        self.assertEqual(msgs[1]["content"], [{"type": "tool_use", "id": running["tool_use_id"],
                                               "name": "read_file", "input": running["args"]}])
        self.assertEqual(msgs[2]["content"], [{"type": "tool_result", "tool_use_id": running["tool_use_id"],
                                               "content": finished["preview"], "is_error": False}])
        self.assertEqual(msgs[3]["content"], [{"type": "text", "text": streamed}])
        self.assertEqual(len(saved["message_meta"]), len(msgs))
        stamps = [m["timestamp"] for m in saved["message_meta"]] + [saved["created_at"], saved["updated_at"]]
        self.assertTrue(all(self.STAMP.fullmatch(t) for t in stamps), stamps)
        self.assertEqual(saved["updated_at"], stamps[len(msgs) - 1])
        # Written by rename: nothing but the session files is left in the folder.
        self.assertEqual(sorted(os.listdir(folder)),
                         sorted(["s_7f3a9c01.json", "s_2b81d4e7.json", "s_c40e1f92.json", sid + ".json"]))

        # A reply cut short keeps the text it had sent (the file is written before the cut).
        events = self.stream(sim, "/message", {"text": "more [cut]", "session_id": sid}).events()
        msgs = self.load(os.path.join(folder, sid + ".json"))["messages"]
        self.assertEqual(msgs[-1], {"role": "assistant", "content": [{"type": "text", "text": self.streamed(events)}]})
        self.assertEqual(len(msgs), 8)

        # The API's own view is unchanged by it.
        _, detail = sim.request("GET", "/sessions/" + sid)
        self.assertEqual([m["content"] for m in detail["messages"]], ["check my notes", streamed, "more [cut]"])
        _, listed = sim.request("GET", "/sessions")
        self.assertEqual([sorted(s) for s in listed], [sorted(listed[0])] * len(listed))
        self.assertNotIn("_file", listed[0])

    def test_named_agent_file_follows_injection_edit_and_cancel(self):
        sim, home = self.start()
        reply = self.stream(sim, "/message", {"text": "tidy up [approval]", "new_session": True,
                                              "agent": "researcher"})
        before = reply.until("approval")
        sid = named(before, "session_started")[0]["session_id"]
        path = os.path.join(home, "agents", "researcher", "sessions", sid + ".json")
        self.assertFalse(os.path.exists(os.path.join(home, "sessions", sid + ".json")))
        # Written as the turn goes: the message, and the call that waits on the approval.
        msgs = self.load(path)["messages"]
        self.assertEqual([(m["role"], m["content"] if m["role"] == "user" else m["content"][0]["type"])
                          for m in msgs], [("user", "tidy up [approval]"), ("assistant", "tool_use")])

        injected = "[New message from user]\nalso the drafts"
        self.stream(sim, "/inject", {"text": injected, "session_id": sid}).until("injected")
        sim.request("POST", "/approval", {"request_id": before[-1][1]["request_id"], "decision": "once"})
        events = reply.events()
        self.assertEqual(named(events, "injected_committed")[0]["text"], injected)
        tool_id = named(events, "tool")[0]["tool_use_id"]
        msgs = self.load(path)["messages"]
        self.assertEqual([m["role"] for m in msgs], ["user", "assistant", "user", "user", "assistant"])
        self.assertEqual(msgs[1]["content"][0]["id"], tool_id)
        result = msgs[2]["content"][0]
        self.assertEqual((result["type"], result["tool_use_id"], result["is_error"]), ("tool_result", tool_id, False))
        self.assertIn("notes.md", result["content"])
        self.assertEqual(msgs[3]["content"], injected)
        self.assertEqual(msgs[4]["content"], [{"type": "text", "text": self.streamed(events)}])

        # Another turn, then an edit of its message: message_index counts the API's messages
        # (user, injected, reply, user, reply), the file's copy sits behind two tool pairs.
        self.stream(sim, "/message", {"text": "and then", "session_id": sid, "agent": "researcher"}).events()
        self.assertEqual(len(self.load(path)["messages"]), 9)
        events = self.stream(sim, "/sessions/%s/edit" % sid, {"message_index": 3, "new_content": "start over",
                                                              "agent": "researcher"}).events()
        saved = self.load(path)
        msgs = saved["messages"]
        self.assertEqual([m["role"] for m in msgs], ["user", "assistant", "user", "user", "assistant",
                                                     "user", "assistant", "user", "assistant"])
        self.assertEqual((msgs[1]["content"][0]["id"], msgs[3]["content"], msgs[5]["content"]),
                         (tool_id, injected, "start over"))
        self.assertEqual(msgs[-1]["content"], [{"type": "text", "text": self.streamed(events)}])
        self.assertEqual(len(saved["message_meta"]), len(msgs))

        # A cancelled call still gets its result, so the pair is never left open.
        reply = self.stream(sim, "/message", {"text": "again [approval]", "session_id": sid, "agent": "researcher"})
        reply.until("approval")
        sim.request("POST", "/cancel", {"session_id": sid})
        self.assertEqual(named(reply.events(), "done")[0]["failure_code"], "cancelled")
        msgs = self.load(path)["messages"]
        self.assertEqual(len(msgs), 12)
        self.assertEqual(msgs[9]["content"], "again [approval]")
        call, result = msgs[10]["content"][0], msgs[11]["content"][0]
        self.assertEqual((call["type"], call["name"]), ("tool_use", "bash"))
        self.assertEqual((result["tool_use_id"], result["is_error"]), (call["id"], True))
        self.assertEqual(sorted(os.listdir(os.path.dirname(path))),
                         sorted(["s_5e6b2c18.json", "s_91d0aa35.json", sid + ".json"]))


    def test_a_message_injected_while_a_tool_runs_follows_its_result(self):
        # Events 0.35 s apart: an injection sent on the tool's start is taken before the tool ends.
        sim, home = self.start({"event_delay_seconds": 0.35, "events_keepalive_seconds": 0})
        reply = self.stream(sim, "/message", {"text": "go", "new_session": True})
        sid = reply.until("session_started")[-1][1]["session_id"]
        tool = reply.until("tool")[-1][1]
        self.assertEqual(tool["status"], "running")
        self.stream(sim, "/inject", {"text": "one more thing", "session_id": sid}).until("injected")
        self.assertEqual([e[0] for e in reply.until("injected_committed")], ["injected_committed"])
        sim.request("POST", "/cancel", {"session_id": sid})
        reply.events()
        msgs = self.load(os.path.join(home, "sessions", sid + ".json"))["messages"]
        self.assertEqual([m["role"] for m in msgs], ["user", "assistant", "user", "user"])
        self.assertEqual((msgs[1]["content"][0]["id"], msgs[2]["content"][0]["tool_use_id"], msgs[3]["content"]),
                         (tool["tool_use_id"], tool["tool_use_id"], "one more thing"))


    def test_attached_files_are_checked_and_recorded_as_blocks(self):
        sim, home = self.start()
        files = tempfile.mkdtemp(prefix="verd-sim-files-")
        self.addCleanup(shutil.rmtree, files, True)
        notes, image = os.path.join(files, "notes.txt"), os.path.join(files, "dot.png")
        with open(notes, "w") as f:
            f.write("release checklist\n")
        pixels = b"\x89PNG\r\n\x1a\n" + bytes(range(40))
        with open(image, "wb") as f:
            f.write(pixels)
        note_ref = {"type": "file_ref", "file_path": notes, "filename": "notes.txt", "byte_size": 1,
                    "mime_type": "text/plain"}
        picture = {"type": "image", "file_path": image, "mime_type": "image/png"}
        _, before = sim.request("GET", "/sessions")

        # Bad shapes are refused with the reason, and nothing is recorded for them.
        bad = [
            ({"a": 1}, "attachments must be a list"),
            (["x"], "attachments[0] must be an object"),
            ([{"type": "pdf", "file_path": notes}], 'attachments[0]: type must be "file_ref" or "image"'),
            ([note_ref, {"type": "file_ref", "file_path": "notes.txt"}],
             "attachments[1]: file_path must be an absolute path"),
            ([dict(note_ref, byte_size=-3)], "attachments[0]: byte_size must be a whole number of bytes"),
            ([dict(picture, mime_type="image/tiff")],
             "attachments[0]: an image must be one of image/png, image/jpeg, image/gif, image/webp"),
            ([dict(note_ref, file_path=os.path.join(files, "gone.txt"))],
             "attachments[0]: cannot read " + os.path.join(files, "gone.txt")),
            ([note_ref] * 21, "at most 20 attachments per message"),
        ]
        for attachments, error in bad:
            resp, body = sim.request("POST", "/message", {"text": "x", "new_session": True,
                                                          "attachments": attachments})
            self.assertEqual((resp.status, body), (400, {"error": error, "code": "invalid_request"}))
        _, listed = sim.request("GET", "/sessions")
        self.assertEqual(len(listed), len(before), "a refused message opens no session")
        resp, body = sim.request("POST", "/message", {"text": "  ", "new_session": True, "attachments": []})
        self.assertEqual((resp.status, body["error"]), (400, "text is required"))

        # Files alone make a message: the session is named after them.
        events = self.stream(sim, "/message", {"text": "", "new_session": True,
                                               "attachments": [note_ref, picture]}).events()
        sid = named(events, "session_started")[0]["session_id"]
        saved = self.load(os.path.join(home, "sessions", sid + ".json"))
        self.assertEqual(saved["title"], "notes.txt, dot.png")
        first = saved["messages"][0]
        self.assertEqual(first["role"], "user")
        # The size is the file's own, whatever the client said.
        self.assertEqual(first["content"][0], {"type": "file_ref", "file_path": notes,
                                               "filename": "notes.txt", "byte_size": 18})
        self.assertEqual(first["content"][1]["type"], "image")
        self.assertEqual(first["content"][1]["source"]["media_type"], "image/png")
        self.assertEqual(base64.b64decode(first["content"][1]["source"]["data"]), pixels)

        # With text, the text block comes first; the API's view lists the attachments.
        self.stream(sim, "/message", {"text": "and this one", "session_id": sid,
                                      "attachments": [note_ref]}).events()
        msgs = self.load(os.path.join(home, "sessions", sid + ".json"))["messages"]
        written = [m["content"] for m in msgs if m["role"] == "user" and not is_tool_results(m)]
        self.assertEqual(written[-1], [{"type": "text", "text": "and this one"}, first["content"][0]])
        _, detail = sim.request("GET", "/sessions/" + sid)
        users = [m for m in detail["messages"] if m["role"] == "user"]
        self.assertEqual([m["content"] for m in users], ["", "and this one"])
        self.assertEqual([[a["filename"] for a in m["attachments"]] for m in users],
                         [["notes.txt", "dot.png"], ["notes.txt"]])
        self.assertEqual(users[0]["attachments"][1]["byte_size"], len(pixels))


class RpcDesktop:
    """The desktop's end of the RPC socket, spoken by hand."""

    def __init__(self, test, sim):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(5)
        self.sock.connect(sim.socket_path)
        test.addCleanup(self.sock.close)

    def send(self, frame):
        body = json.dumps(frame).encode()
        self.sock.sendall(len(body).to_bytes(4, "big") + body)

    def read(self):
        """The next frame, or None once the engine closed the connection."""
        data = b""
        while len(data) < 4:
            chunk = self.sock.recv(4 - len(data))
            if not chunk:
                return None
            data += chunk
        n, body = int.from_bytes(data, "big"), b""
        while len(body) < n:
            body += self.sock.recv(n - len(body))
        return json.loads(body)

    def handshake(self, request_id="drpc_test"):
        self.send({"type": "desktop_rpc_request", "payload": {
            "request_id": request_id, "method": "system.capabilities", "params": {}, "timeout_ms": 5000,
            "session_id": "sess_reconciliation", "agent": "desktop-rpc-service", "source": "tamsel", "ts": "t"}})
        return self.read()

    def announce(self):
        self.send({"type": "desktop_event", "payload": {"event": "desktop_online", "ts": "t",
                                                        "data": {"version": "1.0.0"}}})


class RpcSocket(unittest.TestCase):
    def test_handshake_variants(self):
        for scenario, check in (
                ({}, lambda p: p["ok"] and p["result"]["version"] == "1.0.0"),
                ({"rpc_version": "2.0.0"}, lambda p: p["result"]["version"] == "2.0.0"),
                ({"rpc_handshake": "malformed"}, lambda p: p["ok"] and isinstance(p["result"], str)),
                ({"rpc_handshake": "no_version"}, lambda p: "version" not in p["result"]),
                ({"rpc_handshake": "error"}, lambda p: not p["ok"] and p["error"]["code"] == "internal_error"),
                ({"rpc_handshake": "close"}, lambda p: p is None)):
            with self.subTest(scenario=scenario):
                sim = Sim(self, scenario=scenario)
                frame = RpcDesktop(self, sim).handshake("drpc_x")
                payload = frame and frame["payload"]
                self.assertTrue(check(payload), frame)
                if payload is not None:
                    self.assertEqual(payload["request_id"], "drpc_x")

    def test_scripted_and_hooked_requests_reach_the_online_desktop(self):
        folder = tempfile.mkdtemp(prefix="verd-sim-rpc-")
        self.addCleanup(shutil.rmtree, folder, True)
        record = os.path.join(folder, "rpc.jsonl")
        sim = Sim(self, "--rpc-record", record,
                  scenario={"rpc_requests": [{"method": "system.ping", "request_id": "p1"}]})
        resp, body = sim.request("POST", "/debug/rpc-request", {"method": "system.ping"})
        self.assertEqual((resp.status, body["code"]), (409, "desktop_not_connected"))

        desktop = RpcDesktop(self, sim)
        desktop.handshake()
        desktop.announce()
        scripted = desktop.read()
        self.assertEqual((scripted["type"], scripted["payload"]["request_id"]), ("desktop_rpc_request", "p1"))
        self.assertEqual(scripted["payload"]["method"], "system.ping")
        desktop.send({"type": "desktop_rpc_result", "payload": {"request_id": "p1", "ok": True,
                                                                "result": {"echo": "pong"}}})

        answer = {}
        hook = threading.Thread(target=lambda: answer.update(
            zip(("resp", "body"), sim.request("POST", "/debug/rpc-request",
                                              {"method": "calendar.list_sources", "params": {"a": 1}}))))
        hook.start()
        request = desktop.read()["payload"]
        self.assertEqual((request["method"], request["params"]), ("calendar.list_sources", {"a": 1}))
        desktop.send({"type": "desktop_rpc_result", "payload": {"request_id": request["request_id"], "ok": True,
                                                                "result": []}})
        hook.join(5)
        self.assertEqual(answer["resp"].status, 200)
        self.assertEqual(answer["body"]["result"]["result"], [])

        with open(record) as f:
            frames = [json.loads(line)["frame"] for line in f]
        self.assertEqual([f["type"] for f in frames],
                         ["desktop_rpc_request", "desktop_event", "desktop_rpc_result", "desktop_rpc_result"])

    def test_framing_errors_end_the_connection(self):
        sim = Sim(self)
        for bad in (b"\x00\x40\x00\x01", b"\x00\x00\x00\x00", b"\x00\x00\x00\x02{x"):
            with self.subTest(bad=bad):
                desktop = RpcDesktop(self, sim)
                desktop.sock.sendall(bad)
                self.assertIsNone(desktop.read())
        # Another desktop is still served.
        self.assertTrue(RpcDesktop(self, sim).handshake()["payload"]["ok"])

if __name__ == "__main__":
    unittest.main()
