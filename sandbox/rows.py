"""Statements that fill, change and count the rows of the sandbox's databases."""
FILL = """
create table if not exists item (id bigint primary key, owner int, note text, filling text);
create table if not exists event (id bigserial primary key, at timestamptz default now(), what text);
create index if not exists item_owner on item (owner);
insert into item select n, n %% 997, md5(n::text), {filling}
    from generate_series((select coalesce(max(id), 0) from item) + 1,
                         (select coalesce(max(id), 0) from item) + %d) n;
insert into event (what) select 'filled ' || n from generate_series(1, 1000) n;
checkpoint;
""".replace("{filling}", " || ".join(
    "encode(sha512(('%d ' || n)::bytea), 'hex')" % part for part in range(6)))
# rows are changed in runs of neighbours, so that the part of the pages is the part of the rows
CHANGE = """
update item set note = 'changed ' || md5(random()::text) where (id / 200) %% 100 < %d;
delete from item where id %% 5003 = 1;
insert into event (what) select 'changed ' || n from generate_series(1, 500) n;
create table if not exists late_%d as select n as id, md5(n::text) as text from generate_series(1, 5000) n;
"""
TABLES = """select quote_ident(schemaname) || '.' || quote_ident(tablename) from pg_tables
    where schemaname not in ('pg_catalog', 'information_schema', 'gauss') order by 1"""
CHECKSUM = """select %d, current_database(), '%s', count(*),
    coalesce(sum(('x' || substr(md5(t::text), 1, 15))::bit(60)::bigint), 0) from %s t;"""


def count(number, run):
    """A line "number database schema.table rows checksum" for each table.

    @param number  of the server
    @param run     runs statements in a database of it; what it returns has a row a line
    """
    lines = []
    for database in run("select datname from pg_database where datallowconn "
                        "and datname not in ('template1') order by 1", "postgres").split():
        tables = run(TABLES, database).splitlines()
        questions = "".join(CHECKSUM % (number, table.replace("'", "''"), table) for table in tables)
        lines += [line.replace("|", " ") for line in run(questions, database).splitlines()] if tables else []
    return lines
