#include "gaussdb/common/gaussdb_cluster_identity.h"

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "gaussdb/common/gaussdb_config_handler.h"
#include "gaussdb/common/gaussdb_config_reader.h"
#include "host/process/password_file_entry.h"
#include "host/xml/parse_xml.h"
#include "json_spirit/access.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/names.h"

#include <cstring>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t MAX_PROFILE = 1024 * 1024;
/** Below a data directory; its first eight bytes are the database's system identifier. */
constexpr char CONTROL_FILE[] = "/global/pg_control";

std::string profile_of(GaussDB_Cluster_Handler const& handler) {
    std::string const profile = handler.env().get_value("MPPDB_ENV_SEPARATE_PATH");
    return profile.empty() ? "/home/" + handler.user() + "/.bashrc" : profile;
}

/** The name that the profile gives now; "" when it gives none or cannot be read. */
std::string name_in_profile(GaussDB_Cluster_Handler const& handler) {
    std::string text;
    if (read_guarded(profile_of(handler).c_str(), text, {.max_size = MAX_PROFILE}) == -1)
        return "";
    GaussDB_Env env;
    for (auto const& [key, value] : handler.env().get_env())
        if (key != "GS_CLUSTER_NAME")
            env.set_env(key, value);
    return env.read(profile_of(handler).c_str()) ? env.get_value("GS_CLUSTER_NAME") : "";
}

std::string system_identifier(std::string const& data_directory) {
    File_Descriptor const file = open_guarded((data_directory + CONTROL_FILE).c_str(), {});
    uint64_t identifier = 0;
    if (!file || pread(file.get(), &identifier, sizeof identifier, 0) != sizeof identifier)
        return "";
    return std::to_string(identifier);
}

std::string topology_of(GaussDB_Cluster_Info const& info) {
    std::string text;
    for (GaussDB_Device_Info const& device : info.devices) {
        text += device.name;
        for (GaussDB_Nodes_Info const* nodes : {&device.coordinators, &device.data_nodes}) {
            text += " " + std::to_string(nodes->port);
            for (std::string const& directory : nodes->dirs)
                text += " " + directory;
        }
        text += "\n";
    }
    return text;
}

std::string stamp_of(std::string const& path) {
    struct stat status;
    if (path.empty() || stat(path.c_str(), &status) == -1 || !S_ISREG(status.st_mode))
        return "";
    return string_sprintf("%llu.%llu.%lld.%09ld", static_cast<unsigned long long>(status.st_ino),
                          static_cast<unsigned long long>(status.st_size),
                          static_cast<long long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec);
}

/** Where the topology comes from: of the 200 series the binary file, else the XML itself. */
std::string config_of(GaussDB_Cluster_Handler const& handler) {
    if (handler.get_gaussdb_version().model_ != GAUSSDB_200)
        return handler.conf();
    std::string const home = handler.env().gauss_home();
    return home.empty() ? "" : home + "/bin/cluster_static_config";
}

std::string read_topology(GaussDB_Cluster_Handler const& handler, std::string const& config) {
    GaussDB_Cluster_Info info;
    ACEXML_GaussDB_Config_Handler reader(info);
    if (handler.get_gaussdb_version().model_ != GAUSSDB_200)
        return parse_xml(config.c_str(), reader) ? topology_of(info) : "";
    std::string const xml = handler.conf() + ".present";
    bool const done =
        generate_gaussdb_config(handler.env(), handler.user().c_str(), xml.c_str(), config.c_str(),
                                handler.get_gaussdb_version() >= GAUSSDB_A_811) &&
        parse_xml(xml.c_str(), reader);
    unlink(xml.c_str());
    return done ? topology_of(info) : "";
}

} // namespace

Cluster_Identity Cluster_Identity::look(GaussDB_Cluster_Handler const& handler,
                                        Cluster_Identity const& known) {
    Cluster_Identity present;
    Password_File_Entry user;
    if (handler.user().empty() || user.get(handler.user().c_str()) == -1)
        return present;
    std::string const config = config_of(handler);
    {
        As_File_User const rights(user.uid());
        if (!rights)
            return present;
        present.name = name_in_profile(handler);
        present.stamp = stamp_of(config);
        GaussDB_Cluster_Info const info = handler.info();
        for (GaussDB_Device_Info const& device : info.devices)
            for (std::string const& directories : device.data_nodes.dirs) {
                std::string const directory = directories.substr(0, directories.find(','));
                if (std::string id = system_identifier(directory); !id.empty())
                    present.systems[directory] = std::move(id);
            }
    }
    if (known.stamp.empty())
        present.topology = topology_of(handler.info()); // it has just been read
    else if (!present.stamp.empty())
        present.topology =
            present.stamp == known.stamp ? known.topology : read_topology(handler, config);
    return present;
}

std::string Cluster_Identity::difference(Cluster_Identity const& present, bool with_data) const {
    if (!name.empty() && !present.name.empty() && name != present.name)
        return "its user's tools answer for the cluster \"" + names::shown(present.name) + "\" now";
    if (!topology.empty() && !present.topology.empty() && topology != present.topology)
        return "its machines, ports or data directories have changed";
    for (auto const& [directory, id] : systems)
        if (auto const found = present.systems.find(directory);
            with_data && found != present.systems.end() && found->second != id)
            return "the database in " + names::shown(directory) +
                   " is another one, with the system identifier " + found->second +
                   " in place of " + id;
    return "";
}

bool Cluster_Identity::complete(Cluster_Identity const& present) {
    json_spirit::Object const before = dump();
    if (name.empty())
        name = present.name;
    if (topology.empty())
        topology = present.topology;
    if (!present.stamp.empty())
        stamp = present.stamp;
    systems.insert(present.systems.begin(), present.systems.end());
    return dump() != before;
}

json_spirit::Object Cluster_Identity::dump() const {
    json_spirit::Object of_data;
    for (auto const& [directory, id] : systems)
        of_data.emplace(directory, id);
    return {{"name", name}, {"topology", topology}, {"stamp", stamp}, {"systems", of_data}};
}

bool Cluster_Identity::read(json_spirit::Object const& object) {
    json_spirit::Object of_data;
    if (!json_spirit::object_get(object, "name", name) ||
        !json_spirit::object_get(object, "topology", topology) ||
        !json_spirit::object_get(object, "stamp", stamp) ||
        !json_spirit::object_get(object, "systems", of_data))
        return false;
    for (auto const& [directory, id] : of_data)
        if (id.type() == json_spirit::str_type)
            systems[directory] = id.get_str();
    return true;
}
