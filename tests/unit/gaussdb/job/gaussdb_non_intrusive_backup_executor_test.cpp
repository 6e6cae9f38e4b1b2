#include "tests/unit/gaussdb/job/non_intrusive_world.h"

#include "host/catalog/catalog_operator.h"
#include "json_spirit/access.h"

#include <fstream>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;
using testing::IsEmpty;

using Backup_Executor = GaussDB_Non_Intrusive_Backup_Job_Executor;

class Non_Intrusive_Backup_Test : public Non_Intrusive_World {
public:
    void SetUp() override {
        Non_Intrusive_World::SetUp();
        def_ = definition(JOB_DEFINITION_BACKUP);
        def_->subtype(JOB_DEFINITION_SUBTYPE_FULL);
        Job_Target target;
        target.id("pool-1");
        target.device_id("device-1");
        def_->target(target);
        source_ = new GaussDB_Backup_Job_Source;
        source_->id(RESOURCE);
        source_->instance_ = "c1";
        def_->source(Job_Source_var(source_));
        options_ = new GaussDB_Backup_Job_Options;
        options_->channels_ = 2;
        def_->options(Job_Options_var(options_));
    }
    std::string backup() {
        return run(Job_var(new Controllable_Job_T<Backup_Executor>(def_), false), RESOURCE);
    }
    /** The backup fails with these lines, and the tool was not run. */
    void expect_refused(std::string const& message, std::string const& also = "") {
        EXPECT_EQ(FAILURE, backup());
        EXPECT_LOGGED(LM_ERROR, message);
        if (!also.empty()) {
            EXPECT_LOGGED(LM_ERROR, also);
        }
        EXPECT_EQ(0u, roach_calls());
        EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
    }
    /** A complete set of the resource in the pool. */
    void add_prior(std::string const& key, std::string const& type, int when,
                   char const* granularity = "") {
        catalog_->add_row(Object{{"uuid", "set-" + key},
                                 {"resource_uuid", RESOURCE},
                                 {"pool_uuid", "pool-1"},
                                 {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                                 {"incarnation", "full-" + key},
                                 {"backup_key", key},
                                 {"type", type},
                                 {"granularity", granularity},
                                 {"backup_end_time", when},
                                 {"seq", when}});
    }
    Texts names_of(std::string const& type) const {
        Texts found;
        Object const row = set();
        for (Object const& record : json_spirit::objects_of(row.at("tables").get_array()))
            if (json_spirit::object_get_str(record, "type") == type)
                found.push_back(json_spirit::object_get_str(record, "name"));
        return found;
    }

    Job_Definition_var def_;
    GaussDB_Backup_Job_Source* source_ = nullptr;
    GaussDB_Backup_Job_Options* options_ = nullptr;
};

std::string const DWS_LINE =
    "GaussRoach.py -t backup --master-port 9000 --filesplit-size 4 --media-type NBU "
    "--media-destination dws-1 --metadata-destination /gauss/meta --parallel-process 2 "
    "--nbu-on-remote --nbu-media-list /home/daemon/media.txt --client-port 7070 "
    "--physical-fine-grained --compression-type 0 --compression-level 0";
std::string const OPENGAUSS_LINE =
    "GaussRoach.py -t backup --master-port 9000 --media-type REMOTE --media-destination dws-1 "
    "--metadata-destination /gauss/meta --remote-ip 127.0.0.1 --remote-port 7071 "
    "--parallel-process 2 --compression-type=0 --compression-level=0 --remote-config dws-1";

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
    std::string const outcome =
        run_while<Controllable_Job_T<Backup_Executor>>(def_, RESOURCE, [&](Job&) {
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
    std::string const instance = " instance/dws-1";
    std::string const node = " metadata/here node/127.0.0.1 node/cn1 policy/here/dws-1";
    Texts const held{"hold" + instance, "hold" + node, "release" + node, "release" + instance};
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(held, jobs_.holds());
    jobs_.clear();
    new_script("GaussRoach.py", "err no space\nexit 1");
    EXPECT_EQ(FAILURE, backup());
    EXPECT_EQ(held, jobs_.holds()) << "a failed run gives it back, too";
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach backup.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "no space");
}

TEST_F(Non_Intrusive_Backup_Test, another_address_of_the_same_node_is_the_same_node) {
    record_is({{"address", "omm@Localhost"}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.holds(),
                testing::Contains("hold metadata/here node/cn1 node/localhost policy/here/dws-1"));
}

TEST_F(Non_Intrusive_Backup_Test, nothing_is_changed_before_it_has_the_node) {
    bool changed_early = false;
    jobs_.on_hold([&](std::set<std::string> const&) {
        changed_early = changed_early || policy_of(RESOURCE) || roach_calls() != 0 ||
                        sent("rm -rf") != 0 || exists("/home/daemon/zenbrak3_schema.txt");
        return Hold_Answer();
    });
    options_->clean_meta_ = true;
    source_->schemas_["a"] = {"s"};
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_FALSE(changed_early);
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
    for (char const* resource : {"instance/dws-1", "node/cn1"}) {
        jobs_.clear();
        int answers = 0;
        jobs_.on_hold([&](std::set<std::string> const& resources) {
            if (!resources.contains(resource) || ++answers == 3)
                return Hold_Answer();
            return Hold_Answer{Hold_Answer::WAIT, "job x"};
        });
        ASSERT_EQ(SUCCESS, backup()) << resource;
        Texts holds = jobs_.holds();
        std::erase_if(holds, [](std::string const& what) { return !what.starts_with("waiting"); });
        EXPECT_EQ((Texts{"waiting job x", "waiting "}), holds) << resource;
        EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Waiting for job x\n"));
    }
}

TEST_F(Non_Intrusive_Backup_Test, one_that_waits_can_be_canceled) {
    for (char const* resource : {"instance/dws-1", "node/cn1"})
        for (bool const now : {false, true}) {
            jobs_.clear();
            jobs_.on_hold([&](std::set<std::string> const& resources) {
                if (!resources.contains(resource))
                    return Hold_Answer();
                EXPECT_EQ(0, now ? job_->abort_now() : job_->abort());
                return Hold_Answer{Hold_Answer::WAIT, "job x"};
            });
            EXPECT_EQ("ended canceled 0", backup()) << resource;
            EXPECT_FALSE(policy_of(RESOURCE));
            EXPECT_EQ(0u, roach_calls());
            EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
            EXPECT_TRUE(
                Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
        }
}

TEST_F(Non_Intrusive_Backup_Test, one_that_waits_for_a_restore_can_be_canceled) {
    // which has the mutex of its resource to its end
    ACE_Guard<ACE_Thread_Mutex> restore(Job_Mutex::get(RESOURCE));
    jobs_.on_hold([&](std::set<std::string> const&) {
        EXPECT_EQ(0, job_->abort());
        return Hold_Answer{Hold_Answer::WAIT, "job x"};
    });
    jobs_.on_event([&](std::string const& event) {
        if (event == "finished")
            restore.release();
    });
    EXPECT_EQ("ended canceled 0", backup());
}

// a failure of each step

struct Backup_Failure {
    char const* name;
    std::function<void(Non_Intrusive_Backup_Test&)> breaks;
    char const* alert;
    char const* message;
    std::vector<char const*> also;
    std::vector<std::string> catalog;
    bool policy_left;
};
void PrintTo(Backup_Failure const& failure, std::ostream* out) {
    *out << failure.name;
}

class Failing_Backup_Test : public Non_Intrusive_Backup_Test,
                            public testing::WithParamInterface<Backup_Failure> {};

TEST_P(Failing_Backup_Test, leaves_no_half_set_and_no_child) {
    Backup_Failure const& failure = GetParam();
    catalog_mark_ = catalog_->calls().size();
    failure.breaks(*this);
    EXPECT_EQ(FAILURE, backup());
    EXPECT_EQ(*failure.alert ? Texts{failure.alert} : Texts{}, events_with("alert "));
    EXPECT_LOGGED(LM_ERROR, failure.message);
    for (char const* text : failure.also)
        EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, text) +
                          Log_Capture::instance().claim_all(LM_WARNING, text))
            << text;
    EXPECT_EQ(failure.catalog, catalog_calls());
    EXPECT_EQ(failure.policy_left, policy_of(RESOURCE));
}

std::vector<Backup_Failure> backup_failures() {
    using World = Non_Intrusive_Backup_Test;
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
    using Job_Kind = Controllable_Job_T<Eager_Stop<Backup_Executor>>;
    EXPECT_EQ("ended canceled 0",
              run_while<Job_Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.abort()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_EQ(2u, roach_calls()) << "it is told once";
    EXPECT_EQ(1u, sent("source ~/gauss_env_file")) << "with the tool's own way in";
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach backup.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
}

TEST_F(Non_Intrusive_Backup_Test, a_run_that_is_cancelled_now_stops_the_tool_as_well) {
    new_script("GaussRoach.py", "wait\nexit 1\n---\nexit 0");
    using Job_Kind = Controllable_Job_T<Backup_Executor>; // whose stop thread looks every 2 seconds
    EXPECT_EQ("ended canceled 0",
              run_while<Job_Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.abort_now()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_EQ(2u, roach_calls()) << "it is told once";
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach backup.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_NOT_LOGGED("No tool is started");
    EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
}

TEST_F(Non_Intrusive_Backup_Test, a_cancel_before_the_tool_runs_nothing_and_drops_the_set) {
    class Canceling : public Backup_Executor {
    public:
        using Backup_Executor::Backup_Executor;
    };
    jobs_.on_event([](std::string const&) {});
    // the last question before the tool: the run is canceled while it is answered
    new_script("gs_guc", "exit 0");
    tool("gsql",
         "\ncase \"$*\" in *tablename*) touch DIR/asked; while [[ ! -e DIR/go ]]; do :; done;; "
         "*nspname*) echo public;; *datname*) echo postgres;; esac\n");
    Job_var const job(new Controllable_Job_T<Canceling>(def_), false);
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
