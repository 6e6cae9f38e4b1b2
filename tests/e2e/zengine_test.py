#!/usr/bin/env python3
"""The sandbox's lone instance and its tools by themselves: what they back up is what they restore, and
what the real ones refuse they refuse.

Run in a machine of the sandbox: sandbox/machine run python3 tests/e2e/zengine_test.py [TEST ...]
"""
import fcntl
import json
import os
import pathlib
import pwd
import re
import signal
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True
from sandbox_test import HOME, cluster, start_transfers, wait_until  # noqa: E402

DATA, CACHE = HOME / "data", HOME / "cache"
PORT, PASSWORD = 1611, "Backup@123"
TOOLS = HOME / "app/bin"
ENVIRONMENT = {"GSDB_HOME": str(HOME / "app"), "GSDB_DATA": str(DATA), "LC_ALL": "C", "HOME": "/tmp",
               "PATH": "%s:/usr/bin:/bin" % TOOLS, "LD_LIBRARY_PATH": "%s/app/add-ons:%s/app/lib" % (HOME, HOME)}
SYS = "sys/%s@127.0.0.1:%d" % (PASSWORD, PORT)


def user():
    return pwd.getpwnam("omm")


def run(*words, **options):
    """Runs one of the instance's tools as its user: (exit status, stdout)."""
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, cwd="/",
                          user=user().pw_uid, group=user().pw_gid,
                          **dict({"env": ENVIRONMENT}, **options))
    return done.returncode, done.stdout


def zsql(statement, login=SYS, password=""):
    """(exit status, output) of a statement. A login without a password reads it from standard input."""
    return run("zsql", *login.split(" "), "-q", "-D", DATA, "-c", statement, input=password + "\n")


def rows(text):
    """Those between the rule and the count."""
    return [line.strip() for line in re.search(r"^-[- ]*-$\n(.*?)\n\n\d+ rows fetched\.$", text, re.M | re.S).group(1).splitlines()]


def backup_statement(name, level="0", method="zstd compressed backupset level 3", tag=None, count=2):
    return ("backup database incremental level %s format '%s/%s' as %s tag '%s' parallelism %d;"
            % (level, CACHE, name, method, tag or name, count))


def restore_statement(name, count=2):
    return ("restore database from '%s/%s' parallelism %d;\nrecover database;" % (CACHE, name, count))


def clean():
    """What is done before a restore: the files of the data directory go, its directories stay."""
    for path in (DATA / "data").iterdir():
        if not path.is_dir():
            path.unlink()


def damaged(content):
    """One bit would not do: a run of zeros has many forms."""
    middle = len(content) // 2
    return content[:middle] + bytes(one ^ 0xFF for one in content[middle:middle + 64]) + content[
        middle + 64:]


def new_cache():
    subprocess.check_call(["rm", "-rf", CACHE])
    CACHE.mkdir()
    os.chown(CACHE, user().pw_uid, user().pw_gid)


def engine_processes():
    """Of the instance, and of its client: process id to its command line."""
    found = {}
    for entry in pathlib.Path("/proc").iterdir():
        try:
            words = (entry / "cmdline").read_bytes().decode(errors="replace").split("\0")[:-1]
        except OSError:
            continue
        if entry.name.isdigit() and any(word.endswith(("bin/zengine", "bin/zsql")) for word in words[:2]):
            found[int(entry.name)] = words
    return found


class Zengine_Test(unittest.TestCase):
    """One instance for all tests; each begins with its own data and no backup."""

    @classmethod
    def setUpClass(cls):
        cluster("create", "--series", "t", "--no-fsync")
        cluster("fill", 8)
        cluster("stop")
        cls.pristine = HOME / "pristine"
        subprocess.check_call(["cp", "-a", DATA, cls.pristine])

    def setUp(self):
        cluster("destroy-data")
        subprocess.check_call(["rm", "-rf", DATA])
        subprocess.check_call(["cp", "-a", self.pristine, DATA])
        new_cache()
        cluster("start")

    def succeeds(self, statement, login=SYS):
        status, out = zsql(statement, login)
        self.assertEqual(0, status, out)
        return out

    def refuses(self, statement, error, login=SYS):
        status, out = zsql(statement, login)
        self.assertEqual(1, status, out)
        self.assertRegex(out, r"(?m)^GS-\d{5}, " + error)
        return out

    def state(self, login=SYS):
        return rows(self.succeeds("select status from dv_database", login))

    def down_to_nomount(self):
        clean()
        self.control("-t", "stop")
        self.control("-t", "start", "-m", "nomount")

    def control(self, *words, status=0):
        done = run("zctl.py", *words)
        self.assertEqual(status, done[0], done)
        return done[1]

    def restore(self, name):
        self.down_to_nomount()
        self.succeeds(restore_statement(name))
        self.succeeds("alter database open")

    def assert_lost(self, name, error):
        """The restore is refused, and the instance is not open."""
        self.down_to_nomount()
        self.refuses(restore_statement(name), error)
        self.refuses("alter database open", "")
        self.assertNotEqual(["OPEN"], self.state())

    # --- what comes back

    def test_every_row_comes_back_from_each_set_of_a_chain(self):
        states = {}
        for name, level, method in (("full", "0", "zstd compressed backupset level 3"),
                                    ("diff1", "1", "compressed backupset"),
                                    ("diff2", "1", "zstd compressed backupset level 1"),
                                    ("cumul", "1 cumulative", "zstd compressed backupset"),
                                    ("diff3", "1", "zstd compressed backupset")):
            states[name] = cluster("checksums")
            self.succeeds(backup_statement(name, level, method))
            cluster("change", 3)
            time.sleep(0.01)  # a table's name is of the millisecond
        self.assertEqual(5, len(set(states.values())))
        size = {name: sum(path.stat().st_size for path in (CACHE / name).glob("data_*"))
                for name in states}
        self.assertLess(size["diff1"], size["full"] * 0.6)
        self.assertGreater(size["cumul"], size["diff2"] * 1.2, "it has what both sets before it have")
        for name in states:
            self.restore(name)
            self.assertEqual(states[name], cluster("checksums"), name)
        # the directories that a set names, and no others
        needs = {name: [tag for tag, _ in self.head(name)["depends"]] for name in states}
        self.assertEqual({"full": [], "diff1": ["full"], "diff2": ["full", "diff1"], "cumul": ["full"],
                          "diff3": ["full", "cumul"]}, needs)

    @staticmethod
    def head(name):
        return json.loads((CACHE / name / "backupset").read_text().split("\n")[0])

    def test_nothing_that_came_after_the_set_stays(self):
        self.succeeds(backup_statement("full"))
        before = cluster("checksums")
        cluster("sql", 1, "create table later as select 1 as n; create database late")
        self.restore("full")
        self.assertEqual(before, cluster("checksums"))
        self.assertEqual("t\n", cluster("sql", 1, "select count(*) = 0 from pg_database where datname = 'late'"))

    def test_a_set_comes_back_to_where_all_was_lost(self):
        self.succeeds(backup_statement("full"))
        before = cluster("checksums")
        cluster("destroy-data")
        self.assertEqual([], list((DATA / "data").iterdir()))
        self.control("-t", "start", "-m", "nomount")
        self.succeeds(restore_statement("full"))
        self.succeeds("alter database open")
        self.assertEqual(before, cluster("checksums"))

    def test_a_backup_under_load_is_of_one_moment(self):
        load = start_transfers()
        try:
            wait_until(lambda: int(cluster("sql", 1, "select count(*) from trail")) > 100)
            self.succeeds(backup_statement("full"))
            self.succeeds(backup_statement("diff", "1"))
        finally:
            self.down_to_nomount()
            load.wait()
        self.succeeds(restore_statement("diff"))
        self.succeeds("alter database open")
        self.assertEqual("5000000\n", cluster("sql", 1, "select sum(money) from account"))
        self.assertEqual("t\n", cluster("sql", 1, "select count(*) > 100 and count(*) = (select money - "
                                        "1000 from account where id = 5000) from trail"))

    # --- a chain

    def test_a_chain_without_a_member_is_refused(self):
        for name, level in (("full", "0"), ("diff1", "1"), ("diff2", "1")):
            self.succeeds(backup_statement(name, level))
        for name in ("full", "diff1"):
            (CACHE / name).rename(CACHE / "elsewhere")
            self.assert_lost("diff2", r"Failed to open the file %s/%s/backupset" % (CACHE, name))
            (CACHE / "elsewhere").rename(CACHE / name)
        self.succeeds(restore_statement("diff2"))

    def test_another_set_in_the_place_of_a_member_is_refused(self):
        self.succeeds(backup_statement("full"))
        self.succeeds(backup_statement("diff", "1"))
        subprocess.check_call(["rm", "-r", CACHE / "full"])
        self.succeeds(backup_statement("full", tag="other"))
        self.assert_lost("diff", "Invalid backupset, .* is other, and diff needs full")

    def test_a_set_of_level_1_needs_one_of_level_0_of_the_same_history(self):
        refused = "No valid base backupset, can not execute incremental backup"
        for level in ("1", "1 cumulative"):
            self.refuses(backup_statement("first", level), refused)
        self.assertFalse((CACHE / "first").exists())
        self.succeeds(backup_statement("full"))
        self.succeeds(backup_statement("diff", "1"))
        self.restore("diff")
        # the database knows of the set "full" again, but that belongs to another history
        self.assertEqual("full\n", cluster("sql", 1, "select tag from gauss.sys_backup_sets"))
        self.refuses(backup_statement("after", "1"), refused)
        self.succeeds(backup_statement("full2"))
        self.succeeds(backup_statement("after", "1"))

    # --- damage

    def test_a_damaged_piece_is_named_and_nothing_is_opened(self):
        self.succeeds(backup_statement("full"))
        self.succeeds(backup_statement("diff", "1", "compressed backupset"))
        for name, kind in (("full", "data_*"), ("full", "ctrl_*"), ("diff", "data_*"), ("diff", "log_*")):
            piece = max((CACHE / name).glob(kind), key=lambda path: path.stat().st_size)
            content = piece.read_bytes()
            piece.write_bytes(damaged(content))
            if (name, kind) == ("full", "ctrl_*"):
                self.down_to_nomount()  # a restore of another set takes its own control file
                self.succeeds(restore_statement("diff"))
            else:
                self.assert_lost("diff", "(Failed to decompress the file %s|.*damaged)" % piece)
            piece.write_bytes(content)

    def test_a_cut_or_missing_piece_is_noticed_before_anything_is_written(self):
        self.succeeds(backup_statement("full"))
        piece = sorted((CACHE / "full").glob("data_*"))[0]
        content = piece.read_bytes()
        piece.write_bytes(content[:-1])
        self.assert_lost("full", r"File size\(\d+\) does not match with the expected")
        piece.unlink()
        self.refuses(restore_statement("full"), "Failed to open the file %s" % piece)
        self.assertEqual(["NOMOUNT"], self.state())
        piece.write_bytes(content)
        head = CACHE / "full/backupset"
        head.write_text(head.read_text().replace('"level": 0', '"level": 1'))
        self.refuses(restore_statement("full"), "Invalid backupset, the head .* is corrupted")

    # --- places

    def test_the_place_of_a_set_is_new_and_the_user_can_write_there(self):
        (CACHE / "taken").mkdir()
        for name, error in (("taken", "The file or directory .* has already existed"),
                            ("no/such", "Failed to create the path .*, error code 2")):
            self.refuses(backup_statement(name, tag="one"), error)
        os.chown(CACHE, 0, 0)
        self.refuses(backup_statement("full"), "Failed to create the path .*, error code 13")
        for path in ("cache/full", "disk:/cache", "/cache/$x"):
            self.refuses("backup database incremental level 0 format '%s' as compressed backupset tag "
                         "'one' parallelism 1" % path, "(Sql syntax error: invalid device|The directory)")
        self.assertEqual("0\n", cluster("sql", 1, "select count(*) from gauss.sys_backup_sets"))

    def test_a_full_disk_ends_a_backup_and_leaves_what_it_wrote(self):
        cluster("fill", 16)
        subprocess.check_call(["mount", "-t", "tmpfs", "-o", "size=2m,uid=%d,mode=700" % user().pw_uid,
                               "none", CACHE])
        try:
            for method in ("zstd compressed backupset", "compressed backupset"):
                self.refuses(backup_statement("full", method=method),
                             "Failed to write the file .*, the error code was 28")
                self.assertFalse((CACHE / "full/backupset").exists())
                self.assertNotEqual([], list((CACHE / "full").iterdir()))
                subprocess.check_call(["rm", "-r", CACHE / "full"])
        finally:
            subprocess.check_call(["umount", CACHE])
        self.assertEqual("0\n", cluster("sql", 1, "select count(*) from pg_replication_slots"))
        self.succeeds(backup_statement("full"))

    def test_a_restore_goes_to_an_empty_data_directory_only(self):
        self.succeeds(backup_statement("full"))
        self.control("-t", "stop")
        self.control("-t", "start", "-m", "nomount")
        self.refuses(restore_statement("full"), "The data file .* already exists")
        self.assertEqual(["NOMOUNT"], self.state())
        self.control("-t", "stop")
        cluster("destroy-data")
        (DATA / "data").rmdir()
        self.control("-t", "start", "-m", "nomount")
        self.refuses(restore_statement("full"), "The directory .* does not exist")
        self.refuses(restore_statement("nowhere"), "The directory .* is invalid")

    def test_a_tag_is_taken_once(self):
        self.succeeds(backup_statement("full"))
        self.refuses(backup_statement("again", tag="full"), "Backup tag :full already exists")
        self.assertFalse((CACHE / "again").exists())

    # --- states

    def test_each_state_takes_its_own_statements(self):
        self.succeeds(backup_statement("full"))
        self.assertEqual(["OPEN"], self.state())
        for statement in ("restore database from '/x' parallelism 1", "recover database"):
            self.refuses(statement, "Operation can only be executed in mount status")
        self.refuses("alter database open", "The database cannot be opened repeatedly")

        self.down_to_nomount()
        self.assertEqual(["NOMOUNT"], self.state())
        self.refuses(backup_statement("new"), "Backup database must in OPEN status")
        self.refuses("select sum(bytes) from dv_data_files", "Query must in OPEN status")
        for statement in ("recover database", "alter database open"):
            self.refuses(statement, "Operation .* can only be executed in mount status")
        self.refuses("alter database mount", "Failed to load control file")
        self.succeeds("restore database from '%s/full' parallelism 1" % CACHE)
        self.assertEqual(["MOUNT"], self.state())
        self.refuses(restore_statement("full"), "The database is already in the MOUNT state")
        self.refuses(backup_statement("new"), "Backup database must in OPEN status")
        self.refuses("alter database open", "Cannot open database after restore, please recover")
        self.succeeds("recover database")
        self.succeeds("alter database open")
        self.assertEqual(["OPEN"], self.state())

    def test_a_database_is_mounted_and_opened_step_by_step(self):
        before = cluster("checksums")
        self.control("-t", "stop")
        self.control("-t", "start", "-m", "nomount")
        self.succeeds("alter database mount")
        self.refuses("alter database mount", "The database is already in the MOUNT state")
        self.succeeds("alter database open")
        self.assertEqual(before, cluster("checksums"))
        self.control("-t", "stop")
        self.control("-t", "start", "-m", "mount")
        self.assertEqual(["MOUNT"], self.state())

    def test_a_restore_that_was_cut_off_leaves_nothing_to_open(self):
        self.succeeds(backup_statement("full"))
        before = cluster("checksums")
        self.down_to_nomount()
        self.succeeds("restore database from '%s/full' parallelism 1" % CACHE)
        cluster("kill", 1)
        self.control("-t", "start", "-m", "nomount")
        self.refuses("alter database mount", "Failed to load control file")
        self.control("-t", "stop")
        for mode in ((), ("-m", "mount")):
            self.control("-t", "start", *mode, status=1)
        self.restore_again("full")
        self.assertEqual(before, cluster("checksums"))

    def restore_again(self, name):
        clean()
        self.control("-t", "start", "-m", "nomount")
        self.succeeds(restore_statement(name))
        self.succeeds("alter database open")

    # --- logins, statements, words

    def test_who_may_log_in(self):
        for login in ("sys/%s@127.0.0.1:%d" % ("wrong", PORT), "nobody/x@127.0.0.1:%d" % PORT):
            self.refuses("select status from dv_database", "Incorrect user or password", login)
        self.assertEqual(["OPEN"], self.state("SYS/%s@127.0.0.1:%d" % (PASSWORD, PORT)))
        self.assertEqual(["OPEN"], self.state("/ as sysdba"))
        self.refuses("select status from dv_database", "Failed to establish connection", "sys/x@127.0.0.1:1")
        reader = "reader/%s@127.0.0.1:%d" % (PASSWORD, PORT)
        self.assertEqual(["OPEN"], self.state(reader))
        self.refuses(backup_statement("full"), "Permissions were insufficient", reader)
        self.down_to_nomount()
        # the users are in the database; SYS alone is known without it
        backup = "backup/%s@127.0.0.1:%d" % (PASSWORD, PORT)
        for login in (backup, "sys/wrong@127.0.0.1:%d" % PORT):
            self.refuses("select status from dv_database", "Incorrect user or password", login)
        self.assertEqual(["NOMOUNT"], self.state("/ as sysdba"))
        for name in ("zsql", "zctl.py"):  # as root
            done = subprocess.run([TOOLS / name, *{"zsql": ("/", "as", "sysdba", "-q", "-D", DATA, "-c",
                                                            "select status from dv_database"),
                                                   "zctl.py": ("-t", "stop")}[name]],
                                  stdout=subprocess.PIPE, text=True, env=ENVIRONMENT)
            self.assertRegex(done.stdout, "Login as sysdba is prohibited|root permission")
        self.control("-t", "stop")
        self.refuses("select status from dv_database", "Failed to establish connection")
        self.refuses("select status from dv_database", "Failed to establish connection", "/ as sysdba")

    def test_a_password_is_read_from_standard_input(self):
        for password, status in ((PASSWORD, 0), ("wrong", 1)):
            done = zsql("select status from dv_database", "sys@127.0.0.1:%d" % PORT, password)
            self.assertEqual(status, done[0], done)
            self.assertTrue(done[1].startswith("Please enter password:\n********\n"), done)

    def test_a_statement_that_is_none_is_a_syntax_error(self):
        for statement in ("drop table item", "select wrong(1)"):
            self.refuses(statement, "Sql syntax error")
        self.refuses("select 1 from dv_nothing", "The table or view DV_NOTHING does not exist")
        # one that fails is the last of its text
        self.refuses("recover database; " + backup_statement("full"), "Operation can only")
        self.assertEqual([], list(CACHE.iterdir()))

    def test_what_the_tools_need_of_their_environment(self):
        for name in ("zsql", "zengine"):
            self.assertEqual((127, ""), run(name, "-v", env=dict(ENVIRONMENT, LD_LIBRARY_PATH="/lib")))
            self.assertEqual((0, "GaussDB_T_1.0.2.B303 Release cfa19bd\n"), run(name, "-v"))
        self.assertEqual(["GaussDB_T_1.0.2.B303 Release cfa19bd"],
                         rows(self.succeeds("select version", "/ as sysdba")))
        for words in ((), ("-t", "restart"), ("-t", "start", "-m", "fast"), ("-t", "stop", "-m", "open"),
                      ("-x",), ("-t", "stop", "now")):
            self.assertIn("Parameter input error", self.control(*words, status=1))
        for name in ("GSDB_HOME", "GSDB_DATA"):
            self.assertIn("is not set", run("zctl.py", "-t", "stop", env=dict(ENVIRONMENT, **{name: ""}))[1])
        self.assertIn("is not the installation", run("zctl.py", "-t", "stop", env=dict(ENVIRONMENT, GSDB_HOME="/opt"))[1])
        self.assertIn("already running", self.control("-t", "start", status=1))
        self.assertEqual("Instance status is open.\n", self.control("-t", "status"))
        self.control("-t", "stop")
        self.assertIn("not running", self.control("-t", "stop", status=1))
        self.assertEqual("Instance status is down.\n", self.control("-t", "status"))

    def test_one_process_of_an_instance_in_every_state(self):
        line = re.compile(r"\s*(\S*)/bin/zengine.*\s*\-D\s*(\S*)\s*.*")
        for mode in ("open", "mount", "nomount"):
            self.control("-t", "stop")
            self.control("-t", "start", "-m", mode)
            found = [line.fullmatch(" ".join(words)) for words in engine_processes().values()]
            self.assertEqual([(str(HOME / "app"), str(DATA))], [one.groups() for one in found])

    # --- faults

    def test_one_backup_at_a_time(self):
        with open(DATA / "protect/backup.lock", "w") as lock:
            os.chown(lock.fileno(), user().pw_uid, user().pw_gid)
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.refuses(backup_statement("full"), "backup or delete backupset already running")
        self.succeeds(backup_statement("full"))

    def test_a_killed_client_leaves_the_database_as_it_was(self):
        cluster("fill", 40)
        for number in (signal.SIGKILL, signal.SIGTERM):
            client = subprocess.Popen(
                ["zsql", SYS, "-q", "-D", DATA, "-c", backup_statement(
                    "full%d" % number, method="zstd compressed backupset level 9")],
                stdout=subprocess.DEVNULL, user=user().pw_uid, group=user().pw_gid, env=ENVIRONMENT)
            wait_until(lambda: list((CACHE / ("full%d" % number)).glob("data_*")))
            client.send_signal(number)
            client.wait()
            wait_until(lambda: not any("zsql" in words[1] for words in engine_processes().values()))
            self.assertFalse((CACHE / ("full%d" % number) / "backupset").exists())
            wait_until(lambda: cluster("sql", 1, "select count(*) from pg_replication_slots") == "0\n")
        self.succeeds(backup_statement("next"))

    def test_a_database_that_goes_away_fails_the_backup(self):
        cluster("kill", 1)
        self.refuses(backup_statement("full"), "Failed to establish connection")
        self.assertEqual([], list(CACHE.iterdir()))
        cluster("start")
        self.succeeds(backup_statement("full"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
