#!/usr/bin/env python3
"""What goes wrong between this host and a data warehouse on machines without an agent, and what does not when
another cluster is busy beside it. After each fault no half set, no list and no process is left on any machine,
and the next run works. Needs root.

    dws_faults_test.py BUILD [TEST ...]
"""
import os
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_faults import Cut_Test, Fault_Test, Wrapped_Login_Test  # noqa: E402
from agentless_world import World  # noqa: E402
from machines import wait_until  # noqa: E402

BUILD = sys.argv.pop(1)
SHOP = """drop database if exists shop;
create database shop;
\\c shop
create schema sale;
create table sale.orders (id int primary key, what text);
insert into sale.orders select n, md5(n::text) from generate_series(1, 2000) n;
"""


def setUpModule():
    Fault_Test.world, Fault_Test.name = World(BUILD, ["dws1", "og1"], 2), "dws1"
    unittest.addModuleCleanup(Fault_Test.world.clean)
    Fault_Test.world.clusters["dws1"].sql(SHOP)
    for name in Fault_Test.world.clusters:
        Fault_Test.world.backup(name)


class Dws_Test(Fault_Test):
    def whole(self):
        return next(one for one in self.world.sets()
                    if one["instance"] == "dws1" and one["granularity"] != "schema")

    def schema_backup(self):
        return self.backup_definition(source={"id": self.resource(),
                                              "entries": ["gaussdb/dws1/schema/shop/sale"]})

    def table_restore(self):
        return self.restore_definition(self.whole(), subtype="table", source={
            "id": self.resource(), "backup_key": self.whole()["backup_key"], "restore_as": "gaussdb/dws1",
            "entries": ["gaussdb/dws1/table/shop/sale/orders/public/again"]})

    def of_schema(self):
        """The record of a new set of the schema."""
        run = self.world.run_definition(**self.schema_backup())
        self.assertEqual("completed", run["state"], run["log"])
        return next(one for one in self.world.sets() if one["uuid"] == run["run_id"])


class Steps_Test(Cut_Test, Dws_Test):
    def test_a_backup_that_is_cut_at_each_step(self):
        self.assert_survives_cuts(self.backup_definition())

    def test_a_schema_backup_that_is_cut_at_each_step(self):
        self.assert_survives_cuts(self.schema_backup())

    def test_a_restore_that_is_cut_at_each_step(self):
        rows = self.cluster.rows()
        self.assert_survives_cuts(self.restore_definition(self.world.backup("dws1")))
        self.assertEqual(rows, self.cluster.rows())

    def test_a_table_restore_that_is_cut_at_each_step(self):
        rows = self.cluster.sql("select * from sale.orders", "shop")
        self.assert_survives_cuts(self.table_restore())
        self.assertEqual(rows, self.cluster.sql("select * from public.again", "shop"))
        self.cluster.sql("drop table public.again", "shop")

    def test_a_rebuild_that_is_cut_at_each_step(self):
        backup = self.of_schema()
        rows = self.cluster.rows()
        self.assert_survives_cuts(self.restore_definition(backup),
                                  again=lambda: self.cluster.sql("drop database if exists shop"))
        self.assertEqual(rows, self.cluster.rows())

    def test_lists_of_tables_go_when_connections_of_their_run_are_cut(self):
        """A tool that fails leaves the lists to the run."""
        self.become("exit 1")
        self.with_wrapped_logins()
        for at in ("internal-sftp", "GaussRoach.py", "rm -f"):
            self.cut_at(at)
            run = self.world.run_definition(**self.table_restore())
            self.assertEqual("error", run["state"])
            self.assertTrue(self.was_cut(), at)
            self.world.assert_clean()


class Cancel_Test(Wrapped_Login_Test, Dws_Test):
    """Each leaves what the next run overwrites."""

    RATE = 4000000

    def setUp(self):
        super().setUp()
        self.with_wrapped_logins()

    def cancel_in_the_middle(self, definition, *words):
        _, tool_ran = self.assert_cancelled(self.start_slow(definition, self.RATE), *words)
        self.assertTrue(tool_ran)

    def cancel_when_logged(self, definition, line):
        run_id = self.world.start_definition(**definition)
        wait_until(lambda: line in self.world.with_log({"run_id": run_id})["log"], line)
        self.assert_cancelled(run_id, may_complete=True)

    def test_a_restore(self):
        rows, backup = self.cluster.rows(), self.world.backup("dws1")
        restore = self.restore_definition(backup)
        self.assert_cancelled(self.world.start_definition(**restore))
        self.cancel_in_the_middle(restore)
        self.cancel_in_the_middle(restore, "--now")
        self.cancel_when_logged(restore, "-t start")
        self.world.restore(backup)
        self.assertEqual(rows, self.cluster.rows())

    def test_a_table_restore(self):
        rows = self.cluster.rows()
        self.cancel_in_the_middle(self.table_restore())
        self.assertEqual(rows, self.cluster.rows())
        # the tables of each machine come in one piece
        self.cancel_when_logged(self.table_restore(), "Restore SUCCESSFUL")
        self.cluster.sql("drop table if exists public.again", "shop")
        self.assertEqual(rows, self.cluster.rows())

    def test_a_rebuild(self):
        backup, rows = self.of_schema(), self.cluster.rows()
        self.cluster.sql("drop database shop")
        run_id = self.start_slow(self.restore_definition(backup), self.RATE)
        self.assert_cancelled(run_id)
        self.world.restore(backup)
        self.assertEqual(rows, self.cluster.rows())


class Two_Clusters_Test(Dws_Test):
    def test_clusters_of_two_flavours_are_protected_side_by_side(self):
        clusters = self.world.clusters.values()
        for cluster in clusters:
            cluster.everywhere("change", 5)
        rows = [cluster.rows() for cluster in clusters]
        backups = [self.world.end_well(one) for one in
                   [self.world.start_backup(name, "--incremental") for name in self.world.clusters]]
        for cluster in clusters:
            cluster.lose()
        for one in [self.world.start("restore", backup["run_id"], "--channels", "2", "--yes")
                    for backup in backups]:
            self.world.end_well(one)
        self.assertEqual(rows, [cluster.rows() for cluster in clusters])
        self.world.assert_clean()


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
