#!/usr/bin/env python3
"""The calendar methods end to end: `tamsel run` serving the engine simulator's calendar
requests over the desktop RPC channel from the local vdir calendars, the grant set with
`tamsel calendar permission`, change events, and (where khal is installed) khal reading and
writing the same calendars.

Run: python3 tests/integration/test_calendar_cli.py
Env: TAMSEL_BIN (the binary), VERD_SIM (the simulator).
"""

import json
import os
import shutil
import signal
import subprocess
import time
import unittest
import urllib.error
import urllib.request

from test_cli import LineReader, Sandbox, describe, read_json_lines

# The wording lives in one place in the code; the engine must receive it whole.
SCOPE_ALL_REFUSAL = ("Invalid argument for `scope`: update_event does not accept scope=\"all\"; use \"this\" or "
                     "\"this_and_future\". To replace an entire series, call delete_event(scope=all) followed by "
                     "create_event.")


class CalendarOverRPC(unittest.TestCase):
    def setUp(self):
        self.sb = Sandbox(self)
        # A zone with a DST change inside the test's month.
        self.sb.env["TZ"] = "Europe/Berlin"
        self.rpc_record = os.path.join(self.sb.root, "rpc.jsonl")

    def start_desktop(self):
        proc = self.sb.popen("run", "--json", engine_args="daemon --port {port} --rpc-record %s" % self.rpc_record)
        out = LineReader(proc.stdout)
        hit = out.next_matching(lambda l: json.loads(l)["rpc_channel"] == "online", 20)
        self.assertIsNotNone(hit, out.seen)
        with open(self.sb.token_file, encoding="utf-8") as f:
            self.token = f.read()
        return proc

    def rpc(self, method, params=None):
        """The desktop's result payload for one request the engine sends."""
        body = json.dumps({"method": method, "params": params or {}, "timeout_seconds": 10}).encode()
        request = urllib.request.Request("http://127.0.0.1:%d/debug/rpc-request" % self.sb.port, data=body,
                                         headers={"X-Tamsel-Local-Presence": self.token,
                                                  "Content-Type": "application/json"})
        # The desktop reports itself online a moment before the engine side has taken its
        # announcement; a request in that moment is refused with 409 and is simply retried.
        deadline = time.monotonic() + 5
        while True:
            try:
                with urllib.request.urlopen(request, timeout=15) as response:
                    return json.loads(response.read())["result"]
            except urllib.error.HTTPError as e:
                if e.code != 409 or time.monotonic() > deadline:
                    raise
                time.sleep(0.1)

    def ok(self, method, params=None):
        answer = self.rpc(method, params)
        self.assertTrue(answer["ok"], answer)
        return answer["result"]

    def error(self, method, params=None):
        answer = self.rpc(method, params)
        self.assertFalse(answer["ok"], answer)
        return answer["error"]

    def desktop_events(self, name):
        return [r["frame"]["payload"] for r in read_json_lines(self.rpc_record)
                if r.get("frame", {}).get("type") == "desktop_event" and r["frame"]["payload"]["event"] == name]

    def wait_for_event(self, name, count=1, timeout=8):
        deadline = time.monotonic() + timeout
        while len(self.desktop_events(name)) < count and time.monotonic() < deadline:
            time.sleep(0.1)
        return self.desktop_events(name)

    def titles(self, start, end):
        events = self.ok("calendar.list_events", {"start": start, "end": end})["events"]
        return [(e["title"], e["start"]) for e in events]

    def test_engine_reads_and_writes_the_local_calendar_within_the_grant(self):
        proc = self.start_desktop()
        march = {"start": "2026-03-01T00:00:00+01:00", "end": "2026-04-01T00:00:00+02:00"}

        # No grant yet, and nobody at a terminal to ask.
        self.assertEqual(self.error("calendar.list_events", march)["code"], "calendar_permission_not_determined")
        self.assertEqual(self.ok("calendar.request_permission")["status"], "not_determined")
        denied = self.sb.run("calendar", "permission", "deny")
        self.assertEqual(denied.returncode, 0, describe(denied))
        error = self.error("calendar.list_sources")
        self.assertEqual(error["code"], "calendar_permission_denied")
        self.assertEqual(error["message"],
                         "Calendar access denied; user must grant full access in Tamsel Desktop settings.")
        changed = self.wait_for_event("calendar_permission_changed")
        self.assertEqual(changed[0]["data"], {"status": "denied"})
        self.assertEqual(self.sb.run("calendar", "permission", "grant").returncode, 0)
        self.assertEqual(self.wait_for_event("calendar_permission_changed", 2)[1]["data"], {"status": "granted"})

        sources = self.ok("calendar.list_sources")["sources"]
        self.assertEqual(sources, [{"id": "local:personal", "title": "Personal", "account_type": "local",
                                    "color_hex": "#3A87AD", "writable": True, "default_for_new_events": True}])

        # Bad input is refused and changes nothing.
        error = self.error("calendar.list_events", {"start": "2026-01-01T10:00:00", "end": march["end"]})
        self.assertEqual((error["code"], error["details"]), ("invalid_argument", {"field": "start"}))
        self.assertEqual(error["message"], "Invalid argument for `start`: expected RFC 3339 with zone offset")

        created = self.ok("calendar.create_event", {
            "title": "Standup", "start": "2026-03-02T09:00:00+01:00", "end": "2026-03-02T09:15:00+01:00",
            "location": "Room 1", "alarms": [{"minutes_before": 5}],
            "recurrence_rule": {"frequency": "weekly", "by_day": ["MO"]}})
        self.assertEqual(set(created), {"id", "pending_remote_sync", "invitations_sent"})
        self.assertEqual((created["pending_remote_sync"], created["invitations_sent"]), (False, False))
        listed = self.ok("calendar.list_events", march)
        self.assertFalse(listed["truncated"])
        self.assertEqual([e["start"] for e in listed["events"]],
                         ["2026-03-02T09:00:00+01:00", "2026-03-09T09:00:00+01:00", "2026-03-16T09:00:00+01:00",
                          "2026-03-23T09:00:00+01:00", "2026-03-30T09:00:00+02:00"])
        first = listed["events"][0]
        self.assertEqual(first["recurrence_rule"]["raw_rrule"], "FREQ=WEEKLY;BYDAY=MO")
        self.assertEqual((first["series_master_id"], first["is_recurring_instance"]), (created["id"], True))
        self.assertEqual(first["alarms"], [{"minutes_before": 5}])
        self.assertEqual(self.ok("calendar.get_event", {"id": first["id"]})["title"], "Standup")

        error = self.error("calendar.update_event", {"id": first["id"], "scope": "all", "patch": {"title": "x"}})
        self.assertEqual(error["message"], SCOPE_ALL_REFUSAL)

        second = listed["events"][1]["id"]
        self.ok("calendar.update_event", {"id": second, "scope": "this", "patch": {"title": "Standup (short)"}})
        third = listed["events"][2]["id"]
        split = self.ok("calendar.update_event", {"id": third, "scope": "this_and_future",
                                                  "patch": {"start": "2026-03-16T10:00:00+01:00"}})
        self.assertEqual(self.titles(march["start"], march["end"]), [
            ("Standup", "2026-03-02T09:00:00+01:00"), ("Standup (short)", "2026-03-09T09:00:00+01:00"),
            ("Standup", "2026-03-16T10:00:00+01:00"), ("Standup", "2026-03-23T10:00:00+01:00"),
            ("Standup", "2026-03-30T10:00:00+02:00")])

        # The person sees the same calendar from the command line.
        mine = self.sb.run("calendar", "events", "--from", march["start"], "--to", march["end"], "--json")
        self.assertEqual(mine.returncode, 0, describe(mine))
        self.assertEqual([e["start"] for e in json.loads(mine.stdout)["events"]],
                         [s for _, s in self.titles(march["start"], march["end"])])

        deleted = self.ok("calendar.delete_event", {"id": split["id"], "scope": "all"})
        self.assertEqual(deleted, {"ok": True, "pending_remote_sync": False})
        self.assertEqual(len(self.titles(march["start"], march["end"])), 2)
        self.ok("calendar.delete_event", {"id": created["id"], "scope": "all"})
        self.assertEqual(self.titles(march["start"], march["end"]), [])
        self.assertEqual(self.error("calendar.get_event", {"id": created["id"]})["code"], "not_found")
        self.assertGreaterEqual(len(self.wait_for_event("calendar_data_changed")), 1)

        proc.send_signal(signal.SIGTERM)
        self.assertEqual(proc.wait(timeout=15), 0)

    def test_read_only_calendar_is_refused(self):
        self.assertEqual(self.sb.run("calendar", "permission", "grant").returncode, 0)
        feeds = os.path.join(self.sb.app_dir, "calendars", "holidays")
        os.makedirs(feeds)
        for name, text in (("displayname", "Holidays"), ("readonly", "")):
            with open(os.path.join(feeds, name), "w") as f:
                f.write(text)
        self.start_desktop()
        error = self.error("calendar.create_event", {"calendar_id": "local:holidays", "title": "x",
                                                     "start": "2026-05-01T00:00:00Z", "end": "2026-05-01T01:00:00Z"})
        self.assertEqual((error["code"], error["message"]),
                         ("read_only_calendar", "Calendar Holidays is read-only (subscription / birthdays / feed)."))
        self.assertEqual([f for f in os.listdir(feeds) if f.endswith(".ics")], [])


@unittest.skipUnless(shutil.which("khal"), "khal is not installed")
class KhalReadsAndWritesTheSameCalendars(unittest.TestCase):
    def setUp(self):
        self.sb = Sandbox(self)
        self.sb.env["TZ"] = "Europe/Berlin"
        root = os.path.join(self.sb.app_dir, "calendars")
        self.khal_config = os.path.join(self.sb.root, "khal.conf")
        with open(self.khal_config, "w") as f:
            f.write("[calendars]\n[[local]]\npath = %s/*\ntype = discover\n"
                    "[locale]\nlocal_timezone = Europe/Berlin\ndefault_timezone = Europe/Berlin\n"
                    "timeformat = %%H:%%M\ndateformat = %%Y-%%m-%%d\nlongdateformat = %%Y-%%m-%%d\n"
                    "datetimeformat = %%Y-%%m-%%d %%H:%%M\nlongdatetimeformat = %%Y-%%m-%%d %%H:%%M\n"
                    "[default]\ndefault_calendar = Personal\n" % root)

    def khal(self, *args):
        env = self.sb.environment({"XDG_DATA_HOME": os.path.join(self.sb.root, "khal-data")})
        proc = subprocess.run(["khal", "-c", self.khal_config] + list(args), env=env, capture_output=True,
                              text=True, timeout=60, stdin=subprocess.DEVNULL)
        self.assertEqual(proc.returncode, 0, describe(proc))
        return proc.stdout

    def stored_files(self):
        folder = os.path.join(self.sb.app_dir, "calendars", "personal")
        texts = []
        for name in sorted(os.listdir(folder)):
            if name.endswith(".ics"):
                with open(os.path.join(folder, name), encoding="utf-8") as f:
                    texts.append(f.read())
        return "\n".join(texts)

    def test_same_events_both_ways(self):
        sb = self.sb
        self.assertEqual(sb.run("calendar", "permission", "grant").returncode, 0)
        proc = sb.popen("run", "--json")
        out = LineReader(proc.stdout)
        self.assertIsNotNone(out.next_matching(lambda l: json.loads(l)["rpc_channel"] == "online", 20), out.seen)
        rpc = CalendarOverRPC.rpc.__get__(self)
        with open(sb.token_file, encoding="utf-8") as f:
            self.token = f.read()

        answer = rpc("calendar.create_event", {"title": "Dentist", "start": "2026-03-30T14:00:00+02:00",
                                               "end": "2026-03-30T15:00:00+02:00"})
        self.assertTrue(answer["ok"], answer)
        answer = rpc("calendar.create_event", {"title": "Holiday", "all_day": True, "start": "2026-03-28T00:00:00+01:00",
                                               "end": "2026-03-29T00:00:00+01:00"})
        self.assertTrue(answer["ok"], answer)
        listing = self.khal("list", "--format", "{start} {end} {title}", "2026-03-27", "2026-04-02")
        self.assertIn("2026-03-30 14:00 2026-03-30 15:00 Dentist", listing, self.stored_files())
        self.assertIn("2026-03-28 2026-03-28 Holiday", listing)

        self.khal("new", "-a", "Personal", "2026-03-31", "08:30", "09:00", "Dentist follow-up")
        answer = rpc("calendar.list_events", {"start": "2026-03-31T00:00:00+02:00", "end": "2026-04-01T00:00:00+02:00"})
        self.assertTrue(answer["ok"], answer)
        self.assertEqual([(e["title"], e["start"], e["end"]) for e in answer["result"]["events"]],
                         [("Dentist follow-up", "2026-03-31T08:30:00+02:00", "2026-03-31T09:00:00+02:00")])


if __name__ == "__main__":
    unittest.main()
