#ifndef GAUSSDB_COMMON_TPOPS_RECORD_H
#define GAUSSDB_COMMON_TPOPS_RECORD_H

#include "json_spirit/value.h"

#include <string>

/**
 * Checks the record of an instance of a TPOPS platform, or a part of it: hosts and ids go into
 * requests, the other texts into lists and messages. Missing keys and empty texts are valid.
 * Thread-safe.
 * @return "" if the record is valid, else the key and the reason: "id 'a/b' has a ..."
 */
std::string fault_of_tpops_record(json_spirit::Object const& record);

#endif
