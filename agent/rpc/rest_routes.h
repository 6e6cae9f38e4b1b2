#ifndef AGENT_RPC_REST_ROUTES_H
#define AGENT_RPC_REST_ROUTES_H

#include "agent/rpc/rpc_caller.h"
#include "host/http/http_encode.h"
#include "host/http/http_method.h"
#include "json_spirit/value.h"

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/** A REST request as a route gets it. */
struct Rest_Request {
    int method = HTTP_METHOD_UNKNOWN; ///< one of HTTP_METHOD
    std::string path;                 ///< as it came, without the query
    HTTP_Query query;                 ///< decoded, in its order
    json_spirit::Value body;          ///< null when there was none
    Rpc_Caller caller;

    /** The first value of a key of the query; "" when there is none. */
    std::string parameter(std::string const& key) const;
};

/**
 * Answers a request: sets the body, null for an empty one, and gives the status. May be called on
 * several threads at once.
 */
using Rest_Function = std::function<int(Rest_Request const& request, json_spirit::Value& answer)>;

/** The REST resources that this agent serves, by method and path. For any thread. */
class Rest_Routes {
public:
    /** Whom a resource is for, unless it says more. */
    static constexpr unsigned ADMINISTRATORS = Rpc_Caller::LOCAL | Rpc_Caller::ADMIN;

    /**
     * Serves a resource, in place of whatever served it.
     * @param callers  Rpc_Caller::Kind, or-ed: whom it is for
     */
    void add(int method, std::string const& path, Rest_Function function,
             unsigned callers = ADMINISTRATORS);

    /**
     * Answers a request. What nobody serves is 404, or 405 when the path is served by another
     * method; what is not for the caller is 403, and logged; an exception is logged and is 500.
     * Such an answer is {"error": text}.
     */
    int handle(Rest_Request const& request, json_spirit::Value& answer) const;

private:
    struct Route {
        Rest_Function function;
        unsigned callers;
    };
    Rest_Function find(Rest_Request const& request, int& refusal) const;

    mutable std::mutex mutex_;
    std::map<std::pair<std::string, int>, Route> routes_;
};

/** The host uuids of the hosts that have an instance of that uuid. */
using Instance_Hosts = std::function<std::vector<std::string>(std::string const& instance_uuid)>;

/**
 * Serves "GET /d2/r/v2/resources?feature=backup&instance_uuid=U&scope=instances", by which an agent
 * learns which hosts share an instance: {"rows": [{"form": "cluster" or "single", "instances":
 * [{"host_uuid": H}, ...]}]}; no rows when no host has it. No instance_uuid, another feature and
 * another scope are 400.
 */
void add_instance_hosts_route(Rest_Routes& routes, Instance_Hosts hosts);

#endif
