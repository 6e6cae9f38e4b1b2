"""A lone instance of the series "t": what "cluster create --series t" makes, and where it lies."""
import os
import pwd
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(HERE, "tools"))
sys.path.insert(0, os.path.join(HERE, "zengine"))
from cluster_user import POSTGRES, checked, make_user, quiet, run_alone  # noqa: E402
from zengine_tools.instance import Instance, hash_password  # noqa: E402

VERSION = "GaussDB_T_1.0.2.B303 Release cfa19bd"
PORT = 1611
PASSWORD = "Backup@123"  # of "sys" and "backup"
ZENGINE_INI = """LSNR_ADDR = 127.0.0.1
LSNR_PORT = %d
DATA_BUFFER_SIZE = 64M
CONTROL_FILES = (%s/data/global/pg_control)
_SYS_PASSWORD = %s
"""
SETTINGS = """
listen_addresses = '127.0.0.1'
port = %(port)d
data_directory = '%(data)s'
hba_file = '%(top)s/cfg/pg_hba.conf'
ident_file = '%(top)s/cfg/pg_ident.conf'
unix_socket_directories = '%(sockets)s'
max_connections = 60
shared_buffers = 64MB
max_wal_size = 2GB
wal_level = replica
logging_collector = off
search_path = '"$user", public, gauss, pg_catalog'
fsync = %(fsync)s
"""
ACCESS = """
local all %s peer
host all all 127.0.0.1/32 scram-sha-256
"""
# the views that the clients ask, and the table in which the database notes its backups
COSTUME = """
create schema gauss;
grant usage on schema gauss to public;
create view gauss.dv_database as
    select 'zengine' as name, 'OPEN' as status, 'READ WRITE' as open_status;
create view gauss.dv_instance as
    select 0 as instance_id, 'zengine' as instance_name, 'OPEN' as status;
create view gauss.dv_data_files as
    select oid as id, 'ONLINE' as status, datname as file_name, pg_database_size(oid) as bytes
    from pg_catalog.pg_database;
create table gauss.sys_backup_sets (recid serial primary key, type text, incremental_level int,
    tag text unique, base_tag text, dir text, start_time timestamptz, completion_time timestamptz,
    about text);
grant select on gauss.dv_database, gauss.dv_instance, gauss.dv_data_files to public;
"""
ROLES = """
create role sys superuser login password '%(password)s';
create role backup superuser login password '%(password)s';
create role reader login password '%(password)s';
""" % dict(password=PASSWORD)
PROFILE = """# environment of the instance
export GSDB_HOME=%(app)s
export GSDB_DATA=%(top)s
export PATH=%(app)s/bin:$PATH
export LD_LIBRARY_PATH=%(app)s/add-ons:%(app)s/lib:$LD_LIBRARY_PATH
umask 077
"""


class Places(object):
    """Where the parts of a user's instance are."""

    def __init__(self, user):
        self.user = user
        self.home = "/home/" + user
        self.app = self.home + "/app"
        self.top = self.home + "/data"
        self.tools = self.app + "/bin"
        self.sockets = self.top + "/protect"
        self.profile = self.home + "/.bashrc"

    def node(self):
        return Node(self)


class Node(object):
    """The instance as the sandbox's command sees a data node."""

    def __init__(self, where):
        self.instance = Instance(where.app, where.top)
        self.port = self.instance.port
        self.datadir = self.instance.data
        self.user = pwd.getpwnam(where.user).pw_uid

    def server_pid(self):
        return self.instance.server_pid(self.user)


def create(options):
    where = Places(options.user)
    make_user(where)
    install(where)
    configure(where, options)
    quiet("chown", "-R", where.user + ":dbgrp", where.home)
    quiet("chmod", "-R", "go-rwx", where.top)
    initialize(where)
    if options.start:
        checked(where, ["zctl.py", "-t", "start"])
    print("instance zengine_%d, user %s" % (options.port, where.user))


def install(where):
    """The installation, the profile, and an empty data directory."""
    scripts = where.app + "/admin/scripts"
    for source, target in (("zengine/bin", where.app + "/bin"),
                           ("zengine/zengine_tools", scripts + "/zengine_tools"),
                           ("tools/roach", scripts + "/roach"), ("tools/gspylib", scripts + "/gspylib")):
        shutil.copytree(os.path.join(HERE, source), target,
                        ignore=shutil.ignore_patterns("__pycache__"))
    for directory in (where.app + "/add-ons", *(
            os.path.join(where.top, name) for name in ("cfg", "data", "protect", "log"))):
        os.makedirs(directory)
    # where the server looks for its modules
    os.symlink(os.path.join(os.path.dirname(POSTGRES), "lib"), where.app + "/lib")
    # a clone has the modes of its maker's umask
    quiet("chmod", "-R", "u=rwX,go=rX", where.app)
    for name, text in (("version", VERSION), ("server", POSTGRES + "/postgres")):
        with open(os.path.join(where.app, name), "w") as out:
            out.write(text + "\n")
    with open(where.profile, "w") as out:
        out.write(PROFILE % vars(where))


def configure(where, options):
    settings = dict(vars(where), port=options.port, data=where.top + "/data",
                    fsync="on" if options.fsync else "off")
    for name, text in (("zengine.ini", ZENGINE_INI % (options.port, where.top, hash_password(PASSWORD))),
                       ("postgresql.conf", SETTINGS % settings), ("pg_hba.conf", ACCESS % where.user),
                       ("pg_ident.conf", "")):
        with open(os.path.join(where.top, "cfg", name), "w") as out:
            out.write(text)


def initialize(where):
    """The database, with its views; PostgreSQL's settings lie with the instance's own."""
    data = where.top + "/data"
    checked(where, [POSTGRES + "/initdb", "--no-sync", "--auth=trust", "--encoding=UTF8", "--locale=C",
                    "-U", where.user, "-D", data], stdout=subprocess.DEVNULL)
    run_alone(where, data, "postgres", COSTUME + ROLES)
    for name in ("postgresql.conf", "pg_hba.conf", "pg_ident.conf"):
        os.unlink(os.path.join(data, name))

