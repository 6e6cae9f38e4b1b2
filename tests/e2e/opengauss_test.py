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


class Opengauss_Test(unittest.TestCase):
    """One cluster for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.world = World(BUILD, ["og1"], 6)
        cls.addClassCleanup(cls.world.clean)
        cls.cluster = cls.world.clusters["og1"]

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
        self.world.backup("og1")
        keys = self.cluster.first.path(META + "/roach")
        shutil.move(keys, str(keys) + ".away")
        run = self.world.end(self.world.start_backup("og1", "--incremental"))
        self.assertEqual("error", run["state"])
        self.assertIn("There is no metadata of the prior backup", run["log"])
        shutil.move(str(keys) + ".away", keys)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
