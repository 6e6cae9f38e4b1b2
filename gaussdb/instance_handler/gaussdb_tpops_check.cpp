#include "gaussdb/instance_handler/gaussdb_tpops_check.h"

#include "gaussdb/common/tpops_restful_client.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "host/http/platform_settings.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"
#include "qmrt/names.h"

namespace {

std::string endpoint_text(TPOPS_Login const& login) {
    return "platform " + names::shown(login.host) + ":" + std::to_string(login.port);
}

std::string route_text(GaussDB_TPOPS_Instance_Info const& record) {
    return string_sprintf("%s:%d, %s", names::shown(record.xbsa_host).c_str(),
                          int{record.xbsa_port}, record.xbsa_ssl ? "TLS" : "no TLS");
}

/** The route of the backup agent that runs on this host, or that none runs. */
std::string running_route() {
    std::string host, user;
    uint16_t port = 0;
    if (!get_backup_agent_info(host, user, port))
        return "no backUpAgent is running on this host";
    return string_sprintf("the backUpAgent on this host has %s:%d or another setting of ssl",
                          names::shown(host).c_str(), int{port});
}

} // namespace

GaussDB_TPOPS_Check::GaussDB_TPOPS_Check(Instance const& instance) : instance_(instance) {}

std::vector<Instance_Check> GaussDB_TPOPS_Check::run(Database_Guide::Check_Scope scope) {
    if (!read_record())
        return lines_;
    TPOPS_RESTful_Client client;
    try {
        if (login(client)) {
            trust();
            instance_there(client);
        }
    } catch (json_spirit::Error const& fault) {
        bad(endpoint_text(login_), std::string("its answer cannot be read: ") + fault.what(),
            "see whether this is the REST interface of a TPOPS platform: zenbrak3 platform change "
            "corrects host and port");
    }
    if (scope == Database_Guide::TO_BACK_UP)
        xbsa_route();
    return lines_;
}

bool GaussDB_TPOPS_Check::read_record() {
    try {
        login_.load(instance_.options);
        record_.load(instance_.options);
        return true;
    } catch (json_spirit::Error const& fault) {
        bad("record", std::string("it is not complete: ") + fault.what(),
            "remove the instance and add it again: zenbrak3 platform add");
        return false;
    }
}

bool GaussDB_TPOPS_Check::login(TPOPS_RESTful_Client& client) {
    std::string const subject = endpoint_text(login_);
    std::string const user = "login as " + names::shown(login_.username);
    if (client.connect(login_)) {
        good(subject, "it answers");
        good(user, "the platform takes it");
        return true;
    }
    if (client.status() == 0)
        bad(subject, "it gave no answer: " + names::shown(client.fault()),
            "start the platform, correct host and port by zenbrak3 platform change, or name the "
            "authority of its certificate as ca_file under [platform] in the agent's "
            "configuration");
    else if (client.status() == 401 || client.status() == 403) {
        good(subject, "it answers");
        bad(user, string_sprintf("the platform refuses it, HTTP status %d", client.status()),
            "save the right user and password: zenbrak3 account " + instance_.name + " USER");
    } else
        bad(subject, string_sprintf("it gave no token, HTTP status %d", client.status()),
            "see whether this is the REST interface of a TPOPS platform, and look into its log");
    return false;
}

/** Reports how far the connection is protected. */
void GaussDB_TPOPS_Check::trust() {
    if (!login_.ssl)
        return good("TLS", "none: password and token can be read on the way");
    good("TLS", Platform_Settings::get().verify
                    ? "the platform's certificate is verified"
                    : "the platform's certificate is not verified, as [platform] verify says");
}

void GaussDB_TPOPS_Check::instance_there(TPOPS_RESTful_Client& client) {
    std::string const subject = "instance on the platform";
    TPOPS_Instance_Info found;
    if (record_.id.empty())
        return bad(subject, "the record does not say which one",
                   "remove the instance and add it again: zenbrak3 platform add");
    if (!client.get_instance_info(record_.id.c_str(), found))
        return bad(subject,
                   string_sprintf("it cannot be asked for, HTTP status %d", client.status()),
                   "let the platform's user see the instance; the agent's log says more");
    if (found.id != record_.id)
        return bad(subject, "the platform does not know id " + names::shown(record_.id),
                   "see what it offers: zenbrak3 platform list. If the instance was made anew, "
                   "remove it here and add it again");
    std::string const state =
        found.status.empty() ? "state not reported" : names::shown(found.status);
    if (!found.status.empty() && found.status != "normal")
        return bad(subject, "its state is " + state,
                   "bring it to the state normal on the platform");
    good(subject, string_sprintf("%s, %d nodes", state.c_str(), found.node_count));
}

void GaussDB_TPOPS_Check::xbsa_route() {
    std::string const subject = "XBSA route";
    std::string user;
    if (record_.xbsa_host.empty() || record_.xbsa_port == 0)
        return bad(subject, "the record has none",
                   "name where the backUpAgent listens: zenbrak3 platform change " +
                       instance_.name + " --xbsa-host HOST --xbsa-port PORT");
    if (!check_backup_agent_info(record_.xbsa_host.c_str(), record_.xbsa_port, record_.xbsa_ssl,
                                 user))
        return bad(subject, route_text(record_) + ": " + running_route(),
                   "start the backUpAgent with this route, or correct the route: zenbrak3 platform "
                   "change " +
                       instance_.name);
    good(subject, route_text(record_) + ": the backUpAgent runs as " + names::shown(user));
    lines_.back().user = user;
}
