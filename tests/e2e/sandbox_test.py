#!/usr/bin/env python3
"""The sandbox's cluster and tools by themselves: what they back up is what they restore.

Run in a machine of the sandbox: sandbox/machine run python3 tests/e2e/sandbox_test.py [TEST ...]
"""
import json
import os
import pathlib
import pwd
import re
import signal
import socket
import subprocess
import sys
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
CLUSTER = str(ROOT / "sandbox/cluster")
HOME = pathlib.Path("/home/omm")
STORE, META = HOME / "store", HOME / "meta"
KEY = "20240101_000000"  # that no backup has


def cluster(*words, **options):
    """Runs the sandbox's command; its output. Fails the test when it fails."""
    done = subprocess.run([CLUSTER, *map(str, words)], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, **options)
    if done.returncode:
        raise AssertionError("cluster %s: %s%s" % (words, done.stdout, done.stderr))
    return done.stdout


def start_transfers():
    """A process that takes money from 4,999 accounts to one more, a piece and a row of the trail in each
    transaction, until the server ends."""
    cluster("sql", 1, "create table account as select n as id, 1000 as money from "
            "generate_series(1, 5000) n; create table trail (amount int)")
    return subprocess.Popen([CLUSTER, "sql", "1", "do $$ begin for n in 1..100000000 loop "
                             "update account set money = money - 1 where id = 1 + n % 4999;"
                             "update account set money = money + 1 where id = 5000;"
                             "insert into trail values (1); commit; end loop; end $$"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def tool(*words, **environment):
    """Runs one of the cluster's tools as its user: (exit status, stdout, stderr)."""
    settings = ["%s=%s" % pair for pair in environment.items()]
    done = subprocess.run([CLUSTER, "tool", "env", *settings, *words], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    return done.returncode, done.stdout, done.stderr


def free_port():
    with socket.socket() as listener:
        listener.bind(("", 0))
        return listener.getsockname()[1]


def common(action, meta=META, port=None):
    return ["python3", "GaussRoach.py", "-t", action, "--master-port=%d" % (port or free_port()), "--media-type", "NBU",
            "--media-destination", "pool1", "--metadata-destination", str(meta)]


def roach(action, *words, **environment):
    return tool(*common(action), *words, SANDBOX_OBJECT_DIRECTORY=STORE, **environment)


def backup(prior="", *words):
    status, out, err = roach("backup", "--compression-type=0",
                             *(["--prior-backup-key=" + prior] if prior else []), *words)
    assert status == 0, out + err
    return re.search(r"Backup key: (\d+_\d+)$", out, re.M).group(1)


def restore(key, *words):
    return roach("restore", "--clean", "--backup-key", key, *words)


def restore_and_start(key, *words):
    status, out, err = restore(key, *words)
    assert status == 0, out + err
    status, start_out, err = tool("python3", "GaussRoach.py", "-t", "start")
    assert status == 0, start_out + err
    return out


def details():
    """The list of backups as the agent reads it."""
    text = (META / "backups.ini").read_text()
    return json.loads(re.sub(r'(":\d+)UL?', r"\1", text))["BackupDetails"]


def sql(statement, node=1):
    return cluster("sql", node, statement).strip()


def roach_processes():
    """Those of the tool: process id to its parent's."""
    found = {}
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                words = (entry / "cmdline").read_bytes().split(b"\0")
                state = (entry / "stat").read_text().rsplit(") ", 1)[1].split()
            except OSError:
                continue
            if words[:2] == [b"python3", b"GaussRoach.py"] and state[0] != "Z":
                found[int(entry.name)] = int(state[1])
    return found


def master():
    """The tool's first process, whose children are the workers."""
    found = roach_processes()
    return next(pid for pid, parent in found.items() if parent not in found)


def wait_until(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("it does not come to pass")
        time.sleep(0.02)


class Sandbox_Test(unittest.TestCase):
    """One cluster for all tests; each begins with its own data and no backup."""

    @classmethod
    def setUpClass(cls):
        cluster("create", "--nodes", 2, "--no-start", "--no-fsync")
        cls.pristine = HOME / "pristine"
        subprocess.check_call(["cp", "-a", HOME / "data", cls.pristine])

    def setUp(self):
        cluster("destroy-data")
        for path in (HOME / "data", STORE, META, HOME / "space"):
            subprocess.check_call(["rm", "-rf", path])
        subprocess.check_call(["cp", "-a", self.pristine, HOME / "data"])
        for path in (STORE, META, HOME / "space"):
            path.mkdir()
            entry = pwd.getpwnam("omm")
            os.chown(path, entry.pw_uid, entry.pw_gid)
        cluster("start")

    def assert_no_backup_is_open(self):
        for node in (1, 2):
            self.assertEqual("0", sql("select count(*) from pg_replication_slots", node))
            self.assertEqual("0", sql("select count(*) from pg_stat_activity where application_name "
                                      "like 'gs_roach%'", node))

    def test_every_row_comes_back_from_a_full_backup_and_two_incremental_ones(self):
        cluster("fill", 20)
        keys = [backup()]
        states = [cluster("checksums")]
        for _ in range(2):
            cluster("change", 5)
            time.sleep(1)
            states.append(cluster("checksums"))
            keys.append(backup(keys[-1]))
        self.assertEqual(3, len(set(states)))
        for key, state in list(zip(keys, states)) + [(keys[0], states[0])]:
            cluster("destroy-data")
            out = restore_and_start(key)
            self.assertEqual(state, cluster("checksums"), key)
            steps = re.findall(r"\x1b.*Restore SUCCESSFUL", out)
            self.assertEqual(keys.index(key) + 1, len(steps), "a step of the chain each")

    def test_an_incremental_backup_costs_what_has_changed(self):
        cluster("fill", 60)
        first = backup()
        cluster("change", 5)
        second = backup(first)
        third = backup(second)
        # but for the logs: whole segments of 16 MiB
        logs = {key: sum(path.stat().st_size for path in (STORE / key).rglob("log_*"))
                for key in (first, second, third)}
        sizes = {one["BackupKey"]: one["BackupSize"] - logs[one["BackupKey"]] for one in details()}
        self.assertGreater(sizes[first], 60 << 20)
        self.assertLess(sizes[second], sizes[first] * 0.25)
        self.assertLess(sizes[third], sizes[first] * 0.1)

    def test_a_backup_under_load_is_of_one_moment(self):
        cluster("fill", 20)
        load = start_transfers()
        try:
            wait_until(lambda: int(sql("select count(*) from trail")) > 100)
            key = backup()
            key = backup(key)
            key = backup(key)
        finally:
            cluster("destroy-data")
            load.wait()
        restore_and_start(key)
        # each of the load's transactions is there as a whole or not at all
        moved = int(sql("select count(*) from trail"))
        self.assertGreater(moved, 100)
        self.assertEqual(5000 * 1000, int(sql("select sum(money) from account")))
        self.assertEqual(moved, int(sql("select money - 1000 from account where id = 5000")))
        self.assertEqual("5000", sql("set enable_seqscan = off; select count(*) from account"))

    def test_databases_tablespaces_and_dropped_tables(self):
        sql("create tablespace fast location '/home/omm/space'")
        sql("create table placed tablespace fast as select n from generate_series(1, 20000) n; "
            "create table gone as select n from generate_series(1, 20000) n; "
            "create unlogged table scratch as select n from generate_series(1, 100) n")
        first = backup()
        sql("drop table gone; insert into placed select n from generate_series(1, 7) n; "
            "truncate scratch")
        sql("create database other")
        cluster("sql", 1, "\\c other\ncreate table inside as select n from generate_series(1, 50) n")
        second = backup(first)
        state = cluster("checksums")
        self.assertIn("other public.inside 50", state)
        cluster("destroy-data")
        subprocess.check_call(["rm", "-rf", HOME / "space"])
        restore_and_start(second)
        self.assertEqual(state, cluster("checksums"))
        self.assertEqual("fast", sql("select tablespace from pg_tables where tablename = 'placed'"))

    def test_pages_that_a_table_lost_and_got_again_are_the_new_ones(self):
        sql("create table item2 as select n, repeat('x', 500) as text from generate_series(1, 4000) n")
        first = backup()
        sql("delete from item2 where n > 100; vacuum (truncate) item2")
        second = backup(first)
        states = {second: cluster("checksums")}
        sql("insert into item2 select n, 'new' from generate_series(1, 90000) n")
        third = backup(second)
        states[third] = cluster("checksums")
        for key, state in states.items():
            cluster("destroy-data")
            restore_and_start(key)
            self.assertEqual(state, cluster("checksums"))

    def test_an_incremental_backup_goes_on_where_a_restore_ended(self):
        cluster("fill", 10)
        first = backup()
        cluster("change", 5)
        second = backup(first)
        restore_and_start(second)
        cluster("change", 7)
        third = backup(second)
        state = cluster("checksums")
        cluster("destroy-data")
        restore_and_start(third)
        self.assertEqual(state, cluster("checksums"))

    def test_a_prior_backup_of_another_history_is_refused(self):
        first = backup()
        sql("create table one as select 1")
        second = backup(first)
        restore_and_start(first)
        status, out, err = roach("backup", "--prior-backup-key=" + second)
        self.assertEqual(1, status)
        self.assertIn("Take a full backup", err)
        self.assertNotIn("Backup key", out)
        self.assertEqual(2, len(details()))
        backup(first)

    def test_a_killed_backup_leaves_the_database_and_the_media_as_they_were(self):
        cluster("fill", 30)
        for part in (10, 50, 90):
            run = subprocess.Popen(
                [CLUSTER, "tool", "env", "SANDBOX_OBJECT_DIRECTORY=%s" % STORE,
                 "SANDBOX_OBJECT_RATE=20000000", *common("backup"), "--parallel-process=2"],
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            for line in run.stdout:
                found = re.search(r"N0 \S+: (\d+)[.%]", line)
                if found and int(found.group(1)) >= part:
                    break
            else:
                self.fail("no progress")
            os.kill(master(), signal.SIGKILL)
            run.stdout.close()
            run.wait()
            wait_until(lambda: not roach_processes())
            wait_until(lambda: sql("select count(*) from pg_stat_activity where application_name "
                                   "like 'gs_roach%'") == "0")
            self.assert_no_backup_is_open()
            self.assertEqual([], [path for path in STORE.rglob("*.rch")])
            self.assertFalse((META / "backups.ini").exists())
        state = cluster("checksums")
        key = backup()
        cluster("destroy-data")
        restore_and_start(key)
        self.assertEqual(state, cluster("checksums"))

    def test_a_terminated_backup_says_so_and_leaves_nothing(self):
        cluster("fill", 30)
        run = subprocess.Popen(
            [CLUSTER, "tool", "env", "SANDBOX_OBJECT_DIRECTORY=%s" % STORE,
             "SANDBOX_OBJECT_RATE=5000000", *common("backup")],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        lines = []
        for line in run.stdout:
            lines.append(line)
            if "COMPLETED" in line:
                os.kill(master(), signal.SIGTERM)
                break
        lines += run.stdout.readlines()
        self.assertEqual(1, run.wait())
        self.assertIn("Backup operation FAILED", "".join(lines))
        self.assertIn("ended by a signal", "".join(lines))
        self.assertEqual({}, roach_processes())
        self.assert_no_backup_is_open()
        self.assertEqual([], list(STORE.rglob("*.rch")) + list(STORE.rglob("*.partial")))

    def largest_object(self, key):
        return max((STORE / key).rglob("data*.rch"), key=lambda path: path.stat().st_size)

    def test_a_missing_object_is_named_and_the_running_database_is_left_alone(self):
        cluster("fill", 20)
        key = backup()
        state = cluster("checksums")
        victim = self.largest_object(key)
        victim.rename(victim.with_suffix(".away"))
        status, out, err = restore(key)
        self.assertEqual((1, True), (status, str(victim.relative_to(STORE)) in err), out + err)
        self.assertNotIn("not complete", err)
        self.assertEqual(state, cluster("checksums"), "the server was not even stopped")

    def test_a_damaged_object_is_named_and_the_data_are_gone_until_a_restore_succeeds(self):
        cluster("fill", 20)
        whole = backup()
        state = cluster("checksums")
        time.sleep(1)
        key = backup()
        victim = self.largest_object(key)
        content = victim.read_bytes()
        for damaged in (content[:-100], b"\0" * 100 + content[100:]):
            victim.write_bytes(damaged)
            status, out, err = restore(key)
            self.assertEqual((1, True), (status, str(victim.relative_to(STORE)) in err), out + err)
            self.assertIn("The data directories are not complete. Restore the cluster", err)
            self.assertNotIn("Restore SUCCESSFUL", out)
            self.assertIn("Restore operation FAILED", out)
            # what is there then does not start, whatever came before the damage
            self.assertRegex(tool("gs_om", "-t", "status")[1], "cluster_state +: Unavailable")
            status, _, err = tool("python3", "GaussRoach.py", "-t", "start")
            self.assertEqual((1, True), (status, "Failed to start" in err), err)
        restore_and_start(whole)
        self.assertEqual(state, cluster("checksums"))

    def test_a_restore_keeps_nothing_of_what_was_there(self):
        key = backup()
        sql("create table later as select 1")
        stray = HOME / "data/dn1/base/stray"
        stray.write_text("of another time")
        restore_and_start(key)
        self.assertFalse(stray.exists())
        self.assertEqual("0", sql("select count(*) from pg_class where relname = 'later'"))

    def test_a_chain_without_a_member_is_refused(self):
        first = backup()
        second = backup(first)
        subprocess.check_call(["rm", "-r", STORE / first, META / "roach" / first])
        status, _, err = restore(second)
        self.assertEqual(1, status)
        self.assertIn(first, err)
        status, _, err = roach("backup", "--prior-backup-key=20200101_000000")
        self.assertEqual(1, status)
        self.assertIn("20200101_000000", err)

    def test_a_restore_needs_the_metadata_of_its_chain(self):
        first = backup()
        sql("create table more as select 1")
        second = backup(first)
        state = cluster("checksums")
        config = next(META.glob("bak_cluster_static_config*"))
        for path, named in ((META / "backups.ini", second), (config, config.name),
                            (META / "roach" / first, first), (META / "roach" / second, second)):
            away = path.with_name(path.name + ".away")
            path.rename(away)
            status, _, err = restore(second)
            self.assertEqual((1, True), (status, named in err), err)
            away.rename(path)
        self.assertEqual(state, cluster("checksums"), "the server was not even stopped")
        cluster("destroy-data")
        restore_and_start(second)
        self.assertEqual(state, cluster("checksums"))

    def test_a_key_that_the_list_does_not_have_is_refused(self):
        backup()
        status, _, err = restore("20200101_000000")
        self.assertEqual((1, True), (status, "20200101_000000 is not in" in err), err)

    def test_one_operation_at_a_time(self):
        cluster("fill", 20)
        run = subprocess.Popen(
            [CLUSTER, "tool", "env", "SANDBOX_OBJECT_DIRECTORY=%s" % STORE,
             "SANDBOX_OBJECT_RATE=20000000", *common("backup")], stdout=subprocess.PIPE, text=True)
        for line in run.stdout:
            if "COMPLETED" in line:
                break
        status, _, err = roach("backup")
        self.assertEqual(1, status)
        self.assertIn("Another Roach operation is in progress", err)
        run.stdout.read()
        self.assertEqual(0, run.wait())

    def test_a_node_that_is_down_fails_the_backup(self):
        cluster("kill", 2)
        status, out, err = roach("backup")
        self.assertEqual(1, status)
        self.assertIn("dn_6002", err)
        self.assertIn("Backup operation FAILED", out)
        self.assertEqual("0", sql("select count(*) from pg_replication_slots"))

    def test_the_cluster_tells_its_state(self):
        def state():
            status, out, _ = tool("gs_om", "-t", "status")
            return status, *re.findall(r"(?:cluster_state|balanced)\s+: (\w+)", out)
        self.assertEqual((0, "Normal", "Yes"), state())
        cluster("switch")
        self.assertEqual((0, "Normal", "No"), state())
        cluster("switch-back")
        cluster("kill", 2)
        self.assertEqual((0, "Degraded", "Yes"), state())
        self.assertIn("Manually stopped", tool("gs_om", "-t", "status", "--detail")[1])
        cluster("kill", 1)
        self.assertEqual((0, "Unavailable", "Yes"), state())
        self.assertEqual(0, tool("gs_om", "-t", "start")[0])
        self.assertEqual((0, "Normal", "Yes"), state())
        self.assertEqual(0, tool("python3", "GaussRoach.py", "-t", "stop")[0])
        self.assertEqual((0, "Unavailable", "Yes"), state())

    def test_the_tools_tell_release_ports_and_rows(self):
        self.assertTrue(tool("gs_check", "-V")[1].startswith("gs_check (GaussDB 8.1.1 build "))
        out = tool("gs_guc", "check", "-Z", "datanode", "-D", "/home/omm/data/dn2", "-c", "port")[1]
        self.assertIn("    port=40001\n", out)
        out = tool("gs_guc", "check", "-Z", "datanode", "-I", "all", "-c", "port")[1]
        self.assertIn("The details for port:", out)
        self.assertEqual("7", tool("gsql", "-d", "postgres", "-p", "40000", "-t", "-c",
                                   "select 7")[1].strip())
        self.assertIn("PostgreSQL 9.2.4 (GaussDB 8.1.1", sql("select version()"))
        self.assertEqual("1", sql("select count(distinct(node_host)) from pgxc_node"))

    def test_a_password_is_read_from_standard_input(self):
        for word, status in (("Backup@123", 0), ("wrong", 2)):
            done = subprocess.run([CLUSTER, "tool", "gsql", "-d", "postgres", "-p", "40000", "-U", "backup", "-t",
                                   "-c", "select current_user"], input=word + "\n",
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertEqual(status, done.returncode, done.stderr)
            self.assertEqual(status == 0, "backup" in done.stdout)

    def test_unknown_options_are_refused(self):
        for words in (["gs_om", "-t", "status", "--fast"], ["gs_om", "-t", "dance"], ["gs_om"],
                      ["gs_om", "-t", "status", "--det"], ["gs_check", "-X"], ["gs_check"],
                      ["gs_guc", "check", "-Q"], ["gs_guc", "remove"], ["gsql", "--csv", "-c", "x"],
                      common("backup") + ["--with-sugar"], common("backup") + ["--nbu-policy", "x"],
                      common("backup") + ["word"], common("backup") + ["--parallel-process=0"],
                      common("backup") + ["--compression-type=5"], common("dance"),
                      common("backup")[:-2], common("restore") + ["--backup-key", KEY],
                      common("restore") + ["--clean"],
                      # of another action, of the other series, without what it goes with
                      common("backup") + ["--clean"], common("backup") + ["--backup-key", KEY],
                      common("restore") + ["--clean", "--backup-key", KEY, "--prior-backup-key", KEY],
                      common("restore") + ["--clean", "--backup-key", KEY, "--restore-configs"],
                      common("backup") + ["--mode", "cluster"],
                      ["python3", "GaussRoach.py", "-t", "start", "--media-type", "NBU"],
                      ["python3", "GaussRoach.py", "-t", "start", "-X", "/x"],
                      ["python3", "GaussRoach.py", "-t", "stop", "--clean"],
                      ["gs_om", "-t", "status", "--reset"], ["gs_om", "-t", "stop", "-m", "slow"],
                      ["gs_om", "-t", "start", "--detail"], ["gs_om", "-t", "start", "--time-out", "x"],
                      # values
                      common("backup") + ["--prior-backup-key", "yesterday"],
                      common("restore") + ["--clean", "--backup-key", "1_1"],
                      common("backup", port=80), common("backup", port=70000),
                      ["gs_guc", "check", "-I", "all", "-c", "port"],
                      ["gs_guc", "check", "-Z", "sugar", "-I", "all", "-c", "port"],
                      ["gs_guc", "check", "-Z", "datanode", "-I", "dn_1", "-c", "port"],
                      ["gs_guc", "check", "-Z", "datanode", "-Z", "coordinator", "-I", "dn_6001", "-c", "port"],
                      ["gs_guc", "check", "-Z", "datanode", "-N", "nowhere", "-I", "all", "-c", "port"],
                      ["gs_guc", "check", "-Z", "datanode", "-D", "/tmp", "-c", "port"]):
            status, out, err = tool(*words, SANDBOX_OBJECT_DIRECTORY=STORE)
            self.assertEqual(1, status, words)
            self.assertRegex(err, "GAUSS-5|gs_guc:", words)
            self.assertNotIn("Performing presetup", out, words)

    def test_a_port_that_is_in_use_is_refused(self):
        with socket.socket() as taken:
            taken.bind(("", 0))
            taken.listen()
            port = taken.getsockname()[1]
            status, _, err = tool(*common("backup", port=port), SANDBOX_OBJECT_DIRECTORY=STORE)
        self.assertEqual((1, True), (status, "listen on the port %d" % port in err), err)

    def test_only_the_cluster_s_user_in_its_environment_is_served(self):
        tools = ("gs_om -t status", "gs_check -i CheckClusterState",
                 "gs_guc check -Z datanode -I all -c port", " ".join(common("backup")))
        profile = ". /home/omm/gauss_env_profile; cd $GPHOME/script; "
        for words in tools:
            for user, reason in (([], "root permission"),
                                 (["setpriv", "--reuid=1", "--clear-groups"], "GAUSS-50323|Permission denied")):
                done = subprocess.run([*user, "bash", "-c", profile + words], text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                self.assertNotEqual(0, done.returncode, words)
                self.assertRegex(done.stderr, reason, (user, words))
            for name in ("GAUSSHOME", "GPHOME", "PGHOST", "GAUSSLOG", "GS_CLUSTER_NAME"):
                status, _, err = tool(*words.split(), **{name: ""})
                self.assertEqual(1, status, (name, words))
                self.assertIn("environment variable [%s]" % name, err, words)

    def test_the_metadata_directory_is_the_user_s_own(self):
        for change, undo in (("chown root %s", "chown omm %s"), ("chmod 777 %s", "chmod 755 %s"),
                             ("chmod 770 %s", "chmod 755 %s"), ("mv %s %s.away", "mv %s.away %s")):
            change, undo = (words.replace("%s", str(META)) for words in (change, undo))
            subprocess.check_call(change.split())
            for words in (common("backup"), common("restore") + ["--clean", "--backup-key", KEY]):
                status, _, err = tool(*words, SANDBOX_OBJECT_DIRECTORY=STORE)
                self.assertEqual((1, True), (status, str(META) in err), err)
            subprocess.check_call(undo.split())
        status, _, err = tool(*common("backup", "meta"), SANDBOX_OBJECT_DIRECTORY=STORE)
        self.assertEqual((1, True), (status, "is not absolute" in err), err)

    def test_a_status_line_begins_with_a_control_sequence(self):
        out = roach("backup")[1]
        lines = [line for line in out.splitlines() if "COMPLETED" in line]
        self.assertRegex(lines[-1], r"^\x1b\[.*N0 127\.0\.0\.1: 100% COMPLETED$")

    def test_a_backup_says_what_the_published_one_says(self):
        """As a terminal shows it: the redrawn lines are their last."""
        def shape(text):
            shown = []
            for line in text.splitlines():
                ups = line.count("\x1b[1A")
                del shown[len(shown) - ups:]
                shown.append(re.sub("\x1b\\[[0-9]*[A-Z]", "", line))
            return [re.sub(r"\d+_\d+$|\d+s$|\d+\.\d+\.\d+\.\d+", "*", line) for line in shown]
        sample = (ROOT / "tests/data/roach/backup-full-disk.txt").read_text()
        self.assertEqual(shape(sample.split("\n", 1)[1]), shape(roach("backup")[1]))


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
