#include "fuzz/job_definition_fuzz.h"
#include "gaussdb/job/gaussdb_backup_job_options_parser.h"

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    Job_Definition_Fuzz<GaussDB_Backup_Job_Options_Parser, GaussDB_Backup_Job_Options, false>::run(
        std::string_view(reinterpret_cast<char const*>(data), size));
    return 0;
}
