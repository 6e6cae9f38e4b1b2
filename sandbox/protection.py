"""The agent on a machine of the sandbox: what the demo and the tests of the whole road share."""
import json
import os
import subprocess
import time

CLUSTER = os.path.join(os.path.dirname(os.path.realpath(__file__)), "cluster")
POOL = "/srv/pool"
AGENT_LOG = "/var/log/zenbrak3-agent.log"
ACCOUNT, PASSWORD = "backup", "Backup@123"


class Failure(Exception):
    pass


def ask(*words):
    """A command's output. Raises Failure with what it says when it fails."""
    done = subprocess.run(list(map(str, words)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True)
    if done.returncode:
        raise Failure("`%s`: %s" % (" ".join(map(str, words)), done.stderr.strip()))
    return done.stdout


def tell(*words):
    """The agent's answer to a command, as JSON has it."""
    return json.loads(ask("zenbrak3", *words, "--json"))


def install(build):
    """Installs what is built in that directory on this machine."""
    subprocess.check_call(["cmake", "--install", build, "--prefix", "/usr", "--strip"],
                          stdout=subprocess.DEVNULL)
    subprocess.check_call(["ldconfig"])


def start_agent():
    """The agent's process, as soon as it serves. Raises Failure when it does not come to that."""
    with open(AGENT_LOG, "ab") as log:
        agent = subprocess.Popen(["zenbrak3-agent"], stdin=subprocess.DEVNULL, stdout=log,
                                 stderr=log, start_new_session=True)
    end = time.monotonic() + 30
    while subprocess.call(["zenbrak3", "info"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL):
        if agent.poll() is not None or time.monotonic() > end:
            raise Failure("the agent does not serve")
        time.sleep(0.1)
    return agent


def save_account(instance):
    """Tells the agent how to log on to the sandbox's cluster."""
    subprocess.run(["zenbrak3", "account", instance, ACCOUNT], input=PASSWORD + "\n", text=True,
                   check=True)


def make_pool_directory(path):
    """A directory for a pool, as an administrator makes it."""
    subprocess.check_call(["mkdir", "-p", path])
