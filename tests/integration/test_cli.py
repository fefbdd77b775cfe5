#!/usr/bin/env python3
"""End-to-end checks of the `tamsel` command line against the engine simulator.

Every test runs the real binary in a sandbox of its own: a temporary HOME and
XDG folders, a free port, PATH without any real engine, and VERD_BINARY
pointing at tools/verd-sim/verd-sim. The simulator writes its argv and the
shape of its environment to VERD_SIM_ARGV_LOG, and with --record one line per
request, which is how these tests see what the client did.

Run: python3 tests/integration/test_cli.py
Env: TAMSEL_BIN (the binary), VERD_SIM (the simulator).
"""

import json
import os
import queue
import re
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import threading
import time
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TAMSEL = os.environ.get("TAMSEL_BIN") or os.path.join(REPO, "build", "apps", "tamsel", "tamsel")
SIM = os.environ.get("VERD_SIM") or os.path.join(REPO, "tools", "verd-sim", "verd-sim")

UUID = r"[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"
GENERATED_TOKEN = re.compile(UUID + "-" + UUID)
RUNNING_LINE = re.compile(r"Tamsel Engine is running \(PID (\d+), port (\d+)\)")
NOT_FOUND = "tamsel: Engine not found — update Tamsel Desktop to reinstall"

# Variables that steer the client or the engine; each test starts without them.
STEERING_VARIABLES = (
    "TAMSEL_LOCAL_PRESENCE_TOKEN", "TAMSEL_DESKTOP_RPC", "TAMSEL_ENGINE_PORT", "TAMSEL_ENGINE_ARGS",
    "TAMSEL_AX_SERVER_BUNDLE_PATH", "VERD_BINARY", "VERD_SIM_ARGV_LOG",
)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def pid_alive(pid):
    """True while the process exists and is not a zombie waiting to be reaped."""
    try:
        with open("/proc/%d/stat" % pid, encoding="utf-8") as f:
            state = f.read().rsplit(")", 1)[1].split()[0]
    except (OSError, IndexError):
        return False
    return state not in ("Z", "X")


def wait_gone(pid, timeout):
    deadline = time.monotonic() + timeout
    while pid_alive(pid):
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.05)
    return True


def read_json_lines(path):
    try:
        with open(path, encoding="utf-8") as f:
            return [json.loads(line) for line in f if line.strip()]
    except FileNotFoundError:
        return []


def describe(proc):
    return "exit %s\n--- stdout\n%s--- stderr\n%s" % (proc.returncode, proc.stdout, proc.stderr)


class Sandbox:
    """One isolated desktop installation: home, data and config folders, a port, an environment."""

    def __init__(self, test):
        self.test = test
        self.root = tempfile.mkdtemp(prefix="tamsel-cli-")
        test.addCleanup(shutil.rmtree, self.root, True)
        # Cleanups run last-in first-out: engines die before their folder goes.
        test.addCleanup(self.reap)
        self.home = self.root
        self.data = os.path.join(self.root, "data")
        self.config = os.path.join(self.root, "config")
        self.port = free_port()
        self.argv_log = os.path.join(self.root, "engine-argv.jsonl")
        self.record = os.path.join(self.root, "requests.jsonl")
        self.engine_dir = os.path.join(self.data, "dev.tamsel.engine")
        self.app_dir = os.path.join(self.data, "dev.tamsel.desktop")
        self.pidfile = os.path.join(self.engine_dir, "daemon.pid")
        self.socket_path = os.path.join(self.engine_dir, "daemon.sock")
        self.token_file = os.path.join(self.engine_dir, "daemon.token")
        self.engine_log = os.path.join(self.engine_dir, "engine.log")
        self.children = []  # long-running processes the test started (tamsel run, stand-ins)
        self.engine_pids = set()  # engines the test started itself
        env = {k: v for k, v in os.environ.items() if k not in STEERING_VARIABLES}
        env.update(HOME=self.home, XDG_DATA_HOME=self.data, XDG_CONFIG_HOME=self.config,
                   PATH="/usr/bin:/bin", VERD_BINARY=SIM, VERD_SIM_ARGV_LOG=self.argv_log)
        self.env = env

    # ----------------------------------------------------------- running

    def environment(self, overrides=None):
        env = dict(self.env)
        for key, value in (overrides or {}).items():
            if value is None:
                env.pop(key, None)
            else:
                env[key] = value
        return env

    def command(self, args, engine_args=None):
        cmd = [TAMSEL, "--engine-port", str(self.port)]
        if engine_args is not None:
            cmd += ["--engine-args", engine_args]
        return cmd + list(args)

    def run(self, *args, env=None, engine_args=None, timeout=30):
        return subprocess.run(self.command(args, engine_args), env=self.environment(env), cwd=self.root,
                              capture_output=True, text=True, timeout=timeout)

    def popen(self, *args, env=None, engine_args=None):
        # stderr goes to a file: nobody drains a pipe while the test waits on stdout.
        with open(os.path.join(self.root, "tamsel-stderr.log"), "a") as err:
            proc = subprocess.Popen(self.command(args, engine_args), env=self.environment(env), cwd=self.root,
                                    stdout=subprocess.PIPE, stderr=err, text=True)
        self.children.append(proc)
        return proc

    def start_engine(self, env=None, engine_args=None):
        """`tamsel engine start`, which must succeed; returns the engine's PID."""
        proc = self.run("engine", "start", env=env, engine_args=engine_args)
        self.test.assertEqual(proc.returncode, 0, describe(proc))
        match = RUNNING_LINE.fullmatch(proc.stdout.strip())
        self.test.assertIsNotNone(match, describe(proc))
        self.test.assertEqual(int(match.group(2)), self.port)
        return int(match.group(1))

    def launch_sim(self, *args, token=None):
        """Starts the simulator directly, as an engine some earlier desktop left behind."""
        env = self.environment({"TAMSEL_LOCAL_PRESENCE_TOKEN": token})
        cmd = [SIM, "daemon", "--port", str(self.port), "--rpc-pidfile", self.pidfile] + list(args)
        os.makedirs(self.engine_dir, exist_ok=True)
        with open(os.path.join(self.root, "direct-sim.log"), "a") as log:
            proc = subprocess.Popen(cmd, env=env, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.children.append(proc)
        self.engine_pids.add(proc.pid)
        deadline = time.monotonic() + 10
        while self.pidfile_pid() != proc.pid:
            if proc.poll() is not None or time.monotonic() > deadline:
                self.test.fail("the simulator did not come up: exit %s" % proc.poll())
            time.sleep(0.05)
        return proc

    def write_scenario(self, scenario, name="scenario.json"):
        path = os.path.join(self.root, name)
        with open(path, "w", encoding="utf-8") as f:
            json.dump(scenario, f)
        return path

    # ----------------------------------------------------------- reading

    def argv_entries(self):
        return read_json_lines(self.argv_log)

    def requests(self):
        return read_json_lines(self.record)

    def pidfile_pid(self):
        try:
            with open(self.pidfile, encoding="utf-8") as f:
                return int(f.read().strip())
        except (OSError, ValueError):
            return None

    def engine_log_text(self):
        try:
            with open(self.engine_log, encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def token_file_matches(self, expected):
        with open(self.token_file, encoding="utf-8") as f:
            return f.read() == expected

    def live_engines(self):
        pids = {e["pid"] for e in self.argv_entries()} | self.engine_pids
        return sorted(pid for pid in pids if pid_alive(pid))

    # ----------------------------------------------------------- cleanup

    def _is_our_engine(self, pid):
        try:
            with open("/proc/%d/cmdline" % pid, "rb") as f:
                args = f.read().decode("utf-8", "replace").split("\0")
        except OSError:
            return False
        return "daemon" in args and str(self.port) in args

    def reap(self):
        """Leaves nothing running, whatever the test did or where it failed."""
        for proc in self.children:
            if proc.poll() is None:
                proc.kill()
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                pass
        pids = {e["pid"] for e in self.argv_entries()} | self.engine_pids
        if self.pidfile_pid():
            pids.add(self.pidfile_pid())
        for pid in pids:
            if pid > 0 and pid_alive(pid) and self._is_our_engine(pid):
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                wait_gone(pid, 5)


class LineReader:
    """Collects a child's output lines, each with the monotonic time it arrived."""

    def __init__(self, stream):
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self._pump, args=(stream,), daemon=True).start()

    def _pump(self, stream):
        with stream:
            for line in stream:
                self.lines.put((time.monotonic(), line.rstrip("\n")))
        self.lines.put((time.monotonic(), None))

    def next_matching(self, predicate, timeout):
        """The first (time, line) from here on that satisfies predicate; None at timeout or EOF."""
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                return None
            try:
                arrived, line = self.lines.get(timeout=remaining)
            except queue.Empty:
                return None
            if line is None:
                return None
            self.seen.append(line)
            if predicate(line):
                return arrived, line


class CliTestCase(unittest.TestCase):
    def setUp(self):
        self.sb = Sandbox(self)

    def assertErrorLine(self, proc, expected):
        self.assertEqual(proc.returncode, 1, describe(proc))
        self.assertIn(expected, proc.stderr.splitlines(), describe(proc))


class EngineStartTests(CliTestCase):
    def test_start_passes_rpc_options_token_and_ax_path(self):
        sb = self.sb
        ax = os.path.join(sb.root, "AXServer.bundle")
        pid = sb.start_engine(env={"TAMSEL_AX_SERVER_BUNDLE_PATH": ax})

        entries = sb.argv_entries()
        self.assertEqual(len(entries), 1, entries)
        self.assertEqual(entries[0]["pid"], pid)
        self.assertEqual(entries[0]["argv"], ["daemon", "--port", str(sb.port), "--rpc-socket", sb.socket_path,
                                              "--rpc-pidfile", sb.pidfile])
        self.assertEqual(entries[0]["env"]["TAMSEL_AX_SERVER_BUNDLE_PATH"], ax)
        self.assertTrue(entries[0]["env"]["has_presence_token"])
        self.assertEqual(entries[0]["env"]["presence_token_length"], 73)

        # The engine outlives the command and is the one the pidfile names.
        self.assertTrue(pid_alive(pid))
        self.assertEqual(sb.pidfile_pid(), pid)
        mode = stat.S_IMODE(os.stat(sb.token_file).st_mode)
        self.assertEqual(mode, 0o600, oct(mode))
        with open(sb.token_file, encoding="utf-8") as f:
            saved = f.read()
        self.assertTrue(GENERATED_TOKEN.fullmatch(saved),
                        "the token file does not hold two upper-case UUIDs joined by '-'")

    def test_second_start_reuses_the_running_engine(self):
        sb = self.sb
        first = sb.start_engine()
        second = sb.start_engine()
        self.assertEqual(second, first)
        self.assertEqual(len(sb.argv_entries()), 1, "a second engine was launched")
        # A signalled simulator logs its shutdown and exits; the reused one did neither.
        self.assertTrue(pid_alive(first))
        self.assertNotIn("shutting down", sb.engine_log_text())
        self.assertEqual(sb.pidfile_pid(), first)

    def test_desktop_rpc_switch(self):
        for value, rpc_expected in (("0", False), ("false", True), ("", True)):
            with self.subTest(TAMSEL_DESKTOP_RPC=value):
                sb = Sandbox(self)
                pid = sb.start_engine(env={"TAMSEL_DESKTOP_RPC": value})
                argv = [e["argv"] for e in sb.argv_entries()]
                expected = ["daemon", "--port", str(sb.port)]
                if rpc_expected:
                    expected += ["--rpc-socket", sb.socket_path, "--rpc-pidfile", sb.pidfile]
                self.assertEqual(argv, [expected])
                self.assertIsNone(sb.argv_entries()[0]["env"]["TAMSEL_AX_SERVER_BUNDLE_PATH"])
                self.assertEqual(os.path.exists(sb.pidfile), rpc_expected)
                self.assertEqual(os.path.exists(sb.socket_path), rpc_expected)
                self.assertTrue(pid_alive(pid))

    def test_preset_presence_token(self):
        with self.subTest("blank value is replaced by a generated token"):
            sb = Sandbox(self)
            sb.start_engine(env={"TAMSEL_LOCAL_PRESENCE_TOKEN": "   "})
            engine_env = sb.argv_entries()[0]["env"]
            self.assertTrue(engine_env["has_presence_token"])
            self.assertEqual(engine_env["presence_token_length"], 73)
            with open(sb.token_file, encoding="utf-8") as f:
                self.assertTrue(GENERATED_TOKEN.fullmatch(f.read()), "no generated token was saved")

        with self.subTest("non-blank value is used as is"):
            sb = Sandbox(self)
            mine = "test-chosen-presence-value-0042"
            sb.start_engine(env={"TAMSEL_LOCAL_PRESENCE_TOKEN": mine},
                            engine_args="daemon --port {port} --record " + sb.record)
            self.assertEqual(sb.argv_entries()[0]["env"]["presence_token_length"], len(mine))
            self.assertTrue(sb.token_file_matches(mine), "the token file does not hold the preset token")
            # A later process without the variable presents the same token from the file.
            proc = sb.run("agents", "--json")
            self.assertEqual(proc.returncode, 0, describe(proc))
            self.assertTrue(sb.requests())
            self.assertTrue(all(r["presence_ok"] for r in sb.requests()))

    def test_stale_pidfile_is_replaced(self):
        dead = subprocess.Popen(["/bin/true"])
        dead.wait()
        bystander = subprocess.Popen(["/bin/sleep", "60"])
        self.addCleanup(bystander.wait)
        self.addCleanup(bystander.kill)
        cases = (("dead PID", str(dead.pid)), ("unparseable text", "not a pid"),
                 ("live process that is no engine", str(bystander.pid)))
        for label, content in cases:
            with self.subTest(label):
                sb = Sandbox(self)
                os.makedirs(sb.engine_dir)
                with open(sb.pidfile, "w", encoding="utf-8") as f:
                    f.write(content + "\n")
                pid = sb.start_engine()
                self.assertEqual(len(sb.argv_entries()), 1)
                self.assertEqual(sb.argv_entries()[0]["pid"], pid)
                self.assertEqual(sb.pidfile_pid(), pid)
                self.assertTrue(pid_alive(pid))
        # Only engines are ever signalled: an unrelated process named by the pidfile lives on.
        self.assertIsNone(bystander.poll())

    def start_unanswering_engine(self, scenario, extra_args=""):
        sb = self.sb
        args = "daemon --port {port} --scenario %s%s" % (sb.write_scenario(scenario), extra_args)
        began = time.monotonic()
        proc = sb.run("engine", "start", engine_args=args)
        elapsed = time.monotonic() - began
        self.assertErrorLine(proc, "tamsel: Engine not responding")
        self.assertEqual(proc.stdout, "")
        # Ten polls half a second apart before giving up, then a bounded stop.
        self.assertGreaterEqual(elapsed, 4.0)
        self.assertLess(elapsed, 15.0)
        entries = sb.argv_entries()
        self.assertEqual(len(entries), 1, entries)
        return entries[0]["pid"]

    def test_engine_that_never_answers_is_stopped(self):
        pid = self.start_unanswering_engine({"status_status": 503})
        self.assertFalse(pid_alive(pid), "the unresponsive engine was left running")
        self.assertFalse(os.path.exists(self.sb.token_file), "the abandoned engine's token file remains")
        code = self.sb.run("engine", "status").returncode
        self.assertEqual(code, 3)

    def test_engine_that_refuses_to_stop_is_killed(self):
        # Drops /shutdown and ignores SIGTERM: only SIGKILL ends it.
        pid = self.start_unanswering_engine(
            {"status_status": 503, "responses": [{"method": "POST", "path": "/shutdown", "status": 0}]},
            " --ignore-sigterm")
        # SIGKILL is sent just before the command returns, which does not wait for it to land.
        self.assertTrue(wait_gone(pid, 2), "the engine survived SIGKILL")
        self.assertIn("dropping POST /shutdown", self.sb.engine_log_text())

    def test_unstartable_engine_reports_failed_to_start(self):
        sb = self.sb
        broken = os.path.join(sb.root, "verd")
        with open(broken, "w", encoding="utf-8") as f:
            f.write("#!/nonexistent/interpreter\n")
        os.chmod(broken, 0o755)
        proc = sb.run("engine", "start", env={"VERD_BINARY": broken})
        self.assertEqual(proc.returncode, 1, describe(proc))
        self.assertTrue(any(line.startswith("tamsel: Failed to start: ") for line in proc.stderr.splitlines()),
                        describe(proc))
        self.assertEqual(proc.stdout, "")


class EngineSearchTests(CliTestCase):
    """Where the engine is looked for, seen through `engine status --json` and `engine start`."""

    def install(self, relative, version=None):
        path = os.path.join(self.sb.home, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        os.symlink(SIM, path)
        if version:
            with open(os.path.join(os.path.dirname(path), "VERSION"), "w", encoding="utf-8") as f:
                f.write(version + "\n")
        return path

    def engine_path(self, verd_binary):
        proc = self.sb.run("engine", "status", "--json", env={"VERD_BINARY": verd_binary})
        self.assertEqual(proc.returncode, 3, describe(proc))
        report = json.loads(proc.stdout)
        return report["engine_path"], report["installed_version"]

    def require_clean_system(self):
        bundled = os.path.join(os.path.dirname(os.path.realpath(TAMSEL)), "..", "libexec", "tamsel", "verd")
        for path in ("/opt/homebrew/bin/verd", "/usr/local/bin/verd", "/usr/bin/verd", "/bin/verd", bundled):
            if os.path.exists(path):
                self.skipTest("an engine is installed on this machine: " + os.path.normpath(path))

    def test_unusable_verd_binary_falls_back_to_home_install(self):
        self.require_clean_system()
        local = self.install(".local/bin/verd", version="2.3.4")
        not_executable = os.path.join(self.sb.root, "verd-plain")
        shutil.copy(SIM, not_executable)
        os.chmod(not_executable, 0o644)
        a_directory = os.path.join(self.sb.root, "verd-dir")
        os.mkdir(a_directory)
        for label, value in (("missing file", os.path.join(self.sb.root, "no-such-verd")),
                             ("not executable", not_executable), ("a directory", a_directory),
                             ("empty", "")):
            with self.subTest(label):
                self.assertEqual(self.engine_path(value), (local, "2.3.4"))
        with self.subTest("a usable VERD_BINARY comes first"):
            self.assertEqual(self.engine_path(SIM), (SIM, None))

        # And start launches what the search found.
        proc = self.sb.run("engine", "start", env={"VERD_BINARY": os.path.join(self.sb.root, "no-such-verd")})
        self.assertEqual(proc.returncode, 0, describe(proc))
        entries = self.sb.argv_entries()
        self.assertEqual(len(entries), 1)
        with open("/proc/%d/cmdline" % entries[0]["pid"], "rb") as f:
            self.assertIn(local, f.read().decode().split("\0"))

    def test_node_version_manager_install_is_found(self):
        self.require_clean_system()
        nvm = self.install(".nvm/versions/node/v20.11.1/bin/verd")
        self.assertEqual(self.engine_path(None), (nvm, None))

    def test_no_engine_anywhere(self):
        self.require_clean_system()
        self.assertEqual(self.engine_path(None), (None, None))
        proc = self.sb.run("engine", "start", env={"VERD_BINARY": os.path.join(self.sb.root, "no-such-verd")})
        self.assertErrorLine(proc, NOT_FOUND)
        self.assertEqual(proc.stdout, "")
        self.assertEqual(self.sb.argv_entries(), [])


class EngineStatusAndStopTests(CliTestCase):
    KEYS = {"state", "pid", "port", "local_endpoint", "version", "capabilities", "active_agent", "engine_path",
            "installed_version", "error"}

    def status(self):
        proc = self.sb.run("engine", "status", "--json")
        report = json.loads(proc.stdout)
        self.assertEqual(set(report), self.KEYS)
        return proc.returncode, report

    def test_status_when_stopped_starts_nothing(self):
        code, report = self.status()
        self.assertEqual(code, 3)
        self.assertEqual(report["state"], "stopped")
        self.assertIsNone(report["pid"])
        self.assertEqual(report["port"], self.sb.port)
        self.assertEqual(report["local_endpoint"], "down")
        self.assertIsNone(report["version"])
        self.assertEqual(report["capabilities"], [])
        self.assertIsNone(report["active_agent"])
        self.assertEqual(report["engine_path"], SIM)
        self.assertTrue(report["error"], "a stopped engine should come with the reason")
        self.assertEqual(self.sb.argv_entries(), [])

    def test_status_of_running_engine(self):
        pid = self.sb.start_engine(engine_args="daemon --port {port} --version-text 7.7.7-test")
        code, report = self.status()
        self.assertEqual(code, 0, report)
        self.assertEqual(report["state"], "running")
        self.assertEqual(report["pid"], pid)
        self.assertEqual(report["local_endpoint"], "ready")
        self.assertEqual(report["version"], "7.7.7-test")
        self.assertEqual(report["capabilities"], ["sessions", "queue", "inject", "events", "edit"])
        self.assertEqual(report["active_agent"], "main")
        self.assertIsNone(report["error"])

        human = self.sb.run("engine", "status")
        self.assertEqual(human.returncode, 0, describe(human))
        self.assertIn("PID:           %d" % pid, human.stdout.splitlines())
        self.assertIn("Version:       7.7.7-test", human.stdout.splitlines())

    def test_status_of_engine_alive_but_not_answering(self):
        sim = self.sb.launch_sim("--scenario", self.sb.write_scenario({"status_status": 503}))
        code, report = self.status()
        self.assertEqual(code, 3, report)
        self.assertEqual(report["state"], "not_responding")
        self.assertEqual(report["pid"], sim.pid)
        # /health still answers, so the endpoint itself is reachable.
        self.assertEqual(report["local_endpoint"], "ready")
        self.assertIsNone(report["version"])
        self.assertIn("503", report["error"])

    def test_stop(self):
        sb = self.sb
        pid = sb.start_engine()
        proc = sb.run("engine", "stop")
        self.assertEqual(proc.returncode, 0, describe(proc))
        self.assertEqual(proc.stdout, "Tamsel Engine stopped\n")
        self.assertFalse(pid_alive(pid), "stop returned before the engine was gone")
        self.assertFalse(os.path.exists(sb.token_file))
        self.assertFalse(os.path.exists(sb.pidfile))
        self.assertEqual(self.status()[1]["state"], "stopped")

        again = sb.run("engine", "stop")
        self.assertEqual(again.returncode, 0, describe(again))
        self.assertEqual(again.stdout, "Tamsel Engine is not running\n")
        self.assertEqual(len(sb.argv_entries()), 1, "stop must never start an engine")

    # kill(0 or -1, 0) succeeds, so a corrupt pidfile must never be read as a live engine.
    def test_non_positive_pid_in_pidfile_is_no_engine(self):
        sb = self.sb
        os.makedirs(sb.engine_dir)
        for content in ("0", "-1"):
            with self.subTest(pidfile=content):
                with open(sb.pidfile, "w", encoding="utf-8") as f:
                    f.write(content + "\n")
                code, report = self.status()
                self.assertEqual((code, report["state"], report["pid"]), (3, "stopped", None))
                proc = sb.run("engine", "stop")
                self.assertEqual((proc.returncode, proc.stdout), (0, "Tamsel Engine is not running\n"))


class RunTests(CliTestCase):
    def test_killed_engine_restarts_after_delay_and_sigterm_ends_all(self):
        sb = self.sb
        proc = sb.popen("run", "--json")
        out = LineReader(proc.stdout)
        parse = json.loads

        hit = out.next_matching(lambda l: parse(l)["state"] == "running", 15)
        self.assertIsNotNone(hit, out.seen)
        first = parse(hit[1])
        self.assertEqual(first["restart_count"], 0)
        self.assertEqual(first["local_endpoint"], "ready")
        self.assertEqual(set(first), {"time", "state", "text", "local_endpoint", "pid", "restart_count"})
        self.assertEqual(first["text"], "Tamsel Engine is running")
        self.assertEqual(first["pid"], sb.pidfile_pid())

        killed_at = time.monotonic()
        os.kill(first["pid"], signal.SIGKILL)
        hit = out.next_matching(lambda l: parse(l)["local_endpoint"] == "down", 5)
        self.assertIsNotNone(hit, "the crash was not reported: %s" % out.seen)
        self.assertEqual(parse(hit[1])["restart_count"], 1)

        relaunch = out.next_matching(lambda l: parse(l)["pid"] not in (None, first["pid"]), 15)
        self.assertIsNotNone(relaunch, out.seen)
        self.assertGreaterEqual(relaunch[0] - killed_at, 4.5, "restarted before the delay")
        hit = out.next_matching(lambda l: parse(l)["state"] == "running" and parse(l)["local_endpoint"] == "ready",
                                15)
        self.assertIsNotNone(hit, out.seen)
        second = parse(hit[1])
        self.assertNotEqual(second["pid"], first["pid"])
        self.assertEqual(second["restart_count"], 1)
        self.assertLess(hit[0] - killed_at, 15)
        self.assertEqual([e["pid"] for e in sb.argv_entries()], [first["pid"], second["pid"]])
        self.assertFalse(any(parse(l)["state"] == "failed" for l in out.seen), out.seen)

        proc.send_signal(signal.SIGTERM)
        self.assertEqual(proc.wait(timeout=15), 0)
        self.assertEqual(sb.live_engines(), [], "an engine outlived `tamsel run`")
        self.assertFalse(os.path.exists(sb.token_file))

    def test_sigint_stops_engine_and_exits_zero(self):
        sb = self.sb
        proc = sb.popen("run")
        out = LineReader(proc.stdout)
        hit = out.next_matching(lambda l: "Tamsel Engine is running" in l, 15)
        self.assertIsNotNone(hit, out.seen)
        pid = sb.pidfile_pid()
        self.assertIn("[endpoint ready, PID %d]" % pid, hit[1])
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=15), 0)
        self.assertFalse(pid_alive(pid))
        self.assertIsNotNone(out.next_matching(lambda l: l == "Shutting down the engine…", 5), out.seen)


class DataCommandTests(CliTestCase):
    def test_listing_from_a_later_process_with_the_saved_token(self):
        sb = self.sb
        sb.start_engine(engine_args="daemon --port {port} --record " + sb.record)

        agents = sb.run("agents", "--json")
        self.assertEqual(agents.returncode, 0, describe(agents))
        listed = json.loads(agents.stdout)
        self.assertEqual([a["name"] for a in listed], ["main", "researcher", "scribe"])
        self.assertEqual(listed[0]["display_name"], "Main")
        self.assertEqual(listed[0]["skill_count"], 6)

        table = sb.run("agents")
        self.assertEqual(table.returncode, 0, describe(table))
        rows = table.stdout.splitlines()
        self.assertTrue(rows[0].startswith("NAME"), rows)
        self.assertEqual(rows[1].split(), ["main", "Main", "yes", "6", "4"])

        everything = json.loads(sb.run("sessions", "--json").stdout)
        self.assertEqual(len(everything), 5)
        proc = sb.run("sessions", "--agent", "researcher", "--json")
        self.assertEqual(proc.returncode, 0, describe(proc))
        sessions = json.loads(proc.stdout)
        self.assertEqual(sorted(s["id"] for s in sessions), ["s_5e6b2c18", "s_91d0aa35"])
        for s in sessions:
            self.assertEqual(s["agent"], "researcher")
            self.assertEqual(s["msg_count"], 2)
            self.assertIn("updated_at", s)
            self.assertNotIn("msgCount", s)

        requests = sb.requests()
        self.assertTrue(all(r["presence_ok"] for r in requests), requests)
        paths = [(r["method"], r["path"]) for r in requests]
        self.assertIn(("GET", "/status"), paths)
        self.assertEqual(paths.count(("GET", "/agents")), 2)
        self.assertIn({"agent": "researcher"}, [r["query"] for r in requests if r["path"] == "/sessions"])

        # A caller with another token is refused by the engine, and says so.
        refused = sb.run("agents", env={"TAMSEL_LOCAL_PRESENCE_TOKEN": "not-the-engine-token"})
        self.assertErrorLine(refused, "tamsel: Engine error 401: missing or invalid local presence")
        self.assertFalse(sb.requests()[-1]["presence_ok"])

    def test_engine_errors_are_explained(self):
        sb = self.sb
        def once(status, **reply):
            return dict(method="GET", path="/agents", status=status, times=1, **reply)

        cases = [
            (once(402, body={"error": "payment required", "code": "credits_exhausted",
                             "auto_refill_started": True}),
             "tamsel: Credits exhausted; an automatic refill has started"),
            (once(402, body={"error": "payment required", "code": "credits_exhausted"}),
             "tamsel: Credits exhausted"),
            (once(429, body={"error": "slow down", "code": "quota_exceeded", "current_plan": "Team"}),
             "tamsel: Usage limit reached on the Team plan"),
            (once(422, body={"error": "invalid display name", "code": "display_name_too_long",
                             "message": "Display names are at most 40 characters"}),
             "tamsel: Display names are at most 40 characters"),
            (once(404, body={"error": "agent ghost not found", "code": "agent_not_found"}),
             "tamsel: agent ghost not found"),
            (once(503, body={"error": "engine is updating", "code": "busy"}),
             "tamsel: Engine error 503: engine is updating"),
            (once(500, raw_body=""), "tamsel: Engine error 500: Unknown error"),
            (once(502, raw_body="<html>bad gateway</html>", content_type="text/html"),
             "tamsel: Engine error 502: Unknown error"),
        ]
        scenario = {"responses": [reply for reply, _ in cases]}
        sb.start_engine(engine_args="daemon --port {port} --record %s --scenario %s"
                        % (sb.record, sb.write_scenario(scenario)))
        for reply, expected in cases:
            with self.subTest(expected):
                proc = sb.run("agents", "--json")
                self.assertErrorLine(proc, expected)
                self.assertEqual(proc.stdout, "")
        # One request per command (a retry would have eaten the next case's reply), and the
        # engine's own answer comes back once the scripted ones are used up.
        self.assertEqual([r["path"] for r in sb.requests()].count("/agents"), len(cases))
        self.assertEqual(sb.run("agents", "--json").returncode, 0)

    def test_sessions_error_for_unknown_agent(self):
        sb = self.sb
        scenario = {"responses": [{"method": "GET", "path": "/sessions", "status": 404,
                                   "body": {"error": "agent not found", "code": "agent_not_found",
                                            "message": "There is no agent named ghost"}}]}
        sb.start_engine(engine_args="daemon --port {port} --scenario " + sb.write_scenario(scenario))
        proc = sb.run("sessions", "--agent", "ghost")
        self.assertErrorLine(proc, "tamsel: There is no agent named ghost")

    def test_without_an_engine(self):
        for command in (("agents",), ("sessions", "--json")):
            with self.subTest(command=command):
                proc = self.sb.run(*command)
                self.assertEqual(proc.returncode, 1, describe(proc))
                self.assertTrue(proc.stderr.startswith("tamsel: "), describe(proc))
                self.assertIn("Is the engine running?", proc.stderr)
                self.assertIn(str(self.sb.port), proc.stderr)
                self.assertEqual(proc.stdout, "")
        self.assertEqual(self.sb.argv_entries(), [], "a data command started an engine")


def setUpModule():
    for path, what in ((TAMSEL, "TAMSEL_BIN"), (SIM, "VERD_SIM")):
        if not (os.path.isfile(path) and os.access(path, os.X_OK)):
            raise RuntimeError("%s is not an executable file: %s (set %s)" % (what, path, what))


if __name__ == "__main__":
    unittest.main()
