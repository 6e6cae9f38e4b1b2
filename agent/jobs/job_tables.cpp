#include "agent/jobs/job_tables.h"

// A run outlives its definition: what was done stays on record. Times are seconds since the epoch,
// 0 for none; sizes are bytes; a state is a Job_State.
char const JOB_TABLES[] = R"sql(
CREATE TABLE job_definitions(
    id TEXT PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    enabled INTEGER NOT NULL,
    instance TEXT NOT NULL,
    body TEXT NOT NULL,       -- the definition as JSON
    planned INTEGER NOT NULL  -- what was due up to then has been dealt with
) STRICT;

CREATE TABLE job_runs(
    number INTEGER PRIMARY KEY AUTOINCREMENT,
    run_id TEXT NOT NULL UNIQUE,
    definition TEXT NOT NULL,
    name TEXT NOT NULL,
    type TEXT NOT NULL,
    subtype TEXT NOT NULL,
    instance TEXT NOT NULL,
    state INTEGER NOT NULL,
    code INTEGER NOT NULL DEFAULT 0,
    message TEXT NOT NULL DEFAULT '',
    percent INTEGER NOT NULL DEFAULT 0,
    processed_size INTEGER NOT NULL DEFAULT 0,
    total_size INTEGER NOT NULL DEFAULT 0,
    speed INTEGER NOT NULL DEFAULT 0,
    set_size INTEGER NOT NULL DEFAULT 0,
    start_time INTEGER NOT NULL,
    end_time INTEGER NOT NULL DEFAULT 0
) STRICT;
CREATE INDEX job_runs_by_definition ON job_runs(definition, number);
CREATE INDEX job_runs_by_instance ON job_runs(instance, number);
CREATE INDEX job_runs_by_state ON job_runs(state, number);

CREATE TABLE job_alerts(
    number INTEGER PRIMARY KEY AUTOINCREMENT,
    run_id TEXT NOT NULL REFERENCES job_runs(run_id) ON DELETE CASCADE,
    level INTEGER NOT NULL,
    code INTEGER NOT NULL,
    detail_code INTEGER NOT NULL,
    detail TEXT NOT NULL,     -- JSON
    count INTEGER NOT NULL,
    text TEXT NOT NULL,
    time INTEGER NOT NULL
) STRICT;
CREATE INDEX job_alerts_by_run ON job_alerts(run_id, number);
)sql";
