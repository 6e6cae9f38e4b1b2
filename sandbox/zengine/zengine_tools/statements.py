"""The statements that the database takes, as its grammar has them. All others are syntax errors."""
import collections
import re

from zengine_tools.instance import failed

Backup = collections.namedtuple("Backup", "level cumulative path method compress_level tag parallelism")
Restore = collections.namedtuple("Restore", "path parallelism")
Recover = collections.namedtuple("Recover", "")
Alter = collections.namedtuple("Alter", "state")
Query = collections.namedtuple("Query", "text")

BACKUP = re.compile(
    r"backup database incremental level (?P<level>[01])(?P<cumulative> cumulative)? "
    r"format '(?P<path>[^']*)' as(?P<method> zstd)? compressed backupset( level (?P<compress>\d+))? "
    r"tag '(?P<tag>[^']*)' parallelism (?P<parallelism>\d+)", re.I)
RESTORE = re.compile(r"restore database from '(?P<path>[^']*)'( parallelism (?P<parallelism>\d+))?", re.I)
ALTER = re.compile(r"alter database (mount|open)", re.I)
TEXT = re.compile(r"'[^']*'|[^';]+|(;)")
MOST_PROCESSES, LONGEST_PATH, LONGEST_TAG = 16, 255, 63


def split(text):
    """The statements of a text; a ";" in a string ends none."""
    if text.count("'") % 2:
        raise failed(601, "Sql syntax error: invalid string")
    statements = [""]
    for piece in TEXT.finditer(text):
        if piece.group(1):
            statements.append("")
        elif piece.group()[0] == "'":
            statements[-1] += piece.group()
        else:
            statements[-1] += re.sub(r"\s+", " ", piece.group())
    found = [one.strip() for one in statements if one.strip()]
    if not found:
        raise failed(601, "Sql syntax error: no statement")
    return found


def number_between(name, text, least, most):
    if not least <= int(text) <= most:
        raise failed(601, "Sql syntax error: %s must be between %d and %d" % (name, least, most))
    return int(text)


def path_of(text):
    # "disk:..." and "nbu:..." name devices
    if not text.startswith("/"):
        raise failed(601, "Sql syntax error: invalid device type or format: '%s'" % text)
    if len(text) > LONGEST_PATH or any(one in text for one in "|;&$<>`\\!\n\""):
        raise failed(24, "The directory %s is invalid" % text)
    return text.rstrip("/")


def parse(text):
    found = BACKUP.fullmatch(text)
    if found:
        if found["level"] == "0" and found["cumulative"]:
            raise failed(601, "Sql syntax error: cumulative is of level 1 only")
        if not re.fullmatch(r"[\w.-]{1,%d}" % LONGEST_TAG, found["tag"]):
            raise failed(601, "Sql syntax error: invalid tag '%s'" % found["tag"])
        return Backup(int(found["level"]), bool(found["cumulative"]), path_of(found["path"]),
                      "zstd" if found["method"] else "zlib",
                      number_between("compress level", found["compress"] or 1, 1, 9), found["tag"],
                      number_between("parallelism", found["parallelism"], 1, MOST_PROCESSES))
    found = RESTORE.fullmatch(text)
    if found:
        return Restore(path_of(found["path"]),
                       number_between("parallelism", found["parallelism"] or 4, 1, MOST_PROCESSES))
    if text.lower() == "recover database":
        return Recover()
    found = ALTER.fullmatch(text)
    if found:
        return Alter(found.group(1).upper())
    if text.lower().startswith("select "):
        return Query(text)
    raise failed(601, "Sql syntax error: key word expected but '%s' found" % text.split(" ")[0])
