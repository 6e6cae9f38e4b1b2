#!/usr/bin/env python3
"""sandbox/run_unit: what it makes of a unit's settings, and which it refuses. Needs root."""
import importlib.machinery
import importlib.util
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
RUN_UNIT = str(ROOT / "sandbox/run_unit")
SHOW = """#!/usr/bin/python3
import json, os, resource, signal
status = dict(line.split(":\\t") for line in open("/proc/self/status") if ":\\t" in line)
print(json.dumps(dict(
    umask=status["Umask"].strip(), capabilities=int(status["CapBnd"], 16), cwd=os.getcwd(),
    effective=int(status["CapEff"], 16), files=resource.getrlimit(resource.RLIMIT_NOFILE),
    core=resource.getrlimit(resource.RLIMIT_CORE)[0], environment=dict(os.environ),
    sigpipe=(int(status["SigIgn"], 16) >> (signal.SIGPIPE - 1)) & 1)))
"""
TRY = """#!/usr/bin/python3
import ctypes, errno, json, os, socket, subprocess, threading
libc = ctypes.CDLL(None, use_errno=True)
def call(function, *arguments):
    ctypes.set_errno(0)
    return errno.errorcode.get(ctypes.get_errno()) if function(*arguments) == -1 else "done"
def attempt(function, *arguments):
    try:
        function(*arguments)
        return "done"
    except OSError as error:
        return errno.errorcode[error.errno]
in_child = lambda function, *arguments: subprocess.run(
    ["/usr/bin/python3", "-c", "import ctypes, errno; libc = ctypes.CDLL(None, use_errno=True); print('done' if "
     "libc.%s(%s) != -1 else errno.errorcode[ctypes.get_errno()])" % (function, ", ".join(map(str, arguments)))],
    stdout=subprocess.PIPE, text=True).stdout.strip()
thread = threading.Thread(target=lambda: None)
thread.start()
print(json.dumps(dict(
    personality=in_child("personality", 0x40000), realtime=attempt(os.sched_setscheduler, 0, os.SCHED_FIFO,
                                                                  os.sched_param(1)),
    batch=attempt(os.sched_setscheduler, 0, os.SCHED_BATCH, os.sched_param(0)),
    uts=in_child("unshare", 0x04000000), mnt=in_child("unshare", 0x00020000), setns=in_child("setns", 0, 0),
    packet=attempt(socket.socket, socket.AF_PACKET, socket.SOCK_RAW),
    alg=attempt(socket.socket, socket.AF_ALG, socket.SOCK_SEQPACKET),
    unix=attempt(socket.socket, socket.AF_UNIX), netlink=attempt(socket.socket, socket.AF_NETLINK, socket.SOCK_RAW),
    ptrace=in_child("ptrace", 0, 0, 0, 0), privileges=libc.prctl(39, 0, 0, 0, 0))))
"""
UNIT = """[Unit]
Description=A service
# a comment
[Service]
Type=notify
ExecStart=%s
KillMode=process
%s
[Install]
WantedBy=multi-user.target
"""


def load():
    loader = importlib.machinery.SourceFileLoader("run_unit", RUN_UNIT)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("run_unit", loader))
    loader.exec_module(module)
    return module


class Run_Unit_Test(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.program = pathlib.Path(self.directory.name) / "show"
        self.program.write_text(SHOW)
        self.program.chmod(0o755)
        self.unit = pathlib.Path(self.directory.name) / "it.service"

    def run_with(self, settings, **environment):
        self.unit.write_text(UNIT % (self.program, settings))
        # in a process of its own, on files of its own
        code = ("import sys; sys.argv = ['run_unit', 'it']; import importlib.machinery as m;"
                "run = m.SourceFileLoader('run_unit', %r).load_module(); run.UNITS = %r;"
                "sys.exit(run.main())" % (RUN_UNIT, self.directory.name + "/%s.service"))
        return subprocess.run(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c",
             "mount -t tmpfs tmpfs /run && exec \"$@\"", "sh", "python3", "-W", "ignore", "-B", "-c", code],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env=dict(PATH=os.environ["PATH"], **environment))

    def shown(self, settings, **environment):
        done = self.run_with(settings, **environment)
        self.assertEqual(0, done.returncode, done.stderr)
        return json.loads(done.stdout)

    def test_what_systemd_gives_a_service_that_says_nothing(self):
        shown = self.shown("", SECRET="1", NOTIFY_SOCKET="@x")
        self.assertEqual("0022", shown["umask"])
        self.assertEqual("/", shown["cwd"])
        self.assertEqual(1, shown["sigpipe"])
        self.assertEqual(1024, shown["files"][0])
        self.assertEqual({"PATH", "LANG", "NOTIFY_SOCKET"},
                         set(shown["environment"]) - {"LC_CTYPE"})

    def test_what_the_unit_says(self):
        shown = self.shown("UMask=0077\nLimitNOFILE=300:400\nLimitCORE=0\nRuntimeDirectory=it\n"
                           "RuntimeDirectoryMode=0711\nEnvironment=A=1 \"B=x y\"\n"
                           "CapabilityBoundingSet=CAP_CHOWN CAP_KILL\nCapabilityBoundingSet=CAP_SETUID")
        self.assertEqual("0077", shown["umask"])
        self.assertEqual([300, 400], shown["files"])
        self.assertEqual(0, shown["core"])
        self.assertEqual(("1", "x y"), (shown["environment"]["A"], shown["environment"]["B"]))
        self.assertEqual("/run/it", shown["environment"]["RUNTIME_DIRECTORY"])
        self.assertEqual(1 << 0 | 1 << 5 | 1 << 7, shown["capabilities"])
        self.assertEqual(shown["capabilities"], shown["effective"])

    def test_the_modes_of_directories(self):
        self.program.write_text("#!/bin/sh\nstat -c %a /run/it /run/other\n")
        done = self.run_with("RuntimeDirectory=it other\nUMask=0077\nRuntimeDirectoryMode=0751")
        self.assertEqual("751\n751\n", done.stdout, done.stderr)

    def test_a_unit_without_a_filter_denies_nothing(self):
        self.program.write_text(TRY)
        shown = self.shown("")
        self.assertEqual(0, shown.pop("privileges"))
        shown.pop("alg")  # which a kernel may not have
        self.assertIn(shown.pop("setns"), ("EBADF", "EINVAL"))
        self.assertEqual({"done"}, set(shown.values()), shown)

    def test_what_the_filters_deny_and_what_they_leave(self):
        self.program.write_text(TRY)
        error = "\nSystemCallErrorNumber=EPERM"
        for setting, denied in (
                ("LockPersonality=yes", {"personality": "EPERM"}),
                ("RestrictRealtime=yes", {"realtime": "EPERM"}),
                ("RestrictNamespaces=mnt", {"uts": "EPERM", "setns": "EPERM"}),
                ("RestrictNamespaces=yes", {"uts": "EPERM", "setns": "EPERM", "mnt": "EPERM"}),
                ("RestrictAddressFamilies=AF_UNIX AF_NETLINK",
                 {"packet": "EAFNOSUPPORT", "alg": "EAFNOSUPPORT"}),
                ("SystemCallArchitectures=native", {}),
                ("SystemCallFilter=~@debug" + error, {"ptrace": "EPERM"}),
                ("SystemCallFilter=~@swap personality" + error, {"personality": "EPERM"})):
            before = self.shown("")
            self.assertEqual(dict(before, **denied), self.shown(setting), setting)

    def test_a_denied_call_ends_the_process_without_an_error_to_return(self):
        self.program.write_text("#!/usr/bin/python3\nimport os\nos.sched_yield()\nprint('alive')")
        self.assertEqual("", self.run_with("SystemCallFilter=~sched_yield").stdout)

    def test_what_no_test_would_run_with_is_refused(self):
        for setting in ("SystemCallFilter=@system-service", "SystemCallFilter=~@nonsense", "RestrictNamespaces=~mnt",
                        "RestrictNamespaces=mount", "RestrictAddressFamilies=~AF_UNIX", "LockPersonality=no",
                        "RestrictRealtime=1", "SystemCallArchitectures=x86", "SystemCallErrorNumber=EWORD",
                        "ProtectClock=yes", "DeviceAllow=/dev/fuse rw", "NoNewPrivileges=yes", "ProtectSystem=strict", "KillMode=mixed", "Type=simple", "LimitWORD=1",
                        "ExecStart=-/bin/true", "CapabilityBoundingSet=~CAP_KILL", "UMask=x",
                        "PrivateTmp=yes", "ExecStartPre=/bin/true", "continued=\\", "no setting",
                        "[Socket]"):
            done = self.run_with(setting)
            self.assertEqual(1, done.returncode, setting)
            self.assertIn("run_unit: ", done.stderr)
            self.assertEqual("", done.stdout)

    def test_the_products_own_unit_is_known_whole(self):
        module = load()
        sections = module.read_unit(ROOT / "agent/packaging/zenbrak3-agent.service.in")
        sections["Service"] = [(key, value.replace("@CMAKE_INSTALL_FULL_SBINDIR@", "/usr/sbin"))
                               for key, value in sections["Service"]]
        service = module.Service(sections)
        self.assertEqual(0o077, service.umask)
        self.assertIn("SETUID", service.keep)


if __name__ == "__main__":
    unittest.main()
