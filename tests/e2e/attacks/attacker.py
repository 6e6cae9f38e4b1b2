"""The world that the attacks share, and the local user who makes them."""
import pathlib
import pwd
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from protected_cluster import Protected_Cluster  # noqa: E402

USER = "mallory"  # a local user without any right
DATABASE_USER = "omm"

world = None


def start(build):
    """Makes the protected cluster and the attacker's account, once for all attacks."""
    global world
    world = Protected_Cluster(build, 4)
    world.assert_recovered()
    subprocess.run(["useradd", "--create-home", "--shell", "/bin/bash", USER], check=True)


def home(user=USER):
    return pathlib.Path(pwd.getpwnam(user).pw_dir)


def _as_user(user, words):
    entry = pwd.getpwnam(user)
    return ["setpriv", "--reuid", str(entry.pw_uid), "--regid", str(entry.pw_gid), "--init-groups",
            "--", *map(str, words)]


def run_as(user, *words, **options):
    """Runs a command as a local user and returns what subprocess.run() returns, output as text."""
    return subprocess.run(_as_user(user, words), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          stdin=options.pop("stdin", subprocess.DEVNULL), text=True, **options)


def start_as(user, *words, **options):
    """Starts a command as a local user; its Popen. The test ends it."""
    return subprocess.Popen(_as_user(user, words), stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)


class Attack_Test(unittest.TestCase):
    """Base of all attacks: after each one the cluster is protected as before."""

    def tearDown(self):
        world.assert_recovered()
