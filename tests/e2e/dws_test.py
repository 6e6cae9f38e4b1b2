#!/usr/bin/env python3
"""A data warehouse on two machines without an agent: what its backup tool sends over its own port to
this host is what the cluster gets back. Needs root.

    dws_test.py BUILD [TEST ...]
"""
import sys
import unittest

sys.dont_write_bytecode = True
from agentless_world import World  # noqa: E402

BUILD = sys.argv.pop(1)


class Dws_Test(unittest.TestCase):
    """One cluster for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.world = World(BUILD, ["dws1"], 6)
        cls.addClassCleanup(cls.world.clean)
        cls.cluster = cls.world.clusters["dws1"]

    def tearDown(self):
        self.world.assert_clean()

    def test_every_row_comes_back_from_a_full_and_an_incremental_backup(self):
        full = self.world.backup("dws1")
        self.cluster.everywhere("change", 5)
        rows = self.cluster.rows()
        incremental = self.world.backup("dws1", "--incremental")
        self.assertEqual(full["backup_key"], incremental["prior_backup_key"])
        self.assertLess(incremental["backup_set_size"], full["backup_set_size"])
        self.cluster.everywhere("change", 50)
        self.cluster.lose()
        self.world.restore(incremental)
        self.assertEqual(rows, self.cluster.rows())


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
