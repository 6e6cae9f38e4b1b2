"""restore database and recover database: the sets of a chain, the oldest first, and then the log of the
last one. The control file comes last: nothing opens what is half done."""
import os

from roach.object_store import MIB
from roach.restore import Restore, Target, bytes_in, empty
from roach.workers import Crew
from zengine_tools.instance import failed
from zengine_tools.pieces import Piece_Reader, read_head


class Set_Restore(Restore):
    """One restore: bring() for the data, finish() for the log."""

    def __init__(self, instance, wanted):
        # what the one of all nodes needs besides is not wanted here
        self.instance = instance
        self.wanted = wanted
        self.block = MIB
        self.target = Target(instance, "node")
        self.heads = self._load_heads()
        self.key = self.heads[-1]["tag"]
        self.chain = [{"key": head["tag"], "nodes": {"node": head["node"]}} for head in self.heads]

    def _load_heads(self):
        """The heads of the chain, that of level 0 first. A set says where those lie that it needs."""
        if not os.path.isdir(self.wanted.path):
            raise failed(24, "The directory %s is invalid" % self.wanted.path)
        last = read_head(self.wanted.path)
        heads = []
        for tag, directory in last["depends"]:
            head = read_head(directory)
            if head["tag"] != tag:
                raise failed(662, "Invalid backupset, %s is %s, and %s needs %s"
                             % (directory, head["tag"], last["tag"], tag))
            heads.append(head)
        return heads + [last]

    def check_place(self):
        """The files of a database are not overwritten; the directory itself is the administrator's."""
        if not os.path.isdir(self.instance.data):
            raise failed(840, "The directory %s does not exist." % self.instance.data)
        for entry in os.scandir(self.instance.data):
            # PostgreSQL's directories are none of the real database's files, which all lie here
            if not entry.is_dir(follow_symlinks=False):
                raise failed(746, "The data file %s already exists." % entry.path)
        size = sum(about[0] for about in self.heads[-1]["node"]["files"].values())
        room = os.statvfs(self.instance.data)
        if room.f_bavail * room.f_frsize + bytes_in(self.instance.data) < size:
            raise failed(3, "Failed to create the file %s/system, the error code was 28" % self.instance.data)

    def bring(self):
        empty(self.instance.data)
        os.mkdir(os.path.join(self.instance.data, "pg_tblspc"), 0o700)
        for head in self.heads:
            work = self._pieces(head, ("data_",))
            crew = Crew(max(1, min(self.wanted.parallelism, len(work))),
                        lambda worker: self._bring_pieces(worker, work), lambda done, others: None)
            try:
                crew.gather("done")
            finally:
                crew.close()

    @staticmethod
    def _pieces(head, kinds):
        return [(head, name) for name, _ in sorted(head["pieces"], key=lambda one: -one[1])
                if name.startswith(kinds)]

    def _bring_pieces(self, worker, work):
        for head, name in worker.take(work):
            self._read_object(worker, Set_Store(head), self.instance.data, name)

    def finish(self):
        for head, name in self._pieces(self.heads[-1], ("log_", "ctrl_")):
            self._read_object(Alone(), Set_Store(head), self.instance.data, name)
        self._complete_node(self.target)


class Set_Store(object):
    """The pieces of a set, by their names."""

    def __init__(self, head):
        self.head = head

    def open(self, name):
        return Piece_Reader(os.path.join(self.head["dir"], name), self.head["method"])


class Alone(object):
    """A worker that nobody follows."""

    @staticmethod
    def add(count):
        pass
