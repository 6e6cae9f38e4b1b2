"""A cluster that the agent protects, on a machine of the sandbox, for tests of what goes wrong.

Protected_Cluster starts both, runs and follows jobs as an administrator does, and tells whether a
fault has left anything behind.
"""
import collections
import json
import os
import pathlib
import signal
import sqlite3
import subprocess
import sys

sys.dont_write_bytecode = True
from sandbox_test import HOME, ROOT, cluster, roach_processes, wait_until  # noqa: E402,F401

sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from protection import tell  # noqa: E402

CACHE = pathlib.Path("/var/cache/quilmot/zenbrak3/gaussdb")
DATABASE = "/var/lib/zenbrak3/agent.db"
NODES = (1, 2)
SUFFIXES = (".zst", ".lzo")  # a compressed object's, behind the name that the catalog has

Process = collections.namedtuple("Process", "parent words")


def processes():
    """All of this machine but zombies that nobody but its first process has to wait for."""
    found = {}
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            words = (entry / "cmdline").read_bytes().decode(errors="replace").split("\0")[:-1]
            name, rest = (entry / "stat").read_text().split("(", 1)[1].rsplit(") ", 1)
        except OSError:
            continue
        state, parent = rest.split()[0], int(rest.split()[1])
        if state != "Z" or parent != 1:
            found[int(entry.name)] = Process(parent, words or ["[%s]" % name])
    return found


def kill_backup_tool():
    """Kills the workers, and then their master, so that none of them can do anything about it."""
    found = roach_processes()
    first = next(pid for pid, parent in found.items() if parent not in found)
    os.kill(first, signal.SIGSTOP)
    for pid in roach_processes():
        if pid != first:
            os.kill(pid, signal.SIGKILL)
    wait_until(lambda: list(roach_processes()) == [first])
    os.kill(first, signal.SIGKILL)


def line_of(found, pid):
    """A process and those that it comes from."""
    line = []
    while pid in found:
        line.append(pid)
        pid = found[pid].parent
    return line


class Protected_Cluster(object):
    """The cluster c1 of two data nodes, the agent, and its pool "main"."""

    def __init__(self, build, mib):
        cluster("create", "--name", "c1", "--nodes", len(NODES), "--no-fsync")
        cluster("fill", mib)
        protection.install(build)
        self.agent = protection.start_agent()
        protection.ask("zenbrak3", "instances", "--refresh")
        protection.save_account("c1")
        self.pools = {}
        self.sets = set()  # what the catalog has to have
        self.make_pool("main", protection.POOL)

    def policy(self, pool):
        """The file by which the database's tool finds its way to a pool."""
        return CACHE / next(one["uuid"] for one in tell("pools")["pools"] if one["name"] == pool)

    def make_pool(self, name, directory, *words):
        protection.make_pool_directory(directory)
        protection.ask("zenbrak3", "pool", "create", name, directory, *words)
        pool = next(pool for pool in tell("pools")["pools"] if pool["name"] == name)
        self.pools[pool["uuid"]] = pathlib.Path(directory)

    def remove_pool(self, name):
        pool = next(pool for pool in tell("pools")["pools"] if pool["name"] == name)
        # a run that was killed leaves its policy to the next one of that pool, which there is none of
        self.policy(name).unlink(missing_ok=True)
        protection.ask("zenbrak3", "pool", "remove", name, "--yes")
        self.pools.pop(pool["uuid"])

    # --- the agent

    def stop_agent(self, how=signal.SIGTERM):
        self.agent.send_signal(how)
        self.agent.wait()

    def start_agent(self):
        self.agent = protection.start_agent()

    # --- jobs

    def run(self, *words):
        """Runs a job to its end, as with "zenbrak3"; the run. A backup set that comes of it is one
        that the catalog has to have from then on."""
        done = subprocess.run(["zenbrak3", *map(str, words), "--json", "--interval", "0.05"],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
        assert done.stdout, "%s: %s" % (words, done.stderr)
        return self._ended(json.loads(done.stdout), done.returncode)

    def backup(self, *words, pool="main"):
        return self.run("backup", "c1", "--pool", pool, "--channels", 2, "--compression", "zstd:1",
                        *words)

    def restore(self, uuid):
        return self.run("restore", uuid, "--channels", 2, "--yes")

    def start_slow_backup(self, name="slow", pool="main", rate=40000000, **more):
        """Starts a full backup of so many bytes a second, which can be met half-way. Its run's id."""
        wish = tell("definition", "show", "ready")
        wish.pop("id")
        for key in [key for key in wish if wish[key] is None or key in ("state", "next_run", "last_run")]:
            wish.pop(key)
        wish.update(name=name, rate_limits={"src_rate_limits": str(rate)}, target={"pool": pool},
                    **more)
        done = subprocess.run(["zenbrak3", "run", "-", "--no-wait", "--json"], input=json.dumps(wish),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout)["run_id"]

    def wait(self, run_id):
        """The run when it is over."""
        return self.run("job", "wait", run_id)

    def cancel(self, run_id, *words):
        """What the command says."""
        return protection.ask("zenbrak3", "job", "cancel", run_id, *words)

    def wait_for_percent(self, run_id, percent):
        """Waits until that much of a run is done. A run that ended before fails the test."""
        def reached():
            run = tell("job", "show", run_id)
            assert not run["end_time"], "over before it was met: %s" % run
            return run["percent"] >= percent
        wait_until(reached)

    def log(self, run):
        return protection.ask("zenbrak3", "job", "log", run["run_id"])

    def _ended(self, run, status):
        assert run["end_time"], run
        assert (run["state"] == "completed") == (status == 0), (status, run)
        if run["state"] == "completed" and run["type"] == "backup":
            self.sets.add(run["run_id"])
        return run

    # --- what there is

    def rows(self):
        """What the tables hold, of each node: numbers and checksums."""
        return [self._query(node, "select count(*), sum(hashtext(t::text)), (select sum(hashtext("
                                  "e::text)) from event e) from item t") for node in NODES]

    @staticmethod
    def _query(node, statement):
        """Its rows. Not by the cluster's tools, which take their time to log on."""
        return subprocess.check_output(
            ["psql", "-X", "-A", "-t", "-h", HOME / "tmp", "-p", str(39999 + node), "-U",
             protection.ACCOUNT, "-d", "postgres", "-c", statement],
            env=dict(os.environ, PGPASSWORD=protection.PASSWORD), text=True).splitlines()

    @staticmethod
    def server_pids():
        return [(HOME / ("data/dn%d/postmaster.pid" % node)).read_text().split()[0] for node in NODES]

    def catalog(self):
        """Of each complete set: (pool's uuid, names of its objects)."""
        with sqlite3.connect("file:%s?mode=ro" % DATABASE, uri=True) as database:
            open_sets = database.execute("select uuid from backup_set where open = 1").fetchall()
            assert not open_sets, "sets are half done: %s" % open_sets
            found = {}
            for number, uuid, pool in database.execute(
                    "select s.id, s.uuid, t.pool_uuid from backup_set s left join backup_storage t "
                    "on t.set_id = s.id").fetchall():
                found[uuid] = (pool, {path for path, in database.execute(
                    "select path from backup_piece where set_id = ?", (number,))})
        return found

    def objects(self, uuid):
        """The files of a set, by their names in the catalog."""
        pool, names = self.catalog()[uuid]
        return {name: path for name in names for path in [self._file_of(pool, name)] if path}

    def _file_of(self, pool, name):
        path = self.pools[pool] / name.lstrip("/")
        return next((path.parent / (path.name + suffix) for suffix in ("",) + SUFFIXES
                     if (path.parent / (path.name + suffix)).exists()), None)

    def forget(self, uuid):
        """Drops a set with its files, as an end of its time does."""
        for path in self.objects(uuid).values():
            path.unlink()
        for pool in self.pools.values():
            subprocess.check_call(["find", pool, "-mindepth", "1", "-empty", "-delete"])
        self.drop_from_catalog(uuid)
        self.sets.discard(uuid)

    def drop_from_catalog(self, uuid):
        with sqlite3.connect(DATABASE, timeout=30) as database:
            database.execute("pragma foreign_keys = on")
            database.execute("delete from backup_set where uuid = ?", (uuid,))

    # --- whether the world is clean

    def assert_clean(self):
        """Nothing is half done, and nothing is there that does not belong to a complete set."""
        self._wait_for_none(self._leftover_processes)
        self._wait_for_none(self._leftovers_of_servers)
        running = [run["run_id"] for run in tell("jobs")["jobs"] if not run["end_time"]]
        assert not running, "runs are on: %s" % running
        catalog = self.catalog()
        assert set(catalog) == self.sets, "the catalog has %s" % (set(catalog) ^ self.sets)
        listed = {one["uuid"] for one in tell("backups", "--limit", 1000)["backups"]}
        assert listed == self.sets, "backups shown: %s" % (listed ^ self.sets)
        for pool, directory in self.pools.items():
            self._assert_pool_is_clean(pool, directory, catalog)
        left = {path.name for path in CACHE.iterdir()} - {"meta", "media", "c1", "c1_env",
                                                          "c1_identity"}
        # a run that was killed leaves its policy to the next one
        assert left <= set(self.pools), "in %s: %s" % (CACHE, left)
        left = set(os.listdir("/tmp")) - set(ROOT.parts[2:3] if ROOT.parts[1] == "tmp" else ())
        assert not left, left

    def _assert_pool_is_clean(self, pool, directory, catalog):
        wanted = {}
        for uuid, (of_pool, names) in catalog.items():
            for name in names if of_pool == pool else ():
                wanted[self._file_of(pool, name)] = name
        assert None not in wanted, "gone from the pool: %s" % wanted.get(None)
        paths = set(directory.rglob("*"))
        files = {path for path in paths if not path.is_dir()}
        assert files == set(wanted), "nobody's files: %s" % sorted(files - set(wanted))
        # a cluster's own folder stays, since its user could not make it anew
        empty = [path for path in paths - files if not any(path.iterdir()) and path.name != "xbsa"]
        assert not empty, "empty folders: %s" % empty

    def _leftover_processes(self):
        """Those that are neither the test's, the servers', the agent's nor the machine's own."""
        found = processes()
        known = set(line_of(found, os.getpid())) | {1, self.agent.pid}
        return {pid: one.words for pid, one in found.items()
                if pid not in known and not self._is_server(found, pid)
                and not (one.parent == 1 and one.words == ["sleep", "3600"])}

    @staticmethod
    def _is_server(found, pid):
        program = str(HOME / "app/bin/gaussdb")
        return any(found[one].words[0] == program for one in line_of(found, pid))

    def _leftovers_of_servers(self):
        return [line for node in NODES for line in self._query(
            node, "select 'slot ' || slot_name from pg_replication_slots union all "
                  "select 'session ' || application_name || ' ' || state from pg_stat_activity "
                  "where backend_type = 'client backend' and pid <> pg_backend_pid()")]

    @staticmethod
    def _wait_for_none(find):
        """What has just ended may take a moment to go."""
        try:
            wait_until(lambda: not find(), 10)
        except AssertionError:
            raise AssertionError("left behind: %s" % find())

    def assert_recovered(self):
        """The world is clean, and the next backup works and cleans up behind itself."""
        self.assert_clean()
        run = self.backup("--name", "ready")
        assert run["state"] == "completed", run
        self.assert_clean()
        assert not self.policy("main").exists(), "the policy of a run that is over"
        return run

