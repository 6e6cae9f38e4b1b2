#!/usr/bin/env python3
"""What goes wrong between this host and clusters on machines without an agent. After each fault no half
set, no list and no process is left on any machine, and the next backup works. Needs root.

    agentless_faults_test.py BUILD [TEST ...]
"""
import os
import signal
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_world import META, World  # noqa: E402
from machines import CLUSTER, SERVICE, wait_until  # noqa: E402

BUILD = sys.argv.pop(1)
TOOL = "/home/omm/wisequery/script/GaussRoach.py"
# runs what a login wants, but cuts the connection that has this number, or the first with this command
CUT = r"""#!/bin/bash
count=$(($(cat ~/.ssh/count) + 1))
echo $count >~/.ssh/count
at=$(cat ~/.ssh/cut_at)
if [[ $count == "$at" || ! $at =~ ^[0-9]+$ && $SSH_ORIGINAL_COMMAND == *"$at"* ]]; then
    echo 0 >~/.ssh/cut_at
    kill -9 $PPID
fi
[[ $SSH_ORIGINAL_COMMAND != internal-sftp ]] || exec /usr/lib/openssh/sftp-server
exec bash -c "$SSH_ORIGINAL_COMMAND"
"""
# a tool of the same name that has something else in mind, until it is told to stop
HOSTILE = """#!/bin/bash
if [[ $2 == stop ]]; then
    kill $(cat /tmp/hostile)
    exit
fi
echo $$ >/tmp/hostile
%s
"""


def setUpModule():
    global world
    world = World(BUILD, ["og1", "dws1"], 2)
    unittest.addModuleCleanup(world.clean)
    for name in world.clusters:
        world.backup(name)


class Fault_Test(unittest.TestCase):
    """The faults of one run of openGauss, whose tool does the least beside moving data."""

    def setUp(self):
        self.cluster = world.clusters["og1"]
        self.node = self.cluster.first

    def assert_recovered(self, name="og1"):
        world.assert_clean()
        world.backup(name)
        world.assert_clean()

    def assert_failed(self, run, *reasons):
        self.assertEqual("error", run["state"], run["log"])
        for reason in reasons:
            self.assertIn(reason, run["log"])

    def failed_backup(self, *reasons):
        self.assert_failed(world.end(world.start_backup("og1")), *reasons)

    def start_slow_backup(self, rate=1000000):
        """A backup that can be met in the middle; its run's id."""
        run_id = world.start_definition(
            name="slow", type="backup", subtype="full", target={"pool": "main"},
            rate_limits={"src_rate_limits": str(rate)}, options={"channels": 2},
            source={"id": world.instance("og1")["uuid"], "entries": ["gaussdb/og1"]})
        wait_until(lambda: world.show(run_id)["percent"] > 4, "a backup in its middle")
        return run_id

    def become(self, body):
        tool = self.node.path(TOOL)
        good = tool.read_bytes()
        tool.write_text(HOSTILE % body)

        def back():
            tool.write_bytes(good)
            self.node.path("/tmp/hostile").unlink(missing_ok=True)
        self.addCleanup(back)


class Connection_Test(Fault_Test):
    def cut_script(self, cluster, at):
        """Lets the connection with that number, counted from here, or with that command be cut."""
        home = cluster.first.path("/home/omm/.ssh")
        (home / "count").write_text("0\n")
        (home / "cut_at").write_text("%s\n" % at)
        for name in ("count", "cut_at"):
            os.chown(home / name, home.stat().st_uid, home.stat().st_gid)

    def with_cuts(self, cluster):
        home = cluster.first.path("/home/omm/.ssh")
        (home / "cut").write_text(CUT)
        (home / "cut").chmod(0o755)
        keys = home / "authorized_keys"
        whole = keys.read_text()
        own, admin = whole.splitlines()
        keys.write_text('%s\ncommand="/home/omm/.ssh/cut" %s\n' % (own, admin))
        self.addCleanup(keys.write_text, whole)

    def assert_survives_cuts(self, name, start):
        """Cuts each connection of a run in turn. A run may still succeed, for example by a second try."""
        cluster = world.clusters[name]
        self.with_cuts(cluster)
        at, counted, failed = 1, 1, 0
        while at <= counted:
            self.cut_script(cluster, at)
            before = {one["uuid"] for one in world.sets()}
            run = world.end(start())
            is_backup = run["type"] == "backup" and run["state"] == "completed"
            after = {one["uuid"] for one in world.sets()}
            self.assertEqual({run["run_id"]} if is_backup else set(), after - before)
            world.assert_clean()
            counted = int((cluster.first.path("/home/omm/.ssh/count")).read_text())
            if run["state"] != "completed":
                failed += 1
                counted = max(counted, at + 1)  # where it goes on is seen without that cut
            at += 1
        self.assertGreater(failed, 1)
        self.doCleanups()
        return failed

    def test_a_backup_of_opengauss_that_is_cut_at_each_step(self):
        self.assert_survives_cuts("og1", lambda: world.start_backup("og1"))
        self.assert_recovered()

    def test_a_backup_of_the_warehouse_that_is_cut_at_each_step(self):
        self.assert_survives_cuts("dws1", lambda: world.start_backup("dws1"))
        self.assert_recovered("dws1")

    def assert_restore_survives_cuts(self, name):
        cluster = world.clusters[name]
        rows = cluster.rows()
        backup = world.backup(name)
        self.assert_survives_cuts(name, lambda: world.start(
            "restore", backup["uuid"], "--channels", "2", "--yes"))
        world.restore(backup)
        self.assertEqual(rows, cluster.rows())
        self.assert_recovered(name)

    def test_a_restore_of_opengauss_that_is_cut_at_each_step(self):
        self.assert_restore_survives_cuts("og1")

    def test_lists_of_tables_go_when_connections_of_their_run_are_cut(self):
        self.cluster = world.clusters["dws1"]
        self.node = self.cluster.first
        resource = world.instance("dws1")["uuid"]
        key = next(one for one in world.sets() if one["instance"] == "dws1")["backup_key"]
        self.become("exit 1")
        self.with_cuts(self.cluster)
        for at in ("internal-sftp", "GaussRoach.py", "rm -f"):
            self.cut_script(self.cluster, at)
            run = world.run_definition(
                name="tables", type="restore", subtype="table", target={"id": resource},
                source={"id": resource, "backup_key": key, "restore_as": "gaussdb/dws1",
                        "entries": ["gaussdb/dws1/table/postgres/public/item/public/again"]},
                options={"channels": 2})
            self.assertEqual("error", run["state"])
            self.assertEqual("0\n", self.node.path("/home/omm/.ssh/cut_at").read_text(), at)
            world.assert_clean()
        self.doCleanups()
        self.assert_recovered("dws1")

    def test_a_connection_that_is_cut_in_the_middle_of_a_backup(self):
        run_id = self.start_slow_backup()
        tool = self.node.processes("GaussRoach.py")[0]
        self.node.kill(signal.SIGKILL, [self.session_of(tool)])
        self.assert_failed(world.wait(run_id), "Failed to execute roach backup")
        self.assert_recovered()

    def session_of(self, pid):
        """The sshd that serves the login from which a process comes."""
        while True:
            name, rest = (self.node.path("/proc/%d/stat" % pid).read_text().split("(", 1)[1]
                          .rsplit(") ", 1))
            if name == "sshd":
                return pid
            pid = int(rest.split()[1])

    def test_a_node_that_reboots_in_the_middle_of_a_backup(self):
        run_id = self.start_slow_backup()
        # nothing of it is heard on the network any more, not even an end
        self.node.do("ip", "link", "set", "cable", "down")
        for pid in [int(path.name) for path in self.node.path("/proc").iterdir() if path.name.isdigit()]:
            if pid != 1:
                self.node.do("sh", "-c", "kill -9 %d 2>/dev/null || true" % pid)
        self.node.path("/home/omm/data/dn1/postmaster.pid").unlink()
        self.node.do("ip", "link", "set", "cable", "up")
        self.node.do(CLUSTER, "sshd")
        self.node.cluster("start")
        self.assert_failed(world.wait(run_id), "Failed to execute roach backup")
        self.assert_recovered()

    def test_a_host_key_that_is_another_one_is_refused(self):
        for name in ("", ".pub"):
            self.node.do("mv", "/etc/ssh/sandbox_host_key" + name, "/root/" + "key" + name)
        self.restart_sshd()
        self.failed_backup("Host key verification failed")
        for name in ("", ".pub"):
            self.node.do("mv", "/root/key" + name, "/etc/ssh/sandbox_host_key" + name)
        self.restart_sshd()
        self.assert_recovered()

    def restart_sshd(self):
        pid = self.node.path("/run/zenbrak3-sandbox-sshd.pid")
        old = int(pid.read_text())
        self.node.kill(signal.SIGKILL, [old])
        pid.unlink()
        self.node.do(CLUSTER, "sshd")
        wait_until(pid.exists, "the new sshd")


class Tool_Test(Fault_Test):
    def test_a_port_of_the_tool_that_is_taken(self):
        listener = self.node.start("python3", "-c", "import os, socket, time; "
                                   "s = socket.create_server(('', 9500)); print(os.getpid(), flush=True); "
                                   "time.sleep(600)")
        pid = int(listener.stdout.readline())
        self.failed_backup("Failed to listen on the port 9500")
        self.node.kill(signal.SIGKILL, [pid])
        listener.communicate()
        self.assert_recovered()

    def test_a_service_that_does_not_run(self):
        world.ours.do(SERVICE, "stop", "backUpAgent")
        self.failed_backup("Failed to get roach client info")
        world.ours.do(SERVICE, "start", "backUpAgent", "--address", "10.77.0.10")
        self.assert_recovered()

    def test_a_service_that_ends_in_the_middle(self):
        run_id = self.start_slow_backup()
        world.ours.do(SERVICE, "stop", "backUpAgent")
        self.assert_failed(world.wait(run_id), "Lost the connection to the media server")
        world.ours.do(SERVICE, "start", "backUpAgent", "--address", "10.77.0.10")
        self.assert_recovered()

    def test_a_metadata_directory_that_is_full(self):
        self.node.do("mount", "-t", "tmpfs", "-o", "size=32k,mode=700", "tmpfs", META)
        self.node.do("chown", "omm:dbgrp", META)
        self.failed_backup("No space left on device")
        self.node.do("umount", META)
        self.assert_recovered()

    def test_a_second_run_of_the_same_cluster_waits_for_the_first(self):
        runs = [world.start_backup("og1", "--name", "one of two"), world.start_backup("og1", "--name", "the other")]
        for run in [world.end(process) for process in runs]:
            self.assertEqual("completed", run["state"], run["log"])
        world.assert_clean()

    def test_the_agent_is_killed(self):
        run_id = self.start_slow_backup()
        world.ours.kill_agent()
        world.ours.start_agent()
        self.assertEqual("error", world.show(run_id)["state"])
        self.assert_recovered()


class Cancel_Test(Fault_Test):
    def assert_cancelled(self, run_id, *words):
        world.ours.do("zenbrak3", "job", "cancel", run_id, *words)
        run = world.wait(run_id)
        self.assertEqual("canceled", run["state"], run["log"])
        self.assert_recovered()

    def test_at_the_beginning(self):
        run_id = world.start_definition(
            name="short", type="backup", subtype="full", target={"pool": "main"}, options={"channels": 2},
            source={"id": world.instance("og1")["uuid"], "entries": ["gaussdb/og1"]})
        self.assert_cancelled(run_id)

    def test_in_the_middle(self):
        self.assert_cancelled(self.start_slow_backup())

    def test_in_the_middle_at_once(self):
        self.assert_cancelled(self.start_slow_backup(), "--now")

    def test_at_the_end(self):
        """A cancel may come after the tool has finished. There is a complete set or none."""
        run_id = self.start_slow_backup(8000000)
        wait_until(lambda: world.show(run_id)["percent"] >= 90, "the end of a backup")
        world.ours.call("job.cancel", job=run_id)
        run = world.wait(run_id)
        self.assertIn(run["state"], ("canceled", "completed"))
        self.assertEqual(run["state"] == "completed", run_id in {one["uuid"] for one in world.sets()})
        self.assert_recovered()


class Hostile_Tool_Test(Fault_Test):
    def recover(self):
        self.doCleanups()
        self.assert_recovered()

    def test_a_tool_that_prints_control_sequences(self):
        self.become("printf '\\033]0;owned\\007\\033[2J\\rN0 1: 300%% COMPLETED\\n\\377\\376%%s%%n\\n' >&1; exit 3")
        run = world.end(world.start_backup("og1"))
        self.assert_failed(run, "Failed to execute roach backup")
        self.assertNotIn("\x1b", run["log"])
        self.assertNotIn("\x07", run["log"])
        self.recover()

    def test_a_tool_that_prints_nothing_makes_a_set_without_a_key_that_nothing_builds_on(self):
        self.become("exit 0")
        backup = world.backup("og1")
        self.assertEqual(("", 0), (backup["backup_key"], backup["backup_set_size"]))
        self.doCleanups()
        run = world.end_well(world.start_backup("og1", "--incremental"))
        self.assertNotIn("--prior-backup-key", run["log"])
        world.ours.do("zenbrak3", "backup", "remove", run["run_id"], "--yes")
        world.ours.do("zenbrak3", "backup", "remove", backup["uuid"], "--yes")
        self.assert_recovered()

    def test_a_tool_that_never_ends_is_stopped(self):
        self.become("exec sleep 3600")
        run_id = world.start_definition(
            name="endless", type="backup", subtype="full", target={"pool": "main"}, options={"channels": 2},
            source={"id": world.instance("og1")["uuid"], "entries": ["gaussdb/og1"]})
        wait_until(self.node.path("/tmp/hostile").exists, "the tool")
        world.ours.do("zenbrak3", "job", "cancel", run_id)
        self.assertEqual("canceled", world.wait(run_id)["state"])
        self.recover()

    def test_a_tool_that_prints_a_gigabyte(self):
        self.become("head -c 1073741824 /dev/zero | tr '\\\\0' 'x' | fold -w 1000; exit 1")
        self.failed_backup("Failed to execute roach backup")
        self.recover()


class Two_Clusters_Test(unittest.TestCase):
    def test_clusters_of_two_flavours_are_protected_side_by_side(self):
        clusters = world.clusters.values()
        for cluster in clusters:
            cluster.everywhere("change", 5)
        rows = [cluster.rows() for cluster in clusters]
        backups = [world.end_well(one) for one in
                   [world.start_backup(name, "--incremental") for name in world.clusters]]
        for cluster in clusters:
            cluster.lose()
        for one in [world.start("restore", backup["run_id"], "--channels", "2", "--yes")
                    for backup in backups]:
            world.end_well(one)
        self.assertEqual(rows, [cluster.rows() for cluster in clusters])
        world.assert_clean()


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
