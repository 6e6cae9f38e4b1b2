#include "gaussdb/job/job_definition_rules.h"

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "gaussdb/job/job_source_entry.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <vector>

namespace {

enum Flavours : unsigned {
    F_200 = 1,
    F_100 = 2,
    F_T = 4,
    F_DWS = 8,
    F_OPENGAUSS = 16,
    F_TPOPS = 32,
    F_ALL = 63,
    F_ROACH_TUNING = F_200 | F_DWS | F_OPENGAUSS,
    F_REMOTE = F_DWS | F_OPENGAUSS
};

struct Flavour {
    unsigned bit;
    char const* name;
};

/** Bit 0 for one that is not known. */
Flavour flavour_row(GAUSSDB_VERSION flavour) {
    switch (flavour) {
    case GAUSSDB_200:
        return {F_200, "GaussDB 200"};
    case GAUSSDB_100:
        return {F_100, "GaussDB 100"};
    case GAUSSDB_T:
        return {F_T, "GaussDB T"};
    case GAUSSDB_DWS:
        return {F_DWS, "GaussDB DWS"};
    case GAUSSDB_FOR_OPENGAUSS:
        return {F_OPENGAUSS, "GaussDB for openGauss"};
    case GAUSSDB_TPOPS:
        return {F_TPOPS, "GaussDB of TPOPS"};
    default:
        return {0, ""};
    }
}

/** An option as it was given. */
struct Given_Option {
    char const* name;
    unsigned flavours;
    bool is_given;
    int64_t value; ///< of a number that must not be negative; else 0
};

/** A number that is not given is 0. */
Given_Option number_option(char const* name, unsigned flavours, int value) {
    return {name, flavours, value != 0, value};
}

std::vector<Given_Option> given_options(GaussDB_Backup_Job_Options const& options) {
    GaussDB_Backup_Job_Options const none;
    return {
        number_option("compression_level", F_ALL, options.compression_level_),
        number_option("channels", F_ALL, options.channels_),
        number_option("max_memory_usage", F_ROACH_TUNING, options.max_memory_usage_),
        number_option("buffer_size", F_ROACH_TUNING, options.buffer_size_),
        number_option("buffer_block_size", F_ROACH_TUNING, options.buffer_block_size_),
        number_option("roach_compression_type", F_DWS, options.roach_compression_type_),
        number_option("roach_compression_level", F_DWS, options.roach_compression_level_),
        number_option("cpu_cores", F_DWS, options.cpu_cores_),
        number_option("master_timeout", F_DWS, static_cast<int>(options.master_timeout_)),
        {"filesplit_size", F_DWS, options.filesplit_size_ != none.filesplit_size_, 0},
        {"cbm_recycle_level", F_DWS, options.cbm_recycle_level_ != none.cbm_recycle_level_, 0},
        {"mount", F_T, options.mount_, 0},
        {"clean_meta", F_DWS, options.clean_meta_, 0},
        {"cache_dir", F_T, !options.cache_dir_.empty(), 0},
        {"logging_level", F_DWS, !options.logging_level_.empty(), 0},
    };
}

std::vector<Given_Option> given_options(GaussDB_Restore_Job_Options const& options) {
    return {
        number_option("channels", F_ALL, options.channels_),
        number_option("max_memory_usage", F_ROACH_TUNING, options.max_memory_usage_),
        number_option("buffer_size", F_ROACH_TUNING, options.buffer_size_),
        number_option("buffer_block_size", F_ROACH_TUNING, options.buffer_block_size_),
        number_option("master_timeout", F_REMOTE, static_cast<int>(options.master_timeout_)),
        {"mount", F_T, options.mount_, 0},
        {"xml_config_path", F_REMOTE, !options.xml_config_path_.empty(), 0},
        {"logging_level", F_REMOTE, !options.logging_level_.empty(), 0},
        {"restore_time", F_TPOPS, !options.restore_time_.empty(), 0},
    };
}

std::string fault_of_options(std::vector<Given_Option> const& options, Flavour const& flavour) {
    for (Given_Option const& option : options) {
        if (option.is_given && flavour.bit && !(option.flavours & flavour.bit))
            return string_sprintf("options: \"%s\" is not an option of %s", option.name,
                                  flavour.name);
        if (option.value < 0)
            return string_sprintf("options: \"%s\" is %lld, but must not be negative", option.name,
                                  static_cast<long long>(option.value));
    }
    return "";
}

std::string fault_of_compression(GaussDB_Backup_Job_Options const& options) {
    int most = 0;
    if (options.compression_ == COMPR_ZSTD)
        most = 22;
    else if (options.compression_ == COMPR_LZOP)
        most = 9;
    if (options.compression_level_ <= most)
        return "";
    char const* const method = compression_value_to_name(options.compression_);
    return string_sprintf("options: \"compression_level\" is %d, but %s has the levels 0 to %d",
                          options.compression_level_, method ? method : "no compression", most);
}

/** GaussDB T writes its backups there, and the statement names it between quotes. */
std::string fault_of_cache_dir(GaussDB_Backup_Job_Options const& options, Flavour const& flavour) {
    if (flavour.bit != F_T)
        return "";
    if (options.cache_dir_.empty())
        return std::string("options: \"cache_dir\" is absent, but ") + flavour.name + " needs it";
    std::string const fault = names::fault_of_bare_path(options.cache_dir_);
    return fault.empty() ? "" : "options: \"cache_dir\" " + fault;
}

/** An entry is a whole instance, or a part of the shape that @a is_part says. */
template <typename Is_Part>
std::string fault_of_entries(std::vector<std::string> const& entries, std::string const& instance,
                             unsigned part_flavours, Flavour const& flavour, Is_Part is_part) {
    for (std::string const& entry : entries) {
        std::vector<std::string> const segments = job_source_entry_segments(entry);
        std::string const shown = names::shown(entry);
        bool const whole = segments.size() == 2;
        if (!whole && !is_part(segments))
            return "source: the entry \"" + shown +
                   "\" names neither an instance nor a part of one";
        if (!instance.empty() && segments[1] != instance)
            return "source: the entry \"" + shown + "\" is of another instance than \"" +
                   names::shown(instance) + "\"";
        if (!whole && flavour.bit && !(part_flavours & flavour.bit))
            return "source: the entry \"" + shown + "\" is a part of an instance, but " +
                   flavour.name + " has only whole ones";
    }
    return "";
}

std::string first_of(std::initializer_list<std::string> faults) {
    for (std::string const& fault : faults)
        if (!fault.empty())
            return fault;
    return "";
}

std::string fault_of_backup(GaussDB_Backup_Job_Options const* options,
                            GaussDB_Backup_Job_Source const* source, Flavour const& flavour) {
    auto const is_schema = [](std::vector<std::string> const& segments) {
        return segments.size() == 5 && segments[GaussDB_Backup_Job_Source::TYPE_IDX] == "schema";
    };
    return first_of(
        {options ? fault_of_options(given_options(*options), flavour) : "",
         options ? fault_of_compression(*options) : "",
         options ? fault_of_cache_dir(*options, flavour) : "",
         source ? fault_of_entries(source->entries_, source->instance_, F_DWS, flavour, is_schema)
                : ""});
}

/** The executor sends this time to the platform. */
std::string fault_of_restore_time(GaussDB_Restore_Job_Options const& options) {
    time_t when = 0;
    if (options.restore_time_.empty() || iso8601_to_posix_time(options.restore_time_, when))
        return "";
    return "options: \"restore_time\" is \"" + names::shown(options.restore_time_) +
           "\", not a time such as \"2026-11-21T10:00:00+08:00\"";
}

/** A level that a flavour does not have would become another one, or nothing. */
struct Level_Rule {
    unsigned flavours;
    std::vector<Job_Definition_Subtype> levels;
    char const* expected;
};

std::string fault_of_level(Job_Definition_Subtype level, Flavour const& flavour) {
    static Level_Rule const rules[] = {
        {F_TPOPS,
         {JOB_DEFINITION_SUBTYPE_FULL, JOB_DEFINITION_SUBTYPE_INCREMENTAL,
          JOB_DEFINITION_SUBTYPE_LOG},
         "full, incremental or log"},
        {F_ALL & ~F_TPOPS,
         {JOB_DEFINITION_SUBTYPE_FULL, JOB_DEFINITION_SUBTYPE_INCREMENTAL,
          JOB_DEFINITION_SUBTYPE_CUMULATIVE},
         "full, incremental or cumulative"}};
    for (Level_Rule const& rule : rules)
        if (rule.flavours & flavour.bit && std::ranges::count(rule.levels, level) == 0)
            return string_sprintf("level \"%s\" is not one of %s (expected %s)",
                                  job_def_subtype_to_string(level, nullptr), flavour.name,
                                  rule.expected);
    return "";
}

std::string fault_of_restore(GaussDB_Restore_Job_Options const* options,
                             GaussDB_Restore_Job_Source const* source, Flavour const& flavour) {
    auto const is_table = [](std::vector<std::string> const& segments) {
        return segments.size() == 8 && segments[GaussDB_Restore_Job_Source::TYPE_OFF] == "table";
    };
    return first_of(
        {options ? fault_of_options(given_options(*options), flavour) : "",
         options ? fault_of_restore_time(*options) : "",
         source ? fault_of_entries(source->entries_, "", F_REMOTE, flavour, is_table) : ""});
}

} // namespace

std::string fault_of_job_definition(Job_Definition const& definition, GAUSSDB_VERSION flavour) {
    Flavour const row = flavour_row(flavour);
    Job_Options const* const options = definition.options().get();
    Job_Source const* const source = definition.source().get();
    if (definition.type() == JOB_DEFINITION_BACKUP) {
        std::string const fault = fault_of_level(definition.subtype(), row);
        if (!fault.empty())
            return fault;
        return fault_of_backup(dynamic_cast<GaussDB_Backup_Job_Options const*>(options),
                               dynamic_cast<GaussDB_Backup_Job_Source const*>(source), row);
    }
    return fault_of_restore(dynamic_cast<GaussDB_Restore_Job_Options const*>(options),
                            dynamic_cast<GaussDB_Restore_Job_Source const*>(source), row);
}

std::vector<std::string> job_options_of(Job_Definition_Type type, GAUSSDB_VERSION flavour) {
    bool const is_backup = type == JOB_DEFINITION_BACKUP;
    std::vector<std::string> options;
    if (is_backup)
        options.emplace_back("compression");
    for (Given_Option const& option : is_backup ? given_options(GaussDB_Backup_Job_Options())
                                                : given_options(GaussDB_Restore_Job_Options()))
        if (option.flavours & flavour_row(flavour).bit)
            options.emplace_back(option.name);
    return options;
}

std::vector<std::string> backup_levels_of(GAUSSDB_VERSION flavour) {
    switch (flavour) {
    case GAUSSDB_100:
    case GAUSSDB_200:
        return {"full", "incremental"};
    case GAUSSDB_T:
    case GAUSSDB_DWS:
    case GAUSSDB_FOR_OPENGAUSS:
        return {"full", "incremental", "cumulative"};
    case GAUSSDB_TPOPS:
        return {"full", "incremental", "log"};
    default:
        return {};
    }
}

char const* flavour_title(GAUSSDB_VERSION flavour) {
    return flavour_row(flavour).name;
}
