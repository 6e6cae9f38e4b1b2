"""A local user at the agent's own files and socket."""
from attacks.attacker import Attack_Test, DATABASE_USER, USER, run_as


class Local_Socket_Test(Attack_Test):
    def test_nobody_but_root_reaches_the_socket(self):
        for user in (USER, DATABASE_USER):
            done = run_as(user, "zenbrak3", "info")
            self.assertNotEqual(0, done.returncode)
            self.assertIn("ermission denied", done.stderr)

    def test_keys_database_and_logs_of_runs_are_closed_to_others(self):
        for user in (USER, DATABASE_USER):
            for path in ("/var/lib/zenbrak3/access.key", "/var/lib/zenbrak3/account.key",
                         "/var/lib/zenbrak3/agent.db", "/var/lib/zenbrak3/logs"):
                done = run_as(user, "ls", path)
                self.assertNotEqual(0, done.returncode, "%s reads %s" % (user, path))
