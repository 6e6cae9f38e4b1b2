#!/usr/bin/env python3
"""What goes wrong during a backup or a restore, through the whole road: zenbrak3, the agent, its
module, the database's tools, the XBSA library, the pool.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 tests/e2e/faults_test.py BUILD
BUILD is the build directory; its package is installed. After each fault everything is in order again,
and the next backup works: Protected_Cluster.assert_recovered().
"""
import os
import signal
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from protected_cluster import (  # noqa: E402
    CACHE, Protected_Cluster, cluster, kill_backup_tool, roach_processes, tell, wait_until)

BUILD = sys.argv.pop(1)


def setUpModule():
    global world
    world = Protected_Cluster(BUILD, 4)
    world.assert_recovered()


class Fault_Test(unittest.TestCase):
    """Every test ends with world.assert_recovered()."""

    def assert_failed(self, run, *reasons):
        """The run is in error, with a reason, and its log says each of these texts."""
        self.assertEqual("error", run["state"], run)
        log = world.log(run)
        self.assertIn(reasons[0], run["message"])
        for reason in reasons:
            self.assertIn(reason, log)

    def alerts(self, run):
        return [alert["text"] for alert in tell("job", "show", run["run_id"])["alert_list"]]


class Backup_Tool_Test(Fault_Test):
    def assert_survives_kill_at(self, percent):
        run_id = world.start_slow_backup()
        world.wait_for_percent(run_id, percent)
        kill_backup_tool()
        run = world.wait(run_id)
        self.assert_failed(run, "signal 9", "Failed to backup gaussdb data")
        self.assertGreaterEqual(run["percent"], percent)
        world.assert_recovered()

    def test_killed_at_10_percent(self):
        self.assert_survives_kill_at(10)

    def test_killed_at_50_percent(self):
        self.assert_survives_kill_at(50)

    def test_killed_at_90_percent(self):
        self.assert_survives_kill_at(90)

    def test_a_data_node_that_dies_fails_the_backup(self):
        run_id = world.start_slow_backup()
        world.wait_for_percent(run_id, 20)
        cluster("kill", 2)
        run = world.wait(run_id)
        self.assert_failed(run, "dn_6002")
        cluster("start")
        world.assert_recovered()


class Agent_Test(Fault_Test):
    def assert_cut_off(self, run_id):
        run = tell("job", "show", run_id)
        self.assertEqual("error", run["state"])
        self.assertIn("the agent ended while the job was running", run["message"])

    def test_killed_during_a_backup(self):
        run_id = world.start_slow_backup()
        world.wait_for_percent(run_id, 30)
        world.stop_agent(signal.SIGKILL)
        world.start_agent()
        self.assert_cut_off(run_id)
        world.assert_recovered()

    def test_a_backup_tool_that_outlives_the_agent_adds_nothing(self):
        run_id = world.start_slow_backup(rate=4000000)
        world.wait_for_percent(run_id, 5)
        # not stopped meanwhile: a stopped process group whose parent dies is hung up by the kernel
        world.stop_agent(signal.SIGKILL)
        self.assertNotEqual({}, roach_processes())
        world.start_agent()
        self.assert_cut_off(run_id)
        world.assert_recovered()

    def test_a_backup_tool_that_outlives_the_agent_is_ended_by_the_next_run(self):
        world.wait_for_percent(world.start_slow_backup(rate=1000000), 1)
        world.stop_agent(signal.SIGKILL)
        left = roach_processes()
        self.assertNotEqual({}, left)
        world.start_agent()
        run = world.backup("--name", "ready")
        # the tool itself takes no second run beside the first
        self.assertEqual("completed", run["state"], world.log(run))
        self.assertEqual(set(), set(left) & set(roach_processes()))
        world.assert_recovered()

    def test_a_backup_that_is_cancelled_goes_on_to_its_end(self):
        run_id = world.start_slow_backup()
        world.wait_for_percent(run_id, 30)
        self.assertIn("is still running", world.cancel(run_id))
        self.assertIn("job cancel RUN --now", tell("job", "show", run_id)["message"])
        run = world.wait(run_id)
        # the tool of the 200 series is not broken off: what it has made is whole, and kept
        self.assertEqual("completed", run["state"])
        world.assert_recovered()

    def assert_cancelled_now(self, run_id):
        self.assertIn("has ended: canceled", world.cancel(run_id, "--now"))
        self.assertEqual({}, roach_processes())
        self.assertFalse(world.policy("main").exists())
        self.assertEqual("canceled", world.wait(run_id)["state"])
        self.assertIn("the run was cancelled", world.log({"run_id": run_id}))
        world.assert_recovered()

    def test_a_backup_that_is_cancelled_now_leaves_nothing(self):
        run_id = world.start_slow_backup(rate=4000000)
        world.wait_for_percent(run_id, 10)
        self.assert_cancelled_now(run_id)

    def test_a_backup_tool_that_does_not_react_is_killed_when_it_is_cancelled_now(self):
        run_id = world.start_slow_backup(rate=4000000)
        world.wait_for_percent(run_id, 10)
        for pid in roach_processes():
            os.kill(pid, signal.SIGSTOP)
        self.assert_cancelled_now(run_id)

    def test_a_script_is_ended_when_its_run_is_cancelled_now(self):
        run_id = world.start_slow_backup("scripted", pre_action="touch /srv/begun; sleep 3600")
        wait_until(lambda: os.path.exists("/srv/begun"))
        os.unlink("/srv/begun")
        self.assertIn("has ended: canceled", world.cancel(run_id, "--now"))
        world.assert_recovered()

    def test_two_backups_of_one_cluster_come_one_after_the_other(self):
        first = world.start_slow_backup("first")
        world.wait_for_percent(first, 10)
        again = subprocess.run(["zenbrak3", "definition", "start", "first"], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual(5, again.returncode)
        self.assertIn("it is running already", again.stderr)
        second = world.start_slow_backup("second", rate=0)
        ends = [world.wait(run_id) for run_id in (first, second)]
        self.assertEqual(["completed"] * 2, [run["state"] for run in ends], ends)
        sets = [tell("backup", "show", run_id) for run_id in (first, second)]
        self.assertLessEqual(sets[0]["backup_end_time"], sets[1]["backup_start_time"], sets)
        world.assert_recovered()


class Pool_Test(Fault_Test):
    def test_a_limit_that_is_reached(self):
        world.make_pool("small", "/srv/small", "--limit", "4MiB")
        run = world.backup("--name", "too large", pool="small")
        self.assert_failed(run, "limit")
        world.assert_recovered()
        world.remove_pool("small")

    def test_a_disk_that_is_full(self):
        os.mkdir("/srv/tiny")
        subprocess.check_call(["mount", "-t", "tmpfs", "-o", "size=4m", "tmpfs", "/srv/tiny"])
        world.make_pool("tiny", "/srv/tiny")
        run = world.backup("--name", "too large", pool="tiny")
        self.assert_failed(run, "No space left on device")
        world.assert_recovered()
        world.remove_pool("tiny")


class Restoring_Test(Fault_Test):
    def setUp(self):
        self.rows = world.rows()
        self.servers = world.server_pids()

    def back_up_chain(self):
        full = world.backup("--name", "ready")["run_id"]
        incremental = world.backup("--name", "incremental", "--incremental")["run_id"]
        self.assertNotEqual("", tell("backup", "show", incremental)["prior_backup_key"])
        return full, incremental

    def assert_database_untouched(self):
        self.assertEqual(self.servers, world.server_pids(), "the servers were not even stopped")
        self.assertEqual(self.rows, world.rows())

    def largest_object(self, uuid):
        return max(world.objects(uuid).values(), key=lambda path: path.stat().st_size)


class Object_Test(Restoring_Test):
    def test_a_damaged_object_is_named_and_the_data_are_gone_until_a_restore_completes(self):
        uuid = world.backup("--name", "ready")["run_id"]
        victim = self.largest_object(uuid)
        content = victim.read_bytes()
        middle = len(content) // 2
        victim.write_bytes(content[:middle] + bytes([content[middle] ^ 1]) + content[middle + 1:])

        run = world.restore(uuid)

        self.assert_failed(run, "object", "Failed to restore gaussdb data")
        self.assertRegex(world.log(run), r"object \d+_\d+/dn_600\d/(data|log)")
        self.assertIn("The data directories are not complete. Restore the cluster", world.log(run))
        self.assertRegex(cluster("tool", "gs_om", "-t", "status"), "cluster_state +: Unavailable")
        refused = world.backup("--name", "of nothing")
        self.assert_failed(refused, "GaussDB cluster state is abnormal, stop backup")
        victim.write_bytes(content)
        self.assertEqual("completed", world.restore(uuid)["state"])
        self.assertEqual(self.rows, world.rows())
        world.assert_recovered()

    def test_a_missing_object_is_named_and_the_database_left_alone(self):
        uuid = world.backup("--name", "ready")["run_id"]
        victim = self.largest_object(uuid)
        victim.rename("/srv/victim")

        run = world.restore(uuid)

        self.assert_failed(run, "object", "Failed to restore gaussdb data")
        self.assertRegex(world.log(run), r"object \d+_\d+/dn_600\d/(data|log)")
        self.assert_database_untouched()
        os.rename("/srv/victim", victim)
        world.assert_recovered()


class Restart_Test(Restoring_Test):
    def test_the_database_that_a_restore_has_started_outlives_the_agent(self):
        uuid = world.backup("--name", "ready")["run_id"]
        self.assertEqual("completed", world.restore(uuid)["state"])
        servers = world.server_pids()
        self.assertNotEqual(self.servers, servers, "the restore has started none")
        world.stop_agent()
        world.start_agent()
        self.assertEqual(servers, world.server_pids())
        self.assertEqual(self.rows, world.rows())
        world.assert_recovered()


class Chain_Test(Restoring_Test):
    def test_without_the_prior_metadata_a_full_backup_is_taken(self):
        full = world.backup("--name", "ready")["run_id"]
        subprocess.check_call(["rm", "-r", CACHE / "meta"])

        run = world.backup("--name", "incremental", "--incremental")

        self.assertIn("Do full backup because prior backup key not found", world.log(run))
        made = tell("backup", "show", run["run_id"])
        self.assertEqual(("incremental", ""), (made["type"], made["prior_backup_key"]))
        self.assertEqual("full", made["level"], "as it was made")
        of_level = {level: [one["uuid"] for one in tell("backups", "c1", "--type", level)["backups"]]
                    for level in ("full", "incremental")}
        self.assertIn(run["run_id"], of_level["full"])
        self.assertNotIn(run["run_id"], of_level["incremental"])
        self.assertEqual("full", tell("job", "show", run["run_id"])["level"])
        alerts = self.alerts(run)
        self.assertEqual(1, len(alerts), alerts)
        self.assertIn("no metadata of the earlier backup, a full backup is made instead", alerts[0])
        world.forget(full)
        self.assertEqual("completed", world.restore(run["run_id"])["state"])
        self.assertEqual(self.rows, world.rows())
        world.assert_recovered()

    def test_without_a_prior_set_a_full_backup_is_taken(self):
        world.make_pool("other", "/srv/other")
        run = world.backup("--name", "first of its pool", "--incremental", pool="other")
        self.assertEqual("completed", run["state"])
        self.assertIn("Do full backup because prior backup not found", world.log(run))
        world.assert_recovered()
        world.forget(run["run_id"])
        world.remove_pool("other")

    def test_a_chain_whose_full_set_was_dropped_is_refused(self):
        full, incremental = self.back_up_chain()
        self.servers = world.server_pids()
        world.forget(full)

        run = world.restore(incremental)

        self.assert_failed(run, "Failed to get base gaussdb backup set")
        self.assert_database_untouched()
        world.assert_recovered()

    def test_a_chain_whose_full_set_has_no_objects_is_refused(self):
        full, incremental = self.back_up_chain()
        objects = [path for name, path in world.objects(full).items() if ".rch" in name]
        for number, path in enumerate(objects):
            path.rename("/srv/object%d" % number)

        run = world.restore(incremental)

        self.assert_failed(run, "object", "Failed to restore gaussdb data")
        self.assertRegex(world.log(run), r"object \d+_\d+/dn_600\d/(data|log)")
        self.assert_database_untouched()
        for number, path in enumerate(objects):
            os.rename("/srv/object%d" % number, path)
        world.assert_recovered()


class Removal_Test(Restoring_Test):
    def remove(self, *words):
        return subprocess.run(["zenbrak3", "backup", "remove", "--yes", *words], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def test_a_backup_that_others_build_on_is_refused(self):
        full, incremental = self.back_up_chain()
        refused = self.remove(full)
        self.assertEqual(5, refused.returncode)
        self.assertIn("other backups build on it: %s" % incremental, refused.stderr)
        self.assertEqual("completed", world.restore(incremental)["state"])
        self.assertEqual(self.rows, world.rows())
        world.assert_recovered()

    def test_a_chain_goes_with_all_that_it_has_in_the_pool(self):
        full, incremental = self.back_up_chain()
        removed = self.remove(full, "--with-dependents")
        self.assertEqual(0, removed.returncode, removed.stderr)
        self.assertEqual({full, incremental}, set(removed.stdout.split("Removed: ")[1].strip().split(", ")))
        world.sets -= {full, incremental}
        world.assert_recovered()

    def test_while_a_job_of_the_instance_is_on_nothing_is_removed(self):
        uuid = world.backup("--name", "ready")["run_id"]
        run_id = world.start_slow_backup()
        world.wait_for_percent(run_id, 10)
        refused = self.remove(uuid)
        self.assertEqual(5, refused.returncode)
        self.assertIn("job %s is on, which may need it" % run_id, refused.stderr)
        self.assertEqual("completed", world.wait(run_id)["state"])
        self.assertEqual(0, self.remove(uuid).returncode)
        world.sets.discard(uuid)
        world.assert_recovered()


class Cluster_State_Test(Fault_Test):
    def assert_refused(self, run, reason):
        self.assert_failed(run, reason)
        self.assertEqual(1, len(self.alerts(run)))
        self.assertNotIn("GaussRoach.py", world.log(run))

    def test_unavailable(self):
        cluster("kill", 1)
        cluster("kill", 2)
        run = world.backup("--name", "ready")
        self.assert_refused(run, "GaussDB cluster state is abnormal, stop backup")
        cluster("start")
        world.assert_recovered()

    def test_unbalanced(self):
        cluster("switch")
        run = world.backup("--name", "ready")
        self.assert_refused(run, "GaussDB cluster is unbalanced, stop backup")
        cluster("switch-back")
        world.assert_recovered()

    def test_degraded_is_tried(self):
        cluster("kill", 2)
        run = world.backup("--name", "ready")
        # of the sandbox's tool, which has no standby to read from
        self.assert_failed(run, "dn_6002")
        alerts = self.alerts(run)
        self.assertEqual(1, len(alerts), alerts)
        self.assertIn("The database's backup tool failed: Failed to backup gaussdb data", alerts[0])
        cluster("start")
        world.assert_recovered()


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
