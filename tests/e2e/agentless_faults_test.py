#!/usr/bin/env python3
"""What goes wrong between this host and an openGauss cluster on a machine without an agent. After each fault no
half set, no list and no process is left on any machine, and the next run works. Needs root.

    agentless_faults_test.py BUILD [TEST ...]
"""
import os
import signal
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_faults import Cut_Test, Fault_Test, Wrapped_Login_Test  # noqa: E402
from agentless_world import META, World  # noqa: E402
from machines import CLUSTER, SERVICE, wait_until  # noqa: E402

BUILD = sys.argv.pop(1)


def setUpModule():
    Fault_Test.world, Fault_Test.name = World(BUILD, ["og1"], 2), "og1"
    unittest.addModuleCleanup(Fault_Test.world.clean)
    Fault_Test.world.backup("og1")


class Steps_Test(Cut_Test):
    def test_a_backup_that_is_cut_at_each_step(self):
        self.assert_survives_cuts(self.backup_definition())

    def test_a_restore_that_is_cut_at_each_step(self):
        rows = self.cluster.rows()
        self.assert_survives_cuts(self.restore_definition(self.world.backup(self.name)))
        self.assertEqual(rows, self.cluster.rows())


class Slow_Backup_Test(Fault_Test):
    def start_slow_backup(self, **options):
        return self.start_slow(self.backup_definition(), **options)

    def failed_backup(self, *reasons):
        self.assert_failed(self.world.run_definition(**self.backup_definition()), *reasons)


class Connection_Test(Slow_Backup_Test):
    def test_a_connection_that_is_cut_in_the_middle_of_a_backup(self):
        run_id = self.start_slow_backup()
        tool = self.node.processes("GaussRoach.py")[0]
        self.node.kill(signal.SIGKILL, [self.session_of(tool)])
        self.assert_failed(self.world.wait(run_id), "Failed to execute roach backup")
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
        self.assert_failed(self.world.wait(run_id), "Failed to execute roach backup")
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


class Tool_Test(Slow_Backup_Test):
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
        self.world.ours.do(SERVICE, "stop", "backUpAgent")
        self.failed_backup("Failed to get roach client info")
        self.world.ours.do(SERVICE, "start", "backUpAgent", "--address", "10.77.0.10")
        self.assert_recovered()

    def test_a_service_that_ends_in_the_middle(self):
        run_id = self.start_slow_backup()
        self.world.ours.do(SERVICE, "stop", "backUpAgent")
        self.assert_failed(self.world.wait(run_id), "Lost the connection to the media server")
        self.world.ours.do(SERVICE, "start", "backUpAgent", "--address", "10.77.0.10")
        self.assert_recovered()

    def test_a_metadata_directory_that_is_full(self):
        self.node.do("mount", "-t", "tmpfs", "-o", "size=32k,mode=700", "tmpfs", META)
        self.node.do("chown", "omm:dbgrp", META)
        self.failed_backup("No space left on device")
        self.node.do("umount", META)
        self.assert_recovered()

    def test_a_second_run_of_the_same_cluster_waits_for_the_first(self):
        runs = [self.world.start_backup("og1", "--name", "one of two"), self.world.start_backup("og1", "--name", "the other")]
        for run in [self.world.end(process) for process in runs]:
            self.assertEqual("completed", run["state"], run["log"])
        self.world.assert_clean()

    def test_the_agent_is_killed(self):
        run_id = self.start_slow_backup()
        self.world.ours.kill_agent()
        self.world.ours.start_agent()
        self.assertEqual("error", self.world.show(run_id)["state"])
        self.assert_recovered()


class Cancel_Test(Wrapped_Login_Test, Slow_Backup_Test):
    def setUp(self):
        super().setUp()
        self.with_wrapped_logins()

    def test_at_the_beginning(self):
        self.assert_cancelled(self.world.start_definition(**self.backup_definition()))
        self.assert_recovered()

    def test_in_the_middle(self):
        for words in ([], ["--now"]):
            _, tool_ran = self.assert_cancelled(self.start_slow_backup(), *words)
            self.assertTrue(tool_ran)
        self.assert_recovered()

    def test_at_the_end(self):
        """A cancel may come after the tool has finished. There is a complete set or none."""
        run_id = self.start_slow_backup(rate=8000000, percent=90)
        run, _ = self.assert_cancelled(run_id, may_complete=True)
        self.assertEqual(run["state"] == "completed", run_id in {one["uuid"] for one in self.world.sets()})
        self.assert_recovered()

    def test_a_tool_that_never_ends_is_stopped(self):
        self.become("exec sleep 3600")
        self.assert_hostile_tool_is_stopped()

    def test_a_stop_that_never_ends(self):
        self.become("exec sleep 3600", stop="while echo waits; do sleep 0.1; done")
        self.assert_hostile_tool_is_stopped()

    def assert_hostile_tool_is_stopped(self):
        run_id = self.world.start_definition(**self.backup_definition())
        wait_until(self.node.path("/tmp/hostile").exists, "the tool")
        _, tool_ran = self.assert_cancelled(run_id)
        self.assertTrue(tool_ran)
        self.doCleanups()
        self.assert_recovered()

    def test_a_restore(self):
        """Each leaves what the next one overwrites."""
        rows, backup = self.cluster.rows(), self.world.backup(self.name)
        restore = self.restore_definition(backup)
        self.assert_cancelled(self.world.start_definition(**restore))
        for words in ([], ["--now"]):
            _, tool_ran = self.assert_cancelled(self.start_slow(restore), *words)
            self.assertTrue(tool_ran)
        self.assert_cancelled(self.start_slow(restore, rate=8000000, percent=90), may_complete=True)
        self.world.restore(backup)
        self.assertEqual(rows, self.cluster.rows())


class Hostile_Tool_Test(Slow_Backup_Test):
    def recover(self):
        self.doCleanups()
        self.assert_recovered()

    def test_a_tool_that_prints_control_sequences(self):
        self.become("printf '\\033]0;owned\\007\\033[2J\\rN0 1: 300%% COMPLETED\\n\\377\\376%%s%%n\\n' >&1; exit 3")
        run = self.world.run_definition(**self.backup_definition())
        self.assert_failed(run, "Failed to execute roach backup")
        shown = self.world.ours.do("zenbrak3", "job", "log", run["run_id"])
        self.assertIn("owned", shown)
        self.assertNotIn("\x1b", shown)
        self.assertNotIn("\x07", shown)
        self.recover()

    def test_a_tool_that_prints_nothing_makes_a_set_without_a_key_that_nothing_builds_on(self):
        self.become("exit 0")
        backup = self.world.backup("og1")
        self.assertEqual(("", 0), (backup["backup_key"], backup["backup_set_size"]))
        self.doCleanups()
        run = self.world.end_well(self.world.start_backup("og1", "--incremental"))
        self.assertNotIn("--prior-backup-key", run["log"])
        self.world.ours.do("zenbrak3", "backup", "remove", run["run_id"], "--yes")
        self.world.ours.do("zenbrak3", "backup", "remove", backup["uuid"], "--yes")
        self.assert_recovered()

    def test_a_tool_that_prints_a_gigabyte(self):
        self.become("head -c 1073741824 /dev/zero | tr '\\\\0' 'x' | fold -w 1000; exit 1")
        self.failed_backup("Failed to execute roach backup")
        self.recover()


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
