#!/usr/bin/env python3
"""Instances of a management platform: what the platform backs up through backUpAgent comes back, whole, at a
moment between two changes, and in another instance, while an openGauss cluster is busy beside them. Needs root.

    tpops_test.py BUILD [TEST ...]
"""
import os
import subprocess
import sys
import threading
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_world import CACHE  # noqa: E402
from machines import wait_until  # noqa: E402
from tpops_world import BACKUP_AGENT, Tpops_World  # noqa: E402

BUILD = sys.argv.pop(1)


def setUpModule():
    global world, platform
    world = Tpops_World(BUILD, [["gs1", "gs2"]], 2, ["og1"])
    unittest.addModuleCleanup(world.clean)
    platform, = world.platforms
    world.add_platforms()


class Busy_Cluster(threading.Thread):
    """Backs up the cluster of another flavour again and again."""

    def __init__(self):
        super().__init__()
        self.is_over, self.runs = threading.Event(), []

    def run(self):
        while not self.is_over.is_set():
            self.runs.append(world.end(world.start_backup("og1")))

    def end(self):
        self.is_over.set()
        self.join()


class In_Parallel(object):
    """Runs functions beside each other; the first failure is raised."""

    def __init__(self, *functions):
        self.failures = []
        threads = [threading.Thread(target=self.attempt, args=(one,)) for one in functions]
        for one in threads:
            one.start()
        for one in threads:
            one.join()
        if self.failures:
            raise self.failures[0]

    def attempt(self, function):
        try:
            function()
        except BaseException as failure:
            self.failures.append(failure)


class Tpops_Test(unittest.TestCase):
    def setUp(self):
        platform.put_right()
        self.addCleanup(platform.put_right)

    def tearDown(self):
        platform.put_right()
        world.assert_clean()
        self.assertEqual(set(), world.policies())


class Road_Test(Tpops_Test):
    def test_every_row_comes_back_at_the_moment_that_is_wanted(self):
        """Two instances at once, beside a busy cluster."""
        others, busy = world.clusters["og1"].rows(), Busy_Cluster()
        busy.start()
        try:
            In_Parallel(lambda: self.go_the_road("gs1"), lambda: self.go_the_road("gs2"))
        finally:
            busy.end()
        self.assertEqual({"completed"}, {one["state"] for one in busy.runs})
        self.assertEqual(others, world.clusters["og1"].rows())

    def go_the_road(self, name):
        full = world.back_up(name)
        platform.change(name)
        differential = world.back_up(name, "incremental")
        platform.change(name)
        rows, moment = platform.rows(name), platform.next_second(name)
        platform.change(name, 20)
        last = platform.rows(name)
        log = world.back_up(name, "log")
        self.check_sets(full, differential, log)
        platform.do("lose", name)
        self.check_windows(name)
        run = world.run("restore", name, "--to", moment, "--yes")
        self.assertEqual(rows, platform.rows(name))
        self.assertNotEqual(last, rows)
        self.assertGreater(run["processed_size"], 0)

    def check_windows(self, name):
        """A time that no log backup has is refused, before anything is changed."""
        done = subprocess.run(world.ours.words("zenbrak3", "restore", name, "--to", "2020-01-01T00:00:00Z", "--yes"),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertNotEqual(0, done.returncode)
        self.assertIn("2020-01-01", done.stdout)

    def check_sets(self, full, differential, log):
        self.assertEqual(["full", "incremental", "log"], [one["type"] for one in (full, differential, log)])
        self.assertEqual({full["uuid"]}, {one["incarnation"] for one in (full, differential, log)})
        self.assertLess(differential["backup_set_size"], full["backup_set_size"] // 2)
        self.assertGreater(log["backup_set_size"], 0)


class Single_Restore_Test(Tpops_Test):
    def test_a_single_backup_comes_back_here_and_in_another_instance(self):
        rows, backup = platform.rows("gs1"), world.back_up("gs1")
        platform.change("gs1", 20)
        self.assertNotEqual(rows, platform.rows("gs1"))
        In_Parallel(lambda: world.complete(world.restore_definition(backup)),
                    lambda: world.complete(world.restore_definition(backup, "gs2")))
        self.assertEqual(rows, platform.rows("gs1"))
        self.assertEqual(rows, platform.rows("gs2"))
        self.assertEqual("full", world.back_up("gs2", "incremental")["type"])


class Middle_Test(Tpops_Test):
    """What is to be seen while a backup runs, and its token expires."""

    def test_a_token_that_expires_in_the_middle_is_replaced(self):
        platform.control(hold=True)
        run_id = world.start_definition(**world.backup_definition("gs1"))
        platform.wait_until_held()
        self.check_files("tpops_" + world.instance("gs1")["uuid"])
        self.check_progress(run_id)
        platform.control(forget=True)
        platform.control(tokens="expire")
        platform.control(hold=False)
        run = world.wait(run_id)
        self.assertEqual("completed", run["state"], run["log"])
        statuses = [(one["endpoint"], one["status"]) for one in platform.report()["requests"]]
        self.assertIn(("jobs", 401), statuses)
        self.assertEqual(1, statuses.count(("login", 200)))
        refused = statuses.index(("jobs", 401))
        self.assertEqual([("login", 200), ("jobs", 200)], statuses[refused + 1:refused + 3])

    def check_files(self, name):
        """They belong to the user of backUpAgent, who is not root."""
        agent, = world.ours.processes(BACKUP_AGENT)[:1]
        owner = world.ours.path("/proc/%d" % agent).stat().st_uid
        self.assertNotEqual(0, owner)
        for path in (name, name + "_act"):
            status = world.ours.path(CACHE + "/" + path).stat()
            self.assertEqual((owner, 0), (status.st_uid, status.st_mode & 0o027), path)

    def check_progress(self, run_id):
        wait_until(lambda: world.show(run_id)["percent"] > 0, "progress")
        self.assertLessEqual(world.show(run_id)["percent"], 99)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
