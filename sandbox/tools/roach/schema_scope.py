"""A backup of some schemas of one database: which files of a data directory do not belong to it."""
import re

from roach.postgres import Session, literal, no_database, no_schema

RELATION = re.compile(r"(base/(\d+)/\d+|pg_tblspc/\d+/[^/]+/(\d+)/\d+)(_fsm|_vm|_init)?(?:\.\d+)?$")
OTHERS = """with wanted as (select c.oid, c.reltoastrelid from pg_class c
        join pg_namespace n on n.oid = c.relnamespace where n.nspname in (%s)),
    kept as (select oid from wanted union all select reltoastrelid from wanted),
    indexed as (select oid from kept union all
        select indexrelid from pg_index join kept on kept.oid = indrelid)
    select pg_relation_filepath(oid) from pg_class
        where oid >= 16384 and pg_relation_filepath(oid) is not null
            and oid not in (select oid from indexed)"""


def paths_outside(instance, scope):
    """A function that tells of a path whether it holds rows of something else. What all databases have
    in common, and the database's own catalog, belong to every backup."""
    session = Session(instance)
    try:
        rows = session.run("select oid from pg_database where datname = %s" % literal(scope["database"]))
    finally:
        session.close()
    if not rows:
        raise no_database(scope["database"], instance)
    session = Session(instance, scope["database"])
    try:
        names = ", ".join(map(literal, scope["schemas"]))
        there = {row[0] for row in session.run(
            "select nspname from pg_namespace where nspname in (%s)" % names)}
        others = {row[0] for row in session.run(OTHERS % names)}
    finally:
        session.close()
    missing = [name for name in scope["schemas"] if name not in there]
    if missing:
        raise no_schema(missing[0], scope["database"], instance)
    own = rows[0][0]

    def outside(path):
        found = RELATION.match(path)
        return bool(found) and ((found.group(2) or found.group(3)) != own or found.group(1) in others)
    return outside
