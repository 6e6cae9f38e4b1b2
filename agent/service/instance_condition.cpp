#include "agent/service/instance_condition.h"

#include "agent/service/instance_probe.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/http/http_query_string_builder_t.h"
#include "host/http/http_request.h"
#include "host/http/http_response.h"
#include "host/rpc/upstream_json_restful_client.h"
#include "json_spirit/access.h"
#include "qmrt/names.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char INSTANCE_TYPE[] = "gaussdb";

/** @return null if this host does not have it */
std::shared_ptr<Instance> own_instance(std::string const& name) {
    std::shared_ptr<Instance_Backend> const record = Host_Services::instance().instances();
    return record ? record->find(INSTANCE_TYPE, name) : nullptr;
}

/** Whether an answer about the hosts of an instance names another host. */
bool names_other_host(Value const& answer, std::string const& own_uuid) {
    if (answer.type() != json_spirit::obj_type)
        return false;
    Array rows;
    json_spirit::object_get(answer.get_obj(), "rows", rows);
    for (Object const& row : json_spirit::objects_of(rows)) {
        Array instances;
        json_spirit::object_get(row, "instances", instances);
        for (Object const& instance : json_spirit::objects_of(instances)) {
            std::string const host = json_spirit::object_get_str(instance, "host_uuid");
            if (!host.empty() && host != own_uuid)
                return true;
        }
    }
    return false;
}

} // namespace

Start_Answer Instance_Condition::may_start(Stored_Definition const& definition) const {
    std::string const& name = definition.instance;
    if (name.empty())
        return {};
    if (!probe_.has_searched())
        return Start_Answer::wait("the first search for instances", LONGEST_WAIT);
    if (own_instance(name))
        return {};
    bool elsewhere = false;
    std::string error;
    if (!others_have(name, elsewhere, error))
        return Start_Answer::fail("instance \"" + name + "\" is not known on this host, and " +
                                  error);
    if (elsewhere)
        return Start_Answer::skip("It was not this host's to run");
    return Start_Answer::fail("instance \"" + name +
                              "\" is not known on any host; search for it with `zenbrak3 "
                              "instances --refresh` while its database is running");
}

bool Instance_Condition::find(std::string const& instance, std::string& uuid,
                              std::string& error) const {
    uuid.clear();
    if (std::shared_ptr<Instance> const own = own_instance(instance)) {
        uuid = own->uuid;
        return true;
    }
    if (!probe_.has_searched())
        return true;
    bool elsewhere = false;
    std::string const fault = "instance \"" + names::shown(instance) + "\" is not on record";
    if (!others_have(instance, elsewhere, error)) {
        error = fault + ", and " + error;
        return false;
    }
    if (elsewhere)
        uuid = Instance_Probe::uuid_of(INSTANCE_TYPE, instance);
    else
        error = fault + "; search for it with `zenbrak3 instances --refresh` while its database is "
                        "running";
    return elsewhere;
}

std::string Instance_Condition::fault_of_skip(std::string const& instance) const {
    if (instance.empty())
        return "";
    bool elsewhere = false;
    std::string error;
    if (!others_have(instance, elsewhere, error))
        return "this host may not run the job of instance \"" + instance + "\", and " + error;
    if (elsewhere)
        return "";
    return "no host has run the job: this host is not the first node of instance \"" + instance +
           "\" or its database cannot be seen, and no other host of the group has the instance; "
           "see `zenbrak3 check " +
           instance + "`";
}

bool Instance_Condition::others_have(std::string const& instance, bool& have,
                                     std::string& error) const {
    std::shared_ptr<Instance> const own = own_instance(instance);
    std::string const uuid = own ? own->uuid : Instance_Probe::uuid_of(INSTANCE_TYPE, instance);
    HTTP_Request request(HTTP_METHOD_GET, "/d2/r/v2/resources", true);
    HTTP_Query_String_Builder(std::back_inserter(request.query_string_buffer()), false)(
        "feature", "backup")("instance_uuid", uuid.c_str())("scope", "instances");
    HTTP_Response response;
    Value answer;
    if (!Upstream_JSON_RESTful_Client::instance()->get(request, response, &answer)) {
        error = "the backup server could not be asked for its hosts";
        return false;
    }
    have = names_other_host(answer, host_uuid_);
    return true;
}
