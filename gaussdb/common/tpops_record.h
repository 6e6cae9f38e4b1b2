#ifndef GAUSSDB_COMMON_TPOPS_RECORD_H
#define GAUSSDB_COMMON_TPOPS_RECORD_H

#include "json_spirit/value.h"

#include <string>

/**
 * What is wrong with the record of an instance of a TPOPS platform, or with a part of it: hosts and
 * ids go into requests, the other texts into lists and messages. Keys that are absent, and texts
 * that are empty, are left alone. Thread-safe.
 * @return "" when nothing is, else the key and the reason: "id 'a/b' has a ..."
 */
std::string fault_of_tpops_record(json_spirit::Object const& record);

#endif
