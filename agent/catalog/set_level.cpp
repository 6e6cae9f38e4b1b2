#include "agent/catalog/set_level.h"

#include "json_spirit/access.h"

#include <string>

void add_level(json_spirit::Object& row) {
    constexpr int64_t SERIES_T = 3;
    constexpr int64_t SERIES_TPOPS = 6;
    std::string const type = json_spirit::object_get_str(row, "type");
    int64_t series = 0;
    json_spirit::object_get(row, "series", series);
    bool const has_chain = series != SERIES_T && series != SERIES_TPOPS;
    bool const became_full = has_chain && (type == "incremental" || type == "cumulative") &&
                             json_spirit::object_get_str(row, "prior_backup_key").empty();
    row["level"] = became_full ? "full" : type;
    row["level_reason"] = became_full ? "no earlier backup was found to build on" : "";
}
