#!/usr/bin/env python3
"""What goes wrong in a backup or a restore of a lone GaussDB T instance. After each fault there is what has
to be there and nothing else, and the next backup works.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 tests/e2e/t_faults_test.py BUILD
[TEST ...]
"""
import os
import pathlib
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from t_world import (  # noqa: E402
    CACHE, NAME, POOL, T_World, files_below, of, owned, protection, tell, wait_until)

BUILD = sys.argv.pop(1)


def setUpModule():
    global world
    world = T_World(BUILD, 1)
    unittest.addModuleCleanup(world.stop)


class Fault_Test(unittest.TestCase):
    def setUp(self):
        self.addCleanup(world.put_right)

    def assert_failed(self, run, *reasons):
        self.assertEqual("error", run["state"], run["log"])
        for reason in reasons:
            self.assertIn(reason, run["log"])

    def assert_recovered(self):
        world.clear_rules()
        world.assert_clean()
        self.good_backup()
        world.assert_clean()

    def cancelled_now(self, start, tool, text):
        """Cancels a run while its tool is held in a call. Returns the run with its log."""
        world.set_rule(tool, "hold", text)
        process = start()
        world.wait_until_held(tool)
        world.assert_cancelled_now(world.running())
        run = world.end(process)
        world.let_go()
        return run

    def good_backup(self, *words, **options):
        run = world.backup(*words, **options)
        self.assertEqual("completed", run["state"], run["log"])
        return run["run_id"]


class Backup_Fault_Test(Fault_Test):
    def test_zsql_fails_at_each_statement_of_a_backup(self):
        for mount in (False, True):
            world.set_rule("zsql", "fail", "select status from dv_database")
            self.assert_failed(world.backup(mount=mount), "Database is not open:")
            world.set_rule("zsql", "fail", "backup database")
            self.assert_failed(world.backup(mount=mount), "refused by the test")
            world.set_rule("zsql", "after", "backup database")
            self.assert_failed(world.backup(mount=mount), "refused by the test")
            world.assert_clean()
        # without the size of the data files there is a backup, without a size of its source
        world.set_rule("zsql", "fail", "select sum(bytes)")
        self.good_backup()
        self.assert_recovered()

    def test_a_database_that_is_not_open(self):
        of(NAME, "tool", "zctl.py", "-t", "stop")
        self.assert_failed(world.backup(), "Database is not open:\n")
        of(NAME, "tool", "zctl.py", "-t", "start", "-m", "mount")
        self.assert_failed(world.backup(mount=True), "Database is not open:MOUNT")
        of(NAME, "tool", "zctl.py", "-t", "stop")
        of(NAME, "start")
        self.assert_recovered()

    def test_an_account_that_has_become_wrong(self):
        of(NAME, "sql", 1, "alter role sys password 'another'")
        self.assert_failed(world.backup(), "Incorrect user or password", "Database is not open:")
        of(NAME, "sql", 1, "alter role sys password '%s'" % protection.PASSWORD)
        self.assert_recovered()

    def test_a_put_that_fails_at_the_third_file_takes_back_the_others(self):
        small = pathlib.Path("/srv/small")
        small.mkdir()
        subprocess.check_call(["mount", "-t", "tmpfs", "-o", "size=1m", "none", small])
        protection.ask("zenbrak3", "pool", "create", "small", small)
        try:
            self.assert_failed(world.backup(pool="small"), "Failed to backup %s/FULL_" % CACHE, "data_",
                               "make a full backup next")
            self.assertEqual([], list(files_below(small)))
            world.assert_clean()
        finally:
            protection.ask("zenbrak3", "pool", "remove", "small", "--yes")
            subprocess.check_call(["umount", small])
        self.assert_recovered()

    def test_a_full_cache_directory(self):
        subprocess.check_call(["mount", "-t", "tmpfs", "-o", "size=1m", "none", CACHE])
        owned(CACHE)
        try:
            self.assert_failed(world.backup(), "Failed to write the file")
            self.assertEqual([], list(CACHE.iterdir()))
        finally:
            subprocess.check_call(["umount", CACHE])
        self.assert_recovered()

    def test_a_cache_directory_of_another_user(self):
        for mount in (False, True):
            os.chown(CACHE, 0, 0)
            os.chmod(CACHE, 0o755)
            self.assert_failed(world.backup(mount=mount),
                               "does not belong" if mount else "Failed to create the path")
            owned(CACHE)
            world.assert_clean()
        self.assert_recovered()

    def test_a_mount_that_dies_during_the_statement(self):
        world.set_rule("zsql", "hold", "backup database")
        process = world.start_backup(mount=True)
        world.wait_until_held()
        control = pathlib.Path("/srv/control")
        control.mkdir()
        subprocess.check_call(["mount", "-t", "fusectl", "none", control])
        (control / str(os.minor(os.stat(CACHE).st_dev)) / "abort").write_text("1")
        subprocess.check_call(["umount", control])
        world.let_go()
        self.assert_failed(world.end(process), "GS-")
        self.assert_recovered()

    def test_a_mount_that_is_taken_away_during_the_statement(self):
        world.set_rule("zsql", "hold", "backup database")
        process = world.start_backup(mount=True)
        world.wait_until_held()
        subprocess.check_call(["umount", "-l", CACHE])
        world.let_go()
        # the database writes into the directory itself then, and nothing of it is in the pool
        self.assert_failed(world.end(process))
        subprocess.check_call("rm -rf %s/*" % CACHE, shell=True)
        self.assert_recovered()

    def test_two_jobs_at_once(self):
        world.set_rule("zsql", "hold", "backup database")
        first = world.start_backup(mount=True)
        world.wait_until_held()
        second = world.start_backup("--name", "second")
        wait_until(lambda: any(one["waiting_for"] for one in tell("jobs")["jobs"]))
        world.let_go()
        for process in (first, second):
            run = world.end(process)
            self.assertEqual("completed", run["state"], run["log"])
        world.assert_clean()

    def test_the_agent_is_killed_during_each_statement(self):
        for text, mount in (("select status", False), ("backup database", False),
                            ("backup database", True)):
            world.set_rule("zsql", "hold", text)
            process = world.start_backup(mount=mount)
            world.wait_until_held()
            world.kill_agent()
            process.communicate()
            world.let_go()
            wait_until(lambda: not world.tools())
            world.start_agent()
            # the database goes on without the agent; the next run removes what it has written by then
            self.assertEqual(1 if text.startswith("backup") and not mount else 0,
                             len(list(CACHE.iterdir())))
            self.good_backup()
            self.assert_recovered()

    def start_sending(self):
        """Starts a backup, and waits until it sends its first file. Its run's id."""
        def folders():
            return {path.parent for path in files_below(POOL / world.resource)}

        known = folders()
        run_id = world.start_slow_backup()
        wait_until(lambda: folders() - known)
        self.assertIsNone(tell("job", "show", run_id)["end_time"], "over before it was met")
        return run_id

    def test_the_agent_is_killed_while_it_sends(self):
        run_id = self.start_sending()
        world.kill_agent()
        self.assertEqual(1, len(list(CACHE.iterdir())))
        world.start_agent()
        self.assertEqual("error", tell("job", "show", run_id)["state"])
        self.good_backup()
        self.assert_recovered()

    def test_a_backup_that_is_cancelled_ends_with_its_statement(self):
        world.set_rule("zsql", "hold", "backup database")
        process = world.start_backup()
        world.wait_until_held()
        run_id = world.running()
        protection.ask("zenbrak3", "job", "cancel", run_id)
        self.assertIn("job cancel RUN --now", tell("job", "show", run_id)["message"])
        world.let_go()
        self.assertEqual("canceled", world.end(process)["state"])
        self.assert_recovered()

    def test_a_backup_that_is_cancelled_now_at_each_statement(self):
        for mount in (False, True):
            for text in ("select status", "select sum(bytes)", "backup database"):
                self.cancelled_now(lambda: world.start_backup(mount=mount), "zsql", text)
                world.assert_clean()
        self.assert_recovered()

    def test_a_backup_that_is_cancelled_now_while_it_sends(self):
        world.assert_cancelled_now(self.start_sending())
        self.assert_recovered()


def damaged(content):
    """One bit would not do: a run of zeros has many packed forms."""
    middle = len(content) // 2
    return content[:middle] + bytes(one ^ 0xFF for one in content[middle:middle + 64]) + content[
        middle + 64:]


class Restore_Fault_Test(Fault_Test):
    """The rows are those of the last restore that succeeded."""

    def setUp(self):
        super().setUp()
        self.good = self.good_backup()
        self.rows = world.rows()
        self.addCleanup(self.put_right)

    def put_right(self):
        """An instance that a failed test has left down is of use for the others again."""
        world.put_right()
        if not world.is_open():
            world.restore(self.good)

    def assert_untouched(self, run, *reasons):
        self.assert_failed(run, *reasons)
        self.assertEqual(self.rows, world.rows())

    def assert_restored(self, uuid=None, **options):
        world.clear_rules()
        run = world.restore(uuid or self.good, **options)
        self.assertEqual("completed", run["state"], run["log"])
        self.assertEqual(self.rows, world.rows())
        world.assert_clean()

    def assert_down(self, run, *reasons):
        """The restore has begun, and says what is to be done."""
        self.assert_failed(run, "is down or not open, and its data is gone", *reasons)
        self.assertIn("run the restore again", run["message"])
        self.assertFalse(world.is_open())
        world.assert_clean()

    def test_zsql_fails_at_each_statement_of_a_restore(self):
        for action, text in (("fail", "restore database"), ("spoil", "restore database"),
                             ("fail", "alter database open")):
            world.set_rule("zsql", action, text)
            self.assert_down(world.restore(self.good, mount=action == "spoil"))
        world.set_rule("zsql", "after", "alter database open")
        self.assert_failed(world.restore(self.good))
        self.assertEqual(self.rows, world.rows())
        self.assert_restored()
        self.assert_recovered()

    def test_zctl_fails_at_stop_and_at_start(self):
        of(NAME, "stop")
        self.assert_restored()  # stopping what is down fails
        world.set_rule("zctl.py", "after", "-t stop")
        run = world.restore(self.good)
        self.assertEqual("completed", run["state"], run["log"])
        world.set_rule("zctl.py", "fail", "-t start")
        self.assert_down(world.restore(self.good))
        self.assert_restored()
        self.assert_recovered()

    def damage(self, uuid):
        """Changes the largest piece of a set, until the function that it returns puts it right."""
        piece = max(world.pieces(uuid).values(), key=lambda path: path.stat().st_size)
        content = piece.read_bytes()
        piece.write_bytes(damaged(content))
        self.addCleanup(piece.write_bytes, content)
        return lambda: piece.write_bytes(content)

    def test_a_piece_that_is_missing_or_damaged(self):
        full = self.good_backup("--compression", "zstd:1")
        diff = self.good_backup("--incremental", "--compression", "zstd:1")
        for uuid in (full, diff):
            piece = max(world.pieces(uuid).values(), key=lambda path: path.stat().st_size)
            for mount in (False, True):
                away = piece.rename("/srv/away")
                run = world.restore(diff, mount=mount)
                away.rename(piece)
                self.assert_untouched(run, "Nothing was changed")
            # what the agent has packed has a checksum, which is compared before anything is touched
            put_right = self.damage(uuid)
            self.assert_untouched(world.restore(diff), "Failed to get file")
            put_right()
        self.assert_restored(diff, mount=True)
        self.assert_recovered()

    def test_nothing_is_built_on_a_set_that_the_database_alone_knows(self):
        self.good_backup("--incremental")
        of(NAME, "change", 3)
        world.set_rule("zsql", "after", "backup database")
        self.assert_failed(world.backup("--incremental"), "refused by the test")
        world.clear_rules()
        of(NAME, "change", 4)
        self.rows = world.rows()
        self.assert_failed(world.backup("--incremental"), "which is not in the catalog",
                           "make a full backup, or a cumulative one")
        self.good_backup("--cumulative")
        self.assert_restored(self.good_backup("--incremental"))

    def test_a_damaged_piece_that_the_database_finds(self):
        for mount in (False, True):
            put_right = self.damage(self.good)
            self.assert_down(world.restore(self.good, mount=mount), "GS-")
            put_right()
            self.assert_restored(mount=mount)
        self.assert_recovered()

    def test_no_room_for_the_sets(self):
        subprocess.check_call(["mount", "-t", "tmpfs", "-o", "size=1m", "none", CACHE])
        owned(CACHE)
        try:
            self.assert_untouched(world.restore(self.good), "Nothing was changed", "make room")
        finally:
            subprocess.check_call(["umount", CACHE])
        self.assert_restored()

    def test_the_agent_is_killed_while_it_fetches(self):
        run_id = world.start_slow_restore(self.good)
        wait_until(lambda: list(files_below(CACHE)))
        self.assertIsNone(tell("job", "show", run_id)["end_time"], "over before it was met")
        world.kill_agent()
        world.start_agent()
        self.assertEqual("error", tell("job", "show", run_id)["state"])
        self.assertEqual(self.rows, world.rows())
        self.assert_restored()

    def test_the_agent_is_killed_at_each_step(self):
        for tool, text, mount in (("zctl.py", "-t stop", False), ("zctl.py", "-t start", False),
                                  ("zsql", "restore database", True),
                                  ("zsql", "restore database", False),
                                  ("zsql", "alter database open", False)):
            world.set_rule(tool, "hold", text)
            process = world.start_restore(self.good, mount=mount)
            world.wait_until_held(tool)
            world.kill_agent()
            process.communicate()
            world.let_go()
            wait_until(lambda: not world.tools())
            world.start_agent()
        self.assert_restored()
        self.assert_recovered()

    def test_a_restore_that_is_cancelled_now_at_each_step(self):
        for mount in (False, True):
            for tool, text in (("zctl.py", "-t stop"), ("zctl.py", "-t start"),
                               ("zsql", "restore database"), ("zsql", "recover database"),
                               ("zsql", "alter database open")):
                run = self.cancelled_now(lambda: world.start_restore(self.good, mount=mount), tool, text)
                # the data is gone before the instance is stopped
                self.assertIn("run the restore again", run["message"], run)
                world.assert_clean()
        self.assert_restored()
        self.assert_recovered()

    def test_a_restore_that_is_cancelled_now_while_it_fetches(self):
        run_id = world.start_slow_restore(self.good)
        wait_until(lambda: list(files_below(CACHE)))
        world.assert_cancelled_now(run_id)
        self.assertEqual(self.rows, world.rows())
        world.assert_clean()
        self.assert_restored()


if __name__ == "__main__":
    words = [word for name in sys.argv[1:] for word in ("-k", name)]
    sys.exit(unittest.main(argv=sys.argv[:1] + words, verbosity=2))
