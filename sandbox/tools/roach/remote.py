"""The data's way to a service on another machine, which hands it on to its backup library.

A frame is a head of 5 bytes (kind, length; little-endian) and its bytes: CALL and ANSWER are JSON, DATA
are bytes of the object that is open, END ends them. A connection is a session of the store, and has the
calls of one: see object_store. The data of a writer are not answered; its "end" is. A connection that
breaks gives up what its transaction has begun.
"""
import json
import os
import socket
import struct

from roach.agents import keep_alive
from roach.object_store import MIB, Store_Error

HEAD = struct.Struct("<cI")
CALL, ANSWER, DATA, END = b"C", b"A", b"D", b"E"
LARGEST = 16 * MIB
# of a socket: what is on the way counts as done in the progress, and is still written after a failure
ON_THE_WAY = 256 * 1024


def send(connection, kind, content=b""):
    connection.sendall(HEAD.pack(kind, len(content)))
    if len(content):
        connection.sendall(content)


def receive_into(connection, memory):
    """Fills memory. Raises EOFError at the end of the connection."""
    while len(memory):
        count = connection.recv_into(memory)
        if not count:
            raise EOFError
        memory = memory[count:]


def receive_head(connection):
    head = bytearray(HEAD.size)
    receive_into(connection, memoryview(head))
    kind, length = HEAD.unpack(head)
    if length > LARGEST:
        raise EOFError
    return kind, length


def receive(connection):
    """The next frame, as a pair."""
    kind, length = receive_head(connection)
    content = bytearray(length)
    receive_into(connection, memoryview(content))
    return kind, content


class Remote_Store(object):
    """A session of the service. @param way  "hosts", "port" and "policy" """

    def __init__(self, way):
        hosts = way["hosts"]
        host = hosts[os.getpid() % len(hosts)]
        self.name = "%s:%d" % (host, way["port"])
        try:
            self.connection = socket.create_connection((host, way["port"]), 10)
        except OSError as error:
            raise Store_Error("[GAUSS-53202] : Failed to connect to the media server %s: %s"
                              % (self.name, error))
        keep_alive(self.connection)
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, ON_THE_WAY)
        self.call("session", policy=way["policy"])

    def call(self, word, **more):
        """The answer's result. Raises Store_Error when it has none."""
        try:
            send(self.connection, CALL, json.dumps(dict(more, call=word)).encode())
            kind, content = receive(self.connection)
            answer = json.loads(content) if kind == ANSWER else {}
        except (EOFError, OSError, ValueError) as error:
            raise self.gone(error)
        if "result" not in answer:
            raise Store_Error(answer.get("error") or str(self.gone("")))
        return answer["result"]

    def gone(self, error):
        return Store_Error("[GAUSS-53203] : Lost the connection to the media server %s. %s" % (self.name, error))

    def begin(self):
        self.call("begin")

    def commit(self):
        self.call("commit")

    def abort(self):
        # it may be behind with what it has been sent, and does the same when it notices
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def close(self):
        self.connection.close()

    def names(self, prefix):
        return set(self.call("names", prefix=prefix))

    def create(self, name, estimated_size):
        self.call("create", name=name, size=estimated_size)
        return Remote_Writer(self)

    def open(self, name):
        self.call("open", name=name)
        return Remote_Reader(self)


class Remote_Writer(object):
    def __init__(self, store):
        self.store = store

    def send(self, memory):
        try:
            for begin in range(0, len(memory), LARGEST):
                send(self.store.connection, DATA, memory[begin:begin + LARGEST])
        except OSError as error:
            raise self.store.gone(error)

    def end(self):
        self.store.call("end")


class Remote_Reader(object):
    """Takes an object that the service sends to its end."""

    def __init__(self, store):
        self.store = store
        self.left = 0
        self.ended = False

    def read(self, memory):
        try:
            while not self.left and not self.ended:
                kind, length = receive_head(self.store.connection)
                if kind == ANSWER:
                    content = bytearray(length)
                    receive_into(self.store.connection, memoryview(content))
                    raise Store_Error(json.loads(content)["error"])
                self.left, self.ended = length, kind == END
            count = min(self.left, len(memory))
            receive_into(self.store.connection, memoryview(memory)[:count])
        except (EOFError, OSError, ValueError, KeyError) as error:
            raise self.store.gone(error)
        self.left -= count
        return count

    def end(self):
        pass
