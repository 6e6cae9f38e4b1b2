#!/usr/bin/env python3
"""What goes wrong between this host and the management platforms of its instances. After each fault no half set
is shown, no policy and no counter file is left where none should be, and the next backup succeeds. Needs root.

    tpops_faults_test.py BUILD [TEST ...]
"""
import collections
import concurrent.futures
import os
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../sandbox"))
from agentless_world import CACHE  # noqa: E402
from machines import SERVICE, wait_until  # noqa: E402
from tpops_world import ACCOUNT, BACKUP_AGENT, PASSWORD, Tpops_World  # noqa: E402

BUILD = sys.argv.pop(1)
ON_DATABASE = """import sqlite3, sys
with sqlite3.connect("/var/lib/zenbrak3/agent.db") as database:
    database.execute(sys.argv[1])
"""
REFUSE = "create trigger refuse before update of open on backup_set begin select raise(abort, 'refused'); end"
ERROR, COMPLETED, EITHER = {"error"}, {"completed"}, {"error", "completed"}
# A call at which the platform goes down, before it is carried out or behind its answer. `skip`: calls of the kind
# that come first. `states`: how the run may end. `holds`: whether the platform's job is still running then.
Fault = collections.namedtuple("Fault", "endpoint when states skip holds", defaults=(0, False))
BACKUP_FAULTS = [
    Fault("login", "before", ERROR), Fault("login", "after", ERROR), Fault("databases", "before", ERROR),
    Fault("databases", "after", ERROR), Fault("put_extend_info", "before", ERROR),
    Fault("put_extend_info", "after", ERROR), Fault("put_extend_info", "before", ERROR, 1),
    Fault("put_extend_info", "after", ERROR, 1), Fault("jobs", "before", COMPLETED, 0, True),
    Fault("instances", "before", ERROR), Fault("instances", "after", ERROR),
    Fault("agent_status", "before", ERROR), Fault("agent_status", "after", ERROR),
    Fault("jobs", "after", COMPLETED, 0, True), Fault("create_backup", "before", ERROR),
    Fault("create_backup", "after", COMPLETED), Fault("backups", "before", ERROR),
    Fault("backups", "after", COMPLETED)]
# by the medium that the instance has before: the change is a job of its own, or refused as made already
MEDIA_FAULTS = [("nas", Fault("change_media", "before", ERROR)), ("nas", Fault("change_media", "after", ERROR)),
                ("nas", Fault("jobs", "before", ERROR)), ("xbsa", Fault("change_media", "after", ERROR))]
DIFFERENTIAL_FAULTS = [Fault("differential_backups", "before", ERROR),
                       Fault("differential_backups", "after", COMPLETED)]
LOG_FAULTS = [Fault("backups", "before", COMPLETED, 0, True), Fault("create_backup", "before", ERROR),
              Fault("create_backup", "after", COMPLETED), Fault("backups", "before", EITHER, 1)]
RESTORE_FAULTS = [
    Fault("login", "before", ERROR), Fault("login", "after", ERROR), Fault("get_extend_info", "before", ERROR),
    Fault("get_extend_info", "after", ERROR), Fault("restore", "before", ERROR),
    Fault("restore", "after", COMPLETED), Fault("jobs", "before", COMPLETED, 0, True),
    Fault("jobs", "after", COMPLETED, 0, True)]


def setUpModule():
    """Two platforms of two instances each; gs3 is reached by another user of its platform than gs4."""
    global world
    world = Tpops_World(BUILD, [["gs1", "gs2"], ["gs3", "gs4"]], 0.5)
    unittest.addModuleCleanup(world.clean)
    world.add_platforms()
    in_parallel(*[lambda name=name: world.back_up(name) for name in ("gs1", "gs2", "gs3", "gs4")])


def in_parallel(*functions):
    """Their results; the first failure is raised."""
    with concurrent.futures.ThreadPoolExecutor(len(functions)) as threads:
        return [one.result() for one in [threads.submit(function) for function in functions]]


class Fault_Test(unittest.TestCase):
    def setUp(self):
        self.platform = world.platforms[0]
        for one in world.platforms:
            one.put_right()
            self.addCleanup(one.put_right)

    def assert_failed(self, run, *reasons):
        self.assertEqual("error", run["state"], run["log"])
        for reason in reasons:
            self.assertIn(reason, run["log"])
        self.assertNotIn(run["run_id"], {one["uuid"] for one in world.sets()})

    def assert_recovered(self, *names):
        """The next backups succeed, and leave nothing."""
        in_parallel(*[lambda name=name: world.back_up(name) for name in names or ("gs1",)])
        world.assert_clean()
        self.assertEqual(set(), world.policies())

    def start_held(self, name="gs1", subtype="full"):
        """A backup that the platform holds in its middle; the run's id."""
        platform = world.platform_of(name)
        platform.control(hold=True)
        run_id = world.start_definition(**world.backup_definition(name, subtype))
        platform.wait_until_held()
        return run_id

    def let_go(self):
        for one in world.platforms:
            one.control(hold=False)

    def wait_for_progress(self, run_id):
        """The run has asked the platform at least once."""
        wait_until(lambda: world.show(run_id)["percent"] > 0, "progress")


class Calls_Test(Fault_Test):
    """The platform goes down at each call in turn, before it is carried out or behind its answer."""

    def test_a_full_backup(self):
        self.share(BACKUP_FAULTS, lambda name, fault: world.backup_definition(name))

    def test_a_full_backup_that_changes_the_medium(self):
        for name in ("first", "second"):  # a pool without a full backup of the instance
            world.ours.do("mkdir", "/srv/" + name)
            world.ours.do("zenbrak3", "pool", "create", name, "file:///srv/" + name)
        for medium, fault in MEDIA_FAULTS:
            self.platform.control(medium=medium)
            self.go_down(self.platform, fault, world.backup_definition("gs1", pool="first"))
        backup = world.back_up("gs1", pool="second")
        self.assertEqual("full", backup["type"])
        self.assert_recovered("gs1")

    def test_the_differential_and_the_log_backups(self):
        self.assert_recovered("gs1", "gs3")  # with a full backup behind the last restore
        self.share(DIFFERENTIAL_FAULTS + LOG_FAULTS, lambda name, fault: world.backup_definition(
            name, "incremental" if fault in DIFFERENTIAL_FAULTS else "log"))

    def test_a_restore(self):
        backups = {name: world.back_up(name) for name in ("gs1", "gs3")}
        rows = {name: world.platform_of(name).rows(name) for name in backups}
        self.share(RESTORE_FAULTS, lambda name, fault: world.restore_definition(backups[name]))
        for name in rows:
            self.assertEqual(rows[name], world.platform_of(name).rows(name))

    def share(self, faults, definition):
        """Every second of them goes to the other platform: most of the time is spent in waiting."""
        def series(number, name):
            for fault in faults[number::2]:
                self.go_down(world.platforms[number], fault, definition(name, fault))
        in_parallel(lambda: series(0, "gs1"), lambda: series(1, "gs3"))
        self.assert_recovered("gs1", "gs3")

    def go_down(self, platform, fault, definition):
        platform.control(hold=fault.holds)
        platform.rule(fault.endpoint, "down", when=fault.when, skip=fault.skip)
        run_id = world.start_definition(**definition)
        # it ends, or it has noticed and waits for the platform
        wait_until(lambda: world.show(run_id)["end_time"] or
                   "platform" in world.show(run_id).get("waiting_for", ""), "the end of %s" % (fault,), 120)
        self.assertTrue(platform.report()["down"], "%s was not called\n%s" % (
            fault.endpoint, world.with_log(world.show(run_id))))
        platform.control(hold=False)
        platform.put_right()
        run = world.wait(run_id)
        self.assertIn(run["state"], fault.states, "%s\n%s" % (fault, run["log"]))
        if run["type"] == "backup":
            found = run_id in {one["uuid"] for one in world.sets()}
            self.assertEqual(run["state"] == "completed", found, fault)
        # a restore that has failed leaves its policy
        source = definition["source"]["id"]
        allowed = {"tpops_%s_%s" % (source, source)} if run["type"] == "restore" and run["state"] == "error" else set()
        self.assertLessEqual({one for one in world.policies() if source in one}, allowed, fault)


class Answer_Test(Fault_Test):
    """Answers that are none."""

    def failed(self, *reasons):
        run = world.run_definition(**world.backup_definition("gs1"))
        self.assert_failed(run, *reasons)

    def test_answers_that_are_errors_or_not_json(self):
        for do, endpoint in (({"status": 500}, "put_extend_info"), ({"body": "<html>"}, "create_backup"),
                             ("cut", "create_backup"), ({"status": 403}, "put_extend_info")):
            self.platform.rule(endpoint, do, count=0)
            self.failed("put_extend_info" == endpoint and "Failed to set BackupSet info" or
                        "Failed to create backup job")
        self.platform.rule("put_extend_info", {"status": 403})  # once, which a new login heals
        self.assertEqual("full", world.back_up("gs1")["type"])
        self.assert_recovered("gs1")

    def test_a_refused_login(self):
        self.platform.control(password=[ACCOUNT, "another one"])
        self.platform.control(tokens="revoke")
        self.failed("Failed to initialize backup info")
        self.platform.control(password=[ACCOUNT, PASSWORD])
        self.assert_recovered()

    def test_a_certificate_of_another_host(self):
        self.platform.control(certificate="wrong_name")
        self.platform.control(forget=True)
        self.failed("Failed to initialize backup info")
        self.assertEqual([], self.platform.report()["requests"])  # neither password nor token was sent
        self.platform.control(certificate="good")
        self.assert_recovered()


class Middle_Test(Fault_Test):
    """In the middle of the platform's job."""

    def test_a_cancelled_backup_goes_on_at_the_platform(self):
        run_id = self.start_held()
        world.ours.do("zenbrak3", "job", "cancel", run_id)
        run = world.wait(run_id)
        self.assertEqual("canceled", run["state"], run["log"])
        self.assertRegex(run["log"], "goes on with backup 'Physical_%s', job '[0-9a-f-]+'; stop it there" % run_id)
        self.assertNotIn(run_id, {one["uuid"] for one in world.sets()})
        self.assertEqual(set(), world.policies())
        self.assertEqual(["gs1"], self.platform.report()["busy"])
        self.let_go()
        self.platform.put_right()
        self.assert_recovered()

    def test_a_killed_agent(self):
        run_id = self.start_held()
        world.ours.kill_agent()
        world.ours.start_agent()
        self.assert_failed(world.wait(run_id))
        self.let_go()
        self.platform.put_right()
        self.assert_recovered()

    def test_a_counter_file_that_is_removed_or_truncated(self):
        def spoil(name, how):
            run_id = self.start_held(name)
            self.wait_for_progress(run_id)
            how(world.ours.path(CACHE + "/tpops_%s_act" % world.instance(name)["uuid"]))
            return run_id
        runs = in_parallel(lambda: spoil("gs1", os.unlink), lambda: spoil("gs3", lambda path: os.truncate(path, 0)))
        self.let_go()
        for run in map(world.wait, runs):
            self.assertEqual("completed", run["state"], run["log"])
        self.assert_recovered("gs1", "gs3")

    def test_a_killed_backup_agent(self):
        run_id = self.start_held()
        world.ours.do(SERVICE, "stop", BACKUP_AGENT)
        self.addCleanup(lambda: world.ours.processes(BACKUP_AGENT) or world.start_backup_agent())
        self.let_go()
        self.assert_failed(world.wait(run_id), "backup for GaussDB instance 'gs1' failed")
        run = world.run_definition(**world.backup_definition("gs1"))
        self.assert_failed(run, "The retrieval of GaussDB backup client information")
        world.start_backup_agent()
        self.assert_recovered()

    def test_a_catalog_that_cannot_complete(self):
        """Behind the platform's job, when all data are in the pool."""
        self.platform.rule("backups", "wait")
        run_id = world.start_definition(**world.backup_definition("gs1"))
        self.platform.wait_until_held()
        world.ours.do("python3", "-c", ON_DATABASE, REFUSE)
        self.platform.control(rules=[])
        run = world.wait(run_id)
        world.ours.do("python3", "-c", ON_DATABASE, "drop trigger refuse")
        self.assert_failed(run, "Failed to commit GaussDB catalog")
        self.assert_recovered()


class Restore_Test(Fault_Test):
    """A restore that ends in its middle leaves its policy, and no counter file."""

    def setUp(self):
        super().setUp()
        self.backup = world.back_up("gs1")
        self.rows = self.platform.rows("gs1")
        source = self.backup["resource_uuid"]
        self.policy = "tpops_%s_%s" % (source, source)

    def start_held_restore(self):
        self.platform.control(hold=True)
        run_id = world.start_definition(**world.restore_definition(self.backup))
        self.platform.wait_until_held()
        self.assertEqual({self.policy, self.policy + "_act"}, world.policies())
        return run_id

    def assert_restorable(self):
        self.assertEqual({self.policy}, world.policies())
        self.let_go()
        self.platform.put_right()
        world.complete(world.restore_definition(self.backup))
        self.assertEqual(set(), world.policies())
        self.assertEqual(self.rows, self.platform.rows("gs1"))

    def test_a_cancelled_restore_goes_on_at_the_platform(self):
        run_id = self.start_held_restore()
        world.ours.do("zenbrak3", "job", "cancel", run_id)
        run = world.wait(run_id)
        self.assertEqual("canceled", run["state"], run["log"])
        self.assertIn("goes on with the restore of instance 'gs1'", run["log"])
        self.assertEqual(["gs1"], self.platform.report()["busy"])
        self.assert_restorable()

    def test_a_backup_agent_that_is_killed(self):
        run_id = self.start_held_restore()
        world.ours.do(SERVICE, "stop", BACKUP_AGENT)
        self.addCleanup(lambda: world.ours.processes(BACKUP_AGENT) or world.start_backup_agent())
        self.let_go()
        self.assert_failed(world.wait(run_id), "Restore GaussDB instance 'gs1' failed")
        world.start_backup_agent()
        self.assert_restorable()
        self.assert_recovered()


class Pool_Test(Fault_Test):
    def test_a_pool_that_is_full(self):
        world.ours.do("mkdir", "/srv/tiny")
        world.ours.do("mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", "/srv/tiny")
        self.addCleanup(world.ours.do, "umount", "/srv/tiny")
        world.ours.do("zenbrak3", "pool", "create", "tiny", "file:///srv/tiny")
        run = world.run_definition(**world.backup_definition("gs1", pool="tiny"))
        self.assert_failed(run, "No space left on device")
        self.assert_recovered()


class Two_Platforms_Test(Fault_Test):
    def test_one_user_name_on_two_platforms_at_once(self):
        """They share a token, which each platform refuses in turn: no data goes to the wrong instance."""
        names = {0: "gs2", 1: "gs4"}
        rows = [world.platforms[number].rows(name) for number, name in names.items()]
        for one in world.platforms:
            one.control(forget=True)
        backups = in_parallel(*[lambda name=name: world.back_up(name) for name in names.values()])
        for number, one in enumerate(world.platforms):
            foreign = {two["id"] for two in self.offered(world.platforms[1 - number])}
            for request in one.report()["requests"]:
                for key in foreign:
                    self.assertNotIn(key, "%(path)s %(query)s %(body)s" % request)
            one.change(names[number], 20)
        in_parallel(*[lambda one=one: world.complete(world.restore_definition(one)) for one in backups])
        self.assertEqual(rows, [world.platforms[number].rows(name) for number, name in names.items()])
        self.assert_recovered(*names.values())

    @staticmethod
    def offered(platform):
        return [dict(zip(("name", "id"), line.split())) for line in platform.do("list").splitlines()]


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
