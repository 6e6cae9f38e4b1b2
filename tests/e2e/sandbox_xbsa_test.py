#!/usr/bin/env python3
"""The sandbox's GaussRoach.py through the real XBSA library, into a pool of files.

Run in a machine of the sandbox: sandbox/machine run python3 tests/e2e/sandbox_xbsa_test.py LIBRARY
The agent that the library asks is tests/support/xbsa_agent_main.
"""
import json
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import sys
import time
import unittest
import uuid

sys.dont_write_bytecode = True
from sandbox_test import CLUSTER, HOME, META, ROOT, cluster, common, master, roach_processes, sql, tool, wait_until  # noqa: E402

LIBRARY = sys.argv.pop(1)
POOL = pathlib.Path("/srv/pool")
POLICY = pathlib.Path("/var/cache/quilmot/zenbrak3/gaussdb/pool1")
AGENT = pathlib.Path("/srv/agent")
KEY = "the access key"


def roach(action, *words):
    status, out, err = tool(*common(action), *words)
    return status, out, err


class Sandbox_Xbsa_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cluster("create", "--nodes", 2, "--no-fsync")
        cluster("fill", 20)
        target = pathlib.Path("/opt/quilmot/zenbrak3/lib/libxbsa64.so")
        target.parent.mkdir(parents=True)
        shutil.copy(LIBRARY, target)
        os.symlink(target, HOME / "app/lib/libsimsearch/libxbsa64.so")
        entry = pwd.getpwnam("omm")
        for path, mode in ((POOL, 0o2770), (META, 0o755)):
            path.mkdir()
            os.chown(path, entry.pw_uid, entry.pw_gid)
            path.chmod(mode)
        AGENT.mkdir()
        cls.sets = []
        cls.tell_agent()
        cls.agent = subprocess.Popen([sys.executable, ROOT / "tests/support/xbsa_agent_main", AGENT])
        wait_until(lambda: (AGENT / "port").exists())

    @classmethod
    def tearDownClass(cls):
        cls.agent.kill()
        cls.agent.wait()

    @classmethod
    def tell_agent(cls):
        pool = {"uuid": "pool1", "name": "pool1", "url": "file://%s" % POOL, "compression": "zstd",
                "compression_level": 1, "read_only": False, "device_uuids": []}
        (AGENT / "agent.json.new").write_text(json.dumps(
            {"world": 1, "key": KEY, "sets": cls.sets, "pool": pool}))
        os.rename(AGENT / "agent.json.new", AGENT / "agent.json")

    def policy(self, name=None):
        """A job's policy, of a new backup set."""
        self.sets.append(str(uuid.uuid4()))
        self.tell_agent()
        POLICY.parent.mkdir(parents=True, exist_ok=True)
        POLICY.write_text(json.dumps({
            "access_key": KEY, "backupd_host": "127.0.0.1",
            "backupd_port": int((AGENT / "port").read_text()), "backupd_ssl": False,
            "cluster_id": "c1", "device_uuid": "", "pool_uuid": "pool1", "uuid": self.sets[-1],
            "retry": 0, "resumption_buffer_size": 0, "compression": "zstd", "compression_level": 1,
            "version": 2, "major": 8, "full_backup": True, "rate_limits": "", "src_rate_limits": ""}))
        shutil.chown(POLICY, "omm")
        return self.sets[-1]

    def backup(self, prior=""):
        self.policy()
        status, out, err = roach("backup", *(["--prior-backup-key=" + prior] if prior else []))
        self.assertEqual(0, status, out + err)
        return out.split("Backup key: ")[1].split()[0]

    def objects(self):
        return sorted(path for path in POOL.rglob("*") if path.is_file())

    def test_every_row_goes_through_the_library_and_comes_back(self):
        full = self.backup()
        full_set = self.sets[-1]
        cluster("change", 5)
        incremental = self.backup(full)
        state = cluster("checksums")
        cluster("destroy-data")
        self.policy()
        status, out, err = roach("restore", "--clean", "--backup-key", incremental)
        self.assertEqual(0, status, out + err)
        status, out, err = tool("python3", "GaussRoach.py", "-t", "start")
        self.assertEqual(0, status, out + err)
        self.assertEqual(state, cluster("checksums"))
        pieces = [json.loads(line) for line in (AGENT / "calls.jsonl").read_text().splitlines()]
        self.assertTrue([one for one in pieces if one["method"] == "catalog.add_piece"])

        # a damaged object is noticed, when the data that were there have gone
        victim = max((path for path in self.objects() if full_set in path.parts),
                     key=lambda path: path.stat().st_size)
        content = bytearray(victim.read_bytes())
        content[len(content) // 2] ^= 1
        victim.write_bytes(content)
        status, out, err = roach("restore", "--clean", "--backup-key", incremental)
        self.assertEqual(1, status)
        self.assertRegex(err, r"object 2\d+_\d+/dn_600\d/data")
        self.assertIn("The data directories are not complete", err)
        content[len(content) // 2] ^= 1
        victim.write_bytes(content)
        status, out, err = roach("restore", "--clean", "--backup-key", incremental)
        self.assertEqual(0, status, out + err)
        status, out, err = tool("python3", "GaussRoach.py", "-t", "start")
        self.assertEqual(0, status, out + err)
        self.assertEqual(state, cluster("checksums"))

    def test_a_killed_backup_leaves_no_object(self):
        before = self.backup()
        self.policy()
        run = subprocess.Popen([CLUSTER, "tool", *common("backup"), "--parallel-process=4"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        with run.stdout:
            for line in run.stdout:
                if "COMPLETED" in line:
                    break
        os.kill(master(), signal.SIGKILL)
        run.wait()
        wait_until(lambda: not roach_processes())
        transactions = [path for path in POOL.rglob("_transactions/*")
                        if self.sets[-1] in str(path)]
        self.assertEqual([], transactions)
        wait_until(lambda: sql("select count(*) from pg_replication_slots") == "0")
        self.backup(before)

    def test_a_missing_policy_is_told(self):
        POLICY.unlink(missing_ok=True)
        status, _, err = roach("backup")
        self.assertEqual(1, status)
        self.assertIn("BSAInit failed with 0x50", err)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
