#ifndef HOST_RPC_UPSTREAM_JSON_RESTFUL_CLIENT_H
#define HOST_RPC_UPSTREAM_JSON_RESTFUL_CLIENT_H

#include "host/http/http_request.h"
#include "host/http/http_response.h"
#include "json_spirit/value.h"

/**
 * The agent's shared REST client for its upstream server, over the back end that is installed. May
 * be used on any thread.
 *
 * Arguments and results are those of JSON_RESTful_Client. A request without an answer, or while no
 * back end is installed, leaves status 0 and one LM_ERROR line.
 */
class Upstream_JSON_RESTful_Client {
public:
    /** Never null, never destroyed. */
    static Upstream_JSON_RESTful_Client* instance();

    [[nodiscard]] bool get(HTTP_Request const& request, HTTP_Response& response,
                           json_spirit::Value* result);
    [[nodiscard]] bool post(HTTP_Request const& request, json_spirit::Value const* body,
                            HTTP_Response& response, json_spirit::Value* result);
    [[nodiscard]] bool put(HTTP_Request const& request, json_spirit::Value const* body,
                           HTTP_Response& response, json_spirit::Value* result);
    [[nodiscard]] bool del(HTTP_Request const& request, HTTP_Response& response,
                           json_spirit::Value* result);

private:
    Upstream_JSON_RESTful_Client() = default;
    [[nodiscard]] bool send(int method, HTTP_Request const& request, json_spirit::Value const* body,
                            HTTP_Response& response, json_spirit::Value* result);
};

#endif
