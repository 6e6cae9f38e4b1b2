"""A local user at the agent's own files and socket."""
import json
import pathlib
import subprocess

from attacks.attacker import Attack_Test, DATABASE_USER, USER, run_as


class Local_Socket_Test(Attack_Test):
    def test_nobody_but_root_reaches_the_socket(self):
        for user in (USER, DATABASE_USER):
            done = run_as(user, "zenbrak3", "info")
            self.assertNotEqual(0, done.returncode)
            self.assertIn("may not use it", done.stderr)
            self.assertIn("zenbrak3-read", done.stderr)

    def test_a_reader_may_look_and_nothing_else(self):
        subprocess.run(["usermod", "-aG", "zenbrak3-read", USER], check=True)
        self.addCleanup(subprocess.run, ["gpasswd", "-d", USER, "zenbrak3-read"], check=True,
                        stdout=subprocess.DEVNULL)
        for words in (["info"], ["instances"], ["backups"], ["jobs"], ["pools"], ["check"]):
            done = run_as(USER, "zenbrak3", *words)
            self.assertEqual((0, ""), (done.returncode, done.stderr), words)
        for words in (["backup", "c1", "--pool", "main"], ["pool", "remove", "main", "--yes"],
                      ["instance", "remove", "c1", "--yes"], ["members"], ["definitions"],
                      ["audit"], ["pool", "create", "stolen", "/tmp/stolen"],
                      ["check", "c1", "--cache-dir", "/root"]):
            done = run_as(USER, "zenbrak3", *words)
            self.assertEqual(5, done.returncode, (words, done.stdout, done.stderr))
            self.assertRegex(done.stderr, "readers may only look|only administrators", words)
        self.assertFalse(pathlib.Path("/tmp/stolen").exists())

    def test_a_change_is_on_record_with_its_user(self):
        subprocess.run(["zenbrak3", "pool", "update", "main", "--limit", "0"], check=True,
                       stdout=subprocess.DEVNULL)
        failed = subprocess.run(["zenbrak3", "job", "cancel", "4f1c"], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        self.assertEqual(4, failed.returncode)
        answer = subprocess.run(["zenbrak3", "audit", "--json", "--limit", "2"], check=True,
                                stdout=subprocess.PIPE)
        newest, before = json.loads(answer.stdout)["changes"]
        self.assertEqual(("job.cancel", "4f1c", "root"),
                         (newest["method"], newest["subject"], newest["user"]))
        self.assertNotEqual(0, newest["code"])
        self.assertEqual(("pool.update", "main", "root", 0, "done"),
                         tuple(before[key] for key in ("method", "subject", "user", "code", "outcome")))

    def test_keys_database_and_logs_of_runs_are_closed_to_others(self):
        for user in (USER, DATABASE_USER):
            for path in ("/var/lib/zenbrak3/access.key", "/var/lib/zenbrak3/account.key",
                         "/var/lib/zenbrak3/agent.db", "/var/lib/zenbrak3/logs"):
                done = run_as(user, "ls", path)
                self.assertNotEqual(0, done.returncode, "%s reads %s" % (user, path))
