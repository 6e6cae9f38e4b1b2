#!/usr/bin/env python3
"""The agent moves to another host, by the commands of docs/administration.md, and restores there. Needs root.

    move_test.py BUILD

No systemd runs on the machines: the test stops and starts the agent where the commands would.
"""
import json
import pathlib
import re
import shutil
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
from page_steps import ROOT, chapter, commands  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
from machines import MACHINE, MAKE_PACKAGE, Host, run  # noqa: E402

BUILD = sys.argv.pop(1)
MINE = "\n[agent]\nkept_runs = 50\n"
STOP = "systemctl disable --now zenbrak3-agent"


class Move_Test(unittest.TestCase):
    def setUp(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="zenbrak3-move-", dir="/var/tmp"))
        work.chmod(0o755)
        self.addCleanup(shutil.rmtree, work, ignore_errors=True)
        share = work / "share"
        (share / "pool").mkdir(parents=True)
        self.package = pathlib.Path(shutil.copy(run(MAKE_PACKAGE, BUILD).strip(), share))
        self.hosts = []
        for name, address in (("old", "10.77.0.1"), ("new", "10.77.0.2")):
            host = Host(work / name, name, address, share)
            self.addCleanup(run, MACHINE, "stop", work / name)
            host.cluster("create", "--name", "prod", "--no-fsync")
            self.hosts.append(host)

    def test_the_new_host_restores_what_the_old_one_had(self):
        old, new = self.hosts
        old.cluster("fill", 2)
        old.do("dpkg", "--install", "/srv/shared/" + self.package.name)
        with old.path("/etc/zenbrak3/agent.toml").open("a") as file:
            file.write(MINE)
        old.start_agent()
        old.do("zenbrak3", "instances", "--refresh")
        old.do("zenbrak3", "account", "prod", "backup", input="Backup@123\n")
        old.do("zenbrak3", "pool", "create", "main", "/srv/shared/pool")
        old.do("zenbrak3", "backup", "prod", "--pool", "main")
        old.cluster("change", 5)
        old.do("zenbrak3", "backup", "prod", "--pool", "main", "--incremental")
        rows = old.cluster("checksums")

        steps = commands(chapter("docs/administration.md", "## Moving to a new host"))
        there = steps.index("tar -C / --numeric-owner -xpf /srv/shared/agent.tar")
        self.assertIn(STOP, steps[:there])
        for step in steps[:there]:
            if step == STOP:
                old.kill(15, old.processes("zenbrak3-agent"))
                old.agent.wait()
            else:
                old.do("bash", "-c", step)
        # where the commands look for it
        new.do("cp", "/srv/shared/" + self.package.name, "/root")
        password = new.path("/root/prod.password")
        password.touch(mode=0o600)
        password.write_text("Backup@123\n")
        self.assertNotEqual(rows, new.cluster("checksums"))
        listed = ""
        for step in steps[there:]:
            if "BACKUP" in step:
                step = step.replace("BACKUP", re.search(r"^([0-9a-f-]{36}) .* incremental ", listed, re.M).group(1))
            said = new.do("bash", "-c", "cd /root && " + step)
            if step.startswith("apt install"):
                new.start_agent()
            if step == "zenbrak3 backups":
                listed = said
            if step.startswith("zenbrak3 restore"):
                self.assertEqual(rows, new.cluster("checksums"))
        self.assertTrue(new.path("/etc/zenbrak3/agent.toml").read_text().endswith(MINE))
        sets = json.loads(new.do("zenbrak3", "backups", "prod", "--json"))["backups"]
        self.assertEqual(["full", "incremental", "full"], [one["type"] for one in sets])
        new.kill(15, new.processes("zenbrak3-agent"))
        new.agent.wait()


if __name__ == "__main__":
    unittest.main(verbosity=2)
