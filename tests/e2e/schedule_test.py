#!/usr/bin/env python3
"""Schedules as an administrator has them: days pass on the agent's clock, and the backups are there.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 PATH/schedule_test.py BUILD [TEST ...]
"""
import calendar
import json
import signal
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True
from sandbox_test import ROOT, cluster, wait_until  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
import virtual_time  # noqa: E402
from protection import tell  # noqa: E402

BUILD = sys.argv.pop(1)
DAY = 24 * 3600
WEEK = ["--full", "Sun 02:00", "--incremental", "Mon..Sat 02:00"]


def command(*words, status=0):
    """What the command prints, on both streams."""
    done = subprocess.run(["zenbrak3", *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == status, "%s: status %d: %s" % (words, done.returncode, done.stdout)
    return done.stdout


def next_day(weekday, hour):
    """The next such time of the agent, in UTC; Monday is 0."""
    today = time.gmtime(virtual_time.now())
    midnight = calendar.timegm(today) // DAY * DAY
    moment = midnight + (weekday - today.tm_wday) % 7 * DAY + hour * 3600
    return moment if moment > virtual_time.now() else moment + 7 * DAY


def runs(name="prod"):
    """All of that schedule, the oldest first."""
    schedule = tell("schedule", "show", name)["id"]
    return tell("jobs", "--limit", "1000", "--definition", schedule)["jobs"][::-1]


def wait_for_run(number, name="prod"):
    """That run of the schedule, when it is over. The agent notices its clock within half a minute."""
    wait_until(lambda: len([run for run in runs(name) if run["end_time"]]) >= number, 60)
    return runs(name)[number - 1]


class Schedule_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cluster("create", "--name", "prod", "--no-fsync")
        cluster("fill", 2)
        protection.install(BUILD)
        virtual_time.install()
        cls.agent = protection.start_agent()  # its certificate is valid from now on
        command("instances", "--refresh")
        protection.save_account("prod")
        for pool in ("main", "vault"):
            protection.make_pool_directory("/srv/" + pool)
            command("pool", "create", pool, "/srv/" + pool)

    @classmethod
    def tearDownClass(cls):
        cls.agent.terminate()
        cls.agent.wait()

    def tearDown(self):
        for one in tell("schedule", "list")["schedules"]:
            command("schedule", "remove", one["name"])
        self.assertEqual([], tell("definitions")["definitions"], "a definition that nobody asked for")

    def add(self, *words):
        return command("schedule", "add", "prod", "--pool", "main", *words)

    def assert_made(self, run, level):
        self.assertEqual(("completed", level), (run["state"], run["subtype"]), command("job", "log", run["run_id"]))
        backup = tell("backup", "show", run["run_id"])
        self.assertEqual(level, backup["type"])
        return backup

    def test_a_full_backup_on_sunday_and_an_incremental_one_on_monday(self):
        virtual_time.set_to(next_day(5, 12))
        self.assertIn("its next run is full, at ", self.add(*WEEK, "--time-zone", "UTC"))
        listed = tell("schedule", "list", "prod")["schedules"][0]
        self.assertEqual(["full"] + ["incremental"] * 4, [run["level"] for run in listed["next_runs"]])
        sunday = next_day(6, 2)
        self.assertEqual([time.strftime("%Y-%m-%dT02:00:00Z", time.gmtime(sunday + day * DAY)) for day in range(5)],
                         [run["time"] for run in listed["next_runs"]])
        virtual_time.set_to(sunday - 90)  # 90 seconds before
        self.assertEqual([], runs())
        virtual_time.set_to(sunday)
        full = self.assert_made(wait_for_run(1), "full")
        cluster("change", 5)
        rows = cluster("checksums")
        virtual_time.set_to(sunday + DAY)
        incremental = self.assert_made(wait_for_run(2), "incremental")
        self.assertEqual([full["uuid"]], [one if isinstance(one, str) else one["uuid"] for one in incremental["depends"]])
        self.assertEqual(2, len(runs()))
        cluster("destroy-data")
        command("restore", incremental["uuid"], "--yes", "--progress", "none")
        self.assertEqual(rows, cluster("checksums"))

    def test_what_was_missed_is_made_up_for_once(self):
        virtual_time.set_to(next_day(5, 12))
        self.add(*WEEK, "--time-zone", "UTC")
        command("schedule", "add", "prod", "--pool", "main", "--name", "strict", *WEEK, "--time-zone", "UTC",
                "--no-catch-up")
        self.agent.terminate()
        self.agent.wait()
        virtual_time.set_to(next_day(1, 12))  # Tuesday: a full and two incremental ones were missed
        type(self).agent = protection.start_agent()
        self.assert_made(wait_for_run(1), "full")
        self.assertEqual([], runs("strict"))
        self.assertIn("made up for once", command("schedule", "show", "prod"))
        self.assertIn("not made up for", command("schedule", "show", "strict"))
        wednesday = next_day(2, 2)
        virtual_time.set_to(wednesday)  # both at the same minute: they take turns
        self.assertEqual("completed", wait_for_run(2)["state"])
        strict = wait_for_run(1, "strict")
        self.assertEqual("completed", strict["state"], command("job", "log", strict["run_id"]))
        self.assertEqual(2, len(runs()))

    def test_a_schedule_is_changed_while_its_run_is_running(self):
        virtual_time.set_to(next_day(5, 12))
        self.add(*WEEK, "--rate", "100K", "--time-zone", "UTC")
        run_id = tell("schedule", "run-now", "prod", "--no-wait")["run_id"]
        wait_until(lambda: tell("job", "show", run_id)["state"] == "running")
        text = command("schedule", "update", "prod", "--incremental", "none", "--full", "Sat 13:00", "--rate", "0")
        self.assertIn("The run that is running goes on as it began.", text)
        virtual_time.set_to(next_day(5, 13))
        wait_until(lambda: tell("job", "show", run_id)["alerts"] or tell("job", "show", run_id)["end_time"], 60)
        self.assertIn("is skipped: this run is not over", command("job", "show", run_id))
        self.assertIn("is running", command("schedule", "remove", "prod", status=5))
        command("job", "cancel", run_id, "--now")
        wait_until(lambda: tell("job", "show", run_id)["end_time"], 60)
        fast = json.loads(command("schedule", "run-now", "prod", "--json"))
        self.assertEqual("completed", fast["state"])

    def test_a_paused_schedule_starts_nothing(self):
        virtual_time.set_to(next_day(5, 12))
        self.add("--incremental", "hourly", "--time-zone", "UTC")
        command("schedule", "pause", "prod")
        self.assertEqual("paused", command("schedule", "list").splitlines()[1].split()[3])
        self.assertIn("it is paused", command("schedule", "run-now", "prod", status=5))
        virtual_time.set_to(virtual_time.now() + 2 * 3600)
        self.agent.send_signal(signal.SIGHUP)
        self.assertIn("its next run is incremental", command("schedule", "resume", "prod"))
        self.assertEqual([], runs())

    def test_what_cannot_be_run_is_on_record_as_failed(self):
        virtual_time.set_to(next_day(5, 12))
        command("schedule", "add", "prod", "--pool", "vault", "--full", "Sun 02:00", "--time-zone", "UTC")
        command("pool", "remove", "vault", "--yes")
        virtual_time.set_to(next_day(6, 2))
        run = wait_for_run(1)
        self.assertEqual("error", run["state"])
        self.assertGreater(run["alerts"], 0, command("job", "log", run["run_id"]))
        self.assertNotEqual("", run["message"])
        protection.make_pool_directory("/srv/vault")
        command("pool", "create", "vault", "/srv/vault")
        command("schedule", "update", "prod", "--pool", "vault")
        self.assertEqual("completed", json.loads(command("schedule", "run-now", "prod", "--json"))["state"])

    def test_a_backup_leaves_no_definition_unless_it_has_a_name(self):
        command("backup", "prod", "--pool", "main", "--progress", "none")
        self.assertEqual([], tell("definitions")["definitions"])
        command("backup", "prod", "--pool", "main", "--name", "mine", "--progress", "none")
        self.assertEqual(["mine"], [one["name"] for one in tell("definitions")["definitions"]])
        command("definition", "remove", "mine")

    def test_slips_are_told_and_change_nothing(self):
        self.add("--full", "daily")
        for words, status, text in (
                (["add", "prod", "--pool", "main", "--full", "daily"], 5, "`zenbrak3 schedule update prod` changes it"),
                (["add", "prot", "--pool", "main", "--full", "daily"], 4, "prot"),
                (["add", "prod", "--name", "b", "--pool", "mian", "--full", "daily"], 4, "mian"),
                (["add", "prod", "--name", "b", "--pool", "main", "--full", "Sunn 2:00"], 2, "\"Sunn\" is not a valid day"),
                (["add", "prod", "--name", "b", "--pool", "main", "--full", "2001-01-01 2:00"], 2, "no time to come"),
                (["add", "prod", "--name", "b", "--pool", "main", "--full", "daily", "--time-zone", "Berlin"], 2,
                 "\"Berlin\" is not a known time zone"),
                (["add", "prod", "--name", "b", "--pool", "main", "--full", "daily", "--compression", "zstd:99"], 2,
                 "0 to 22"),
                (["update", "prod", "--full", "none"], 2, "name at least one level"),
                (["update", "prod"], 2, "nothing to change"),
                (["update", "nothing", "--full", "daily"], 4, "`zenbrak3 schedule list` lists the schedules."),
                (["run-now", "prod", "--level", "log"], 5, "expected full, incremental or cumulative"),
                (["add", "prod", "--name", "b", "--pool", "main", "--full", "daily", "--log", "hourly"], 2,
                 "schedule.times.log: level \"log\" is not one of GaussDB 200")):
            done = subprocess.run(["zenbrak3", "schedule", *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True)
            self.assertEqual(status, done.returncode, done.stdout)
            self.assertIn(text, done.stdout)
        self.assertEqual("daily", tell("schedule", "show", "prod")["levels"][0]["at"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
