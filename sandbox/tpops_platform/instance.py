"""One database instance of the platform: a PostgreSQL server of a user of its own."""
import os
import pwd
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "../tools")]
from cluster_user import POSTGRES, quiet  # noqa: E402
from roach.cluster import Tool_Error  # noqa: E402

ROLE = "tpops"  # the database's superuser, in each instance
NODE = "dn_6001"
VERSION = "505.1.0"
# paths relative to the data directory: a backup can become another instance
SETTINGS = """
listen_addresses = ''
max_connections = 40
shared_buffers = 32MB
wal_level = replica
logging_collector = off
timezone = 'UTC'
archive_mode = on
archive_command = 'cp %%p ../archive/%%f.new && mv ../archive/%%f.new ../archive/%%f'
fsync = %s
"""
ACCESS = "local all all trust\nlocal replication all trust\n"  # to the owner's sockets
ARCHIVE_SECONDS = 60


class Instance(object):
    """Members `name`, `data` and `port` are those that the backup tools of the sandbox use."""

    name, local = NODE, True

    def __init__(self, user, port):
        self.user, self.port = user, port
        self.home = "/home/" + user
        self.data, self.sockets, self.archive, self.restored = [
            os.path.join(self.home, name) for name in ("data", "tmp", "archive", "restored")]
        self.log = self.home + "/server.log"

    def environment(self):
        return {"PATH": POSTGRES + ":/usr/bin:/bin", "LANG": "C.UTF-8", "HOME": self.home,
                "PGHOST": self.sockets, "PGPORT": str(self.port), "PGUSER": ROLE, "TZ": "UTC"}

    def as_owner(self):
        """What subprocess needs to run a program as the instance's user."""
        owner = pwd.getpwnam(self.user)
        options = {"env": self.environment(), "cwd": self.home}
        if os.geteuid() == 0:
            options.update(user=owner.pw_uid, group=owner.pw_gid, extra_groups=[])
        return options

    def run(self, *words, **options):
        done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              stdin=None if "input" in options else subprocess.DEVNULL,
                              **self.as_owner(), **options)
        if done.returncode:
            raise Tool_Error("%s of %s failed: %s" % (
                os.path.basename(words[0]), self.user, done.stdout.decode(errors="replace").strip()))
        return done.stdout.decode()

    # --- its life

    def create(self, fsync):
        quiet("useradd", "--user-group", "--home-dir", self.home, "--create-home", self.user)
        for path in (self.sockets, self.archive):
            self.run("mkdir", "-m", "700", path)
        self.run("initdb", "--no-sync", "--auth=trust", "--encoding=UTF8", "--locale=C", "--wal-segsize=1",
                 "-U", ROLE, "-D", self.data)
        with open(self.data + "/postgresql.conf", "a") as out:
            out.write(SETTINGS % ("on" if fsync else "off"))
        with open(self.data + "/pg_hba.conf", "w") as out:
            out.write(ACCESS)

    def start(self, seconds=120):
        # the server must not keep the caller's output open
        words = ["pg_ctl", "start", "-w", "-s", "-t", str(seconds), "-D", self.data, "-l", self.log, "-o",
                 "-p %d -k %s" % (self.port, self.sockets)]
        done = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, **self.as_owner())
        if done.returncode:
            raise Tool_Error("The instance %s does not start: %s" % (self.user, self._last_lines()))

    def _last_lines(self):
        try:
            with open(self.log, errors="replace") as log:
                return " / ".join(log.read().splitlines()[-4:])
        except OSError as error:
            return str(error)

    def stop(self, mode="immediate"):
        if self.server_pid():
            self.run("pg_ctl", "stop", "-w", "-s", "-m", mode, "-D", self.data)

    def server_pid(self):
        try:
            with open(self.data + "/postmaster.pid") as lines:
                pid = int(lines.readline())
            os.kill(pid, 0)
            return pid
        except (OSError, ValueError):
            return None

    def lose(self):
        """Ends the server as a crash does, and removes the data and the archived log."""
        self.stop()
        shutil.rmtree(self.data)
        for name in os.listdir(self.archive):
            os.unlink(os.path.join(self.archive, name))

    # --- its content

    def answers(self):
        return subprocess.call(["pg_isready", "-q", "-t", "3", "-d", "postgres"], **self.as_owner()) == 0

    def sql(self, statement, database="postgres"):
        """The rows, one a line, columns divided by "|"."""
        return self.run("psql", "-X", "-d", database, "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1",
                        input=statement.encode())

    def end_segment(self):
        """Has all that was written so far archived. Returns the second since the epoch up to which the
        archive has everything: a recovery to a time needs a commit behind it."""
        now, segment = self.sql(
            "select floor(extract(epoch from clock_timestamp()))::bigint; begin; "
            "select null where txid_current() = 0; commit; "
            "select pg_walfile_name(pg_switch_wal());").split()
        end = time.monotonic() + ARCHIVE_SECONDS
        while not os.path.exists(os.path.join(self.archive, segment)):
            if time.monotonic() > end:
                raise Tool_Error("The segment %s of %s is not archived." % (segment, self.user))
            time.sleep(0.02)
        return int(now)
