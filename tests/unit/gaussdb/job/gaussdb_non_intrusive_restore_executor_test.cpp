#include "tests/unit/gaussdb/job/non_intrusive_restore_fixture.h"

#include <future>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;
using testing::IsEmpty;

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

} // namespace
