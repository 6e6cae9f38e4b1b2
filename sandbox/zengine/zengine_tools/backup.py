"""backup database: a set in a directory of its own. Level 0 has all pages, level 1 those that changed
since the set before, or, cumulative, since the last one of level 0. What the database knows of its sets
is in its table sys_backup_sets."""
import fcntl
import json
import os
import time

from roach.backup import Node_Backup, copy_control, copy_log, copy_unit, read_incarnations
from roach.frames import Frame_Writer
from roach.object_store import MIB
from roach.postgres import Session, literal
from roach.workers import Crew
from zengine_tools.instance import failed
from zengine_tools.pieces import Piece_Writer, write_head

BLOCK = MIB


def backup(instance, wanted):
    """Raises Engine_Error or roach's Tool_Error. What was written until then stays."""
    lock = only_one(instance)
    try:
        Set_Backup(instance, wanted).run()
    finally:
        os.close(lock)


def only_one(instance):
    lock = os.open(os.path.join(instance.sockets, "backup.lock"), os.O_RDWR | os.O_CREAT | os.O_CLOEXEC,
                   0o600)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        os.close(lock)
        raise failed(751, "backup or delete backupset already running, can not start another process")
    return lock


class Set_Backup(object):
    def __init__(self, instance, wanted):
        self.instance = instance
        self.wanted = wanted
        self.pieces = []
        self.start_time = time.time()

    def run(self):
        records = self._records()
        if any(one["tag"] == self.wanted.tag for one in records):
            raise failed(669, "Backup tag :%s already exists" % self.wanted.tag)
        base = self._base(records)
        self._make_directory()
        node = Node_Backup(self.instance, base and base["node"], None)
        try:
            node.start()
            self._move_data(node)
            node.stop()
            self._move_logs(node)
        finally:
            node.session.close()
        depends = base["depends"] + [[base["tag"], base["dir"]]] if base else []
        head = {"tag": self.wanted.tag, "dir": self.wanted.path, "level": self.wanted.level,
                "cumulative": self.wanted.cumulative, "depends": depends, "method": self.wanted.method,
                "node": dict(node.manifest(), key=self.wanted.tag),
                "pieces": [[name, os.path.getsize(os.path.join(self.wanted.path, name))]
                           for name in sorted(self.pieces)]}
        write_head(self.wanted.path, head)
        self._record(head)

    # --- what the database knows of its sets

    def _records(self):
        """The sets since the database was made or restored, the newest last."""
        session = Session(self.instance)
        try:
            rows = session.run("select about from gauss.sys_backup_sets order by recid")
        finally:
            session.close()
        return [json.loads("|".join(row)) for row in rows]

    def _base(self, records):
        if self.wanted.level == 0:
            return None
        restores = read_incarnations(self.instance.data)
        for one in reversed(records):
            if one["node"]["incarnations"] == restores and not (self.wanted.cumulative and one["level"]):
                return one
        raise failed(672, "No valid base backupset, can not execute incremental backup")

    def _record(self, head):
        session = Session(self.instance)
        try:
            session.run(
                "insert into gauss.sys_backup_sets (type, incremental_level, tag, base_tag, dir, "
                "start_time, completion_time, about) values ('incremental', %d, %s, %s, %s, "
                "to_timestamp(%f), now(), %s)" % (
                    head["level"], literal(head["tag"]),
                    literal(head["depends"][-1][0] if head["depends"] else ""), literal(head["dir"]),
                    self.start_time, literal(json.dumps(head))))
        finally:
            session.close()

    # --- the data

    def _make_directory(self):
        try:
            os.mkdir(self.wanted.path, 0o700)
        except FileExistsError:
            raise failed(34, "The file or directory %s has already existed" % self.wanted.path)
        except OSError as error:
            raise failed(8, "Failed to create the path %s, error code %d"
                         % (self.wanted.path, error.errno))

    def _writer(self, kind, number):
        names = []

        def create(section):
            names.append("%s_%d_%d.bak" % (kind, number, section))
            return Piece_Writer(os.path.join(self.wanted.path, names[-1]), self.wanted.method,
                                self.wanted.compress_level)
        writer = Frame_Writer(create, BLOCK)
        writer.names = names
        return writer

    def _move_data(self, node):
        crew = Crew(max(1, min(self.wanted.parallelism, len(node.units))),
                    lambda worker: self._work(worker, node), lambda done, others: None)
        try:
            for names, missing in crew.gather("ready"):
                self.pieces += names
                node.missing.update(missing)
            crew.tell("commit")
            crew.gather("done")
        finally:
            crew.close()

    def _work(self, worker, node):
        writer = self._writer("data", worker.number + 1)
        missing = []
        for unit in worker.take(node.units):
            if not copy_unit(writer, node.instance.data, unit, node.since):
                missing.append(unit[0])
        writer.end()
        worker.report_and_wait((writer.names, missing))

    def _move_logs(self, node):
        writer = self._writer("log", 0)
        copy_log(writer, node.log_segments())
        writer.end()
        control = self._writer("ctrl", 0)
        copy_control(control, node)
        control.end()
        self.pieces += writer.names + control.names
