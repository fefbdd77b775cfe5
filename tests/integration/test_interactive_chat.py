#!/usr/bin/env python3
"""The interactive `tamsel chat` driven as a person would, through tmux, against the simulator."""
import json
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

    def wait_idle(self, timeout=15):
        """Until no reply is being written: the spinner and the reply's open block are gone."""
        deadline = time.monotonic() + timeout
        last = None
        while time.monotonic() < deadline:
            screen = self.screen()
            if screen == last and not any(s in screen for s in "⠋⠙⠹⠸⠼⠴⠦⠧⠇⠏"):
                time.sleep(0.4)
                if self.screen() == screen:
                    return screen
            last = screen
            time.sleep(0.2)
        self.fail("the reply never finished:\n" + self.screen())

    def session_id(self):
        for line in self.screen().splitlines():
            if line.startswith("(session "):
                return line[len("(session "):-1]
        self.fail("no session id on the screen")

    def test_a_conversation_with_queueing_approval_question_and_cancel(self):
        self.open()
        self.keys("hello there", "Enter")
        self.wait_for('agent: About "hello there"')
        self.wait_idle()

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
        self.keys("C-d")
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

    def drafts(self):
        path = os.path.join(self.home, "data", "dev.tamsel.desktop", "drafts.json")
        try:
            with open(path) as f:
                return {e["key"]: e["text"] for e in json.load(f)["entries"]}
        except FileNotFoundError:
            return {}

    def first_session(self):
        self.keys("first message", "Enter")
        self.wait_for('agent: About "first message"')
        self.wait_idle()
        return self.session_id()

    def test_switching_sessions_never_loses_a_draft(self):
        self.open()
        session = self.first_session()
        self.keys("draft for the first session")
        time.sleep(0.8)
        self.keys("C-d")
        self.wait_for("EXIT=0")
        self.assertEqual(self.drafts().get("session:" + session), "draft for the first session")

        # A new chat, then the session opened by hand: its line comes back, and stays stored.
        self.open()
        self.keys("/open " + session, "Enter")
        self.wait_for("> draft for the first session")
        time.sleep(0.8)
        self.assertEqual(self.drafts().get("session:" + session), "draft for the first session")
        self.keys("C-u")  # clear the line by hand: switching away must not store the empty line
        self.keys("typed again", "Enter")
        self.wait_for('agent: About "typed again"')
        self.wait_idle()
        self.keys("half typed")
        time.sleep(0.8)
        self.keys("C-a", "C-k", "/new", "Enter")
        self.wait_for("New session.")
        self.keys("/open " + session, "Enter")
        self.wait_for("(session %s)" % session)
        time.sleep(0.8)
        self.assertNotIn("half typed", self.drafts().get("session:" + session, ""))

    def test_a_line_left_in_a_new_chat_comes_back_in_the_next_one(self):
        self.open()
        self.keys("not sent yet")
        time.sleep(0.8)
        self.keys("C-d")
        self.wait_for("EXIT=0")
        self.open()
        self.wait_for("main> not sent yet")
        self.assertEqual([k for k in self.drafts() if k.startswith("pending:")], [],
                         "nothing stored under a key no later chat can reach")

    def test_history_shows_the_users_own_lines_and_slash_commands_leave_a_clean_prompt(self):
        self.open()
        self.first_session()
        self.keys("/history", "Enter")
        screen = self.wait_for("the whole session")
        self.assertIn("you: first message", screen.split("the whole session")[1])
        self.keys("/help", "Enter")
        screen = self.wait_for("Ctrl-D")
        self.assertNotIn("/helpmain>", screen)
        self.assertNotIn("/historymain>", screen)
        self.assertTrue(screen.rstrip().endswith("main>"), screen)

    def test_a_reply_streams_word_by_word(self):
        self.open()
        self.keys("stream it [slow]", "Enter")
        partial = None
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and partial is None:
            screen = self.screen()
            if 'About "stream it [slow]"' in screen and "next steps?" not in screen:
                partial = screen
            time.sleep(0.05)
        self.assertIsNotNone(partial, "the reply never showed before it was complete")
        final = self.wait_for("next steps?")
        self.assertEqual(final.count('About "stream it [slow]"'), 1)

    def test_after_an_engine_restart_the_next_reply_shows_once(self):
        self.open()
        self.first_session()
        self.keys("interrupted [slow]", "Enter")
        self.wait_for("(running)")
        pidfile = os.path.join(self.home, "data", "dev.tamsel.engine", "daemon.pid")
        with open(pidfile) as f:
            os.kill(int(f.read().strip()), signal.SIGKILL)
        time.sleep(1)
        env = dict(self.env)
        env["TAMSEL_ENGINE_ARGS"] = env["TAMSEL_ENGINE_ARGS"].strip("'")
        subprocess.run([TAMSEL, "--engine-port", str(self.port), "--engine-home",
                        os.path.join(self.home, "engine-home"), "engine", "start"],
                       env=env, capture_output=True, timeout=30)
        time.sleep(1)
        self.keys("after the restart", "Enter")
        self.wait_for('agent: About "after the restart"', timeout=20)
        screen = self.wait_idle()
        time.sleep(2)  # reloads and reconnects settle
        screen = self.screen()
        self.assertEqual(screen.count('About "after the restart"'), 1, screen)
        self.assertEqual(screen.count("you: first message"), 0, "nothing shown before is shown again")

    def test_keys_answer_approvals_clear_lines_continue_messages_and_recall_history(self):
        self.open()
        self.keys("check [approval]", "Enter")
        self.wait_for("Approval needed: bash")
        self.keys("s")
        self.wait_for("bash allowed for this session.")
        self.wait_for("I listed the folder")
        self.wait_idle()
        self.assertTrue(self.screen().rstrip().endswith("main>"), "the key never reached the line")

        self.keys("half typed")
        # Ctrl-C arrives as a signal, ahead of typed keys still waiting to be read: a person's
        # Ctrl-C comes after the text is on screen, and so does this one.
        self.wait_for("main> half typed")
        self.keys("C-c")
        time.sleep(0.5)
        self.assertTrue(self.screen().rstrip().endswith("main>"), self.screen())
        self.assertNotIn("EXIT=", self.screen())

        self.keys("line one", "M-Enter")
        self.wait_for("… ")
        self.keys("line two", "Enter")
        self.wait_for("line two")
        self.wait_for('agent: About "line one')
        self.wait_idle()
        self.keys("/quit", "Enter")
        self.wait_for("EXIT=0")
        history = os.path.join(self.home, "data", "dev.tamsel.desktop", "chat_history")
        self.assertEqual(os.stat(history).st_mode & 0o777, 0o600)

        self.open()
        self.keys("Up")
        self.wait_for("main> /quit")
        self.keys("Up")
        self.wait_for("line two")

    def test_a_long_session_opens_on_its_last_screenful(self):
        sessions = os.path.join(self.home, "engine-home", "sessions")
        os.makedirs(sessions, exist_ok=True)
        messages = []
        for i in range(200):
            messages.append({"role": "user", "content": "question %d" % i})
            messages.append({"role": "assistant", "content": "answer %d" % i})
        with open(os.path.join(sessions, "s_long.json"), "w") as f:
            json.dump({"id": "s_long", "title": "Long", "messages": messages}, f)
        self.open("--session", "s_long")
        screen = self.wait_for("earlier messages not shown")
        self.assertIn("answer 199", screen)
        self.assertNotIn("question 0\n", screen + "\n")
        self.keys("/history", "Enter")
        time.sleep(1.5)
        everything = subprocess.run(["tmux", "-L", self.server, "capture-pane", "-p", "-J", "-S", "-",
                                     "-t", self.name], capture_output=True, text=True).stdout
        self.assertIn("you: question 0\n", everything.split("— the whole session —")[1])


if __name__ == "__main__":
    unittest.main()
