#include "fuzz/job_definition_fuzz.h"
#include "gaussdb/job/gaussdb_restore_job_source_parser.h"

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    Job_Definition_Fuzz<GaussDB_Restore_Job_Source_Parser, GaussDB_Restore_Job_Source, true>::run(
        std::string_view(reinterpret_cast<char const*>(data), size));
    return 0;
}
