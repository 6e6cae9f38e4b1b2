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
                try:
                    for directory in META.glob("roach/*"):
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


SECOND = "gauss2"  # the user of another database, of the same group
SECOND_POLICY = CACHE / "second_policy"
LIBRARY = "/opt/quilmot/zenbrak3/lib/libxbsa64.so"
XBSA_TOOL = pathlib.Path(__file__).resolve().parents[2] / "support/xbsa_tool"


def second_user():
    try:
        return pwd.getpwnam(SECOND)
    except KeyError:
        group = str(pwd.getpwnam(DATABASE_USER).pw_gid)
        subprocess.run(["useradd", "--create-home", "-g", group, SECOND], check=True)
        return pwd.getpwnam(SECOND)


class Two_Users_Of_A_Pool_Test(Attack_Test):
    def setUp(self):
        self.user = second_user()
        self.run = attacker.world.backup("--name", "ready")
        self.assertEqual("completed", self.run["state"])
        self.pool = next(iter(attacker.world.pools.values()))
        self.objects = [path for name, path in attacker.world.objects(self.run["run_id"]).items()
                        if "/xbsa/" in name]
        self.assertTrue(self.objects)
        self.cluster = self.objects[0].relative_to(self.pool).parts[0]

    def assert_refused(self, *words, user=SECOND):
        done = run_as(user, *words)
        self.assertNotEqual(0, done.returncode, "%s did %s" % (user, words))

    def test_plain_access_reaches_nothing_of_another_user(self):
        cluster, one = self.pool / self.cluster, self.objects[0]
        before = one.read_bytes()
        for words in (["ls", self.pool], ["ls", cluster], ["ls", cluster / "xbsa"],
                      ["ls", one.parent], ["cat", one], ["rm", "-f", one],
                      ["cp", "/etc/hostname", one], ["touch", one.parent / "new"],
                      ["touch", self.pool / "new"], ["mkdir", cluster / "new"],
                      ["ls", cluster / "roach"], ["mv", cluster, self.pool / "moved"],
                      ["ln", one, self.pool / "link"], ["chmod", "777", cluster / "xbsa"]):
            self.assert_refused(*words)
        # its own user reaches that, and nothing that is root's
        for words in (["ls", self.pool], ["ls", cluster], ["ls", cluster / "roach"],
                      ["mv", cluster / "xbsa", cluster / "moved"],
                      ["ln", "-s", "/etc", cluster / "link"]):
            self.assert_refused(*words, user=DATABASE_USER)
        self.assertEqual(before, one.read_bytes())

    def test_an_edited_policy_reaches_nothing_of_another_user(self):
        tool = pathlib.Path(self.user.pw_dir) / "xbsa_tool"
        tool.write_bytes(XBSA_TOOL.read_bytes())
        tool.chmod(0o755)
        run_id = attacker.world.start_slow_backup(rate=2000000)
        try:
            attacker.world.wait_for_percent(run_id, 1)
            policy = attacker.world.policy("main")
            self.assert_refused("cat", policy)  # though it is of the same group
            # a policy of its own, as a run of its own would give it, with another's cluster_id
            SECOND_POLICY.write_bytes(policy.read_bytes())
            os.chown(SECOND_POLICY, self.user.pw_uid, 0)
            for words in (["list", "gaussdb", "*"], ["put", "gaussdb", tool],
                          ["get", "gaussdb", "*", self.user.pw_dir]):
                done = run_as(SECOND, tool, LIBRARY, SECOND_POLICY.name, *words)
                self.assertNotEqual(0, done.returncode, done.stdout)
                self.assertIn("ermission denied", done.stdout + done.stderr)
        finally:
            SECOND_POLICY.unlink(missing_ok=True)
            run = attacker.world.wait(run_id)
        self.assertEqual("completed", run["state"], run)
        for path in self.objects:
            self.assertTrue(path.exists())

    def test_what_a_user_plants_in_its_folder_leads_root_nowhere(self):
        VICTIM.mkdir()
        (VICTIM / "file").write_text(SECRET)
        before = ids(VICTIM), ids(VICTIM / "file")
        xbsa = self.pool / self.cluster / "xbsa"
        folder = xbsa / self.run["run_id"]
        try:
            for words in (["ln", "-s", VICTIM, folder / "a-link"],
                          ["mkfifo", folder / ".zenbrak3-unfinished-x"],
                          ["ln", "-s", VICTIM, xbsa / "a-link"]):
                self.assertEqual(0, run_as(DATABASE_USER, *words).returncode, words)
            subprocess.run(["zenbrak3", "backup", "remove", self.run["run_id"], "--yes"], check=True,
                           stdout=subprocess.DEVNULL, timeout=60)
            attacker.world.sets.discard(self.run["run_id"])
            self.assertEqual(before, (ids(VICTIM), ids(VICTIM / "file")))
            self.assertEqual(["file"], os.listdir(VICTIM))
        finally:
            subprocess.run(["rm", "-rf", VICTIM, folder, xbsa / "a-link"], check=True)

    def test_places_that_others_can_replace_become_no_pool(self):
        home = attacker.home()
        run_as(attacker.USER, "mkdir", "-p", home / "pool")
        run_as(DATABASE_USER, "mkdir", "-p", attacker.home(DATABASE_USER) / "pool")
        for path in (home / "pool", attacker.home(DATABASE_USER) / "pool", "/etc", "/var"):
            before = ids(path)
            done = subprocess.run(["zenbrak3", "pool", "create", "bad", path], text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.assertNotEqual(0, done.returncode, path)
            self.assertEqual(before, ids(path))
        subprocess.run(["rm", "-r", home / "pool", attacker.home(DATABASE_USER) / "pool"],
                       check=True)

    def test_check_tells_of_a_pool_that_others_can_reach(self):
        os.chmod(self.pool, 0o2770)
        try:
            done = subprocess.run(["zenbrak3", "check", "c1", "--pool", "main"], text=True,
                                  stdout=subprocess.PIPE)
            self.assertIn("--separate", done.stdout)
            subprocess.run(["zenbrak3", "pool", "update", "main", "--separate"], check=True,
                           stdout=subprocess.DEVNULL)
            self.assertEqual(0o711, self.pool.stat().st_mode & 0o7777)
            done = subprocess.run(["zenbrak3", "check", "c1", "--pool", "main"], text=True,
                                  stdout=subprocess.PIPE)
            self.assertNotIn("--separate", done.stdout)
            self.assertIn("can write to its own folder", done.stdout)
        finally:
            os.chmod(self.pool, 0o711)
