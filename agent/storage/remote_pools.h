#ifndef AGENT_STORAGE_REMOTE_POOLS_H
#define AGENT_STORAGE_REMOTE_POOLS_H

#include "host/storage/pool_info.h"

/**
 * The backup server's pools, by its method "pool.find" through the Upstream_Backend of
 * Host_Services: what a member of a group goes by. A pool's directory has to be mounted at the same
 * place there and here.
 */
class Remote_Pools : public Pool_Backend {
public:
    /** @param uuid  or a name */
    Storage_Result find(std::string const& uuid, Pool_Info& info) override;
};

#endif
