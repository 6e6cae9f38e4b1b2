#ifndef GAUSSDB_JOB_GAUSSDB_JOB_CREATOR_H
#define GAUSSDB_JOB_GAUSSDB_JOB_CREATOR_H

#include "host/job/job_creator.h"

/**
 * Makes the job that fits the flavour of the cluster which a definition is about: the one that a
 * backup's source names, the one that a restore goes to. It keeps nothing, so any thread may use
 * it.
 */
class GaussDB_Job_Creator : public Job_Creator {
public:
    /**
     * A definition of a cluster that is not known here gets a job of the cluster flavours, which is
     * not active then.
     * @return null, with nothing logged and errno left alone, for a definition that is neither a
     *         backup nor a restore; null with ENOMEM if memory is exhausted
     */
    Job_var create(Job_Definition_var definition) override;
    /** As fault_of_job_definition() has it, for the flavour of the definition's cluster. */
    std::string fault_of(Job_Definition const& definition) override;
};

#endif
