#include "agent/service/agent_group.h"

#include "agent/service/agent_config.h"
#include "agent/service/agent_identity.h"
#include "host/agent/host_manager.h"
#include "host/agent/host_services.h"
#include "host/http/uri.h"
#include "host/rpc/websocket_options.h"
#include "qmrt/constants.h"
#include "qmrt/file.h"
#include "qmrt/path.h"

#include <cerrno>
#include <cstring>

namespace {

/** Where the users of the databases find the certificate that vouches for the backup server. */
constexpr char PUBLISHED_CERTIFICATE[] = "/var/opt/quilmot/zenbrak3/agent/backupd.crt";

/** Tells the data path where the backup server is. */
bool set_server(std::string const& url, std::string& error) {
    URI uri;
    if (!uri.parse(url, &error) || uri.scheme() != "wss" || uri.host().empty()) {
        error = "\"group.backupd_url\" wants \"wss://HOST:PORT\", not \"" + url + "\"";
        return false;
    }
    unsigned short const port =
        uri.port() ? uri.port() : static_cast<unsigned short>(DEFAULT_BACKUPD_PORT_HTTPS);
    WebSocket_Options::instance()->set(uri.host(), port, true);
    return true;
}

} // namespace

Agent_Group::Agent_Group(Agent_Config const& config, Agent_Identity const& identity,
                         Method_Table& methods, Rest_Routes const& routes,
                         SQLite_Instances& instances, Group_Rules& rules, Run_Access const& runs)
    : config_(config),
      identity_(identity),
      methods_(methods),
      routes_(routes),
      instances_(instances),
      rules_(rules),
      runs_(runs) {}

bool Agent_Group::prepare(secure_string const& key, std::string& error) {
    if (config_.role != "member") {
        server_ = std::make_unique<Group_Server>(methods_, rules_, identity_.host_uuid);
        local_ = std::make_shared<Local_Upstream>(methods_, routes_, *server_);
        Host_Services::instance().upstream(local_);
        return true;
    }
    if (!set_server(config_.backupd_url, error))
        return false;
    Group_Link_Options options;
    options.url = config_.backupd_url;
    options.access_key = key;
    options.runs = [this] { return runs_.runs(); };
    options.ca_file = config_.backupd_ca;
    options.host_uuid = identity_.host_uuid;
    options.name = Host_Manager::instance()->name();
    options.component = "agent";
    options.version = ZENBRAK3_VERSION;
    link_ = std::make_shared<Group_Link>(methods_, options);
    Host_Services::instance().upstream(link_);
    return true;
}

bool Agent_Group::join(unsigned short port, std::string& error) {
    if (!publish_certificate(error))
        return false;
    if (!link_) {
        WebSocket_Options::instance()->set("localhost", port, true);
        return true;
    }
    if (!link_->start(error))
        return false;
    duties_ = std::make_unique<Member_Duties>(*link_, instances_, identity_.host_uuid);
    duties_->start();
    return true;
}

bool Agent_Group::publish_certificate(std::string& error) const {
    std::string const& source = link_ ? config_.backupd_ca : config_.certificate;
    if (source.empty() || (!link_ && !config_.remote))
        return true;
    std::string const directory = dirname_string(PUBLISHED_CERTIFICATE);
    if ((mkdir_p(directory.c_str(), 0755) == 0 || errno == EEXIST) &&
        copy_file(source.c_str(), PUBLISHED_CERTIFICATE, 0644) == 0)
        return true;
    error = "Cannot publish the certificate " + source + " as " + PUBLISHED_CERTIFICATE + ": " +
            strerror(errno);
    return false;
}

void Agent_Group::drop_set_of(std::string const& run_id) {
    if (duties_)
        duties_->drop_set_of(run_id);
}

void Agent_Group::stop() {
    if (duties_)
        duties_->stop();
    if (link_)
        link_->stop();
    if (local_)
        local_->close();
}
