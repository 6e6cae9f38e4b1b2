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
from agentless_tests import New_Cluster_Tests, Whole_Cluster_Tests  # noqa: E402
from agentless_world import META, World  # noqa: E402

BUILD = sys.argv.pop(1)


def setUpModule():
    global world
    world = World(BUILD, ["og1"], 4)
    unittest.addModuleCleanup(world.clean)


class Opengauss_Test(Whole_Cluster_Tests, unittest.TestCase):
    """One cluster for all tests."""

    name = "og1"

    @classmethod
    def setUpClass(cls):
        cls.world, cls.cluster = world, world.clusters["og1"]

    def tearDown(self):
        self.world.assert_clean()

    def test_an_incremental_backup_needs_the_tools_metadata_on_the_node(self):
        backup = self.world.backup("og1")
        keys = self.cluster.first.path(META + "/roach")
        shutil.move(keys, str(keys) + ".away")
        run = self.world.end(self.world.start_backup("og1", "--incremental"))
        self.assertEqual("error", run["state"])
        self.assertIn("The metadata of the prior backup %s are missing" % backup["backup_key"], run["log"])
        shutil.move(str(keys) + ".away", keys)


class Restore_To_New_Cluster_Test(New_Cluster_Tests, unittest.TestCase):
    """After the loss of the old one."""

    name, new_name = "og1", "og2"
    log_lines = ["--restore-new-cluster --restore-configs"]

    @classmethod
    def setUpClass(cls):
        cls.world = world


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
