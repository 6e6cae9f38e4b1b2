"""Tests of every cluster without an agent. A test class derives from one of these and from
unittest.TestCase, and sets `world`, `name` and the other members that are named here."""


class Whole_Cluster_Tests(object):
    def test_every_row_comes_back_from_a_full_and_an_incremental_backup(self):
        cluster = self.world.clusters[self.name]
        full = self.world.backup(self.name)
        cluster.everywhere("change", 5)
        rows = cluster.rows()
        incremental = self.world.backup(self.name, "--incremental")
        self.assertEqual(full["backup_key"], incremental["prior_backup_key"])
        self.assertLess(incremental["backup_set_size"], full["backup_set_size"])
        cluster.everywhere("change", 50)
        cluster.lose()
        self.world.restore(incremental)
        self.assertEqual(rows, cluster.rows())


class New_Cluster_Tests(object):
    """The cluster `new_name` takes the place of a lost one. `log_lines`: expected in the run's log."""

    def test_every_row_is_in_the_new_cluster(self):
        cluster = self.world.clusters[self.name]
        rows = cluster.rows()
        backup = self.world.backup(self.name)
        cluster.replace(self.new_name)
        self.world.declare(self.new_name, cluster)
        run = self.world.restore_to_new_cluster(backup, self.new_name)
        self.assertEqual("completed", run["state"], run["log"])
        for line in self.log_lines:
            self.assertIn(line, run["log"])
        self.assertEqual(rows, cluster.rows())
        self.assertEqual("full", self.world.backup(self.new_name)["type"])
        self.world.assert_clean()
