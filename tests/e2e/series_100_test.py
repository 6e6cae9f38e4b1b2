#!/usr/bin/env python3
"""A cluster of the 100 series, backed up, lost and restored through the agent.

Run in a machine of the sandbox: sandbox/machine run python3 PATH/series_100_test.py BUILD
"""
import json
import pathlib
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from sandbox_test import HOME, ROOT, cluster, roach_processes  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402

BUILD = sys.argv.pop(1)
CACHE = pathlib.Path("/var/cache/quilmot/zenbrak3/gaussdb")


def zenbrak3(*words, **options):
    done = subprocess.run(["zenbrak3", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, **options)
    if done.returncode:
        raise AssertionError("zenbrak3 %s: %s" % (words, done.stdout))
    return done.stdout


class Series_100_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cluster("create", "--series", 100, "--nodes", 2, "--no-fsync")
        cluster("fill", 8)
        protection.install(BUILD)
        cls.agent = protection.start_agent()
        zenbrak3("instances", "--refresh")
        zenbrak3("account", "c1", "backup", input="Backup@123\n")
        subprocess.check_call(["mkdir", "-p", "/srv/pool"])
        zenbrak3("pool", "create", "main", "file:///srv/pool")

    @classmethod
    def tearDownClass(cls):
        cls.agent.terminate()
        cls.agent.wait()

    def backup(self, *words):
        zenbrak3("backup", "c1", "--pool", "main", *words)
        return json.loads(zenbrak3("backups", "--json", "--limit", "1"))["backups"][0]

    def test_every_row_comes_back_from_a_full_and_an_incremental_backup(self):
        self.assertRegex(zenbrak3("instances"), r"c1 +100 ")
        rows = [cluster("checksums")]
        sets = [self.backup()]
        cluster("change", 5)
        rows.append(cluster("checksums"))
        sets.append(self.backup("--incremental"))
        self.assertNotEqual(*rows)
        self.assertEqual(["full", "incremental"], [one["type"] for one in sets])
        self.assertEqual(sets[0]["backup_key"], sets[1]["prior_backup_key"])
        for one in sets:
            self.assertGreater(one["backup_set_size"], 0)
        cluster("destroy-data")
        self.assertEqual([], list((HOME / "data").iterdir()))
        zenbrak3("restore", sets[1]["uuid"], "--yes")
        self.assertEqual(rows[1], cluster("checksums"))
        self.assertEqual({}, roach_processes())
        pool = json.loads(zenbrak3("pools", "--json"))["pools"][0]["uuid"]
        self.assertFalse((CACHE / pool).exists())
        for job in json.loads(zenbrak3("jobs", "--json"))["jobs"]:
            self.assertGreater(job["processed_size"], 0, job)

        # the restore has removed the tool's metadata, which this series brings back from nowhere
        with self.assertRaisesRegex(AssertionError, "did not complete"):
            self.backup("--incremental")
        self.assertEqual("full", self.backup()["type"])
        self.assertEqual("incremental", self.backup("--incremental")["type"])


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
