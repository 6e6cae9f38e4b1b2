#include "gaussdb/job/gaussdb_job_creator.h"

#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_backup_job_executor.h"
#include "gaussdb/job/gaussdb_non_intrusive_backup_executor.h"
#include "gaussdb/job/gaussdb_non_intrusive_restore_executor.h"
#include "gaussdb/job/gaussdb_restore_job_executor.h"
#include "gaussdb/job/gaussdb_t_backup_executor.h"
#include "gaussdb/job/gaussdb_t_restore_executor.h"
#include "gaussdb/job/gaussdb_tpops_backup_executor.h"
#include "gaussdb/job/gaussdb_tpops_restore_executor.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/job_definition_rules.h"
#include "job/controllable_job_t.h"
#include "qmrt/check.h"

#include <cerrno>
#include <new>

namespace {

/** The name of the cluster that a definition is about; "" when it names none. */
std::string instance_of(Job_Definition const& definition) {
    std::string instance;
    Job_Source const* const source = definition.source().get();
    if (definition.type() == JOB_DEFINITION_BACKUP) {
        if (auto const* const backup = dynamic_cast<GaussDB_Backup_Job_Source const*>(source))
            instance = backup->instance_;
    } else if (auto const* const restore =
                   dynamic_cast<GaussDB_Restore_Job_Source const*>(source)) {
        (void)parse_instance_entry(restore->restore_as_,
                                   instance); // what it says of it, it has logged
    }
    return instance;
}

GAUSSDB_VERSION flavour_of(Job_Definition const& definition) {
    GaussDB_Cluster_Handler_var const cluster = find_cluster(instance_of(definition));
    return cluster.null() ? GAUSSDB_UNKNOWN : cluster->get_gaussdb_version().model_;
}

template <typename Made_Job>
Job_var make_job(Job_Definition_var const& definition) {
    Job* const job = new (std::nothrow) Made_Job(definition);
    if (!job)
        errno = ENOMEM;
    return Job_var(job, false); // it has its first reference already
}

} // namespace

std::string GaussDB_Job_Creator::fault_of(Job_Definition const& definition) {
    return fault_of_job_definition(definition, flavour_of(definition));
}

Job_var GaussDB_Job_Creator::create(Job_Definition_var definition) {
    if (QMRT_IS_NULL_AT(LM_ERROR, definition.get()))
        return Job_var();
    bool const is_backup = definition->type() == JOB_DEFINITION_BACKUP;
    if (!is_backup && definition->type() != JOB_DEFINITION_RESTORE)
        return Job_var();
    switch (flavour_of(*definition)) {
    case GAUSSDB_T:
        return is_backup ? make_job<Default_Job_T<GaussDB_T_Backup_Executor>>(definition)
                         : make_job<Default_Job_T<GaussDB_T_Restore_Executor>>(definition);
    case GAUSSDB_DWS:
    case GAUSSDB_FOR_OPENGAUSS:
        return is_backup ? make_job<Controllable_Job_T<GaussDB_Non_Intrusive_Backup_Job_Executor>>(
                               definition)
                         : make_job<Controllable_Job_T<GaussDB_Non_Intrusive_Restore_Job_Executor>>(
                               definition);
    case GAUSSDB_TPOPS:
        return is_backup ? make_job<Controllable_Job_T<GaussDB_TPOPS_Backup_Executor>>(definition)
                         : make_job<Controllable_Job_T<GaussDB_TPOPS_Restore_Executor>>(definition);
    default:
        return is_backup ? make_job<Default_Job_T<GaussDB_Backup_Job_Executor>>(definition)
                         : make_job<Default_Job_T<GaussDB_Restore_Job_Executor>>(definition);
    }
}
