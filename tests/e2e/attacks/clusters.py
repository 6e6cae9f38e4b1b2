"""A local user who passes a process off as another user's cluster."""
import os
import pathlib
import shutil
import signal
import subprocess

from attacks import attacker
from attacks.attacker import Attack_Test, DATABASE_USER, USER, _as_user, home
from protected_cluster import CACHE, cluster, protection, tell, wait_until

TRACES = ("gs_check", "gsql", "gs_om", "python", "python3", "GaussRoach.py")
# a tool that leaves who ran it, with which input and environment, and then does what the real one does
TRAP = """#!/bin/sh
{ id -un; env; timeout 1 cat; } >>%(home)s/trace/%(name)s 2>&1
chmod 666 %(home)s/trace/%(name)s
exec %(real)s "$@"
"""


class False_Cluster_Test(Attack_Test):
    def setUp(self):
        self.processes = []
        self.home = home()
        (self.home / "trace").mkdir()
        os.chmod(self.home / "trace", 0o777)
        shutil.copytree(home(DATABASE_USER) / "wisequery", self.home / "tool")
        for directory in ("app/bin", "app/lib", "data"):
            (self.home / directory).mkdir(parents=True)
        shutil.copy(home(DATABASE_USER) / "app/bin/cluster_static_config", self.home / "app/bin")
        for name in TRACES:
            real = self.home / "tool/script" / name
            if real.exists():
                real.rename(str(real) + ".real")
            self.trap(self.home / "app/bin" / name, "%s.real" % real if name.startswith("g") else
                      "/usr/bin/python3")
        (self.home / "profile").write_text(
            "export PATH=%(home)s/app/bin:$PATH\nexport GAUSSHOME=%(home)s/app\n"
            "export GS_CLUSTER_NAME=another\n" % dict(home=self.home))
        self.own(self.home)

    def tearDown(self):
        self.end_all()
        for name in ("trace", "tool", "app", "data", "profile"):
            path = self.home / name
            shutil.rmtree(path) if path.is_dir() else path.unlink()
        super().tearDown()

    def trap(self, path, real):
        path.write_text(TRAP % dict(home=self.home, name=path.name, real=real))
        path.chmod(0o755)

    @staticmethod
    def own(directory, user=USER):
        subprocess.check_call(["chown", "-R", "%s:" % user, directory])

    def fake(self, name, program="sleep 1000", user=USER, **variables):
        """A process that looks like a database's, of a cluster of that name."""
        variables = dict(dict(GS_CLUSTER_NAME=name, GPHOME=str(self.home / "tool"), PATH=os.environ["PATH"],
                              MPPDB_ENV_SEPARATE_PATH=str(self.home / "profile")), **variables)
        process = subprocess.Popen(
            _as_user(user, ["bash", "-c", "exec -a gaussdb %s" % program]), env=variables, cwd="/",
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.processes.append(process)
        command = pathlib.Path("/proc/%d/cmdline" % process.pid)
        wait_until(lambda: command.read_bytes().startswith(b"gaussdb"))
        return process

    def end(self, process):
        self.processes.remove(process)
        process.stdin.close()
        process.kill()
        process.wait()

    def end_all(self):
        while self.processes:
            self.end(self.processes[0])

    def restart_agent(self):
        """All that it knows from memory is gone."""
        attacker.world.stop_agent(signal.SIGTERM)
        attacker.world.start_agent()

    @staticmethod
    def refresh():
        return tell("instances", "--refresh")

    def alerts(self, name):
        return [alert["text"] for alert in self.refresh()["alerts"] if alert["instance"] == name]

    def assert_no_tool_ran(self):
        self.assertEqual([], os.listdir(self.home / "trace"))

    def assert_all_ran_as_their_user(self):
        traces = list((self.home / "trace").iterdir())
        self.assertTrue(traces)
        for trace in traces:
            text = trace.read_text()
            self.assertTrue(text.startswith(USER + "\n"), "%s ran as %s" % (trace, text[:20]))
            self.assertNotIn("\nroot\n", text)
            self.assertNotIn(protection.PASSWORD, text)

    def user_of(self, name):
        return next((one["options"].get("user") for one in tell("instances")["instances"]
                     if one["name"] == name), None)

    def forget(self, name):
        subprocess.call(["zenbrak3", "instance", "remove", name, "--yes"], stdout=subprocess.DEVNULL,
                        stderr=subprocess.DEVNULL)
        for suffix in ("", "_env"):
            (CACHE / (name + suffix)).unlink(missing_ok=True)

    def test_a_cluster_on_record_is_not_taken_over(self):
        self.fake("c1")
        self.restart_agent()
        alert, = self.alerts("c1")
        for text in (USER, DATABASE_USER, "zenbrak3 instance remove c1"):
            self.assertIn(text, alert)
        self.assertIn("postgres", protection.ask("zenbrak3", "databases", "c1"))
        self.assertEqual(DATABASE_USER, self.user_of("c1"))
        self.assertIn("Alert: process", protection.ask("zenbrak3", "instances"))
        checked = subprocess.run(["zenbrak3", "check", "c1"], stdout=subprocess.PIPE, text=True)
        self.assertEqual(1, checked.returncode)
        self.assertIn("FAIL  alert: process", checked.stdout)
        run = attacker.world.backup("--name", "ready")
        self.assertEqual("completed", run["state"])
        self.assert_no_tool_ran()

    def test_a_stopped_cluster_is_not_taken_over(self):
        cluster("stop")
        try:
            self.fake("c1")
            self.restart_agent()
            self.assertEqual(1, len(self.alerts("c1")))
            subprocess.call(["zenbrak3", "databases", "c1"], stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
            self.assertEqual(DATABASE_USER, self.user_of("c1"))
            self.assert_no_tool_ran()
        finally:
            cluster("start")

    def test_a_false_cluster_that_came_first_gets_nothing_and_is_put_right(self):
        cluster("stop")
        try:
            protection.ask("zenbrak3", "instance", "remove", "c1", "--yes")
            process = self.fake("c1")
            self.refresh()
            self.assertEqual(USER, self.user_of("c1"))
            cluster("start")
            alert, = self.alerts("c1")
            self.assertIn(USER, alert)
            self.assertIn(DATABASE_USER, alert)
            self.assert_all_ran_as_their_user()
            # both run, and neither is on record
            protection.ask("zenbrak3", "instance", "remove", "c1", "--yes")
            self.assertIn("both belong", self.alerts("c1")[0])
            self.assertIsNone(self.user_of("c1"))
            self.end(process)
            self.assertEqual([], self.alerts("c1"))
            self.assertEqual(DATABASE_USER, self.user_of("c1"))
        finally:
            self.end_all()
            cluster("start")
            if self.user_of("c1") != DATABASE_USER:
                self.forget("c1")
                self.refresh()
            protection.save_account("c1")

    def test_a_cluster_of_ones_own_runs_as_oneself(self):
        try:
            # the way to the library of another user's cluster
            target = home(DATABASE_USER) / "app/lib/libsimsearch"
            owner = target.stat().st_uid
            (self.home / "app/lib").rmdir()
            os.symlink(target.parent, self.home / "app/lib")
            subprocess.check_call(["chown", "-h", USER, self.home / "app/lib"])
            self.fake("m1")
            self.refresh()
            self.assertEqual(owner, target.stat().st_uid)
            (self.home / "app/lib").unlink()
            (self.home / "app/lib").mkdir()
            self.own(self.home / "app/lib")
            self.refresh()
            self.assertEqual(USER, self.user_of("m1"))
            self.assert_all_ran_as_their_user()
        finally:
            self.end_all()
            self.forget("m1")
        self.assertIsNone(self.user_of("m1"))

    def test_a_program_with_the_rights_of_root_makes_no_cluster_of_roots(self):
        self.fake("evil", program="su")
        alert, = self.alerts("evil")
        self.assertIn("was started by uid", alert)
        self.assert_no_tool_ran()
        self.assertIsNone(self.user_of("evil"))

    def test_tools_that_others_can_change_are_not_run(self):
        bait = home(DATABASE_USER) / "bait"
        bait.write_text("export PATH=%s/app/bin:$PATH\nexport GAUSSHOME=/home/omm/app\n" % self.home)
        self.own(bait, DATABASE_USER)
        try:
            for path in (bait, self.home / "profile"):
                process = self.fake("bait", user=DATABASE_USER, MPPDB_ENV_SEPARATE_PATH=str(path),
                                    GPHOME=str(home(DATABASE_USER) / "wisequery"))
                alert, = self.alerts("bait")
                self.assertIn("belongs to uid", alert)
                self.end(process)
        finally:
            bait.unlink()
        self.assert_no_tool_ran()

    def test_a_secret_file_of_root_is_not_read_for_a_process(self):
        secret = "/root/.secret_profile"
        with open(secret, "w") as out:
            out.write("export SECRET=of-root\nexport PATH=%s/app/bin:$PATH\n" % self.home)
        os.chmod(secret, 0o600)
        try:
            self.fake("spy", MPPDB_ENV_SEPARATE_PATH=secret)
            self.refresh()
        finally:
            os.unlink(secret)
        for trace in (self.home / "trace").iterdir():
            self.assertNotIn("of-root", trace.read_text())
        self.assertIsNone(self.user_of("spy"))

    def test_many_processes_do_not_fill_the_log(self):
        with open(protection.AGENT_LOG) as log:
            log.seek(0, os.SEEK_END)
            self.fake("c1")
            for _ in range(5):
                self.refresh()
            self.assertEqual(1, log.read().count("claims cluster"))
