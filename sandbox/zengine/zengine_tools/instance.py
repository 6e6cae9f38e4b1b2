"""A lone instance: its settings, its places, and the process that serves it.

The data directory:

    cfg/zengine.ini      the settings: LSNR_ADDR, LSNR_PORT, and _SYS_PASSWORD, by which SYS logs in while
                         the database is not open
    cfg/*.conf           PostgreSQL's own
    data/                PostgreSQL's data directory: what a restore brings back
    protect/             sockets and locks
    log/
"""
import hashlib
import hmac
import os
import re
import secrets
import signal
import socket
import subprocess
import sys
import time

from roach.cluster import Tool_Error
from zengine_tools import wire

CONTROL = "global/pg_control"


class Engine_Error(Tool_Error):
    """What the database or a tool of it refuses, in words for its user."""


def failed(number, text):
    """The database's own form of an error."""
    return Engine_Error("GS-%05d, %s" % (number, text))


def as_engine_error(error):
    """An error of what the tools share with other products, in the database's form."""
    text = re.sub(r"^\[GAUSS-\d+\] : ", "", str(error))
    return error if text.startswith("GS-") else failed(299, text)


def hash_password(password, salt=None):
    salt = salt or secrets.token_hex(8)
    digest = hashlib.pbkdf2_hmac("sha256", password.encode(), bytes.fromhex(salt), 2000)
    return "%s:%s" % (salt, digest.hex())


def check_libraries(home):
    """Ends a tool that cannot find its libraries, as the loader does."""
    if home + "/add-ons" not in os.environ.get("LD_LIBRARY_PATH", "").split(":"):
        print("error while loading shared libraries: libzeprotocol.so: cannot open shared object file: "
              "No such file or directory", file=sys.stderr)
        sys.exit(127)


class Instance(object):
    """@param home  the installation
    @param data     the instance's data directory
    """

    name = "zengine"

    def __init__(self, home, data):
        self.home = home
        self.top = data.rstrip("/")
        self.data = os.path.join(self.top, "data")
        self.sockets = os.path.join(self.top, "protect")
        self.log = os.path.join(self.top, "log", "run.log")
        self.settings = self._read_settings()
        self.port = int(self.settings["LSNR_PORT"])
        self.address = self.settings["LSNR_ADDR"].split(",")[0]

    def _read_settings(self):
        path = os.path.join(self.top, "cfg", "zengine.ini")
        try:
            with open(path) as lines:
                found = dict(re.findall(r"^\s*(\w+)\s*=\s*(.*?)\s*$", lines.read(), re.M))
        except OSError as error:
            raise failed(2, "Failed to open the file %s, the error code was %d" % (path, error.errno))
        for name in ("LSNR_ADDR", "LSNR_PORT"):
            if name not in found:
                raise failed(201, "Invalid parameter name: %s is missing in %s" % (name, path))
        return found

    def is_sys_password(self, password):
        saved = self.settings.get("_SYS_PASSWORD", "")
        return ":" in saved and hmac.compare_digest(
            saved, hash_password(password, saved.split(":")[0]))

    def version(self):
        with open(os.path.join(self.home, "version")) as line:
            return line.readline().strip()

    def server_pid(self, user=None):
        """The process that serves the data directory, or None.

        @param user  its user's number, this process's own unless given
        """
        user = os.geteuid() if user is None else user
        program = os.path.join(os.path.realpath(self.home), "bin", "zengine")
        for entry in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open("/proc/%s/cmdline" % entry, "rb") as line:
                    words = line.read().decode(errors="replace").split("\0")
                with open("/proc/%s/stat" % entry) as line:
                    state = line.read().rsplit(") ", 1)[1].split()
                if os.stat("/proc/" + entry).st_uid != user:
                    continue
            except OSError:
                continue
            # a server's helpers have its name until they give themselves their own
            if state[0] != "Z" and os.path.realpath(words[0]) == program and "-D" in words and \
                    words[words.index("-D") + 1:][:1] == [self.top] and not self._is_helper(state[1]):
                return int(entry)
        return None

    @staticmethod
    def _is_helper(parent):
        try:
            with open("/proc/%s/cmdline" % parent, "rb") as line:
                return line.read().split(b"\0")[0].endswith(b"/bin/zengine")
        except OSError:
            return False

    def answers(self):
        """Whether PostgreSQL takes sessions."""
        return subprocess.call(["pg_isready", "-q", "-t", "3", "-h", self.sockets, "-p",
                                str(self.port), "-d", "postgres"]) == 0

    def has_database(self):
        """Whether the files are there without which nothing is mounted: one of those that lie in the
        data directory itself, and the control file."""
        return all(os.path.exists(os.path.join(self.data, name)) for name in ("PG_VERSION", CONTROL))

    def listener_path(self):
        return os.path.join(self.sockets, "listener")

    def listens(self):
        """Whether the listener of a database that is not open takes sessions."""
        with socket.socket(socket.AF_UNIX) as connection:
            try:
                connection.connect(self.listener_path())
                connection.sendall(wire.QUESTION)
                return connection.recv(1) == wire.LISTENER
            except OSError:
                return False

    def status(self):
        if self.server_pid() is None:
            return "down"
        return "open" if self.answers() else "not open"

    def start(self, mode, seconds=120):
        """Starts the server and waits until it takes sessions."""
        with open(self.log, "ab") as output:
            server = subprocess.Popen(
                [os.path.join(self.home, "bin", "zengine"), mode, "-D", self.top],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
                cwd=self.top)
        self.wait_until_ready(mode == "open", lambda: server.poll() is not None, seconds)

    def wait_until_ready(self, is_open, is_over, seconds=120):
        end = time.monotonic() + seconds
        while not (self.answers() if is_open else self.listens()):
            if is_over() or time.monotonic() > end:
                raise failed(407, "Failed to start the instance, see %s" % self.log)
            time.sleep(0.02)

    def stop(self, seconds=60):
        """Stops the server, at first without hurry."""
        for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGKILL):
            end = time.monotonic() + seconds
            pid = self.server_pid()
            if pid is None:
                return
            os.kill(pid, number)
            while self.server_pid() == pid and time.monotonic() < end:
                time.sleep(0.02)
        raise Engine_Error("Failed to stop the instance.")
