#ifndef GAUSSDB_COMMON_GAUSSDB_NON_INTRUSIVE_RECORD_H
#define GAUSSDB_COMMON_GAUSSDB_NON_INTRUSIVE_RECORD_H

#include "json_spirit/value.h"

#include <string>

/**
 * Why the record of a cluster that is reached by ssh may not be used; "" for one that may. Looks at
 * these keys as far as the record has them, since they become parts of command lines here and on
 * the cluster's machines:
 *
 *   "address"          names::fault_of_ssh_address()
 *   "meta_path"        names::fault_of_bare_path()
 *   "source_commands"  names::fault_of_remote_commands()
 *   "ssh_options"      names::fault_of_ssh_options()
 *   "backup_port"      a number from 0 to 65535
 *
 * Thread-safe; logs nothing.
 */
std::string fault_of_non_intrusive_record(json_spirit::Object const& record);

#endif
