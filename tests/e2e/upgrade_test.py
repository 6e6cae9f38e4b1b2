#!/usr/bin/env python3
"""The package on a host that has used an older release: upgraded, used, and not downgraded.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 PATH/upgrade_test.py BUILD

What the older release left is real: tests/data/upgrade/record made tests/data/upgrade/0.1.0.tar.xz with its package.
Its programs are not: the package that is upgraded has the present programs under the number 0.1.0, since building the
old ones would take longer than all other tests. A newer database is one whose number was raised. No systemd runs
here, so the service is started by hand where the package would start it.
"""
import json
import os
import pathlib
import sqlite3
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from page_steps import ROOT, chapter, commands  # noqa: E402
from sandbox_test import cluster  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from protection import ask, tell  # noqa: E402

BUILD = sys.argv.pop(1)
OLD = "0.1.0"
STATE = ROOT / ("tests/data/upgrade/%s.tar.xz" % OLD)
DATABASE = "/var/lib/zenbrak3/agent.db"
CONFIGURATION = pathlib.Path("/etc/zenbrak3/agent.toml")
MINE = "\n[agent]\nkept_runs = 50\n"
COPY = "/root/agent-before.db"  # as the page has it


def package(*version):
    return ask(os.path.join(ROOT, "sandbox/make_package"), BUILD, *version).strip()


def installed():
    return ask("dpkg-query", "-W", "-f", "${Status} ${Version}", "zenbrak3")


def database_version():
    with sqlite3.connect("file:%s?mode=ro" % DATABASE, uri=True) as database:
        return database.execute("pragma user_version").fetchone()[0]


class Upgrade_Test(unittest.TestCase):
    """The tests go on with the host that the one before has left, in the order of their names."""
    agent = None

    @classmethod
    def setUpClass(cls):
        cluster("create", "--name", "c1", "--no-fsync")
        cls.old, cls.new = package(OLD), package()
        ask("dpkg", "--install", cls.old)
        ask("tar", "-xJf", STATE, "--numeric-owner", "-p", "-C", "/")
        cls.expected = json.loads(pathlib.Path("/expected.json").read_text())
        os.unlink("/expected.json")
        with CONFIGURATION.open("a") as file:
            file.write(MINE)

    @classmethod
    def tearDownClass(cls):
        cls.stop()

    @classmethod
    def start(cls):
        Upgrade_Test.agent = protection.start_agent()

    @classmethod
    def stop(cls):
        if Upgrade_Test.agent:
            Upgrade_Test.agent.terminate()
            Upgrade_Test.agent.wait()
            Upgrade_Test.agent = None

    def test_1_everything_is_there_after_the_upgrade(self):
        self.assertEqual(OLD, self.expected["version"])
        self.assertEqual("install ok installed " + OLD, installed())
        before = database_version()
        ask("dpkg", "--install", self.new)
        new = ask("dpkg-deb", "-f", self.new, "Version").strip()
        self.assertNotEqual(OLD, new)
        self.assertEqual("install ok installed " + new, installed())
        self.assertTrue(CONFIGURATION.read_text().endswith(MINE))
        self.start()
        self.assertEqual(new, tell("info")["version"])
        self.assertGreaterEqual(database_version(), before)
        self.assertEqual(int(ask("zenbrak3-agent", "--database-version")), database_version())
        for key, found in (("backups", tell("backups")["backups"]), ("jobs", tell("jobs")["jobs"])):
            kept = [{name: one[name] for name in self.expected[key][0]} for one in found]
            self.assertEqual(self.expected[key], kept)
        self.assertEqual(self.expected["definitions"],
                         sorted(one["name"] for one in tell("definitions")["definitions"]))
        self.assertEqual(self.expected["accounts"], tell("instance", "show", "c1")["accounts"])
        failed = next(one for one in self.expected["jobs"] if one["state"] == "error")
        self.assertIn("no room", ask("zenbrak3", "job", "log", failed["run_id"]))

    def test_2_an_old_backup_is_restored_with_every_row(self):
        ask("zenbrak3", "instances", "--refresh")
        self.assertNotEqual(self.expected["rows"], cluster("checksums").splitlines())
        newest = self.expected["backups"][0]
        self.assertEqual("incremental", newest["type"])
        ask("zenbrak3", "restore", newest["uuid"], "--yes")
        self.assertEqual(self.expected["rows"], cluster("checksums").splitlines())

    def test_3_the_kept_password_and_definitions_work(self):
        self.assertIn("postgres", ask("zenbrak3", "databases", "c1"))
        ask("zenbrak3", "definition", "start", "nightly")
        ask("zenbrak3", "backup", "c1", "--pool", "main", "--incremental")
        sets = tell("backups", "c1")["backups"]
        self.assertEqual(len(self.expected["backups"]) + 2, len(sets))
        self.assertEqual(sets[1]["backup_key"], sets[0]["prior_backup_key"])

    def test_4_an_older_package_is_refused_if_the_database_is_newer(self):
        known = int(ask("zenbrak3-agent", "--database-version"))
        subprocess.check_call(commands(chapter("docs/administration.md", "## Upgrading"))[1], shell=True)
        # the agent runs, as in an upgrade
        with sqlite3.connect(DATABASE) as database:
            database.execute("pragma user_version = %d" % (known + 1))
            database.execute("pragma wal_checkpoint(truncate)")
        before = installed()
        done = subprocess.run(["dpkg", "--install", self.old], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True)
        self.assertNotEqual(0, done.returncode)
        self.assertIn("has version %d, and this agent knows versions up to %d. Nothing was changed" %
                      (known + 1, known), done.stdout)
        self.assertEqual(before, installed())
        tell("info")

    def test_5_an_older_agent_does_not_touch_a_newer_database(self):
        self.stop()
        before = pathlib.Path(DATABASE).read_bytes()
        with self.assertRaises(protection.Failure):
            protection.start_agent()
        log = pathlib.Path(protection.AGENT_LOG).read_text()
        self.assertIn("install the version of the agent that wrote it, or a newer one", log)
        self.assertEqual(before, pathlib.Path(DATABASE).read_bytes())

    def test_6_the_copy_from_before_the_upgrade_brings_it_back(self):
        back = commands(chapter("docs/administration.md", "## Upgrading"))[-3:]
        self.assertEqual("systemctl stop zenbrak3-agent", back[0])  # which the test before has done
        for command in back[1:]:
            subprocess.check_call(command, shell=True)
        ask("dpkg", "--install", self.old)
        self.assertEqual("install ok installed " + OLD, installed())
        self.start()
        self.assertEqual(len(self.expected["backups"]) + 2, len(tell("backups")["backups"]))


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
