#ifndef GAUSSDB_JOB_JOB_DEFINITION_RULES_H
#define GAUSSDB_JOB_JOB_DEFINITION_RULES_H

#include "gaussdb/common/gaussdb_const.h"
#include "host/job/job_definition.h"

#include <string>
#include <vector>

/**
 * What the options and the source of a job may say. The executors take no notice of an option of
 * another flavour, so a definition with one is refused before anything starts. An option with its
 * default value counts as not given.
 *
 * @param flavour  of the cluster; GAUSSDB_UNKNOWN when it is not known yet: what depends on the
 *                 flavour is accepted then
 * @return the fault, which names the word, such as 'options: "restore_time" is not an option of
 *         GaussDB 200'; "" for none. Logs nothing. Thread-safe.
 */
std::string fault_of_job_definition(Job_Definition const& definition, GAUSSDB_VERSION flavour);

/** The options that a definition of the flavour may have. Thread-safe. */
std::vector<std::string> job_options_of(Job_Definition_Type type, GAUSSDB_VERSION flavour);
/** The levels that a backup of the flavour may have, "full" first. Thread-safe. */
std::vector<std::string> backup_levels_of(GAUSSDB_VERSION flavour);
/** What people call a flavour, "GaussDB DWS"; "" for an unknown one. Thread-safe. */
char const* flavour_title(GAUSSDB_VERSION flavour);

#endif
