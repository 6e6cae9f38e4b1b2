#include "tests/unit/gaussdb/job/non_intrusive_backup_fixture.h"

#include "host/catalog/catalog_operator.h"

#include <fstream>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;
using testing::IsEmpty;

// whole runs

TEST_F(Non_Intrusive_Backup_Test, dws) {
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(DWS_LINE, roach_line());
    EXPECT_EQ(1u, roach_calls());
    std::string const id = jobs_.run_ids().back();
    Object const row = set();
    for (auto const& [key, value] :
         Object{{"uuid", id},
                {"incarnation", id},
                {"name", "nightly"},
                {"definition_uuid", DEFINITION},
                {"job_act_id", id},
                {"uid", UID},
                {"host_uuid", "host-1"},
                {"host", "cn1"},
                {"resource_uuid", RESOURCE},
                {"resource_label", "gaussdb DWS physical backup"},
                {"agent", "gaussdb"},
                {"type", "full"},
                {"granularity", ""},
                {"database", ""},
                {"instance", "c1"},
                {"seq", 1},
                {"backup_key", "20261122_070000"},
                {"prior_backup_key", ""},
                {"compression", ""},
                {"nodes_count", 2},
                {"series", 4},
                {"meta_destination", root("meta")},
                {"database_version", "PostgreSQL 9.2.4 (GaussDB 8.2.1 build 1)"}})
        EXPECT_EQ(value, json_spirit::object_get_any(row, key)) << key;
    EXPECT_FALSE(catalog_->is_open(id));
    EXPECT_FALSE(policy_of(RESOURCE)) << "it is removed after a success";
    EXPECT_THAT(names_of("database"), testing::ElementsAre("postgres"));
    EXPECT_THAT(names_of("schema"), testing::ElementsAre("public", "sales"));
    EXPECT_THAT(names_of("table"), testing::ElementsAre("t1", "t1"));
}

TEST_F(Non_Intrusive_Backup_Test, opengauss) {
    opengauss();
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(OPENGAUSS_LINE, roach_line());
    EXPECT_EQ("gaussdb for opengauss physical backup", set().at("resource_label").get_str());
    EXPECT_EQ(5, set().at("series").get_int());
    EXPECT_EQ(3, set().at("nodes_count").get_int());
    EXPECT_FALSE(set().count("tables")) << "only the data warehouse has a list of them";
    EXPECT_FALSE(policy_of(RESOURCE));
}

TEST_F(Non_Intrusive_Backup_Test, through_a_real_sshd) {
    use_sshd();
    source_->schemas_["sales"] = {"public"};
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(DWS_LINE + " --dbname sales --schema-list /home/daemon/zenbrak3_schema.txt",
              roach_line());
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_schema.txt"));
    EXPECT_EQ("cn1", set().at("host").get_str());
}

TEST_F(Non_Intrusive_Backup_Test, a_host_key_that_nobody_has_confirmed_is_refused) {
    use_sshd();
    tool("ssh", "\nexec /usr/bin/ssh " + server_->opts() +
                    " -o UserKnownHostsFile=/dev/null \"$@\" </dev/null\n");
    expect_refused("Failed to get database host name.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "Host key verification failed");
}

TEST_F(Non_Intrusive_Backup_Test, the_policy_tells_where_the_data_goes_and_is_the_services) {
    tool_works("1_1", "run cat " + root(RESOURCE) + " >" + tools_.path("policy") +
                          "; stat -c %U:%a " + root(RESOURCE) + " >" + tools_.path("owner"));
    ASSERT_EQ(SUCCESS, backup());
    std::string const policy = text("policy");
    EXPECT_THAT(policy, HasSubstr("\"cluster_id\":\"dws-1\""));
    EXPECT_THAT(policy, HasSubstr("\"pool_uuid\":\"pool-1\""));
    EXPECT_THAT(policy, HasSubstr(jobs_.run_ids().back()));
    EXPECT_THAT(policy, HasSubstr("\"full_backup\":true"));
    EXPECT_EQ("daemon:640\n", text("owner"));
}

TEST_F(Non_Intrusive_Backup_Test, other_roach_clients_get_the_policy_and_give_it_back) {
    serve_hosts({"other"});
    ASSERT_EQ(SUCCESS, backup());
    ASSERT_EQ(2u, upstream_->rpc_calls().size());
    EXPECT_EQ("add", upstream_->rpc_calls()[0].params.get_obj().at("action").get_str());
    EXPECT_EQ("remove", upstream_->rpc_calls()[1].params.get_obj().at("action").get_str());
}

// is it this run's to do

TEST_F(Non_Intrusive_Backup_Test, without_an_instance_it_is_not_active) {
    source_->instance_ = "";
    EXPECT_EQ("", backup());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
}

TEST_F(Non_Intrusive_Backup_Test, without_its_cluster_it_is_not_active) {
    source_->instance_ = "c2";
    EXPECT_EQ("", backup());
    EXPECT_CHECK_LOGGED("cluster_ is NULL");
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
}

TEST_F(Non_Intrusive_Backup_Test, without_hosts_of_the_server_this_host_has_the_client) {
    serve_hosts({});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_DEBUG, "use only the current roach client.\n");
    EXPECT_THAT(upstream_->rpc_calls(), IsEmpty());
}

// the level and its base

TEST_F(Non_Intrusive_Backup_Test, schemas_of_several_databases_are_refused) {
    source_->schemas_["a"] = {"s"};
    source_->schemas_["b"] = {"s"};
    expect_refused("Cannot backup multiple databases' schemas simultaneously.\n");
}

TEST_F(Non_Intrusive_Backup_Test, a_new_dws_keeps_the_level_of_a_schema_backup) {
    source_->schemas_["a"] = {"s"};
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    add_prior("1_1", "full", 1, "schema");
    add_prior("2_2", "full", 2);
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ("incremental", set().at("type").get_str());
    EXPECT_EQ("schema", set().at("granularity").get_str());
    EXPECT_EQ("a", set().at("database").get_str());
    EXPECT_THAT(roach_line(), HasSubstr(" --prior-backup-key=1_1"));
    EXPECT_EQ("full-1_1", set().at("incarnation").get_str());
}

TEST_F(Non_Intrusive_Backup_Test, an_old_dws_makes_a_schema_backup_a_full_one) {
    dws(1);
    source_->schemas_["a"] = {"s"};
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    add_prior("1_1", "full", 1, "schema");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_WARNING, "GaussDB schema backup does not support incremental backup, changing "
                              "to full backup.\n");
    EXPECT_EQ("full", set().at("type").get_str());
    EXPECT_EQ("", set().at("prior_backup_key").get_str());
}

TEST_F(Non_Intrusive_Backup_Test, an_incremental_backup_builds_on_the_last_whole_one) {
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    add_prior("1_1", "full", 1);
    add_prior("2_2", "incremental", 2);
    add_prior("3_3", "full", 3, "schema");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(DWS_LINE + " --prior-backup-key=2_2", roach_line());
    EXPECT_EQ("2_2", set().at("prior_backup_key").get_str());
    EXPECT_EQ("full-2_2", set().at("incarnation").get_str());
    EXPECT_EQ(4, set().at("seq").get_int());
}

TEST_F(Non_Intrusive_Backup_Test, a_cumulative_backup_builds_on_the_last_full_one) {
    opengauss();
    def_->subtype(JOB_DEFINITION_SUBTYPE_CUMULATIVE);
    add_prior("1_1", "full", 1);
    add_prior("2_2", "incremental", 2);
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(OPENGAUSS_LINE + " --cbm-recycle-level=1 --prior-backup-key=1_1", roach_line());
    EXPECT_EQ("cumulative", set().at("type").get_str());
}

TEST_F(Non_Intrusive_Backup_Test, without_a_base_the_level_stays_and_the_key_is_left_out) {
    opengauss();
    for (auto const& [subtype, level] : {std::pair{JOB_DEFINITION_SUBTYPE_INCREMENTAL, "2"},
                                         std::pair{JOB_DEFINITION_SUBTYPE_CUMULATIVE, "1"}}) {
        jobs_.clear();
        def_->subtype(subtype);
        tool_works("");
        ASSERT_EQ(SUCCESS, backup());
        EXPECT_LOGGED(LM_WARNING, "Do full backup because prior backup not found.\n");
        EXPECT_EQ(OPENGAUSS_LINE + " --cbm-recycle-level=" + level, roach_line());
        EXPECT_EQ(*level == '2' ? "incremental" : "cumulative", set().at("type").get_str());
        EXPECT_EQ(jobs_.run_ids().back(), set().at("incarnation").get_str());
        // the next one is not to find it
        catalog_->add_row(Object{{"uuid", jobs_.run_ids().back()}});
    }
}

// options

TEST_F(Non_Intrusive_Backup_Test, all_options_of_dws) {
    options_->filesplit_size_ = (uint64_t(3) << 30) - 1;
    options_->roach_compression_type_ = 1;
    options_->roach_compression_level_ = 6;
    options_->cpu_cores_ = 3;
    options_->master_timeout_ = 30;
    options_->cbm_recycle_level_ = 2;
    options_->logging_level_ = "DEBUG";
    options_->max_memory_usage_ = 4;
    options_->buffer_size_ = 5;
    options_->buffer_block_size_ = 6;
    ASSERT_EQ(SUCCESS, backup());
    std::string const line = roach_line();
    EXPECT_THAT(line, HasSubstr(" --filesplit-size 2 "));
    EXPECT_THAT(line, HasSubstr(" --compression-type 1 --compression-level 6 --cpu-cores 3 "
                                "--master-timeout 30 --cbm-recycle-level 2 --logging-level DEBUG "
                                "--max-memory-usage=4 --buffer-size=5 --buffer-block-size=6"));
}

TEST_F(Non_Intrusive_Backup_Test, a_recycle_level_of_0_is_written) {
    options_->cbm_recycle_level_ = 0;
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(DWS_LINE + " --cbm-recycle-level 0", roach_line());
}

TEST_F(Non_Intrusive_Backup_Test, a_split_size_below_a_gibibyte_is_0) {
    options_->filesplit_size_ = 1073741823;
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(roach_line(), HasSubstr(" --filesplit-size 0 "));
}

// the node

TEST_F(Non_Intrusive_Backup_Test, no_nodes_are_one_for_the_progress) {
    give("nodes", "");
    tool_works("1_1", "out \\e[0mN1: 50.00%");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get nodes number.\n");
    EXPECT_EQ(0, set().at("nodes_count").get_int());
    EXPECT_THAT(jobs_.progress(), testing::Contains(50));
}

TEST_F(Non_Intrusive_Backup_Test, the_progress_is_divided_by_the_nodes) {
    tool_works("1_1", "out \\e[0mN1: 50.00%");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), testing::Contains(25));
}

TEST_F(Non_Intrusive_Backup_Test, old_metadata_is_removed_from_each_node_when_it_is_asked_for) {
    options_->clean_meta_ = true;
    ASSERT_EQ(SUCCESS, backup());
    for (char const* host : {"127.0.0.1", "n2"})
        EXPECT_EQ(1u,
                  sent(std::string("ssh -o ConnectTimeout=4 127.0.0.1 ssh -o ConnectTimeout=4 ") +
                       host + " rm -rf /gauss/meta/roach"));
}

TEST_F(Non_Intrusive_Backup_Test, metadata_is_really_removed_through_two_hops) {
    use_sshd();
    give("addresses", "127.0.0.1\n");
    options_->clean_meta_ = true;
    record_is({{"meta_path", "/home/daemon/meta"}});
    write("/home/daemon/meta/roach/1_1/x", "x");
    write("/home/daemon/meta/kept", "x");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_FALSE(exists("/home/daemon/meta/roach"));
    EXPECT_TRUE(exists("/home/daemon/meta/kept"));
}

TEST_F(Non_Intrusive_Backup_Test, metadata_stays_for_an_incremental_backup_and_unless_asked_for) {
    ASSERT_EQ(SUCCESS, backup());
    options_->clean_meta_ = true;
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    jobs_.clear();
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(0u, sent("rm -rf"));
}

TEST_F(Non_Intrusive_Backup_Test, metadata_that_cannot_be_removed_is_a_warning) {
    options_->clean_meta_ = true;
    ssh_fails("n2 rm -rf");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_WARNING, "Failed to clean roach path on n2.\n");
    EXPECT_EQ(2u, sent("127.0.0.1 rm -rf")) << "by this host and by the node";
    Log_Capture::instance().claim_all(LM_WARNING, "255");
}

TEST_F(Non_Intrusive_Backup_Test,
       an_address_of_the_database_that_is_more_than_an_address_is_not_used) {
    options_->clean_meta_ = true;
    give("addresses", "n2; touch /home/daemon/hacked\n-oProxyCommand=id\n$(id)\n127.0.0.1\n");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_ERROR, "Invalid address of a node"));
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_WARNING, "Failed to clean roach path on"));
    EXPECT_EQ(2u, sent("rm -rf")) << "by this host and by the node";
    EXPECT_FALSE(exists("/home/daemon/hacked"));
}

// lists

TEST_F(Non_Intrusive_Backup_Test, the_schemas_go_to_the_node_in_a_file_and_none_is_left) {
    source_->schemas_["a"] = {"s1", "S 2", "s$3"};
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(DWS_LINE + " --dbname a --schema-list /home/daemon/zenbrak3_schema.txt",
              roach_line());
    EXPECT_EQ("s1\nS 2\ns$3", text("sent.zenbrak3_schema.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_schema.txt"));
    EXPECT_FALSE(exists(root(jobs_.run_ids().back())));
    EXPECT_THAT(names_of("schema"), testing::ElementsAre("s1", "S 2", "s$3"));
    EXPECT_THAT(names_of("database"), testing::ElementsAre("a"));
    EXPECT_EQ(0u, text("gsql.log").find("-d a") == std::string::npos ? 1u : 0u);
}

TEST_F(Non_Intrusive_Backup_Test, a_list_that_cannot_be_sent) {
    source_->schemas_["a"] = {"s"};
    ssh_fails(":/home/daemon/zenbrak3_schema.txt");
    expect_refused("Failed to dump schema file /home/daemon/zenbrak3_schema.txt to 127.0.0.1.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
    EXPECT_FALSE(exists(root(jobs_.run_ids().back())));
}

TEST_F(Non_Intrusive_Backup_Test, a_list_that_cannot_be_written) {
    source_->schemas_["a"] = {"s"};
    new_script("whoami", "run mv " + std::string(ROOT) + " " + ROOT + ".away; touch " + ROOT +
                             "\nout daemon\n");
    EXPECT_EQ(FAILURE, backup());
    EXPECT_LOGGED(LM_ERROR, " to write, errno=");
    EXPECT_LOGGED(LM_ERROR, "Failed to dump schema file");
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to mkdir");
    EXPECT_EQ(0u, roach_calls());
    std::filesystem::remove(ROOT);
}

TEST_F(Non_Intrusive_Backup_Test, no_schemas_are_no_list) {
    source_->schemas_["a"] = {};
    EXPECT_EQ(FAILURE, backup());
    EXPECT_CHECK_LOGGED("schemas is empty");
    EXPECT_LOGGED(LM_ERROR, "Failed to dump schema file");
    EXPECT_EQ(0u, roach_calls());
}

TEST_F(Non_Intrusive_Backup_Test, a_schema_with_any_name_is_asked_for_by_that_name) {
    use_sshd();
    give("schemas", "o'neil\n$(touch /home/daemon/hacked)\n`id`\nq\"u\\ote\n");
    ASSERT_EQ(SUCCESS, backup());
    std::string const asked = text("gsql.log");
    for (char const* literal :
         {"='o''neil'\n", "='$(touch /home/daemon/hacked)'\n", "='`id`'\n", "='q\"u\\ote'\n"})
        EXPECT_THAT(asked, HasSubstr(std::string("from pg_tables where schemaname") + literal));
    EXPECT_FALSE(exists("/home/daemon/hacked"));
    EXPECT_THAT(names_of("schema"), testing::Contains("o'neil"));
}

TEST_F(Non_Intrusive_Backup_Test, a_database_whose_name_a_shell_would_change_is_recorded_alone) {
    give("databases", "a;touch /home/daemon/hacked\npostgres\n");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_WARNING, "Schemas of database 'a;touch /home/daemon/hacked' are not listed");
    EXPECT_THAT(names_of("database"),
                testing::ElementsAre("a;touch /home/daemon/hacked", "postgres"));
    EXPECT_FALSE(exists("/home/daemon/hacked"));
}

TEST_F(Non_Intrusive_Backup_Test, records_point_to_what_they_are_in) {
    ASSERT_EQ(SUCCESS, backup());
    Array const tables = set().at("tables").get_array();
    ASSERT_EQ(5u, tables.size());
    auto const value = [&](size_t at, char const* key) {
        return json_spirit::object_get_str(tables[at].get_obj(), key);
    };
    EXPECT_EQ("", value(0, "parent_uuid"));
    EXPECT_EQ(value(0, "uuid"), value(1, "parent_uuid"));
    EXPECT_EQ(value(1, "uuid"), value(2, "parent_uuid"));
    EXPECT_EQ(value(0, "uuid"), value(3, "parent_uuid"));
    EXPECT_EQ(36u, value(4, "uuid").size());
    EXPECT_EQ(4u, tables[0].get_obj().size());
}

} // namespace
