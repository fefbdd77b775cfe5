#!/usr/bin/env python3
"""The interactive `tamsel chat` driven as a person would, through tmux, against the simulator."""
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TAMSEL = os.environ.get("TAMSEL_BIN", os.path.join(ROOT, "build", "apps", "tamsel", "tamsel"))
SIM = os.environ.get("VERD_SIM", os.path.join(ROOT, "tools", "verd-sim", "verd-sim"))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@unittest.skipIf(shutil.which("tmux") is None, "tmux is not installed")
class InteractiveChat(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="tamsel-tty-")
        self.port = free_port()
        self.server = "tamsel-test-%d-%s" % (os.getpid(), self._testMethodName[-20:])
        self.env = {"HOME": self.home, "XDG_DATA_HOME": os.path.join(self.home, "data"),
                    "XDG_CONFIG_HOME": os.path.join(self.home, "config"), "PATH": "/usr/bin:/bin",
                    "VERD_BINARY": SIM, "TERM": "xterm-256color", "LANG": "C.UTF-8",
                    # The engine keeps its session files where the chat reads them.
                    "TAMSEL_ENGINE_ARGS": "'daemon --port {port} --engine-home %s'" % os.path.join(self.home, "engine-home")}
        self.sessions = 0

    def tearDown(self):
        subprocess.run(["tmux", "-L", self.server, "kill-server"], capture_output=True)
        pidfile = os.path.join(self.home, "data", "dev.tamsel.engine", "daemon.pid")
        try:
            with open(pidfile) as f:
                os.kill(int(f.read().strip()), signal.SIGKILL)
        except (OSError, ValueError):
            pass
        shutil.rmtree(self.home, ignore_errors=True)

    def open(self, *args):
        self.sessions += 1
        name = "chat%d" % self.sessions
        env = " ".join("%s=%s" % (k, v) for k, v in self.env.items())
        command = "env -i %s %s --engine-port %d --engine-home %s chat %s; echo EXIT=$?; sleep 30" % (
            env, TAMSEL, self.port, os.path.join(self.home, "engine-home"), " ".join(args))
        subprocess.run(["tmux", "-L", self.server, "new-session", "-d", "-s", name, "-x", "160", "-y", "60",
                        "bash", "--norc", "-c", command], check=True)
        self.name = name
        self.wait_for("/help lists commands")

    def keys(self, *keys):
        subprocess.run(["tmux", "-L", self.server, "send-keys", "-t", self.name, *keys], check=True)

    def screen(self):
        return subprocess.run(["tmux", "-L", self.server, "capture-pane", "-p", "-J", "-t", self.name],
                              capture_output=True, text=True).stdout

    def wait_for(self, text, timeout=15):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            screen = self.screen()
            if text in screen:
                return screen
            time.sleep(0.1)
        self.fail("%r never appeared on the screen:\n%s" % (text, self.screen()))

    def session_id(self):
        for line in self.screen().splitlines():
            if line.startswith("(session "):
                return line[len("(session "):-1]
        self.fail("no session id on the screen")

    def test_a_conversation_with_queueing_approval_question_and_cancel(self):
        self.open()
        self.keys("hello there", "Enter")
        self.wait_for('agent: About "hello there"')

        # Typed while a reply runs: queued, then sent when it ends.
        self.keys("take your time [slow]", "Enter")
        self.wait_for("[tool] read_file: notes.md (running)")
        self.keys("and then this", "Enter")
        self.wait_for("Queued: it will be sent when the reply finishes.")
        self.wait_for('agent: About "and then this"', timeout=20)

        self.keys("check [approval]", "Enter")
        self.wait_for("Approval needed: bash")
        self.keys("/approve session", "Enter")
        self.wait_for("bash allowed for this session.")
        self.wait_for("I listed the folder")

        self.keys("ask me [question]", "Enter")
        self.wait_for("Which format should the summary use?")
        self.keys("/answer 2", "Enter")
        self.wait_for("You chose Prose")

        # Ctrl-C stops a running reply without leaving.
        self.keys("very long [slow]", "Enter")
        self.wait_for('agent: About "ask me [question]"')
        time.sleep(1)
        self.keys("C-c")
        self.wait_for("Cancelling…")
        time.sleep(1.5)
        self.keys("/queue", "Enter")
        self.wait_for("Nothing queued.")
        self.assertNotIn("EXIT=", self.screen())
        self.keys("/quit", "Enter")
        self.wait_for("EXIT=0")

    def test_an_unsent_line_survives_quitting_and_reopening(self):
        self.open()
        self.keys("first message", "Enter")
        self.wait_for('agent: About "first message"')
        session = self.session_id()
        self.keys("keep this for later")
        time.sleep(0.3)
        self.keys("C-c")
        self.wait_for("EXIT=0")

        self.open("--session", session)
        screen = self.wait_for("keep this for later")
        self.assertIn("> keep this for later", screen)
        # Reopened, the session shows its history from the engine's files.
        self.assertIn("you: first message", screen)
        self.assertIn('agent: About "first message"', screen)
        self.keys(" please", "Enter")
        self.wait_for('agent: About "keep this for later please"')

    def test_queued_messages_can_be_edited_retracted_and_sent_now(self):
        self.open()
        self.keys("slow start [slow]", "Enter")
        self.wait_for("(running)")
        self.keys("one", "Enter")
        self.keys("two", "Enter")
        self.wait_for("Queued")
        self.keys("/queue", "Enter")
        self.wait_for("2. two")
        self.keys("/retract 2", "Enter")
        self.wait_for("Retracted.")
        self.keys("/edit 1 uno", "Enter")
        self.wait_for("Edited.")
        self.keys("/send-now", "Enter")
        self.wait_for('agent: About "uno"', timeout=20)
        self.assertNotIn('About "two"', self.screen())


if __name__ == "__main__":
    unittest.main()
