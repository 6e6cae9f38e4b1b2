#include "agent/service/pool_status.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/agent_storage_backend.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/sqlite_pools.h"

using json_spirit::Array;
using json_spirit::Object;

namespace {

std::string compression_text(Compression_Method method) {
    char const* const name = compression_value_to_name(method);
    return name ? name : "none";
}

Object settings_of(Pool_Record const& record) {
    return {{"uuid", record.uuid},
            {"name", record.name},
            {"url", url_of_pool_path(record.path)},
            {"compression", compression_text(record.compression)},
            {"compression_level", record.compression_level},
            {"read_only", record.read_only},
            {"device_uuids", Array()}};
}

} // namespace

Object Pool_Status::describe(Pool_Record const& record) {
    Pool_Space const found = storage_.space(record);
    Object object = settings_of(record);
    object["limit"] = record.limit;
    object["online"] = found.online;
    object["total"] = found.total;
    object["available"] = found.available;
    object["used"] = found.used;
    Array resources;
    std::vector<Resource_Usage> usage;
    if (catalog_.pool_usage(record.uuid, usage))
        for (Resource_Usage const& resource : usage)
            resources.emplace_back(Object{{"resource_uuid", resource.resource_uuid},
                                          {"size", resource.size},
                                          {"sets", resource.sets}});
    object["resources"] = std::move(resources);
    return object;
}

Object Pool_Status::for_data_path(Pool_Record const& record) {
    Object object = settings_of(record);
    if (record.limit > 0)
        object["available"] = storage_.left_by_limit(record);
    return object;
}
