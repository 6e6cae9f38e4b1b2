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

    def test_what_no_test_would_run_with_is_refused(self):
        for setting in ("ProtectSystem=strict", "KillMode=mixed", "Type=simple", "LimitWORD=1",
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
