"""The common part of roach_client and backUpAgent. For a backup they receive data from the backup tool on a
database's machine and pass it to the backup library of this host. For a restore they send it back."""
import json
import os
import signal
import socket
import sys

POLICIES = "/var/cache/quilmot/zenbrak3/gaussdb"
HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tools"))
sys.dont_write_bytecode = True
from roach.agents import keep_alive  # noqa: E402
from roach.object_store import MIB, Store_Error, Xbsa_Store  # noqa: E402
from roach.remote import (  # noqa: E402
    ANSWER, CALL, DATA, END, ON_THE_WAY, receive, send)


class Session(object):
    """One connection: its calls are those of the store."""

    def __init__(self, connection, library):
        self.connection = connection
        self.library = library
        self.store = self.writer = self.fault = None

    def run(self):
        try:
            while True:
                kind, content = receive(self.connection)
                if kind == DATA:
                    self.take(content)
                elif kind == CALL:
                    self.answer(json.loads(content))
                else:
                    return
        except (EOFError, OSError, ValueError, LookupError, TypeError, AttributeError):
            pass  # the caller has disconnected, or is not a backup tool
        finally:
            if self.store:
                self.store.abort()
                self.store.close()

    def take(self, content):
        """Data behind a failure are not wanted any more; the next call tells of it."""
        if self.fault or not self.writer or not content:
            return
        try:
            self.writer.send(content)
        except Store_Error as error:
            self.fault = error

    def answer(self, call):
        word = call.pop("call")
        try:
            if self.fault:
                raise self.fault
            if not self.store and word != "session":
                raise Store_Error("[GAUSS-53203] : The session has no policy.")
            result = {"result": getattr(self, "do_" + word)(**call)}
        except Store_Error as error:
            result = {"error": str(error)}
        if word != "open" or "error" in result:
            send(self.connection, ANSWER, json.dumps(result).encode())

    def do_session(self, policy):
        """@param policy  a name, or the beginning of one and "*": the newest that this user may read"""
        if policy.endswith("*"):
            policy = newest_policy(policy[:-1])
        self.store = Xbsa_Store(policy, self.library)

    def do_begin(self):
        self.store.begin()

    def do_commit(self):
        self.store.commit()

    def do_abort(self):
        self.store.abort()

    def do_names(self, prefix):
        return sorted(self.store.names(prefix))

    def do_create(self, name, size):
        self.writer = self.store.create(name, size)

    def do_end(self):
        self.writer.end()
        self.writer = None

    def do_open(self, name):
        """The object's bytes follow the answer."""
        reader = self.store.open(name)
        send(self.connection, ANSWER, b'{"result": null}')
        block = bytearray(MIB)
        with memoryview(block) as view:
            while True:
                count = reader.read(view)
                if not count:
                    break
                send(self.connection, DATA, view[:count])
        reader.end()
        send(self.connection, END)


def newest_policy(beginning):
    """A platform that restores into an instance without a backup of its own knows only the beginning."""
    found = []
    for name in os.listdir(POLICIES):
        path = os.path.join(POLICIES, name)
        if name.startswith(beginning) and not name.endswith("_act") and os.access(path, os.R_OK):
            found.append((os.stat(path).st_mtime_ns, name))
    if not found:
        raise Store_Error("[GAUSS-53203] : No policy begins with %s." % beginning)
    return max(found)[1]


def serve(address, port, library):
    """Takes connections, each in a process of its own, for ever."""
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    with socket.create_server((address, port), backlog=64) as server:
        # for its connections, too
        server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, ON_THE_WAY)
        while True:
            connection, _ = server.accept()
            if os.fork():
                connection.close()
                continue
            server.close()
            signal.signal(signal.SIGCHLD, signal.SIG_DFL)
            keep_alive(connection)
            Session(connection, library).run()
            os._exit(0)
