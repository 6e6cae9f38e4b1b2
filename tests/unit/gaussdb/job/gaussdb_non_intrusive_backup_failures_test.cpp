#include "tests/unit/gaussdb/job/non_intrusive_backup_fixture.h"

#include "host/catalog/catalog_operator.h"

#include <fstream>
#include <future>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;
using testing::IsEmpty;

// hostile names

TEST_F(Non_Intrusive_Backup_Test, names_that_could_be_more_than_names_reach_no_shell) {
    for (std::string const& hostile :
         {std::string("x;touch /home/daemon/hacked"), std::string("$(id)"), std::string("`id`"),
          std::string("a'b"), std::string("a\"b"), std::string("-x"), std::string("a b"),
          std::string("a\nb"), std::string("a\\b")}) {
        options_->logging_level_ = hostile;
        expect_refused("Invalid logging level '");
        options_->logging_level_ = "";
        source_->schemas_[hostile] = {"s"};
        expect_refused("Invalid database '");
        source_->schemas_.clear();
        if (hostile.find('\n') != std::string::npos) {
            source_->schemas_["a"] = {hostile};
            expect_refused("Invalid schema '");
            source_->schemas_.clear();
        }
        for (char const* key : {"address", "meta_path"}) {
            record_is({{key, hostile}});
            expect_refused("Failed to get gaussdb instance info.\n",
                           "Invalid record of instance c1");
        }
        record_is({});
    }
    for (auto const& [key, hostile] : {std::pair{"ssh_options", "-o ProxyCommand=id"},
                                       {"ssh_options", "-o StrictHostKeyChecking=no"},
                                       {"ssh_options", "-F /tmp/x"},
                                       {"source_commands", "a' -oProxyCommand=id '"}}) {
        record_is({{key, hostile}});
        expect_refused("Failed to get gaussdb instance info.\n", "Invalid record of instance c1");
    }
    EXPECT_EQ(1u, sent("ssh ")) << "beside the question for the port at the beginning";
}

TEST_F(Non_Intrusive_Backup_Test, what_the_node_says_of_itself_is_checked) {
    for (char const* said : {"x;id", "$(id)", "a'b", "-x", "a b"}) {
        new_script("hostname", std::string("out ") + said);
        expect_refused("Failed to get database host name.\n", "Invalid host name of the node");
    }
    new_script("hostname", "out cn1");
    for (char const* said : {"x;id", "$(id)", "a'b", "../x", "a b"}) {
        new_script("whoami", std::string("out ") + said);
        expect_refused("Failed to get database roach agent user.\n", "Invalid user of the node");
    }
}

TEST_F(Non_Intrusive_Backup_Test, a_key_of_the_catalog_is_checked) {
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    add_prior("1;touch /home/daemon/hacked", "full", 1);
    expect_refused("Invalid key of the prior backup");
}

// the service on this host

TEST_F(Non_Intrusive_Backup_Test, without_the_service_there_is_no_backup) {
    service("");
    expect_refused("Failed to get roach client info.\n");
}

TEST_F(Non_Intrusive_Backup_Test, of_services_of_two_users_neither_is_believed) {
    Data_Service const other("roach_client -p 6666", "bin");
    expect_refused("Failed to get roach client info.\n", " run a roach_client (process ");
    EXPECT_FALSE(policy_of(RESOURCE));
}

TEST_F(Non_Intrusive_Backup_Test, a_process_that_only_mentions_the_service_is_none) {
    Data_Service const other("tail roach_client.log", "bin");
    EXPECT_EQ(SUCCESS, backup());
}

TEST_F(Non_Intrusive_Backup_Test, a_backup_agent_with_a_host_that_is_none) {
    opengauss();
    service("backUpAgent host=$(id) port=1");
    expect_refused("Failed to get roach client info.\n", "Invalid host of the backUpAgent");
}

// the end of the run

TEST_F(Non_Intrusive_Backup_Test, a_tool_that_prints_no_key_completes_the_set) {
    tool_works("");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ("", set().at("backup_key").get_str());
    EXPECT_FALSE(catalog_->is_open(jobs_.run_ids().back()));
}

TEST_F(Non_Intrusive_Backup_Test, sizes_come_from_the_catalog) {
    new_script("GaussRoach.py", "out Backup key: 1_1\nwait\nexit 0");
    std::string const outcome = run_while<Kind>(def_, RESOURCE, [&](Job&) {
        Array const pieces{Object{{"path", "a"}, {"size", 100}},
                           Object{{"path", "b"}, {"size", 23}}};
        EXPECT_TRUE(Catalog_Operator(-1, -1).add_piece(jobs_.run_ids().back(), pieces));
        tools_.go("GaussRoach.py");
    });
    EXPECT_EQ(SUCCESS, outcome);
    EXPECT_EQ(123, set().at("backup_set_size").get_int());
    EXPECT_EQ(123, set().at("source_size").get_int());
    EXPECT_EQ(123u, job_->activity().size);
    EXPECT_EQ(123u, job_->activity().set_size);
    EXPECT_EQ(123u, job_->activity().set_storage_size);
}

// what it has for itself

TEST_F(Non_Intrusive_Backup_Test, it_has_the_instance_and_the_node_for_itself) {
    expect_holds("instance/dws-1", "metadata/here node/127.0.0.1 node/cn1 policy/here/dws-1");
}

TEST_F(Non_Intrusive_Backup_Test, another_address_of_the_same_node_is_the_same_node) {
    record_is({{"address", "omm@Localhost"}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.holds(),
                testing::Contains("hold metadata/here node/cn1 node/localhost policy/here/dws-1"));
}

TEST_F(Non_Intrusive_Backup_Test, nothing_is_changed_before_it_has_the_node) {
    options_->clean_meta_ = true;
    source_->schemas_["a"] = {"s"};
    expect_nothing_before_hold("/home/daemon/zenbrak3_schema.txt");
}

TEST_F(Non_Intrusive_Backup_Test, it_has_the_node_until_the_policy_is_taken_back) {
    serve_hosts({"other"});
    std::vector<size_t> steps;
    serve_other([&](json_spirit::Value const& params, JSON_RPC_Reply& reply) {
        steps.push_back(jobs_.holds().size());
        return rpc_result(json_spirit::Value(true))(params, reply);
    });
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(steps, testing::ElementsAre(2, 2))
        << "told and taken back between hold and release";
}

TEST_F(Non_Intrusive_Backup_Test, one_that_waits_shows_for_what_and_goes_on) {
    expect_waiting_shown();
}

TEST_F(Non_Intrusive_Backup_Test, one_that_waits_can_be_canceled) {
    expect_wait_canceled();
}

TEST_F(Non_Intrusive_Backup_Test, one_that_waits_for_a_restore_can_be_canceled) {
    // which has the mutex of its resource to its end
    std::promise<int> begun;
    std::promise<void> end;
    std::thread restore([&] {
        ACE_Thread_Mutex& mutex = Job_Mutex::get(RESOURCE);
        begun.set_value(mutex.acquire());
        end.get_future().wait();
        mutex.release();
    });
    EXPECT_EQ(0, begun.get_future().get());
    jobs_.on_hold([&](std::set<std::string> const&) {
        EXPECT_EQ(0, job_->abort());
        return Hold_Answer{Hold_Answer::WAIT, "job x"};
    });
    jobs_.on_event([&](std::string const& event) {
        if (event != "finished")
            return;
        end.set_value();
        restore.join();
    });
    EXPECT_EQ("ended canceled 0", backup());
}

// a failure of each step

class Failing_Backup_Test : public Non_Intrusive_Backup_Test,
                            public testing::WithParamInterface<Non_Intrusive_Backup_Test::Failure> {
};

TEST_P(Failing_Backup_Test, leaves_no_half_set_and_no_child) {
    expect_failed(GetParam());
}

std::vector<Non_Intrusive_Backup_Test::Failure> backup_failures() {
    using World = Non_Intrusive_Backup_Test::Runs;
    std::string const asked = "get_view catalogs";
    std::vector<std::string> const dropped{asked, "initialize SET", "abort SET"};
    return {
        {"no_options",
         [](World& w) { w.def_->options(Job_Options_var()); },
         "",
         "opts_ is NULL",
         {},
         {},
         false},
        {"no_record",
         [](World& w) {
             w.record_is({{"backup_port", 70000}});
         },
         "",
         "Failed to get gaussdb instance info.\n",
         {"Failed to get DWS instance info, "},
         {},
         false},
        {"no_service",
         [](World& w) { w.service(""); },
         "",
         "Failed to get roach client info.\n",
         {},
         {},
         false},
        {"no_way_in",
         [](World& w) { w.ssh_fails("hostname"); },
         "",
         "Failed to get database host name.\n",
         {"no way"},
         {},
         false},
        {"sequence",
         [](World& w) { w.catalog_->fail("get_view"); },
         "",
         "The catalog fails to get_view",
         {},
         {asked},
         false},
        {"policy",
         [](World& w) {
             w.serve_hosts({"other"});
             w.serve_other(rpc_error(-1, "no"));
         },
         "",
         "Failed to dump policy file.\n",
         {"Failed to notify roach policy to agent other", "gaussdb.roach_source"},
         {asked},
         false},
        {"user",
         [](World& w) { w.ssh_fails("whoami"); },
         "",
         "Failed to get database roach agent user.\n",
         {"no way"},
         {asked},
         true},
        {"databases",
         [](World& w) { w.ssh_fails("datname"); },
         "",
         "Failed to get GaussDB databases.\n",
         {"Failed to get tables from GaussDB.\n", "no way"},
         {asked},
         true},
        {"schemas",
         [](World& w) { w.ssh_fails("nspname"); },
         "",
         "Failed to get GaussDB schemas, database: postgres.\n",
         {"Failed to get tables from GaussDB.\n", "Failed to get database schemas.\n", "no way"},
         {asked},
         true},
        {"tables",
         [](World& w) { w.ssh_fails("tablename"); },
         "",
         "Failed to get GaussDB tables, schema: public, database: postgres\n",
         {"Failed to get tables from GaussDB.\n", "Failed to get tables of schema public\n",
          "no way"},
         {asked},
         true},
        {"initialize",
         [](World& w) { w.catalog_->fail("initialize"); },
         "alert 7 8",
         "Failed to initialize gaussdb catalog\n",
         {"The catalog fails to initialize"},
         {asked, "initialize SET"},
         true},
        {"tool",
         [](World& w) { w.new_script("GaussRoach.py", "err no space\nexit 1"); },
         "",
         "Failed to execute roach backup.\n",
         {"no space"},
         dropped,
         true},
        {"tool_that_dies",
         [](World& w) { w.new_script("GaussRoach.py", "signal 9"); },
         "",
         "Failed to execute roach backup.\n",
         {"GaussRoach.py"},
         dropped,
         true},
        {"cut_connection",
         [](World& w) { w.ssh_fails("GaussRoach.py -t backup"); },
         "",
         "Failed to execute roach backup.\n",
         {"no way"},
         dropped,
         true},
        {"complete",
         [](World& w) { w.catalog_->fail("complete"); },
         "",
         "Failed to commit gaussdb catalog\n",
         {"The catalog fails to complete"},
         {asked, "initialize SET", asked, "complete SET", "abort SET"},
         true},
        {"abort",
         [](World& w) {
             w.catalog_->fail("abort");
             w.new_script("GaussRoach.py", "exit 1");
         },
         "",
         "Failed to abort gaussdb catalog\n",
         {"The catalog fails to abort", "Failed to execute roach backup.\n", "status 1"},
         dropped,
         true},
    };
}

INSTANTIATE_TEST_SUITE_P(Steps, Failing_Backup_Test, testing::ValuesIn(backup_failures()),
                         [](auto const& step) { return step.param.name; });

// a cancel

TEST_F(Non_Intrusive_Backup_Test, a_cancel_stops_the_tool_and_drops_the_set) {
    new_script("GaussRoach.py",
               "wait\nexit 1\n---\nrun touch " + tools_.path("GaussRoach.py.go") + "\nexit 0");
    EXPECT_EQ("ended canceled 0",
              run_while<Eager_Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.abort()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_EQ(2u, roach_calls()) << "it is told once";
    EXPECT_EQ(1u, sent("source ~/gauss_env_file")) << "with the tool's own way in";
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach backup.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
}

TEST_F(Non_Intrusive_Backup_Test, a_run_that_is_cancelled_now_stops_the_tool_as_well) {
    new_script("GaussRoach.py", "wait\nexit 1\n---\nexit 0");
    // its stop thread looks every 2 seconds
    EXPECT_EQ("ended canceled 0",
              run_while<Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.abort_now()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_EQ(2u, roach_calls()) << "it is told once";
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach backup.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_NOT_LOGGED("No tool is started");
    EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
}

TEST_F(Non_Intrusive_Backup_Test, a_run_that_is_cancelled_now_leaves_no_list_on_the_node) {
    source_->schemas_["a"] = {"s"};
    tool("gsql", "\ncase \"$*\" in *tablename*) touch DIR/asked; exec sleep 600;; esac\n");
    Job_var const job(new Kind(def_), false);
    std::thread beside([&] {
        while (!exists(tools_.path("asked")))
            std::this_thread::yield();
        EXPECT_TRUE(exists("/home/daemon/zenbrak3_schema.txt"));
        EXPECT_EQ(0, job->abort_now());
    });
    EXPECT_EQ("ended canceled 0", run(job, RESOURCE));
    beside.join();
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_schema.txt"));
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to get ");
    Log_Capture::instance().claim_all(LM_WARNING, "ssh");
}

TEST_F(Non_Intrusive_Backup_Test, a_cancel_before_the_tool_runs_nothing_and_drops_the_set) {
    // the last question before the tool: the run is canceled while it is answered
    new_script("gs_guc", "exit 0");
    tool("gsql",
         "\ncase \"$*\" in *tablename*) touch DIR/asked; while [[ ! -e DIR/go ]]; do :; done;; "
         "*nspname*) echo public;; *datname*) echo postgres;; esac\n");
    Job_var const job(new Kind(def_), false);
    std::thread beside([&] {
        while (!exists(tools_.path("asked")))
            std::this_thread::yield();
        EXPECT_EQ(0, job->abort());
        give("go", "");
    });
    EXPECT_EQ("ended canceled 0", run(job, RESOURCE));
    beside.join();
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to get nodes number.\n");
    EXPECT_EQ(0u, roach_calls());
    EXPECT_THAT(catalog_calls(), testing::Contains("abort SET"));
    EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
}

} // namespace
