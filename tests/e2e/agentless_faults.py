"""What tests of faults of a cluster without an agent share. A test class derives from Fault_Test and sets
`world` and `name`, the cluster's."""
import os
import re
import shutil
import unittest

from machines import wait_until

TOOL = "/home/omm/wisequery/script/GaussRoach.py"
LOGIN = "/home/omm/.ssh"
# Runs what a login wants. Cuts the connection that has this number, or the first with this command. Notes
# when the tool has ended, but for its stop.
WRAPPER = r"""#!/bin/bash
cd ~/.ssh
count=$(($(cat count) + 1))
echo $count >count
at=$(cat cut_at)
if [[ $count == "$at" || ! $at =~ ^[0-9]+$ && $SSH_ORIGINAL_COMMAND == *"$at"* ]]; then
    echo 0 >cut_at
    kill -9 $PPID
fi
[[ $SSH_ORIGINAL_COMMAND != *"GaussRoach.py -t "* ]] || echo $count >tool_at
[[ $SSH_ORIGINAL_COMMAND != internal-sftp ]] || exec /usr/lib/openssh/sftp-server
(cd; exec bash -c "$SSH_ORIGINAL_COMMAND")
status=$?
[[ $SSH_ORIGINAL_COMMAND != *"GaussRoach.py -t "@(backup|restore|start)* ]] || date +%s >tool_end
exit $status
"""
# a tool of the same name that has something else in mind, until it is told to stop
HOSTILE = """#!/bin/bash
if [[ $2 == stop ]]; then
    kill $(cat /tmp/hostile)
    %s
    exit
fi
echo $$ >/tmp/hostile
%s
"""


class Fault_Test(unittest.TestCase):
    world, name = None, ""

    def setUp(self):
        self.cluster = self.world.clusters[self.name]
        self.node = self.cluster.first

    def resource(self):
        return self.world.instance(self.name)["uuid"]

    def assert_recovered(self):
        self.world.assert_clean()
        self.world.backup(self.name)
        self.world.assert_clean()

    def assert_nothing_left(self, run, was_cut=False):
        """A restore that cannot ask the database for its nodes tells what it leaves there."""
        for path in re.findall("Directory (/home/omm/zenbrak3_meta_[0-9_]+) may be left", run["log"]):
            self.assertTrue(was_cut or not self.database_answers(), run["log"])
            for host in self.cluster.hosts:
                shutil.rmtree(host.path(path), ignore_errors=True)
        self.world.assert_clean()

    def database_answers(self):
        try:
            return bool(self.cluster.sql("select 1"))
        except AssertionError:
            return False

    def assert_failed(self, run, *reasons):
        self.assertEqual("error", run["state"], run["log"])
        for reason in reasons:
            self.assertIn(reason, run["log"])

    def backup_definition(self, **more):
        return dict({"name": "backup", "type": "backup", "subtype": "full", "target": {"pool": "main"},
                     "options": {"channels": 2}, "source": {"id": self.resource(),
                                                            "entries": ["gaussdb/" + self.name]}}, **more)

    def restore_definition(self, backup, **more):
        return dict({"name": "restore", "type": "restore", "subtype": "full",
                     "target": {"id": self.resource()}, "options": {"channels": 2},
                     "source": {"id": self.resource(), "backup_key": backup["backup_key"],
                                "restore_as": "gaussdb/" + self.name,
                                "entries": ["gaussdb/" + self.name]}}, **more)

    def start_slow(self, definition, rate=1000000, percent=4):
        """A run that can be met in the middle; its id."""
        run_id = self.world.start_definition(**dict(definition, name="slow",
                                                    rate_limits={"src_rate_limits": str(rate)}))
        self.wait_for_percent(run_id, percent)
        return run_id

    def wait_for_percent(self, run_id, percent):
        wait_until(lambda: self.world.show(run_id)["percent"] >= percent, "%d percent" % percent)

    def become(self, body, stop=""):
        """Puts another program in the place of the tool, for the rest of the test or until the result is
        called."""
        tool = self.node.path(TOOL)
        good = tool.read_bytes()
        tool.write_text(HOSTILE % (stop, body))

        def back():
            tool.write_bytes(good)
            self.node.path("/tmp/hostile").unlink(missing_ok=True)
        self.addCleanup(back)
        return back


class Wrapped_Login_Test(Fault_Test):
    """The program that the key of this host leads to on the node."""

    def with_wrapped_logins(self):
        home = self.node.path(LOGIN)
        (home / "wrapper").write_text(WRAPPER)
        (home / "wrapper").chmod(0o755)
        for name in ("count", "cut_at", "tool_at", "tool_end"):
            self.write(name, "0")
        keys = home / "authorized_keys"
        whole = keys.read_text()
        own, admin = whole.splitlines()
        keys.write_text('%s\ncommand="%s/wrapper" %s\n' % (own, LOGIN, admin))
        self.addCleanup(keys.write_text, whole)

    def write(self, name, text):
        path = self.node.path(LOGIN) / name
        path.write_text("%s\n" % text)
        os.chown(path, path.parent.stat().st_uid, path.parent.stat().st_gid)

    def login_file(self, name):
        return (self.node.path(LOGIN) / name).read_text().strip()

    def assert_cancelled(self, run_id, *words, may_complete=False):
        """Cancels a run of the tool. It ends soon after the tool has ended on the node."""
        if may_complete:
            self.world.ours.call("job.cancel", job=run_id)
        else:
            self.world.ours.do("zenbrak3", "job", "cancel", run_id, *words)
        run = self.world.wait(run_id)
        self.assertIn(run["state"], ("canceled", "completed") if may_complete else ("canceled",), run["log"])
        self.assert_nothing_left(run)
        # which notes it a moment after the tool's processes have ended
        wait_until(lambda: not self.node.processes("wrapper"), "the end of the login")
        tool_end = int(self.login_file("tool_end"))  # 0 if it was not started
        if tool_end >= run["start_time"]:
            self.assertLessEqual(run["end_time"], tool_end + 10, run["log"])
        return run, tool_end >= run["start_time"]


class Cut_Test(Wrapped_Login_Test):
    """Connections of ssh that are cut."""

    def cut_at(self, at):
        """Lets the connection with that number, counted from here, or with that command be cut."""
        self.write("count", "0")
        self.write("cut_at", at)

    def was_cut(self):
        return self.login_file("cut_at") == "0"

    def assert_survives_cuts(self, definition, again=lambda: None):
        """Cuts each connection of a run in turn; those behind the tool's in runs whose tool fails at once, but the
        first. A run may still succeed, for example by a second try. In the end one without a cut succeeds.
        @param again  called before each run"""
        self.with_wrapped_logins()
        at, first, last = 0, 0, 1
        while at <= last:
            at += 1
            self.run_with_cut(definition, at, again)
            if not self.was_cut():
                break
            last = int(self.login_file("tool_at")) or at  # of the tool's, of which a restore has two
            first = first or int(self.login_file("tool_at"))
        put_back = self.become("exit 1")
        at = first + 1
        while self.was_cut():
            at += 1
            self.assertEqual("error", self.run_with_cut(definition, at, again)["state"])
        put_back()
        run = self.run_with_cut(definition, 0, again)
        self.assertEqual("completed", run["state"], run["log"])
        self.doCleanups()

    def run_with_cut(self, definition, at, again):
        again()
        self.cut_at(at)
        self.write("tool_at", 0)
        before = {one["uuid"] for one in self.world.sets()}
        run = self.world.run_definition(**definition)
        is_backup = run["type"] == "backup" and run["state"] == "completed"
        after = {one["uuid"] for one in self.world.sets()}
        self.assertEqual({run["run_id"]} if is_backup else set(), after - before)
        self.assert_nothing_left(run, self.was_cut())
        return run
