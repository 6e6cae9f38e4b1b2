"""Profiles and files that a local user, or the database's user, names to the agent."""
import os
import pathlib
import subprocess
import time

from attacks import attacker
from attacks.attacker import Attack_Test, DATABASE_USER, USER, home, run_as
from protected_cluster import CACHE
from sandbox_test import HOME
import protection

XML = pathlib.Path("/var/opt/quilmot/zenbrak3/agent/gaussdb")
MARK = pathlib.Path("/root/canary")  # only root can make it
LIMIT = 20  # seconds for a refresh that meets all of them; the work itself takes less than one

# whatever runs one of these as root makes the mark; all of them note that they ran
CANARY_C = """
#include <stdio.h>
#include <fcntl.h>
#include <unistd.h>
__attribute__((constructor)) static void sing(void) {
    FILE* const out = fopen("%(ran)s", "a");
    if (out) { fprintf(out, "preload %%d\\n", geteuid()); fclose(out); }
    if (geteuid() == 0) close(open("%(mark)s", O_CREAT | O_WRONLY, 0600));
}
"""
CANARY_PY = """import os
with open("%(ran)s", "a") as out: out.write("python %%d\\n" %% os.geteuid())
if os.geteuid() == 0: open("%(mark)s", "w")
"""
CANARY_SH = """#!/bin/sh
echo "tool $(/usr/bin/id -u)" >>%(ran)s
[ "$(/usr/bin/id -u)" = 0 ] && /usr/bin/touch %(mark)s
echo 'gs_check (GaussDB 8.1.1 build 39137c2d) compiled at 2021-06-30'
"""
TOOLS = ("gs_check", "gs_om", "gsql", "cm_ctl", "python", "python2", "python3", "ssh", "sh", "bash")


class Canary(object):
    """Programs, modules and a library of a user's that tell as whom they were run."""

    def __init__(self, user):
        self.user = user
        self.directory = home(user) / "canary"
        self.ran = self.directory / "ran"
        names = {"ran": self.ran, "mark": MARK}
        subprocess.run(["install", "-d", "-o", user, self.directory], check=True)
        self.write("canary.c", CANARY_C % names)
        self.write("sitecustomize.py", CANARY_PY % names)
        self.write("rc.sh", CANARY_SH % names)
        self.write("gp/script/gspylib/__init__.py", CANARY_PY % names)
        for tool in TOOLS:
            self.write("bin/" + tool, CANARY_SH % names, "755")
        self.write("ran", "", "666")
        subprocess.run(["cc", "-shared", "-fPIC", "-o", self.directory / "canary.so",
                        self.directory / "canary.c"], check=True)

    def write(self, name, text, mode="644"):
        path = self.directory / name
        run_as(self.user, "mkdir", "-p", path.parent)
        run_as(self.user, "sh", "-c", 'printf %s "$1" >"$2"; chmod "$3" "$2"', "sh", text, path, mode)
        return path

    def profile(self):
        """Every variable by which a program loads or runs something else."""
        at = self.directory
        return "".join("export %s=%s\n" % pair for pair in (
            ("GAUSSHOME", at / "app"), ("PATH", at / "bin"), ("LD_PRELOAD", at / "canary.so"),
            ("LD_AUDIT", at / "canary.so"), ("LD_LIBRARY_PATH", at), ("PYTHONPATH", at),
            ("PYTHONSTARTUP", at / "sitecustomize.py"), ("BASH_ENV", at / "rc.sh"),
            ("ENV", at / "rc.sh"), ("PSQLRC", at / "rc.sh"), ("IFS", "/"),
            ("GCONV_PATH", at), ("PERL5LIB", at), ("SSH_ASKPASS", at / "bin/ssh")))

    def runs(self):
        return self.ran.read_text().split("\n")[:-1]


class False_Cluster(object):
    """A process that says it is the database's, and where its profile is."""

    def __init__(self, user, name, profile=None, gphome="/nowhere"):
        words = ["env", "-i", "PATH=/usr/bin:/bin", "GS_CLUSTER_NAME=" + name, "GPHOME=%s" % gphome]
        if profile:
            words.append("MPPDB_ENV_SEPARATE_PATH=%s" % profile)
        self.process = attacker.start_as(user, *words, "bash", "-c", "exec -a gaussdb sleep 3600")

    def end(self):
        self.process.kill()
        self.process.wait()


class Profiles_Test(Attack_Test):
    def setUp(self):
        MARK.unlink(missing_ok=True)
        self.found = []

    def tearDown(self):
        for one in self.found:
            one.end()
        for directory in (CACHE, XML):
            for path in directory.glob("evil*"):
                path.unlink()
        attacker.world.stop_agent()  # which forgets what it found
        attacker.world.start_agent()
        protection.ask("zenbrak3", "instances", "--refresh")
        super().tearDown()

    def pretend(self, *arguments, **options):
        self.found.append(False_Cluster(*arguments, **options))

    def refresh(self):
        """Has the agent look for instances; it must answer soon and stay alive."""
        begin = time.monotonic()
        names = [one["name"] for one in protection.tell("instances", "--refresh")["instances"]]
        self.assertLess(time.monotonic() - begin, LIMIT)
        self.assertIsNone(attacker.world.agent.poll())
        self.assertIn("c1", names)
        return names

    def test_files_without_an_end(self):
        directory = home(USER) / "endless"
        run_as(USER, "mkdir", "-p", directory)
        run_as(USER, "mkfifo", directory / "fifo")
        run_as(USER, "ln", "-s", "/dev/zero", directory / "link")
        run_as(USER, "truncate", "--size", "1T", directory / "sparse")
        for number, path in enumerate(("/dev/urandom", "/dev/zero", "/dev/tty", "/proc/kmsg",
                                       "/proc/self/pagemap", directory / "fifo", directory / "link",
                                       directory / "sparse", directory)):
            self.pretend(USER, "evil%d" % number, path)
        names = self.refresh()
        self.assertEqual([], [name for name in names if name.startswith("evil")])
        # without a profile it is the user's .bashrc
        bashrc = home(USER) / ".bashrc"
        run_as(USER, "ln", "-sf", "/dev/zero", bashrc)
        self.pretend(USER, "evil_bashrc")
        self.assertNotIn("evil_bashrc", self.refresh())
        run_as(USER, "rm", bashrc)

    def test_lines_that_end_or_delay_the_agent(self):
        canary = Canary(USER)
        blank_lines = "".join("export%s\n" % (" " * 2000) for _ in range(400))
        profiles = (
            'export LESSOPEN="|/usr/bin/lesspipe %s"; export LESS=-R\n',
            "export %n%n%n%n=x\nexport %1000000000d%n=x\n",
            "export =x\nexport A=1\n",
            "export A=" + "x" * 1022 + "\nexport B=" + "x" * 2046 + "\nexport C=" + "x" * 8190 + "\n",
            "export A=" + "x" * 20000 + "\n",
            "export A=%s\nexport B=%s\n" % ("x" * 1000, "$A" * 20000),
            "export A=%s\n%s" % ("x" * 1000, ("export B=%s\n" % ("$A" * 200)) * 1000),
            "export A=aaaaaaaaaaaaaaaa\n" + "export A=$A$A\n" * 64,
            "export A=%s\n%s" % ("x" * 100000, "".join("export V%d=$A\n" % i for i in range(20000))),
            blank_lines,
            "".join("export V%d=x\n" % number for number in range(2000)),
        )
        for number, text in enumerate(profiles):
            path = canary.directory / ("profile%d" % number)
            path.write_text(text + "export PATH=%s:$PATH\n" % (canary.directory / "bin"))
            os.chown(path, canary.directory.stat().st_uid, -1)
            self.pretend(USER, "evil%d" % number, path, gphome=canary.directory / "gp")
        self.refresh()
        self.assertFalse(MARK.exists(), canary.runs())

    def test_nothing_of_a_local_users_runs_as_root(self):
        canary = Canary(USER)
        profile = canary.write("profile", canary.profile())
        self.pretend(USER, "evil", profile, gphome=canary.directory / "gp")
        # the user's own files, as what a program of root's with that user's environment shows
        self.pretend("root", "evil_root", profile, gphome=canary.directory / "gp")
        self.refresh()
        self.assertFalse(MARK.exists(), canary.runs())
        self.assertEqual([], [line for line in canary.runs() if line.endswith(" 0")])

    def test_what_the_databases_user_brings_along_runs_as_that_user(self):
        canary = Canary(DATABASE_USER)
        package = HOME / "wisequery/script/gspylib/common"
        reader = package / "DbClusterInfo.py"
        profile = HOME / "gauss_env_profile"
        kept = reader.read_text(), profile.read_text()
        try:
            reader.write_text(CANARY_PY % {"ran": canary.ran, "mark": MARK} + kept[0])
            profile.write_text(kept[1] + "export LD_PRELOAD=%s\nexport BASH_ENV=%s\n"
                               % (canary.directory / "canary.so", canary.directory / "rc.sh"))
            attacker.world.stop_agent()
            attacker.world.start_agent()
            self.refresh()
        finally:
            reader.write_text(kept[0])
            profile.write_text(kept[1])
        self.assertFalse(MARK.exists(), canary.runs())
        self.assertTrue(canary.runs(), "the reader was not run at all")
        self.assertEqual([], [line for line in canary.runs() if line.endswith(" 0")])
        left = [path for path in HOME.rglob("__pycache__") if path.stat().st_uid == 0]
        self.assertEqual([], left)

    def test_a_job_does_not_wait_for_the_profile_of_its_user(self):
        profile = HOME / ".profile"
        kept = profile.read_bytes()
        try:
            for make in (["mkfifo", profile], ["ln", "-s", "/dev/zero", profile]):
                run_as(DATABASE_USER, "rm", "-f", profile)
                self.assertEqual(0, run_as(DATABASE_USER, *make).returncode)
                begin = time.monotonic()
                run = attacker.world.backup()
                self.assertNotEqual("completed", run["state"])
                self.assertLess(time.monotonic() - begin, 60)
                self.assertIn("Failed to open %s" % profile, attacker.world.log(run))
        finally:
            profile.unlink()
            profile.write_bytes(kept)
            os.chown(profile, HOME.stat().st_uid, HOME.stat().st_gid)
