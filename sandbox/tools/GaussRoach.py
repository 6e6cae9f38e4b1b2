#!/usr/bin/python3
"""GaussRoach.py: backs up the cluster of the environment and restores it.

    GaussRoach.py -t backup  --master-port PORT --media-type NBU --media-destination POLICY
                  --metadata-destination DIRECTORY [--prior-backup-key KEY] [OPTIONS]
    GaussRoach.py -t restore --master-port PORT --media-type NBU --media-destination POLICY
                  --metadata-destination DIRECTORY --clean --backup-key KEY
                  [--restore-new-cluster [--restore-configs]] [OPTIONS]
    GaussRoach.py -t start [--media-type NBU] [--restore-new-cluster [-X XML]]
    GaussRoach.py -t stop
    GaussRoach.py -t show --metadata-destination DIRECTORY
    GaussRoach.py --version

The data warehouse and openGauss have lines of their own, see roach/remote_options.py; there "stop" ends
the operation that runs.

    --parallel-process N       workers, 2 unless given
    --compression-type 0       the media compress
    --max-memory-usage MB  --buffer-size MB  --buffer-block-size BYTES
    --nbu-policy PATH  --mode single|cluster       of the older series
"""
import os
import re
import signal
import sys
import time
import xml.etree.ElementTree

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
sys.dont_write_bytecode = True
from roach import options, remote_options  # noqa: E402
from roach.agents import Agents, for_all_machines, listen  # noqa: E402
from roach.backup import Backup  # noqa: E402
from roach.cluster import Cluster, Tool_Error, end_operation, only_one  # noqa: E402
from roach.fine_restore import Fine_Restore  # noqa: E402
from roach.metadata import Metadata  # noqa: E402
from roach.object_store import MIB  # noqa: E402
from roach.restore import Restore  # noqa: E402
from roach.screen import marked, say  # noqa: E402
from roach.workers import end_by_signal  # noqa: E402

DEFAULT_BLOCK = MIB
MEDIA = {"-t", "--master-port", "--media-type", "--media-destination", "--metadata-destination",
         "--parallel-process"}
MEMORY = {"--max-memory-usage", "--buffer-size", "--buffer-block-size"}
OLDER = {"--nbu-policy", "--mode"}
# what each series takes beyond that
ALLOWED = {
    ("backup", "200"): MEDIA | MEMORY | {"--compression-type", "--prior-backup-key"},
    ("backup", "100"): MEDIA | OLDER | {"--prior-backup-key"},
    ("restore", "200"): MEDIA | MEMORY | {"--clean", "--backup-key", "--restore-new-cluster",
                                        "--restore-configs"},
    ("restore", "100"): MEDIA | OLDER | {"--clean", "--backup-key", "--restore-new-cluster"},
    ("start", "200"): {"-t", "--restore-new-cluster", "-X"},
    ("start", "100"): {"-t", "--media-type", "--restore-new-cluster"},
}
LONG_OPTIONS = [
    "master-port=", "media-type=", "media-destination=", "metadata-destination=",
    "compression-type=", "prior-backup-key=", "backup-key=", "parallel-process=",
    "max-memory-usage=", "buffer-size=", "buffer-block-size=", "nbu-policy=", "mode=", "clean",
    "restore-new-cluster", "restore-configs", "help", "version"] + remote_options.LONG_OPTIONS


def number(given, name, default, least, most):
    text = given.get("--" + name)
    if text is None:
        return default
    if not text.isdigit() or not least <= int(text) <= most:
        raise Tool_Error("[GAUSS-50004] : The parameter '--%s' value is incorrect: %s." % (name, text))
    return int(text)


def required(given, *names):
    for name in names:
        if not given.get("--" + name):
            raise Tool_Error("[GAUSS-50001] : Incorrect parameter. Parameter '--%s' is required."
                             % name)


def check_media(given, cluster):
    if cluster.release.is_remote:
        return  # its forms have been looked at
    required(given, "media-type", "media-destination", "metadata-destination")
    if given["--media-type"] != "NBU":
        raise Tool_Error("[GAUSS-50004] : The parameter '--media-type' value is incorrect: %s. The "
                         "media here are NBU's." % given["--media-type"])
    if given.get("--compression-type", "0") != "0":
        raise Tool_Error("[GAUSS-50004] : The parameter '--compression-type' value is incorrect: the "
                         "media compress.")
    if cluster.release.series == "100":
        required(given, "nbu-policy", "mode")
        if given["--mode"] not in ("single", "cluster"):
            raise Tool_Error("[GAUSS-50004] : The parameter '--mode' value is incorrect: %s."
                             % given["--mode"])
        if given["--media-destination"] == given["--metadata-destination"]:
            raise Tool_Error("[GAUSS-50002] : Incorrect parameter. The directories of the media and of "
                             "the metadata must differ.")
    if given.get("--mode") != "single":
        required(given, "master-port")


def backup_key(given, name):
    """A key, or "" when none is given."""
    key = given.get(name, "")
    if key and not re.fullmatch(r"\d{8}_\d{6}", key):
        raise Tool_Error("[GAUSS-50004] : The parameter '%s' value is incorrect: %s." % (name, key))
    return key


def policy_of(given, cluster):
    if cluster.release.is_remote:
        return remote_options.way(given)
    # what it means is the media's to know
    return given["--nbu-policy" if cluster.release.series == "100" else "--media-destination"]


def block_size(given):
    number(given, "max-memory-usage", 0, 1, 1 << 20)
    number(given, "buffer-size", 0, 1, 1 << 20)
    block = number(given, "buffer-block-size", DEFAULT_BLOCK, 1, 1 << 30)
    return min(max(block, 64 * 1024), 16 * MIB)


def taken(start):
    return "[MASTER] Time taken : %ds" % round(time.monotonic() - start)


def finish(action):
    say("Successfully send signal to kill all gs_roach.")
    say("Cleaning temp files after backup or restore.")
    say("Successfully cleaned temp files after backup or restore.")
    say("Roach operation %s completed." % action)


def begin(given, cluster):
    """Takes what a run must have for itself alone, until it ends: the lock and the agents."""
    say("Parsing the configuration file.")
    held = only_one(cluster)
    # without the other machines there is nothing to listen for
    with listen(number(given, "master-port", 0, 1024, 65535)) as listener:
        say("Roach master is ready to accept connections. Starting agents now...")
        return held, Agents(cluster, listener)


def backup(given, cluster):
    check_media(given, cluster)
    start, prior = time.monotonic(), backup_key(given, "--prior-backup-key")
    processes, block = number(given, "parallel-process", 2, 1, 64), block_size(given)
    scope, policy = remote_options.scope(given), policy_of(given, cluster)
    held, agents = begin(given, cluster)
    with agents:
        key = Backup(cluster, Metadata(given["--metadata-destination"], cluster.release), policy, prior,
                     processes, block, agents, scope).run()
    word = "backup key" if cluster.release.series == "100" else "Backup key"
    say("[MASTER]Backup operation SUCCESSFUL. %s: %s" % (word, key))
    say(taken(start))
    finish("backup")
    os.close(held)
    return 0


def restore(given, cluster):
    check_media(given, cluster)
    required(given, "backup-key")
    fine, policy = remote_options.fine(given), policy_of(given, cluster)
    if "--clean" not in given and not fine:
        raise Tool_Error("[GAUSS-50001] : Incorrect parameter. Parameter '--clean' is required: the "
                         "data directories are replaced.")
    new = "--restore-new-cluster" in given and not fine
    if "--restore-configs" in given and not new:
        raise Tool_Error("[GAUSS-50001] : Incorrect parameter. Parameter '--restore-new-cluster' is "
                         "required with '--restore-configs'.")
    start, key = time.monotonic(), backup_key(given, "--backup-key")
    processes, block = number(given, "parallel-process", 2, 1, 64), block_size(given)
    held, agents = begin(given, cluster)
    with agents:
        common = (cluster, Metadata(given["--metadata-destination"], cluster.release), policy, key,
                  processes, block)
        if fine:
            Fine_Restore(*common, fine, agents).run()
        else:
            Restore(*common, new and "--restore-configs" not in given, agents,
                    given.get("--old-cluster-hostname")).run()
    marked("[MASTER]Restore operation finished.")
    say(taken(start))
    finish("restore")
    os.close(held)
    return 0


def start(given, cluster):
    if "-X" in given:
        if "--restore-new-cluster" not in given:
            raise Tool_Error("[GAUSS-50001] : Incorrect parameter. Parameter '--restore-new-cluster' is "
                             "required with '-X'.")
        try:
            names = {one.get("value") for one in
                     xml.etree.ElementTree.parse(given["-X"]).iterfind(".//DEVICE/PARAM")
                     if one.get("name") == "name"}
        except (OSError, xml.etree.ElementTree.ParseError) as error:
            raise Tool_Error("[GAUSS-51236] : Failed to parse %s: %s" % (given["-X"], error))
        if names != set(cluster.info.getClusterNodeNames()):
            raise Tool_Error("[GAUSS-51236] : %s is not of this cluster." % given["-X"])
    held = only_one(cluster)
    say("Starting cluster...")

    def start_own():
        for instance in cluster.local_instances():
            instance.start(seconds=3600)
    for_all_machines(cluster, "start", {"seconds": 3600}, start_own)
    say("Successfully started.")
    os.close(held)


def stop(given, cluster):
    if cluster.release.is_remote:
        say("Successfully stopped the operation." if end_operation(cluster) else "No operation runs.")
        return
    held = only_one(cluster)
    say("Stopping cluster...")

    def stop_own():
        for instance in cluster.local_instances():
            instance.stop()
    for_all_machines(cluster, "stop", {"mode": "fast"}, stop_own)
    say("Successfully stopped.")
    os.close(held)


def show(given, cluster):
    required(given, "metadata-destination")
    metadata = Metadata(given["--metadata-destination"], cluster.release)
    for one in metadata.entries():
        say("%s  %-11s  %s  %s" % (one["BackupKey"], one["BackupType"], one["BackupSize"],
                                   one["PriorBackupKey"]))


ACTIONS = {"backup": backup, "restore": restore, "start": start, "stop": stop, "show": show}


def run(arguments):
    given = dict(options.parse(arguments, "t:X:?", LONG_OPTIONS))
    if "-?" in given or "--help" in given:
        print(__doc__)
        return 0
    if set(given) == {"--version"}:
        print(Cluster().release.version_line("GaussRoach.py"))
        return 0
    if given.get("-t") not in ACTIONS:
        raise Tool_Error("[GAUSS-50004] : The parameter '-t' value is incorrect.")
    cluster = Cluster()

    end_by_signal(signal.SIGTERM, signal.SIGINT)
    if cluster.release.is_remote:
        remote_options.check(given, given["-t"], cluster.release.series)
    else:
        options.only(given, given["-t"], ALLOWED.get((given["-t"], cluster.release.series),
                                                     {"-t", "--metadata-destination"}))
    try:
        return ACTIONS[given["-t"]](given, cluster)
    except Tool_Error:
        if given["-t"] in ("backup", "restore"):
            marked("[MASTER]%s operation FAILED." % given["-t"].capitalize())
        raise


if __name__ == "__main__":
    sys.exit(options.main("GaussRoach.py", run, sys.argv[1:]))
