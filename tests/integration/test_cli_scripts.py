#!/usr/bin/env python3
"""`tamsel` in scripts and at the shell: machine output stays clean, decisions come from flags,
the message from stdin or a file, exit codes say what happened, and mistakes get clear words.

Uses the sandbox of test_cli.py: a temporary HOME, a free port and verd-sim as the engine.
Run: python3 tests/integration/test_cli_scripts.py   Env: TAMSEL_BIN, VERD_SIM.
"""

import datetime
import fcntl
import json
import os
import pty
import re
import struct
import termios
import socket
import subprocess
import time
import unittest

from test_cli import TAMSEL, CliTestCase, LineReader, describe, free_port, pid_alive, setUpModule  # noqa: F401

SESSION_NOTE = re.compile(r"^tamsel: session (\S+)$")


class ChatInScriptsTests(CliTestCase):
    def setUp(self):
        super().setUp()
        self.sb.start_engine(engine_args="daemon --port {port} --record " + self.sb.record)

    def answers(self, path):
        return [r["body"] for r in self.sb.requests() if r["path"] == path]

    def json_lines(self, path):
        with open(path, encoding="utf-8") as f:
            return [json.loads(line) for line in f]  # every line must be JSON

    def test_json_output_redirected_to_a_file_stays_json_lines(self):
        out = os.path.join(self.sb.root, "reply.jsonl")
        with open(out, "w") as f:
            proc = subprocess.run(self.sb.command(["chat", "-m", "x [approval] [question]", "--json", "--deny"]),
                                  env=self.sb.environment(), stdin=subprocess.DEVNULL, stdout=f,
                                  stderr=subprocess.PIPE, text=True, timeout=30)
        self.assertEqual(proc.returncode, 0, proc.stderr)
        events = [e["event"] for e in self.json_lines(out)]
        self.assertEqual((events[0], events[-1]), ("session_started", "done"), events)
        self.assertIn("approval", events)
        self.assertEqual([a["decision"] for a in self.answers("/approval")], ["deny"])
        # --deny declines questions too, so the reply ends without anyone else.
        self.assertEqual([a["action"] for a in self.answers("/question")], ["decline"])

    def test_prompts_on_a_terminal_go_to_stderr(self):
        # A person at the terminal answers, while stdout is a file: the file gets only the reply.
        master, slave = pty.openpty()
        proc = subprocess.Popen(self.sb.command(["chat", "-m", "Tidy [approval] [question]", "--json"]),
                                env=self.sb.environment(), stdin=slave, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)
        os.close(slave)
        os.write(master, b"o\n2\n")  # once; then the second option
        out, err = proc.communicate(timeout=30)
        os.close(master)
        self.assertEqual(proc.returncode, 0, err)
        events = [json.loads(line) for line in out.splitlines()]  # every line is JSON
        self.assertEqual(events[-1]["event"], "done")
        self.assertIn("You chose Prose", events[-1]["data"]["reply"])
        self.assertIn("Allow? [o]nce, [s]ession, [a]lways, [d]eny: ", err)
        self.assertIn("Which format should the summary use?", err)
        self.assertEqual([a["decision"] for a in self.answers("/approval")], ["once"])

    def test_questions_answered_or_declined_by_flag(self):
        cases = ((["--answer", "2"], {"action": "answer", "answers": [{"id": "q1", "values": ["Prose"]}]},
                  "You chose Prose"),
                 (["--answer", "Bullets"], {"action": "answer", "answers": [{"id": "q1", "values": ["Bullets"]}]},
                  "You chose Bullets"),
                 (["--answer", "tables please"],
                  {"action": "answer", "answers": [{"id": "q1", "values": ["tables please"]}]}, "tables please"),
                 (["--decline-questions"], {"action": "decline"}, "You declined the question"))
        for flags, sent, said in cases:
            with self.subTest(flags=flags):
                before = len(self.answers("/question"))
                proc = self.sb.run("chat", "-m", "Summarise [question]", *flags)
                self.assertEqual(proc.returncode, 0, describe(proc))
                [answer] = self.answers("/question")[before:]
                answer.pop("request_id")
                self.assertEqual({k: v for k, v in answer.items() if v is not None}, sent)
                self.assertIn(said, proc.stdout)

    def test_message_from_stdin_a_pipe_or_a_file(self):
        text = "Line one of the message\nand line two"
        path = os.path.join(self.sb.root, "message.txt")
        with open(path, "w", encoding="utf-8") as f:
            f.write(text + "\n")
        runs = {"-m -": (["chat", "-m", "-"], text + "\n"),
                "a pipe": (["chat"], text + "\n"),
                "--file": (["chat", "--file", path], None)}
        for name, (args, stdin) in runs.items():
            with self.subTest(name):
                proc = subprocess.run(self.sb.command(args), env=self.sb.environment(), input=stdin or "",
                                      capture_output=True, text=True, timeout=30)
                self.assertEqual(proc.returncode, 0, describe(proc))
                sent = [r["body"]["text"] for r in self.sb.requests() if r["path"] == "/message"]
                self.assertEqual(sent[-1], text)
        with self.subTest("an empty message is a usage error and sends nothing"):
            before = len(self.sb.requests())
            proc = subprocess.run(self.sb.command(["chat", "-m", "-"]), env=self.sb.environment(), input="\n",
                                  capture_output=True, text=True, timeout=30)
            self.assertEqual(proc.returncode, 2, describe(proc))
            self.assertIn("tamsel: the message is empty", proc.stderr)
            self.assertEqual([r for r in self.sb.requests()[before:] if r["path"] == "/message"], [])

    def test_session_id_is_printed_and_continue_resumes_the_latest(self):
        first = self.sb.run("chat", "-m", "Remember the word heron")
        self.assertEqual(first.returncode, 0, describe(first))
        [session_id] = [m.group(1) for m in map(SESSION_NOTE.match, first.stderr.splitlines()) if m]
        self.assertNotIn(session_id, first.stdout)

        later = self.sb.run("chat", "--continue", "-m", "Which word?", "--json")
        self.assertEqual(later.returncode, 0, describe(later))
        body = [r["body"] for r in self.sb.requests() if r["path"] == "/message"][-1]
        self.assertEqual(body.get("session_id"), session_id)
        self.assertNotIn("new_session", body)
        done = [json.loads(l) for l in later.stdout.splitlines()][-1]
        self.assertEqual((done["event"], done["data"]["session_id"]), ("done", session_id))

        for flags in (["--continue", "--session", session_id], ["-m", "x", "--file", "/etc/hostname"],
                      ["--answer", "1", "--decline-questions"]):
            with self.subTest(flags=flags):
                proc = self.sb.run("chat", "-m", "x", *flags) if "-m" not in flags else self.sb.run("chat", *flags)
                self.assertEqual(proc.returncode, 2, describe(proc))


class ReadmeHistoryTests(CliTestCase):
    def test_history_reads_what_the_readme_tells_the_simulator(self):
        # The README's commands, word for word but for the sandbox's port.
        home_args = "daemon --port {port} --engine-home %s" % os.path.join(self.sb.home, ".verdane")
        self.sb.start_engine(engine_args=home_args)
        chat = self.sb.run("chat", "-m", "hello")
        self.assertEqual(chat.returncode, 0, describe(chat))
        [session_id] = [m.group(1) for m in map(SESSION_NOTE.match, chat.stderr.splitlines()) if m]
        history = self.sb.run("history", session_id)
        self.assertEqual(history.returncode, 0, describe(history))
        self.assertIn("\nYou  ", history.stdout)
        self.assertIn("  hello\n", history.stdout)


class ExitCodesAndUsageTests(CliTestCase):
    def run_bare(self, *args, env=None):
        return subprocess.run([TAMSEL] + list(args), env=self.sb.environment(env), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=30)

    def test_usage_errors_exit_2_with_a_clear_line(self):
        cases = [
            (["egnine", "start"], ["tamsel: unknown command 'egnine' for 'tamsel'", "Did you mean 'tamsel engine'?"]),
            (["engine", "strat"], ["tamsel: unknown command 'strat' for 'tamsel engine'",
                                   "Did you mean 'tamsel engine start'?"]),
            (["frobnicate"], ["tamsel: unknown command 'frobnicate' for 'tamsel'"]),
            (["agents", "--engine-port", "99999"],
             ["tamsel: --engine-port: '99999' is not a port: use a number from 1 to 65535"]),
            (["calendar", "add-local", "work", "--color", "blue"],
             ["tamsel: --color: 'blue' is not a colour: use #RRGGBB, e.g. #3A7BD5"]),
            (["calendar", "events", "--from", "2026-02-30", "--to", "2026-03-01"],
             ["tamsel: --from: '2026-02-30' is not a date on the calendar"]),
            (["calendar", "events", "--from", "2026-03-01T10:00:00", "--to", "2026-03-01"],
             ["tamsel: --from: '2026-03-01T10:00:00' is not a date or time: use a date (2026-03-01, a whole day in "
              "your zone) or a time with its offset (2026-03-01T09:00:00+01:00)"]),
            (["chat", "--approve", "maybe", "-m", "x"], None),
            ([], ["tamsel: A subcommand is required"]),
        ]
        for args, first_lines in cases:
            with self.subTest(args=args):
                proc = self.run_bare(*args)
                self.assertEqual(proc.returncode, 2, describe(proc))
                self.assertEqual(proc.stdout, "")
                lines = proc.stderr.splitlines()
                if first_lines:
                    self.assertEqual(lines[:len(first_lines)], first_lines)
                self.assertRegex(lines[-1], r"^Run 'tamsel( [a-z-]+)* --help' for its options\.$")
        self.assertEqual(self.sb.argv_entries(), [], "a refused command started an engine")

    def test_global_options_anywhere_and_help_everywhere(self):
        port = free_port()
        status = self.run_bare("engine", "status", "--json", "--engine-port", str(port))
        self.assertEqual(status.returncode, 3, describe(status))  # not running: engine not available
        self.assertEqual(json.loads(status.stdout)["port"], port)

        commands = [["engine", "start"], ["engine", "status"], ["engine", "stop"], ["run"], ["agents"], ["sessions"],
                    ["chat"], ["events"], ["history"], ["calendar", "events"], ["calendar", "add-local"]]
        for command in commands:
            with self.subTest(command=command):
                proc = self.run_bare(*command, "--help")
                self.assertEqual(proc.returncode, 0, describe(proc))
                self.assertIn("Usage: tamsel %s" % " ".join(command), proc.stdout)
                self.assertRegex(proc.stdout, r"\nExample:\n  (\S+=\S+ )?(git diff \| )?tamsel ")
                self.assertIn("--engine-port PORT", proc.stdout.split("Global options")[1])

    def test_calendar_plain_dates_are_whole_local_days(self):
        # Berlin on the day summer time starts: the day runs from 23:00Z to 22:00Z.
        env = {"TZ": "Europe/Berlin"}
        self.assertEqual(self.run_bare("calendar", "add-local", "work", env=env).returncode, 0)
        folder = os.path.join(self.sb.app_dir, "calendars", "work")
        for uid, start in (("before", "20260328T223000Z"), ("first", "20260328T233000Z"),
                           ("last", "20260329T213000Z"), ("after", "20260329T223000Z")):
            with open(os.path.join(folder, uid + ".ics"), "w", encoding="utf-8") as f:
                f.write("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\nBEGIN:VEVENT\r\nUID:%s\r\n"
                        "DTSTAMP:20260301T000000Z\r\nDTSTART:%s\r\nDURATION:PT10M\r\nSUMMARY:%s\r\n"
                        "END:VEVENT\r\nEND:VCALENDAR\r\n" % (uid, start, uid))
        proc = self.run_bare("calendar", "events", "--from", "2026-03-29", "--to", "2026-03-29", "--json", env=env)
        self.assertEqual(proc.returncode, 0, describe(proc))
        self.assertEqual(sorted(e["title"] for e in json.loads(proc.stdout)["events"]), ["first", "last"])


class SupervisorTests(CliTestCase):
    """`tamsel run` works with the person: their stop holds, one supervisor, plain reasons to end."""

    def start_run(self, *args, env=None):
        proc = self.sb.popen("run", *args, env=env)
        out = LineReader(proc.stdout)
        self.assertIsNotNone(out.next_matching(lambda l: "Tamsel Engine is running" in l, 15), out.seen)
        return proc, out

    def stderr_of_children(self):
        with open(os.path.join(self.sb.root, "tamsel-stderr.log"), encoding="utf-8") as f:
            return f.read().splitlines()

    def test_engine_stop_under_run_stays_stopped(self):
        proc, out = self.start_run()
        engine = self.sb.pidfile_pid()
        stop = self.sb.run("engine", "stop")
        self.assertEqual((stop.returncode, stop.stdout), (0, "Tamsel Engine stopped\n"), describe(stop))
        self.assertEqual(proc.wait(timeout=15), 0)
        self.assertIn("tamsel: the engine was stopped on request (tamsel engine stop); not restarting it",
                      self.stderr_of_children())
        self.assertFalse(pid_alive(engine))
        self.assertEqual(len(self.sb.argv_entries()), 1, "the stopped engine was started again")
        self.assertEqual(self.sb.live_engines(), [])

    def test_run_ends_non_zero_after_the_crash_limit(self):
        # Five restarts, 5 s apart, then nothing more will happen: run must not wait forever.
        proc = self.sb.popen("run", engine_args="daemon --port {port} --crash-after 0.3")
        self.assertEqual(proc.wait(timeout=90), 1)
        self.assertIn("tamsel: Engine crashed 5 times, stopped restarting", self.stderr_of_children())
        self.assertEqual(len(self.sb.argv_entries()), 6)
        self.assertEqual(self.sb.live_engines(), [])

    def test_one_run_per_user(self):
        first, _ = self.start_run()
        second = self.sb.run("run", timeout=15)
        self.assertEqual(second.returncode, 1, describe(second))
        self.assertEqual(second.stderr, "tamsel: another `tamsel run` (PID %d) already supervises the engine; stop it "
                                        "first (Ctrl-C there)\n" % first.pid)
        self.assertEqual(second.stdout, "")
        self.assertIsNone(first.poll(), "the first supervisor ended")
        self.assertEqual(len(self.sb.argv_entries()), 1)

    def test_port_held_by_another_program(self):
        with socket.socket() as squatter:
            squatter.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            squatter.bind(("127.0.0.1", self.sb.port))
            squatter.listen(16)
            said = "tamsel: Port %d on 127.0.0.1 is in use by another program; stop it or choose another port " \
                   "(--engine-port)" % self.sb.port
            for command in (["engine", "start"], ["agents"], ["run"]):
                with self.subTest(command=command):
                    proc = self.sb.run(*command, timeout=60)
                    self.assertNotEqual(proc.returncode, 0, describe(proc))
                    self.assertIn(said, proc.stderr.splitlines(), describe(proc))
                    self.assertNotIn("is running", proc.stdout)
            self.assertEqual(self.sb.argv_entries(), [], "an engine was launched onto a taken port")

    def test_no_engine_found_says_where_it_looked(self):
        env = {"VERD_BINARY": os.path.join(self.sb.root, "no-such-verd")}
        for command in (["engine", "start"], ["run"]):
            with self.subTest(command=command):
                proc = self.sb.run(*command, env=env, timeout=30)
                self.assertEqual(proc.returncode, 3, describe(proc))
                lines = proc.stderr.splitlines()
                self.assertIn("tamsel: Engine not found — update Tamsel Desktop to reinstall", lines)
                self.assertIn("tamsel: looked for the engine in:", lines)
                looked = [l.strip() for l in lines if l.startswith("  /")]
                self.assertEqual(looked[0], env["VERD_BINARY"])
                self.assertIn(os.path.join(self.sb.home, ".local/bin/verd"), looked)
                self.assertIn("tamsel: VERD_BINARY names %s, which is not an executable file" % env["VERD_BINARY"],
                              lines)



class TimesAndTablesTests(CliTestCase):
    def setUp(self):
        super().setUp()
        self.sb.start_engine()

    def on_terminal(self, columns, *args, env=None):
        """Runs tamsel with stdout on a pseudo-terminal `columns` wide; returns what it showed."""
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        proc = subprocess.Popen(self.sb.command(args), env=self.sb.environment(env), stdin=subprocess.DEVNULL,
                                stdout=slave, stderr=subprocess.PIPE)
        os.close(slave)
        shown = b""
        while True:
            try:
                chunk = os.read(master, 65536)
            except OSError:  # the terminal closed with the process
                break
            if not chunk:
                break
            shown += chunk
        os.close(master)
        self.assertEqual(proc.wait(timeout=30), 0, proc.stderr.read())
        proc.stderr.close()
        return shown.decode().replace("\r\n", "\n")

    def test_sessions_show_local_times(self):
        listed = json.loads(self.sb.run("sessions", "--json").stdout)
        table = self.sb.run("sessions", env={"TZ": "Asia/Tokyo"})
        self.assertEqual(table.returncode, 0, describe(table))
        for session in listed:
            utc = datetime.datetime.fromisoformat(session["updated_at"].replace("Z", "+00:00"))
            local = (utc + datetime.timedelta(hours=9)).strftime("%Y-%m-%d %H:%M")
            [row] = [l for l in table.stdout.splitlines() if l.startswith(session["id"])]
            self.assertIn(local, row)

    def test_tables_fit_a_40_column_terminal(self):
        for command in (["sessions"], ["agents"]):
            with self.subTest(command=command):
                shown = self.on_terminal(40, *command)
                lines = shown.splitlines()
                self.assertTrue(lines, shown)
                self.assertLessEqual(max(len(l) for l in lines), 40, shown)
        shown = self.on_terminal(40, "sessions")
        # Nothing is lost: every session is there with its count.
        for session in json.loads(self.sb.run("sessions", "--json").stdout):
            self.assertIn(session["id"], shown.splitlines())
        self.assertIn("4 msgs", shown)
        # A wide terminal keeps the one-line table.
        wide = self.on_terminal(160, "sessions").splitlines()
        self.assertRegex(wide[0], r"^ID\s+UPDATED\s+MSGS\s+AGENT\s+TITLE$")
        self.assertEqual(len(wide), 6)



class HelpAndCompletionTests(CliTestCase):
    COMMANDS = ["engine", "engine start", "engine status", "engine stop", "run", "agents", "sessions", "chat",
                "events", "history", "calendar", "calendar permission", "calendar sources", "calendar events",
                "calendar add-local", "calendar add-caldav", "hotkey", "hotkey watch", "hotkey mode"]

    def generated(self, *args):
        proc = subprocess.run([TAMSEL, *args], capture_output=True, text=True, timeout=30)
        self.assertEqual(proc.returncode, 0, describe(proc))
        return proc.stdout

    def test_bash_completion_knows_commands_and_options(self):
        script = os.path.join(self.sb.root, "tamsel.bash")
        with open(script, "w", encoding="utf-8") as f:
            f.write(self.generated("completion", "bash"))
        cases = {"tamsel eng": {"engine"},
                 "tamsel engine s": {"start", "status", "stop"},
                 "tamsel calendar events --f": {"--from"},
                 "tamsel chat --dec": {"--decline-questions"},
                 "tamsel hotkey watch --s": {"--side"},
                 "tamsel --engine-port 7600 agents --engine-p": {"--engine-port"},  # global options anywhere
                 "tamsel comp": set()}  # hidden commands are not offered
        for line, expected in cases.items():
            with self.subTest(line=line):
                words = line.split(" ")
                program = 'source "$1"; COMP_WORDS=(%s); COMP_CWORD=%d; _tamsel; printf "%%s\\n" "${COMPREPLY[@]}"' % (
                    " ".join("'%s'" % w for w in words), len(words) - 1)
                proc = subprocess.run(["bash", "-c", program, "bash", script], capture_output=True, text=True,
                                      timeout=30)
                self.assertEqual(proc.returncode, 0, describe(proc))
                self.assertEqual(set(proc.stdout.split()), expected)

    def test_zsh_completion_and_man_page_cover_every_command(self):
        zsh = self.generated("completion", "zsh")
        self.assertTrue(zsh.startswith("#compdef tamsel\n"))
        page = self.generated("man")
        for command in self.COMMANDS:
            with self.subTest(command=command):
                self.assertTrue('.SS "tamsel %s"' % command.replace("-", "\\-") in page, command)
                self.assertIn('"%s/%s")' % tuple(command.rsplit(" ", 1)) if " " in command else '"/%s")' % command,
                              zsh)
        self.assertIn(".SH EXIT STATUS", page)
        # The page renders without a roff warning.
        proc = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z"], input=page, capture_output=True, text=True,
                              timeout=30)
        self.assertEqual((proc.returncode, proc.stderr), (0, ""))
        # The build installs what the program generates.
        built = os.path.join(os.path.dirname(TAMSEL), "tamsel.1")
        with open(built, encoding="utf-8") as f:
            self.assertEqual(f.read(), page)


if __name__ == "__main__":
    unittest.main()
