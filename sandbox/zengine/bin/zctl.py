#!/usr/bin/python3
"""zctl.py -t {start [-m {nomount | mount | open}] | stop | status}

Starts and stops the instance of GSDB_HOME and GSDB_DATA.
"""
import getopt
import os
import sys

HOME = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(HOME, "admin", "scripts"))
from zengine_tools.instance import Engine_Error, Instance  # noqa: E402


def start(instance, mode):
    if instance.server_pid() is not None:
        raise Engine_Error("The instance is already running.")
    instance.start(mode)
    print("Successfully started instance.")


def stop(instance, _):
    if instance.server_pid() is None:
        raise Engine_Error("The instance is not running.")
    instance.stop()
    print("Successfully stopped instance.")


def status(instance, _):
    print("Instance status is %s." % instance.status())


ACTIONS = {"start": start, "stop": stop, "status": status}


def run(arguments):
    if os.geteuid() == 0:
        raise Engine_Error("Can not run this script as a user with the root permission.")
    try:
        words, rest = getopt.getopt(arguments, "t:m:")
    except getopt.GetoptError as error:
        raise Engine_Error("Parameter input error: %s." % error)
    given = dict(words)
    if rest or given.get("-t") not in ACTIONS:
        raise Engine_Error("Parameter input error: you must use '-t {start|stop|status}'.")
    mode = given.get("-m", "open")
    if mode not in ("nomount", "mount", "open") or ("-m" in given and given["-t"] != "start"):
        raise Engine_Error("Parameter input error: '-m %s'." % mode)
    home, data = os.environ.get("GSDB_HOME", ""), os.environ.get("GSDB_DATA", "")
    if not home or not data:
        raise Engine_Error("Environment variable GSDB_HOME or GSDB_DATA is not set.")
    if os.path.realpath(home) != HOME:
        raise Engine_Error("GSDB_HOME %s is not the installation of this script." % home)
    ACTIONS[given["-t"]](Instance(home, data), mode)


if __name__ == "__main__":
    try:
        run(sys.argv[1:])
    except (Engine_Error, OSError) as failure:
        print("[ERROR] %s" % failure)
        sys.exit(1)
