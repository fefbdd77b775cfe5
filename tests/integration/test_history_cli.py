#!/usr/bin/env python3
"""`tamsel history` against fixture engine homes: no engine needed, the files are the truth."""
import json
import os
import shutil
import subprocess
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TAMSEL = os.environ.get("TAMSEL_BIN", os.path.join(ROOT, "build", "apps", "tamsel", "tamsel"))
FIXTURES = os.path.join(ROOT, "tests", "fixtures", "verdane")


class HistoryCommand(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="tamsel-history-")
        self.env = {"HOME": self.home, "PATH": "/usr/bin:/bin", "TMPDIR": self.home,
                    "XDG_DATA_HOME": os.path.join(self.home, "data")}

    def tearDown(self):
        shutil.rmtree(self.home, ignore_errors=True)

    def history(self, *args, home=FIXTURES):
        return subprocess.run([TAMSEL, "--engine-home", home, "history", *args], env=self.env,
                              capture_output=True, text=True, timeout=30)

    def test_json_has_exactly_the_documented_keys_and_folds_runs(self):
        proc = self.history("s_release", "--json")
        self.assertEqual(proc.returncode, 0, proc.stderr)
        messages = json.loads(proc.stdout)
        for m in messages:
            self.assertEqual(set(m), {"role", "content", "timestamp", "rawIndex", "rawIndexEnd", "attachments",
                                      "conversationAnnotations", "toolBlock"})
        self.assertEqual([(m["role"], m["rawIndex"], m["rawIndexEnd"]) for m in messages],
                         [("user", 0, 0), ("assistant", 1, 5), ("user", 7, 7), ("assistant", 9, 9),
                          ("user", 10, 10), ("assistant", 11, 11)])
        block = messages[1]["toolBlock"]
        self.assertEqual(block["id"], "session-toolblock-0")
        self.assertEqual([t["name"] for t in block["tools"]], ["bash", "file_read", "bash"])
        self.assertEqual(messages[0]["timestamp"], "2026-11-20T09:12:40.120Z")
        self.assertIsNone(messages[3]["timestamp"])

    def image_path(self, env=None):
        saved = self.env
        self.env = dict(saved, **(env or {}))
        try:
            proc = self.history("s_sources", "--json")
        finally:
            self.env = saved
        self.assertEqual(proc.returncode, 0, proc.stderr)
        attachments = json.loads(proc.stdout)[0]["attachments"]
        kinds = [a["kind"] for a in attachments]
        if kinds == ["fileRef", "fileRef"]:
            return None, proc.stderr  # the image could not be written: only it is left out
        self.assertEqual(kinds, ["image", "fileRef", "fileRef"])
        return attachments[0]["filePath"], proc.stderr

    def test_images_land_in_a_private_folder_and_are_reused(self):
        own = os.path.join(self.home, "tamsel-%d" % os.geteuid())
        image, _ = self.image_path()
        self.assertEqual(os.path.dirname(image), os.path.join(own, "quenlo-images"))
        with open(image, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")
        self.assertEqual(os.stat(image).st_mode & 0o777, 0o600)
        for folder in (own, os.path.dirname(image)):
            self.assertEqual(os.stat(folder).st_mode & 0o777, 0o700, folder)
        # The same image viewed again is the same file, not a new copy.
        again, _ = self.image_path()
        self.assertEqual(again, image)
        self.assertEqual(os.listdir(os.path.dirname(image)), [os.path.basename(image)])

        # An image left from more than a day ago goes when the folder is next opened.
        stale = os.path.join(os.path.dirname(image), "OLD.png")
        with open(stale, "wb") as f:
            f.write(b"old")
        os.utime(stale, (time.time() - 2 * 86400,) * 2)
        self.image_path()
        self.assertFalse(os.path.exists(stale))

        # $XDG_RUNTIME_DIR, when set, is the user's own folder.
        runtime = os.path.join(self.home, "runtime")
        os.mkdir(runtime, 0o700)
        image, _ = self.image_path({"XDG_RUNTIME_DIR": runtime})
        self.assertEqual(os.path.dirname(image), os.path.join(runtime, "quenlo-images"))

    def test_a_planted_folder_is_refused(self):
        # Another user's trick: the predictable folder is a symlink to somewhere else.
        target = os.path.join(self.home, "target")
        os.mkdir(target)
        runtime = os.path.join(self.home, "runtime")
        os.mkdir(runtime, 0o700)
        os.symlink(target, os.path.join(runtime, "quenlo-images"))
        image, err = self.image_path({"XDG_RUNTIME_DIR": runtime})
        self.assertIsNone(image)
        self.assertEqual(os.listdir(target), [], "an image was written through the symlink")
        self.assertIn("refusing to use %s: it is not a real directory" % os.path.join(runtime, "quenlo-images"),
                      err)

    def test_human_output_shows_tools_attachments_and_deliverables(self):
        proc = self.history("s_sources", "--agent", "researcher")
        self.assertEqual(proc.returncode, 0, proc.stderr)
        out = proc.stdout
        self.assertIn("Session s_sources — Sources for the soil pH article", out)
        self.assertIn("[tool] web_search: soil pH measurement field methods peer reviewed (completed)", out)
        self.assertIn("[file] soil-draft.md (5120 bytes) /home/dev/docs/soil-draft.md", out)
        self.assertIn("Delivered files:", out)
        self.assertIn("Three sources on soil pH  /home/dev/out/sources.md", out)
        self.assertNotIn("[Attached files]", out)

    def test_human_output_shows_local_times(self):
        # 09:12:40Z is 18:12 in Tokyo.
        self.env["TZ"] = "Asia/Tokyo"
        proc = self.history("s_release")
        self.assertEqual(proc.returncode, 0, proc.stderr)
        self.assertRegex(proc.stdout, r"\nYou  2026-11-20 18:12  \[0\]\n")

    def test_missing_sessions_say_so(self):
        for args in (("s_builtin",), ("s_release", "--agent", "researcher"), ("nope",)):
            with self.subTest(args=args):
                proc = self.history(*args)
                self.assertNotEqual(proc.returncode, 0)
                self.assertIn("not found", proc.stderr)
                self.assertEqual(proc.stdout, "")
        proc = self.history("s_dup", home=os.path.join(self.home, "no-engine-home"))
        self.assertNotEqual(proc.returncode, 0)

    def test_a_file_that_does_not_decode_is_an_empty_history(self):
        proc = self.history("s_broken", "--json")
        self.assertEqual((proc.returncode, proc.stdout.strip()), (0, "[]"))


if __name__ == "__main__":
    unittest.main()
