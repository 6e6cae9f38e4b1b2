#include "tests/unit/gaussdb/job/non_intrusive_world.h"

#include "json_spirit/access.h"

#include <future>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;
using testing::IsEmpty;

using Restore_Executor = GaussDB_Non_Intrusive_Restore_Job_Executor;
using Restore_Kind = Controllable_Job_T<Restore_Executor>;

class Non_Intrusive_Restore_Test : public Non_Intrusive_World {
public:
    void SetUp() override {
        Non_Intrusive_World::SetUp();
        def_ = definition(JOB_DEFINITION_RESTORE);
        target(RESOURCE);
        source_ = new GaussDB_Restore_Job_Source;
        source_->id(RESOURCE);
        source_->backup_key_ = "2_2";
        source_->restore_as_ = "gaussdb/c1";
        def_->source(Job_Source_var(source_));
        options_ = new GaussDB_Restore_Job_Options;
        options_->channels_ = 2;
        def_->options(Job_Options_var(options_));
        add_set("1_1", "", 1);
        add_set("2_2", "1_1", 2);
        tool_works("");
        catalog_mark_ = catalog_->calls().size();
    }
    void target(std::string const& id) {
        Job_Target target;
        target.id(id);
        def_->target(target);
    }
    /** A complete set of the resource, with other values for some keys. */
    void add_set(std::string const& key, std::string const& prior, int when,
                 Object const& changes = {}) {
        Object row{{"uuid", "set-" + key},
                   {"resource_uuid", RESOURCE},
                   {"pool_uuid", "pool-1"},
                   {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                   {"incarnation", "full"},
                   {"backup_key", key},
                   {"prior_backup_key", prior},
                   {"backup_set_size", 100 * when},
                   {"nodes_count", 2},
                   {"granularity", ""},
                   {"database", ""},
                   {"compression", "zstd"},
                   {"host", "old" + std::to_string(when)},
                   {"series", 4},
                   {"backup_start_time", when},
                   {"backup_end_time", when}};
        for (auto const& [name, value] : changes)
            row[name] = value;
        catalog_->add_row(row);
    }
    void as_new_cluster() {
        target("dws-2");
        options_->xml_config_path_ = "/gauss/new.xml";
    }
    void as_tables() {
        def_->subtype(JOB_DEFINITION_SUBTYPE_TABLE);
        source_->tables_["sales"].push_front({"public", "t2", "public", "t2_back"});
        source_->tables_["sales"].push_front({"public", "t1", "old", "T 1"});
    }
    void opengauss() {
        Non_Intrusive_World::opengauss();
        add_set("1_1", "", 1, {{"series", 5}});
        add_set("2_2", "1_1", 2, {{"series", 5}});
    }
    std::string restore() {
        return run(Job_var(new Restore_Kind(def_), false), def_->target().id());
    }
    void expect_refused(std::string const& message, std::string const& also = "") {
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, message);
        if (!also.empty()) {
            EXPECT_LOGGED(LM_ERROR, also);
        }
        EXPECT_EQ(0u, roach_calls());
        EXPECT_FALSE(policy_of(def_->target().id()));
    }
    /** The tool's line with the time in the metadata directory's name as TIME. */
    std::string restore_line() const {
        return std::regex_replace(roach_line(), std::regex("zenbrak3_meta_[0-9]{8}_[0-9]{6}"),
                                  "zenbrak3_meta_TIME");
    }

    Job_Definition_var def_;
    GaussDB_Restore_Job_Source* source_ = nullptr;
    GaussDB_Restore_Job_Options* options_ = nullptr;
};

std::string const DWS_BEGIN =
    "GaussRoach.py -t restore --backup-key 2_2 --master-port 9000 --media-type NBU "
    "--media-destination dws-1 --metadata-destination /home/daemon/zenbrak3_meta_TIME "
    "--parallel-process 2 --nbu-on-remote --nbu-media-list /home/daemon/media.txt "
    "--client-port 7070";
std::string const OPENGAUSS_BEGIN =
    "GaussRoach.py -t restore --clean --backup-key 2_2 --master-port 9000 --media-type REMOTE "
    "--media-destination dws-1 --metadata-destination /gauss/meta --parallel-process 2 "
    "--remote-ip 127.0.0.1 --remote-port 7071 --remote-config ";

// whole runs

TEST_F(Non_Intrusive_Restore_Test, dws_in_place) {
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(DWS_BEGIN + " --clean", restore_line());
    EXPECT_EQ("GaussRoach.py -t start", roach_line(2));
    EXPECT_EQ(2u, roach_calls());
    EXPECT_EQ(300u, job_->activity().size) << "of both sets";
    EXPECT_EQ(300u, job_->activity().set_size);
    EXPECT_FALSE(policy_of(RESOURCE));
    EXPECT_THAT(catalog_calls(), testing::ElementsAre("get_view restore"));
}

TEST_F(Non_Intrusive_Restore_Test, the_metadata_directory_is_removed_from_each_node) {
    ASSERT_EQ(SUCCESS, restore());
    for (char const* host : {"127.0.0.1", "n2"})
        EXPECT_EQ(1u, sent(std::string("ssh -o ConnectTimeout=4 127.0.0.1 ssh ") + host +
                           " rm -rf /home/daemon/zenbrak3_meta_2"));
}

TEST_F(Non_Intrusive_Restore_Test, opengauss_in_place) {
    opengauss();
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(OPENGAUSS_BEGIN + "dws-1", roach_line());
    EXPECT_EQ("GaussRoach.py -t start", roach_line(2));
    EXPECT_EQ(0u, sent("rm -rf"));
    EXPECT_FALSE(policy_of(RESOURCE));
}

TEST_F(Non_Intrusive_Restore_Test, dws_as_a_new_cluster) {
    as_new_cluster();
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(std::regex_replace(DWS_BEGIN, std::regex("dws-1"), "dws-2") +
                  " --clean --old-cluster-hostname old2 --restore-new-cluster --restore-configs",
              restore_line());
    EXPECT_EQ("GaussRoach.py -t start --restore-new-cluster -X /gauss/new.xml", roach_line(2));
}

TEST_F(Non_Intrusive_Restore_Test, opengauss_as_a_new_cluster) {
    opengauss();
    as_new_cluster();
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(OPENGAUSS_BEGIN + "dws-2 --restore-new-cluster --restore-configs", roach_line());
    EXPECT_EQ("GaussRoach.py -t start --restore-new-cluster -X /gauss/new.xml", roach_line(2));
}

TEST_F(Non_Intrusive_Restore_Test, tables) {
    as_tables();
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(DWS_BEGIN + " --clean --physical-fine-grained --dbname sales --table-list "
                          "/home/daemon/zenbrak3_source_table.txt --restore-target-list "
                          "/home/daemon/zenbrak3_target_table.txt",
              restore_line());
    EXPECT_EQ("public.t1\npublic.t2", text("sent.zenbrak3_source_table.txt"));
    EXPECT_EQ("old.T 1\npublic.t2_back", text("sent.zenbrak3_target_table.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_source_table.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_target_table.txt"));
    EXPECT_FALSE(exists(root(jobs_.run_ids().back())));
    EXPECT_EQ(1u, roach_calls()) << "the database runs all the while";
    EXPECT_LOGGED(LM_DEBUG, "Successfully restored database tables.\n");
    EXPECT_EQ(300u, job_->activity().size);
    EXPECT_TRUE(policy_of(RESOURCE));
}

TEST_F(Non_Intrusive_Restore_Test, tables_of_a_schema_set_are_no_rebuild) {
    add_set("1_1", "", 1, {{"granularity", "schema"}, {"database", "sales"}});
    as_tables();
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(restore_line(), Not(HasSubstr("--fine-rebuild")));
    EXPECT_THAT(restore_line(), HasSubstr(" --clean"));
}

TEST_F(Non_Intrusive_Restore_Test, a_schema_set_in_the_chain_makes_it_a_rebuild) {
    add_set("1_1", "", 1, {{"granularity", "schema"}, {"database", "sales"}});
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(DWS_BEGIN + " --old-cluster-hostname old2 --restore-new-cluster --fine-rebuild "
                          "--physical-fine-grained --dbname sales",
              restore_line());
    EXPECT_LOGGED(LM_INFO, "Performing disaster recovery from schema backup set ...\n");
    EXPECT_LOGGED(LM_INFO, "Successfully performed schema backup set disaster recovery.\n");
    EXPECT_EQ(1u, roach_calls()) << "nothing is started";
    EXPECT_TRUE(policy_of(RESOURCE));
    EXPECT_EQ(300u, job_->activity().size);
}

TEST_F(Non_Intrusive_Restore_Test, a_rebuild_on_a_new_cluster_writes_the_same) {
    add_set("2_2", "", 2, {{"granularity", "schema"}, {"database", "sales"}});
    as_new_cluster();
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(restore_line(),
                HasSubstr("--client-port 7070 --old-cluster-hostname old2 --restore-new-cluster "
                          "--fine-rebuild --physical-fine-grained --dbname sales"));
}

TEST_F(Non_Intrusive_Restore_Test, a_schema_set_without_a_database) {
    add_set("1_1", "", 1, {{"granularity", "schema"}});
    expect_refused("Failed to get database name from schema backup set.\n",
                   "Failed to get gaussdb catalog, backup key 2_2\n");
}

TEST_F(Non_Intrusive_Restore_Test, through_a_real_sshd) {
    use_sshd();
    give("addresses", "127.0.0.1\n");
    as_tables();
    new_script("GaussRoach.py",
               "run mkdir -p /home/daemon/zenbrak3_meta_$(date +%Y%m%d)_000000; cp "
               "/home/daemon/zenbrak3_*_table.txt " +
                   tools_.path() + "\nexit 0");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ("public.t1\npublic.t2", text("zenbrak3_source_table.txt"));
    EXPECT_EQ("old.T 1\npublic.t2_back", text("zenbrak3_target_table.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_source_table.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_target_table.txt"));
}

TEST_F(Non_Intrusive_Restore_Test, the_metadata_directory_is_really_removed_through_two_hops) {
    use_sshd();
    give("addresses", "127.0.0.1\n");
    tool("GaussRoach.py", R"sh(
while [[ $# -gt 0 ]]; do [[ $1 == --metadata-destination ]] && mkdir -p "$2/roach" && echo "$2" >DIR/meta; shift; done
)sh");
    ASSERT_EQ(SUCCESS, restore());
    std::string const meta = text("meta");
    ASSERT_THAT(meta, testing::StartsWith("/home/daemon/zenbrak3_meta_"));
    EXPECT_FALSE(exists(meta.substr(0, meta.size() - 1)));
}

TEST_F(Non_Intrusive_Restore_Test, all_options) {
    options_->master_timeout_ = 30;
    options_->logging_level_ = "DEBUG";
    options_->max_memory_usage_ = 4;
    options_->buffer_size_ = 5;
    options_->buffer_block_size_ = 6;
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(DWS_BEGIN + " --clean --master-timeout 30 --logging-level DEBUG "
                          "--max-memory-usage=4 --buffer-size=5 --buffer-block-size=6",
              restore_line());
}

TEST_F(Non_Intrusive_Restore_Test, the_policy_tells_where_the_data_comes_from) {
    new_script("GaussRoach.py", "run cat " + root(RESOURCE) + " >" + tools_.path("policy") +
                                    "\nexit 0\n---\nexit 0");
    ASSERT_EQ(SUCCESS, restore());
    for (char const* part : {"\"cluster_id\":\"dws-1\"", "\"pool_uuid\":\"pool-1\"",
                             "\"compression\":\"zstd\"", "\"full_backup\":true"})
        EXPECT_THAT(text("policy"), HasSubstr(part));
    EXPECT_THAT(text("policy"), HasSubstr(jobs_.run_ids().back()));
}

TEST_F(Non_Intrusive_Restore_Test, the_progress_has_a_step_for_each_set_and_the_nodes_of_the_last) {
    add_set("1_1", "", 1, {{"nodes_count", 1}});
    tool_works("", "out \\e[0mN1: 90.00%");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(jobs_.progress(), testing::Contains(30));
}

// is it this run's to do

TEST_F(Non_Intrusive_Restore_Test, an_entry_of_another_module_is_not_active) {
    source_->restore_as_ = "other/c1";
    EXPECT_EQ("", restore());
    EXPECT_LOGGED(LM_WARNING, "Failed to parse gaussdb source:\"other/c1\"\n");
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
}

TEST_F(Non_Intrusive_Restore_Test, without_its_cluster_it_is_not_active) {
    source_->restore_as_ = "gaussdb/c2";
    EXPECT_EQ("", restore());
    EXPECT_CHECK_LOGGED("cluster_ is NULL");
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
}

TEST_F(Non_Intrusive_Restore_Test, runs_to_one_target_wait_for_each_other) {
    ACE_Thread_Mutex& mutex = Job_Mutex::get(RESOURCE);
    std::promise<int> held;
    std::thread beside([&] {
        held.set_value(mutex.acquire());
        while (jobs_.states().empty())
            std::this_thread::yield();
        EXPECT_EQ(0u, roach_calls());
        EXPECT_THAT(catalog_calls(), IsEmpty());
        mutex.release();
    });
    EXPECT_EQ(0, held.get_future().get());
    EXPECT_EQ(SUCCESS, restore());
    beside.join();
}

// a new cluster

TEST_F(Non_Intrusive_Restore_Test, a_new_cluster_needs_the_host_of_the_old_one) {
    add_set("1_1", "", 1, {{"host", ""}});
    add_set("2_2", "1_1", 2, {{"host", ""}});
    as_new_cluster();
    expect_refused(
        "Failed to restore data to new cluster, missing host name of the old cluster.\n");
    EXPECT_THAT(upstream_->rpc_calls(), IsEmpty());
}

TEST_F(Non_Intrusive_Restore_Test, a_new_cluster_needs_a_configuration) {
    as_new_cluster();
    options_->xml_config_path_ = "";
    expect_refused("Failed to restore data to new cluster, missing xml config file of the new "
                   "cluster.\n");
}

// the chain

TEST_F(Non_Intrusive_Restore_Test, a_base_of_another_flavour_stops_it) {
    add_set("1_1", "", 1, {{"series", 2}});
    expect_refused("Failed to restore, gaussdb version mismatch.\n",
                   "Failed to get gaussdb catalog, backup key 2_2\n");
    EXPECT_EQ(Texts{"alert 7 1"}, events_with("alert "));
}

TEST_F(Non_Intrusive_Restore_Test, a_row_without_a_required_key_stops_it) {
    for (char const* key : {"prior_backup_key", "backup_set_size", "nodes_count", "granularity",
                            "database", "series"}) {
        add_set("1_1", "", 1);
        Object row = catalog_->row("set-1_1");
        row.erase(key);
        catalog_->add_row(row);
        expect_refused("Failed to get gaussdb catalog, ",
                       "Failed to get gaussdb catalog, backup key 2_2\n");
    }
}

TEST_F(Non_Intrusive_Restore_Test, a_base_that_is_missing_stops_it) {
    add_set("2_2", "0_0", 2);
    expect_refused("Failed to get base gaussdb backup set\n",
                   "Failed to get gaussdb catalog, backup key 2_2\n");
}

TEST_F(Non_Intrusive_Restore_Test, a_key_that_is_not_in_the_catalog) {
    source_->backup_key_ = "9_9";
    expect_refused("Failed to get gaussdb catalog, backup key 9_9\n");
}

// tables

TEST_F(Non_Intrusive_Restore_Test, no_tables_at_all) {
    def_->subtype(JOB_DEFINITION_SUBTYPE_TABLE);
    expect_refused("Failed to retrieve the table for recovery.\n");
}

TEST_F(Non_Intrusive_Restore_Test, tables_of_opengauss_do_not_cost_the_whole_cluster) {
    opengauss();
    as_tables();
    expect_refused("Tables of openGauss cannot be restored one by one");
}

TEST_F(Non_Intrusive_Restore_Test, tables_of_two_databases) {
    as_tables();
    source_->tables_["other"].push_front({"a", "b", "c", "d"});
    expect_refused("Failed to recover tables from multiple databases simultaneously.\n");
}

TEST_F(Non_Intrusive_Restore_Test, a_database_without_tables) {
    def_->subtype(JOB_DEFINITION_SUBTYPE_TABLE);
    source_->tables_["sales"];
    EXPECT_EQ(FAILURE, restore());
    EXPECT_CHECK_LOGGED("tables is empty");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate table file /home/daemon/zenbrak3_source_table.txt "
                            "in database node.\n");
    EXPECT_EQ(0u, roach_calls());
}

TEST_F(Non_Intrusive_Restore_Test, a_list_that_cannot_be_sent_leaves_none) {
    for (char const* which : {"source", "target"}) {
        as_tables();
        ssh_fails(std::string(":/home/daemon/zenbrak3_") + which);
        expect_refused(std::string("Failed to generate table file /home/daemon/zenbrak3_") + which +
                       "_table.txt in database node.\n");
        Log_Capture::instance().claim_all(LM_WARNING, "status 1");
        EXPECT_FALSE(exists("/home/daemon/zenbrak3_source_table.txt"));
        EXPECT_FALSE(exists("/home/daemon/zenbrak3_target_table.txt"));
    }
}

// hostile names

TEST_F(Non_Intrusive_Restore_Test, names_that_could_be_more_than_names_reach_no_shell) {
    for (std::string const hostile : {"x;touch /home/daemon/hacked", "$(id)", "`id`", "a'b", "a\"b",
                                      "-x", "a b", "a\nb", "a\\b"}) {
        options_->logging_level_ = hostile;
        expect_refused("Invalid logging level '");
        options_->logging_level_ = "";
        options_->xml_config_path_ = "/" + hostile;
        if (hostile != "-x")
            expect_refused("Invalid configuration file '");
        options_->xml_config_path_ = "";
        source_->backup_key_ = hostile;
        expect_refused("Invalid backup key '");
        source_->backup_key_ = "2_2";
        source_->tables_[hostile].push_front({"a", "b", "c", "d"});
        expect_refused("Invalid database '");
        source_->tables_.clear();
        add_set("1_1", "", 1, {{"granularity", "schema"}, {"database", hostile}});
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, "Invalid database '");
        Log_Capture::instance().claim_all(LM_INFO, "Performing");
        add_set("1_1", "", 1);
        add_set("2_2", "1_1", 2, {{"host", hostile}});
        as_new_cluster();
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, "Invalid host name of the old cluster '");
        target(RESOURCE);
        options_->xml_config_path_ = "";
        add_set("2_2", "1_1", 2);
    }
    for (std::string const hostile : {"a\nb", "a.b", ""}) {
        source_->tables_["sales"].push_front({"a", "b", "c", hostile});
        expect_refused("Invalid schema or table '");
        source_->tables_.clear();
    }
    EXPECT_EQ(0u, roach_calls());
    EXPECT_FALSE(exists("/home/daemon/hacked"));
}

TEST_F(Non_Intrusive_Restore_Test, a_record_that_is_not_accepted) {
    record_is({{"ssh_options", "-o ProxyCommand=id"}});
    expect_refused("Failed to get DWS instance info.\n", "Invalid record of instance c1");
}

TEST_F(Non_Intrusive_Restore_Test, an_address_of_the_database_that_is_more_than_an_address) {
    give("addresses", "n2; touch /home/daemon/hacked\n127.0.0.1\n");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_LOGGED(LM_ERROR, "Invalid address of a node 'n2; touch");
    EXPECT_LOGGED(LM_WARNING, "Failed to clean roach path on n2; touch /home/daemon/hacked.\n");
    EXPECT_FALSE(exists("/home/daemon/hacked"));
    EXPECT_EQ(2u, sent("rm -rf")) << "by this host and by the node";
}

// what it has for itself

TEST_F(Non_Intrusive_Restore_Test, it_has_the_target_and_its_node_for_itself) {
    as_new_cluster();
    std::string const instance = " instance/dws-2";
    std::string const node = " metadata/here node/127.0.0.1 node/cn1 policy/here/dws-2";
    Texts const held{"hold" + instance, "hold" + node, "release" + node, "release" + instance};
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(held, jobs_.holds());
    jobs_.clear();
    new_script("GaussRoach.py", "err no space\nexit 1");
    EXPECT_EQ(FAILURE, restore());
    EXPECT_EQ(held, jobs_.holds()) << "a failed run gives it back, too";
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach restore.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "no space");
}

TEST_F(Non_Intrusive_Restore_Test, nothing_is_changed_before_it_has_the_node) {
    as_tables();
    bool changed_early = false;
    jobs_.on_hold([&](std::set<std::string> const&) {
        changed_early = changed_early || policy_of(RESOURCE) || roach_calls() != 0 ||
                        exists("/home/daemon/zenbrak3_source_table.txt");
        return Hold_Answer();
    });
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_FALSE(changed_early);
}

TEST_F(Non_Intrusive_Restore_Test, one_that_waits_shows_for_what_and_can_be_canceled) {
    for (char const* resource : {"instance/dws-1", "node/cn1"})
        for (bool const now : {false, true}) {
            jobs_.clear();
            jobs_.on_hold([&](std::set<std::string> const& resources) {
                if (!resources.contains(resource))
                    return Hold_Answer();
                EXPECT_EQ(0, now ? job_->abort_now() : job_->abort());
                return Hold_Answer{Hold_Answer::WAIT, "job x"};
            });
            EXPECT_EQ("ended canceled 0", restore()) << resource;
            EXPECT_THAT(jobs_.holds(), testing::Contains("waiting job x"));
            EXPECT_FALSE(policy_of(RESOURCE));
            EXPECT_EQ(0u, roach_calls());
            EXPECT_TRUE(
                Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
        }
}

// a failure of each step

struct Restore_Failure {
    char const* name;
    std::function<void(Non_Intrusive_Restore_Test&)> breaks;
    char const* alert;
    char const* message;
    std::vector<char const*> also;
    bool meta_cleaned;
};
void PrintTo(Restore_Failure const& failure, std::ostream* out) {
    *out << failure.name;
}

class Failing_Restore_Test : public Non_Intrusive_Restore_Test,
                             public testing::WithParamInterface<Restore_Failure> {};

TEST_P(Failing_Restore_Test, leaves_no_policy_and_no_metadata) {
    Restore_Failure const& failure = GetParam();
    failure.breaks(*this);
    EXPECT_EQ(FAILURE, restore());
    EXPECT_EQ(*failure.alert ? Texts{failure.alert} : Texts{}, events_with("alert "));
    EXPECT_LOGGED(LM_ERROR, failure.message);
    for (char const* text : failure.also)
        EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, text) +
                          Log_Capture::instance().claim_all(LM_WARNING, text))
            << text;
    EXPECT_FALSE(policy_of(RESOURCE));
    EXPECT_EQ(failure.meta_cleaned, sent("rm -rf") > 0);
}

std::vector<Restore_Failure> restore_failures() {
    using World = Non_Intrusive_Restore_Test;
    return {
        {"no_options",
         [](World& w) { w.def_->options(Job_Options_var()); },
         "",
         "opts_ is NULL",
         {},
         false},
        {"no_record",
         [](World& w) {
             w.record_is({{"meta_path", 5}});
         },
         "",
         "Failed to get DWS instance info.\n",
         {"Failed to get DWS instance info, "},
         false},
        {"no_service",
         [](World& w) { w.service(""); },
         "",
         "Failed to get roach client info.\n",
         {},
         false},
        {"catalog",
         [](World& w) { w.catalog_->fail("get_view"); },
         "alert 7 1",
         "Failed to get gaussdb catalog, backup key 2_2\n",
         {"The catalog fails to get_view"},
         false},
        {"policy",
         [](World& w) {
             w.serve_hosts({"other"});
             w.serve_other(rpc_error(-1, "no"));
         },
         "alert 7 7",
         "Failed to notify cluster nodes\n",
         {"Failed to notify roach policy to agent other", "gaussdb.roach_source"},
         false},
        {"user",
         [](World& w) { w.ssh_fails("whoami"); },
         "",
         "Failed to get database roach agent user.\n",
         {"no way"},
         false},
        {"tool",
         [](World& w) { w.new_script("GaussRoach.py", "err no space\nexit 1"); },
         "",
         "Failed to execute roach restore.\n",
         {"no space"},
         true},
        {"cut_connection",
         [](World& w) { w.ssh_fails("GaussRoach.py -t restore"); },
         "",
         "Failed to execute roach restore.\n",
         {"no way"},
         true},
        {"start",
         [](World& w) { w.new_script("GaussRoach.py", "exit 0\n---\nexit 1"); },
         "alert 7 11",
         "Failed to start GaussDB, please start manually.\n",
         {"status 1"},
         true},
    };
}

INSTANTIATE_TEST_SUITE_P(Steps, Failing_Restore_Test, testing::ValuesIn(restore_failures()),
                         [](auto const& step) { return step.param.name; });

TEST_F(Non_Intrusive_Restore_Test, metadata_that_cannot_be_removed_is_a_warning) {
    ssh_fails("n2 rm -rf");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_LOGGED(LM_WARNING, "Failed to clean roach path on n2.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "255");
}

// a cancel

TEST_F(Non_Intrusive_Restore_Test, a_cancel_stops_the_tool) {
    new_script("GaussRoach.py",
               "wait\nexit 1\n---\nrun touch " + tools_.path("GaussRoach.py.go") + "\nexit 0");
    using Job_Kind = Controllable_Job_T<Eager_Stop<Restore_Executor>>;
    EXPECT_EQ("ended canceled 0",
              run_while<Job_Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.stop()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_EQ(2u, roach_calls());
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach restore.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_FALSE(policy_of(RESOURCE));
    EXPECT_LT(0u, sent("rm -rf"));
}

TEST_F(Non_Intrusive_Restore_Test, a_cancel_before_the_tool_runs_nothing) {
    new_script("whoami", "run touch " + tools_.path("asked") + "\nwait\nout daemon");
    Job_var const job(new Restore_Kind(def_), false);
    std::thread beside([&] {
        while (!exists(tools_.path("asked")))
            std::this_thread::yield();
        EXPECT_EQ(0, job->abort());
        tools_.go("whoami");
    });
    EXPECT_EQ("ended canceled 0", run(job, RESOURCE));
    beside.join();
    EXPECT_EQ(0u, roach_calls());
    EXPECT_FALSE(policy_of(RESOURCE));
}

} // namespace
