#include "gaussdb/job/gaussdb_restore_job_source.h"

#include "gaussdb/job/job_definition_writer.h"
#include "gaussdb/job/job_source_entry.h"

void GaussDB_Restore_Job_Source::add_entry(std::string&& entry) {
    std::vector<std::string> segments = job_source_entry_segments(entry);
    if (segments.size() == TARGET_TABLE_OFF + 1 && segments[TYPE_OFF] == "table")
        tables_[segments[DATABASE_OFF]].push_front(
            {std::move(segments[SOURCE_SCHEMA_OFF]), std::move(segments[SOURCE_TABLE_OFF]),
             std::move(segments[TARGET_SCHEMA_OFF]), std::move(segments[TARGET_TABLE_OFF])});
    entries_.push_back(std::move(entry));
}

int GaussDB_Restore_Job_Source::generate(yajl_gen generator) {
    return write_job_definition(generator, [this](Job_Definition_Writer& out) {
        out.always("id", id());
        out.unless_default("name", name());
        out.unless_default("catalog_id", catalog_uuid_);
        out.unless_default("backup_key", backup_key_);
        out.unless_default("original", original_);
        out.unless_default("restore_as", restore_as_);
        out.unless_default("entries", entries_);
    });
}
