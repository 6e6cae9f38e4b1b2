"""The agent on a machine of the sandbox: what the demo and the tests of the whole road share."""
import json
import os
import socket
import subprocess

HERE = os.path.dirname(os.path.realpath(__file__))
CLUSTER = os.path.join(HERE, "cluster")
RUN_UNIT = os.path.join(HERE, "run_unit")
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


def package_of(build):
    """The Debian package of what is built in that directory."""
    return ask(os.path.join(HERE, "make_package"), build).strip()


def install(build):
    """Installs the package of what is built in that directory on this machine."""
    ask("dpkg", "--install", package_of(build))


def start_agent():
    """The agent's process, as its unit has it, as soon as it is ready. Raises Failure when it does
    not come to that."""
    with open(AGENT_LOG, "ab") as log, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
        ready.bind("")  # an abstract address, that nobody else has
        ready.settimeout(0.2)
        agent = subprocess.Popen(
            [RUN_UNIT], stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
            env={"NOTIFY_SOCKET": "@" + ready.getsockname()[1:].decode()})
        for _ in range(300):
            try:
                if ready.recv(4096).startswith(b"READY=1"):
                    return agent
            except TimeoutError:
                if agent.poll() is not None:
                    break
    raise Failure("the agent is not ready; %s says why" % AGENT_LOG)


def save_account(instance, account=ACCOUNT):
    """Tells the agent how to log on to the sandbox's cluster."""
    subprocess.run(["zenbrak3", "account", instance, account], input=PASSWORD + "\n", text=True,
                   check=True)


def make_pool_directory(path):
    """A directory for a pool, as an administrator makes it."""
    subprocess.check_call(["mkdir", "-p", path])
