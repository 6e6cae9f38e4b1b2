#include "xbsa/library/xbsa_policy.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

constexpr size_t MAX_SIZE = 1024 * 1024;

Xbsa_Result unusable(std::string const& name, std::string const& why,
                     int code = BSA_RC_INVALID_ENV) {
    return {code, "policy '" + names::shown(name) + "' cannot be used: " + why};
}

std::string path_of(std::string const& name) {
    return std::string(Xbsa_Policy::DIRECTORY) + "/" + name;
}

Xbsa_Result not_read(std::string const& name, int error) {
    return unusable(name, std::generic_category().message(error),
                    error == EACCES || error == EPERM ? BSA_RC_ACCESS_FAILURE : BSA_RC_INVALID_ENV);
}

/** Takes over the members; throws json_spirit::Error for one that is missing or of another kind. */
void read_members(json_spirit::Object const& object, Xbsa_Policy& policy) {
    int64_t retry = 0;
    std::string compression;
    json_spirit::extract_or_throw(object)("backupd_host", policy.backupd_host)(
        "backupd_port", policy.backupd_port)("backupd_ssl", policy.backupd_ssl)("access_key",
                                                                                policy.access_key)(
        "cluster_id", policy.cluster_id)("device_uuid", policy.device_uuid,
                                         false)("pool_uuid", policy.pool_uuid)("uuid", policy.uuid)(
        "retry", retry, false)("resumption_buffer_size", policy.resumption_buffer_size, false)(
        "compression", compression, false)("compression_level", policy.compression_level, false);
    policy.retry = static_cast<uint64_t>(std::max<int64_t>(retry, 0));
    policy.compression = compression_name_to_value(compression.c_str(), -1);
    if (policy.compression == COMPR_NONE && !compression.empty() && compression != "none")
        throw json_spirit::Error("compression '" + qmrt::to_one_line(compression) +
                                 "' is not known");
    if (!policy.rate_limits.from_string_in_object(object, ';'))
        throw json_spirit::Error("its rate limits are not valid");
}

std::string fault_of(Xbsa_Policy const& policy) {
    if (policy.backupd_host.empty() || policy.backupd_port == 0)
        return "it does not say where the agent is";
    if (std::string const fault = names::fault_of_id(policy.cluster_id); !fault.empty())
        return "its cluster_id " + fault;
    if (std::string const fault = names::fault_of_id(policy.uuid);
        !policy.uuid.empty() && !fault.empty())
        return "its uuid " + fault;
    std::string const fault = names::fault_of_id(policy.pool_uuid);
    return fault.empty() ? "" : "its pool_uuid " + fault;
}

} // namespace

Xbsa_Result Xbsa_Policy::read(std::string const& name, Xbsa_Policy& policy) {
    if (std::string const fault = names::fault_of_policy(name); !fault.empty())
        return {BSA_RC_INVALID_ENV,
                "'" + names::shown(name) + "' is not the name of a policy: it " + fault};
    std::string text;
    Scoped_Deleter const wiper([&] { secure_memset(text.data(), 0, text.size()); });
    if (read_file(path_of(name).c_str(), text, MAX_SIZE) == -1)
        return not_read(name, errno);
    return parse(name, text, policy);
}

Xbsa_Result Xbsa_Policy::parse(std::string const& name, std::string const& text,
                               Xbsa_Policy& policy) {
    json_spirit::Value value;
    std::string fault;
    if (!json_spirit::parse(text, value, &fault))
        return unusable(name, fault);
    try {
        Xbsa_Policy made;
        made.name = name;
        read_members(value.get_obj(), made);
        fault = fault_of(made);
        if (!fault.empty())
            return unusable(name, fault);
        policy = std::move(made);
    } catch (json_spirit::Error const& error) {
        return unusable(name, error.what());
    }
    return {};
}

std::string Xbsa_Policy::counter_path() const {
    return path_of(name) + "_act";
}
