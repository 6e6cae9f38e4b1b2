#!/usr/bin/env python3
"""The first steps of README.md, word for word, on a machine that has never had the product.

Run in a machine of the sandbox: sandbox/machine run python3 PATH/readme_test.py BUILD
Only the build itself is not repeated: BUILD's package is put where its steps leave theirs.
"""
import glob
import shutil
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True
from page_steps import ROOT, chapter, commands  # noqa: E402

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402

BUILD = sys.argv.pop(1)
CHAPTER = "## From a fresh machine to a first check"
BUILD_STEPS = ["cmake --preset release && cmake --build build/release", "(cd build/release && cpack)"]
INSTALL = "apt install ./build/release/zenbrak3_*.deb"


class Readme_Test(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        subprocess.check_call([protection.CLUSTER, "create", "--name", "c1", "--no-fsync"],
                              stdout=subprocess.DEVNULL)
        subprocess.check_call([protection.CLUSTER, "fill", "2"], stdout=subprocess.DEVNULL)
        package = shutil.copy(protection.package_of(BUILD), "/mnt")
        # as on a fresh clone, and nothing is written to the real one
        (ROOT / "build").mkdir(exist_ok=True)
        subprocess.check_call(["mount", "-t", "tmpfs", "tmpfs", ROOT / "build"])
        (ROOT / "build/release").mkdir()
        shutil.move(package, ROOT / "build/release")
        cls.agent = None

    @classmethod
    def tearDownClass(cls):
        if cls.agent:
            cls.agent.terminate()
            cls.agent.wait()

    def carry_out(self, command):
        """As an administrator who is careful about who may read what."""
        done = subprocess.run(["bash", "-c", "umask 077; " + command.replace("CLUSTER", "c1")],
                              cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        self.assertEqual(0, done.returncode, "%s:\n%s" % (command, done.stdout))

    def test_they_end_with_a_backup(self):
        done = []
        for command in commands(chapter("README.md", CHAPTER)):
            done.append(command)
            if command not in BUILD_STEPS:
                self.carry_out(command)
            if command == INSTALL:
                self.assertTrue(glob.glob("/etc/systemd/system/*.wants/zenbrak3-agent.service"))
                self.__class__.agent = protection.start_agent()
        for command in ["tools/setup build", *BUILD_STEPS, INSTALL]:
            self.assertIn(command, done)
        self.assertEqual("zenbrak3 backup CLUSTER --pool main", done[-1])
        backups = protection.tell("backups", "c1")["backups"]
        self.assertEqual(["full"], [one["type"] for one in backups])
        self.assertGreater(backups[0]["backup_set_size"], 1000000)


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
