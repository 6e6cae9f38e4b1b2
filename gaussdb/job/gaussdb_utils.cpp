#include "gaussdb/job/gaussdb_utils.h"

#include "gaussdb/common/gaussdb_client.h"
#include "host/agent/instance_manager.h"
#include "host/http/http_query_string_builder_t.h"
#include "host/http/http_request.h"
#include "host/http/http_response.h"
#include "host/http/uri.h"
#include "host/process/service_lister.h"
#include "host/rpc/upstream_json_restful_client.h"
#include "host/storage/mount_fuse.h"
#include "host/storage/pool_info.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/natoi.h"
#include "qmrt/regex.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>

#include <cmath>
#include <exception>
#include <limits>
#include <sstream>
#include <strings.h>

using json_spirit::extract_or_throw;

namespace {

boost::regex const RE_PORT("\\s+-p\\s(?:.*:)?(\\d+)");
boost::regex const RE_BACKUP_AGENT_HOST("host\\s*=\\s*('.*?'|[^'].*?)( |$)");
boost::regex const RE_BACKUP_AGENT_PORT("port\\s*=\\s*(\\d+)");
boost::regex const RE_BACKUP_AGENT_SSL("ssl\\s*=\\s*(\\S*)");

std::string text_of(qmrt::svmatch::value_type const& group) {
    return std::string(group.first, group.second);
}

/** A port of a command line; false, logged, when it is beyond the range. */
bool read_port(std::string const& text, uint16_t& port) {
    uint16_t const number = natoi<uint16_t>(text);
    if (number == std::numeric_limits<uint16_t>::max() && errno == ERANGE) {
        QMRT_LOG(LM_ERROR, "Failed to convert string %s to port number.\n", text.c_str());
        return false;
    }
    port = number;
    return true;
}

bool list_services(char const* name, std::vector<Service_Info>& services) {
    if (Service_Lister::list_service(name, services, false, "C") == 0)
        return true;
    // one text for both services: operators know it
    QMRT_LOG(LM_ERROR, "Failed to list roach_client service.\n");
    return false;
}

/** Whether the service's command line has this host and port. */
bool is_backup_agent_at(Service_Info const& service, char const* host, uint16_t port) {
    qmrt::svmatch groups;
    uint16_t service_port = 0;
    return qmrt::regex_search(service.cmd, groups, RE_BACKUP_AGENT_HOST) &&
           text_of(groups[1]) == host &&
           qmrt::regex_search(service.cmd, groups, RE_BACKUP_AGENT_PORT) &&
           read_port(text_of(groups[1]), service_port) && service_port == port;
}

/** The hosts of an answer of the backup server; throws for one that is no such answer. */
void read_host_uuids(json_spirit::Value const& reply, std::vector<std::string>& host_uuids) {
    json_spirit::Array const* rows = nullptr;
    extract_or_throw(reply.get_obj())("rows", rows, true);
    for (json_spirit::Object const& row : json_spirit::objects_of(*rows)) {
        std::string form;
        json_spirit::Array const* instances = nullptr;
        json_spirit::extract(row)("form", form)("instances", instances);
        if (form.empty() || !instances)
            continue;
        for (json_spirit::Object const& instance : json_spirit::objects_of(*instances)) {
            std::string host_uuid;
            extract_or_throw(instance)("host_uuid", host_uuid, true);
            host_uuids.push_back(std::move(host_uuid));
        }
    }
}

/** A word of a size; 0 for one that is no unit. */
double factor_of(std::string const& unit) {
    if (strncasecmp(unit.c_str(), "B", 1) == 0)
        return 1;
    double factor = 1024;
    for (char const* name : {"KB", "MB", "GB", "TB", "PB"}) {
        if (strncasecmp(unit.c_str(), name, 2) == 0)
            return factor;
        factor *= 1024;
    }
    return 0;
}

} // namespace

bool parse_instance_entry(std::string const& entry, std::string& instance) {
    URI uri;
    std::vector<std::string> segments;
    if (!entry.starts_with("gaussdb")) {
        QMRT_LOG(LM_WARNING, "Failed to parse gaussdb source:\"%s\"\n", entry.c_str());
        return false;
    }
    uri.path(entry, true);
    if (!uri.path_segments(segments, true))
        return false;
    if (segments.size() < 2) {
        QMRT_LOG(LM_WARNING, "Failed to parse gaussdb source:\"%s\"\n", entry.c_str());
        return false;
    }
    instance = segments[1];
    return true;
}

bool get_cluster_host_uuids(char const* instance, std::vector<std::string>& host_uuids) {
    if (QMRT_IS_NULL_OR_EMPTY_AT(LM_ERROR, instance))
        return false;
    Instance_var const found = Instance_Manager::instance()->find("gaussdb", instance);
    if (!found) {
        QMRT_LOG(LM_ERROR,
                 "Failed to invoke get_cluster_host_uuids, can't find gaussdb instance.\n");
        return false;
    }

    HTTP_Request request(HTTP_METHOD_GET, "/d2/r/v2/resources", true);
    HTTP_Query_String_Builder(std::back_inserter(request.query_string_buffer()), false)(
        "feature", "backup")("instance_uuid", found->uuid.c_str())("scope", "instances");
    HTTP_Response response;
    json_spirit::Value reply;
    if (!Upstream_JSON_RESTful_Client::instance()->get(request, response, &reply)) {
        QMRT_LOG(LM_ERROR, "Failed to get cluster info of %s\n", instance);
        return false;
    }
    try {
        read_host_uuids(reply, host_uuids);
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get cluster info of %s, %s\n", instance, error.what());
        return false;
    }
    return !host_uuids.empty();
}

uint16_t random_port() {
    constexpr int BACKLOG = 128;
    ACE_SOCK_Acceptor acceptor;
    if (acceptor.open(ACE_Addr::sap_any, 0, PF_UNSPEC, BACKLOG) == -1)
        return 0;
    ACE_INET_Addr address;
    uint16_t const port = acceptor.get_local_addr(address) == -1 ? 0 : address.get_port_number();
    acceptor.close();
    return port;
}

bool get_instance_config(char const* instance, char const* uid, std::string& username,
                         secure_string& password, std::string* user) {
    if (QMRT_IS_NULL_OR_EMPTY_AT(LM_ERROR, instance) || QMRT_IS_NULL_OR_EMPTY_AT(LM_ERROR, uid))
        return false;
    Instance_Manager* const instances = Instance_Manager::instance();
    Instance_var const found = instances->find("gaussdb", instance);
    if (!found || instances->get_account("gaussdb", uid, instance, username, password) != 0) {
        QMRT_LOG(LM_ERROR, "Failed to get instance info of %s\n", instance);
        return false;
    }
    if (user)
        found->get_option("user", *user);
    return true;
}

bool get_roach_client_info(std::string& user, uint16_t& port) {
    user.clear();
    port = 0;
    std::vector<Service_Info> services;
    if (!list_services("roach_client", services))
        return false;
    for (Service_Info const& service : services) {
        qmrt::svmatch groups;
        if (!qmrt::regex_search(service.cmd, groups, RE_PORT))
            continue;
        if (!read_port(text_of(groups[1]), port))
            return false;
        user = service.user;
        return true;
    }
    return false;
}

bool get_backup_agent_info(std::string& remote_ip, std::string& user, uint16_t& port) {
    std::vector<Service_Info> services;
    if (!list_services("backUpAgent", services))
        return false;
    for (Service_Info const& service : services) {
        qmrt::svmatch groups;
        if (!qmrt::regex_search(service.cmd, groups, RE_BACKUP_AGENT_HOST))
            continue;
        remote_ip = text_of(groups[1]);
        if (!qmrt::regex_search(service.cmd, groups, RE_BACKUP_AGENT_PORT))
            continue;
        if (!read_port(text_of(groups[1]), port))
            return false;
        user = service.user;
        return true;
    }
    return false;
}

bool check_backup_agent_info(char const* host, uint16_t port, bool ssl, std::string& user) {
    if (QMRT_IS_NULL_AT(LM_ERROR, host))
        return false;
    std::vector<Service_Info> services;
    if (!list_services("backUpAgent", services))
        return false;
    bool service_ssl = true; // once a service says false, those behind it count as plain, too
    for (Service_Info const& service : services) {
        if (!is_backup_agent_at(service, host, port))
            continue;
        qmrt::svmatch groups;
        if (qmrt::regex_search(service.cmd, groups, RE_BACKUP_AGENT_SSL) &&
            (text_of(groups[1]) == "false" || text_of(groups[1]) == "0"))
            service_ssl = false;
        if (service_ssl == ssl) {
            user = service.user;
            return true;
        }
    }
    return false;
}

bool has_one_backup_agent_user(char const* host, uint16_t port, std::string const& user) {
    std::vector<Service_Info> services;
    if (QMRT_IS_NULL_AT(LM_ERROR, host) || !list_services("backUpAgent", services))
        return false;
    for (Service_Info const& service : services)
        if (service.user != user && is_backup_agent_at(service, host, port)) {
            QMRT_LOG(LM_ERROR,
                     "Both user %s and user %s run a backUpAgent for %s, port %d (process %d of "
                     "%s); stop the one that is not the database's\n",
                     user.c_str(), service.user.c_str(), host, static_cast<int>(port),
                     static_cast<int>(service.pid), service.user.c_str());
            return false;
        }
    return true;
}

bool get_manual_instance_info(json_spirit::Object const& obj, std::string& meta_path,
                              uint16_t& backup_port, std::string& address,
                              std::string& source_commands, std::string& ssh_opts) {
    try {
        extract_or_throw(obj)("address", address, true)("meta_path", meta_path, true)(
            "backup_port", backup_port, true)("source_commands", source_commands,
                                              false)("ssh_options", ssh_opts, false);
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get DWS instance info, %s\n", error.what());
        return false;
    }
}

// The quotes around the values of these statements are for the two ways by which they reach the
// client program: they end and begin the quoted argument, locally and within a remote command.

unsigned int get_database_nodes_number(GaussDB_Client* client) {
    if (QMRT_IS_NULL_AT(LM_ERROR, client))
        return 0;
    std::vector<std::string> rows;
    if (!client->query("select count(distinct(node_host)) from pgxc_node where "
                       "node_host!='\"'localhost'\"'",
                       rows, true) ||
        rows.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to get nodes number.\n");
        return 0;
    }
    unsigned int const number = natoi<unsigned int>(rows.front());
    if (number == std::numeric_limits<unsigned int>::max() && errno == ERANGE) {
        QMRT_LOG(LM_ERROR, "Failed to parse nodes number result: %s\n", rows.front().c_str());
        return 0;
    }
    return number;
}

bool get_database_addresses(GaussDB_Client* client, std::vector<std::string>& addresses) {
    if (QMRT_IS_NULL_AT(LM_ERROR, client))
        return false;
    if (client->query(
            "select distinct(node_host) from pgxc_node where node_host!='\"'localhost'\"'",
            addresses, true))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get database addresses.\n");
    return false;
}

bool get_schemas(GaussDB_Client* client, bool exclude_sys_schemas, GaussDB_Version const& version,
                 std::vector<std::string>& schemas) {
    if (QMRT_IS_NULL_AT(LM_ERROR, client))
        return false;
    char const* suffix = "";
    if (exclude_sys_schemas && version >= GAUSSDB_DWS_821)
        suffix = " where nspowner != 10";
    else if (exclude_sys_schemas)
        suffix = " where (oid >= 16384 or oid = 2200) and nspname not in ('\"'scheduler'\"', "
                 "'\"'pmk'\"')";
    if (client->query(string_sprintf("select nspname from pg_namespace%s", suffix).c_str(), schemas,
                      true))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get database schemas.\n");
    return false;
}

bool get_tables(GaussDB_Client* client, std::string const& schema,
                std::vector<std::string>& tables) {
    if (QMRT_IS_NULL_AT(LM_ERROR, client))
        return false;
    std::string const statement = string_sprintf(
        "select tablename from pg_tables where schemaname='\"'%s'\"'", schema.c_str());
    if (client->query(statement.c_str(), tables, true))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get tables of schema %s\n", schema.c_str());
    return false;
}

bool to_byte(std::string const& s, int64_t& val) {
    std::istringstream text(s);
    text.imbue(std::locale::classic());
    double number = 0;
    std::string unit;
    if (!(text >> number >> unit))
        return false;
    double const bytes = number * factor_of(unit);
    // the largest double below 2^63 is 2^63 - 1024; what is no number compares false
    if (factor_of(unit) == 0 || !(std::abs(bytes) < 9223372036854775808.0))
        return false;
    val = static_cast<int64_t>(bytes);
    return true;
}

bool set_fuse_for_dedup(Mount_Fuse& fuse, Client_IO_Base::Options const& io_opts,
                        Pool_Info const& info) {
    return fuse.compression_method(io_opts.compression_method, 1) &&
           fuse.encryption_method(io_opts.encryption, info.key.data(), info.key.size(),
                                  info.iv.data(), info.iv.size());
}
