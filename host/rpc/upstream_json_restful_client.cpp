#include "host/rpc/upstream_json_restful_client.h"

#include "host/agent/host_services.h"
#include "host/rpc/upstream_backend.h"
#include "qmrt/log.h"
#include "qmrt/utf8.h"

using json_spirit::Value;

Upstream_JSON_RESTful_Client* Upstream_JSON_RESTful_Client::instance() {
    static Upstream_JSON_RESTful_Client client;
    return &client;
}

bool Upstream_JSON_RESTful_Client::get(HTTP_Request const& request, HTTP_Response& response,
                                       Value* result) {
    return send(HTTP_METHOD_GET, request, nullptr, response, result);
}

bool Upstream_JSON_RESTful_Client::post(HTTP_Request const& request, Value const* body,
                                        HTTP_Response& response, Value* result) {
    return send(HTTP_METHOD_POST, request, body, response, result);
}

bool Upstream_JSON_RESTful_Client::put(HTTP_Request const& request, Value const* body,
                                       HTTP_Response& response, Value* result) {
    return send(HTTP_METHOD_PUT, request, body, response, result);
}

bool Upstream_JSON_RESTful_Client::del(HTTP_Request const& request, HTTP_Response& response,
                                       Value* result) {
    return send(HTTP_METHOD_DELETE, request, nullptr, response, result);
}

bool Upstream_JSON_RESTful_Client::send(int method, HTTP_Request const& request, Value const* body,
                                        HTTP_Response& response, Value* result) {
    response.clear();
    if (result)
        *result = Value();
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    bool done = false;
    if (!upstream)
        response.error("there is no upstream server");
    else if (method != request.method())
        response.error("the request was made for another method");
    else if (!request.well_formed())
        response.error("the path or the query has characters that may not be there");
    else
        done = upstream->rest(request, body, response, result);
    if (response.status() == 0)
        QMRT_LOG(LM_ERROR, "Failed to send HTTP request '%s %s' upstream, %s\n",
                 http_method_name(method), qmrt::to_one_line(request.path()).c_str(),
                 qmrt::to_one_line(response.error()).c_str());
    return done;
}
