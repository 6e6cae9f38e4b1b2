#include "agent/storage/remote_pools.h"

#include "agent/rpc/method_table.h"
#include "host/agent/host_services.h"
#include "host/rpc/upstream_backend.h"
#include "json_spirit/access.h"

using json_spirit::Object;

namespace {

Pool_Info info_from(Object const& found) {
    Pool_Info info;
    info.uuid = json_spirit::object_get_str(found, "uuid");
    info.name = json_spirit::object_get_str(found, "name");
    info.url = json_spirit::object_get_str(found, "url");
    info.compression_method =
        compression_name_to_value(json_spirit::object_get_str(found, "compression").c_str(), -1);
    json_spirit::object_get(found, "compression_level", info.compression_level);
    json_spirit::object_get(found, "read_only", info.read_only);
    return info;
}

} // namespace

Storage_Result Remote_Pools::find(std::string const& uuid, Pool_Info& info) {
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    JSON_RPC_Reply reply;
    if (!upstream)
        return {Storage_Result::UNREACHABLE, "there is no backup server to ask for pool " + uuid};
    if (!upstream->call("pool.find", Object{{"uuid", uuid}}, {}, reply))
        return {reply.code == AGENT_RPC_NOT_FOUND ? Storage_Result::NOT_FOUND
                                                  : Storage_Result::UNREACHABLE,
                "the backup server did not find pool " + uuid + ": " + reply.message};
    if (reply.result.type() != json_spirit::obj_type)
        return {Storage_Result::UNREACHABLE, "the backup server's answer for pool " + uuid +
                                                 " is of another kind than an object"};
    Pool_Info found = info_from(reply.result.get_obj());
    if (found.uuid.empty() || found.url.empty())
        return {Storage_Result::UNREACHABLE,
                "the backup server's answer for pool " + uuid + " has no uuid or no url"};
    info = std::move(found);
    return {};
}
