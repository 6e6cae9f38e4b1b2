#!/usr/bin/env python3
"""Attacks a running agent with broken messages, and checks after each that others are served.

    fuzz/agent_rpc_attack.py --socket PATH [--port N --key FILE --ca FILE] [--seconds N] [--seed N]

Each attack takes a valid message, changes it at random, sends it in a random way (whole, in pieces,
cut short, never reading, resetting the connection) over the agent's own socket or, with --port, over
TLS: as HTTP, as WebSocket frames, or in plain. After it a good client must be answered in time. The
same seed gives the same attacks. Exits with 1 and a reason when the agent fails.
"""
import argparse
import base64
import json
import os
import random
import socket
import ssl
import struct
import sys
import time

PATIENCE = 20.0
SEEDS = [
    {"jsonrpc": "2.0", "id": 1, "method": "agent.info"},
    {"jsonrpc": "2.0", "id": "x", "method": "instance.list", "params": {"refresh": False}},
    {"jsonrpc": "2.0", "id": 2, "method": "job.list", "params": {"limit": 10, "state": "running"}},
    {"jsonrpc": "2.0", "id": 3, "method": "backup.show", "params": {"backup": "0"}},
    {"jsonrpc": "2.0", "id": 4, "method": "pool.find", "params": {"uuid": "none"}},
    {"jsonrpc": "2.0", "id": 5, "method": "gaussdb.list", "params": None},
    {"jsonrpc": "2.0", "id": 6, "method": "gaussdb.list", "params": {"uid": "u", "instance": "i"}},
    {"jsonrpc": "2.0", "id": 7, "method": "group.forward",
     "params": {"host_uuid": "h", "method": "m", "params": {}}},
    {"jsonrpc": "2.0", "method": "backupd.instance.notify", "params": {"name": "n"}},
    {"jsonrpc": "2.0", "id": 8, "result": {"a": 1}},
    {"jsonrpc": "2.0", "id": "f1", "error": {"code": -1, "message": "m"}},
    [{"jsonrpc": "2.0", "id": 9, "method": "agent.info"}, {"jsonrpc": "2.0", "method": "x"}, 1],
]
VALUES = [None, True, 0, -1, 2**63 - 1, 2**64, -(2**63) - 1, 1.5, 1e308, "", "x" * 5000, "\u0000",
          "\ud800", "../../etc/passwd", "'; drop table run; --", "%s%n%d", [], {}, [[]], {"": {}}]


# What no name can have in it: every method has to answer -32602.
NO_LINE = ["a\u0000b", "\u0000", "a\nb", "a\r", "a\u001b[2J", "a\u007f", "x" * 100_000,
           "/" + "x" * 100_000]
# What leads elsewhere: every method has to answer with an error, be it that nothing has that name.
ELSEWHERE = ["..", "../x", "../../../../etc/passwd", "/etc/shadow", "a/../../b", "'; drop table run; --",
             "$(id)", "-rf"]

ID = "6f9619ff-8b86-4011-b42d-00cf4fc9648f"
DEFINITION = {"name": "n", "type": "backup", "subtype": "full", "target": {"pool": "none", "device_id": ""},
              "source": {"id": ID, "name": "n", "entries": ["gaussdb/none"]}, "id": ID, "uid": ID,
              "host_id": ID}
SET = {"uuid": ID, "resource_uuid": ID, "backup_key": "k", "prior_backup_key": "k", "instance": "none",
       "host_uuid": ID, "uri": "a/b", "pieces": [{"path": "a/b", "size": 1}],
       "storages": [{"pool_uuid": ID}]}

# Params of each method that change nothing when one text is no name, and its members that are names.
# A member of "*" is one by which something is looked for: only what is no text at all is refused.
METHODS = {
    "guide.backup": ({"backup": "none", "instance": "none"}, ["backup", "instance"]),
    "guide.instance": ({"instance": "none", "pool": "none", "level": "full"}, ["instance", "pool"]),
    "audit.list": ({"user": "nobody", "subject": "none"}, ["*user", "*subject"]),
    "agent.check": ({"instance": "none", "pool": "none", "uid": ID}, ["*instance", "pool", "uid"]),
    "instance.show": ({"instance": "none"}, ["instance"]),
    "instance.save": ({"name": "none", "type": "none", "options": {"user": "u", "address": "h",
                                                                   "meta_path": "/m"}},
                      ["name", "type", "options.user", "options.address", "options.meta_path"]),
    "instance.try": ({"options": {"address": "h", "meta_path": "/m", "ssh_options": "-4"},
                      "accept_host_key": "SHA256:x"},
                     ["*options.address", "*options.meta_path", "*options.ssh_options",
                      "*accept_host_key"]),
    "instance.remove": ({"instance": "none"}, ["instance"]),
    "account.save": ({"instance": "none", "uid": ID, "username": "u", "password": "p"},
                     ["instance", "uid", "username", "*password"]),
    "gaussdb.add_tpops_instances": ({"uid": ID, "username": "u", "password": "not enciphered",
                                     "tpops_host": "h", "xbsa_host": "x",
                                     "instances": [{"name": "none", "id": "i"}]},
                                    ["uid", "username", "password", "tpops_host", "xbsa_host",
                                     "instances.0.name", "instances.0.id"]),
    "gaussdb.list_tpops_instances": ({"name": "none"}, ["name"]),
    "gaussdb.list": ({"uid": ID, "instance": "none", "database": "d"}, ["uid", "instance", "database"]),
    "gaussdb.create_instance": ({"name": "none", "uid": ID, "meta_path": "/m", "address": "-h",
                                 "backup_port": 1, "source_commands": "a", "ssh_options": "-4"},
                                ["name", "uid", "meta_path", "address", "source_commands",
                                 "ssh_options"]),
    "gaussdb.get_instance": ({"instance": "none"}, ["instance"]),
    "gaussdb.modify_instance": ({"name": "none", "address": "h"}, ["name", "address"]),
    "gaussdb.remove_instance": ({"instance": "none"}, ["instance"]),
    "gaussdb.roach_source": ({"action": "remove", "pool_uuid": ID, "uuid": ID, "policy_name": "meta",
                              "definition_uuid": ID}, ["policy_name", "definition_uuid"]),
    "pool.create": ({"name": "none", "url": "file:///nonexistent", "compression": "zstd"},
                    ["name", "url", "compression"]),
    "pool.update": ({"pool": "none", "name": "n", "url": "file:///nonexistent"}, ["pool", "name", "url"]),
    "pool.remove": ({"pool": "none"}, ["pool"]),
    "pool.find": ({"uuid": ID}, ["uuid"]),
    "definition.save": (DEFINITION, ["name", "id", "uid", "host_id", "target.pool", "source.id",
                                     "source.name", "source.entries.0"]),
    "definition.change": ({"definition": "none", "changes": {}}, ["definition"]),
    "definition.show": ({"definition": "none"}, ["definition"]),
    "definition.remove": ({"definition": "none"}, ["definition"]),
    "job.start": ({"definition": "none"}, ["definition"]),
    "schedule.list": ({"instance": "none"}, ["*instance"]),
    "schedule.show": ({"schedule": "none"}, ["schedule"]),
    "job.list": ({"definition": "n", "instance": "n", "state": "s"},
                 ["*definition", "*instance", "*state"]),
    "job.show": ({"job": "none"}, ["job"]),
    "job.watch": ({"job": "none"}, ["job"]),
    "job.log": ({"job": "none"}, ["job"]),
    "job.cancel": ({"job": "none"}, ["job"]),
    "job.stop": ({"job": "none"}, ["job"]),
    "job.pause": ({"job": "none"}, ["job"]),
    "job.resume": ({"job": "none"}, ["job"]),
    "backup.list": ({"instance": "n", "resource_uuid": ID, "pool": "none", "type": "t"},
                    ["*instance", "resource_uuid", "pool", "type"]),
    "backup.point": ({"instance": "n", "time": 1}, ["*instance"]),
    "backup.show": ({"backup": "none"}, ["backup"]),
    "backup.remove": ({"backup": "none"}, ["backup"]),
    "catalog.initialize": ({"kind": "gaussdb", "set": SET},
                           ["kind", "set.uuid", "set.resource_uuid", "set.backup_key",
                            "set.prior_backup_key", "set.instance", "set.host_uuid", "*set.uri",
                            "*set.pieces.0.path", "set.storages.0.pool_uuid"]),
    "catalog.complete": ({"kind": "gaussdb", "set": SET}, ["kind", "set.uuid", "set.pieces.0.path"]),
    "catalog.commit": ({"kind": "gaussdb", "set": SET}, ["kind", "set.uuid", "set.host_uuid",
                                                         "set.storages.0.pool_uuid"]),
    "catalog.abort": ({"uuid": ID}, ["uuid"]),
    "catalog.add_piece": ({"uuid": ID, "pieces": [{"path": "a/b", "size": 1}]}, ["uuid", "pieces.0.path"]),
    "catalog.get_view": ({"type": "gaussdb", "view": "catalogs", "query": {}}, ["type", "view"]),
    "catalog.abort_open": ({"host_uuid": ID, "before": 1, "uuid": ID}, ["host_uuid", "uuid"]),
    "backupd.instance.notify": ({"type": "gaussdb", "name": "n", "uuid": ID, "change": "added"},
                                ["type", "name", "uuid", "change"]),
    "backup_set.gaussdb_restore_branch": ({"resource_uuid": ID, "restore_time": "2026-11-21 10:00:00"},
                                          ["resource_uuid", "restore_time"]),
    "member.add": ({"name": "n", "host": ID, "pools": ["none"]}, ["name", "host", "pools.0"]),
    "member.remove": ({"member": "none"}, ["member"]),
}
# Methods between agents: nobody at the socket may call them.
CLOSED = ["group.deliver", "group.forward", "group.join", "run.begin", "run.end",
          "run.hold", "run.release"]
# Of these, changed at random, none can do harm to an agent that others use.
HARMLESS = [method for method in METHODS
            if method.endswith((".show", ".list", ".find", ".log", ".get_view"))]
# Methods without a text in their params.
NAMELESS = ["agent.info", "guide.flavours", "instance.list", "pool.list", "definition.list", "member.list"]


class Failure(Exception):
    """The agent did not do what it has to."""


class Line_Client:
    """Asks over the agent's own socket, one call after the other."""

    def __init__(self, path):
        self.connection = socket.socket(socket.AF_UNIX)
        self.connection.settimeout(PATIENCE)
        self.connection.connect(path)
        self.lines = self.connection.makefile("rb")
        self.number = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.lines.close()
        self.connection.close()

    def ask(self, method, params):
        self.number += 1
        message = {"jsonrpc": "2.0", "id": self.number, "method": method, "params": params}
        self.connection.sendall(json.dumps(message).encode() + b"\n")
        answer = json.loads(self.lines.readline())
        if answer.get("id") != self.number:
            raise Failure(f"the answer to {method} is {answer}")
        return answer


def with_text(params, member, text):
    """A copy of the params with another text in one member: "set.pieces.0.path"."""
    params = json.loads(json.dumps(params))
    *parents, last = [int(part) if part.isdigit() else part for part in member.split(".")]
    parent = params
    for part in parents:
        parent = parent[part]
    parent[last] = text
    return params


def hostile_calls(methods):
    """Every text member of each method with each text that is not a name: (method, member, text,
    params). A member by which lists are chosen gets only what is not one line of text."""
    for method in methods:
        params, members = METHODS.get(method, ({}, []))
        for member in members:
            for text in NO_LINE + ([] if member.startswith("*") else ELSEWHERE):
                yield method, member, text, with_text(params, member.lstrip("*"), text)


def paths_of(value, path=()):
    yield path
    items = value.items() if isinstance(value, dict) else enumerate(value) \
        if isinstance(value, list) else []
    for key, child in items:
        yield from paths_of(child, path + (key,))


def change_value(rng, message):
    """A copy with one member replaced, removed, renamed or added."""
    message = json.loads(json.dumps(message))
    path = rng.choice(list(paths_of(message)))
    if not path:
        return rng.choice(VALUES)
    parent = message
    for key in path[:-1]:
        parent = parent[key]
    kind = rng.randrange(4)
    if kind == 0:
        del parent[path[-1]]
    elif kind == 1 and isinstance(parent, dict):
        parent[rng.choice(["", "id", "method", "params", "x\n", "jsonrpc"])] = rng.choice(VALUES)
    elif kind == 2:
        parent[path[-1]] = rng.choice(SEEDS)
    else:
        parent[path[-1]] = rng.choice(VALUES)
    return message


def change_bytes(rng, data):
    data = bytearray(data)
    for _ in range(rng.randint(1, 8)):
        at = rng.randrange(len(data) + 1)
        kind = rng.randrange(4)
        if kind == 0 and at < len(data):
            data[at] = rng.randrange(256)
        elif kind == 1:
            data[at:at] = bytes(rng.randrange(256) for _ in range(rng.randint(1, 20)))
        elif kind == 2:
            del data[at:at + rng.randint(1, 20)]
        else:
            data[at:at] = data[:rng.randint(0, len(data))]
    return bytes(data)


def payload(rng):
    """The text of one attack."""
    kind = rng.randrange(20)
    if kind == 0:
        return rng.choice([b"[", b'{"a":', b'[{"a":']) * rng.randint(1, 200_000)
    if kind == 1:
        return b'{"jsonrpc":"2.0","id":1,"method":"' + b"x" * rng.randint(1, 20_000_000) + b'"}'
    if kind == 2:
        return b"[" + b",".join([b"1"] * rng.randint(1, 5000)) + b"]"
    if kind == 3:
        return bytes(rng.randrange(256) for _ in range(rng.randint(0, 2000)))
    message = rng.choice(SEEDS)
    if rng.random() < 0.5:
        method = rng.choice(sorted(HARMLESS))
        message = {"jsonrpc": "2.0", "id": 1, "method": method, "params": METHODS[method][0]}
    for _ in range(rng.randrange(3)):
        message = change_value(rng, message)
    data = json.dumps(message, ensure_ascii=rng.random() < 0.5).encode("utf-8", "surrogatepass")
    return change_bytes(rng, data) if rng.random() < 0.5 else data


def frame(data, first=0x81):
    size = len(data)
    head = struct.pack("!BB", first, 0x80 | size) if size < 126 else \
        struct.pack("!BBH", first, 0x80 | 126, size) if size < 65536 else \
        struct.pack("!BBQ", first, 0x80 | 127, size)
    return head + b"\0\0\0\0" + data


def receive(connection, size):
    data = b""
    while len(data) < size:
        more = connection.recv(size - len(data))
        if not more:
            raise Failure("the connection was closed")
        data += more
    return data


def receive_head(connection):
    data = b""
    while not data.endswith(b"\r\n\r\n"):
        data += receive(connection, 1)
    return data


def receive_text(connection):
    while True:
        first, second = receive(connection, 2)
        size = second & 0x7f
        if size == 126:
            size, = struct.unpack("!H", receive(connection, 2))
        elif size == 127:
            size, = struct.unpack("!Q", receive(connection, 8))
        data = receive(connection, size)
        if first & 0x0f == 1:
            return data


class Target:
    def __init__(self, options):
        self.options = options
        self.key = ""
        if options.port:
            with open(options.key, encoding="utf-8") as file:
                self.key = file.read().strip()
            self.context = ssl.create_default_context(cafile=options.ca)

    def local(self):
        connection = socket.socket(socket.AF_UNIX)
        connection.settimeout(PATIENCE)
        connection.connect(self.options.socket)
        return connection

    def tcp(self):
        connection = socket.create_connection((self.options.host, self.options.port), PATIENCE)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection

    def tls(self):
        """Each user has a share of the room for clients that have not shown the key yet. Those of the
        attacks that are answered late fill it for a while."""
        end = time.monotonic() + PATIENCE
        while True:
            try:
                return self.context.wrap_socket(self.tcp(), server_hostname=self.options.host)
            except (ssl.SSLEOFError, ConnectionResetError):
                if time.monotonic() > end:
                    raise
                time.sleep(0.1)

    def request(self, start="GET / HTTP/1.1", key=None, fields=""):
        return (f"{start}\r\nHost: {self.options.host}\r\n{fields}"
                f"Authorization: Bearer {self.key if key is None else key}\r\n\r\n").encode()

    def upgrade(self, key=None):
        nonce = base64.b64encode(b"0123456789abcdef").decode()
        return self.request(key=key, fields="Upgrade: websocket\r\nConnection: Upgrade\r\n"
                            f"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {nonce}\r\n")

    def websocket(self):
        connection = self.tls()
        connection.sendall(self.upgrade())
        head = receive_head(connection)
        if b" 101 " not in head:
            raise Failure(f"no WebSocket but {head[:60]!r}")
        return connection

    def check(self, number, method):
        """A good client is answered, on every transport there is."""
        message = json.dumps({"jsonrpc": "2.0", "id": number, "method": method}).encode()
        with self.local() as connection:
            connection.sendall(message + b"\n")
            with connection.makefile("rb") as lines:
                self.expect(lines.readline(), number)
        if self.options.port:
            with self.websocket() as connection:
                connection.sendall(frame(message))
                self.expect(receive_text(connection), number)

    @staticmethod
    def expect(text, number):
        try:
            reply = json.loads(text)
        except ValueError:
            raise Failure(f"the answer to a good client is {text[:100]!r}") from None
        if reply.get("id") != number or ("result" not in reply and "error" not in reply):
            raise Failure(f"the answer to a good client is {reply}")


def deliver(rng, connection, data):
    """Sends in a random way; whatever the agent does about it is right."""
    try:
        kind = rng.randrange(6)
        if kind == 0:
            data = data[:rng.randint(0, len(data))]
        if kind == 1:
            for at in range(0, min(len(data), 200)):
                connection.sendall(data[at:at + 1])
            data = data[200:]
        connection.sendall(data)
        if kind == 2:
            for _ in range(rng.randint(1, 200)):
                connection.sendall(data[:10_000])
        if kind == 3 and not isinstance(connection, ssl.SSLSocket):
            connection.shutdown(socket.SHUT_WR)
        if kind == 4:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        if kind == 5:
            connection.settimeout(0.02)
            connection.recv(100_000)
    except (OSError, ValueError):
        pass


def attack(rng, target):
    """One attack. @return its connection, which may stay for a while, and what it was"""
    kinds = ["local"] * 3
    if target.options.port:
        kinds += ["websocket", "websocket", "frames", "upgrade", "http", "denied", "plain", "noise"]
    kind = rng.choice(kinds)
    data = payload(rng)
    if kind == "local":
        connection = target.local()
        data += rng.choice([b"\n", b"\n", b"\r\n", b"", b"\0\n"])
    elif kind in ("websocket", "frames"):
        connection = target.websocket()
        data = frame(data, rng.choice([0x81, 0x81, 0x82, 0x01, 0x80, 0x88, 0x89, 0x8a, 0xf1]))
        if kind == "frames":
            data = change_bytes(rng, data[:100_000])
    elif kind in ("plain", "noise"):
        connection = target.tcp()
        data = target.request() if kind == "plain" else change_bytes(rng, b"\x16\x03\x01" + data[:99])
    else:
        connection = target.tls()
        if kind == "upgrade":
            data = change_bytes(rng, target.upgrade()) + data[:1000]
        elif kind == "http":
            data = change_bytes(rng, target.request(rng.choice(
                ["GET /d2/r/v2/resources?feature=backup HTTP/1.1", "PUT /%zz HTTP/1.1",
                 "POST / HTTP/1.0", "HEAD /x HTTP/1.1"]), fields="Content-Length: 5\r\n")) + data
        else:
            data = target.upgrade(key="wrong") + data
    deliver(rng, connection, data)
    return connection, kind


def run(options):
    rng = random.Random(options.seed)
    target = Target(options)
    end = time.monotonic() + options.seconds
    number, kind, kept = 0, "nothing", []
    try:
        target.check(0, options.method)
        while time.monotonic() < end:
            number += 1
            try:
                connection, kind = attack(rng, target)
            except (OSError, Failure) as fault:
                raise Failure(f"an attack could not be made, {fault}") from fault
            kept.append(connection)
            if len(kept) > 8:
                kept.pop(rng.randrange(len(kept))).close()
            target.check(number, options.method)
    except (OSError, Failure) as fault:
        print(f"seed {options.seed}, attack {number} ({kind}): {fault}", file=sys.stderr)
        return 1
    finally:
        for connection in kept:
            connection.close()
    print(f"seed {options.seed}: {number} attacks, and others were served after each")
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--socket", required=True, help="the agent's own socket")
    parser.add_argument("--host", default="localhost", help="the port's host, as the certificate has it")
    parser.add_argument("--port", type=int, default=0, help="the agent's port; none is left alone")
    parser.add_argument("--key", help="the file with the access key")
    parser.add_argument("--ca", help="the certificate to trust")
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "big"))
    parser.add_argument("--method", default="agent.info", help="what the good client asks")
    options = parser.parse_args()
    if options.port and not (options.key and options.ca):
        parser.error("--port needs --key and --ca")
    return run(options)


if __name__ == "__main__":
    sys.exit(main())
