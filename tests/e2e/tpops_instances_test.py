#!/usr/bin/env python3
"""Declaring, checking and changing instances of management platforms, whose users have one name. Needs root.

    tpops_instances_test.py BUILD [TEST ...]
"""
import os
import signal
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from machines import wait_until  # noqa: E402
from tpops_world import (  # noqa: E402
    ACCOUNT, ADDRESS, BACKUP_AGENT, CONFIG, OURS, PASSWORD, XBSA_PORT, Tpops_World)

BUILD = sys.argv.pop(1)
DATA = "/var/lib/zenbrak3"


def setUpModule():
    global world, first, second
    world = Tpops_World(BUILD, [["gs1", "gs2"], ["gs3"]], 1)
    unittest.addModuleCleanup(world.clean)
    first, second = world.platforms
    world.add_platforms()


def command(*words, status=0, password=None):
    """What the command prints."""
    done = subprocess.run(world.ours.words("zenbrak3", *words), input=(password or "") + "\n", text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == status, "%s: %d\n%s" % (words, done.returncode, done.stdout)
    return done.stdout


def check(name="gs1", status=1):
    return command("check", name, "--pool", "main", status=status)


class Instances_Test(unittest.TestCase):
    def tearDown(self):
        for platform in world.platforms:
            platform.put_right()

    def configure(self, **keys):
        """Other keys of the table [platform], until the end of the test."""
        config = world.ours.path(CONFIG)
        before = config.read_text()
        self.addCleanup(self.reload, before)
        self.reload(before.split("\n[platform]")[0] +
                    "\n[platform]\n" + "".join("%s = %s\n" % pair for pair in keys.items()))

    def reload(self, text):
        world.ours.path(CONFIG).write_text(text)
        world.ours.kill(signal.SIGHUP, world.ours.processes("zenbrak3-agent"))

    def test_all_is_well(self):
        for name, platform in (("gs1", first), ("gs3", second), ("gs2", first)):
            text = check(name, 0)
            self.assertNotIn("FAIL", text)
            self.assertIn("platform %s:%d: it answers" % (ADDRESS, platform.port), text)
            self.assertIn("normal, ", text)
        self.assertRegex(command("instances", "--refresh"), r"gs3 +running +TPOPS")

    def test_instances_are_removed_and_added_again(self):
        command("instance", "remove", "gs2", "--yes")
        text = command("platform", "add", "%s:%d" % (ADDRESS, first.port), "--all", "--user", ACCOUNT,
                       "--xbsa-host", OURS, "--xbsa-port", str(XBSA_PORT), "--no-xbsa-tls",
                       password=PASSWORD)
        self.assertIn("Left out gs1: an instance of this name is on record already.", text)
        self.assertIn("On record: gs2.", text)
        self.assertNotIn("FAIL", check("gs2", 0))

    def test_a_wrong_password_adds_nothing(self):
        text = command("platform", "list", "%s:%d" % (ADDRESS, first.port), "--user", ACCOUNT,
                       password="not this", status=1)
        self.assertIn("failed to connect", text)
        text = command("account", "gs1", ACCOUNT, password="not this", status=5)
        self.assertNotIn("not this", text)
        self.assertNotIn("FAIL", check(status=0))

    def test_a_new_password_outlives_a_change_and_a_restart(self):
        first.control(password=[ACCOUNT, "Another#1"])
        # before its token ends, nothing shows that the password is another one
        self.assertIn("FAIL  login as backup_admin: the platform refuses it", check())
        command("account", "gs1", ACCOUNT, password="Another#1")
        self.assertNotIn("FAIL", check(status=0))
        command("platform", "change", "gs1", "--xbsa-port", str(XBSA_PORT))
        self.assertNotIn("FAIL", check(status=0))
        world.ours.kill(signal.SIGTERM, world.ours.processes("zenbrak3-agent"))
        world.ours.agent.wait()
        world.ours.start_agent()
        self.assertNotIn("FAIL", check(status=0))
        first.put_right()
        command("account", "gs1", ACCOUNT, password=PASSWORD)

    def test_a_platform_that_does_not_answer(self):
        first.control(down=True)
        self.assertRegex(check(), r"FAIL  platform \S+: it gave no answer: .*\n +-> start the platform")
        self.assertNotIn("FAIL", check("gs3", 0))
        first.control(down=False)
        self.configure(ca_file='"/etc/zenbrak3/platform-ca.pem"', timeout=1)
        first.rule("login", "hang")
        wait_until(lambda: "FAIL  platform" in command("check", "gs1", status=1), "the shorter patience")

    def test_a_certificate_of_another_host(self):
        first.control(certificate="wrong_name")
        self.assertRegex(check(), r"FAIL  platform \S+: it gave no answer: .*(certificate|SSL)")

    def test_a_platform_of_an_unknown_authority(self):
        self.configure(timeout=60)
        wait_until(lambda: "certificate" in command("check", "gs1", status=1), "the reload")
        self.assertIn("name the authority of its certificate as ca_file", check())

    def test_verification_that_is_switched_off_is_told(self):
        self.configure(verify="false")
        wait_until(lambda: "is not verified" in command("check", "gs1"), "the reload")
        run = world.complete(world.backup_definition("gs1"))
        self.assertIn("The certificate of TPOPS platform %s:%d is not verified" % (ADDRESS, first.port),
                      run["log"])

    def test_an_instance_that_the_platform_does_not_know(self):
        first.rule("instances", {"body": '{"instances": []}'}, times=1)
        self.assertIn("FAIL  instance on the platform: the platform does not know id", check())

    def test_a_route_that_no_backup_agent_has(self):
        command("platform", "change", "gs1", "--xbsa-port", "1")
        self.addCleanup(command, "platform", "change", "gs1", "--xbsa-port", str(XBSA_PORT))
        self.assertRegex(check(), r"FAIL  XBSA route: .*has %s:%d.*\n +-> " % (OURS, XBSA_PORT))

    def test_a_backup_agent_that_is_not_running(self):
        world.ours.kill(signal.SIGKILL, world.ours.processes(BACKUP_AGENT))
        self.addCleanup(world.start_backup_agent)
        self.assertIn("no backUpAgent is running on this host", check())

    def test_a_request_that_raises_leaves_the_agent_running(self):
        agent = world.ours.processes("zenbrak3-agent")
        record = world.ours.call("gaussdb.get_instance", instance="gs1")
        params = dict(record, uid=world.ours.call("agent.info")["uid"],
                      instances=[{"id": "i9", "name": "new1"}, {"id": "i10"}])
        answer = world.ours.answer("gaussdb.add_tpops_instances", params)
        self.assertEqual(-32603, answer["error"]["code"], answer)
        self.assertEqual(agent, world.ours.processes("zenbrak3-agent"))
        self.assertIn("new1", command("instances"))
        command("instance", "remove", "new1", "--yes")

    def test_two_platforms_whose_users_have_one_name(self):
        """One is sent the token of the other and refuses it. Each backup has its own instance's rows."""
        first.control(hold=True)
        run_id = world.start_definition(**world.backup_definition("gs1"))
        first.wait_until_held()
        backups = {"gs3": world.back_up("gs3")}  # its login replaces the token of the run that is held
        first.control(forget=True)
        first.control(hold=False)
        run = world.wait(run_id)
        self.assertEqual("completed", run["state"], run["log"])
        backups["gs1"] = world.set_of(run)
        statuses = [(one["endpoint"], one["status"]) for one in first.report()["requests"]]
        refused = statuses.index(("jobs", 401))
        self.assertEqual([("login", 200), ("jobs", 200)], statuses[refused + 1:refused + 3])
        for name, backup in backups.items():
            platform = world.platform_of(name)
            rows = platform.rows(name)
            platform.change(name)
            self.assertNotEqual(rows, platform.rows(name))
            world.complete(world.restore_definition(backup))
            self.assertEqual(rows, platform.rows(name), name)

    def test_z_no_password_is_in_a_log_or_a_file(self):
        """Last: after all that the others have done."""
        for text in (PASSWORD, "Another#1", "not this"):
            found = subprocess.run(world.ours.words("grep", "-rlaF", "--", text, DATA, "/var/log", "/run/zenbrak3"),
                                   stdout=subprocess.PIPE, text=True)
            self.assertEqual("", found.stdout, text)
            self.assertNotIn(text, (world.ours.directory / "agent.log").read_text(errors="replace"))


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
