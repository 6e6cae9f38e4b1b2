"""The agent's time and room: tools that hang, print for ever and stay behind, and crowds at the port."""
import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time

from attacks import attacker
from attacks.attacker import Attack_Test, USER, start_as
from protected_cluster import processes
from sandbox_test import HOME, wait_until
import protection

TOOLS = HOME / "wisequery/script"
CONFIG = pathlib.Path("/etc/zenbrak3/agent.toml")
MARK = "86399"  # seconds that no other process of the machine sleeps

HANGS = "#!/bin/sh\ntrap '' TERM\nsetsid sleep %s &\nwhile :; do sleep %s; done\n" % (MARK, MARK)
FLOODS = "#!/bin/sh\nexec yes cluster_state : Normal\n"
LONG_LINE = "#!/bin/sh\nexec cat /dev/zero\n"
STAYS = ("#!/bin/sh\n(trap '' TERM; setsid sh -c 'while :; do sleep %s; done' &)\n"
         "echo 'cluster_state   : Normal'\n" % MARK)


def marked():
    """The processes that the false tools have started."""
    return {pid: one.words for pid, one in processes().items() if MARK in " ".join(one.words)}


def asks_tool():
    """True while the agent waits for a tool."""
    agent = attacker.world.agent.pid
    return any(one.parent == agent for one in processes().values())


@contextlib.contextmanager
def false_tool(name, script):
    """The tool of the database's user is that script; afterwards the real one again."""
    tool, real = TOOLS / name, TOOLS / (name + ".real")
    tool.rename(real)
    try:
        tool.write_text(script)
        tool.chmod(0o755)
        os.chown(tool, real.stat().st_uid, real.stat().st_gid)
        yield
    finally:
        real.replace(tool)


class Tools_Test(Attack_Test):
    def setUp(self):
        self.config = CONFIG.read_text() if CONFIG.exists() else ""
        self.log_begin = os.path.getsize(protection.AGENT_LOG)

    def tearDown(self):
        self.configure("")
        super().tearDown()

    def configure(self, text):
        CONFIG.write_text(self.config + text)
        begin = os.path.getsize(protection.AGENT_LOG)
        attacker.world.agent.send_signal(signal.SIGHUP)
        wait_until(lambda: "configuration was read again" in self.log(begin))

    def log(self, begin=None):
        with open(protection.AGENT_LOG, errors="replace") as log:
            log.seek(self.log_begin if begin is None else begin)
            return log.read()

    def show(self):
        """Asks for the state of the instance, which asks gs_om; what comes and how long it took."""
        begin = time.monotonic()
        done = subprocess.run(["zenbrak3", "instance", "show", "c1"], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=60)
        return done.stdout, time.monotonic() - begin

    def test_a_tool_that_hangs_is_ended_with_all_that_it_has_started(self):
        self.configure("[limits]\ntool_timeout = 1\n")
        with false_tool("gs_om", HANGS):
            shown, seconds = self.show()
        self.assertIn("error", shown)
        self.assertLess(seconds, 20)
        self.assertRegex(self.log(), r"gs_om.*was ended, .* within 1 seconds \(limits.tool_timeout\)")
        wait_until(lambda: not marked())

    def test_a_tool_that_prints_for_ever_is_ended(self):
        self.configure("[limits]\ntool_output = 1000000\n")
        for script, reason in ((FLOODS, r"more than 1000000 bytes \(limits.tool_output\)"),
                               (LONG_LINE, "more than 10")):
            with false_tool("gs_om", script):
                _, seconds = self.show()
            self.assertLess(seconds, 30)
            self.assertRegex(self.log(), "gs_om.*was ended, .*" + reason)

    def test_what_a_tool_leaves_behind_with_its_pipe_is_ended(self):
        self.configure("[limits]\ntool_timeout = 2\n")
        with false_tool("gs_om", STAYS):
            shown, seconds = self.show()
        self.assertIn("Normal", shown)
        self.assertLess(seconds, 20)
        wait_until(lambda: not marked())

    def test_many_calls_for_a_stuck_instance_leave_the_socket_to_others_and_end_with_their_callers(self):
        with false_tool("gs_om", HANGS):
            callers = [subprocess.Popen(["zenbrak3", "instance", "show", "c1"],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
                       for _ in range(12)]
            wait_until(marked)
            begin = time.monotonic()
            for words in (("info",), ("jobs",), ("backups",), ("pools",), ("instances",)):
                protection.ask("zenbrak3", *words)
            self.assertLess(time.monotonic() - begin, 15)
            # those for which there is no room are told so at once
            wait_until(lambda: sum(caller.poll() is not None for caller in callers) == 8)
            for caller in callers:
                if caller.poll() is not None:
                    self.assertIn("calls wait for the tools of the instance", caller.stdout.read())
            self.assertTrue(marked())
            for caller in callers:
                caller.kill()
                caller.communicate()
            wait_until(lambda: not marked())

    def test_the_agent_ends_in_time_although_a_tool_hangs(self):
        self.configure("[agent]\nstop_timeout = 8\n")
        with false_tool("gs_om", HANGS):
            caller = subprocess.Popen(["zenbrak3", "instance", "show", "c1"],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            wait_until(marked)
            begin = time.monotonic()
            attacker.world.stop_agent()
            self.assertLess(time.monotonic() - begin, 10)
            self.assertFalse(marked())
            caller.wait()
        with false_tool("gs_check", HANGS):
            attacker.world.start_agent()
            # its first look for instances waits for the tool
            wait_until(marked)
            begin = time.monotonic()
            attacker.world.stop_agent()
            self.assertLess(time.monotonic() - begin, 10)
            self.assertFalse(marked())
        attacker.world.start_agent()
        protection.ask("zenbrak3", "instances", "--refresh")


CROWD = """
import socket, select, time
crowd = []
while True:
    while len(crowd) < 200:
        one = socket.socket()
        one.settimeout(5)
        try:
            one.connect(("127.0.0.1", 60305))
        except OSError:
            one.close()
            break
        crowd.append(one)
    gone = select.select(crowd, [], [], 0.01)[0] if crowd else []
    for one in gone:
        crowd.remove(one)
        one.close()
"""


def memory_of(pid):
    """The most memory that a process has had, in MiB."""
    lines = pathlib.Path("/proc/%d/status" % pid).read_text().splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith("VmHWM")) // 1024


class Room_Test(Attack_Test):
    def test_a_crowd_without_the_key_keeps_no_backup_out(self):
        crowd = start_as(USER, sys.executable, "-c", CROWD)
        try:
            wait_until(lambda: "that have not shown the access key"
                       in pathlib.Path(protection.AGENT_LOG).read_text(errors="replace"))
            run = attacker.world.backup("--name", "crowded")
            self.assertEqual("completed", run["state"], run)
        finally:
            crowd.kill()
            crowd.wait()

    def test_large_messages_without_end_take_little_memory(self):
        before = memory_of(attacker.world.agent.pid)
        line = b'{"jsonrpc": "2.0", "id": 1, "method": "agent.info", "params": {"a": "' + b"x" * (
            15 * 1024 * 1024)
        clients = []
        for _ in range(60):
            client = socket.socket(socket.AF_UNIX)
            client.connect("/run/zenbrak3/agent.sock")
            client.settimeout(10)
            with contextlib.suppress(OSError):  # refused
                client.sendall(line)
            clients.append(client)
        protection.ask("zenbrak3", "info")
        for client in clients:
            client.close()
        self.assertLess(memory_of(attacker.world.agent.pid) - before, 300)
