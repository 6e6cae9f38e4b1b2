"""The database's user at what root reads and writes in that user's directories, and at the pools."""
import os
import pathlib
import pwd
import subprocess

from attacks import attacker
from attacks.attacker import Attack_Test, DATABASE_USER, run_as, start_as
from protected_cluster import CACHE

META = CACHE / "meta"
SECRET = "5f0c-the-secret-of-root"
VICTIM = pathlib.Path("/root/victim")

# puts links to root's files wherever the tool's metadata are looked for, as fast as it can
SWAP_LINKS = """
import os, sys
meta, victim = sys.argv[1:]
number = 0
while True:
    number += 1
    def replace(place, target):
        name = "%s/.link%d" % (meta, number)
        try:
            os.symlink(target, name)
            os.replace(name, place)
        except OSError:
            pass
        finally:
            try:
                os.unlink(name)
            except OSError:
                pass
    # the tool reads the other file itself, and would fail before root comes to it
    replace(meta + "/bak_cluster_static_config.common", victim + "/file")
    try:
        for key in os.listdir(meta + "/roach"):
            replace("%s/%s" % (meta, key), victim)
            if number % 3 == 0:
                os.rename("%s/roach/%s" % (meta, key), "%s/gone%d" % (meta, number))
                replace("%s/roach/%s" % (meta, key), victim)
    except OSError:
        pass
"""


def ids(path):
    status = os.lstat(path)
    return status.st_uid, status.st_gid, status.st_mode


class Metadata_Attack_Test(Attack_Test):
    def setUp(self):
        VICTIM.mkdir()
        (VICTIM / "file").write_text(SECRET)
        (VICTIM / "file").chmod(0o600)
        self.before = ids(VICTIM), ids(VICTIM / "file"), ids("/etc/shadow")

    def tearDown(self):
        self.assertEqual(self.before, (ids(VICTIM), ids(VICTIM / "file"), ids("/etc/shadow")))
        self.assertEqual(SECRET, (VICTIM / "file").read_text())
        self.assertEqual(["file"], os.listdir(VICTIM))
        subprocess.check_call(["rm", "-r", VICTIM])
        self.assert_pool_has_no_secret()
        # what the attacker left in its own directory goes with the next full backup
        super().tearDown()

    def assert_pool_has_no_secret(self):
        for path in attacker.world.pools.values():
            found = subprocess.run(["grep", "-rlF", SECRET, path], stdout=subprocess.PIPE, text=True)
            self.assertEqual("", found.stdout)

    def backup(self):
        return attacker.world.run("backup", "c1", "--pool", "main", "--channels", 2,
                                  "--compression", "none", "--name", "attacked")

    def test_links_that_are_swapped_during_a_backup_lead_root_nowhere(self):
        process = start_as(DATABASE_USER, "python3", "-c", SWAP_LINKS, META, VICTIM)
        try:
            run = self.backup()
        finally:
            process.kill()
            process.wait()
        # the attacker may win or lose each race; the set is either whole or none
        self.assertIn(run["state"], ("completed", "error"), run)

    def test_a_hard_link_to_a_file_of_root_is_not_stored(self):
        secret = CACHE.parent / "secret"  # of the same file system
        secret.write_text(SECRET)
        secret.chmod(0o600)
        read_end, write_end = os.pipe()
        child = os.fork()
        if child == 0:  # as a kernel does that does not protect hard links
            os.close(write_end)
            os.set_blocking(read_end, False)
            while True:
                try:
                    if os.read(read_end, 1) == b"":
                        os._exit(0)
                except BlockingIOError:
                    pass
                for directory in META.glob("roach/*"):
                    try:
                        os.link(secret, directory / "hard")
                    except OSError:
                        pass
        os.close(read_end)
        try:
            run = self.backup()
        finally:
            os.close(write_end)
            os.waitpid(child, 0)
        self.assertEqual("completed", run["state"], run)
        self.assertIn("/hard", attacker.world.log(run))  # told as left out
        self.assertEqual((0, 0o600), (secret.stat().st_uid, secret.stat().st_mode & 0o777))
        secret.unlink()

    def test_a_restore_does_not_follow_the_tools_directory(self):
        run = attacker.world.backup("--name", "ready")
        self.assertEqual("completed", run["state"])
        done = run_as(DATABASE_USER, "sh", "-c",
                      "cd %s && mv roach kept && ln -s %s roach" % (META, VICTIM))
        self.assertEqual(0, done.returncode, done.stderr)
        restored = attacker.world.restore(run["run_id"])
        self.assertEqual("error", restored["state"], restored)
        done = run_as(DATABASE_USER, "sh", "-c", "cd %s && rm roach && mv kept roach" % META)
        self.assertEqual(0, done.returncode, done.stderr)
        rows = attacker.world.rows()
        restored = attacker.world.restore(run["run_id"])
        self.assertEqual("completed", restored["state"], restored)
        self.assertEqual(rows, attacker.world.rows())

    def test_the_agents_directories_are_the_users_and_no_more(self):
        owner = pwd.getpwnam(DATABASE_USER).pw_uid
        self.assertEqual(0, CACHE.stat().st_uid)
        self.assertEqual(owner, META.stat().st_uid)
        done = run_as(DATABASE_USER, "mv", META, CACHE / "moved")
        self.assertNotEqual(0, done.returncode)
