"""The cluster as its tools know it: from the environment, the static configuration and the release."""
import fcntl
import os
import shutil
import signal
import socket
import subprocess
import time

from gspylib.common.DbClusterInfo import (
    INSTANCE_ROLE_COORDINATOR, ConfigError, dbClusterInfo)


class Tool_Error(Exception):
    """What stops a tool, in words for its user."""


def environment(name):
    value = os.environ.get(name, "").strip()
    if not value:
        raise Tool_Error("[GAUSS-51802] : Failed to obtain the environment variable [%s]." % name)
    return value


class Release(object):
    """Which product the tools claim to be: the lines of $GPHOME/version.cfg."""

    def __init__(self):
        with open(os.path.join(environment("GPHOME"), "version.cfg")) as lines:
            self.product, self.number, self.build = lines.read().splitlines()[:3]
        self.series = self._series()

    def _series(self):
        """"100", "200", its successor "dws", or "opengauss"."""
        if self.product == "GaussDB_100":
            return "100"
        if self.product == "GaussDB Kernel":
            return "opengauss"
        return "dws" if self._numbers() >= (8, 2, 0) else "200"

    def _numbers(self):
        return tuple(int(part) for part in self.number.split("."))

    @property
    def is_remote(self):
        """Whether the data goes to a service on another machine, from which the metadata come, too."""
        return self.series in ("dws", "opengauss")

    def version_line(self, tool):
        if self.series == "100":
            return "%s GaussDB_100_%s build %s" % (tool, self.number, self.build)
        return ("%s (%s %s build %s) compiled at 2021-06-30 11:40:54 commit 3629 last mr 5138 "
                "release" % (tool, self.product, self.number, self.build))

    @property
    def keeps_metadata_everywhere(self):
        """From 8.1.1 on each machine has the metadata of every backup, not the master's alone."""
        return self._numbers() >= (8, 1, 1)

    @property
    def saved_config_name(self):
        return "bak_cluster_static_config" + (".common" if self.keeps_metadata_everywhere else "")


def answers(place, port):
    """Whether a server takes sessions there."""
    return subprocess.call(["pg_isready", "-q", "-t", "3", "-h", place, "-p", str(port), "-d",
                            "postgres"]) == 0


class Instance(object):
    """One coordinator or data node: a server process and its data directory."""

    def __init__(self, info, node_index, address):
        self.id = info.instanceId
        self.is_coordinator = info.instanceRole == INSTANCE_ROLE_COORDINATOR
        self.name = "%s_%d" % ("cn" if self.is_coordinator else "dn", info.instanceId)
        self.port = info.port
        self.data = info.datadir
        self.node_index = node_index
        self.address = address
        self.host = info.hostname

    @property
    def local(self):
        return self.host == socket.gethostname()

    def running(self):
        return answers(environment("PGHOST") if self.local else self.address, self.port)

    def server_pid(self):
        """The process of the server that has the directory open, or None."""
        try:
            with open(os.path.join(self.data, "postmaster.pid")) as lines:
                pid = int(lines.readline())
            os.kill(pid, 0)
            return pid
        except (OSError, ValueError):
            return None

    def start(self, seconds=120):
        """Starts the server unless it runs, and waits until it answers."""
        if self.running():
            return
        if not os.path.exists(os.path.join(self.data, "PG_VERSION")):
            raise Tool_Error("[GAUSS-51607] : Failed to start %s: %s is not a data directory."
                             % (self.name, self.data))
        log = os.path.join(environment("GAUSSLOG"), self.name + ".log")
        with open(log, "ab") as output:
            server = subprocess.Popen(
                [os.path.join(environment("GAUSSHOME"), "bin", "gaussdb"), "-D", self.data, "-p",
                 str(self.port), "-k", environment("PGHOST")],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
                cwd=self.data)
        self.wait_for_answer(server, self.port, log, self.name, seconds)

    @staticmethod
    def wait_for_answer(server, port, log, name, seconds=120):
        """@param server  the process that has just been started"""
        end = time.monotonic() + seconds
        while not answers(environment("PGHOST"), port):
            if server.poll() is not None or time.monotonic() > end:
                raise Tool_Error("[GAUSS-51607] : Failed to start %s, see %s." % (name, log))
            time.sleep(0.05)

    def stop(self, mode="fast", seconds=120):
        """Stops the server and waits for its end; nothing to do when none runs."""
        pid = self.server_pid()
        if pid is None:
            return
        os.kill(pid, {"smart": 15, "fast": 2, "immediate": 3}[mode])
        end = time.monotonic() + seconds
        while self.server_pid() is not None:
            if time.monotonic() > end:
                raise Tool_Error("[GAUSS-51610] : Failed to stop %s." % self.name)
            time.sleep(0.02)


class Cluster(object):
    """The cluster of the environment, for the user who has it. Raises Tool_Error when it cannot be read."""

    def __init__(self):
        if os.geteuid() == 0:
            raise Tool_Error("[GAUSS-50105] : Cannot run this script as a user with the root permission.")
        for name in ("GAUSSHOME", "GPHOME", "PGHOST", "GAUSSLOG", "GS_CLUSTER_NAME"):
            environment(name)
        self.home = environment("GAUSSHOME")
        self.name = environment("GS_CLUSTER_NAME")
        try:
            owner = os.stat(self.home).st_uid
        except OSError as error:
            raise Tool_Error("[GAUSS-50201] : The %s does not exist: %s" % (self.home, error))
        if owner != os.geteuid():
            raise Tool_Error("[GAUSS-50323] : The user is not the cluster installation user.")
        self.config = os.path.join(self.home, "bin", "cluster_static_config")
        self.release = Release()
        self.info = dbClusterInfo()
        try:
            self.info.initFromStaticConfigWithoutUser(self.config)
        except (OSError, ConfigError) as error:
            raise Tool_Error("[GAUSS-51236] : Failed to parse %s: %s" % (self.config, error))
        self.nodes = self.info.dbNodes

    def instances(self):
        return [Instance(one, index, node.backIps[0]) for index, node in enumerate(self.nodes)
                for one in node.coordinators + node.datanodes]

    def coordinator(self):
        """The first one, or the first data node of a cluster without."""
        return min(self.instances(), key=lambda one: (not one.is_coordinator, one.id))

    def local_instances(self):
        return [one for one in self.instances() if one.local]

    def machines(self):
        """Number and address of each machine with data nodes."""
        return sorted({(one.node_index, one.address) for one in self.instances()})

    @property
    def switched_mark(self):
        """Exists while primaries do not run where they were installed."""
        return os.path.join(self.home, "bin", "cluster_switched")

    def balanced(self):
        return not os.path.exists(self.switched_mark)

    def state(self):
        """Normal, Degraded when some instances do not answer, Unavailable when none does."""
        answers = [one.running() for one in self.instances()]
        if all(answers):
            return "Normal", answers
        return ("Degraded" if any(answers) else "Unavailable"), answers


def lock_path(cluster):
    return os.path.join(cluster.home, "bin", "roach.lock")


def only_one(cluster):
    """Holds this machine's part of the cluster for one run; the lock goes with the process."""
    lock = os.open(lock_path(cluster), os.O_RDWR | os.O_CREAT, 0o600)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        raise Tool_Error("[GAUSS-53200] : Another Roach operation is in progress.")
    os.ftruncate(lock, 0)
    os.pwrite(lock, b"%d" % os.getpid(), 0)
    return lock


def end_operation(cluster, seconds=30):
    """Ends the operation that this machine is the master of, and waits for its end. False when none
    runs."""
    lock = os.open(lock_path(cluster), os.O_RDWR | os.O_CREAT, 0o600)
    try:
        end, asked = time.monotonic() + seconds, None
        while True:
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                return asked is not None
            except OSError:
                pass
            pid = int(os.pread(lock, 20, 0) or 0)
            if time.monotonic() > end:
                raise Tool_Error("[GAUSS-53214] : The operation of the process %d does not end." % pid)
            if pid and pid != asked:
                os.kill(pid, signal.SIGTERM)
                asked = pid
            time.sleep(0.02)
    finally:
        os.close(lock)


def remove_tree(path):
    """Removes what is there, whatever it is; a path that is not there is no fault."""
    if os.path.islink(path) or os.path.isfile(path):
        os.unlink(path)
    elif os.path.isdir(path):
        shutil.rmtree(path)
