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
import urllib.request

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
        # No terminal on stdin: chat would otherwise prompt and wait for a person.
        return subprocess.run(self.command(args, engine_args), env=self.environment(env), cwd=self.root,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout)

    def popen(self, *args, env=None, engine_args=None):
        # stderr goes to a file: nobody drains a pipe while the test waits on stdout.
        with open(os.path.join(self.root, "tamsel-stderr.log"), "a") as err:
            proc = subprocess.Popen(self.command(args, engine_args), env=self.environment(env), cwd=self.root,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=err, text=True)
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

    def assertErrorLine(self, proc, expected, code=1):
        self.assertEqual(proc.returncode, code, describe(proc))
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

    def test_running_engine_is_reused_only_when_its_channel_speaks_our_version(self):
        for version, reused in (("1.0.0", True), ("1.0.1", False)):
            with self.subTest(version=version):
                sb = Sandbox(self)
                scenario = sb.write_scenario({"rpc_version": version})
                left = sb.launch_sim("--rpc-socket", sb.socket_path, "--scenario", scenario)
                # Reaped at once, as an engine that is not our child would be: a zombie still
                # answers signal 0 and would look like an engine that survived SIGKILL.
                reaper = threading.Thread(target=left.wait, daemon=True)
                reaper.start()
                pid = sb.start_engine()
                self.assertEqual(pid == left.pid, reused)
                if reused:
                    self.assertIsNone(left.poll())
                else:
                    reaper.join(5)
                    self.assertEqual(left.returncode, 0, "the old engine was not asked to leave")
                    self.assertTrue(pid_alive(pid))

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
        self.assertErrorLine(proc, "tamsel: Engine not responding", code=3)
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
        self.assertEqual(proc.returncode, 3, describe(proc))
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
        self.assertErrorLine(proc, NOT_FOUND, code=3)
        self.assertEqual(proc.stdout, "")
        self.assertEqual(self.sb.argv_entries(), [])


class EngineStatusAndStopTests(CliTestCase):
    KEYS = {"state", "pid", "port", "local_endpoint", "version", "capabilities", "active_agent", "engine_path",
            "installed_version", "error", "rpc_channel"}

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
        self.assertEqual(report["rpc_channel"], "offline")
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
        self.assertEqual(report["rpc_channel"], "online")
        self.assertIsNone(report["error"])

        human = self.sb.run("engine", "status")
        self.assertEqual(human.returncode, 0, describe(human))
        self.assertIn("PID:           %d" % pid, human.stdout.splitlines())
        self.assertIn("Version:       7.7.7-test", human.stdout.splitlines())

    def test_status_of_engine_alive_but_not_answering(self):
        # The pidfile names the engine only together with the socket it listens on.
        sim = self.sb.launch_sim("--rpc-socket", self.sb.socket_path,
                                 "--scenario", self.sb.write_scenario({"status_status": 503}))
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
        rpc_record = os.path.join(sb.root, "rpc.jsonl")
        scenario = sb.write_scenario({"rpc_requests": [{"method": "system.ping", "request_id": "ping-1"}]})
        proc = sb.popen("run", "--json",
                        engine_args="daemon --port {port} --scenario %s --rpc-record %s" % (scenario, rpc_record))
        out = LineReader(proc.stdout)
        parse = json.loads

        hit = out.next_matching(lambda l: parse(l)["state"] == "running", 15)
        self.assertIsNotNone(hit, out.seen)
        first = parse(hit[1])
        self.assertEqual(first["restart_count"], 0)
        self.assertEqual(first["local_endpoint"], "ready")
        self.assertEqual(set(first), {"time", "state", "text", "local_endpoint", "pid", "restart_count",
                                      "rpc_channel", "rpc_error"})
        self.assertEqual(first["text"], "Tamsel Engine is running")
        self.assertEqual(first["pid"], sb.pidfile_pid())
        hit = out.next_matching(lambda l: parse(l)["rpc_channel"] == "online", 10)
        self.assertIsNotNone(hit, out.seen)
        self.assertIsNone(parse(hit[1])["rpc_error"])
        # The engine's scripted ping was answered over the channel.
        deadline = time.monotonic() + 5
        while not any(r.get("frame", {}).get("payload", {}).get("request_id") == "ping-1"
                      for r in read_json_lines(rpc_record)) and time.monotonic() < deadline:
            time.sleep(0.05)
        answers = [r["frame"]["payload"] for r in read_json_lines(rpc_record)
                   if r.get("frame", {}).get("payload", {}).get("request_id") == "ping-1"]
        self.assertEqual(len(answers), 1, read_json_lines(rpc_record))
        self.assertTrue(answers[0]["ok"])
        self.assertEqual(answers[0]["result"]["echo"], "pong")

        killed_at = time.monotonic()
        os.kill(first["pid"], signal.SIGKILL)
        hit = out.next_matching(lambda l: parse(l)["local_endpoint"] == "down", 5)
        self.assertIsNotNone(hit, "the crash was not reported: %s" % out.seen)
        self.assertEqual(parse(hit[1])["restart_count"], 1)
        self.assertEqual(parse(hit[1])["state"], "starting", "a dead engine shown as running")

        relaunch = out.next_matching(lambda l: parse(l)["pid"] not in (None, first["pid"]), 15)
        self.assertIsNotNone(relaunch, out.seen)
        self.assertGreaterEqual(relaunch[0] - killed_at, 4.5, "restarted before the delay")
        up = lambda l: parse(l)["state"] == "running" and parse(l)["local_endpoint"] == "ready"
        hit = relaunch if up(relaunch[1]) else out.next_matching(up, 15)
        self.assertIsNotNone(hit, out.seen)
        second = parse(hit[1])
        self.assertNotEqual(second["pid"], first["pid"])
        self.assertEqual(second["restart_count"], 1)
        self.assertLess(hit[0] - killed_at, 15)
        self.assertEqual([e["pid"] for e in sb.argv_entries()], [first["pid"], second["pid"]])
        self.assertFalse(any(parse(l)["state"] == "failed" for l in out.seen), out.seen)
        self.assertFalse(any(parse(l)["state"] == "running" and parse(l)["local_endpoint"] == "down"
                             for l in out.seen), out.seen)
        # The channel went down with the engine, saying why, and came back with the new one.
        self.assertTrue(any(parse(l)["rpc_channel"] == "offline" and
                            (parse(l)["rpc_error"] or "").startswith("transport error: ") for l in out.seen), out.seen)
        hit = out.next_matching(lambda l: parse(l)["rpc_channel"] == "online" and parse(l)["pid"] == second["pid"], 10)
        self.assertIsNotNone(hit, out.seen)

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
        self.assertIn("[endpoint ready, PID %d, rpc " % pid, hit[1])
        proc.send_signal(signal.SIGINT)
        self.assertEqual(proc.wait(timeout=15), 0)
        self.assertFalse(pid_alive(pid))
        self.assertIsNotNone(out.next_matching(lambda l: l == "Shutting down the engine…", 5), out.seen)


    def test_tells_a_service_manager_when_the_engine_is_up_and_when_it_stops(self):
        # What systemd sees of a Type=notify unit: a datagram socket named by NOTIFY_SOCKET.
        sb = self.sb
        path = os.path.join(sb.root, "notify.sock")
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(path)
        manager.settimeout(15)
        proc = sb.popen("run", env={"NOTIFY_SOCKET": path})
        out = LineReader(proc.stdout)
        messages = []
        while not any(m.startswith("READY=1") for m in messages):
            messages.append(manager.recv(4096).decode())
        # Ready only once the engine answers, never while it is still starting.
        self.assertEqual(messages[-1], "READY=1\nSTATUS=Tamsel Engine is running", messages)
        self.assertTrue(all(m.startswith("STATUS=") for m in messages[:-1]), messages)
        self.assertIsNotNone(out.next_matching(lambda l: "Tamsel Engine is running" in l, 5), out.seen)
        pid = sb.pidfile_pid()
        proc.send_signal(signal.SIGTERM)
        stopping = manager.recv(4096).decode()
        while not stopping.startswith("STOPPING=1"):
            stopping = manager.recv(4096).decode()
        self.assertEqual(stopping, "STOPPING=1\nSTATUS=Shutting down the engine…")
        self.assertEqual(proc.wait(timeout=15), 0)
        self.assertFalse(pid_alive(pid))


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
        # Every command that needs the engine starts it, as chat does, and says so on stderr.
        proc = self.sb.run("agents")
        self.assertEqual(proc.returncode, 0, describe(proc))
        [note] = proc.stderr.splitlines()
        self.assertRegex(note, r"^tamsel: started the engine \(PID \d+, port %d\)" % self.sb.port)
        [started] = self.sb.argv_entries()
        self.assertTrue(pid_alive(started["pid"]))
        later = self.sb.run("sessions", "--json")
        self.assertEqual((later.returncode, later.stderr), (0, ""), describe(later))
        self.assertEqual(len(self.sb.argv_entries()), 1, "a second engine was started")

        with self.subTest("no engine to start: exit 3"):
            # The global option after the command, where people put it too.
            proc = subprocess.run([TAMSEL, "sessions", "--engine-port", str(free_port())],
                                  env=self.sb.environment({"VERD_BINARY": "/nonexistent/verd"}),
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=30)
            self.assertEqual(proc.returncode, 3, describe(proc))
            self.assertEqual(proc.stdout, "")


def sse(*events):
    """A reply stream as the engine would write it, from (event, data) pairs."""
    return "".join("event: %s\ndata: %s\n\n" % (name, json.dumps(data)) for name, data in events)


def tool_line(data):
    return "[tool] %s %s %s" % (data["tool"], json.dumps(data["args"], separators=(",", ":")), data["status"])


INCOMPLETE = ("tamsel: The reply ended before it was complete", "tamsel: The engine closed the stream unexpectedly")
IN_PROGRESS = "tamsel: The engine is still working on this request"
CREDITS = "tamsel: Credits exhausted; an automatic refill has started"
SHELL_RUNNING = '[tool] bash {"command":"ls -la"} running'


SESSION_NOTE = re.compile(r"^tamsel: session \S+$")
STARTED_NOTE = re.compile(r"^tamsel: started the engine \(PID \d+, port \d+\); it keeps running until `tamsel engine stop`$")


def errors(proc):
    """stderr without the notes a chat always prints there: the session id, an engine it started."""
    return [l for l in proc.stderr.splitlines() if not SESSION_NOTE.match(l) and not STARTED_NOTE.match(l)]


class ChatTests(CliTestCase):
    """`tamsel chat -m`: what it sends, how it shows the reply, and how it ends."""

    def start_engine(self, scenario=None):
        args = "daemon --port {port} --record " + self.sb.record
        if scenario is not None:
            args += " --scenario " + self.sb.write_scenario(scenario)
        self.sb.start_engine(engine_args=args)

    def chat(self, *args, **kwargs):
        return self.sb.run("chat", *args, **kwargs)

    def events(self, proc):
        """The (event, data) pairs of --json output; every line must be one such object."""
        pairs = []
        for line in proc.stdout.splitlines():
            try:
                item = json.loads(line)
            except ValueError:
                self.fail("not a JSON line: %r\n%s" % (line, describe(proc)))
            self.assertEqual(set(item), {"event", "data"}, line)
            pairs.append((item["event"], item["data"]))
        return pairs

    def requests_to(self, path, since=0):
        return [r for r in self.sb.requests()[since:] if r["path"] == path]

    def answer_as_another_client(self, path, body):
        with open(self.sb.token_file, encoding="utf-8") as f:
            token = f.read()
        request = urllib.request.Request("http://127.0.0.1:%d%s" % (self.sb.port, path), data=json.dumps(body).encode(),
                                         headers={"X-Tamsel-Local-Presence": token,
                                                  "Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=5) as reply:
            self.assertEqual(reply.status, 200)

    def test_new_conversation_then_continued(self):
        sb = self.sb
        text = "Summarise my notes"
        # No engine yet: chat starts one like `engine start` and leaves it running.
        first = self.chat("-m", text, "--agent", "researcher", "--json",
                          engine_args="daemon --port {port} --record " + sb.record)
        self.assertEqual((first.returncode, errors(first)), (0, []), describe(first))
        # It says that it started the engine, which outlives it; the id is in session_started.
        self.assertEqual(len([l for l in first.stderr.splitlines() if STARTED_NOTE.match(l)]), 1, describe(first))
        entries = sb.argv_entries()
        self.assertEqual(len(entries), 1, entries)
        self.assertTrue(pid_alive(entries[0]["pid"]), "chat stopped the engine it started")
        self.assertEqual(sb.pidfile_pid(), entries[0]["pid"])

        events = self.events(first)
        names = [name for name, _ in events]
        data = [d for _, d in events]
        self.assertEqual(names[:3], ["session_started", "tool", "tool"], names)
        self.assertEqual(names[-2:], ["assistant_text", "done"], names)
        self.assertGreater(len(names), 6, "expected several deltas: %s" % names)
        self.assertEqual(set(names[3:-2]), {"delta"}, names)
        session_id = data[0]["session_id"]
        self.assertEqual([d["status"] for d in data[1:3]], ["running", "done"])
        reply = "".join(d["text"] for d in data[3:-2])
        self.assertEqual(data[-2]["text"], reply)
        done = data[-1]
        self.assertEqual((done["reply"], done["session_id"], done["agent"], done["partial"]),
                         (reply, session_id, "researcher", False))

        [sent] = self.requests_to("/message")
        self.assertEqual(sent["method"], "POST")
        self.assertTrue(sent["presence_ok"])
        self.assertEqual(sent["accept"], "text/event-stream")
        self.assertRegex(sent["device_id"] or "", "(?i)^%s$" % UUID)
        # The engine only sends what the client says it can handle.
        self.assertLessEqual({"approvals", "questions", "session_started"}, set(sent["capabilities"].split(",")))
        body = dict(sent["body"])
        first_id = body.pop("client_message_id", None)
        self.assertRegex(first_id or "", "(?i)^%s$" % UUID)
        self.assertEqual(body, {"text": text, "channel": "quenlo", "source": "desktop", "agent": "researcher",
                                "new_session": True})

        with self.subTest("human output shows tools and the reply once"):
            human = self.chat("-m", text)
            self.assertEqual((human.returncode, errors(human)), (0, []), describe(human))
            [note] = human.stderr.splitlines()
            self.assertIn(note[len("tamsel: session "):], [s["id"] for s in json.loads(sb.run("sessions", "--json").stdout)])
            self.assertEqual(human.stdout, "%s\n%s\n%s\n" % (tool_line(data[1]), tool_line(data[2]), reply))
            self.assertNotIn("agent", self.requests_to("/message")[-1]["body"])

        with self.subTest("--session continues the session"):
            later = self.chat("-m", "And the drafts?", "--session", session_id, "--json")
            self.assertEqual(later.returncode, 0, describe(later))
            names = [name for name, _ in self.events(later)]
            self.assertNotIn("session_started", names)
            self.assertEqual(names[-1], "done", names)
            self.assertEqual(self.events(later)[-1][1]["session_id"], session_id)
            body = self.requests_to("/message")[-1]["body"]
            self.assertEqual(body["session_id"], session_id)
            self.assertNotIn("new_session", body)
            stored = {s["id"]: s for s in json.loads(sb.run("sessions", "--json").stdout)}
            self.assertEqual((stored[session_id]["agent"], stored[session_id]["msg_count"]), ("researcher", 4))

        sent = self.requests_to("/message")
        self.assertEqual(len({r["body"]["client_message_id"] for r in sent}), 3, "a message id was reused")
        self.assertEqual(len({r["device_id"] for r in sent}), 1, "the device id changed between commands")
        self.assertEqual(len(sb.argv_entries()), 1, "a second engine was launched")

    def test_approvals_answered_by_option(self):
        sb = self.sb
        self.start_engine({"approval_timeout_seconds": 1})
        cases = ((["--approve", "once"], "once", "Approved (once).", "done", "I listed the folder"),
                 (["--approve", "session"], "session", "Approved (session).", "done", "I listed the folder"),
                 (["--deny"], "deny", "Denied.", "denied (error)", "was not run"))
        for flags, decision, said, outcome, in_reply in cases:
            with self.subTest(flags=flags):
                before = len(sb.requests())
                proc = self.chat("-m", "Tidy the folder [approval]", *flags)
                self.assertEqual((proc.returncode, errors(proc)), (0, []), describe(proc))
                lines = proc.stdout.splitlines()
                self.assertEqual(lines[:3], [SHELL_RUNNING, said, '[tool] bash {"command":"ls -la"} ' + outcome])
                self.assertEqual(len(lines), 4, lines)
                self.assertIn(in_reply, lines[3])
                [answer] = self.requests_to("/approval", before)
                self.assertRegex(answer["body"].pop("request_id", ""), r"^apr_\w+$")
                self.assertEqual(answer["body"], {"decision": decision})

        with self.subTest("--json answers too and prints only events"):
            before = len(sb.requests())
            proc = self.chat("-m", "Tidy the folder [approval]", "--json", "--approve", "always")
            self.assertEqual(proc.returncode, 0, describe(proc))
            events = self.events(proc)
            self.assertEqual([n for n, _ in events[:4]], ["session_started", "tool", "approval", "tool"], events)
            self.assertEqual(events[3][1]["status"], "done")
            self.assertEqual(events[-1][0], "done")
            [answer] = self.requests_to("/approval", before)
            self.assertEqual(answer["body"], {"request_id": events[2][1]["request_id"], "decision": "always"})

        # Without a terminal nobody can be asked here: the request is left to other clients.
        with self.subTest("approval left unanswered"):
            before = len(sb.requests())
            proc = self.chat("-m", "Tidy the folder [approval]")
            self.assertEqual(proc.returncode, 1, describe(proc))
            # The reply's own lines on stdout; the note saying who must answer on stderr.
            self.assertEqual(proc.stdout.splitlines(), [SHELL_RUNNING, "[error] approval timed out"])
            note, incomplete = errors(proc)
            self.assertRegex(note, r"^tamsel: approval for bash \(request apr_\w+\) is waiting for another client to "
                                   r"answer it; to decide here, run with --approve once\|session\|always or --deny$")
            self.assertEqual(incomplete, INCOMPLETE[0])
            self.assertEqual(self.requests_to("/approval", before), [])

        with self.subTest("question left unanswered"):
            before = len(sb.requests())
            proc = self.chat("-m", "Summarise the notes [question]")
            self.assertEqual(proc.returncode, 1, describe(proc))
            lines = proc.stdout.splitlines()
            self.assertEqual(lines[-1], "[error] question timed out")
            note, incomplete = errors(proc)
            self.assertRegex(note, r"^tamsel: a question \(request q_\w+\) is waiting for another client to answer "
                                   r"it; to decide here, run with --answer TEXT or --decline-questions$")
            self.assertEqual(incomplete, INCOMPLETE[0])
            self.assertEqual(self.requests_to("/question", before), [])

    def test_reply_goes_on_when_another_client_answers(self):
        sb = self.sb
        self.start_engine()
        proc = sb.popen("chat", "-m", "Tidy up, then summarise [approval] [question]")
        out = LineReader(proc.stdout)

        def request_in_note(prefix):
            # The note is on stderr, which popen keeps in a file.
            deadline = time.monotonic() + 15
            while time.monotonic() < deadline:
                with open(os.path.join(sb.root, "tamsel-stderr.log"), encoding="utf-8") as f:
                    for line in f:
                        if line.startswith(prefix):
                            return re.search(r"\(request (\S+)\)", line).group(1)
                time.sleep(0.05)
            self.fail("no note starting %r" % prefix)

        request_id = request_in_note("tamsel: approval for bash (request ")
        self.answer_as_another_client("/approval", {"request_id": request_id, "decision": "once"})

        request_id = request_in_note("tamsel: a question (request ")
        self.answer_as_another_client("/question", {"request_id": request_id, "action": "answer",
                                                    "answers": [{"id": "q1", "values": ["Prose"]}]})

        self.assertEqual(proc.wait(timeout=15), 0)
        out.next_matching(lambda l: False, 5)  # drain to end of output
        self.assertIn('[tool] bash {"command":"ls -la"} done', out.seen)
        self.assertIn("You chose Prose for the summary.", out.seen[-1])
        self.assertEqual(len(self.requests_to("/approval")), 1, "the client answered the approval itself")
        self.assertEqual(len(self.requests_to("/question")), 1, "the client answered the question itself")

    def test_errors_inside_the_reply(self):
        self.start_engine()
        with self.subTest("credits"):
            proc = self.chat("-m", "Go on [error:credits]")
            self.assertEqual(proc.returncode, 1, describe(proc))
            self.assertEqual(errors(proc), [CREDITS])
            self.assertEqual(proc.stdout, "")
        with self.subTest("credits, --json"):
            proc = self.chat("-m", "Go on [error:credits]", "--json")
            self.assertEqual(proc.returncode, 1, describe(proc))
            self.assertEqual(errors(proc), [CREDITS])
            events = self.events(proc)
            self.assertEqual([n for n, _ in events], ["session_started", "error"])
            self.assertEqual(events[1][1]["code"], "credits_exhausted")
        with self.subTest("quota"):
            proc = self.chat("-m", "Go on [error:quota]")
            self.assertEqual(proc.returncode, 1, describe(proc))
            [line] = errors(proc)
            self.assertTrue(line.startswith("tamsel: Usage limit reached"), line)
            self.assertIn("free", line)
        with self.subTest("an error the reply survives"):
            proc = self.chat("-m", "Go on [error:plain]")
            self.assertEqual((proc.returncode, errors(proc)), (0, []), describe(proc))
            lines = proc.stdout.splitlines()
            self.assertEqual(len(lines), 4, lines)
            self.assertEqual(lines[2], "[error] tool crashed")
            self.assertTrue(lines[3].startswith('About "Go on [error:plain]": '), lines)
        with self.subTest("cut before done"):
            proc = self.chat("-m", "Go on [cut]", "--json")
            self.assertEqual(proc.returncode, 1, describe(proc))
            self.assertEqual(len(errors(proc)), 1, describe(proc))
            self.assertIn("\n".join(errors(proc)), INCOMPLETE)
            self.assertEqual([n for n, _ in self.events(proc)][-1], "delta")

    def test_cut_in_a_close_delimited_reply(self):
        # The body ends with a clean EOF here, so only the missing done tells the reply is cut.
        self.start_engine({"stream_framing": "close"})
        whole = self.chat("-m", "All of it", "--json")
        self.assertEqual(whole.returncode, 0, describe(whole))
        self.assertEqual(self.events(whole)[-1][0], "done")
        cut = self.chat("-m", "Half of it [cut]")
        self.assertEqual(cut.returncode, 1, describe(cut))
        self.assertIn("\n".join(errors(cut)), INCOMPLETE)

    def test_json_skips_unknown_and_undecodable_events(self):
        sent = [
            ("session_started", {"session_id": "s_scripted"}),
            ("tool", {"tool": "grep", "status": "running", "args": {"pattern": "todo"}}),
            ("delta", {"text": "Two "}),
            ("delta", {"text": "matches."}),
            ("assistant_text", {"text": "Two matches."}),
            ("done", {"reply": "Two matches.", "session_id": "s_scripted", "agent": "main", "partial": False}),
        ]
        script = [{"event": name, "data": data} for name, data in sent]
        script[2:2] = [{"comment": "keepalive"}, {"event": "future_event", "data": {"x": 1}},
                       {"event": "delta", "raw_data": "{not json"}, {"event": "tool", "data": "not an object"}]
        # Anything after done is no part of the reply, and chat must not wait for it.
        script.append({"event": "delta", "data": {"text": " Late."}, "delay_seconds": 30})
        self.start_engine({"stream_framing": "close", "stream_events": script})
        for as_json in (True, False):
            with self.subTest(json=as_json):
                try:
                    proc = self.chat("-m", "Find the todos", *(["--json"] if as_json else []), timeout=15)
                except subprocess.TimeoutExpired:
                    self.fail("chat kept waiting after done")
                self.assertEqual((proc.returncode, errors(proc)), (0, []), describe(proc))
                if as_json:
                    self.assertEqual(self.events(proc), sent)
                else:
                    self.assertEqual(proc.stdout, '[tool] grep {"pattern":"todo"} running\nTwo matches.\n')

    def test_reply_text_shown_once_however_it_arrives(self):
        def stream(*events):
            return {"method": "POST", "path": "/message", "status": 200, "times": 1,
                    "content_type": "text/event-stream", "raw_body": sse(*events)}
        done = ("done", {"reply": "Whole answer.", "session_id": "s_1", "agent": "main", "partial": False})
        cases = (
            ("whole text without deltas", stream(("assistant_text", {"text": "Whole answer."}), done),
             "Whole answer.\n"),
            ("only done carries it", stream(done), "Whole answer.\n"),
            ("deltas ending the line", stream(("delta", {"text": "Whole "}), ("delta", {"text": "answer.\n"}),
                                              ("assistant_text", {"text": "Whole answer.\n"}), done),
             "Whole answer.\n"),
        )
        self.start_engine({"responses": [reply for _, reply, _ in cases]})
        for label, _, expected in cases:
            with self.subTest(label):
                proc = self.chat("-m", "Answer me")
                self.assertEqual((proc.returncode, proc.stdout), (0, expected), describe(proc))

    def test_engine_errors_around_the_stream(self):
        def once(status, **reply):
            return dict(method="POST", path="/message", status=status, times=1, **reply)

        cases = (
            (once(500, body={"error": "model backend crashed", "code": "internal"}),
             "tamsel: Engine error 500: SSE request failed: model backend crashed"),
            (once(503, body={"message": "warming up"}), "tamsel: Engine error 503: SSE request failed: warming up"),
            (once(500, raw_body="<html>oops</html>"), "tamsel: Engine error 500: SSE request failed: Unknown error"),
            (once(402, body={"error": "payment required", "code": "credits_exhausted", "auto_refill_started": True}),
             CREDITS),
            (once(409, body={"error": "request in progress", "code": "idempotent_request_in_progress"}),
             IN_PROGRESS),
            (once(200, content_type="text/event-stream",
                  raw_body=sse(("delta", {"text": "Working on it"}),
                               ("error", {"error": "request in progress", "code": "idempotent_request_in_progress"}),
                               ("done", {"reply": "never shown"}))),
             IN_PROGRESS),
        )
        self.start_engine({"responses": [reply for reply, _ in cases]})
        for reply, expected in cases:
            with self.subTest(status=reply["status"], expected=expected):
                proc = self.chat("-m", "Hello")
                self.assertErrorLine(proc, expected)
                if reply["status"] == 200:
                    # What came before the error is still shown.
                    self.assertIn("Working on it", proc.stdout)
                    self.assertNotIn("never shown", proc.stdout)
                else:
                    self.assertEqual(proc.stdout, "")
        # One request per command: a retry would have eaten the next case's answer.
        self.assertEqual(len(self.requests_to("/message")), len(cases))
        self.assertEqual(self.chat("-m", "Hello").returncode, 0)

    def test_interrupt_cancels_the_reply(self):
        sb = self.sb
        self.start_engine()
        stderr_log = os.path.join(sb.root, "tamsel-stderr.log")
        for as_json in (False, True):
            with self.subTest(json=as_json):
                text = "Interrupt me %s [slow]" % ("json" if as_json else "human")
                before = len(sb.requests())
                err_before = os.path.getsize(stderr_log) if os.path.exists(stderr_log) else 0
                proc = sb.popen("chat", "-m", text, *(["--json"] if as_json else []))
                out = LineReader(proc.stdout)
                started = (lambda l: json.loads(l)["event"] == "tool") if as_json else \
                    (lambda l: l.startswith("[tool] "))
                self.assertIsNotNone(out.next_matching(started, 15), out.seen)
                proc.send_signal(signal.SIGINT)
                self.assertEqual(proc.wait(timeout=10), 130)
                with open(stderr_log, encoding="utf-8") as f:
                    f.seek(err_before)
                    said = [l for l in f.read().splitlines() if not SESSION_NOTE.match(l)]
                    self.assertEqual(said, ["tamsel: Cancelled"])
                if as_json:
                    session_id = json.loads(out.seen[0])["data"]["session_id"]
                else:
                    listed = json.loads(sb.run("sessions", "--json").stdout)
                    [session_id] = [s["id"] for s in listed if s["title"] == text]
                cancels = self.requests_to("/cancel", before)
                self.assertEqual(len(cancels), 1, cancels)
                # The engine finds the run to stop by its session.
                self.assertEqual(cancels[0]["body"].get("session_id"), session_id, cancels[0])

    def test_approval_choices_are_checked_before_anything_starts(self):
        for flags in (["--approve", "maybe"], ["--approve", "deny"], ["--approve", "once", "--deny"]):
            with self.subTest(flags=flags):
                proc = self.chat("-m", "Tidy [approval]", *flags)
                self.assertNotEqual(proc.returncode, 0, describe(proc))
                self.assertEqual(proc.stdout, "")
        self.assertEqual(self.sb.argv_entries(), [], "an engine was started for a refused command")


def setUpModule():
    for path, what in ((TAMSEL, "TAMSEL_BIN"), (SIM, "VERD_SIM")):
        if not (os.path.isfile(path) and os.access(path, os.X_OK)):
            raise RuntimeError("%s is not an executable file: %s (set %s)" % (what, path, what))


if __name__ == "__main__":
    unittest.main()
