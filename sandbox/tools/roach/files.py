"""The files of a data directory: which of them belong to a backup, and which of their pages changed."""
import os
import re

from roach.frames import PAGE
from roach.object_store import MIB

# what the server makes anew when it starts: the directory belongs to the backup, its content does not
EMPTIED = {"pg_wal", "pg_replslot", "pg_dynshmem", "pg_notify", "pg_serial", "pg_snapshots",
           "pg_stat_tmp", "pg_subtrans"}
LEFT_OUT = re.compile(r"(.*/)?(postmaster\.(pid|opts)|backup_label(\.old)?|tablespace_map(\.old)?|"
                      r"pg_internal\.init.*|pgsql_tmp.*|t\d+_\d+.*|current_logfiles)$")
RELATION = re.compile(r"((?:base/\d+|global|pg_tblspc/\d+/[^/]+/\d+)/\d+)(_fsm|_vm|_init)?(?:\.\d+)?$")
CONTROL = "global/pg_control"
UNIT = 64 * MIB  # what one worker takes at a time


class Listing(object):
    """files: path to (size, time of change in ns, mode); directories: paths; tablespaces: oid to place."""

    def __init__(self, data, outside=None):
        """@param outside  tells of a path whether it is left out"""
        self.files, self.directories, self.tablespaces = {}, [], {}
        self.outside = outside or (lambda path: False)
        self._walk(data, "")

    def _walk(self, directory, prefix):
        for entry in sorted(os.scandir(directory), key=lambda one: one.name):
            path = prefix + entry.name
            if LEFT_OUT.match(path):
                continue
            if prefix == "pg_tblspc/" and entry.is_symlink():
                self.tablespaces[entry.name] = os.readlink(entry.path)
            try:
                if entry.is_dir():
                    self.directories.append(path)
                    if path not in EMPTIED:
                        self._walk(entry.path, path + "/")
                elif entry.is_file() and path != CONTROL and not self.outside(path):
                    status = entry.stat()
                    self.files[path] = (status.st_size, status.st_mtime_ns, status.st_mode & 0o777)
            except FileNotFoundError:
                pass  # dropped meanwhile


def choose(listing, prior, prior_start):
    """What of each file an incremental backup takes: "whole", "pages" or "none".

    @param prior        the files of the backup that it builds on; None for a full backup
    @param prior_start  when that one began, in seconds
    """
    if prior is None:
        return {path: "whole" for path in listing.files}
    unlogged = {RELATION.match(path).group(1) for path in listing.files
                if path.endswith("_init") and RELATION.match(path)}
    chosen = {}
    for path, (size, changed, _) in listing.files.items():
        before = prior.get(path)
        relation = RELATION.match(path)
        if not before:
            chosen[path] = "whole"
        elif before[0] == size and before[1] == changed and changed < (prior_start - 2) * 10 ** 9:
            # not touched since well before the other backup, whose checkpoint came behind that
            chosen[path] = "none"
        elif relation and not relation.group(2) and relation.group(1) not in unlogged:
            chosen[path] = "pages"
        else:
            # other forks and files do not carry the place in the log at which they changed
            chosen[path] = "whole"
    return chosen


def units(listing, chosen):
    """The work in pieces: (path, "whole" or "pages", begin, end)."""
    for path, (size, _, _) in listing.files.items():
        if chosen[path] == "none":
            continue
        begin = 0
        while True:
            yield path, chosen[path], begin, min(begin + UNIT, size)
            begin += UNIT
            if begin >= size:
                break


def changed_runs(memory, since):
    """Runs (begin, end), in bytes, of the pages in memory that changed at a place in the log not
    before since. A page that was never written counts: it may stand where another one was."""
    # a page begins with its place in the log, the high half first
    words = memory.cast("Q")[::PAGE // 8].tolist()
    begin = None
    for number, word in enumerate(words):
        changed = word == 0 or ((word & 0xFFFFFFFF) << 32 | word >> 32) >= since
        if changed and begin is None:
            begin = number
        elif not changed and begin is not None:
            yield begin * PAGE, number * PAGE
            begin = None
    if begin is not None:
        yield begin * PAGE, len(words) * PAGE
