#ifndef TESTS_UNIT_GAUSSDB_JOB_BACKUP_JOB_FIXTURE_H
#define TESTS_UNIT_GAUSSDB_JOB_BACKUP_JOB_FIXTURE_H

#include "gaussdb/job/gaussdb_backup_job_executor.h"
#include "job/default_job_t.h"
#include "json_spirit/access.h"
#include "tests/unit/gaussdb/job/cluster_world.h"

#include <algorithm>
#include <thread>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

/** Looks at the progress as often as it can. */
class Eager_Executor : public GaussDB_Backup_Job_Executor {
public:
    explicit Eager_Executor(Job& job) : GaussDB_Backup_Job_Executor(job) {
        sleep_interval_.set(0, 1000);
    }
};

inline constexpr char META[] = "/var/cache/quilmot/zenbrak3/gaussdb/meta";

class GaussDB_Backup_Job_Executor_Test : public Cluster_World {
public:
    void SetUp() override {
        Cluster_World::SetUp();
        def_ = definition(JOB_DEFINITION_BACKUP);
        def_->subtype(JOB_DEFINITION_SUBTYPE_FULL);
        Job_Target target;
        target.id("pool-1");
        target.device_id("device-1");
        def_->target(target);
        source_ = new GaussDB_Backup_Job_Source;
        source_->id("cluster-1");
        source_->instance_ = "c1";
        def_->source(Job_Source_var(source_));
        options_ = new GaussDB_Backup_Job_Options;
        def_->options(Job_Options_var(options_));
        roach_works();
    }

    /** What the tool leaves in its metadata directory, as a command line. */
    static std::string leave(std::string const& key, std::string const& file,
                             std::string const& size) {
        std::string const meta = META;
        return "run mkdir -p " + meta + "/roach/" + key + " && echo one >" + meta + "/roach/" +
               key + "/one && echo config >" + meta +
               "/bak_cluster_static_config.common && echo '"
               R"({"BackupDetails":[{"BackupKey":")" +
               key + R"(","BackupSize":)" + size + R"(}]}' >)" + meta + "/" + file + "\n";
    }
    /** The tool of the 200 series does a backup. */
    void roach_works(std::string const& key = "2_2", std::string const& then = "") {
        tools_.script("python3", leave(key, "backups.ini", "5000UL") +
                                     "out \\e[0mN1: 50.00%\nout Backup key: " + key + "\n" + then +
                                     "\nexit 0");
    }
    /** The tool of the 100 series does. */
    void roach_100_works(std::string const& then = "") {
        new_script("python", leave("2_2", "backupset_nbu.ini", "\"5 KB\"") +
                                 "out backup key: 2_2\n" + then + "\nexit 0");
    }
    void roach_fails() { tools_.script("python3", "err no space\nexit 1"); }

    /** A set of the resource in the pool, complete. */
    void add_prior(std::string const& key = "1_1", int seq = 4) {
        catalog_->add_row(Object{{"uuid", "set-" + key},
                                 {"resource_uuid", "cluster-1"},
                                 {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                                 {"incarnation", "the-full-one"},
                                 {"backup_key", key},
                                 {"backup_end_time", 1000 + seq},
                                 {"seq", seq}});
    }
    /** The tool's metadata knows a backup. */
    void metadata_has(std::string const& key) const {
        write(std::string(META) + "/backups.ini",
              R"({"BackupDetails":[{"BackupKey":")" + key + R"(","BackupSize":1}]})");
    }

    template <typename Executor = GaussDB_Backup_Job_Executor>
    std::string backup() {
        return run(Job_var(new Default_Job_T<Executor>(def_), false), source_->id());
    }
    /** Does something while the tool is at work. @return how the run ended */
    template <typename Executor = GaussDB_Backup_Job_Executor, typename Action>
    std::string backup_while(std::string const& tool, Action action) {
        std::thread beside([&] {
            while (tools_.calls(tool) == 0)
                std::this_thread::yield();
            action();
            tools_.go(tool);
        });
        std::string const outcome = backup<Executor>();
        beside.join();
        return outcome;
    }
    Object set() const { return catalog_->row(jobs_.run_ids().back()); }
    std::string set_uuid() const { return jobs_.run_ids().back(); }
    /** Everything in the pool, by its name. */
    Texts objects() const {
        Texts names;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(pool_.path()))
            if (entry.is_regular_file())
                names.push_back(std::filesystem::relative(entry.path(), pool_.path()));
        std::sort(names.begin(), names.end());
        return names;
    }
    Texts pieces() const {
        Texts names;
        Array const pieces = set().at("pieces").get_array();
        for (Object const& piece : json_spirit::objects_of(pieces))
            names.push_back(json_spirit::object_get_str(piece, "path"));
        std::sort(names.begin(), names.end());
        return names;
    }
    Object last_request(std::string const& action) const {
        Object found;
        for (auto const& call : upstream_->rpc_calls())
            if (json_spirit::object_get_str(call.params.get_obj(), "action") == action)
                found = call.params.get_obj();
        return found;
    }

    Job_Definition_var def_;
    GaussDB_Backup_Job_Source* source_ = nullptr;
    GaussDB_Backup_Job_Options* options_ = nullptr;
};

inline constexpr char SUCCESS[] = "ended completed 0";
inline constexpr char FAILURE[] = "ended error -1";

#endif
