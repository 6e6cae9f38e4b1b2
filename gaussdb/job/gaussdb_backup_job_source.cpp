#include "gaussdb/job/gaussdb_backup_job_source.h"

#include "gaussdb/job/job_definition_writer.h"
#include "gaussdb/job/job_source_entry.h"

void GaussDB_Backup_Job_Source::add_entry(std::string&& entry) {
    std::vector<std::string> segments = job_source_entry_segments(entry);
    if (segments.size() == SCHEMA_IDX + 1 && segments[TYPE_IDX] == "schema")
        schemas_[segments[DATABASE_IDX]].push_back(std::move(segments[SCHEMA_IDX]));
    if (instance_.empty() && segments.size() > INSTANCE_IDX)
        instance_ = std::move(segments[INSTANCE_IDX]);
    entries_.push_back(std::move(entry));
}

int GaussDB_Backup_Job_Source::generate(yajl_gen generator) {
    return write_job_definition(generator, [this](Job_Definition_Writer& out) {
        out.always("id", id());
        out.unless_default("name", name());
        out.unless_default("entries", entries_);
    });
}
