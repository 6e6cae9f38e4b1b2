#include "gaussdb/job/gaussdb_backup_job_options_parser.h"

Job_Definition_Key const GaussDB_Backup_Job_Options_Parser::key_table_1[] = {
    {"compression", 11, COMPRESSION_BIT},
    {"channels", 8, CHANNELS_BIT},
    {"max_memory_usage", 16, MAX_MEMORY_USAGE_BIT},
    {"buffer_size", 11, BUFFER_SIZE_BIT},
    {"buffer_block_size", 17, BUFFER_BLOCK_SIZE_BIT},
    {"compression_level", 17, COMPRESSION_LEVEL_BIT},
    {"mount", 5, MOUNT_BIT},
    {"cache_dir", 9, CACHE_DIR_BIT},
    {"clean_meta", 10, CLEAN_META_BIT},
    {"filesplit_size", 14, FILESPLIT_SIZE_BIT},
    {"roach_compression_type", 22, ROACH_COMPRESSION_TYPE_BIT},
    {"roach_compression_level", 23, ROACH_COMPRESSION_LEVEL_BIT},
    {"cpu_cores", 9, CPU_CORES_BIT},
    {"master_timeout", 14, MASTER_TIMEOUT_BIT},
    {"cbm_recycle_level", 17, CBM_RECYCLE_LEVEL_BIT},
    {"logging_level", 13, LOGGING_LEVEL_BIT},
    {nullptr, 0, 0},
};

bool GaussDB_Backup_Job_Options_Parser::handle_string_i(char const* text, size_t length) {
    if (states_.size() != 1)
        return misplaced_string();
    GaussDB_Backup_Job_Options* const options = object();
    if (!options)
        return false;
    JSON_State& state = states_.back();
    if (!state.obj || state.key == 0)
        return true;
    bool stored = true;
    switch (state.key) {
    case COMPRESSION_BIT:
        options->compression_ = compression_name_to_value(text, static_cast<ssize_t>(length));
        if (std::string_view const name(text, length);
            options->compression_ == COMPR_NONE && !name.empty() && name != "none")
            ignore("unknown compression \"" + names::shown(std::string(name)) +
                   "\" (expected none, zstd, lzop or auto)");
        break;
    case CACHE_DIR_BIT:
        stored = store(options->cache_dir_, text, length);
        break;
    case LOGGING_LEVEL_BIT:
        stored = store(options->logging_level_, text, length);
        break;
    default:
        return wrong_type("a string");
    }
    return stored && seen(state);
}

bool GaussDB_Backup_Job_Options_Parser::handle_number_i(char const* text, size_t length) {
    GaussDB_Backup_Job_Options* const options = object();
    if (!options)
        return false;
    if (states_.empty())
        return no_level();
    JSON_State& state = states_.back();
    if (!state.obj || state.key == 0)
        return true;
    int const value = state.key == FILESPLIT_SIZE_BIT ? 0 : whole_number<int>(text, length);
    switch (state.key) {
    case CHANNELS_BIT:
        options->channels_ = value;
        break;
    case MAX_MEMORY_USAGE_BIT:
        options->max_memory_usage_ = value;
        break;
    case BUFFER_SIZE_BIT:
        options->buffer_size_ = value;
        break;
    case BUFFER_BLOCK_SIZE_BIT:
        options->buffer_block_size_ = value;
        break;
    case COMPRESSION_LEVEL_BIT:
        options->compression_level_ = value;
        break;
    case ROACH_COMPRESSION_TYPE_BIT:
        options->roach_compression_type_ = value;
        break;
    case ROACH_COMPRESSION_LEVEL_BIT:
        options->roach_compression_level_ = value;
        break;
    case CPU_CORES_BIT:
        options->cpu_cores_ = value;
        break;
    case CBM_RECYCLE_LEVEL_BIT:
        options->cbm_recycle_level_ = value;
        break;
    case MASTER_TIMEOUT_BIT:
        options->master_timeout_ = static_cast<unsigned int>(value);
        break;
    case FILESPLIT_SIZE_BIT:
        options->filesplit_size_ = whole_number<unsigned long>(text, length);
        break;
    default:
        return wrong_type("a number");
    }
    return seen(state);
}

bool GaussDB_Backup_Job_Options_Parser::handle_boolean_i(bool value) {
    GaussDB_Backup_Job_Options* const options = object();
    if (!options)
        return false;
    if (states_.empty())
        return no_level();
    JSON_State& state = states_.back();
    if (state.key == MOUNT_BIT)
        options->mount_ = value;
    else if (state.key == CLEAN_META_BIT)
        options->clean_meta_ = value;
    else if (state.key != 0)
        unwanted("boolean");
    return seen(state);
}
