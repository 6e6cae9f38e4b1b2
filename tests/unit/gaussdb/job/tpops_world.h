#ifndef TESTS_UNIT_GAUSSDB_JOB_TPOPS_WORLD_H
#define TESTS_UNIT_GAUSSDB_JOB_TPOPS_WORLD_H

#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "gaussdb/job/gaussdb_tpops_backup_executor.h"
#include "gaussdb/job/gaussdb_tpops_restore_executor.h"
#include "host/storage/xbsa_folder.h"
#include "job/controllable_job_t.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/scoped_deleter.h"
#include "tests/support/data_service.h"
#include "tests/unit/gaussdb/job/cluster_world.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <fcntl.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Object_Maker;
using json_spirit::Value;

/** Waits for no time between two polls. */
template <typename Executor>
class Eager_Polls : public Executor {
public:
    explicit Eager_Polls(Job& job) : Executor(job) { this->sleep_interval_.set(0, 100); }
};

/**
 * An instance "c1" of a platform, resource "r-1" and on the platform "i-1", and a backup agent of
 * the user "daemon" at 127.0.0.1, port 7082. The platform is a real server over TLS, made anew for
 * each run: it gives the answers of `script_`, in which RUN stands for the run's id. The last
 * answer to a request goes on for ever. To be run with a private root and a private process table.
 */
class TPOPS_World : public Cluster_World {
public:
    struct Answer {
        int status;
        std::string body;
        Answer(std::string text) : status(200), body(std::move(text)) {}
        Answer(char const* text) : status(200), body(text) {}
        Answer(int code, char const* text) : status(code), body(text) {}
    };
    static constexpr char SUCCESS[] = "ended completed 0";
    static constexpr char FAILURE[] = "ended error -1";
    static constexpr char CANCELED[] = "ended canceled 0";
    static constexpr char RESOURCE[] = "r-1";
    static constexpr char AGENT[] = "backUpAgent host = 127.0.0.1 port = 7082 ssl = true";
    // requests of the platform
    static constexpr char DATABASES[] = "GET /rds/gaussdb/v3/instances/i-1/databases";
    static constexpr char PUT_INFO[] = "PUT /rds/gaussdb/v3/instances/i-1/extend-info";
    static constexpr char GET_INFO[] = "GET /rds/gaussdb/v3/instances/i-1/extend-info";
    static constexpr char MEDIA[] = "PUT /rds/gaussdb/v3/instances/i-1/change-backup-media";
    static constexpr char INSTANCES[] = "GET /rds/v3/instances";
    static constexpr char NODES[] = "GET /rds/gaussdb/v3/instances/i-1/agent/status";
    static constexpr char CREATE[] = "POST /rds/gaussdb/v3/backups";
    static constexpr char RECOVERY[] = "POST /rds/gaussdb/v3/instances/recovery";
    static constexpr char JOBS[] = "GET /rds/v3/jobs";
    static constexpr char BACKUPS[] = "GET /rds/gaussdb/v3.1/backups";
    static constexpr char DIFFERENTIALS[] =
        "GET /rds/gaussdb/v3/instances/i-1/differential-backups";
    static constexpr char TIMES[] =
        R"("begin_time":"2026-11-22T10:00:00+0000","end_time":"2026-11-22T10:30:00+0000")";

    void SetUp() override {
        Cluster_World::SetUp();
        server_name_ = "python3"; // of all servers of this program
        service(AGENT);
        script_ = {
            {DATABASES, {database_list({"1 KB", "1024"})}},
            {PUT_INFO, {"{}"}},
            {GET_INFO, {info_answer(R"({"ip": "127.0.0.1", "port": 7082, "ssl": true})")}},
            {MEDIA, {R"({"job_id":"m-1"})"}},
            {INSTANCES, {R"({"instances":[{"id":"i-1","name":"one"}]})"}},
            {NODES, {R"({"node_list":[{},{},{}]})"}},
            {CREATE, {R"({"job_id":"j-1"})"}},
            {RECOVERY, {R"({"job_id":"j-1"})"}},
            {JOBS, {job("completed")}},
            {BACKUPS, {backups("Physical_RUN")}},
            {DIFFERENTIALS,
             {R"({"differential_backups":[{"name":"Physical_RUN","id":"b-2",)" +
              std::string(TIMES) + "}]}"}},
        };
        jobs_.on_event([this](std::string const& event) {
            if (event == "state running")
                tell_platform();
            if (on_event_)
                on_event_(event);
        });
    }
    void TearDown() override {
        service_.reset();
        others_.clear();
        Cluster_World::TearDown();
        platform_.reset();
    }

    static std::string job(std::string const& status) {
        return R"({"job":{"status":")" + status + R"("}})";
    }
    static std::string backups(std::string const& name, std::string const& times = TIMES) {
        return R"({"backups":[{"name":"other","id":"b-0"},{"name":")" + name + R"(","id":"b-1",)" +
               times + R"(,"status":"completed"}]})";
    }
    static std::string database_list(Texts const& sizes) {
        Array list;
        for (std::string const& size : sizes) {
            TPOPS_Database_Info info;
            info.size = size;
            list.emplace_back(info.dump());
        }
        return json_spirit::to_text(
            Object_Maker()("total_count", static_cast<int>(list.size()))("databases", list));
    }
    /** What the platform keeps under a key. */
    static std::string info_answer(std::string const& value) {
        return json_spirit::to_text(Object_Maker()("value", value));
    }
    void say(std::string const& request, std::vector<Answer> answers) {
        script_[request] = std::move(answers);
    }
    void service(std::string const& command_line, std::string const& user = USER) {
        service_.reset();
        if (!command_line.empty())
            service_ = std::make_unique<Data_Service>(command_line, user);
    }

    /** Runs do not get what has this name. */
    void refuse_hold(std::string const& resource) {
        jobs_.on_hold([resource](std::set<std::string> const& resources) {
            return Hold_Answer{resources.contains(resource) ? Hold_Answer::REFUSED
                                                            : Hold_Answer::GRANTED,
                               "not yours"};
        });
    }

    /** A new platform, and the instance's record with it. */
    void new_platform() {
        platform_.reset();
        platform_ = std::make_unique<TPOPS_Platform>(Https_Server::Options(), logs_in_);
        if (!logs_in_)
            platform_->on_login_refused();
        auto* const cluster = new GaussDB_TPOPS_Handler;
        GaussDB_Cluster_Info info;
        info.name = "c1";
        info.extend_attrs = platform_->record("i-1");
        Object const more{{"xbsa_host", "127.0.0.1"},
                          {"xbsa_port", 7082},
                          {"xbsa_ssl", true},
                          {"version", "505.2"}};
        info.extend_attrs.insert(more.begin(), more.end());
        for (auto const& [key, value] : record_changes_)
            info.extend_attrs[key] = value;
        for (std::string const& key : record_lacks_)
            info.extend_attrs.erase(key);
        cluster->info(info);
        EXPECT_TRUE(cluster->init(""));
        for (std::string const& key : record_loses_) {
            info.extend_attrs.erase(key);
            cluster->info(info);
        }
        GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
        EXPECT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("c1", cluster));
    }
    void tell_platform() {
        std::string const run = jobs_.run_ids().back();
        for (auto const& [request, answers] : script_)
            for (Answer const& answer : answers)
                platform_->on(request, answer.status,
                              std::regex_replace(answer.body, std::regex("RUN"), run));
    }

    void make_definition(Job_Definition_Type type, std::string const& target) {
        def_ = definition(type);
        Job_Target job_target;
        job_target.id(target);
        job_target.device_id("device-1");
        def_->target(job_target);
    }
    template <typename Executor>
    std::string run_job(std::string const& lock) {
        new_platform();
        return run(Job_var(new Controllable_Job_T<Eager_Polls<Executor>>(def_), false), lock);
    }

    /** Requests other than logins, as "GET /path", in order; a repeated one once. */
    Texts asked() {
        Texts found;
        for (Https_Server::Request const& request : platform_->calls()) {
            std::string const one =
                request.method + " " + request.target.substr(0, request.target.find('?'));
            if (found.empty() || found.back() != one)
                found.push_back(one);
        }
        return found;
    }
    size_t count(std::string const& request) {
        size_t number = 0;
        for (Https_Server::Request const& each : platform_->calls())
            number += each.method + " " + each.target.substr(0, each.target.find('?')) == request;
        return number;
    }
    /** The bodies of these requests, in order. */
    std::vector<Object> bodies(std::string const& request) {
        std::vector<Object> found;
        for (Https_Server::Request const& each : platform_->calls())
            if (each.method + " " + each.target == request) {
                Value body;
                EXPECT_TRUE(json_spirit::parse(each.body, body, nullptr)) << each.body;
                found.push_back(body.get_obj());
            }
        return found;
    }
    std::string last_target(std::string const& path) {
        std::string found;
        for (Https_Server::Request const& each : platform_->calls())
            if (each.target.starts_with(path))
                found = each.target;
        return found;
    }
    std::string set_uuid() const { return jobs_.run_ids().back(); }
    Object set() const { return catalog_->row(set_uuid()); }
    std::string text_of_set(char const* key) const {
        return json_spirit::object_get_str(set(), key);
    }
    int64_t number_of_set(char const* key) const {
        return json_spirit::object_get_int64_or_throw(set(), key);
    }
    Value policy(std::string const& name) const {
        Value value;
        EXPECT_TRUE(json_spirit::parse(content(root(name)), value, nullptr)) << content(root(name));
        return value;
    }
    /** Adds pieces to the set, as the XBSA library does. */
    void add_pieces(std::vector<std::pair<std::string, int>> const& pieces) {
        Array list;
        for (auto const& [path, size] : pieces)
            list.emplace_back(Object{{"path", path}, {"size", size}});
        EXPECT_TRUE(catalog_->add_piece({-1, -1}, set_uuid(), list));
    }
    /** Sets the first count of the run's counter file, as the XBSA library does. */
    void count_bytes(std::string const& policy_name, uint64_t bytes) const {
        File_Descriptor const file(open(root(policy_name + "_act").c_str(), O_RDWR));
        EXPECT_EQ(static_cast<ssize_t>(sizeof bytes), pwrite(file.get(), &bytes, sizeof bytes, 0));
    }
    /** Takes the lines that a platform which refuses a request leaves. */
    static void claim_request_errors() {
        EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, "TPOPS request "));
    }
    bool exists_here(std::string const& name) const { return exists(root(name)); }

    std::map<std::string, std::vector<Answer>> script_;
    std::function<void(std::string const& event)> on_event_;
    bool logs_in_ = true;
    Object record_changes_;
    Texts record_lacks_; ///< keys that the record does not have
    Texts record_loses_; ///< keys that it loses once the handler has read it
    std::unique_ptr<TPOPS_Platform> platform_;
    std::unique_ptr<Data_Service> service_;
    std::vector<std::unique_ptr<Data_Service>> others_;
    Job_Definition_var def_;
};

#endif
