#ifndef TESTS_UNIT_GAUSSDB_JOB_CLUSTER_WORLD_H
#define TESTS_UNIT_GAUSSDB_JOB_CLUSTER_WORLD_H

#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_200_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "host/job/job.h"
#include "host/job/job_mutex.h"
#include "tests/support/database_tools.h"
#include "tests/support/fake_instances.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/zombies.h"
#include "tests/unit/gaussdb/job/roach_world.h"

#include <ace/Thread_Manager.h>

#include <functional>
#include <gmock/gmock.h>
#include <regex>

/** A real handler of a cluster whose topology the test says. */
template <typename Handler>
class Known_Cluster : public Handler {
public:
    Known_Cluster(GaussDB_Env const& env, char const* user, GaussDB_Version const& version,
                  GaussDB_Cluster_Handler::Cluster_Type type)
        : Handler(env, user, version) {
        this->type_ = type;
        this->conf_ = "/etc/c1.xml";
    }
};

/** How a run must fail: what breaks, what is told, and what is left. */
template <typename World>
struct Failing_Step {
    std::string name;
    std::function<void(World&)> breaks;
    std::string alert; ///< "alert 7 3"; "" for none
    ACE_Log_Priority priority;
    std::string message;
    std::vector<std::string> also_logged; ///< by the layers below, at any priority
    std::vector<std::string> catalog;     ///< the calls, with the set's uuid as SET
};
template <typename World>
void PrintTo(Failing_Step<World> const& step, std::ostream* out) {
    *out << step.name;
}

/**
 * A Roach_World with a cluster "c1" of two hosts, "here" and "other", whose tools are scripted,
 * with jobs and the instance's record. To be run with a private root.
 */
class Cluster_World : public Roach_World {
public:
    using Texts = std::vector<std::string>;
    // the tables of failing steps reach into it
    using Roach_World::catalog_;
    using Roach_World::exists;
    using Roach_World::pool_;
    using Roach_World::pools_;
    using Roach_World::root;
    using Roach_World::upstream_;
    using Roach_World::write;
    static constexpr char DEFINITION[] = "00112233-4455-6677-8899-aabbccddeeff";
    static constexpr char UID[] = "ffeeddcc-bbaa-9988-7766-554433221100";

    void SetUp() override {
        Roach_World::SetUp();
        Host_Manager::instance()->name("host1");
        GaussDB_Cluster_Manager::close_instance();
        std::filesystem::permissions(files_.path(), std::filesystem::perms(0755));
        files_.write("gp/script/x", "");
        files_.write("roach/x", "");
        write("/home/daemon/.profile", "export SSH_AUTH_SOCK=/sock\n");
        tools_.env().set_env("GPHOME", files_.path("gp"));
        tools_.env().set_env("ROACH_HOME", files_.path("roach"));
        cluster_is("Normal", "Yes");
        tools_.script("gsql", "out PostgreSQL 9.2.4 (GaussDB Kernel V300R002C00 build 1)");
        tools_.script("zsql", "out VERSION\nout -------\nout GaussDB_100_1.0.1\nexit 0");
        instances_->put({"gaussdb", "c1", "uuid-1", {}, {}});
        serve_hosts({"here", "other"});
        serve_other(rpc_result(json_spirit::Value(true)));
        make_cluster(GAUSSDB_200);
    }
    void TearDown() override {
        ACE_Thread_Manager::instance()->wait(); // a job thread is on our code until it has ended
        GaussDB_Cluster_Manager::close_instance();
        rm_rf("/home/daemon");
        Roach_World::TearDown();
        EXPECT_THAT(children_of_runs(), testing::IsEmpty());
    }

    void
    make_cluster(GAUSSDB_VERSION flavour, unsigned major = 8,
                 GaussDB_Cluster_Handler::Cluster_Type type = GaussDB_Cluster_Handler::TYPE_HA) {
        GaussDB_Version const version(flavour, major, 1, 1);
        GaussDB_Cluster_Handler* cluster = nullptr;
        if (flavour == GAUSSDB_100)
            cluster =
                new Known_Cluster<GaussDB_100_Cluster_Handler>(tools_.env(), USER, version, type);
        else
            cluster =
                new Known_Cluster<GaussDB_200_Cluster_Handler>(tools_.env(), USER, version, type);
        GaussDB_Cluster_Info info;
        info.name = "c1";
        info.devices.resize(2);
        info.devices[0].name = "host1";
        info.devices[1].name = "host2";
        cluster->info(info);
        GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
        ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("c1", cluster));
        cluster_ = cluster;
    }
    void cluster_is(std::string const& state, std::string const& balanced) {
        tools_.script("gs_om", "out cluster_state   : " + state +
                                   "\nout balanced        : " + balanced + "\nexit 0");
    }
    /** A tool begins anew: this is its first call. */
    void new_script(std::string const& tool, std::string const& text) {
        std::filesystem::remove(tools_.path("calls/" + tool + ".count"));
        std::filesystem::remove(tools_.path(tool + ".go"));
        tools_.script(tool, text);
    }
    void serve_hosts(Texts const& uuids) {
        json_spirit::Array hosts;
        for (std::string const& uuid : uuids)
            hosts.emplace_back(json_spirit::Object{{"host_uuid", uuid}});
        json_spirit::Array const rows{json_spirit::Object{{"form", "x"}, {"instances", hosts}}};
        upstream_->serve(HTTP_METHOD_GET, "/d2/r/v2/resources",
                         rest_answer(200, json_spirit::Object{{"rows", rows}}));
    }
    void serve_other(RPC_Answer answer) {
        upstream_->serve_forward("other", "gaussdb.roach_source", std::move(answer));
    }
    static Job_Definition_var definition(Job_Definition_Type type) {
        Job_Definition_var def(new Job_Definition);
        def->id(DEFINITION);
        def->uid(UID);
        def->name("nightly");
        def->host_id("host-1");
        def->agent("gaussdb");
        def->type(type);
        return def;
    }

    /**
     * Runs a job to its end. Whatever it was, nobody holds the lock then, no child is there, and
     * the outcome was told once: it is returned, "ended completed 0" for one.
     */
    std::string run(Job_var const& job, std::string const& lock) {
        job_ = job;
        EXPECT_EQ(0, job->start());
        EXPECT_TRUE(jobs_.wait_for_finished());
        ACE_Thread_Manager::instance()->wait();
        ACE_Thread_Mutex& mutex = Job_Mutex::get(lock);
        EXPECT_EQ(0, mutex.tryacquire()) << "the lock is still held";
        mutex.release();
        EXPECT_THAT(children_of_runs(), testing::IsEmpty());
        Texts const ends = events_with("ended ");
        EXPECT_LE(ends.size(), jobs_.run_ids().size());
        return ends.empty() ? "" : ends.front();
    }
    /** The processes that this one has started, beside the test's own server. */
    Texts children_of_runs() const {
        Texts children = children_in_proc();
        std::erase_if(children, [&](std::string const& child) {
            return !server_name_.empty() && child.find("(" + server_name_ + ")") != child.npos;
        });
        return children;
    }
    Texts events_with(std::string const& prefix) const {
        Texts found;
        for (std::string const& event : jobs_.events())
            if (event.starts_with(prefix))
                found.push_back(event);
        return found;
    }
    /** Calls of the catalog from catalog_mark_ on, with the run's set as SET. */
    Texts catalog_calls() const {
        Texts calls = catalog_->calls();
        calls.erase(calls.begin(), calls.begin() + static_cast<ptrdiff_t>(catalog_mark_));
        for (std::string& call : calls)
            for (std::string const& id : jobs_.run_ids())
                call = std::regex_replace(call, std::regex(id), "SET");
        return calls;
    }
    /** The words of a tool's call as one line, its port as PORT. */
    std::string line(std::string const& tool, size_t number = 1) const {
        std::string text;
        for (std::string const& word : tools_.call(tool, number).args)
            text += (text.empty() ? "" : " ") + word;
        return std::regex_replace(text, std::regex("(--master-port[= ])[1-9][0-9]*"), "$1PORT");
    }
    bool policy_is_there() const { return exists(root("pool-1")); }

    /** Whether a failed run was as the table says. */
    template <typename World>
    void expect_failed(Failing_Step<World> const& step, std::string const& outcome) {
        EXPECT_EQ("ended error -1", outcome);
        EXPECT_EQ(step.alert.empty() ? Texts{} : Texts{step.alert}, events_with("alert "));
        EXPECT_LOGGED(step.priority, step.message);
        for (std::string const& text : step.also_logged) {
            size_t const lines = Log_Capture::instance().claim_all(LM_ERROR, text) +
                                 Log_Capture::instance().claim_all(LM_WARNING, text);
            EXPECT_LT(0u, lines) << text;
        }
        EXPECT_EQ(step.catalog, catalog_calls());
        EXPECT_FALSE(is_regular_file(root("pool-1").c_str())) << "the policy of a failed run";
    }

    Temporary_Directory files_;
    Database_Tools tools_;
    Fake_Jobs jobs_;
    Fake_Instances instances_;
    Job_var job_;
    std::string server_name_; ///< of a server that a test keeps running; "" for none
    size_t catalog_mark_ = 0;
    GaussDB_Cluster_Handler* cluster_ = nullptr; ///< the registry's
};

#endif
