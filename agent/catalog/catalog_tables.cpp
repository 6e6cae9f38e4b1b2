#include "agent/catalog/catalog_tables.h"

// The columns are of type ANY: a key holds whatever the executor gave it, and an ordered index
// does for all of it. A query of a job is answered from the index that starts with its resource
// and goes on with what it sorts or chooses by. The timeline's has all that the view
// "depends" gives, so the thousands of log backups of a timeline are listed without their rows.
char const CATALOG_TABLES[] = R"(
CREATE TABLE backup_set(
    id INTEGER PRIMARY KEY,
    uuid TEXT NOT NULL UNIQUE,
    kind TEXT NOT NULL,
    open INTEGER NOT NULL,
    resource_uuid ANY,
    backup_key ANY,
    prior_backup_key ANY,
    incarnation ANY,
    timeline ANY,
    type ANY,
    granularity ANY,
    definition_uuid ANY,
    instance ANY,
    backup_id ANY,
    seq ANY,
    backup_start_time ANY,
    backup_end_time ANY,
    row TEXT NOT NULL
) STRICT;
CREATE INDEX backup_set_open ON backup_set(open) WHERE open = 1;
CREATE INDEX backup_set_start ON backup_set(backup_start_time);
CREATE INDEX backup_set_resource_end ON backup_set(resource_uuid, backup_end_time);
CREATE INDEX backup_set_resource_seq ON backup_set(resource_uuid, seq);
CREATE INDEX backup_set_resource_start ON backup_set(resource_uuid, backup_start_time);
CREATE INDEX backup_set_resource_key ON backup_set(resource_uuid, backup_key);
CREATE INDEX backup_set_resource_incarnation ON backup_set(resource_uuid, incarnation);
CREATE INDEX backup_set_resource_timeline
    ON backup_set(resource_uuid, timeline, kind, open, backup_start_time, backup_id);
CREATE INDEX backup_set_definition ON backup_set(definition_uuid, backup_start_time);
CREATE INDEX backup_set_instance ON backup_set(instance, backup_start_time);

CREATE TABLE backup_storage(
    set_id INTEGER NOT NULL REFERENCES backup_set(id) ON DELETE CASCADE,
    position INTEGER NOT NULL,
    pool_uuid TEXT,
    size INTEGER NOT NULL,
    row TEXT NOT NULL,
    PRIMARY KEY(set_id, position)
) STRICT, WITHOUT ROWID;
CREATE INDEX backup_storage_pool ON backup_storage(pool_uuid, set_id);

CREATE TABLE backup_piece(
    id INTEGER PRIMARY KEY,
    set_id INTEGER NOT NULL REFERENCES backup_set(id) ON DELETE CASCADE,
    path TEXT NOT NULL,
    row TEXT NOT NULL
) STRICT;
CREATE UNIQUE INDEX backup_piece_of_set ON backup_piece(set_id, path);
CREATE INDEX backup_piece_path ON backup_piece(path);

CREATE TABLE restored_resource(
    resource_uuid TEXT PRIMARY KEY,
    at INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
)";
