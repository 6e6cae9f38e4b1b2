#include "gaussdb/websvcs_agent/tpops_add_instance_handler.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "gaussdb/common/tpops_record.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/agent/credential.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"
#include "qmrt/names.h"
#include "qmrt/uuid.h"

#include <cerrno>
#include <memory>
#include <new>

namespace {

constexpr char TPOPS_TYPE[] = "gaussdb";

/** The outcome for one instance. */
enum class Added { YES, NO, BAD_RECORD, NO_MEMORY };

/** Adds instances one by one, for one user's account. */
class Tpops_Additions {
public:
    /** Throws if a param is missing, of another kind or invalid. */
    explicit Tpops_Additions(json_spirit::Object const& params) {
        record_.load(params);
        secure_string plain;
        json_spirit::extract_or_throw(params)("uid", uid_)("username", username_)(
            "password", enciphered_)("instances", instances_);
        require_text("uid", uid_, names::fault_of_id);
        require_text("username", username_, names::fault_of_account);
        require_record(params);
        for (json_spirit::Object const& element : json_spirit::objects_of(*instances_)) {
            std::string name;
            if (json_spirit::object_get(element, "name", name))
                require_text("name", name, names::fault_of_instance);
            require_record(element);
        }
        if (!decrypt_secure_string(enciphered_, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH, plain))
            throw json_spirit::Error("password is not enciphered");
        account_ = json_spirit::Object_Maker()("username", username_)("password", plain)(
            "auth_type", "instance");
    }

    json_spirit::Array const& instances() const { return *instances_; }

    /** Throws for an element without a name or with a key of the wrong kind. */
    Added add(json_spirit::Object const& element, std::string& uuid) {
        std::string name;
        json_spirit::extract_or_throw(element)("name", name);
        if (is_taken(name)) {
            QMRT_LOG(LM_ERROR, "GaussDB instance %s already exists.\n", name.c_str());
            return Added::NO;
        }
        record_.load(element);
        return enter(name, uuid);
    }

private:
    static void require_text(char const* key, std::string const& text, names::Rule rule) {
        if (std::string const fault = rule(text); !fault.empty())
            throw json_spirit::Error(std::string(key) + " '" + names::shown(text) + "' " + fault);
    }
    static void require_record(json_spirit::Object const& record) {
        if (std::string const fault = fault_of_tpops_record(record); !fault.empty())
            throw json_spirit::Error(fault);
    }

    /** An instance on record may have no cluster at present. */
    static bool is_taken(std::string const& name) {
        return GaussDB_Cluster_Manager::instance()->cluster_exists(name.c_str()) ||
               (!name.empty() && Instance_Manager::instance()->find(TPOPS_TYPE, name.c_str()));
    }

    json_spirit::Object extend_attrs() const {
        json_spirit::Object attributes = record_.dump();
        json_spirit::insert(attributes)("manual", true)("username", username_)("password",
                                                                               enciphered_);
        return attributes;
    }

    Added enter(std::string const& name, std::string& uuid) {
        std::unique_ptr<GaussDB_TPOPS_Handler> handler(new (std::nothrow) GaussDB_TPOPS_Handler);
        if (!handler)
            return Added::NO_MEMORY;
        GaussDB_Cluster_Info info;
        info.name = name;
        info.extend_attrs = extend_attrs();
        handler->info(info);
        if (!handler->init(""))
            return Added::BAD_RECORD;
        GaussDB_Cluster_Manager& clusters = *GaussDB_Cluster_Manager::instance();
        if (!clusters.add_cluster(name.c_str(), handler.get()))
            return Added::NO;
        (void)handler.release(); // the manager's now
        std::shared_ptr<Instance> const instance = make_instance(name, info.extend_attrs);
        if (!instance) {
            clusters.remove_cluster(name.c_str());
            return Added::NO_MEMORY;
        }
        if (!put_on_record(instance)) {
            clusters.remove_cluster(name.c_str());
            return Added::NO;
        }
        // a failed notification has been logged and does not undo the instance
        (void)notify_backupd_instance(name.c_str(), uid_.c_str());
        uuid = instance->uuid;
        return Added::YES;
    }

    std::shared_ptr<Instance> make_instance(std::string const& name,
                                            json_spirit::Object const& options) const {
        std::shared_ptr<Instance> instance(new (std::nothrow) Instance);
        if (!instance)
            return nullptr;
        instance->type = TPOPS_TYPE;
        instance->name = name;
        instance->options = options;
        instance->uuid = uuid_string();
        instance->logon_options[uid_] = account_;
        return instance;
    }

    bool put_on_record(std::shared_ptr<Instance> const& instance) const {
        char const* const name = instance->name.c_str();
        if (!::add_instance(instance)) {
            QMRT_LOG(LM_ERROR, "Failed to add %s instance.\n", name);
            return false;
        }
        Instance_Manager* const manager = Instance_Manager::instance();
        if (manager->save_account(TPOPS_TYPE, name, uid_.c_str(), account_))
            return true;
        QMRT_LOG(LM_ERROR, "Failed to save %s account.\n", name);
        if (std::shared_ptr<Instance> const recorded = manager->find(TPOPS_TYPE, name))
            (void)remove_instance(recorded);
        return false;
    }

    GaussDB_TPOPS_Instance_Info
        record_; ///< an element's missing keys keep the values of the one before
    std::string uid_;
    std::string username_;
    std::string enciphered_;
    json_spirit::Object account_;
    json_spirit::Array const* instances_ = nullptr; ///< into the params
};

} // namespace

int JSON_RPC_TPOPS_Add_Instance_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                       JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    return request ? handle_request(peer.get(), *request) : -1;
}

int JSON_RPC_TPOPS_Add_Instance_Handler::handle_request(JSON_RPC_Channel* channel,
                                                        JSON_RPC_Request& request) {
    if (!channel) {
        QMRT_LOG(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
        return -1;
    }
    if (request.params().type() != json_spirit::obj_type)
        return channel->send_error(JSON_RPC_INVALID_PARAMS, request.id(),
                                   "Invalid params to add TPOPS instance");
    return add_instance(channel, &request);
}

int JSON_RPC_TPOPS_Add_Instance_Handler::add_instance(JSON_RPC_Channel* channel,
                                                      JSON_RPC_Request* request) {
    auto const fail = [&](int code, char const* text) {
        return channel->send_error(code, request->id(), text);
    };
    if (QMRT_IS_NULL(GaussDB_Cluster_Manager::instance()))
        return -1;
    std::unique_ptr<Tpops_Additions> additions;
    try {
        additions = std::make_unique<Tpops_Additions>(request->params().get_obj());
    } catch (json_spirit::Error const& error) {
        QMRT_LOG(LM_ERROR, "Invalid params: %s.\n", error.what());
        return fail(JSON_RPC_INVALID_PARAMS, "Invalid params");
    }
    JSON_RPC_Object_var const response(new (std::nothrow) JSON_RPC_Response(request));
    if (response.null()) {
        errno = ENOMEM;
        return fail(JSON_RPC_INTERNAL_ERROR, "Internal error, out of memory.");
    }
    json_spirit::Array result;
    for (json_spirit::Object const& element : json_spirit::objects_of(additions->instances())) {
        std::string uuid;
        switch (additions->add(element, uuid)) {
        case Added::YES:
            result.push_back(uuid);
            break;
        case Added::NO:
            break;
        case Added::BAD_RECORD:
            return fail(JSON_RPC_INTERNAL_ERROR, "Failed to init cluster handler.");
        case Added::NO_MEMORY:
            errno = ENOMEM;
            return -1;
        }
    }
    static_cast<JSON_RPC_Response*>(response.get())->result() = std::move(result);
    return channel->send(response);
}
