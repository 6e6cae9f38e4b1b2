"""The machine's cluster, its rows, and the ways to back it up: ours, the same tool by hand, the peers."""
import json
import os
import pathlib
import random
import re
import shutil
import socket
import subprocess
import sys
import time
import uuid

from measure import Measure

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "sandbox"))
import protection  # noqa: E402
from protection import Failure  # noqa: E402

CLUSTER = str(ROOT / "sandbox/cluster")
MIB = 1024 * 1024
DATA = "/home/omm/data/dn1"
SOCKETS, PORT = "/home/omm/tmp", "40000"
POSTGRES = "/usr/lib/postgresql/15/bin"
LEVEL, STREAMS = 3, 2
LOOK = "0.05"  # seconds between two looks at a job, so that the waiting is not what is measured
POLICIES = pathlib.Path("/var/cache/quilmot/zenbrak3/gaussdb")

ROW = 1000  # bytes of a row with its share of the page, about
PART_ROWS = 64 * MIB // ROW  # farther apart than any compressor's window at this level looks back


def free_port():
    with socket.socket() as listener:
        listener.bind(("", 0))
        return listener.getsockname()[1]


def run(*words, **options):
    """The output of a command, which has to succeed."""
    done = subprocess.run(list(map(str, words)), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, **options)
    if done.returncode:
        raise Failure("`%s` ended with status %d: %s" % (" ".join(map(str, words)), done.returncode,
                                                        done.stdout[-2000:]))
    return done.stdout


class Cluster(object):
    """One data node. Rows are pgbench-like: keys and numbers, and text in words that pack to about a
    third, as tables of business do; hexadecimal noise or blanks would say nothing of a compressor."""

    def __init__(self):
        run(CLUSTER, "create", "--name", "c1")
        text = run(CLUSTER, "tool", "env", "-0")
        self.environment = dict(one.split("=", 1) for one in text.split("\0") if "=" in one)
        self.sql("alter system set autovacuum = off; alter system set archive_mode = on; "
                 "alter system set archive_command = '/bin/true'")
        run(CLUSTER, "stop")
        run(CLUSTER, "start")
        self.rows = 0

    def tool(self, *words):
        """Runs a program as the database's user, in its environment."""
        return run(*words, user="omm", group="dbgrp", extra_groups=[], env=self.environment,
                   cwd="/home/omm/wisequery/script")

    def sql(self, statement, **options):
        return run("gsql", "-d", "postgres", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-p", PORT,
                   "-U", "omm", input=statement, user="omm", group="dbgrp", cwd="/",
                   env=getattr(self, "environment", None), **options)

    def setting(self, name, value):
        self.sql("alter system set %s = %s" % (name, value))
        self.sql("select pg_reload_conf()")

    def _make_part(self):
        """The rows that all others are made of. The words are as unevenly used as a language's."""
        source = random.Random(1)
        words = ["".join(source.choices("etaoinshrdlucmfwypvbgk", k=source.randint(3, 10)))
                 for _ in range(4096)]
        weights = [1 / (rank + 8) for rank in range(len(words))]
        picked = source.choices(words, weights, k=PART_ROWS * 40)
        lines = []
        for row in range(PART_ROWS):
            start = row * 40
            note = " ".join(picked[start:start + 40] * 1)
            address = " ".join(source.sample(picked, 60))
            lines.append("%d\t%d\t%s\t%s\n" % (row, source.randint(1, 10 ** 6), note, address))
        self.sql("create table part (n int, balance int, note text, address text);\n"
                 "\\copy part from stdin\n" + "".join(lines) + "\\.\n"
                 "create table account (id bigint primary key, branch int, balance bigint, "
                 "changed timestamptz, note text, address text) with (fillfactor = 90);")

    def fill(self, mib):
        """Adds rows until the cluster has about that many MiB."""
        if not self.rows:
            self._make_part()
        wanted = max(1, int(mib * MIB / ROW) - PART_ROWS)
        self.setting("fsync", "off")
        script = []
        while self.rows < wanted:
            count = min(PART_ROWS, wanted - self.rows)
            script.append(
                "insert into account select %d + n, n %% 500, (balance::bigint * %d) %% 1000003, "
                "timestamptz '2024-01-01' + n * interval '1 second', note, address from part "
                "where n < %d;" % (self.rows, len(script) + 7, count))
            self.rows += count
        self.sql("\n".join(script + ["checkpoint;"]))
        self.setting("fsync", "on")
        os.sync()
        return self.size()

    def size(self):
        """Bytes of the data directory without the log."""
        return sum(int(run("du", "-sb", path).split()[0]) * sign
                   for path, sign in ((DATA, 1), (DATA + "/pg_wal", -1)))

    def change(self, percent):
        """Changes a row in that part of the pages, in place, in runs of neighbours."""
        self.sql("update account set balance = balance + 1 where (id / 800) %% 100 < %d and id %% 4 = 0; "
                 "checkpoint" % percent)

    def checksums(self):
        lines = []
        for table in self.sql("select tablename from pg_tables where schemaname = 'public' "
                              "order by 1").split():
            lines.append(table + " " + self.sql(
                "select count(*), sum(hashtextextended(t::text, 0)::numeric) from %s t" % table))
        return lines

    @staticmethod
    def wait_for_a_second():
        """The tool names a backup by the second in which it begins, and waits when it has one."""
        time.sleep(1 - time.time() % 1)

    def destroy(self):
        run(CLUSTER, "destroy-data")

    def start(self):
        self.tool("gs_om", "-t", "start")
        self.sql("select 1")


class Ours(object):
    """The agent with its module, and the XBSA library that the database's tool loads."""

    def __init__(self, cluster, build):
        self.cluster = cluster
        protection.install(build)
        self.agent = protection.start_agent()
        run("zenbrak3", "instances", "--refresh")
        run("zenbrak3", "account", "c1", "backup", input="Backup@123\n")
        run("mkdir", "-p", "/srv/pool")
        run("zenbrak3", "pool", "create", "main", "file:///srv/pool")

    def backup(self, *words):
        self.cluster.wait_for_a_second()
        with Measure() as measure:
            run("zenbrak3", "backup", "c1", "--pool", "main", "--compression", "zstd:%d" % LEVEL,
                "--channels", STREAMS, "--interval", LOOK, *words)
        return measure.figures

    @staticmethod
    def newest():
        return json.loads(run("zenbrak3", "backups", "--json", "--limit", "1"))["backups"][0]

    def restore(self, backup):
        """From no data to a database that answers."""
        self.cluster.destroy()
        with Measure() as measure:
            run("zenbrak3", "restore", backup["uuid"], "--yes", "--channels", STREAMS, "--interval", LOOK)
            self.cluster.sql("select 1")
        return measure.figures


class By_Hand(object):
    """The database's tool as the module runs it, with the same library. Where its data go is told by a
    stand-in of the agent."""

    POOL, META, STATE = pathlib.Path("/srv/hand/pool"), pathlib.Path("/srv/hand/meta"), pathlib.Path("/srv/hand/agent")

    def __init__(self, cluster):
        self.cluster = cluster
        self.set = str(uuid.uuid4())
        for path in (self.POOL, self.META, self.STATE):
            path.mkdir(parents=True)
            shutil.chown(path, "omm", "dbgrp")
        self.STATE.joinpath("agent.json").write_text(json.dumps({
            "world": 1, "key": "key", "sets": [self.set],
            "pool": {"uuid": "hand", "name": "hand", "url": "file://%s" % self.POOL}}))
        self.agent = subprocess.Popen(
            [sys.executable, ROOT / "tests/support/xbsa_agent_main", self.STATE])
        end = time.monotonic() + 30
        while not (self.STATE / "port").exists():
            if time.monotonic() > end:
                raise Failure("the stand-in of the agent does not serve")
            time.sleep(0.02)

    def _policy(self):
        policy = POLICIES / "hand"
        policy.write_text(json.dumps({
            "access_key": "key", "backupd_host": "127.0.0.1",
            "backupd_port": int((self.STATE / "port").read_text()), "backupd_ssl": False,
            "cluster_id": "c1", "pool_uuid": "hand", "uuid": self.set, "compression": "zstd",
            "compression_level": LEVEL}))
        shutil.chown(policy, "omm")

    def _roach(self, action, *words):
        return self.cluster.tool(
            "python3", "GaussRoach.py", "-t", action, "--master-port=%d" % free_port(), "--media-type", "NBU",
            "--media-destination", "hand", "--metadata-destination", self.META,
            "--parallel-process=%d" % STREAMS, *words)

    def clear(self):
        for path in self.POOL, self.META:
            for entry in path.iterdir():
                shutil.rmtree(entry) if entry.is_dir() else entry.unlink()

    def backup(self):
        self.clear()
        self._policy()
        self.cluster.wait_for_a_second()
        with Measure() as measure:
            out = self._roach("backup", "--compression-type=0")
        self.key = re.search(r"Backup key: (\S+)", out).group(1)
        return measure.figures

    def restore(self):
        self._policy()  # a run of ours takes it for that of an earlier run, and removes it
        self.cluster.destroy()
        with Measure() as measure:
            self._roach("restore", "--clean", "--backup-key", self.key)
            self.cluster.start()
        return measure.figures


class Basebackup(object):
    """PostgreSQL's own tool, to a tar file of the same disk."""

    PLACE = pathlib.Path("/srv/basebackup")

    def __init__(self, cluster):
        self.cluster = cluster

    def clear(self):
        shutil.rmtree(self.PLACE, ignore_errors=True)

    def backup(self):
        self.clear()
        run("install", "-d", "-o", "omm", self.PLACE)
        with Measure() as measure:
            self.cluster.tool(POSTGRES + "/pg_basebackup", "-h", SOCKETS, "-p", PORT, "-D", self.PLACE,
                              "--format=tar", "--wal-method=fetch", "--checkpoint=fast",
                              "--compress=server-zstd:level=%d,workers=%d" % (LEVEL, STREAMS))
        return measure.figures

    def restore(self):
        """It has no tool for this: the tar file is unpacked."""
        self.cluster.destroy()
        with Measure() as measure:
            self.cluster.tool("install", "-d", "-m", "700", DATA)
            self.cluster.tool("tar", "-C", DATA, "--zstd", "-xf", self.PLACE / "base.tar.zst")
            self.cluster.tool("sync", "-f", DATA)
            self.cluster.start()
        return measure.figures


class Pgbackrest(object):
    PLACE = pathlib.Path("/srv/pgbackrest")
    CONFIG = """[global]
repo1-path=%(place)s/repository
log-path=%(place)s/log
lock-path=%(place)s/lock
spool-path=%(place)s/spool
log-level-console=warn
log-level-file=off
compress-type=zst
compress-level=%(level)d
process-max=%(streams)d
start-fast=y
[bench]
pg1-path=%(data)s
pg1-port=%(port)s
pg1-socket-path=%(sockets)s
pg1-user=omm
"""

    def __init__(self, cluster):
        self.cluster = cluster
        run("install", "-d", "-o", "omm", "-g", "dbgrp", self.PLACE)
        self.config = self.PLACE / "pgbackrest.conf"
        self.config.write_text(self.CONFIG % {
            "place": self.PLACE, "level": LEVEL, "streams": STREAMS, "data": DATA, "port": PORT,
            "sockets": SOCKETS})
        self._run("stanza-create")

    def _run(self, *words):
        return self.cluster.tool("pgbackrest", "--config=%s" % self.config, "--stanza=bench", *words)

    def archive(self, on):
        """Its backups want the log in its own archive; those of others do not pay for that."""
        self.cluster.setting("archive_command", "'%s'" % (
            "pgbackrest --config=%s --stanza=bench archive-push %%p" % self.config if on else "/bin/true"))

    def backup(self):
        self.archive(True)
        try:
            with Measure() as measure:
                self._run("--type=full", "--repo1-retention-full=1", "backup")
        finally:
            self.archive(False)
        return measure.figures

    def restore(self):
        self.cluster.destroy()
        with Measure() as measure:
            self.cluster.tool("install", "-d", "-m", "700", DATA)
            self._run("restore")
            self.cluster.start()
            while self.cluster.sql("select pg_is_in_recovery()").strip() == "t":
                time.sleep(0.05)
        return measure.figures

    def clear(self):
        shutil.rmtree(self.PLACE)
