"""The cluster's other machines: the master starts an agent on each over ssh, as the cluster's user, and
the agent calls back at the master's port. Over that connection it is told what to do.

A message is a pair, a word and what goes with it. The agent answers an order with ("done", ...) or
("ready", ...), tells ("progress", hundredths of a percent) meanwhile, and ("failed", text) at last when
it cannot go on. When the connection breaks, each end gives up what it has begun.
"""
import hmac
import json
import secrets
import shlex
import socket
import struct
import subprocess
import tempfile
import time

from roach.cluster import Tool_Error, environment
from roach.workers import gather

HEAD = struct.Struct("<I")
PATIENCE = 60  # seconds for an agent to call, and for one to end


def keep_alive(connection):
    """Makes a connection fail within seconds when the other machine is lost."""
    connection.settimeout(None)
    for level, option, value in (
            (socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1), (socket.IPPROTO_TCP, socket.TCP_NODELAY, 1),
            (socket.IPPROTO_TCP, socket.TCP_KEEPIDLE, 2), (socket.IPPROTO_TCP, socket.TCP_KEEPINTVL, 1),
            (socket.IPPROTO_TCP, socket.TCP_KEEPCNT, 5),
            (socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT, 7000)):
        connection.setsockopt(level, option, value)


class Channel(object):
    """Messages over a connection with keep_alive()."""

    def __init__(self, connection):
        self.connection = connection
        keep_alive(connection)

    def fileno(self):
        return self.connection.fileno()

    def send(self, message):
        text = json.dumps(message).encode()
        self.connection.sendall(HEAD.pack(len(text)) + text)

    def recv(self):
        """The next message. Raises EOFError or OSError when there will be none."""
        return json.loads(self._exactly(HEAD.unpack(self._exactly(HEAD.size))[0]))

    def _exactly(self, size):
        content = bytearray()
        while len(content) < size:
            piece = self.connection.recv(min(size - len(content), 1 << 20))
            if not piece:
                raise EOFError
            content += piece
        return bytes(content)

    def close(self):
        try:
            # workers may have it open, too
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.connection.close()


class Remote_Agent(object):
    """The agent of another machine, as its master sees it: a pipe like those of the workers."""

    def __init__(self, number, node, master, port, token):
        self.number = number
        self.node = node
        self.channel = None
        self.errors = tempfile.TemporaryFile()
        profile = shlex.quote(environment("MPPDB_ENV_SEPARATE_PATH"))
        self.ssh = subprocess.Popen(
            ["ssh", "-T", "-o", "LogLevel=ERROR", "-o", "BatchMode=yes", "-o", "ConnectTimeout=10", "-o",
             "ServerAliveInterval=2", "-o", "ServerAliveCountMax=3", node.sshIps[0],
             "source %s && exec python3 $GPHOME/script/gs_roach" % profile],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=self.errors)
        order = {"number": number, "master": master, "port": port, "token": token}
        try:
            # whoever lists processes must not read the token
            self.ssh.stdin.write(json.dumps(order).encode() + b"\n")
            self.ssh.stdin.close()
        except OSError:
            pass  # its end tells more

    def gone(self):
        self.errors.seek(0)
        text = " ".join(self.errors.read().decode(errors="replace").split())
        return "[GAUSS-53206] : Lost the connection to the agent on %s. %s" % (self.node.name, text)

    def fileno(self):
        return self.channel.fileno()

    def recv(self):
        kind, value = self.channel.recv()
        return kind, ("%s (on %s)" % (value, self.node.name) if kind == "failed" else value)

    def send(self, message):
        try:
            self.channel.send(message)
        except OSError:
            raise Tool_Error(self.gone())

    def close(self):
        if self.channel:
            self.channel.close()
        try:
            self.ssh.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.ssh.kill()
            self.ssh.wait()
        self.errors.close()


class Agents(object):
    """Those of all other machines with data nodes. Leaving the "with" ends them.

    @param cluster   None: there are none
    @param listener  the master's port
    """

    def __init__(self, cluster=None, listener=None):
        self.remotes = []
        if cluster is None:
            return
        nodes = [(number, node) for number, node in enumerate(cluster.nodes)
                 if node.datanodes and node.name != socket.gethostname()]
        if not nodes:
            return
        own = cluster.info.getDbNodeByName(socket.gethostname())
        token = secrets.token_hex(32)
        try:
            for number, node in nodes:
                self.remotes.append(Remote_Agent(number, node, own.backIps[0],
                                                 listener.getsockname()[1], token))
            self._await_calls(listener, token)
        except BaseException:
            listener.close()  # an agent whose call nobody has taken would wait for its order
            self.close()
            raise

    def _await_calls(self, listener, token):
        waiting = {one.number: one for one in self.remotes}
        end = time.monotonic() + PATIENCE
        listener.settimeout(0.2)
        while waiting:
            try:
                connection, _ = listener.accept()
            except socket.timeout:
                for one in waiting.values():
                    if one.ssh.poll() is not None or time.monotonic() > end:
                        raise Tool_Error(one.gone())
                continue
            connection.settimeout(10)
            try:
                channel = Channel(connection)
                given, number = channel.recv()
            except (EOFError, OSError, ValueError, TypeError):
                connection.close()
                continue
            if isinstance(given, str) and hmac.compare_digest(given, token) and number in waiting:
                waiting.pop(number).channel = channel
            else:
                connection.close()

    def tell(self, word, value=None):
        for one in self.remotes:
            one.send((word, value))

    def gather(self, wanted):
        return gather(self.remotes, wanted)

    def ask(self, word, value=None):
        """Gives all of them an order and waits until each has done it."""
        self.tell(word, value)
        return self.gather("done")

    def close(self):
        for one in self.remotes:
            if one.channel:
                one.channel.close()
        for one in self.remotes:
            one.close()
        self.remotes = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def listen(port):
    """The master's port, at which the agents call. Raises Tool_Error."""
    master = socket.socket()
    master.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        master.bind(("", port))
        master.listen()
    except OSError as error:
        raise Tool_Error("[GAUSS-53201] : Failed to listen on the port %d: %s" % (port, error))
    return master


def for_all_machines(cluster, word, value, own):
    """Has every machine do something: own() here, the order's word elsewhere."""
    with listen(0) as listener, Agents(cluster, listener) as agents:
        agents.tell(word, value)
        own()
        agents.gather("done")
