"""Machines of the sandbox on one network, for tests and demos that need more than one."""
import json
import os
import pathlib
import signal
import socket
import subprocess
import time

HERE = pathlib.Path(__file__).resolve().parent
MACHINE, CLUSTER, SERVICE = [str(HERE / name) for name in ("machine", "cluster", "service")]
RUN_UNIT, MAKE_PACKAGE = str(HERE / "run_unit"), str(HERE / "make_package")


def run(*words, **options):
    """A command's output; it has to succeed."""
    done = subprocess.run(list(map(str, words)), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, **options)
    if done.returncode:
        raise AssertionError("%s: status %d: %s" % (words, done.returncode, done.stdout))
    return done.stdout


def wait_until(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("in vain waited for: %s" % what)
        time.sleep(0.02)


def files_below(directory):
    """The files in a directory and below. What vanishes meanwhile is left out, where rglob() would fail."""
    for place, _, names in os.walk(directory):
        yield from (pathlib.Path(place, name) for name in names)


class Host(object):
    """A machine of the sandbox."""

    def __init__(self, directory, name, address, share):
        self.directory, self.name, self.agent = directory, name, None
        run(MACHINE, "start", "--name", name, "--address", address, "--share", share, directory)
        pid = (directory / "pid").read_text().strip()
        self.root = pathlib.Path("/proc/%s/root" % pid)

    def words(self, *words):
        return [MACHINE, "enter", str(self.directory), *map(str, words)]

    def do(self, *words, **options):
        return run(*self.words(*words), **options)

    def start(self, *words):
        """A command's process; what it prints is read from there."""
        return subprocess.Popen(self.words(*words), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                text=True)

    def cluster(self, *words):
        return self.do(CLUSTER, *words)

    def path(self, path):
        """A path of the machine, as it is reached from here."""
        return self.root / path.lstrip("/")

    def sql(self, statement, node=1):
        return self.cluster("sql", node, statement).strip()

    def processes(self, *names):
        """Process ids of the database's backup tool there, or of another program."""
        names = names or ("GaussRoach.py", "gs_roach")
        found = []
        for entry in self.path("/proc").iterdir():
            try:
                words = (entry / "cmdline").read_bytes().split(b"\0")
                if entry.name.isdigit() and b"Z" != (entry / "stat").read_bytes().rsplit(b") ")[-1][:1] \
                        and any(os.path.basename(word.decode()) in names for word in words[:2]):
                    found.append(int(entry.name))
            except OSError:
                pass
        return found

    def kill(self, number, pids):
        for pid in pids:
            self.do("kill", "-%d" % number, pid)

    def start_agent(self):
        log = open(self.directory / "agent.log", "ab")
        with log:
            self.agent = subprocess.Popen(self.words(RUN_UNIT), stdin=subprocess.DEVNULL,
                                          stdout=log, stderr=log)
        wait_until(lambda: subprocess.call(self.words("zenbrak3", "info"), stderr=subprocess.DEVNULL,
                                           stdout=subprocess.DEVNULL) == 0, "the agent's answer")

    def kill_agent(self):
        self.kill(signal.SIGKILL, self.processes("zenbrak3-agent"))
        self.agent.wait()

    def call(self, method, /, **params):
        """The agent's answer: a result, or None when it has an error instead."""
        return self.answer(method, params).get("result")

    def answer(self, method, params):
        """The agent's answer as it comes."""
        with socket.socket(socket.AF_UNIX) as agent:
            agent.connect(str(self.path("/run/zenbrak3/agent.sock")))
            agent.sendall(json.dumps({"jsonrpc": "2.0", "id": 1, "method": method,
                                      "params": params}).encode() + b"\n")
            with agent.makefile() as answers:
                return json.loads(answers.readline())
