"""zsql: logs in, and carries out statements one after another until one fails.

An open database is PostgreSQL, which knows nothing of backups: the client makes them in its place, as the
user of the instance. Statements for a database that is not open go to its listener.
"""
import os
import re
import socket
import subprocess
import sys

from roach import options
from roach.cluster import Tool_Error
from roach.zsql_form import split_login, table
from zengine_tools import statements, wire
from zengine_tools.backup import backup
from zengine_tools.instance import (
    Engine_Error, Instance, as_engine_error, check_libraries, failed)


class Open_Session(object):
    """With PostgreSQL."""

    def __init__(self, instance, login):
        self.instance = instance
        self.words = ["psql", "-X", "-w", "-q", "-A", "-d", "postgres", "-P", "footer=off", "-F", "\x1f",
                      "-R", "\x1e", "-v", "ON_ERROR_STOP=1", "-p", str(instance.port), "-h"]
        self.environment = dict(os.environ)
        if login:
            user, password, host, port = login
            self.words += [host, "-U", user.lower()]
            self.words[self.words.index("-p") + 1] = port
            self.environment["PGPASSWORD"] = password
        else:
            self.words.append(instance.sockets)

    def query(self, text):
        done = subprocess.run(self.words + ["-c", text], env=self.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if done.returncode:
            raise self._error(" ".join(done.stderr.split()))
        return [row.split("\x1f") for row in done.stdout.rstrip("\n").split("\x1e") if row]

    @staticmethod
    def _error(text):
        if "authentication failed" in text or "does not exist" in text and "FATAL: role" in text:
            return failed(329, "Incorrect user or password")
        if "FATAL:" in text:
            return failed(322, "%s, stop accepting new connection any more" % text)
        found = re.search(r'relation "([^"]*)" does not exist', text)
        if found:
            return failed(843, "The table or view %s does not exist." % found.group(1).upper())
        return failed(601, "Sql syntax error: %s" % text)

    def execute(self, text):
        wanted = statements.parse(text)
        if isinstance(wanted, statements.Query):
            if wanted.text.lower() == "select version":
                self.query("select 1")
                return [["version"], [self.instance.version()]]
            return self.query(wanted.text)
        if self.query("select rolsuper from pg_roles where rolname = current_user")[1:] != [["t"]]:
            raise failed(1001, "Permissions were insufficient")
        if not isinstance(wanted, statements.Backup):
            raise failed(739, "The database cannot be opened repeatedly." if isinstance(
                wanted, statements.Alter) else "Operation can only be executed in mount status")
        os.environ["PGHOST"] = self.instance.sockets
        backup(self.instance, wanted)
        return None

    def close(self):
        pass


class Listener_Session(object):
    """With the listener of a database that is not open."""

    def __init__(self, instance, login, connection):
        self.instance = instance
        self.connection = connection
        self.stream = connection.makefile("rwb")
        self._ask({"user": login and login[0], "password": login and login[1]})

    def _ask(self, value):
        wire.send(self.stream, value)
        answer = wire.receive(self.stream)
        if answer is None:
            raise failed(304, "Peer is closed")
        if "error" in answer:
            raise Engine_Error(answer["error"])
        return answer

    def execute(self, text):
        answer = self._ask({"statement": text})
        if "opens" in answer:
            pid = answer["opens"]
            self.instance.wait_until_ready(True, lambda: not self._runs(pid))
        return answer.get("rows")

    @staticmethod
    def _runs(pid):
        try:
            with open("/proc/%d/stat" % pid) as line:
                return line.read().rsplit(") ", 1)[1][0] != "Z"
        except OSError:
            return False

    def close(self):
        self.connection.close()


def connect(instance, login):
    if login:
        address = (login[2], int(login[3]))
        names = "[%s]:[%s]" % (login[2], login[3])
    else:
        path = instance.listener_path()
        address = path if os.path.exists(path) else os.path.join(instance.sockets,
                                                                 ".s.PGSQL.%d" % instance.port)
        names = address
    connection = socket.socket(socket.AF_INET if login else socket.AF_UNIX)
    try:
        connection.connect(address)
        connection.sendall(wire.QUESTION)
        kind = connection.recv(1)
    except OSError as error:
        connection.close()
        raise failed(303 if login else 332, "Failed to establish connection to %s, errno %d"
                     % (names, error.errno or 0))
    if kind == wire.LISTENER:
        return Listener_Session(instance, login, connection)
    connection.close()
    return Open_Session(instance, login)


def log_in(arguments):
    """The login with its password, and the options."""
    login, rest = split_login(arguments, ("sysdba",))
    given = dict(options.parse(rest, "qaD:c:", []))
    if not given.get("-c") or not given.get("-D"):
        raise failed(601, "Sql syntax error: -D and -c are required")
    return login, given


def ask_password(login):
    if login and login[1] is None:
        print("Please enter password:")
        password = sys.stdin.readline().rstrip("\n")
        print("********")
        return login[:1] + (password,) + login[2:]
    return login


def run(home, help_text, arguments):
    check_libraries(home)
    instance_version = os.path.join(home, "version")
    if arguments in (["-v"], ["-version"]):
        with open(instance_version) as line:
            print(line.readline().strip())
        return
    if not arguments or arguments[0] in ("-h", "-?"):
        print(help_text)
        return
    login, given = log_in(arguments)
    wanted = statements.split(given["-c"])
    login = ask_password(login)
    session = connect(Instance(home, given["-D"]), login)
    try:
        if "-q" not in given:
            print("connected.\n")
        for statement in wanted:
            rows = session.execute(statement)
            print(table(rows) if rows else "\nSucceed.")
    finally:
        session.close()


def main(home, help_text, arguments):
    try:
        run(home, help_text, arguments)
        return 0
    except (Tool_Error, OSError) as failure:
        # as of any statement that fails, on standard output
        print(as_engine_error(failure))
        return 1
