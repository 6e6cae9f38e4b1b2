#!/usr/bin/env python3
"""Limits and scripts of jobs: the pages' own examples, and what the pages say of them.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 PATH/scripts_test.py BUILD
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from page_steps import ROOT, chapter, commands  # noqa: E402
from sandbox_test import cluster, wait_until  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from protection import tell  # noqa: E402

BUILD = sys.argv.pop(1)
VETO = pathlib.Path("/run/no-backup")  # as the pages have it
BACKUP = ["zenbrak3", "backup", "prod", "--pool", "main", "--progress", "none"]


def run(words, status=0, **options):
    """Its output."""
    done = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **options)
    assert done.returncode == status, "%s: status %d: %s" % (words, done.returncode, done.stdout)
    return done.stdout


def newest_run():
    return tell("jobs", "--limit", "1")["jobs"][0]


def log_of(job):
    return run(["zenbrak3", "job", "log", job["run_id"]])


class Scripts_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cluster("create", "--name", "prod", "--no-fsync")
        protection.install(BUILD)
        cls.agent = protection.start_agent()
        run(["zenbrak3", "instances", "--refresh"])
        protection.save_account("prod")
        protection.make_pool_directory(protection.POOL)
        run(["zenbrak3", "pool", "create", "main", protection.POOL])

    @classmethod
    def tearDownClass(cls):
        cls.agent.terminate()
        cls.agent.wait()

    def test_the_commands_of_the_page(self):
        done = commands(chapter("docs/operations.md", "## Limits and scripts"))
        self.assertEqual(4, len(done))
        definitions = []
        for number, command in enumerate(done):
            run(["bash", "-c", "%s --name 'example %d'" % (command.strip(), number)])
            job = newest_run()
            self.assertEqual("completed", job["state"], command)
            definitions.append(tell("definition", "show", job["definition"]))
        self.assertEqual("08:00-18:00=52428800;209715200", definitions[0]["rate_limits"]["dest_rate_limits"])
        VETO.touch()
        self.addCleanup(VETO.unlink)
        self.assertIn("precondition", run(["bash", "-c", done[1]], status=1))
        job = newest_run()
        self.assertEqual(("skipped", "Its precondition was not met"), (job["state"], job["message"]))
        self.assertFalse(os.path.exists("/run/quiet"), "the post-action has not been run")

    def test_the_definition_of_the_page(self):
        section = chapter("docs/job-definitions.md", "## Limits and scripts")
        definition = json.loads(re.search(r"```json\n(.*?)```", section, re.S).group(1))
        self.assertEqual(set(definition) - {"name", "type", "subtype", "target", "source", "options"},
                         set(re.findall(r"^\| `(\w+)`", section, re.M)))
        definition["source"].update(id=tell("instance", "show", "prod")["uuid"], name="prod",
                                    entries=["gaussdb/prod"])
        file = pathlib.Path("/mnt/careful.json")
        file.write_text(json.dumps(definition))
        run(["zenbrak3", "run", file, "--progress", "none"])
        self.assertEqual("completed", newest_run()["state"])
        self.assertFalse(os.path.exists("/run/backup-began"))
        kept = tell("definition", "show", definition["name"])
        for key in re.findall(r"^\| `(\w+)`", section, re.M):
            self.assertEqual(definition[key], kept[key], key)

    def test_scripts_run_as_root_in_the_root_directory_and_are_logged(self):
        run([*BACKUP, "--name", "identity", "--precondition", "echo not for the log",
             "--pre-action", "echo \"begins: $(id -u) $(pwd) $LC_ALL\"", "--post-action",
             "echo ends; runuser -l omm -c 'echo \"as $(id -un), $GAUSSHOME\"'"])
        log = log_of(newest_run())
        self.assertIn("as omm, /home/omm/app\n", log, "a login by PAM, under the unit's restrictions")
        self.assertIn("begins: 0 / C\n", log)
        self.assertIn("ends\n", log)
        self.assertLess(log.index("begins: 0"), log.index("ends\n"))
        self.assertNotIn("not for the log", log)

    def test_what_a_failed_script_does_to_the_run(self):
        trace = pathlib.Path("/mnt/trace")
        after = ["--post-action", "echo after >>%s" % trace]
        for words, state, traced in (
                (["--pre-action", "false", *after], "error", ""),
                (["--pre-action", "false", "--run-post-action-always", *after], "error", "after\n"),
                (["--pre-action", "false", "--ignore-pre-action-failure", *after], "completed", "after\n"),
                (["--post-action", "false"], "error", ""),
                (["--post-action", "false", "--ignore-post-action-failure"], "completed", "")):
            trace.write_text("")
            sets = len(tell("backups")["backups"])
            run([*BACKUP, "--name", "failing", *words], status=0 if state == "completed" else 1)
            self.assertEqual(state, newest_run()["state"], words)
            self.assertEqual(traced, trace.read_text(), words)
            if words[:2] == ["--pre-action", "false"] and state == "error":
                self.assertEqual(sets, len(tell("backups")["backups"]), "it went on")

    def test_a_script_that_hangs_ends_with_the_run(self):
        run([*BACKUP[:-2], "--name", "hanging", "--no-wait", "--pre-action", "echo $$ >/mnt/hanging; sleep 3599"])
        script = pathlib.Path("/mnt/hanging")
        wait_until(lambda: script.exists() and script.read_text().endswith("\n"))
        job = newest_run()
        run(["zenbrak3", "job", "cancel", job["run_id"], "--now"])
        wait_until(lambda: newest_run()["end_time"])
        self.assertEqual("canceled", newest_run()["state"])
        self.assertFalse(os.path.exists("/proc/" + script.read_text().strip()))


if __name__ == "__main__":
    unittest.main(verbosity=2)
