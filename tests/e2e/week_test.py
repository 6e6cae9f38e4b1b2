#!/usr/bin/env python3
"""docs/a-week.md, word for word: a week of an administrator who has no other commands than the page's.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 PATH/week_test.py BUILD

The clock of the agent and of the command is libfaketime's: it stands where a heading of the page says, and goes on
from there. The databases and their tools have the machine's own clock, since libfaketime breaks their sleep; so the
keys of backups have the times of the test. What the page's people do not do, the test does beside it: faults, and
what systemd does when a package is installed or removed.
"""
import datetime
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from page_steps import ROOT, chapter, commands  # noqa: E402
from sandbox_test import cluster, wait_until  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from protection import tell  # noqa: E402

PAGE = "docs/a-week.md"
BUILD = sys.argv.pop(1)
CLUSTERS = {"sales": ("omm", 40000), "stock": ("gauss2", 41000)}
MARK = pathlib.Path("/var/lib/zenbrak3-sandbox-cluster")  # whose cluster the sandbox's command means
UNIT = pathlib.Path("/lib/systemd/system/zenbrak3-agent.service")
OLD = "0.1.99"  # the number of the package that is upgraded; its programs are the present ones
WORK = pathlib.Path("/root")
TIMES = {"sales": datetime.time(22, 0), "stock": datetime.time(23, 0)}  # of the page's schedules
# What the page says does not end well
FAILING = [("Tuesday", "zenbrak3 check stock --pool main")]


class Clock(object):
    """The wall clock of the agent and of the command. The week is over: to the tools the agent's certificate must
    have begun."""
    FILE = pathlib.Path("/run/clock")
    LIBRARY = str(next(pathlib.Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1")))
    VARIABLES = {"LD_PRELOAD": LIBRARY, "FAKETIME_TIMESTAMP_FILE": str(FILE), "FAKETIME_NO_CACHE": "1",
                 "DONT_FAKE_MONOTONIC": "1", "TZ": "UTC"}

    def __init__(self):
        today = datetime.datetime.utcnow().replace(hour=0, minute=0, second=0, microsecond=0)
        self.saturday = today - datetime.timedelta(days=8 + (today.weekday() + 1) % 7)
        self.now = self.saturday

    def set(self, time):
        assert time >= self.now, "the clock never goes back"
        self.now = time
        offset = int((time - datetime.datetime.utcnow()).total_seconds()) + 1
        new = self.FILE.with_suffix(".new")
        new.write_text("%+d" % offset)
        new.rename(self.FILE)


def of(name, *words):
    """The sandbox's command, for that cluster."""
    MARK.write_text(CLUSTERS[name][0] + "\n")
    return cluster(*words)


def days():
    """Of the page: [(day's name, time of the day, commands)]."""
    text = (ROOT / PAGE).read_text()
    found = re.findall(r"^(## (\w+) (\d\d):(\d\d): .*)$", text, re.M)
    return [(day, datetime.time(int(hour), int(minute)), commands(chapter(PAGE, title)))
            for title, day, hour, minute in found]


class Week(object):
    def __init__(self):
        self.clock = Clock()
        self.agent = None
        self.shown = ""  # by the command before
        self.failing = list(FAILING)
        for name, (user, port) in CLUSTERS.items():
            cluster("create", "--name", name, "--user", user, "--port", port, "--no-fsync")
            of(name, "fill", 2)
            # the database's tools have the machine's clock
            with open("/home/%s/gauss_env_profile" % user, "a") as profile:
                profile.write("export LD_PRELOAD=\n")
            password = WORK / (name + ".password")
            password.touch(mode=0o600)
            password.write_text(protection.PASSWORD + "\n")

    # --- what systemd does

    def start_agent(self):
        """With the clock, by the unit that the package has just brought."""
        settings = "".join("Environment=%s=%s\n" % pair for pair in Clock.VARIABLES.items())
        UNIT.write_text(UNIT.read_text().replace("[Install]", settings + "[Install]"))
        self.agent = protection.start_agent()

    def stop_agent(self):
        self.agent.terminate()
        assert self.agent.wait() == 0
        self.agent = None

    # --- what the administrator does

    def carry_out(self, day, command):
        wanted = 0
        if (day, command) in self.failing:
            self.failing.remove((day, command))
            wanted = 1
        command = re.sub(r"\b(BACKUP|RUN)\b", lambda _: self.shown_id(), command)
        variables = dict(os.environ, **(Clock.VARIABLES if command.startswith("zenbrak3 ") else {}))
        if command == "apt remove zenbrak3":
            self.stop_agent()
        done = subprocess.run(["bash", "-c", command], cwd=WORK, env=variables, input="y\n",  # when apt asks
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert done.returncode == wanted, "%s: `%s` ended with %d:\n%s" % (day, command, done.returncode, done.stdout)
        if command.startswith("apt install"):
            if self.agent:
                self.stop_agent()
            self.start_agent()
        if re.match(r"zenbrak3 (backups|jobs) ", command):
            self.shown = done.stdout
        return done.stdout

    def shown_id(self):
        rows = re.findall(r"^([0-9a-f]{8}-[0-9a-f-]{27}) ", self.shown, re.M)
        assert rows, "no id in:\n" + self.shown
        return rows[0]

    # --- what happens meanwhile

    def pass_time_until(self, time):
        """Lets the schedules run that are due until then, each at its own time."""
        day = self.clock.now.replace(hour=0, minute=0, second=0)
        while day <= time:
            for name, at in TIMES.items():
                due = datetime.datetime.combine(day.date(), at)
                if self.clock.now < due <= time:
                    self.reach(due, name)
            day += datetime.timedelta(days=1)
        self.clock.set(time)

    def reach(self, due, name):
        before = {run["run_id"] for run in tell("jobs", "--instance", name)["jobs"]}
        self.clock.set(due)
        self.agent.send_signal(signal.SIGHUP)  # as "systemctl reload" does: the clock was set

        def ended():
            new = [run for run in tell("jobs", "--instance", name)["jobs"] if run["run_id"] not in before]
            return new and all(run["end_time"] for run in new)
        wait_until(ended, 90)


def kinds(name):
    """Of the cluster's backups, the oldest first."""
    return [one["type"] for one in reversed(tell("backups", name)["backups"])]


class Week_Test(unittest.TestCase):
    def test_the_week(self):
        week = Week()
        self.addCleanup(lambda: week.agent and week.stop_agent())
        found = days()
        self.assertEqual(["Saturday", "Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"],
                         [day for day, _, _ in found])
        for number, (day, time, steps) in enumerate(found):
            moment = datetime.datetime.combine(week.clock.saturday.date() + datetime.timedelta(days=number), time)
            prepare = getattr(self, "before_%s_%d" % (day.lower(), number), lambda _: None)
            prepare(week)
            if week.agent:
                week.pass_time_until(moment)
            else:
                week.clock.set(moment)
            getattr(self, "at_%s_%d" % (day.lower(), number), lambda _: None)(week)
            self.said = []
            for command in steps:
                self.said.append((command, week.carry_out(day, command)))
            getattr(self, "after_%s_%d" % (day.lower(), number))(week)
        self.assertEqual([], week.failing)

    def told(self, beginning, which=-1):
        """What the last of the day's commands with that beginning has printed."""
        return [output for command, output in self.said if command.startswith(beginning)][which]

    def before_saturday_0(self, _):
        shutil.copy(protection.ask(ROOT / "sandbox/make_package", BUILD, OLD).strip(), WORK)

    def after_saturday_0(self, week):
        self.assertEqual(OLD, protection.ask("dpkg-query", "-W", "-f", "${Version}", "zenbrak3"))
        for name in CLUSTERS:
            self.assertIn(name, self.told("zenbrak3 schedule list"))
        self.assertIn(week.clock.saturday.strftime("%Y-%m-%d 22:00"), self.told("zenbrak3 schedule list"))

    def after_sunday_1(self, _):
        for name in CLUSTERS:
            self.assertEqual(["full"], kinds(name))

    def after_monday_2(self, _):
        for name in CLUSTERS:
            self.assertEqual(["full", "incremental"], kinds(name))

    def before_tuesday_3(self, _):
        of("stock", "stop")

    def after_tuesday_3(self, week):
        self.assertRegex(self.told("zenbrak3 job show"), "neither normal nor degraded")
        self.assertIn("FAIL  state: ", self.told("zenbrak3 check stock", 0))
        for name in CLUSTERS:
            self.assertEqual(["full"] + 2 * ["incremental"], kinds(name))
        self.rows = {name: of(name, "checksums") for name in CLUSTERS}

    def at_wednesday_4(self, _):
        of("sales", "sql", 1, "delete from item")
        self.assertNotEqual(self.rows["sales"], of("sales", "checksums"))

    def after_wednesday_4(self, _):
        for name in CLUSTERS:
            self.assertEqual(self.rows[name], of(name, "checksums"), name)
        self.assertEqual("full", kinds("sales")[-1])

    def after_thursday_5(self, _):
        self.assertFalse(os.path.exists("/srv/backup/main"))
        self.assertEqual("file:///srv/large/main", tell("pools")["pools"][0]["url"])
        self.assertNotIn("paused", self.told("zenbrak3 schedule list"))

    def before_friday_6(self, _):
        for old in WORK.glob("zenbrak3_*.deb"):
            old.unlink()
        shutil.copy(protection.package_of(BUILD), WORK)

    def after_friday_6(self, _):
        self.assertNotIn(OLD, self.told("zenbrak3 info"))
        self.assertTrue(os.path.getsize("/root/agent-before.db"))
        for name in CLUSTERS:
            self.assertIn(name, self.told("zenbrak3 schedule list"))

    def after_saturday_7(self, _):
        listed = self.told("zenbrak3 backups")
        # six nights without the failed one; the one that was made for it, and the one after the restore
        self.assertEqual((7 + 1, 7), (len(re.findall(r" sales  ", listed)), len(re.findall(r" stock  ", listed))))
        self.assertFalse(os.path.exists("/usr/bin/zenbrak3"))
        self.assertTrue(os.path.exists("/var/lib/zenbrak3/agent.db"))
        self.assertTrue(any(pathlib.Path("/srv/large/main").rglob("*.rch*")))


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
