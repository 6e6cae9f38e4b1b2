"""Single tables, or the schemas of a lost database, from a physical backup: its files are brought into a
scratch directory beside the data directory, a server that nobody else reaches recovers them there, and
what is wanted goes from it into the running cluster, all of an instance in one transaction."""
import os
import subprocess

from roach.cluster import Instance, Tool_Error, environment, remove_tree
from roach.postgres import Session, identifier, literal, no_database, no_schema
from roach.restore import Restore
from roach.workers import ignore_signals

PORT_DISTANCE = 1000  # of the scratch server's port, which names its socket only
SETTINGS = {"listen_addresses": "", "autovacuum": "off", "fsync": "off", "ignore_invalid_pages": "on",
            "max_connections": "60", "archive_mode": "off"}


class Scratch_Server(object):
    """The server of a scratch directory, while a "with" lasts."""

    def __init__(self, target):
        self.instance = target.instance
        self.data = target.data
        self.port = target.instance.port + PORT_DISTANCE
        self.server = None

    def __enter__(self):
        words = [os.path.join(environment("GAUSSHOME"), "bin", "gaussdb"), "-D", self.data, "-p",
                 str(self.port), "-k", environment("PGHOST")]
        for name, value in SETTINGS.items():
            words += ["-c", "%s=%s" % (name, value)]
        log = os.path.join(environment("GAUSSLOG"), self.instance.name + "_scratch.log")
        with open(log, "ab") as output:
            self.server = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                           cwd=self.data)
        try:
            Instance.wait_for_answer(self.server, self.port, log, self.instance.name)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self.server.poll() is None:
            self.server.send_signal(3)
            self.server.wait()

    def session(self, database):
        return Session(self.instance, database, self.port)

    def dump(self, database, words):
        """SQL that makes what the words choose."""
        done = subprocess.run(["pg_dump", "-h", environment("PGHOST"), "-p", str(self.port), "-d",
                               database] + words, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if done.returncode:
            raise Tool_Error("[GAUSS-53216] : Failed to read the backup of %s: %s"
                             % (self.instance.name, " ".join(done.stderr.decode().split())))
        return done.stdout


def load(instance, database, script):
    """Runs SQL on a running instance, all or nothing."""
    done = subprocess.run(
        ["psql", "-X", "-q", "-1", "-v", "ON_ERROR_STOP=1", "-h", environment("PGHOST"), "-p",
         str(instance.port), "-d", database], input=script, stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE)
    if done.returncode:
        raise Tool_Error("[GAUSS-53216] : Failed to restore to %s: %s"
                         % (instance.name, " ".join(done.stderr.decode().split())))


class Fine_Restore(Restore):
    """@param fine  "database", and either "tables", pairs of source and target as [schema, table], or
    "host", the host name of the lost database's cluster"""

    HALF_DONE = "Other data of the cluster are as they were."

    def __init__(self, cluster, metadata, policy, key, processes, block, fine, agents=None):
        super().__init__(cluster, metadata, policy, key, processes, block, False, agents,
                         fine.get("host"))
        self.fine = fine
        self.database = fine["database"]
        self.targets = []

    def run(self):
        try:
            super().run()
        finally:
            self._remove_scratch()

    def run_part(self, master):
        try:
            super().run_part(master)
        finally:
            self._remove_scratch()

    def _remove_scratch(self):
        try:
            # the master, which fails with another machine, may end this one in the middle of it
            ignore_signals()
        finally:
            for target in self.targets:
                if target.data != target.instance.data:
                    remove_tree(target.data)

    # --- before anything is changed

    def _check_chain(self):
        scope = self.chain[-1].get("scope")
        if "tables" not in self.fine and not scope:
            raise Tool_Error("[GAUSS-53213] : The backup %s is of the whole cluster: a database is "
                             "rebuilt from one of its schemas." % self.key)
        if scope and scope["database"] != self.database:
            raise Tool_Error("[GAUSS-53213] : The backup %s is of the database %s."
                             % (self.key, scope["database"]))
        for source, _ in self.fine.get("tables", ()):
            if scope and source[0] not in scope["schemas"]:
                raise Tool_Error("[GAUSS-53213] : The backup %s has no schema %s."
                                 % (self.key, source[0]))
        self._check_old_host()

    def _match_nodes(self):
        targets = super()._match_nodes()
        for target in targets:
            if not target.instance.running():
                raise Tool_Error("[GAUSS-51300] : %s does not run." % target.instance.name)
            self._check_instance(target.instance)
        for target in targets:
            target.data = target.instance.data + ".roach_scratch"
        return targets

    def _check_instance(self, instance):
        """What is restored must have its place, and nothing may be lost by it."""
        session = Session(instance)
        try:
            there = session.run("select 1 from pg_database where datname = %s" % literal(self.database))
        finally:
            session.close()
        if not there:
            if "tables" in self.fine:
                raise no_database(self.database, instance)
            return
        session = Session(instance, self.database)
        try:
            self._check_schemas(instance, session)
        finally:
            session.close()

    def _check_schemas(self, instance, session):
        for _, target in self.fine.get("tables", ()):
            if not session.run("select 1 from pg_namespace where nspname = %s" % literal(target[0])):
                raise no_schema(target[0], self.database, instance)
        if "tables" not in self.fine:
            for name in self.chain[-1]["scope"]["schemas"]:
                if session.run("select 1 from pg_class c join pg_namespace n on n.oid = relnamespace "
                               "where nspname = %s limit 1" % literal(name)):
                    raise Tool_Error("[GAUSS-53213] : The schema %s of the database %s on %s is not "
                                     "empty." % (name, self.database, instance.name))

    # --- the data

    def _clean(self):
        for target in self.targets:
            remove_tree(target.data)
            os.makedirs(os.path.join(target.data, "pg_tblspc"), 0o700)
            for oid in self.chain[-1]["nodes"][target.name]["tablespaces"]:
                os.mkdir(os.path.join(target.data, "pg_tblspc", oid), 0o700)

    def _complete(self):
        super()._complete()
        for target in self.targets:
            with Scratch_Server(target) as server:
                if "tables" in self.fine:
                    self._load_tables(server, target.instance)
                else:
                    self._load_schemas(server, target.instance)

    def _load_tables(self, server, instance):
        session = server.session(self.database)
        script, words = b"", []
        try:
            moves = [(source, target, "roach_scratch_%d" % number)
                     for number, (source, target) in enumerate(self.fine["tables"])]
            for source, target, own in moves:
                move_out(session, source, target, own, instance)
            for _, target, own in moves:
                move_in(session, own, target)
                script += ("drop table if exists %s;\n" % identifier(*target)).encode()
                words += ["-t", identifier(*target)]
        finally:
            session.close()
        load(instance, self.database, script + server.dump(self.database, words))

    def _load_schemas(self, server, instance):
        schemas = self.chain[-1]["scope"]["schemas"]
        script = server.dump(self.database, [word for name in schemas
                                             for word in ("-n", identifier(name))])
        session = Session(instance)
        try:
            if not session.run("select 1 from pg_database where datname = %s" % literal(self.database)):
                session.run("create database %s" % identifier(self.database))
        finally:
            session.close()
        # those that are there are empty; that of every new database is not in the dump
        empty = b"".join(b"drop schema if exists %s;\n" % identifier(name).encode()
                         for name in schemas if name != "public")
        load(instance, self.database, empty + script)


# Each table first moves to a schema of its own in the scratch server: its old and its new place may have
# other tables of its names, which may be wanted, too.

def move_out(session, source, target, own, instance):
    """Moves a table of the scratch server to the new schema `own`, and gives it the name that it is to have,
    and its indexes and sequences names that nothing else has."""
    if not session.run("select 1 from pg_tables where schemaname = %s and tablename = %s"
                       % tuple(map(literal, source))):
        raise Tool_Error("[GAUSS-53213] : The backup has no table %s on %s."
                         % (".".join(source), instance.name))
    session.run("create schema %s" % identifier(own))
    session.run("alter table %s set schema %s" % (identifier(*source), identifier(own)))
    if source[1] == target[1]:
        return
    session.run("alter table %s rename to %s" % (identifier(own, source[1]), identifier(target[1])))
    name = literal(identifier(own, target[1]))
    belonging = session.run(
        "select relname, relkind from pg_class join (select indexrelid as oid from pg_index where "
        "indrelid = %s::regclass union select objid from pg_depend where deptype = 'a' and "
        "refobjid = %s::regclass) as part using (oid) where relkind in ('i', 'S') order by 1"
        % (name, name))
    for number, (old, kind) in enumerate(belonging, 1):
        session.run("alter %s %s rename to %s" % (
            "index" if kind == "i" else "sequence", identifier(own, old),
            identifier("%s_%s%d" % (target[1], "idx" if kind == "i" else "seq", number))))


def move_in(session, own, target):
    """Moves that table to its new schema, where what has a name of it gets another one."""
    session.run("create schema if not exists %s" % identifier(target[0]))
    names = "select relname from pg_class where relnamespace = %s::regnamespace"
    for oid, name in session.run("select oid, relname from pg_class where relnamespace = %s::regnamespace "
                                 "and relname in (%s)" % (literal(identifier(target[0])),
                                                          names % literal(identifier(own)))):
        session.run("alter table %s rename to %s" % (identifier(target[0], name),
                                                     identifier("roach_old_%s" % oid)))
    session.run("alter table %s set schema %s" % (identifier(own, target[1]), identifier(target[0])))
