"""A physical backup of all data nodes: full, or the pages that changed since an earlier one."""
import base64
import json
import os
import socket
import time

from roach import files, schema_scope
from roach.agents import Agents
from roach.cluster import Tool_Error, environment
from roach.frames import OBJECT_SIZE, PAGE, Frame_Writer
from roach.object_store import MIB, open_store
from roach.postgres import Session, parse_lsn
from roach.screen import Progress, say
from roach.workers import Crew

INCARNATIONS = "roach_incarnations.json"  # in the data directory: the restores made to it


class Node_Backup(object):
    """One data node while its server is in backup mode."""

    def __init__(self, instance, prior, scope):
        self.instance = instance
        self.prior = prior
        self.scope = scope
        self.session = Session(instance)
        self.start_time = time.time()
        self.objects = []
        self.missing = set()
        rows = self.session.run("select system_identifier, current_setting('data_directory') "
                                "from pg_control_system(), current_setting('block_size') where "
                                "current_setting = '%d'" % PAGE)
        if not rows:
            raise Tool_Error("[GAUSS-53208] : %s has pages of another size." % instance.name)
        self.system = rows[0][0]
        self.incarnations = read_incarnations(instance.data)
        if prior:
            self._check_prior()

    def _check_prior(self):
        """Pages that changed since a backup are those of its own history only."""
        before = self.prior["incarnations"]
        ours = self.incarnations
        same = self.prior["system"] == self.system and ours[:len(before)] == before and (
            len(ours) == len(before) or self.prior["key"] <= ours[len(before)][1])
        if not same:
            raise Tool_Error(
                "[GAUSS-53209] : %s was restored or made anew since the prior backup %s, which is no "
                "part of its history. Take a full backup." % (self.instance.name, self.prior["key"]))

    def start(self):
        # the slot keeps the log that is written meanwhile; it goes with the session
        slot = "gs_roach_%d" % os.getpid()
        self.session.run("select pg_create_physical_replication_slot('%s', true, true)" % slot)
        rows = self.session.run("select pg_backup_start('gs_roach', true)")
        self.start_lsn = rows[0][0]
        outside = schema_scope.paths_outside(self.instance, self.scope) if self.scope else None
        self.listing = files.Listing(self.instance.data, outside)
        self.since = parse_lsn(self.prior["start_lsn"]) if self.prior else 0
        self.chosen = files.choose(self.listing, self.prior and self.prior["files"],
                                   self.prior and self.prior["start_time"])
        self.units = list(files.units(self.listing, self.chosen))

    def stop(self):
        rows = self.session.run(
            "select lsn, pg_walfile_name(lsn), encode(convert_to(labelfile, 'UTF8'), 'base64') "
            "from pg_backup_stop(false)")
        self.stop_lsn, self.last_segment = rows[0][0], rows[0][1]
        # base64 breaks its lines
        self.label = base64.b64decode("".join([rows[0][2]] + [row[0] for row in rows[1:]]))

    def log_segments(self):
        """The log from the backup's checkpoint to its end, and the histories of the timelines."""
        first = self.label.decode().split("(file ", 1)[1].split(")", 1)[0]
        directory = os.path.join(self.instance.data, "pg_wal")
        names = sorted(name for name in os.listdir(directory)
                       if (len(name) == 24 and first[8:] <= name[8:] <= self.last_segment[8:]
                           and name[:8] == first[:8]) or name.endswith(".history"))
        if first not in names or self.last_segment not in names:
            raise Tool_Error("[GAUSS-53210] : The log of %s from %s to %s is not complete."
                             % (self.instance.name, first, self.last_segment))
        return [os.path.join(directory, name) for name in names]

    def manifest(self):
        return {"system": self.system, "incarnations": self.incarnations,
                "start_lsn": self.start_lsn, "stop_lsn": self.stop_lsn,
                "start_time": self.start_time,
                "files": {path: list(about) for path, about in self.listing.files.items()
                          if path not in self.missing},
                "directories": self.listing.directories, "tablespaces": self.listing.tablespaces,
                "objects": self.objects}


def read_incarnations(data):
    try:
        with open(os.path.join(data, INCARNATIONS)) as source:
            return json.load(source)
    except FileNotFoundError:
        return []
    except (OSError, ValueError) as error:
        raise Tool_Error("[GAUSS-53207] : Failed to read the history of %s: %s" % (data, error))


def copy_unit(writer, data, unit, since):
    """Puts one piece of a file into the object. Returns False when the file has gone."""
    path, kind, begin, end = unit
    try:
        descriptor = os.open(os.path.join(data, path), os.O_RDONLY | os.O_CLOEXEC)
    except FileNotFoundError:
        return False
    try:
        writer.file(path)
        if kind == "whole":
            writer.copy(descriptor, begin, end)
        else:
            copy_pages(writer, descriptor, begin, end, since)
    finally:
        os.close(descriptor)
    return True


def copy_log(writer, segments):
    """Puts segments of the log into the object, as they stand in a data directory."""
    for path in segments:
        descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
        try:
            writer.file("pg_wal/" + os.path.basename(path))
            writer.copy(descriptor, 0, os.fstat(descriptor).st_size)
        finally:
            os.close(descriptor)


def copy_control(writer, node):
    """Puts what a recovery starts from into the object."""
    with open(os.path.join(node.instance.data, files.CONTROL), "rb") as control:
        content = control.read()
    for path, text in ((files.CONTROL, content), ("backup_label", node.label)):
        writer.file(path)
        writer.write(text, 0)


def copy_pages(writer, descriptor, begin, end, since):
    chunk = bytearray(MIB // 4)
    with memoryview(chunk) as view:
        while begin < end:
            with view[:min(len(chunk), end - begin)] as target:
                count = os.preadv(descriptor, [target], begin)
            whole = count // PAGE * PAGE
            if whole == 0:
                return  # cut off meanwhile, which the log tells as well
            with view[:whole] as pages:
                for first, last in files.changed_runs(pages, since):
                    writer.write(view[first:last], begin + first)
            begin += whole


class Backup(object):
    """One run.

    @param policy  what the store is told of the way
    @param scope   "database" and "schemas", when only these are wanted
    """

    def __init__(self, cluster, metadata, policy, prior_key, processes, block, agents=None, scope=None):
        self.cluster = cluster
        self.metadata = metadata
        self.policy = policy
        self.prior_key = prior_key
        self.processes = processes
        self.block = block
        self.agents = agents or Agents()
        self.scope = scope
        self.master = None
        self.nodes = []
        self.about = {}  # what is known of each data node of the cluster, by its name

    def _prior(self):
        if not self.prior_key:
            return None
        prior = self.metadata.manifest(self.prior_key)
        if prior is None:
            raise Tool_Error("[GAUSS-53211] : The metadata of the prior backup %s are missing."
                             % self.prior_key)
        if prior.get("scope") != self.scope:
            raise Tool_Error("[GAUSS-53211] : The prior backup %s is of other schemas."
                             % self.prior_key)
        return prior

    def _manifest(self, size):
        return {"key": self.key, "prior": self.prior_key, "start_time": self.start_time,
                "type": "incremental" if self.prior_key else "full", "size": size,
                "host": socket.gethostname(), "scope": self.scope, "nodes": self.about}

    def run_part(self, key, master):
        """What an agent does of its master's backup: this machine's data nodes, and in the end the
        metadata of all."""
        self.metadata.prepare()
        self.key, self.master = key, master
        try:
            self._open_nodes(self._prior())
            for node in self.nodes:
                node.start()
            self._move()
            self.metadata.save(*master.order("save"), self.cluster.config)
            master.tell("done")
        finally:
            for node in self.nodes:
                node.session.close()

    def run(self):
        """The new backup's key. The servers leave backup mode whatever happens."""
        self.metadata.prepare()
        prior = self._prior()
        self.key = self.metadata.new_key(environment("GAUSSLOG"))
        self.start_time = int(time.time())
        say("Performing presetup activities...")
        try:
            self._open_nodes(prior)
            self.agents.tell("backup", {
                "key": self.key, "prior": self.prior_key, "policy": self.policy,
                "metadata": self.metadata.directory, "processes": self.processes,
                "block": self.block, "scope": self.scope})
            for node in self.nodes:
                node.start()
            size = self._move()
            manifest = self._manifest(size)
            self.agents.ask("save", (manifest, size))
            self.metadata.save(manifest, size, self.cluster.config)
        finally:
            for node in self.nodes:
                node.session.close()
        return self.key

    def _open_nodes(self, prior):
        instances = self.cluster.local_instances()
        if not instances:
            raise Tool_Error("[GAUSS-53212] : This machine has no data node.")
        if prior and sorted(prior["nodes"]) != sorted(one.name for one in self.cluster.instances()):
            raise Tool_Error("[GAUSS-53209] : The prior backup %s has other data nodes. Take a full "
                             "backup." % self.prior_key)
        for instance in instances:
            before = None
            if prior:
                before = dict(prior["nodes"][instance.name], key=self.prior_key)
            self.nodes.append(Node_Backup(instance, before, self.scope))

    def _move(self):
        """Moves all data in workers, then the logs; everything is committed at the end."""
        work = [(number, unit) for number, node in enumerate(self.nodes) for unit in node.units]
        total = sum(unit[3] - unit[2] for _, unit in work)
        bar = Progress(total, self.cluster.machines(), self.master)

        def show(done, others):
            percent = bar.show(done, others)
            if percent is not None:
                self.nodes[0].session.run("set application_name = 'gs_roach %d'" % percent)

        count = max(1, min(self.processes, len(work)))
        crew = Crew(count, lambda worker: self._work(worker, work), show,
                    self.agents.remotes)
        try:
            moved = 0
            results = crew.gather("ready")
            for objects, missing, data in results[:count]:
                moved += data
                for node, name, size in objects:
                    self.nodes[node].objects.append([name, size])
                for node, path in missing:
                    self.nodes[node].missing.add(path)
            store = open_store(self.policy)
            try:
                store.begin()
                moved += self._move_logs(store)
                self.about = {node.instance.name: node.manifest() for node in self.nodes}
                for about, data in results[count:]:
                    self.about.update(about)
                    moved += data
                self._move_manifest(store, moved)
                # the key is no backup before this last commit: the workers' come first
                crew.tell("commit")
                crew.gather("done")
                store.commit()
                if self.master:
                    self.master.tell("done")
            except BaseException:
                store.abort()
                raise
            finally:
                store.close()
        finally:
            crew.close()
        return moved

    def _writer(self, store, node, label, size):
        """@param size  bytes that are to come, about"""
        name = "%s/%s/%s" % (self.key, self.nodes[node].instance.name, label)
        names = []

        def create(number):
            names.append("%s_%04d.rch" % (name, number))
            return store.create(names[-1], min(size, OBJECT_SIZE))
        writer = Frame_Writer(create, self.block)
        writer.names = names
        return writer

    def _work(self, worker, work):
        store = open_store(self.policy)
        objects, missing, data = [], [], 0
        try:
            store.begin()
            writer = current = None
            for node, unit in worker.take(work):
                if node != current:
                    data += self._finish(writer, current, objects)
                    current, writer = node, self._writer(
                        store, node, "data%d" % worker.number,
                        sum(end - begin for _, _, begin, end in self.nodes[node].units))
                if not copy_unit(writer, self.nodes[node].instance.data, unit,
                                 self.nodes[node].since):
                    missing.append((node, unit[0]))
                worker.add(unit[3] - unit[2])
            data += self._finish(writer, current, objects)
            if worker.report_and_wait((objects, missing, data)):
                store.commit()
            else:
                store.abort()
        except BaseException:
            store.abort()
            raise
        finally:
            store.close()

    @staticmethod
    def _finish(writer, node, objects):
        """Ends a node's last object and lists all of them; the bytes of files in them."""
        if not writer:
            return 0
        writer.end()
        objects.extend((node, name, size) for name, size in zip(writer.names, writer.sizes))
        return writer.data

    def _move_logs(self, store):
        """The log comes behind the data: it brings the pages, copied at many times, to one."""
        moved = 0
        for number, node in enumerate(self.nodes):
            node.stop()
            segments = node.log_segments()
            writer = self._writer(store, number, "log", sum(map(os.path.getsize, segments)))
            copy_log(writer, segments)
            copy_control(writer, node)
            objects = []
            moved += self._finish(writer, number, objects)
            node.objects.extend([name, size] for _, name, size in objects)
        return moved

    def _move_manifest(self, store, moved):
        """For a restore where the metadata of this backup has not been brought to. An agent leaves
        that to its master, which it tells of its part instead; then it waits for the master's word."""
        if self.master:
            self.master.tell("ready", (self.about, moved))
            self.master.order("commit")
            return
        content = bytearray(json.dumps(self._manifest(moved)).encode())
        writer = store.create("%s/manifest.json" % self.key, len(content))
        for begin in range(0, len(content), self.block):
            writer.send(content[begin:begin + self.block])
        writer.end()
