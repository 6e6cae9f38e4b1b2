#include "host/catalog/backup_set.h"

#include "json_spirit/access.h"

json_spirit::Object Backup_Set_Storage::dump() const {
    json_spirit::Object object;
    json_spirit::insert(object)("pool_uuid", pool_uuid)("size", size);
    if (copy)
        json_spirit::insert(object)("copy", true);
    return object;
}

json_spirit::Object Backup_Set::dump() const {
    json_spirit::Array storage_array;
    for (Backup_Set_Storage const& storage : storages)
        storage_array.emplace_back(storage.dump());
    json_spirit::Array piece_array;
    for (Piece const& piece : pieces)
        piece_array.emplace_back(json_spirit::Object{{"path", piece.path}, {"size", piece.size}});

    json_spirit::Object object;
    json_spirit::insert(object)("uuid", uuid)("name", name)("definition_uuid", definition_uuid)(
        "job_act_id", job_act_id)("uid", uid)("host_uuid", host_uuid)("host", host)("resource_uuid",
                                                                                    resource_uuid)(
        "minor_resource_id", minor_resource_id)("resource_label", resource_label)("agent", agent)(
        "type", type)("backup_start_time", backup_start_time)("backup_end_time", backup_end_time)(
        "source_size", source_size)("backup_set_size", backup_set_size)(
        "pool_uuid", storages.empty() ? std::string() : storages.front().pool_uuid)(
        "storages", std::move(storage_array))("pieces", std::move(piece_array));
    return object;
}

Backup_Set_Storage_Selector::Backup_Set_Storage_Selector(json_spirit::Array const& storages,
                                                         MODE mode) {
    std::string first_copy;
    for (json_spirit::Object const& storage : json_spirit::objects_of(storages)) {
        std::string const pool = json_spirit::object_get_str(storage, "pool_uuid");
        bool copy = false;
        json_spirit::object_get(storage, "copy", copy);
        if (pool.empty() || (mode == M_COPY && !copy))
            continue;
        if (mode == M_SOURCE && copy) {
            if (first_copy.empty())
                first_copy = pool;
            continue;
        }
        pool_uuid_ = pool;
        return;
    }
    pool_uuid_ = first_copy;
}
