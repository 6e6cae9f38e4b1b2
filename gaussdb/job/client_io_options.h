#ifndef GAUSSDB_JOB_CLIENT_IO_OPTIONS_H
#define GAUSSDB_JOB_CLIENT_IO_OPTIONS_H

#include "host/storage/client_io.h"

class Job_Definition;

/** What the executors tell every client of a pool. Nothing is logged; any thread. */

/** How long a job tries again, what it may buffer, and its rate limits, shared by @a channels. */
void set_options_by_job_def(Client_IO_Base::Options& opts, Job_Definition const& def,
                            unsigned long channels);

/** This host's key towards the storage: the node's own when this host is the backup server. */
void set_options_by_host(Client_IO_Base::Options& opts);

#endif
