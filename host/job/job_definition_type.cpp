#include "host/job/job_definition_type.h"

#include <iterator>
#include <string_view>

namespace {

constexpr std::string_view NAMES[] = {
    "none",           "full",          "incremental", "cumulative", "differential", "log",
    "synthetic_full", "snapshot",      "copy",        "continuous", "metadata",     "instance",
    "database",       "schema",        "table",       "tablespace", "data_file",    "control_file",
    "parameter_file", "point_in_time", "file",        "volume",     "machine",      "verify",
    "rehearsal",      "mount",         "replication", "switchover", "failover",     "failback",
    "duplicate",      "archive",       "reclaim",     "import",
};
static_assert(std::size(NAMES) == JOB_DEFINITION_SUBTYPE_IMPORT + 1);

} // namespace

char const* job_def_subtype_to_string(Job_Definition_Subtype subtype, int* length) {
    auto const index = static_cast<unsigned int>(subtype);
    std::string_view const name = index < std::size(NAMES) ? NAMES[index] : "";
    if (length)
        *length = static_cast<int>(name.size());
    return name.data();
}
