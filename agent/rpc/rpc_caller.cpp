#include "agent/rpc/rpc_caller.h"

#include "json_spirit/access.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

using json_spirit::Object;

Object Run_Scope::dump() const {
    return {{"run_id", run_id},     {"backup", backup},         {"host_uuid", host_uuid},
            {"instance", instance}, {"cluster_id", cluster_id}, {"pool_uuid", pool_uuid}};
}

bool Run_Scope::read(Object const& object) {
    try {
        json_spirit::extract_or_throw(object)("run_id", run_id)("backup", backup)(
            "host_uuid", host_uuid)("instance", instance)("cluster_id", cluster_id)("pool_uuid",
                                                                                    pool_uuid);
    } catch (json_spirit::Error const&) {
        return false;
    }
    // they are only compared and logged
    for (std::string const* text : {&run_id, &host_uuid, &instance, &cluster_id, &pool_uuid})
        if (!names::fault_of_line(*text).empty())
            return false;
    return !run_id.empty() && !host_uuid.empty() && !cluster_id.empty();
}

std::string Rpc_Caller::text() const {
    std::string const host = qmrt::to_one_line(run ? run->host_uuid : host_uuid);
    switch (kind) {
    case LOCAL:
        return "the local administrator";
    case ADMIN:
        return "an administrator on the network";
    case MEMBER:
        return "member '" + qmrt::to_one_line(member) + "' (host " + host + ")";
    case RUN:
    case FORWARDED:
        return "run " + qmrt::to_one_line(run->run_id) + " (host " + host + ")";
    case BACKUPD:
        return "the backup server";
    case READER:
        return "reader with uid " + std::to_string(*uid);
    case NOBODY:
        break;
    }
    return "nobody";
}
