#ifndef AGENT_JOBS_JOB_TABLES_H
#define AGENT_JOBS_JOB_TABLES_H

/** SQL that makes the tables of definitions, runs and alerts: a part of a migration. */
extern char const JOB_TABLES[];

#endif
