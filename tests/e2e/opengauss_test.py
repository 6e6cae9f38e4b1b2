#!/usr/bin/env python3
"""An openGauss cluster on a machine without an agent: what its backup tool sends over its own port to this
host is what the cluster gets back. Needs root.

    opengauss_test.py BUILD [TEST ...]
"""
import os
import shutil
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_world import META, World  # noqa: E402

BUILD = sys.argv.pop(1)


def setUpModule():
    global world
    world = World(BUILD, ["og1"], 4)
    unittest.addModuleCleanup(world.clean)


class Opengauss_Test(unittest.TestCase):
    """One cluster for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.world, cls.cluster = world, world.clusters["og1"]

    def tearDown(self):
        self.world.assert_clean()

    def test_every_row_comes_back_from_a_full_and_an_incremental_backup(self):
        full = self.world.backup("og1")
        self.cluster.everywhere("change", 5)
        rows = self.cluster.rows()
        incremental = self.world.backup("og1", "--incremental")
        self.assertEqual(full["backup_key"], incremental["prior_backup_key"])
        self.assertLess(incremental["backup_set_size"], full["backup_set_size"])
        self.cluster.everywhere("change", 50)
        self.cluster.lose()
        self.world.restore(incremental)
        self.assertEqual(rows, self.cluster.rows())

    def test_an_incremental_backup_needs_the_tools_metadata_on_the_node(self):
        backup = self.world.backup("og1")
        keys = self.cluster.first.path(META + "/roach")
        shutil.move(keys, str(keys) + ".away")
        run = self.world.end(self.world.start_backup("og1", "--incremental"))
        self.assertEqual("error", run["state"])
        self.assertIn("The metadata of the prior backup %s are missing" % backup["backup_key"], run["log"])
        shutil.move(str(keys) + ".away", keys)


class Restore_To_New_Cluster_Test(unittest.TestCase):
    """When the old one is no more."""

    def test_every_row_is_in_the_new_cluster(self):
        cluster = world.clusters["og1"]
        rows = cluster.rows()
        backup = world.backup("og1")
        cluster.replace("og2")
        world.declare("og2", cluster)
        run = world.restore_to_new_cluster(backup, "og2")
        self.assertEqual("completed", run["state"], run["log"])
        self.assertIn("--restore-new-cluster --restore-configs", run["log"])
        self.assertEqual(rows, cluster.rows())
        self.assertEqual("full", world.backup("og2")["type"])
        world.assert_clean()


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
