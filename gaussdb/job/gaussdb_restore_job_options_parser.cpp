#include "gaussdb/job/gaussdb_restore_job_options_parser.h"

Job_Definition_Key const GaussDB_Restore_Job_Options_Parser::key_table_1[] = {
    {"channels", 8, CHANNELS_BIT},
    {"max_memory_usage", 16, MAX_MEMORY_USAGE_BIT},
    {"buffer_size", 11, BUFFER_SIZE_BIT},
    {"buffer_block_size", 17, BUFFER_BLOCK_SIZE_BIT},
    {"mount", 5, MOUNT_BIT},
    {"xml_config_path", 15, XML_CONFIG_PATH_BIT},
    {"master_timeout", 14, MASTER_TIMEOUT_BIT},
    {"logging_level", 13, LOGGING_LEVEL_BIT},
    {"restore_time", 12, RESTORE_TIME_BIT},
    {nullptr, 0, 0},
};

bool GaussDB_Restore_Job_Options_Parser::handle_string_i(char const* text, size_t length) {
    if (!can_take_value())
        return false;
    JSON_State& state = states_.back();
    bool stored = true;
    switch (state.key) {
    case 0:
        return true;
    case XML_CONFIG_PATH_BIT:
        stored = store(object()->xml_config_path_, text, length);
        break;
    case LOGGING_LEVEL_BIT:
        stored = store(object()->logging_level_, text, length);
        break;
    case RESTORE_TIME_BIT:
        stored = store(object()->restore_time_, text, length);
        break;
    default:
        return wrong_type("a string");
    }
    return stored && seen(state);
}

bool GaussDB_Restore_Job_Options_Parser::handle_number_i(char const* text, size_t length) {
    if (!can_take_value())
        return false;
    JSON_State& state = states_.back();
    if (state.key == 0)
        return true;
    int const value = whole_number<int>(text, length);
    switch (state.key) {
    case CHANNELS_BIT:
        object()->channels_ = value;
        break;
    case MAX_MEMORY_USAGE_BIT:
        object()->max_memory_usage_ = value;
        break;
    case BUFFER_SIZE_BIT:
        object()->buffer_size_ = value;
        break;
    case BUFFER_BLOCK_SIZE_BIT:
        object()->buffer_block_size_ = value;
        break;
    case MASTER_TIMEOUT_BIT:
        object()->master_timeout_ = static_cast<unsigned int>(value);
        break;
    default:
        return wrong_type("a number");
    }
    return seen(state);
}

bool GaussDB_Restore_Job_Options_Parser::handle_boolean_i(bool value) {
    if (!can_take_value())
        return false;
    JSON_State& state = states_.back();
    if (state.key == MOUNT_BIT)
        object()->mount_ = value;
    else if (state.key != 0)
        unwanted("boolean");
    return seen(state);
}
