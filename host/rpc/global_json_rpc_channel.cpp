#include "host/rpc/global_json_rpc_channel.h"

#include "host/agent/host_services.h"
#include "host/rpc/upstream_backend.h"
#include "qmrt/log.h"
#include "qmrt/utf8.h"

JSON_RPC_Channel* Global_JSON_RPC_Channel::instance() {
    static Global_JSON_RPC_Channel channel;
    return &channel;
}

int Global_JSON_RPC_Channel::send_i(JSON_RPC_Object const& object) {
    if (object.type() != JSON_RPC_Object::TYPE_NOTIFY) {
        QMRT_LOG(LM_ERROR, "Refused a JSON-RPC message to the server that is no notification\n");
        return -1;
    }
    auto const& notify = static_cast<JSON_RPC_Notify const&>(object);
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    std::string error = "there is no upstream server";
    if (upstream && upstream->notify(notify.method(), notify.params(), error))
        return 0;
    QMRT_LOG(LM_ERROR, "Failed to notify the server of '%s', %s\n",
             qmrt::to_one_line(notify.method()).c_str(), qmrt::to_one_line(error).c_str());
    return -1;
}

bool Global_JSON_RPC_Channel::request_i(JSON_RPC_Request const& request,
                                        std::chrono::milliseconds timeout, JSON_RPC_Reply& reply) {
    reply = {{}, JSON_RPC_UNREACHABLE, "there is no upstream server", {}};
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    Upstream_Backend::Limits limits;
    limits.answer = static_cast<int>(std::chrono::ceil<std::chrono::seconds>(timeout).count());
    return upstream && upstream->call(request.method(), request.params(), limits, reply);
}
