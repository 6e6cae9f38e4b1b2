"""The server while the database is in the state NOMOUNT or MOUNT: listener.py {nomount | mount} -D DIRECTORY

It knows SYS alone, since the users are in the database, and one session at a time.
"""
import os
import select
import signal
import socket
import struct
import sys

SCRIPTS = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path[0] = SCRIPTS
from roach.cluster import Tool_Error  # noqa: E402
from zengine_tools import statements, wire  # noqa: E402
from zengine_tools.instance import Engine_Error, Instance, as_engine_error, failed  # noqa: E402
from zengine_tools.restore import Set_Restore  # noqa: E402


class Listener(object):
    def __init__(self, instance, state):
        self.instance = instance
        self.state = state
        self.restore = None  # while it waits for "recover database"
        self.sockets = []

    def listen(self):
        address = (self.instance.address, self.instance.port)
        network = socket.socket()
        network.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            network.bind(address)
        except OSError as error:
            raise failed(309, "Tcp port conflict %s:%d, the error code was %d" % (*address, error.errno))
        path = self.instance.listener_path()
        if os.path.exists(path):
            os.unlink(path)
        local = socket.socket(socket.AF_UNIX)
        local.bind(path)
        for one in (network, local):
            one.listen(8)
        self.sockets = [network, local]

    def close(self):
        for one in self.sockets:
            one.close()
        if os.path.exists(self.instance.listener_path()):
            os.unlink(self.instance.listener_path())

    def serve(self):
        """Until the database is to be opened."""
        while self.state != "OPEN":
            for ready in select.select(self.sockets, [], [])[0]:
                session = ready.accept()[0]
                with session, session.makefile("rwb") as stream:
                    try:
                        self._serve(session, stream)
                    except (OSError, ValueError):
                        pass  # the client has left

    def _serve(self, session, stream):
        if stream.read(len(wire.QUESTION)) != wire.QUESTION:
            return
        stream.write(wire.LISTENER)
        stream.flush()
        login = wire.receive(stream)
        if login is None:
            return
        try:
            self._log_in(session, login)
        except Engine_Error as error:
            return wire.send(stream, {"error": str(error)})
        wire.send(stream, {})
        while self.state != "OPEN":
            wanted = wire.receive(stream)
            if wanted is None:
                return
            try:
                answer = self._execute(wanted["statement"])
            except (Tool_Error, OSError) as error:
                answer = {"error": str(as_engine_error(error))}
            wire.send(stream, answer)

    def _log_in(self, session, login):
        if login.get("user") is None:
            peer = session.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12) \
                if session.family == socket.AF_UNIX else struct.pack("3i", 0, -1, -1)
            if struct.unpack("3i", peer)[1] != os.geteuid():
                raise failed(1017, "Login as sysdba is prohibited")
        elif login["user"].upper() != "SYS" or not self.instance.is_sys_password(login["password"]):
            raise failed(329, "Incorrect user or password")

    # --- statements

    def _execute(self, text):
        wanted = statements.parse(text)
        return getattr(self, "_" + type(wanted).__name__.lower())(wanted)

    def _query(self, wanted):
        known = {"select status from dv_database": ("STATUS", self.state),
                 "select instance_name from dv_instance": ("INSTANCE_NAME", self.instance.name),
                 "select version": ("VERSION", self.instance.version())}
        if wanted.text.lower() not in known:
            raise failed(764, "Query must in OPEN status")
        head, row = known[wanted.text.lower()]
        return {"rows": [[head], [row]]}

    def _backup(self, _):
        raise failed(764, "Backup database must in OPEN status")

    def _restore(self, wanted):
        if self.state != "NOMOUNT":
            raise failed(738, "The database is already in the MOUNT state")
        restore = Set_Restore(self.instance, wanted)
        restore.check_place()
        restore.bring()
        self.restore = restore
        self.state = "MOUNT"
        return {}

    def _recover(self, _):
        if self.state != "MOUNT":
            raise failed(768, "Operation recover can only be executed in mount status")
        if self.restore:
            self.restore.finish()
            self.restore = None
        return {}

    def _alter(self, wanted):
        if wanted.state == "MOUNT":
            return self._mount()
        if self.state != "MOUNT":
            raise failed(768, "Operation alter database open can only be executed in mount status")
        if self.restore:
            raise failed(857, "Cannot open database after restore, please recover database")
        self.state = "OPEN"
        return {"opens": os.getpid()}

    def _mount(self):
        if self.state == "MOUNT":
            raise failed(738, "The database is already in the MOUNT state")
        if not self.instance.has_database():
            raise failed(702, "Failed to load control file, check specified control files")
        self.state = "MOUNT"
        return {}


def main(mode, directory):
    home = os.path.dirname(os.path.dirname(SCRIPTS))
    listener = Listener(Instance(home, directory), mode.upper())

    def end(_signal, _frame):
        raise SystemExit(0)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, end)
    try:
        listener.listen()
        listener.serve()
    except Engine_Error as error:
        print("zengine: %s" % error, file=sys.stderr)
        return 1
    finally:
        listener.close()
    program = os.path.join(home, "bin", "zengine")
    os.execv(program, [program, "open", "-D", directory])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[3]))
