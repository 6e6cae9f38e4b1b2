#ifndef GAUSSDB_JOB_JOB_SOURCE_ENTRY_H
#define GAUSSDB_JOB_JOB_SOURCE_ENTRY_H

#include <string>
#include <string_view>
#include <vector>

/**
 * The segments of a source's entry: "gaussdb/<instance>" for a whole instance, with a type and
 * names behind it for a part of one. A name is percent-encoded (RFC 3986), so "%2F" in it is a "/"
 * of the name; here it comes decoded. Empty when the entry has no segment. Logs nothing.
 */
std::vector<std::string> job_source_entry_segments(std::string const& entry);

/** Why a text may not be an entry: it, or a decoded segment, is not one line. "" for one that may.
 */
std::string fault_of_job_source_entry(std::string_view entry);

#endif
