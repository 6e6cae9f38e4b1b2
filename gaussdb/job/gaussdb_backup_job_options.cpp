#include "gaussdb/job/gaussdb_backup_job_options.h"

#include "gaussdb/job/job_definition_writer.h"

int GaussDB_Backup_Job_Options::generate(yajl_gen generator) {
    return write_job_definition(generator, [this](Job_Definition_Writer& out) {
        char const* const method = compression_value_to_name(compression_);
        out.unless_default("compression", std::string(method ? method : ""));
        out.always("compression_level", compression_level_);
        out.unless_default("mount", mount_);
        out.unless_default("clean_meta", clean_meta_);
        out.unless_default("channels", channels_);
        out.unless_default("max_memory_usage", max_memory_usage_);
        out.unless_default("buffer_size", buffer_size_);
        out.unless_default("buffer_block_size", buffer_block_size_);
        out.unless_default("filesplit_size", filesplit_size_);
        out.unless_default("roach_compression_type", roach_compression_type_);
        out.unless_default("roach_compression_level", roach_compression_level_);
        out.unless_default("cpu_cores", cpu_cores_);
        out.unless_default("cache_dir", cache_dir_);
        out.unless_default("master_timeout", master_timeout_);
        out.unless_default("cbm_recycle_level", cbm_recycle_level_);
        out.unless_default("logging_level", logging_level_);
    });
}
