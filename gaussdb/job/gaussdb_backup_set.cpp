#include "gaussdb/job/gaussdb_backup_set.h"

#include "json_spirit/access.h"

json_spirit::Object GaussDB_Backup_Set::dump() const {
    json_spirit::Object object = Backup_Set::dump();
    json_spirit::insert(object)("incarnation", incarnation)("instance", instance)(
        "database_version", database_version)("seq", seq)("meta_destination", meta_destination)(
        "backup_key", backup_key)("prior_backup_key", prior_backup_key)("compression", compression)(
        "nodes", nodes)("nodes_count", nodes)("granularity", granularity)("database", database)(
        "series", static_cast<int>(series));
    if (!tables.empty())
        object["tables"] = tables;
    if (!uri.empty())
        object["uri"] = uri;
    if (series != GAUSSDB_TPOPS)
        return object;
    json_spirit::insert(object)("timeline", timeline)("instance_id", instance_id)("backup_id",
                                                                                  backup_id)(
        "begin_time", static_cast<int64_t>(begin_time))("end_time", static_cast<int64_t>(end_time))(
        "platform_begin_time", json_spirit::Skip_Empty_Helper(platform_begin_time))(
        "platform_end_time", json_spirit::Skip_Empty_Helper(platform_end_time));
    return object;
}
