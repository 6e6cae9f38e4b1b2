"""The clock of the agent on a machine of the sandbox, which a test sets forward while the agent runs.

libfaketime is loaded into the agent alone; its tools and the databases have the machine's clock. The agent's
monotonic clock is the machine's, too, so waiting takes the time that it takes, and so are the times of files.
"""
import pathlib
import time

OFFSET = pathlib.Path("/run/virtual-time")
UNIT = pathlib.Path("/lib/systemd/system/zenbrak3-agent.service")
CONFIGURATION = pathlib.Path("/etc/zenbrak3/agent.toml")
SETTINGS = {"FAKETIME_TIMESTAMP_FILE": OFFSET, "FAKETIME_NO_CACHE": 1, "FAKETIME_DONT_FAKE_MONOTONIC": 1,
            "NO_FAKE_STAT": 1}


def only(pattern, directory="/usr/lib"):
    found = next(iter(sorted(pathlib.Path(directory).glob(pattern))), None)
    if not found:
        raise FileNotFoundError("%s/%s does not exist; tools/setup installs what the tests need" % (directory, pattern))
    return found


def install():
    """Gives the installed unit the clock, which is the machine's until it is set. The loader is started in place of
    the agent, since LD_PRELOAD would be handed on to the tools; so the agent does not find its module by itself."""
    set_to(time.time())
    loader = "%s --preload %s " % (only("ld-linux*.so.*", "/lib64"), only("*/faketime/libfaketimeMT.so.1"))
    lines = "".join("Environment=%s=%s\n" % pair for pair in SETTINGS.items())
    UNIT.write_text(UNIT.read_text().replace("ExecStart=", lines + "ExecStart=" + loader, 1))
    module = only("*/zenbrak3/libzenbrak3_gaussdb.so")
    CONFIGURATION.write_text("[agent]\nmodule = \"%s\"\n" % module)


def now():
    """The agent's time."""
    return time.time() + int(OFFSET.read_text())


def set_to(moment):
    """Sets the agent's clock, in seconds since the epoch. It goes on from there."""
    scratch = OFFSET.with_suffix(".new")
    scratch.write_text("+%d\n" % (moment - time.time()))
    scratch.chmod(0o644)
    scratch.rename(OFFSET)
