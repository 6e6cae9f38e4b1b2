"""The database's user replaces the tools that the agent asks: they hang, print for ever, stay behind."""
import contextlib
import os
import pathlib
import signal
import subprocess
import time

from attacks import attacker
from attacks.attacker import Attack_Test
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
