#include "gaussdb/job/gaussdb_restore_job_options.h"

#include "gaussdb/job/job_definition_writer.h"

int GaussDB_Restore_Job_Options::generate(yajl_gen generator) {
    return write_job_definition(generator, [this](Job_Definition_Writer& out) {
        out.unless_default("channels", channels_);
        out.unless_default("max_memory_usage", max_memory_usage_);
        out.unless_default("buffer_size", buffer_size_);
        out.unless_default("buffer_block_size", buffer_block_size_);
        out.unless_default("mount", mount_);
        out.always("xml_config_path", xml_config_path_);
        out.unless_default("master_timeout", master_timeout_);
        out.unless_default("logging_level", logging_level_);
        out.always("restore_time", restore_time_);
    });
}
