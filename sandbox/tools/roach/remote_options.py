"""The command lines of GaussRoach.py where the data goes to a service on another machine: for the data
warehouse "roach_client", for openGauss "backUpAgent". A line has to be one of the forms below."""
import re

from roach.cluster import Tool_Error

MEMORY = {"--max-memory-usage", "--buffer-size", "--buffer-block-size"}
MEDIA = {"-t", "--master-port", "--media-type", "--media-destination", "--metadata-destination",
         "--parallel-process"}
DWS = MEDIA | {"--nbu-on-remote", "--nbu-media-list", "--client-port"}
OPENGAUSS = MEDIA | {"--remote-ip", "--remote-port", "--remote-config"}
COMPRESSION = {"--compression-type", "--compression-level"}
NEW_CLUSTER = {"--restore-new-cluster", "--restore-configs"}
DWS_BACKUP = DWS | COMPRESSION | {"--filesplit-size", "--physical-fine-grained"}
DWS_RESTORE = DWS | {"--backup-key"}
TUNING = MEMORY | {"--master-timeout", "--logging-level"}
BACKUP_TUNING = TUNING | {"--cpu-cores", "--cbm-recycle-level", "--prior-backup-key"}
START = [({"-t"}, set()), ({"-t", "--restore-new-cluster", "-X"}, set())]
# (what a form has to have, what it may have)
FORMS = {
    ("backup", "dws"): [(DWS_BACKUP, BACKUP_TUNING),
                        (DWS_BACKUP | {"--dbname", "--schema-list"}, BACKUP_TUNING)],
    ("backup", "opengauss"): [(OPENGAUSS | COMPRESSION,
                               MEMORY | {"--cbm-recycle-level", "--prior-backup-key"})],
    ("restore", "dws"): [
        (DWS_RESTORE | {"--clean"}, TUNING),
        (DWS_RESTORE | {"--clean", "--old-cluster-hostname"} | NEW_CLUSTER, TUNING),
        (DWS_RESTORE | {"--clean", "--physical-fine-grained", "--dbname", "--table-list",
                        "--restore-target-list"}, TUNING),
        (DWS_RESTORE | {"--old-cluster-hostname", "--restore-new-cluster", "--fine-rebuild",
                        "--physical-fine-grained", "--dbname"}, TUNING)],
    ("restore", "opengauss"): [(OPENGAUSS | {"--backup-key", "--clean"}, MEMORY),
                               (OPENGAUSS | {"--backup-key", "--clean"} | NEW_CLUSTER, MEMORY)],
    ("start", "dws"): START, ("start", "opengauss"): START,
    ("stop", "dws"): [({"-t"}, set())], ("stop", "opengauss"): [({"-t"}, set())],
    ("show", "dws"): [({"-t", "--metadata-destination"}, set())],
    ("show", "opengauss"): [({"-t", "--metadata-destination"}, set())],
}
LONG_OPTIONS = [
    "nbu-on-remote", "nbu-media-list=", "client-port=", "remote-ip=", "remote-port=", "remote-config=",
    "compression-level=", "filesplit-size=", "cpu-cores=", "physical-fine-grained", "dbname=",
    "schema-list=", "master-timeout=", "cbm-recycle-level=", "logging-level=", "old-cluster-hostname=",
    "fine-rebuild", "table-list=", "restore-target-list="]
# least and most
RANGES = {"--filesplit-size": (0, 1024), "--compression-type": (0, 0), "--compression-level": (0, 9),
          "--cpu-cores": (1, 1024), "--master-timeout": (1, 604800), "--cbm-recycle-level": (0, 2),
          "--client-port": (1, 65535), "--remote-port": (1, 65535)}
LEVELS = ("DEBUG", "INFO", "WARNING", "ERROR", "FATAL")
NAME = re.compile(r"[^\s./\"'\\]+")


def incorrect(name, value):
    return Tool_Error("[GAUSS-50004] : The parameter '%s' value is incorrect: %s." % (name, value))


def check(given, action, series):
    """Rejects a line of an unknown form, and invalid values."""
    forms = FORMS[action, series]
    if not any(needed <= set(given) <= needed | more for needed, more in forms):
        explain(set(given), action, forms)
    for name, (least, most) in RANGES.items():
        value = given.get(name)
        if value is not None and not (value.isdigit() and least <= int(value) <= most):
            raise incorrect(name, value)
    if given.get("--logging-level", LEVELS[0]) not in LEVELS:
        raise incorrect("--logging-level", given["--logging-level"])
    for name in ("--dbname", "--remote-config", "--media-destination", "--old-cluster-hostname"):
        if name in given and not given[name]:
            raise incorrect(name, "''")
    if "--media-type" in given and given["--media-type"] != {"dws": "NBU", "opengauss": "REMOTE"}[series]:
        raise incorrect("--media-type", given["--media-type"])


def explain(given, action, forms):
    for name in sorted(given):
        if not any(name in needed | more for needed, more in forms):
            raise Tool_Error("[GAUSS-50002] : Incorrect parameter. Parameter '%s' is not of the action "
                             "%s." % (name, action))
    # of the form that the line comes closest to
    missing, extra = min(((needed - given, given - needed - more) for needed, more in forms),
                         key=lambda one: len(one[0]) + len(one[1]))
    if missing:
        raise Tool_Error("[GAUSS-50001] : Incorrect parameter. Parameter '%s' is required."
                         % sorted(missing)[0])
    raise Tool_Error("[GAUSS-50002] : Incorrect parameter. Parameter '%s' does not go with the others."
                     % sorted(extra)[0])


def lines_of(name, path):
    try:
        with open(path) as source:
            lines = [line.strip() for line in source if line.strip()]
    except (OSError, UnicodeDecodeError) as error:
        raise Tool_Error("[GAUSS-50201] : Failed to read the file of '%s', %s: %s" % (name, path, error))
    if not lines:
        raise Tool_Error("[GAUSS-50203] : The file of '%s', %s, is empty." % (name, path))
    return lines


def way(given):
    """What the store is told."""
    if "--remote-ip" in given:
        return {"hosts": [given["--remote-ip"]], "port": int(given["--remote-port"]),
                "policy": given["--remote-config"]}
    return {"hosts": lines_of("--nbu-media-list", given["--nbu-media-list"]),
            "port": int(given["--client-port"]), "policy": given["--media-destination"]}


def scope(given):
    """The schemas that are wanted of a database; None for all of everything."""
    if "--schema-list" not in given:
        return None
    schemas = lines_of("--schema-list", given["--schema-list"])
    for name in schemas:
        if not NAME.fullmatch(name):
            raise incorrect("--schema-list", name)
    return {"database": given["--dbname"], "schemas": schemas}


def fine(given):
    """What of a backup is wanted; None for all of it."""
    if "--fine-rebuild" in given:
        return {"database": given["--dbname"], "host": given["--old-cluster-hostname"]}
    if "--table-list" not in given:
        return None
    sources, targets = [tables(given, name) for name in ("--table-list", "--restore-target-list")]
    if len(sources) != len(targets):
        raise Tool_Error("[GAUSS-50004] : '--table-list' has %d tables, '--restore-target-list' %d."
                         % (len(sources), len(targets)))
    return {"database": given["--dbname"], "tables": list(zip(sources, targets))}


def tables(given, name):
    found = [line.split(".") for line in lines_of(name, given[name])]
    for parts in found:
        if len(parts) != 2 or not all(map(NAME.fullmatch, parts)):
            raise incorrect(name, ".".join(parts))
    return found
