"""A lone GaussDB T instance that the agent protects, with a cluster of the 200 series beside it, on a
machine of the sandbox."""
import fcntl
import json
import os
import pathlib
import pwd
import re
import signal
import sqlite3
import subprocess
import sys
import time

sys.dont_write_bytecode = True
from sandbox_test import HOME, ROOT, cluster, wait_until  # noqa: E402,F401

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from machines import files_below  # noqa: E402,F401
from protection import tell  # noqa: E402

NAME, OTHER = "zengine_1611", "c1"
DATA, CACHE, SHIM = HOME / "data", HOME / "cache", HOME / "shim"
POOL = pathlib.Path(protection.POOL)
DATABASE = "/var/lib/zenbrak3/agent.db"
MARK = pathlib.Path("/var/lib/zenbrak3-sandbox-cluster")
MARKS = {NAME: "omm t\n", OTHER: "gauss2 200\n"}
# does what the file RULE of its tool says with the calls whose words have a text
SHIM_SCRIPT = r"""#!/bin/bash
printf '%s\n' "$*" >>/home/omm/shim/statements
rule=/home/omm/shim/${0##*/}
[[ ! -e $rule ]] || { read -r action; IFS= read -r text; } <$rule
if [[ ${action:-} && "$*" == *"$text"* ]]; then
    case $action in
        fail) echo "GS-00299, refused by the test"; exit 1 ;;
        after) "$0.real" "$@"; echo "GS-00299, refused by the test"; exit 1 ;;
        spoil) exec "$0.real" "${@/recover database/recover nothing}" ;;
        hold) : >"$rule.holding"; flock "$rule.lock" true ;;
    esac
fi
exec "$0.real" "$@"
"""


def of(name, *words):
    """The sandbox's command, for that instance or cluster."""
    MARK.write_text(MARKS[name])
    return cluster(*words)


def owned(path, mode=0o700):
    entry = pwd.getpwnam("omm")
    os.chown(path, entry.pw_uid, entry.pw_gid)
    os.chmod(path, mode)


def new_directory(path):
    subprocess.check_call(["rm", "-rf", path])
    path.mkdir()
    owned(path)


class T_World(object):
    """The instance, the cluster, the agent, and the pool "main"."""

    def __init__(self, build, mib):
        self.lock = None
        cluster("create", "--series", "t", "--no-fsync")
        cluster("fill", mib)
        self._make_shims()
        new_directory(CACHE)
        protection.install(build)
        self.agent = protection.start_agent()
        # the search for a lone instance ends where a cluster is found, so the instance comes first
        protection.ask("zenbrak3", "instances", "--refresh")
        protection.save_account(NAME, "sys")
        cluster("create", "--name", OTHER, "--user", "gauss2", "--port", 41000, "--no-fsync")
        cluster("fill", 2)
        protection.ask("zenbrak3", "instances", "--refresh")
        protection.save_account(OTHER)
        protection.make_pool_directory(protection.POOL)
        protection.ask("zenbrak3", "pool", "create", "main", protection.POOL)
        self.resource = next(one["uuid"] for one in tell("instances")["instances"]
                             if one["name"] == NAME)
        self.sets = set()  # what the catalog has to have of the instance

    # --- the agent

    def kill_agent(self):
        self.agent.send_signal(signal.SIGKILL)
        self.agent.wait()

    def start_agent(self):
        """Starts it behind the second by which the last set is named. Short runs are named ahead of the
        clock, and the agent does not know the names that another process has given."""
        statements = (SHIM / "statements").read_text()
        last = max(re.findall(r"\d{8}_\d{6}", statements), default="")
        wait_until(lambda: time.strftime("%Y%m%d_%H%M%S") > last)
        self.agent = protection.start_agent()

    def stop(self):
        self.agent.terminate()
        self.agent.wait()

    # --- the tools, and what is to go wrong with them

    @staticmethod
    def _make_shims():
        new_directory(SHIM)
        for name in ("zsql", "zctl.py"):
            tool = HOME / "app/bin" / name
            tool.rename(tool.with_name(name + ".real"))
            tool.write_text(SHIM_SCRIPT)
            owned(tool, 0o755)
            (SHIM / (name + ".lock")).touch()
            owned(SHIM / (name + ".lock"))

    def set_rule(self, tool, action, text):
        """@param action  "hold" keeps the call until let_go()"""
        rule = SHIM / tool
        if action == "hold" and not self.lock:
            self.lock = open(SHIM / (tool + ".lock"))
            fcntl.flock(self.lock, fcntl.LOCK_EX)
        rule.with_name(tool + ".holding").unlink(missing_ok=True)
        rule.write_text("%s\n%s\n" % (action, text))
        owned(rule)

    @staticmethod
    def clear_rules():
        for tool in ("zsql", "zctl.py"):
            (SHIM / tool).unlink(missing_ok=True)

    @staticmethod
    def wait_until_held(tool="zsql"):
        wait_until((SHIM / (tool + ".holding")).exists)

    def let_go(self):
        self.clear_rules()
        if self.lock:
            self.lock.close()
            self.lock = None

    def put_right(self):
        """What a test that failed has left."""
        self.let_go()
        wait_until(lambda: not [one for one in tell("jobs")["jobs"] if not one["end_time"]
                                and NAME in one["name"]], 60)
        while subprocess.call(["umount", "-q", "-l", CACHE]) == 0:
            pass
        new_directory(CACHE)

    # --- jobs

    def start(self, *words):
        """A job as an administrator has it; a process."""
        return subprocess.Popen(["zenbrak3", *map(str, words), "--json", "--interval", "0.05"],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def end(self, process):
        """The run when it is over, with its log."""
        out, error = process.communicate(timeout=120)
        assert out, error
        run = json.loads(out)
        assert run["end_time"], run
        if run["state"] == "completed" and run["type"] == "backup" and run["run_id"] in self.of_instance():
            self.sets.add(run["run_id"])
        run["log"] = protection.ask("zenbrak3", "job", "log", run["run_id"])
        return run

    def start_backup(self, *words, mount=False, pool="main", cache=CACHE):
        return self.start("backup", NAME, "--pool", pool, "--channels", 2, "-o",
                          "cache_dir=%s" % cache, *(["-o", "mount=true"] if mount else []), *words)

    def backup(self, *words, **options):
        return self.end(self.start_backup(*words, **options))

    @staticmethod
    def running():
        """The one run of the instance that has not ended."""
        found = [one["run_id"] for one in tell("jobs")["jobs"] if not one["end_time"]]
        assert len(found) == 1, found
        return found[0]

    @staticmethod
    def assert_cancelled_now(run_id):
        answer = protection.ask("zenbrak3", "job", "cancel", run_id, "--now")
        assert "has ended: canceled" in answer, answer
        assert not T_World.tools(), T_World.tools()

    def start_slowly(self, **definition):
        """A job of a few bytes a second, which can be met while it sends or fetches. Its run's id."""
        definition.update(rate_limits={"src_rate_limits": "200000"})
        done = subprocess.run(["zenbrak3", "run", "-", "--no-wait", "--json"], input=json.dumps(definition),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout)["run_id"]

    def start_slow_backup(self):
        return self.start_slowly(
            name="slow", type="backup", subtype="full", target={"pool": "main"},
            options={"channels": 2, "cache_dir": str(CACHE)},
            source={"id": self.resource, "entries": ["gaussdb/" + NAME]})

    def start_slow_restore(self, uuid):
        return self.start_slowly(
            name="slow restore", type="restore", subtype="full", target={"id": self.resource},
            options={"channels": 2},
            source={"id": self.resource, "backup_key": uuid, "restore_as": "gaussdb/" + NAME,
                    "entries": ["gaussdb/" + NAME]})

    def start_restore(self, uuid, mount=False):
        return self.start("restore", uuid, "--channels", 2, "--yes", *(
            ["-o", "mount=true"] if mount else []))

    def restore(self, uuid, **options):
        return self.end(self.start_restore(uuid, **options))

    # --- what there is

    @staticmethod
    def rows():
        return of(NAME, "checksums")

    @staticmethod
    def is_open():
        return of(NAME, "status") == "Instance status is open.\n"

    def of_instance(self):
        """The instance's complete sets: uuid to the folder of the pool, and the pieces' names."""
        with sqlite3.connect("file:%s?mode=ro" % DATABASE, uri=True) as database:
            found = {}
            for number, uuid, row, is_open in database.execute(
                    "select id, uuid, row, open from backup_set where resource_uuid = ?",
                    (self.resource,)).fetchall():
                assert not is_open, "the set %s is half done" % uuid
                found[uuid] = (json.loads(row)["uri"], {path for path, in database.execute(
                    "select path from backup_piece where set_id = ?", (number,))})
        return found

    def pieces(self, uuid):
        """A set's files, by their names in the catalog."""
        uri, names = self.of_instance()[uuid]
        found = {}
        for name in names:
            paths = [path for path in (POOL / uri / (name + suffix) for suffix in ("", ".zst"))
                     if path.is_file()]
            assert paths, "%s/%s is absent from the pool" % (uri, name)
            found[name] = paths[0]
        return found

    # --- whether the world is clean

    def assert_clean(self):
        """Nothing is half done, and nothing is there that does not belong to a complete set."""
        try:
            wait_until(lambda: not self.leftovers(), 10)
        except AssertionError:
            raise AssertionError("left behind: %s" % self.leftovers())

    def leftovers(self):
        sets = self.of_instance()
        found = ["catalog: %s" % uuid for uuid in set(sets) ^ self.sets]
        wanted = {path for uuid in sets for path in self.pieces(uuid).values()}
        folder = POOL / self.resource
        found += ["pool: %s" % path for path in files_below(folder) if path not in wanted]
        found += self.mounts() or ["cache: %s" % path for path in CACHE.iterdir()]
        found += ["process: %s" % words for words in self.tools()]
        return found

    @staticmethod
    def mounts():
        # a machine has those of the real one, too
        return [line for line in pathlib.Path("/proc/mounts").read_text().splitlines()
                if " fuse." in line and " %s/" % HOME in line]

    @staticmethod
    def tools():
        """Those of the instance that run, but for its server."""
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            try:
                words = (entry / "cmdline").read_bytes().decode(errors="replace").split("\0")
            except OSError:
                continue
            if any(word.startswith(str(HOME / "app/bin/z")) for word in words[1:2]):
                found.append(words)
        return found
