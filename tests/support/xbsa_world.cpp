#include "tests/support/xbsa_world.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/https_server.h"
#include "tests/support/server_child.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>
#include <unistd.h>

using namespace json_spirit;

namespace {

constexpr char PROGRAM[] = ZENBRAK3_TEST_SUPPORT_DIR "/xbsa_agent_main";
constexpr char POLICIES[] = "/var/cache/quilmot/zenbrak3/gaussdb";
constexpr char CERTIFICATES[] = "/var/opt/quilmot/zenbrak3/agent";
constexpr char POOL_UUID[] = "aaaaaaaa-2222-3333-4444-555555555555";

/** Files that another user is to read. */
void open_to_all(std::string const& path) {
    std::filesystem::permissions(path, std::filesystem::perms(0755));
}

void write_file(std::string const& path, std::string const& text) {
    std::ofstream(path + ".new", std::ios::binary) << text;
    std::filesystem::rename(path + ".new", path);
}

/** One agent for all worlds of the program, with and one without TLS: a Python takes its time. */
class Agent_Server {
public:
    static Agent_Server const& instance(bool tls) {
        static Agent_Server const with_tls(true), plain(false);
        return tls ? with_tls : plain;
    }
    Temporary_Directory const& files() const { return files_; }

private:
    explicit Agent_Server(bool tls) {
        std::vector<std::string> args{PROGRAM, files_.path()};
        Test_Certificates const& certificates = Test_Certificates::instance();
        if (tls)
            args.insert(args.end(), {certificates.certificate("good"), certificates.key("good")});
        child_ = std::make_unique<Server_Child>(args, "", files_.path("agent.log"), SIGTERM);
        while (!files_.exists("port")) {
            if (!child_->running())
                throw std::runtime_error("no agent: " + files_.read("agent.log"));
            usleep(1000);
        }
    }

    Temporary_Directory files_;
    std::unique_ptr<Server_Child> child_;
};

} // namespace

Xbsa_World::Xbsa_World(bool tls) : server_files_(Agent_Server::instance(tls).files()) {
    static int number = 0;
    std::filesystem::create_directory(pool_path());
    std::filesystem::create_directories(POLICIES);
    std::filesystem::create_directories(CERTIFICATES);
    for (std::string const& path : {files_.path(), pool_path(), std::string(POLICIES)})
        open_to_all(path);
    agent = Object_Maker()("key", KEY)("sets", Array{SET, OLDER_SET})(
        "pool", Object_Maker()("uuid", POOL_UUID)("name", "the pool")(
                    "url", "file://" + pool_path())("compression", "zstd")("compression_level", 3)(
                    "read_only", false)("device_uuids", Array{}));
    agent["world"] = ++number;
    save_agent();
    std::filesystem::remove(server_files_.path("calls.jsonl"));
    if (tls)
        std::filesystem::copy_file(Test_Certificates::instance().certificate("ca"),
                                   std::string(CERTIFICATES) + "/backupd.crt",
                                   std::filesystem::copy_options::overwrite_existing);
    policy = Object_Maker()("access_key", KEY)("backupd_host", "localhost")(
        "backupd_port", std::stoi(server_files_.read("port")))("backupd_ssl", tls)(
        "cluster_id", CLUSTER)("device_uuid", "")("pool_uuid", POOL_UUID)("uuid", SET)("retry", 0)(
        "resumption_buffer_size", 0)("compression", "zstd")("compression_level", 1)("version", 1)(
        "major", 8)("full_backup", true)("dest_rate_limits", "")("src_rate_limits", "");
    save_policy();
}

Xbsa_World::~Xbsa_World() {
    std::filesystem::remove_all(POLICIES);
    std::filesystem::remove_all(CERTIFICATES);
}

void Xbsa_World::save_policy(std::string const& name) const {
    write_file(policy_path(name), to_text(policy));
}

void Xbsa_World::save_agent() const {
    write_file(server_files_.path("agent.json"), to_text(agent));
}

std::vector<Object> Xbsa_World::calls(std::string const& method) const {
    std::vector<Object> result;
    std::istringstream lines(server_files_.read("calls.jsonl"));
    for (std::string line; std::getline(lines, line);) {
        Value call;
        if (parse(line, call, nullptr) && object_get_str(call.get_obj(), "method") == method)
            result.push_back(call.get_obj()["params"].get_obj());
    }
    return result;
}

std::string Xbsa_World::set_path(std::string const& set) const {
    return pool_path() + "/" + CLUSTER + "/xbsa/" + set;
}

std::string Xbsa_World::policy_path(std::string const& name) const {
    return std::string(POLICIES) + "/" + name;
}

size_t Xbsa_World::files_in_pool() const {
    size_t count = 0;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(pool_path()))
        count += entry.is_directory() ? 0 : 1;
    return count;
}

std::vector<std::string> Xbsa_World::data_files(std::string const& set) const {
    std::vector<std::string> result;
    if (std::filesystem::exists(set_path(set)))
        for (auto const& entry : std::filesystem::directory_iterator(set_path(set)))
            if (!entry.is_directory() && entry.path().filename().string()[0] != '.')
                result.push_back(entry.path());
    std::sort(result.begin(), result.end());
    return result;
}
