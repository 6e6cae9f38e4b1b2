"""A restore of all data nodes in their places: the data directories are cleaned, and a full backup and the
incremental ones behind it are written into them. When that fails, what was there before is lost, and a
server does not start on what is there then: its control file comes last."""
import json
import os
import uuid

from roach import files
from roach.agents import Agents
from roach.backup import INCARNATIONS
from roach.cluster import Tool_Error, remove_tree
from roach.frames import read_frames
from roach.object_store import MIB, open_store
from roach.screen import Progress, marked, say
from roach.workers import Crew

PENDING = files.CONTROL + ".roach"
CONFIGURATION = ("postgresql.conf", "postgresql.auto.conf", "pg_hba.conf", "pg_ident.conf")


class Target(object):
    """A data node of this cluster and the data node of the backup that it becomes."""

    def __init__(self, instance, name):
        self.instance = instance
        self.name = name
        self.data = instance.data
        self.configuration = {}  # the cluster's own, which is kept


class Restore(object):
    """@param old_host  the host name of the backup's cluster, when that is another one"""

    HALF_DONE = ("The data directories are not complete. Restore the cluster before it is started.")
    fine = None  # what of the backup is wanted, when it is not all

    def __init__(self, cluster, metadata, policy, key, processes, block, keep_configuration,
                 agents=None, old_host=None):
        self.cluster = cluster
        self.metadata = metadata
        self.policy = policy
        self.key = key
        self.processes = processes
        self.block = block
        self.keep_configuration = keep_configuration
        self.agents = agents or Agents()
        self.old_host = old_host
        self.master = None

    def run(self):
        say("Performing presetup activities...")
        self._prepare()
        # what any machine lacks is known before anything is changed on one
        self.agents.ask("restore", {
            "key": self.key, "policy": self.policy, "metadata": self.metadata.directory,
            "processes": self.processes, "block": self.block, "keep": self.keep_configuration,
            "fine": self.fine, "old_host": self.old_host})
        try:
            self.agents.tell("clean")
            self._clean()
            self.agents.gather("done")
            for manifest in self.chain:
                self.agents.tell("bring")
                self._bring(manifest)
                marked("[MASTER]Restore SUCCESSFUL. Backup key: %s" % manifest["key"])
            self.agents.tell("complete")
            self._complete()
            self.agents.gather("done")
        except Tool_Error as error:
            raise Tool_Error("%s %s" % (error, self.HALF_DONE))

    def run_part(self, master):
        """What an agent does of its master's restore: this machine's data nodes, in its steps."""
        self.master = master
        self._prepare()
        master.tell("done")
        master.order("clean")
        self._clean()
        master.tell("done")
        for manifest in self.chain:
            master.order("bring")
            self._bring(manifest)
            master.tell("done")
        master.order("complete")
        self._complete()
        master.tell("done")

    # --- before anything is changed

    def _prepare(self):
        if self.cluster.release.is_remote:
            self.metadata.make()
        self.metadata.check()
        if self.cluster.release.series == "200":
            self._check_metadata()
        store = open_store(self.policy)
        try:
            store.begin()
            self.chain = self._load_chain(store)
            self._check_chain()
            self.targets = self._match_nodes()
            self._check_objects(store)
            store.commit()
        finally:
            store.close()
        self._check_space()

    def _check_metadata(self):
        """The list has to name the backup, and the saved configuration has to fit the cluster."""
        if self.key not in {one["BackupKey"] for one in self.metadata.entries()}:
            raise Tool_Error("[GAUSS-53207] : The backup key %s is not in %s."
                             % (self.key, os.path.join(self.metadata.directory, self.metadata.name)))
        saved = self.metadata.saved_nodes()
        if len(saved) != len(self.cluster.nodes):
            raise Tool_Error("[GAUSS-53213] : The backup has %d machines, this cluster %d."
                             % (len(saved), len(self.cluster.nodes)))

    def _needs_manifests(self):
        """Whether this machine must have the metadata of each backup instead of asking the media."""
        release = self.cluster.release
        return release.series == "200" and (not self.master or release.keeps_metadata_everywhere)

    def _load_chain(self, store):
        """The manifests, the full backup's first."""
        chain, key = [], self.key
        while key:
            if any(manifest["key"] == key for manifest in chain):
                raise Tool_Error("[GAUSS-53207] : The metadata of %s lead to itself." % key)
            manifest = self.metadata.manifest(key)
            if not manifest and self._needs_manifests():
                raise Tool_Error("[GAUSS-53207] : The metadata of the backup %s are missing in %s."
                                 % (key, self.metadata.of_key(key)))
            manifest = manifest or self._stored_manifest(store, key)
            if self.cluster.release.is_remote:
                self.metadata.keep(manifest)
            chain.insert(0, manifest)
            key = manifest["prior"]
        return chain

    def _check_chain(self):
        last = self.chain[-1]
        if last.get("scope"):
            raise Tool_Error("[GAUSS-53213] : The backup %s has schemas of one database only. It "
                             "cannot replace the cluster." % self.key)
        self._check_old_host()

    def _check_old_host(self):
        host = self.chain[-1].get("host")
        if self.old_host and self.old_host != host:
            raise Tool_Error("[GAUSS-53213] : The backup %s is of the cluster of %s, not of that of "
                             "%s." % (self.key, host, self.old_host))

    @staticmethod
    def _stored_manifest(store, key):
        reader = store.open("%s/manifest.json" % key)
        content, buffer = bytearray(), bytearray(MIB)
        while True:
            count = reader.read(buffer)
            if not count:
                break
            content += buffer[:count]
        reader.end()
        try:
            return json.loads(content)
        except ValueError as error:
            raise Tool_Error("[GAUSS-53207] : Failed to read the metadata of %s: %s" % (key, error))

    def _match_nodes(self):
        instances = self.cluster.instances()
        names = sorted(self.chain[-1]["nodes"])
        if len(instances) != len(names):
            raise Tool_Error("[GAUSS-53213] : The backup has %d data nodes, this cluster %d."
                             % (len(names), len(instances)))
        instances.sort(key=lambda one: one.name)
        return [Target(instance, name) for instance, name in zip(instances, names)
                if instance.local]

    def _check_objects(self, store):
        """What the store can say without reading: that all objects are there."""
        for manifest in self.chain:
            names = store.names(manifest["key"] + "/")
            for node in manifest["nodes"].values():
                for name, _ in node["objects"]:
                    if name not in names:
                        raise Tool_Error("[GAUSS-53204] : The media have no object %s." % name)

    def _check_space(self):
        last = self.chain[-1]["nodes"]
        needed = {}
        for target in self.targets:
            parent = os.path.dirname(target.data)
            try:
                os.makedirs(parent, exist_ok=True)
                device = os.stat(parent).st_dev
            except OSError as error:
                raise Tool_Error("[GAUSS-50208] : Failed to create %s: %s" % (parent, error))
            size = sum(about[0] for about in last[target.name]["files"].values())
            needed.setdefault(device, [parent, 0])[1] += size - bytes_in(target.data)
        for parent, size in needed.values():
            about = os.statvfs(parent)
            if about.f_bavail * about.f_frsize < size:
                raise Tool_Error("[GAUSS-50400] : The remaining space of %s is not enough, the "
                                 "restore needs %d MB more." % (parent, size // MIB + 1))

    def _clean(self):
        """From here on the cluster's own data are gone."""
        for target in self.targets:
            target.instance.stop()
            if self.keep_configuration:
                target.configuration = read_configuration(target.data)
            os.makedirs(target.data, 0o700, exist_ok=True)
            empty(target.data)
            os.mkdir(os.path.join(target.data, "pg_tblspc"), 0o700)
            for oid, place in self.chain[-1]["nodes"][target.name]["tablespaces"].items():
                os.makedirs(place, 0o700, exist_ok=True)
                empty(place)
                os.symlink(place, os.path.join(target.data, "pg_tblspc", oid))

    # --- the data

    def _bring(self, manifest):
        """All objects of one backup; of its log only when it is the last one's."""
        work = []
        for number, target in enumerate(self.targets):
            for name, size in manifest["nodes"][target.name]["objects"]:
                if manifest is self.chain[-1] or "/log_" not in name:
                    work.append((number, name, size))
        work.sort(key=lambda one: -one[2])
        bar = Progress(sum(size for _, _, size in work), self.cluster.machines(), self.master)
        crew = Crew(max(1, min(self.processes, len(work))),
                    lambda worker: self._work(worker, work), bar.show, self.agents.remotes)
        try:
            crew.gather("done")
        finally:
            crew.close()

    def _work(self, worker, work):
        store = open_store(self.policy)
        try:
            store.begin()
            for number, name, _ in worker.take(work):
                self._read_object(worker, store, self.targets[number].data, name)
            store.commit()
        finally:
            store.close()

    def _read_object(self, worker, store, directory, name):
        current = [None, None]  # the file that is written, and its path

        def handle_file(path):
            if current[0] is not None:
                os.close(current[0])
                current[0] = None
            if path.startswith("/") or ".." in path.split("/"):
                raise Tool_Error("[GAUSS-53205] : The object %s is damaged." % name)
            full = os.path.join(directory, PENDING if path == files.CONTROL else path)
            flags = os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC
            try:
                current[0] = os.open(full, flags, 0o600)
            except FileNotFoundError:
                os.makedirs(os.path.dirname(full), 0o700, exist_ok=True)
                current[0] = os.open(full, flags, 0o600)

        def handle_data(memory, offset):
            if current[0] is None:
                raise Tool_Error("[GAUSS-53205] : The object %s is damaged." % name)
            worker.add(len(memory))
            while len(memory):
                count = os.pwrite(current[0], memory, offset)
                memory, offset = memory[count:], offset + count

        reader = store.open(name)
        try:
            read_frames(reader, name, handle_file, handle_data, self.block)
        finally:
            if current[0] is not None:
                os.close(current[0])
        reader.end()

    # --- the end

    def _complete(self):
        for target in self.targets:
            self._complete_node(target)

    def _complete_node(self, target):
        """Makes of the files what the last backup saw: none that were dropped, all in their sizes."""
        node = self.chain[-1]["nodes"][target.name]
        for directory, _, names in os.walk(target.data, followlinks=True):
            for name in names:
                full = os.path.join(directory, name)
                path = os.path.relpath(full, target.data)
                about = node["files"].get(path)
                if about:
                    if os.path.getsize(full) != about[0]:
                        os.truncate(full, about[0])
                    os.chmod(full, about[2])
                elif path not in (PENDING, "backup_label") and not path.startswith("pg_wal/"):
                    os.unlink(full)
        for path in node["directories"] + ["pg_wal", "pg_wal/archive_status"]:
            os.makedirs(os.path.join(target.data, path), 0o700, exist_ok=True)
        missing = [path for path in [PENDING, *node["files"]]
                   if not os.path.exists(os.path.join(target.data, path))]
        if missing:
            raise Tool_Error("[GAUSS-53205] : The backup %s has no data of %s."
                             % (self.key, missing[0]))
        with open(os.path.join(target.data, INCARNATIONS), "w") as history:
            json.dump(node["incarnations"] + [[str(uuid.uuid4()), self.key]], history)
        for name, content in target.configuration.items():
            with open(os.path.join(target.data, name), "wb") as configuration:
                configuration.write(content)
        os.rename(os.path.join(target.data, PENDING), os.path.join(target.data, files.CONTROL))


def read_configuration(data):
    found = {}
    for name in CONFIGURATION:
        try:
            with open(os.path.join(data, name), "rb") as configuration:
                found[name] = configuration.read()
        except FileNotFoundError:
            pass
    return found


def empty(directory):
    for name in os.listdir(directory):
        remove_tree(os.path.join(directory, name))


def bytes_in(directory):
    return sum(os.lstat(os.path.join(place, name)).st_size
               for place, _, names in os.walk(directory) for name in names
               if os.path.lexists(os.path.join(place, name)))
