#include "agent/storage/agent_storage_backend.h"

#include "agent/storage/pool_connection.h"
#include "agent/storage/pool_path.h"

#include <algorithm>

Storage_Result Agent_Storage_Backend::connect(std::string const& url, Storage_Access const& access,
                                              std::shared_ptr<Storage_Connection>& connection) {
    std::shared_ptr<Storage_Connection> files;
    Storage_Result result = files_->connect(url, access, files);
    if (!result)
        return result;
    std::string path, folder, error;
    if (!pool_path_of_url(url, path, error))
        return {Storage_Result::BAD_NAME, "invalid URL: " + error};
    std::vector<Pool_Record> pools;
    result = pools_.list(pools);
    if (!result)
        return result;
    for (Pool_Record const& pool : pools) { // none is within another
        if (!path_within(pool.path, path, folder))
            continue;
        connection = std::make_shared<Pool_Connection>(std::move(files), use(pool), folder);
        return {};
    }
    connection = std::move(files);
    return {};
}

std::shared_ptr<Pool_Meter> Agent_Storage_Backend::meter(std::string const& path) {
    std::lock_guard const guard(mutex_);
    auto& meter = meters_[path];
    if (!meter)
        meter = std::make_shared<Pool_Meter>(path, clock_);
    return meter;
}

std::shared_ptr<Pool_Use const> Agent_Storage_Backend::use(Pool_Record const& pool) {
    return std::make_shared<Pool_Use>(Pool_Use{pool, meter(pool.path), journal_, in_complete_set_});
}

uint64_t Agent_Storage_Backend::left_by_limit(Pool_Record const& pool) {
    return pool.limit - std::min(meter(pool.path)->taken(), pool.limit);
}

Pool_Space Agent_Storage_Backend::space(Pool_Record const& pool) {
    Pool_Space space;
    std::shared_ptr<Storage_Connection> files;
    if (!files_->connect(url_of_pool_path(pool.path), {}, files))
        return space;
    space.used = meter(pool.path)->used();
    space.online = static_cast<bool>(
        Pool_Connection(std::move(files), use(pool), "").space(space.total, space.available));
    return space.online ? space : Pool_Space();
}
