#!/usr/bin/env python3
"""Two clusters of one host, of two users, with one pool: what is backed up and restored at once stays
each cluster's own.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 PATH/two_clusters_test.py BUILD
[TEST ...]
"""
import json
import pathlib
import signal
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from sandbox_test import ROOT, cluster, roach_processes, wait_until  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from protection import tell  # noqa: E402

BUILD = sys.argv.pop(1)
USERS = {"c1": "omm", "c2": "gauss2"}
PORTS = {"c1": 40000, "c2": 41000}
CACHE = pathlib.Path("/var/cache/quilmot/zenbrak3/gaussdb")
MARK = pathlib.Path("/var/lib/zenbrak3-sandbox-cluster")  # whose cluster the sandbox's command means


def of(name, *words):
    """The sandbox's command, for that cluster."""
    MARK.write_text(USERS[name] + "\n")
    return cluster(*words)


def start(*words):
    """Starts a job. Its run's id."""
    return tell(*words, "--no-wait")["run_id"]


def start_backup(name, *words):
    return start("backup", name, "--pool", "main", "--name", "of " + name, "--channels", 2, *words)


def start_restore(uuid, name):
    return start("restore", uuid, "--yes", "--name", "restore of " + name, "--channels", 2)


def ended(run_id):
    """The run when it is over."""
    done = subprocess.run(["zenbrak3", "job", "wait", run_id, "--json", "--interval", "0.05"],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True)
    assert done.stdout, done.stderr
    return json.loads(done.stdout)


def log(run_id):
    return protection.ask("zenbrak3", "job", "log", run_id)


class World(object):
    """The agent and the two clusters, made once."""

    only = None

    @classmethod
    def the(cls):
        cls.only = cls.only or World()
        return cls.only

    def __init__(self):
        for name in USERS:
            cluster("create", "--name", name, "--user", USERS[name], "--port", PORTS[name],
                    "--nodes", 2, "--no-fsync")
            of(name, "fill", 4)
        protection.install(BUILD)
        self.agent = protection.start_agent()
        protection.ask("zenbrak3", "instances", "--refresh")
        for name in USERS:
            protection.save_account(name)
        protection.make_pool_directory(protection.POOL)
        protection.ask("zenbrak3", "pool", "create", "main", protection.POOL)

    def kill_agent(self):
        self.agent.send_signal(signal.SIGKILL)
        self.agent.wait()
        self.agent = protection.start_agent()
        protection.ask("zenbrak3", "instances", "--refresh")


class World_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.world = World.the()

    def tearDown(self):
        left = {path.name for path in CACHE.iterdir()}
        pools = {pool["uuid"] for pool in tell("pools")["pools"]}
        self.assertEqual(set(), left & pools, "the policy of a run that is over")

    def assert_completed(self, *run_ids):
        for run in [ended(run_id) for run_id in run_ids]:
            self.assertEqual("completed", run["state"], "%s\n%s" % (run, log(run["run_id"])))



class Two_Clusters_Test(World_Test):
    def rows(self):
        return {name: of(name, "checksums") for name in USERS}

    def slow_backup(self, name):
        """A backup that takes its time, met while its tool is at work. Its run's id."""
        self.assert_completed(start_backup(name))
        wish = {key: value for key, value in tell("definition", "show", "of " + name).items()
                if value is not None and key not in ("id", "state", "next_run", "last_run")}
        wish.update(name="slow", rate_limits={"src_rate_limits": "2000000"})
        done = subprocess.run(["zenbrak3", "run", "-", "--no-wait", "--json"],
                              input=json.dumps(wish), stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
        self.assertEqual(0, done.returncode, done.stderr)
        run_id = json.loads(done.stdout)["run_id"]
        wait_until(lambda: tell("job", "show", run_id)["percent"] > 0)
        return run_id

    def wait_for_wait(self, run_id):
        """Waits until a run waits. What for."""
        wait_until(lambda: tell("job", "show", run_id)["waiting_for"])
        return tell("job", "show", run_id)["waiting_for"]

    def test_each_set_restores_the_rows_of_its_own_cluster(self):
        waited = 0
        for _ in range(2):
            rows = self.rows()
            runs = {name: start_backup(name) for name in USERS}
            self.assert_completed(*runs.values())
            waited += sum("Waiting for job" in log(run_id) for run_id in runs.values())
            for name in USERS:
                of(name, "change", 10)
                self.assertNotEqual(rows[name], of(name, "checksums"))
            self.assert_completed(*[start_restore(runs[name], name) for name in USERS])
            self.assertEqual(rows, self.rows())
        self.assertGreater(waited, 0, "no two runs met")

    def test_a_backup_and_a_restore_of_another_cluster_at_once(self):
        self.assert_completed(first := start_backup("c1"))
        rows = self.rows()
        of("c1", "change", 5)
        self.assert_completed(start_restore(first, "c1"), second := start_backup("c2"))
        of("c2", "change", 5)
        self.assert_completed(start_backup("c1"), start_restore(second, "c2"))
        self.assertEqual(rows, self.rows())

    def test_one_that_waits_says_for_what_and_can_be_canceled(self):
        slow = self.slow_backup("c1")
        run_id = start_backup("c2")
        self.assertIn('job "slow" of instance "c1"', self.wait_for_wait(run_id))
        protection.ask("zenbrak3", "job", "cancel", run_id)
        self.assertEqual("canceled", ended(run_id)["state"])
        self.assertIsNone(tell("job", "show", slow)["end_time"], "the other one is over")
        same = start_backup("c1", "--level", "full")
        self.assertIn("the same instance", self.wait_for_wait(same))
        third = start_backup("c2")
        self.assert_completed(slow, same, third)

    def test_what_could_have_no_effect_is_refused_before_anything_starts(self):
        self.assert_completed(uuid := start_backup("c1"))
        before = len(tell("jobs")["jobs"])
        for words, named in (
                (("restore", uuid, "--yes", "-o", "restore_time=2026-11-21T10:00:00Z"), "restore_time"),
                (("restore", uuid, "--yes", "-o", "chanels=2"), "chanels"),
                (("backup", "c1", "--pool", "main", "-o", "mount=true"), "mount"),
                (("backup", "c1", "--pool", "main", "-o", "channels=-1"), "channels"),
                (("backup", "c1", "--pool", "main", "-o", "compression=gzip"), "gzip"),
                (("backup", "c1", "--pool", "main", "--compression", "zstd:99"), "99")):
            done = subprocess.run(["zenbrak3", *words], stdin=subprocess.DEVNULL, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.assertNotEqual(0, done.returncode, words)
            self.assertIn(named, done.stderr, words)
        self.assertEqual(before, len(tell("jobs")["jobs"]), "a run was started")

    def test_an_agent_that_died_holds_nothing(self):
        slow = self.slow_backup("c1")
        self.wait_for_wait(start_backup("c2"))
        self.world.kill_agent()
        self.assertEqual("error", tell("job", "show", slow)["state"])
        wait_until(lambda: not roach_processes())  # the tool outlives the agent until its key fails
        self.assert_completed(*[start_backup(name) for name in USERS])


class Vanished_Cluster_Test(World_Test):
    """The last one: the cluster c2 goes, and its user gets another one."""

    def test_a_vanished_clusters_name_does_not_take_anothers_data(self):
        self.assert_completed(uuid := start_backup("c2"))
        sets = tell("backups")["backups"]
        of("c2", "remove")
        cluster("create", "--name", "c3", "--user", USERS["c2"], "--port", PORTS["c2"], "--nodes", 2,
                "--no-fsync")
        self.refuses("c2", uuid)
        self.assertEqual("error", self.states()["c2"])
        self.world.kill_agent()
        self.refuses("c2", uuid)
        self.assertEqual("error", self.states()["c2"])
        self.assertEqual("Normal", self.states()["c3"])
        self.assertEqual(sets, tell("backups")["backups"])
        protection.save_account("c3")
        self.assert_completed(start_backup("c3"))

    def refuses(self, name, uuid):
        rows = of(name, "checksums")
        for run_id in (start_backup(name), start_restore(uuid, name)):
            run = ended(run_id)
            self.assertEqual("error", run["state"], run)
            self.assertIn('cluster "%s" is not the one on record' % name, run["message"])
            self.assertIn("zenbrak3 instance remove " + name, run["message"])
            self.assertGreater(run["alerts"], 0)
        self.assertEqual(rows, of(name, "checksums"))

    @staticmethod
    def states():
        return {one["name"]: one["state"] for one in tell("instances", "--refresh")["instances"]}


if __name__ == "__main__":
    program = unittest.main(verbosity=2, exit=False)
    if World.only:
        World.only.agent.terminate()
        World.only.agent.wait()
    sys.exit(not program.result.wasSuccessful())
