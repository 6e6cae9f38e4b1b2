#!/usr/bin/env python3
"""The JSON that commands print, against the schemas that the manual offers.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 tests/e2e/answers_test.py BUILD [TEST ...]
BUILD is the build directory; its package is installed. A cluster of the 200 series and a GaussDB T instance are
really backed up.
"""
import json
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
from t_world import CACHE, NAME, OTHER, ROOT, T_World  # noqa: E402

BUILD = sys.argv.pop(1)
CHECK = ROOT / "tests/support/check_answer"


def setUpModule():
    global world
    world = T_World(BUILD, 2)
    unittest.addModuleCleanup(world.stop)


class Answers_Test(unittest.TestCase):
    def answer(self, *words, status=0, stdin=""):
        """What a command prints; it has to be one document that its schema describes."""
        done = subprocess.run(["zenbrak3", *map(str, words), "--json"], input=stdin, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
        self.assertEqual(status, done.returncode, "%s: %s" % (words, done.stderr))
        checked = subprocess.run([CHECK, *map(str, words)], input=done.stdout, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True)
        self.assertEqual(0, checked.returncode, checked.stdout)
        return json.loads(done.stdout)

    def test_each_command(self):
        full = self.answer("backup", OTHER, "--pool", "main", "--interval", "0.05", "--name", "kept")["run_id"]
        made = self.answer("backup", OTHER, "--pool", "main", "--incremental", "--no-wait")["run_id"]
        run = self.answer("job", "wait", made)
        self.assertEqual("completed", run["state"], run)
        of_t = self.answer("backup", NAME, "--pool", "main", "-o", "cache_dir=%s" % CACHE)
        self.assertEqual("completed", of_t["state"], of_t)
        for words in (["info"], ["instances"], ["instances", "--refresh"], ["instance", "show", OTHER],
                      ["instance", "show", NAME], ["databases", OTHER], ["schemas", OTHER, "postgres"],
                      ["pools"], ["members"], ["backups"], ["backups", OTHER], ["backup", "show", full],
                      ["backup", "show", made], ["backup", "show", of_t["run_id"]], ["jobs"],
                      ["jobs", "--state", "error"], ["job", "show", made], ["job", "log", made],
                      ["definitions"], ["audit"]):
            self.answer(*words)
        self.assertEqual([full], self.answer("backup", "show", made)["depends"])
        self.assertEqual([made], self.answer("backup", "show", full)["needed_by"])
        self.answer("check", OTHER, "--pool", "main")
        name = self.answer("definitions")["definitions"][0]["name"]
        definition = self.answer("definition", "show", name)
        for key in [key for key in definition if key in ("state", "last_run", "next_run") or definition[key] is None]:
            definition.pop(key)
        with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
            json.dump(definition, file)
            file.flush()
            self.answer("definition", "save", file.name)

    def test_schedules(self):
        self.answer("schedule", "add", OTHER, "--pool", "main", "--full", "Sun 02:00", "--incremental", "hourly",
                    "--rate", "200M")
        for words in (["list"], ["list", OTHER], ["show", OTHER], ["pause", OTHER], ["list"], ["resume", OTHER],
                      ["update", OTHER, "--incremental", "none"], ["run-now", OTHER]):
            self.answer("schedule", *words)
        self.answer("schedule", "add", OTHER, "--pool", "main", "--full", "Sun 02:00", status=5)
        self.answer("schedule", "remove", OTHER)
        self.answer("schedule", "show", OTHER, status=4)

    def test_changes(self):
        with tempfile.TemporaryDirectory(dir="/srv") as directory:
            self.answer("pool", "create", "second", directory)
            self.answer("pool", "update", "second", "--limit", "1GiB")
            self.answer("pool", "remove", "second", "--yes")
        self.answer("account", OTHER, "backup", stdin="Backup@123\n")
        run = self.answer("backup", OTHER, "--pool", "main", "--no-wait")["run_id"]
        self.answer("job", "cancel", run, "--now")
        self.answer("job", "wait", run, status=6)
        made = self.answer("backup", OTHER, "--pool", "main", "--interval", "0.05", "--name", "kept")["run_id"]
        self.answer("backup", "remove", made, "--with-dependents", "--yes")

    def test_failures(self):
        for words, status in ((["instance", "show", "nobody"], 4), (["backups", "--pool", "nowhere"], 4),
                              (["job", "show", "ffffffff"], 4), (["dance"], 2), (["jobs", "--limit", "-1"], 2),
                              (["pool", "remove", "main"], 5), (["--socket", "/nowhere", "info"], 3)):
            error = self.answer(*words, status=status)["error"]
            self.assertEqual(status, error["code"])
        failed = self.answer("backup", NAME, "--pool", "main", "-o", "cache_dir=/nowhere/at/all", status=1)
        self.assertEqual("error", failed["state"])
        shown = self.answer("job", "show", failed["run_id"])
        self.assertEqual([7], [alert["level"] for alert in shown["alert_list"]])

    def test_each_command_has_a_schema(self):
        commands = subprocess.check_output(["zenbrak3", "complete", "commands"], text=True).splitlines()
        known = json.loads((ROOT / "docs/schema/answers.json").read_text())["$defs"]
        self.assertEqual(sorted(commands), sorted(known))

    def test_the_check_refuses_what_is_wrong(self):
        for text in ("", "{}", "{} {}", '{"error": {"code": 0, "message": "", "hint": null}}', '{"jobs": [{}]}',
                     '{"text": "", "finished": true, "more": 1}'):
            for words in (["job", "log"], ["jobs"], ["dance"]):
                self.assertNotEqual(0, subprocess.run([CHECK, *words], input=text, stdout=subprocess.DEVNULL,
                                                      stderr=subprocess.DEVNULL, text=True).returncode, text)

    def test_each_line_of_the_progress(self):
        done = subprocess.run(["zenbrak3", "backup", OTHER, "--pool", "main", "--progress", "json", "--interval",
                               "0.01"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        lines = [line for line in done.stdout.splitlines() if line.startswith("{")]
        self.assertGreater(len(lines), 1)
        for line in lines:
            checked = subprocess.run([CHECK, "job", "wait"], input=line, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, text=True)
            self.assertEqual(0, checked.returncode, checked.stdout)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
