#ifndef AGENT_SERVICE_POOL_STATUS_H
#define AGENT_SERVICE_POOL_STATUS_H

#include "json_spirit/value.h"

#include <string>

class Agent_Storage_Backend;
class SQLite_Catalog;
struct Pool_Record;

/** What the pools hold and what is free in them. On any thread. */
class Pool_Status {
public:
    /** Both live longer. */
    Pool_Status(Agent_Storage_Backend& storage, SQLite_Catalog& catalog)
        : storage_(storage), catalog_(catalog) {}

    /** The record with "total", "available", "used" and "online", and "resources" besides. */
    json_spirit::Object describe(Pool_Record const& record);
    /**
     * What a data path needs: uuid, name, URL, compression, whether it may be written, and where
     * it has a limit, how many bytes that leaves: "available".
     */
    json_spirit::Object for_data_path(Pool_Record const& record);

private:
    Agent_Storage_Backend& storage_;
    SQLite_Catalog& catalog_;
};

#endif
