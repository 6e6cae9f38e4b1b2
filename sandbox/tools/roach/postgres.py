"""A session with a data node's server, kept open by a client behind a pipe."""
import subprocess

from roach.cluster import Tool_Error, environment


class Session(object):
    """Runs statements one after another. When this process goes, in whatever way, the session goes,
    and with it what belongs to it, such as a backup that the server is in."""

    def __init__(self, instance, database="postgres", port=None):
        """@param port  of another server of this machine that has the instance's data"""
        self.instance = instance
        self.client = subprocess.Popen(
            ["psql", "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-h", environment("PGHOST"),
             "-p", str(port or instance.port), "-d", database],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.run("set application_name = 'gs_roach'")

    def run(self, statement):
        """The rows, each a list of columns. Raises Tool_Error with the server's message."""
        mark = "-- end of rows --"
        try:
            self.client.stdin.write("%s;\n\\echo %s\n" % (statement, mark))
            self.client.stdin.flush()
        except BrokenPipeError:
            pass
        rows = []
        for line in self.client.stdout:
            line = line.rstrip("\n")
            if line == mark:
                return rows
            rows.append(line.split("|"))
        self._close_input()
        message = " ".join(self.client.stderr.read().split())
        raise Tool_Error("[GAUSS-51300] : Failed to execute SQL on %s: %s"
                         % (self.instance.name, message))

    def close(self):
        if self.client.poll() is None:
            self._close_input()
            self.client.wait()

    def _close_input(self):
        try:
            self.client.stdin.close()
        except BrokenPipeError:
            pass  # it has ended; a statement was still in the buffer


def no_database(database, instance):
    return Tool_Error("[GAUSS-51300] : The database %s does not exist on %s." % (database, instance.name))


def no_schema(schema, database, instance):
    return Tool_Error("[GAUSS-51300] : The schema %s does not exist in the database %s on %s."
                      % (schema, database, instance.name))


def literal(text):
    return "'%s'" % text.replace("'", "''")


def identifier(*names):
    return ".".join('"%s"' % name.replace('"', '""') for name in names)


def parse_lsn(text):
    high, low = text.split("/")
    return int(high, 16) << 32 | int(low, 16)
