#!/usr/bin/python3
"""What the platform has done on an instance, as the instance's user: a backup, a log backup or a restore.

The order is a line of JSON on stdin. Each line on stdout is an object: {"started": true}, {"progress":
percent}, {"ready": true}, behind which a line on stdin is awaited, and in the end {"result": ...} or
{"error": text}.
"""
import ctypes
import json
import os
import shutil
import signal
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "../tools")]
sys.dont_write_bytecode = True
from roach.agents import Agents  # noqa: E402
from roach.backup import Node_Backup, copy_control, copy_log, copy_unit  # noqa: E402
from roach.cluster import Tool_Error  # noqa: E402
from roach.frames import Frame_Writer  # noqa: E402
from roach.object_store import MIB  # noqa: E402
from roach.remote import Remote_Store  # noqa: E402
from roach.restore import Restore, Target  # noqa: E402
from roach.workers import PR_SET_PDEATHSIG  # noqa: E402
from tpops_platform.instance import NODE, Instance  # noqa: E402

RECOVERY_FILE = "postgresql.auto.conf"


class Talk(object):
    """The platform's end. Whatever else prints goes to the log."""

    def __init__(self):
        self.out = os.fdopen(os.dup(1), "w")
        os.dup2(2, 1)

    def tell(self, **message):
        self.out.write(json.dumps(message) + "\n")
        self.out.flush()

    def wait(self):
        """The middle of the work, where the platform may hold it."""
        self.tell(ready=True)
        if not sys.stdin.readline():
            raise Tool_Error("The operation was stopped.")


def write_objects(store, name, size):
    """A Frame_Writer of the objects NAME_0000.rch and so on; its member `names` lists them."""
    names = []

    def create(number):
        names.append("%s_%04d.rch" % (name, number))
        return store.create(names[-1], size)
    writer = Frame_Writer(create, MIB)
    writer.names = names
    return writer


def write_text(store, name, text):
    writer = store.create(name, len(text))
    writer.send(memoryview(bytearray(text.encode())))
    writer.end()


def is_whole(store, chain):
    """Whether the media have all objects of these backups."""
    return all(name in store.names(manifest["key"] + "/")
               for manifest in chain for name, _ in manifest["nodes"][NODE]["objects"])


class Physical_Backup(object):
    """Full, or the pages that changed since the newest backup of which the media have everything."""

    def __init__(self, instance, order, talk):
        self.instance, self.talk, self.key = instance, talk, order["id"]
        self.chains = order["chains"]  # that a differential backup may build on, the newest first
        self.store = Remote_Store(order["way"])

    def run(self):
        prior = self._prior() if self.chains else None
        before = dict(prior["nodes"][NODE], key=prior["key"]) if prior else None
        node = Node_Backup(self.instance, before, None)
        try:
            self.store.begin()
            node.start()
            begin = int(time.time())
            size = self._copy_data(node)
            node.stop()
            size += self._copy_log(node)
            manifest = {"key": self.key, "prior": prior and prior["key"], "size": size,
                        "first_segment": node.label.decode().split("(file ", 1)[1].split(")", 1)[0],
                        "nodes": {NODE: node.manifest()}}
            write_text(self.store, self.key + "/manifest.json", json.dumps(manifest))
            self.store.commit()
        finally:
            node.session.close()
        return {"manifest": manifest, "begin": begin, "end": int(time.time()) + 1, "size": size}

    def _prior(self):
        self.store.begin()
        for chain in self.chains:
            if is_whole(self.store, chain):
                self.store.commit()
                return chain[-1]
        raise Tool_Error("The media have no complete full backup that a differential one could build on.")

    def _copy_data(self, node):
        total = sum(end - begin for _, _, begin, end in node.units)
        done, has_waited = 0, False
        writer = write_objects(self.store, self.key + "/data", total)
        for unit in node.units:
            if not copy_unit(writer, self.instance.data, unit, node.since):
                node.missing.add(unit[0])
            done += unit[3] - unit[2]
            if done * 2 > total and not has_waited:
                has_waited = True
                self.talk.tell(progress=50)
                self.talk.wait()
        return self._end(node, writer)

    @staticmethod
    def _end(node, writer):
        writer.end()
        node.objects += [list(one) for one in zip(writer.names, writer.sizes)]
        return writer.data

    def _copy_log(self, node):
        segments = node.log_segments()
        writer = write_objects(self.store, self.key + "/log", sum(map(os.path.getsize, segments)))
        copy_log(writer, segments)
        copy_control(writer, node)
        return self._end(node, writer)


class Log_Backup(object):
    """The archived log that the backups it depends on do not have."""

    def __init__(self, instance, order, talk):
        self.instance, self.talk, self.order = instance, talk, order
        self.key = order["id"]
        self.store = Remote_Store(order["way"])

    def run(self):
        begin, end = self.order["begin"], self.instance.end_segment()
        if end < begin:  # nothing can be restored by it that another does not have
            end = begin
        known, first = set(self.order["segments"]), self.order["first_segment"]
        names = sorted(name for name in os.listdir(self.instance.archive)
                       if not name.endswith(".new") and name not in known
                       and (name.endswith(".history") or name[8:24] >= first[8:24]))
        paths = [os.path.join(self.instance.archive, name) for name in names]
        size = sum(map(os.path.getsize, paths))
        self.store.begin()
        writer = write_objects(self.store, self.key + "/wal", size)
        copy_log(writer, paths[:len(paths) // 2])
        self.talk.tell(progress=50)
        self.talk.wait()
        copy_log(writer, paths[len(paths) // 2:])
        writer.end()
        write_text(self.store, self.key + "/basic_recovery_time", "%d,%d\n" % (begin, end))
        self.store.commit()
        for name in known:
            path = os.path.join(self.instance.archive, name)
            if os.path.exists(path):
                os.unlink(path)
        objects = [list(one) for one in zip(writer.names, writer.sizes)]
        return {"segments": names, "objects": objects, "begin": begin, "end": end, "size": size}


class Whole_Restore(Restore):
    """A physical backup and those it builds on, the log behind it, and the recovery to a point."""

    HALF_DONE = "The instance's data are not complete."

    def __init__(self, instance, order, talk):
        self.instance, self.talk, self.order = instance, talk, order
        self.chain, self.logs = order["chain"], order["logs"]
        self.key, self.policy, self.agents, self.master = self.chain[-1]["key"], order["way"], Agents(), None
        self.processes, self.block, self.keep_configuration, self.fine = 1, MIB, False, None
        self.cluster = self
        self.targets = [Target(instance, NODE)]

    @staticmethod
    def machines():
        return [(0, "127.0.0.1")]

    def run(self):
        store = Remote_Store(self.policy)
        try:
            store.begin()
            self._check_objects(store)
            for log in self.logs:
                if not {name for name, _ in log["objects"]} <= set(store.names(log["id"] + "/")):
                    raise Tool_Error("The media do not have all objects of the log backup %s." % log["id"])
            store.commit()
        finally:
            store.close()
        self._check_space()
        try:
            self._clean()
            for manifest in self.chain:
                self._bring(manifest)
                if manifest is self.chain[0]:
                    self.talk.tell(progress=50)
                    self.talk.wait()
            self._bring_logs()
            self._complete()
            self._recover()
        except Tool_Error as error:
            raise Tool_Error("%s %s" % (error, self.HALF_DONE))
        return {"end": int(time.time()) + 1}

    def _clean(self):
        super()._clean()
        for path in (self.instance.archive, self.instance.restored):
            shutil.rmtree(path, ignore_errors=True)
            os.mkdir(path, 0o700)

    def _bring_logs(self):
        """Segments and histories into the directory that the recovery takes them from."""
        store = Remote_Store(self.policy)
        try:
            store.begin()
            for log in self.logs:
                for name, _ in log["objects"]:
                    self._read_object(Counter(), store, self.instance.restored, name)
            store.commit()
        finally:
            store.close()

    def _complete_node(self, target):
        super()._complete_node(target)
        with open(os.path.join(target.data, RECOVERY_FILE), "w") as out:
            out.write("restore_command = 'cp ../restored/pg_wal/%f %p'\n"
                      "recovery_target_timeline = 'latest'\nrecovery_target_action = 'promote'\n"
                      + self.order["target"])
        open(os.path.join(target.data, "recovery.signal"), "w").close()

    def _recover(self):
        self.instance.start()
        end = time.monotonic() + 120
        while self.instance.sql("select pg_is_in_recovery()").strip() == "t":
            if time.monotonic() > end:
                raise Tool_Error("The recovery of %s does not end." % self.instance.user)
            time.sleep(0.02)
        os.truncate(os.path.join(self.instance.data, RECOVERY_FILE), 0)
        self.instance.sql("select pg_reload_conf()")
        shutil.rmtree(self.instance.restored)


class Counter(object):
    def add(self, count):
        pass


KINDS = {"physical": Physical_Backup, "log": Log_Backup, "restore": Whole_Restore}


def main():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)  # with the platform
    order = json.loads(sys.stdin.readline())
    instance = Instance(order["user"], order["port"])
    os.environ.update(instance.environment())
    talk = Talk()
    talk.tell(started=True)
    try:
        result = KINDS[order["kind"]](instance, order, talk).run()
        talk.tell(result=result)
    except Tool_Error as error:
        talk.tell(error=str(error))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
