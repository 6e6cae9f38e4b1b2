#!/usr/bin/env python3
"""A data warehouse on two machines without an agent: what its backup tool sends over its own port to
this host is what the cluster gets back, as a whole, by tables and by schemas. Needs root.

    dws_test.py BUILD [TEST ...]
"""
import json
import os
import re
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_tests import New_Cluster_Tests, Whole_Cluster_Tests  # noqa: E402
from agentless_world import META, World  # noqa: E402

BUILD = sys.argv.pop(1)
# what the schema "archive" of "shop" has beside the schema "sale", which every node's server has, too
SHOP = """drop database if exists shop;
create database shop;
\\c shop
create schema sale; create schema archive;
create table sale.orders (id int primary key, what text unique, paid boolean default false);
create index by_payment on sale.orders (paid);
insert into sale.orders select n, md5(n::text) from generate_series(1, 2000) n;
create table sale.stock as select n as id, n * 7 as pieces from generate_series(1, 500) n;
create table archive.orders as select n as id, repeat('x', 900) as filling from generate_series(1, 4000) n;
"""


def setUpModule():
    global world
    world = World(BUILD, ["dws1"], 4)
    unittest.addModuleCleanup(world.clean)


class Dws_Test(Whole_Cluster_Tests, unittest.TestCase):
    """One cluster for all tests."""

    name = "dws1"

    @classmethod
    def setUpClass(cls):
        cls.world, cls.cluster = world, world.clusters["dws1"]
        cls.resource = cls.world.instance("dws1")["uuid"]
        cls.cluster.sql(SHOP)
        cls.whole = cls.world.backup("dws1")
        cls.of_schemas = cls.backup_schemas("full", "sale", "archive")

    def setUp(self):
        self.cluster.sql(SHOP)

    def tearDown(self):
        self.world.assert_clean()

    @classmethod
    def backup_schemas(cls, subtype, *schemas):
        """The record of a new set of these schemas of "shop"."""
        run = cls.world.run_definition(
            name="%s of sale" % subtype, type="backup", subtype=subtype, target={"pool": "main"},
            source={"id": cls.resource,
                    "entries": ["gaussdb/dws1/schema/shop/" + schema for schema in schemas]},
            options={"channels": 2})
        assert run["state"] == "completed", run["log"]
        return next(one for one in cls.world.sets() if one["uuid"] == run["run_id"])

    def restore_tables(self, backup, *entries):
        """The run of a restore of tables of "shop"."""
        return self.world.run_definition(
            name="tables", type="restore", subtype="table", target={"id": self.resource},
            source={"id": self.resource, "backup_key": backup["backup_key"],
                    "restore_as": "gaussdb/dws1",
                    "entries": ["gaussdb/dws1/table/shop/" + entry for entry in entries]},
            options={"channels": 2})

    def shop(self):
        """Of each table of "shop": counts and checksums."""
        return [[line for line in text.splitlines() if line.split()[1] == "shop"]
                for text in self.cluster.rows()]

    # --- what a person is told

    def test_the_check_tells_the_version_of_the_backup_tool(self):
        out = self.world.ours.do("zenbrak3", "check", "dws1", "--pool", "main")
        self.assertRegex(out, r"tool GaussRoach\.py.*/GaussRoach\.py, GaussDB 8\.\S+ build \w+")

    def test_a_restore_of_schemas_tells_that_only_they_are_rebuilt(self):
        out = self.world.ours.do("zenbrak3", "restore", self.of_schemas["uuid"], "--dry-run")
        self.assertIn("This rebuilds schemas of database shop of instance dws1, which goes on running.", out)
        self.assertRegex(out, r"Schema: +sale\n")
        self.assertRegex(out, r"Schema: +archive\n")
        self.assertNotIn("overwrites", out)
        out = self.world.ours.do("zenbrak3", "restore", self.whole["uuid"], "--dry-run")
        self.assertIn("This overwrites instance dws1.", out)
        self.assertNotIn("Schema:", out)

    # --- the stand-in of the tool

    def test_the_tool_takes_no_other_lines(self):
        for line in ("", "-t stop --clean", "-t stop --version", "-t backup --master-port 9500",
                     "-t restore --backup-key 20240101_000000", "-t start -X /x.xml", "-t delete"):
            with self.assertRaisesRegex(AssertionError, r"\[GAUSS-500\d\d\]", msg=line):
                self.cluster.first.cluster("tool", "GaussRoach.py", *line.split())

    # --- tables

    def test_a_dropped_table_comes_back_under_another_name_beside_what_has_changed(self):
        orders = self.cluster.sql("select count(*), sum(hashtext(t::text)) from sale.orders t", "shop")
        self.cluster.sql("drop table sale.orders; create schema rescue; "
                         "update sale.stock set pieces = 1; create table sale.orders (other int)", "shop")
        rows = self.shop()
        run = self.restore_tables(self.whole, "sale/orders/rescue/orders_of_old")
        self.assertEqual("completed", run["state"], run["log"])
        question = "select count(*), sum(hashtext(t::text)) from rescue.orders_of_old t"
        self.assertEqual(orders, self.cluster.sql(question, "shop"))
        kept = [[line for line in lines if "rescue" not in line] for lines in self.shop()]
        self.assertEqual(rows, kept)
        self.assertEqual(["3"] * 3, self.cluster.sql(
            "select count(*) from pg_indexes where tablename = 'orders_of_old'", "shop"))
        self.assertEqual(["t"] * 3, self.cluster.sql(
            "insert into rescue.orders_of_old values (0, 'new') returning not paid", "shop"))

    def test_tables_come_back_to_their_places_from_an_incremental_backup(self):
        self.world.backup("dws1")
        self.cluster.sql("update sale.orders set paid = id % 3 = 0; insert into sale.stock values (0, 0)",
                         "shop")
        rows = self.shop()
        incremental = self.world.backup("dws1", "--incremental")
        self.cluster.sql("delete from sale.orders; drop table sale.stock", "shop")
        run = self.restore_tables(incremental, "sale/orders/sale/orders", "sale/stock/sale/stock")
        self.assertEqual("completed", run["state"], run["log"])
        self.assertEqual(rows, self.shop())

    def test_tables_of_each_schema_of_a_schema_backup(self):
        rows = self.shop()
        self.cluster.sql("drop table archive.orders, sale.stock", "shop")
        run = self.restore_tables(self.of_schemas, "archive/orders/archive/orders", "sale/stock/sale/stock")
        self.assertEqual("completed", run["state"], run["log"])
        self.assertEqual(rows, self.shop())

    def test_tables_go_where_others_have_their_names(self):
        question = "select count(*), sum(hashtext(t::text)) from %s t"
        orders, archive = [self.cluster.sql(question % table, "shop")
                           for table in ("sale.orders", "archive.orders")]
        self.cluster.sql("delete from sale.orders; delete from archive.orders", "shop")
        # two change places
        run = self.restore_tables(self.whole, "sale/orders/archive/orders", "archive/orders/sale/orders",
                                  "sale/stock/archive/stock")
        self.assertEqual("completed", run["state"], run["log"])
        self.assertEqual(archive, self.cluster.sql(question % "sale.orders", "shop"))
        self.assertEqual(orders, self.cluster.sql(question % "archive.orders", "shop"))
        self.assertEqual(["500"] * 3, self.cluster.sql("select count(*) from archive.stock", "shop"))
        # and this one's new schema has a table of its old name
        run = self.restore_tables(self.whole, "archive/orders/sale/old_orders")
        self.assertEqual("completed", run["state"], run["log"])
        self.assertEqual(archive, self.cluster.sql(question % "sale.old_orders", "shop"))

    def test_a_table_without_a_place_changes_nothing(self):
        rows = self.shop()
        for entry, reason in (("sale/orders/nowhere/orders", "The schema nowhere does not exist"),
                              ("sale/nothing/sale/nothing", "The backup has no table sale.nothing"),
                              ("public/orders/sale/old", "has no schema public")):
            run = self.restore_tables(self.of_schemas, "sale/stock/sale/stock", entry)
            self.assertEqual("error", run["state"], entry)
            self.assertIn(reason, run["log"])
            self.assertEqual(rows, self.shop())
            self.world.assert_clean()

    # --- schemas

    def test_a_lost_database_is_rebuilt_from_a_schema_backup_and_an_incremental_one(self):
        full = self.backup_schemas("full", "sale")
        self.assertEqual(("schema", "shop"), (full["granularity"], full["database"]))
        self.assertLess(full["backup_set_size"], self.whole["backup_set_size"])
        self.assert_holds_only_sale(full["backup_key"])
        self.cluster.sql("update sale.orders set paid = true where id < 9; "
                         "create table sale.late as select 1 as id", "shop")
        rows = [[line for line in lines if " sale." in line] for lines in self.shop()]
        incremental = self.backup_schemas("incremental", "sale")
        self.assertEqual(full["backup_key"], incremental["prior_backup_key"])
        self.cluster.sql("drop database shop")
        others = self.cluster.rows()
        self.world.restore(incremental)
        self.assertEqual(rows, self.shop())
        self.assertEqual(others, ["".join(line + "\n" for line in text.splitlines()
                                          if line.split()[1] != "shop")
                                  for text in self.cluster.rows()])

    def assert_holds_only_sale(self, key):
        """No file of another database, nor of the other schema's table."""
        manifest = json.loads(self.cluster.first.path("%s/roach/%s/manifest.json" % (META, key)).read_text())
        self.assertEqual(["cn_5001", "dn_6001", "dn_6002"], sorted(manifest["nodes"]))
        files = manifest["nodes"]["dn_6001"]["files"]
        databases = {path.split("/")[1] for path in files if re.match(r"base/\d+/\d", path)}
        self.assertEqual(1, len(databases), databases)
        question = "select pg_relation_filepath('%s')"
        place = [self.cluster.first.cluster("sql", 1, question % table, "shop").strip()
                 for table in ("sale.orders", "archive.orders")]
        self.assertEqual([True, False], [path in files for path in place])

    def test_a_schema_that_is_there_is_not_replaced_by_a_rebuild(self):
        rows = self.shop()
        run = self.world.end(self.world.start("restore", self.of_schemas["uuid"], "--channels", "2", "--yes"))
        self.assertEqual("error", run["state"])
        self.assertIn("is not empty", run["log"])
        self.assertEqual(rows, self.shop())


class Restore_To_New_Cluster_Test(New_Cluster_Tests, unittest.TestCase):
    """After the loss of the old one."""

    name, new_name = "dws1", "dws2"
    # the tool checks from which cluster the backup is
    log_lines = ["--old-cluster-hostname dws1a --restore-new-cluster --restore-configs",
                 "-t start --restore-new-cluster -X"]

    @classmethod
    def setUpClass(cls):
        cls.world = world


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
