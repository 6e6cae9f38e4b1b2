"""Clusters on machines without an agent, and the host that protects them over ssh: a world for tests and
demos of the whole road. On the databases' machines nothing of the product is installed."""
import collections
import concurrent.futures
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
from machines import (  # noqa: E402
    CLUSTER, MACHINE, MAKE_PACKAGE, SERVICE, Host, files_below, run, wait_until)

CACHE = "/var/cache/quilmot/zenbrak3/gaussdb"
OURS = "10.77.0.10"
META = "/home/omm/roach_meta"
POOL = "/srv/pool"
# of the cluster's machines; how many data nodes; the service that takes its data, and that one's user
Flavour = collections.namedtuple("Flavour", "series machines nodes service user")
FLAVOURS = {
    "dws1": Flavour("dws", {"dws1a": "10.77.0.1", "dws1b": "10.77.0.2"}, 2, "roach_client", "roach"),
    "og1": Flavour("opengauss", {"og1a": "10.77.0.3"}, 1, "backUpAgent", "gsbackup"),
}


class Cluster(object):
    """A cluster without an agent."""

    def __init__(self, name, work):
        self.name, self.flavour = name, FLAVOURS[name]
        self.share = work / ("share-" + name)
        (self.share / "keys").mkdir(parents=True)
        self.hosts = [Host(work / host, host, address, self.share)
                      for host, address in self.flavour.machines.items()]
        self.first = self.hosts[0]
        self.address = "omm@" + next(iter(self.flavour.machines.values()))

    def start_making(self, public_key):
        """Processes that make it on all its machines."""
        (self.share / "admin.pub").write_text(public_key)
        return self._create(self.name)

    def replace(self, name):
        """Another cluster of that name in its place; nothing of the old one is left."""
        self.everywhere("remove")
        if any([one.wait() for one in self._create(name)]):
            raise AssertionError("the cluster %s could not be made" % name)

    def _create(self, name):
        machines = ",".join("%s=%s" % pair for pair in self.flavour.machines.items())
        return [subprocess.Popen(host.words(
            CLUSTER, "create", "--name", name, "--series", self.flavour.series, "--nodes",
            self.flavour.nodes, "--machines", machines, "--keys", "/srv/shared/keys", "--authorize",
            "/srv/shared/admin.pub", "--media", OURS, "--no-fsync"), stdout=subprocess.DEVNULL)
            for host in self.hosts]

    def everywhere(self, *words):
        with concurrent.futures.ThreadPoolExecutor(len(self.hosts)) as threads:
            return list(threads.map(lambda host: host.cluster(*words), self.hosts))

    def sql(self, statement, database="postgres"):
        """On all its servers, as a coordinator would have it done; what they answer, a line each."""
        return "".join(self.everywhere("sql", "all", statement, database)).splitlines()

    def rows(self):
        """Of each table, on each server: counts and checksums."""
        return self.everywhere("checksums")

    def lose(self):
        """All data directories, and what the tool knew of its backups."""
        self.everywhere("destroy-data")
        for host in self.hosts:
            shutil.rmtree(host.path(META))
            host.path(META).mkdir(0o700)
            host.do("chown", "omm:dbgrp", META)

    def lists_and_metadata(self):
        """Files in the homes of the tool's user that are there for one run only."""
        return [str(path) for host in self.hosts
                for path in host.path("/home/omm").glob("zenbrak3_*")]


class World(object):
    """The clusters of some flavours, and the host "backup1" with agent, pool and services."""

    # a node that is cut off is noticed, however long its tool says nothing
    SSH_OPTIONS = "-o ConnectTimeout=4 -o ServerAliveInterval=2 -o ServerAliveCountMax=3"

    def __init__(self, build, names, mib):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="zenbrak3-agentless-", dir="/var/tmp"))
        self.work.chmod(0o755)
        self.hosts, self.resources = [], set()
        try:
            self._make(build, names, mib)
        except BaseException:
            self.clean()
            raise

    def _make(self, build, names, mib):
        share = self.work / "share-ours"
        share.mkdir()
        self.ours = Host(self.work / "backup1", "backup1", OURS, share)
        self.hosts.append(self.ours)
        self.clusters = {}
        for name in names:
            self.clusters[name] = Cluster(name, self.work)
            self.hosts += self.clusters[name].hosts
        self.add_machines()
        run(MACHINE, "join", *[host.directory for host in self.hosts])
        self.ours.do("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/root/.ssh/id_ed25519")
        key = self.ours.path("/root/.ssh/id_ed25519.pub").read_text()
        making = [one for cluster in self.clusters.values() for one in cluster.start_making(key)]
        making += self.start_making(mib)
        package = run(MAKE_PACKAGE, build).strip()
        self.ours.do("dpkg", "--install", package)
        if any([one.wait() for one in making]):
            raise AssertionError("the clusters could not be made")
        for cluster in self.clusters.values():
            cluster.everywhere("fill", mib)
            self.ours.do(SERVICE, "start", cluster.flavour.service, "--address", OURS)
        self.prepare_agent()
        self.ours.start_agent()
        self.ours.do("mkdir", POOL)
        self.ours.do("zenbrak3", "pool", "create", "main", "file://" + POOL)
        for name in self.clusters:
            self.declare(name)

    # --- for worlds that have more than clusters

    def add_machines(self):
        pass

    def start_making(self, mib):
        """Processes that make what is on those machines."""
        return []

    def prepare_agent(self):
        """Before its first start."""

    def add_words(self, name, cluster=None):
        """The command that declares an instance. @param cluster  where it is, unless it is the one of
        that name"""
        cluster = cluster or self.clusters[name]
        # as an administrator reads it on the node itself
        fingerprint = cluster.first.do("ssh-keygen", "-lf", "/etc/ssh/sandbox_host_key.pub").split()[1]
        return ["zenbrak3", "instance", "add", name, "--address", cluster.address, "--meta-path", META,
                "--backup-port", "9500", "--ssh-options", self.SSH_OPTIONS, "--host-key", fingerprint]

    def declare(self, name, cluster=None):
        self.ours.do(*self.add_words(name, cluster))
        self.resources.add(self.instance(name)["uuid"])

    def instance(self, name):
        return self.ours.call("instance.show", instance=name)

    def agent_log(self):
        return (self.ours.directory / "agent.log").read_text(errors="replace")[-4000:]

    def clean(self):
        for host in self.hosts:
            subprocess.call([MACHINE, "stop", str(host.directory)])
            if host.agent:
                host.agent.wait()
        shutil.rmtree(self.work, ignore_errors=True)

    # --- jobs

    def start(self, *words):
        """A job as an administrator has it; a process."""
        return subprocess.Popen(self.ours.words("zenbrak3", *words, "--json", "--interval", "0.05"),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def end(self, process, seconds=120):
        """Waits for the run to finish. Returns it with its log."""
        out, err = process.communicate(timeout=seconds)
        assert out, "%s %s" % (err, self.agent_log())
        return self.with_log(json.loads(out))

    def with_log(self, record):
        record["log"], offset, text = "", 0, None
        while text != "":
            part = self.ours.call("job.log", job=record["run_id"], offset=offset)
            text, offset = part["text"], part["next_offset"]
            record["log"] += text
        return record

    def run(self, *words):
        """The run of a job that has to succeed."""
        return self.end_well(self.start(*words))

    def start_backup(self, name, *words):
        return self.start("backup", name, "--pool", "main", "--channels", "2", *words)

    def backup(self, name, *words):
        """The record of a new set."""
        run_id = self.end_well(self.start_backup(name, *words))["run_id"]
        return next(one for one in self.sets() if one["uuid"] == run_id)

    def end_well(self, process):
        record = self.end(process)
        assert record["state"] == "completed", "%s\n%s" % (record, record["log"])
        return record

    def restore_to_new_cluster(self, backup, name):
        """The run of a restore to another cluster than the backup's."""
        xml = "/home/omm/wisequery/script/config/clusterconfig.xml"
        return self.run_definition(
            name="to " + name, type="restore", subtype="full", target={"id": self.instance(name)["uuid"]},
            source={"id": backup["resource_uuid"], "backup_key": backup["backup_key"],
                    "restore_as": "gaussdb/" + name, "entries": ["gaussdb/" + backup["instance"]]},
            options={"channels": 2, "xml_config_path": xml})

    def restore(self, backup, *words):
        return self.run("restore", backup["uuid"], "--channels", "2", "--yes", *words)

    def sets(self):
        return self.ours.call("backup.list")["backups"]

    def start_definition(self, **definition):
        """Starts a job that is given as a whole; the run's id."""
        answer = self.ours.answer("job.start", {"run": definition})
        assert "result" in answer, answer
        return answer["result"]["run_id"]

    def run_definition(self, **definition):
        """Runs such a job to its end. Returns the run with its log."""
        return self.wait(self.start_definition(**definition))

    def wait(self, run_id):
        """Waits for the run to finish. Returns it with its log."""
        wait_until(lambda: self.show(run_id)["end_time"], "the end of the run " + run_id, 120)
        return self.with_log(self.show(run_id))

    def show(self, run_id):
        return self.ours.call("job.show", job=run_id)

    # --- whether the world is clean

    def assert_clean(self, seconds=60):
        """What has just ended may take a moment to go."""
        end = time.monotonic() + seconds
        while found := self.leftovers():
            assert time.monotonic() < end, "left behind: %s" % found
            time.sleep(0.05)

    def leftovers(self):
        """What is there that belongs to no complete set, and that no next run would need."""
        found = []
        for cluster in self.clusters.values():
            found += cluster.lists_and_metadata()
            found += ["%s: process %d" % (host.name, pid) for host in cluster.hosts
                      for pid in host.processes()]
            found += [str(path) for host in cluster.hosts
                      for path in host.path("/home/omm/data").glob("*.roach*")]
        found += ["ssh %d" % pid for pid in self.ours.processes("ssh", "scp")]
        kept = {one["uuid"] for one in self.sets()}
        for path in files_below(self.ours.path(POOL)):
            set_of = re.search("/xbsa/([^/]+)/", str(path))
            if not set_of or set_of.group(1) not in kept:
                found.append(str(path))
        # a failed backup leaves its policy to the next run, with a key that opens nothing any more
        known = {"meta", "media", *self.clusters, *self.resources}
        # the tool's directories of the other cluster's user are set aside, under their names and its id
        found += [path.name for path in self.ours.path(CACHE).glob("*")
                  if path.name not in known and path.name.rstrip("0123456789") not in ("meta.", "media.")]
        return found
