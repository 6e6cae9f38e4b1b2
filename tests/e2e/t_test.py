#!/usr/bin/env python3
"""A lone GaussDB T instance that the agent backs up and restores by the database's own SQL, through a
mount of the pool and through a local directory, beside a busy cluster of another flavour.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 tests/e2e/t_test.py BUILD [TEST ...]
BUILD is the build directory; its package is installed.
"""
import json
import subprocess
import sys
import threading
import unittest

sys.dont_write_bytecode = True
from t_world import CACHE, NAME, OTHER, POOL, T_World, of, tell  # noqa: E402

BUILD = sys.argv.pop(1)


def setUpModule():
    global world
    world = T_World(BUILD, 2)
    unittest.addModuleCleanup(world.stop)


class Busy_Cluster(threading.Thread):
    """Backs up the other cluster again and again."""

    def __init__(self):
        super().__init__()
        self.is_over, self.states = threading.Event(), []

    def run(self):
        while not self.is_over.is_set():
            done = subprocess.run(["zenbrak3", "backup", OTHER, "--pool", "main", "--json", "--interval",
                                   "0.05"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
            self.states.append(json.loads(done.stdout)["state"])

    def end(self):
        self.is_over.set()
        self.join()


class Chain_Test(unittest.TestCase):
    """One chain of sets, made in both ways, and restored in both ways."""

    SETS = (("full", (), True), ("diff1", ("--incremental",), False),
            ("diff2", ("--incremental",), True), ("cumul", ("--level", "cumulative"), False))

    def test_every_row_comes_back_from_each_set_by_each_way(self):
        others = of(OTHER, "checksums")
        busy = Busy_Cluster()
        busy.start()
        try:
            states, runs = self.make_chain()
            self.check_catalog(runs)
            for name, mount in (("cumul", True), ("diff2", False), ("diff1", True), ("full", False)):
                of(NAME, "destroy-data")
                run = world.restore(runs[name], mount=mount)
                self.assertEqual("completed", run["state"], run["log"])
                self.assertEqual(states[name], world.rows(), name)
                self.assertGreater(run["processed_size"], 0)
        finally:
            busy.end()
        self.assertEqual({"completed"}, set(busy.states))
        self.assertEqual(others, of(OTHER, "checksums"))
        world.assert_clean()

    def make_chain(self):
        states, runs = {}, {}
        for name, words, mount in self.SETS:
            states[name] = world.rows()
            run = world.backup(*words, mount=mount)
            self.assertEqual("completed", run["state"], run["log"])
            runs[name] = run["run_id"]
            self.assertEqual([], world.mounts())
            self.assertEqual([], list(CACHE.iterdir()))
            of(NAME, "change", 3)
        self.assertEqual(4, len(set(states.values())))
        return states, runs

    def check_catalog(self, runs):
        sets = {one["uuid"]: one for one in tell("backups", "--limit", 100)["backups"]}
        full = sets[runs["full"]]
        self.assertEqual(["full", "incremental", "incremental", "cumulative"],
                         [sets[runs[name]]["type"] for name, _, _ in self.SETS])
        for name, _, _ in self.SETS:
            one = sets[runs[name]]
            pieces = world.pieces(one["uuid"])
            self.assertGreaterEqual(len(pieces), 4)
            self.assertEqual({POOL / world.resource}, {path.parent.parent for path in pieces.values()})
            self.assertGreater(one["backup_set_size"], 0)
            self.assertEqual("" if name == "full" else full["backup_key"], one["prior_backup_key"])
        self.assertLess(sets[runs["diff1"]]["backup_set_size"], full["backup_set_size"] * 0.5)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
