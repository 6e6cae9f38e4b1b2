#include "tests/unit/gaussdb/job/t_world.h"

#include <sys/mount.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

class GaussDB_T_Backup_Test : public T_World {
protected:
    /** The run fails with that error line, and leaves nothing anywhere. */
    void expect_refused(std::string const& message) {
        EXPECT_EQ(T_FAILURE, backup());
        EXPECT_LOGGED(LM_ERROR, message);
        expect_nothing_left();
    }
    /** What the database has noted is lost. */
    void expect_lost(std::string const& message) {
        expect_refused(message);
        EXPECT_LOGGED(LM_ERROR, LOST);
    }
    static constexpr char LOST[] =
        " is lost, but the database has noted it and may build on it: make a full backup next\n";
    void expect_nothing_left() {
        EXPECT_THAT(objects(), IsEmpty());
        EXPECT_THAT(left_in_cache(), IsEmpty());
        EXPECT_FALSE(catalog_->has(set_uuid()));
    }
    /** A run that is cancelled while the database works ends, and its statement with it. */
    void expect_statement_ended() {
        jobs_.clear();
        EXPECT_EQ("ended canceled 0",
                  run_while(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                            RESOURCE, "backup database",
                            [](Job& job) { EXPECT_EQ(0, job.abort_now()); }));
        EXPECT_LOGGED(LM_ERROR, "Failed to run cmd");
        Log_Capture::instance().claim_all(LM_WARNING, "zsql");
    }
    /** A run that fails after its statement. @return the uuid of its set */
    std::string lose(Job_Definition_Subtype subtype) {
        catalog_->fail("commit");
        EXPECT_EQ(T_FAILURE, backup_as(subtype));
        Log_Capture::instance().claim_all(LM_ERROR, "");
        catalog_->fail("commit", false);
        return set_uuid();
    }
    /** The run ends before the statement, since its set would be built on that one. */
    void expect_not_begun(Job_Definition_Subtype subtype, std::string const& base,
                          std::string const& advice) {
        std::string const before = statement();
        EXPECT_EQ(T_FAILURE, backup_as(subtype));
        EXPECT_LOGGED(LM_ERROR, "The database builds this backup on the set " + base +
                                    ", which is not in the catalog of the pool, and a restore "
                                    "would fail: " +
                                    advice);
        EXPECT_EQ(before, statement());
    }
    std::string backup_as(Job_Definition_Subtype subtype) {
        jobs_.clear(); // how an earlier run ended
        def_->subtype(subtype);
        return backup();
    }
};

// the statement

TEST_F(GaussDB_T_Backup_Test, a_full_backup_says_all_there_is_to_say) {
    options_->compression_ = COMPR_ZSTD;
    options_->compression_level_ = 3;
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_EQ("backup database incremental level 0 format '" + cache() +
                  "/FULL_TIME' as zstd compressed backupset level 3 tag 'ZENBRAK3_FULL_TIME' "
                  "parallelism 4;",
              statement());
    EXPECT_THAT(asked(), testing::Contains("select status from dv_database"));
    EXPECT_THAT(asked(), testing::Contains("select sum(bytes) from dv_data_files"));
    EXPECT_THAT(files_.read("db/logins"), HasSubstr("daemon secret gauss@127.0.0.1:1888 -q -D " +
                                                    files_.path("db/data") + " -c "));
}

TEST_F(GaussDB_T_Backup_Test, each_level_has_its_word_and_its_text) {
    ASSERT_EQ(T_SUCCESS, backup());
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_INCREMENTAL));
    EXPECT_EQ("backup database incremental level 1 format '" + cache() +
                  "/DIFF_TIME' as compressed backupset tag 'ZENBRAK3_DIFF_TIME' parallelism 4;",
              statement());
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_CUMULATIVE));
    EXPECT_EQ("backup database incremental level 1 cumulative format '" + cache() +
                  "/CUMUL_TIME' as compressed backupset tag 'ZENBRAK3_CUMUL_TIME' parallelism 4;",
              statement());
}

TEST_F(GaussDB_T_Backup_Test, lzop_is_no_word_of_the_statement_but_packs_what_is_sent) {
    options_->compression_ = COMPR_LZOP;
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_THAT(statement(), HasSubstr(" as compressed backupset tag "));
    EXPECT_THAT(objects(), ElementsAre("t-1/FULL_TIME/data.lzo"));
    EXPECT_EQ("lzop", text_of_set("compression"));
}

TEST_F(GaussDB_T_Backup_Test, a_level_of_0_is_left_out) {
    options_->compression_ = COMPR_ZSTD;
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_THAT(statement(), HasSubstr(" as zstd compressed backupset tag "));
}

TEST_F(GaussDB_T_Backup_Test, a_log_backup_is_none_and_has_no_parallelism) {
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_LOG));
    EXPECT_LOGGED(LM_ERROR, "Invalid backup type ");
    EXPECT_LOGGED(LM_ERROR, "Failed to get prior backup: ");
    EXPECT_EQ("backup database  format '" + cache() +
                  "/_TIME' as compressed backupset tag 'ZENBRAK3__TIME';",
              statement());
}

TEST_F(GaussDB_T_Backup_Test, two_runs_never_have_one_time) {
    ASSERT_EQ(T_SUCCESS, backup());
    std::string const first = last_asked("backup database");
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_NE(first, last_asked("backup database"));
}

// what is in the catalog

TEST_F(GaussDB_T_Backup_Test, the_catalog_has_the_whole_set) {
    data_is("more", "more content");
    options_->compression_ = COMPR_ZSTD;
    ASSERT_EQ(T_SUCCESS, backup());
    std::string const directory =
        text_of_set("meta_destination").substr(text_of_set("meta_destination").rfind('/') + 1);
    Object const row = set();
    for (auto const& [key, value] : Object{{"uid", UID},
                                           {"uuid", set_uuid()},
                                           {"job_act_id", set_uuid()},
                                           {"name", "nightly"},
                                           {"definition_uuid", DEFINITION},
                                           {"host_uuid", "host-1"},
                                           {"resource_uuid", RESOURCE},
                                           {"agent", "gaussdb"},
                                           {"type", "full"},
                                           {"source_size", 5000},
                                           {"backup_set_size", 19},
                                           {"resource_label", "gaussdb T physical backup"},
                                           {"nodes", 0},
                                           {"series", static_cast<int>(GAUSSDB_T)},
                                           {"instance", "c1"},
                                           {"compression", "zstd"},
                                           {"pool_uuid", "pool-1"},
                                           {"uri", "t-1/" + directory},
                                           {"meta_destination", cache() + "/" + directory},
                                           {"incarnation", set_uuid()},
                                           {"backup_key", set_uuid()},
                                           {"prior_backup_key", ""}})
        EXPECT_EQ(value, row.at(key)) << key;
    EXPECT_EQ(Value(Array{Object{{"path", "data.zst"}, {"size", 0}},
                          Object{{"path", "more.zst"}, {"size", 0}}}),
              row.at("pieces"));
    EXPECT_EQ(Value(Array{Object{{"pool_uuid", "pool-1"}, {"size", 19}}}), row.at("storages"));
    EXPECT_NE("", text_of_set("minor_resource_id"));
    EXPECT_GT(row.at("backup_start_time").get_int64(), 0);
    EXPECT_GE(row.at("backup_end_time").get_int64(), row.at("backup_start_time").get_int64());
    EXPECT_EQ(5000u, job_->activity().size);
    EXPECT_EQ(19u, job_->activity().set_size);
    EXPECT_EQ(19u, job_->activity().set_storage_size);
    EXPECT_THAT(objects(), ElementsAre("t-1/FULL_TIME/data.zst", "t-1/FULL_TIME/more.zst"));
    EXPECT_THAT(left_in_cache(), IsEmpty());
}

TEST_F(GaussDB_T_Backup_Test, without_compression_the_catalog_names_none) {
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_EQ("", text_of_set("compression"));
    EXPECT_THAT(objects(), ElementsAre("t-1/FULL_TIME/data"));
}

TEST_F(GaussDB_T_Backup_Test, an_incremental_one_is_of_the_incarnation_of_the_last) {
    ASSERT_EQ(T_SUCCESS, backup());
    std::string const full = set_uuid();
    for (auto const subtype :
         {JOB_DEFINITION_SUBTYPE_INCREMENTAL, JOB_DEFINITION_SUBTYPE_CUMULATIVE,
          JOB_DEFINITION_SUBTYPE_INCREMENTAL}) {
        ASSERT_EQ(T_SUCCESS, backup_as(subtype));
        EXPECT_EQ(full, text_of_set("incarnation"));
        EXPECT_EQ(full, text_of_set("prior_backup_key"));
        EXPECT_EQ(set_uuid(), text_of_set("backup_key"));
    }
    EXPECT_EQ((Object{{"resource_uuid", RESOURCE},
                      {"pool_uuid", "pool-1"},
                      {"sort", "backup_end_time"},
                      {"order", "desc"},
                      {"limit", 1}}),
              catalog_->queries().back());
}

TEST_F(GaussDB_T_Backup_Test, an_incremental_one_without_a_base_is_kept_all_the_same) {
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_INCREMENTAL));
    EXPECT_LOGGED(LM_ERROR, "Failed to get prior backup: ");
    EXPECT_EQ("", text_of_set("incarnation"));
    catalog_->fail("get_view");
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to get_view"); // for the base
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to get_view"); // for the incarnation
    EXPECT_NOT_LOGGED("Failed to get prior backup: The catalog");
    EXPECT_EQ("", text_of_set("incarnation"));
}

TEST_F(GaussDB_T_Backup_Test, an_empty_directory_is_a_set_without_pieces) {
    std::filesystem::remove(files_.path("db/files/data"));
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_EQ(Value(Array()), set().at("pieces"));
    EXPECT_EQ(0, set().at("backup_set_size").get_int());
}

TEST_F(GaussDB_T_Backup_Test, a_size_that_cannot_be_asked_is_0) {
    fails_at("select sum");
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "GS-00001, told to fail");
    EXPECT_EQ(0u, job_->activity().size);
    EXPECT_EQ(0, set().at("source_size").get_int());
    Log_Capture::instance().claim_all(LM_WARNING, "zsql");
}

// straight into the pool

TEST_F(GaussDB_T_Backup_Test, a_mount_takes_the_files_as_they_are) {
    options_->mount_ = true;
    options_->compression_ = COMPR_ZSTD;
    before_each("stat -f -c %T '" + cache() + "' >>\"$db/types\"");
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_THAT(files_.read("db/types"), HasSubstr("fuse")) << "written through the mount";
    EXPECT_THAT(objects(), ElementsAre("t-1/FULL_TIME/data"));
    EXPECT_EQ("content", files_.read("db/files/data"));
    EXPECT_EQ(Value(Array{Object{{"path", "data"}, {"size", 0}}}), set().at("pieces"));
    EXPECT_EQ(7u, job_->activity().set_size);
    EXPECT_EQ(7u, job_->activity().set_storage_size);
    EXPECT_EQ("zstd", text_of_set("compression"));
    EXPECT_THAT(left_in_cache(), IsEmpty());
}

TEST_F(GaussDB_T_Backup_Test, a_failed_statement_leaves_in_the_pool_what_the_database_wrote) {
    options_->mount_ = true;
    before_each("case $1 in backup*) mkdir '" + cache() + "/FULL_1'; echo half >'" + cache() +
                "/FULL_1/data'; exit 1 ;; esac");
    EXPECT_EQ(T_FAILURE, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd");
    Log_Capture::instance().claim_all(LM_WARNING, "zsql");
    EXPECT_THAT(objects(), ElementsAre("t-1/FULL_1/data"));
    EXPECT_FALSE(catalog_->has(set_uuid()));
}

TEST_F(GaussDB_T_Backup_Test, a_failed_catalog_takes_back_what_the_database_wrote_into_the_pool) {
    options_->mount_ = true;
    catalog_->fail("commit");
    expect_lost("Failed to write catalog to backupd\n");
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to commit");
}

TEST_F(GaussDB_T_Backup_Test, a_cache_directory_of_another_user_is_not_covered_by_a_mount) {
    options_->mount_ = true;
    ASSERT_EQ(0, chown_r(cache().c_str(), "root"));
    expect_refused("the directory does not belong to the user daemon; run: chown daemon " +
                   cache());
    EXPECT_THAT(asked(), Not(testing::Contains(HasSubstr("backup database"))));
}

TEST_F(GaussDB_T_Backup_Test, a_link_of_the_user_leads_the_mount_nowhere_that_is_not_the_users) {
    options_->mount_ = true;
    std::filesystem::create_directory(files_.path("roots"));
    std::filesystem::remove(cache());
    std::filesystem::create_symlink(files_.path("roots"), cache());
    EXPECT_EQ(T_FAILURE, backup());
    EXPECT_LOGGED(LM_ERROR, "the directory does not belong to the user daemon");
}

TEST_F(GaussDB_T_Backup_Test, a_pool_that_is_unmounted_during_the_statement_has_no_set) {
    options_->mount_ = true;
    EXPECT_EQ(T_FAILURE,
              run_while(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                        RESOURCE, "backup database",
                        [&](Job&) { EXPECT_EQ(0, umount2(cache().c_str(), MNT_DETACH)); }));
    EXPECT_LOGGED(LM_ERROR, "the pool has been unmounted from " + cache());
    EXPECT_LOGGED(LM_ERROR, LOST);
    Log_Capture::instance().claim_all(LM_WARNING, "unmount");
    expect_nothing_left();
}

TEST_F(GaussDB_T_Backup_Test, a_dedup_pool_without_a_key_cannot_be_mounted) {
    options_->mount_ = true;
    for (char const* scheme : {"dedup", "dedups", "ws", "wss"}) {
        pools_->info.url = std::string(scheme) + "://host/pool";
        options_->compression_ = static_cast<Compression_Method>(9);
        EXPECT_EQ(T_FAILURE, backup());
        EXPECT_LOGGED(LM_ERROR, "Failed to set fuse for dedup.\n");
    }
    options_->compression_ = COMPR_NONE;
    EXPECT_EQ(T_FAILURE, backup());
    EXPECT_LOGGED(LM_ERROR, "no storage for URLs of 'wss'\n");
}

TEST_F(GaussDB_T_Backup_Test, a_source_without_a_name_is_the_instance_of_its_entries) {
    source_->name("");
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_EQ("c1", text_of_set("instance"));
}

// what does not begin

TEST_F(GaussDB_T_Backup_Test, without_an_account_the_job_is_skipped) {
    source_->name("c2");
    EXPECT_EQ("", backup());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance info of c2\n");
    EXPECT_LOGGED(LM_ERROR,
                  std::string("Job ") + DEFINITION + " is ignored: failed to get instance info!\n");
}

TEST_F(GaussDB_T_Backup_Test, without_its_cluster_the_job_is_skipped) {
    GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
    EXPECT_EQ("", backup());
    EXPECT_CHECK_LOGGED_AT(LM_EMERGENCY, "cluster_ is NULL");
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
}

TEST_F(GaussDB_T_Backup_Test, a_record_of_another_user_is_not_believed) {
    instances_->put({"gaussdb", "c1", RESOURCE, {{"user", "root"}}, {}});
    ASSERT_TRUE(Instance_Manager::instance()->save_account(
        "gaussdb", "c1", UID, {{"username", "gauss"}, {"password", "secret"}}));
    EXPECT_EQ("", backup());
    EXPECT_LOGGED(LM_ERROR, "is on record for the user 'root', but runs as 'daemon'");
}

TEST_F(GaussDB_T_Backup_Test, a_database_that_is_not_open_is_told_with_its_state) {
    db_file("status", "MOUNT");
    expect_refused("Database is not open:MOUNT\n");
}

TEST_F(GaussDB_T_Backup_Test, a_database_that_does_not_answer_is_not_open) {
    fails_at("select status");
    expect_refused("Database is not open:\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd");
    Log_Capture::instance().claim_all(LM_WARNING, "zsql");
}

TEST_F(GaussDB_T_Backup_Test, a_pool_that_is_unknown_ends_the_run) {
    pools_->info.uuid = "another";
    expect_refused("Pool pool-1 cannot be used");
}

TEST_F(GaussDB_T_Backup_Test, a_pool_that_is_read_only_ends_the_run) {
    pools_->info.read_only = true;
    expect_refused("Pool pool-1 cannot be used, it is read-only\n");
}

TEST_F(GaussDB_T_Backup_Test, an_encryption_without_a_key_ends_the_run) {
    pools_->info.encryption = ENCRYPTION_AES_256;
    expect_refused("Failed to setup io options for GaussDB T\n");
}

TEST_F(GaussDB_T_Backup_Test, a_cache_directory_that_could_be_more_than_a_path_is_refused) {
    for (char const* path : {"", "cache", "/a'b", "/a b", "/a\"b", "/a$b", "/a/../b", "/a\nb"}) {
        options_->cache_dir_ = path;
        EXPECT_EQ(T_FAILURE, backup()) << path;
        EXPECT_LOGGED(LM_ERROR, "Invalid option cache_dir '");
    }
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(GaussDB_T_Backup_Test, without_options_nothing_begins) {
    def_->options(Job_Options_var());
    expect_refused("opts_ is NULL:\n");
}

// what fails on the way

TEST_F(GaussDB_T_Backup_Test, a_failed_statement_leaves_nothing_in_the_cache_directory) {
    backup_writes("echo half >data; exit 1");
    expect_refused("Failed to run cmd");
    Log_Capture::instance().claim_all(LM_WARNING, "zsql");
    EXPECT_NOT_LOGGED("is lost");
}

TEST_F(GaussDB_T_Backup_Test, a_pool_that_is_out_of_reach_is_told_after_the_statement) {
    pools_->info.url = pool_.url() + "/none";
    expect_lost("Failed to connect to storage server file://");
    EXPECT_THAT(statement(), HasSubstr("backup database"));
}

TEST_F(GaussDB_T_Backup_Test, a_put_that_fails_takes_back_what_was_sent) {
    // the third name is not UTF-8, so no object can have it
    backup_writes("for i in a b \"$(printf 'c\\377')\" d; do echo 1 >\"$i\"; done");
    expect_lost("/c");
    EXPECT_THAT(catalog_->calls(), IsEmpty());
}

TEST_F(GaussDB_T_Backup_Test, a_put_that_fails_at_once_takes_nothing_back) {
    backup_writes("echo 1 >\"$(printf 'c\\377')\"");
    expect_lost("/c");
}

TEST_F(GaussDB_T_Backup_Test, a_catalog_that_fails_takes_back_what_was_sent) {
    catalog_->fail("commit");
    expect_lost("Failed to write catalog to backupd\n");
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to commit");
}

TEST_F(GaussDB_T_Backup_Test, a_statement_that_leaves_no_directory_has_failed) {
    tool("zsql", "printf 'A\\n---\\nOPEN\\n'");
    expect_lost("Failed to backup " + cache() + "/FULL_");
}

TEST_F(GaussDB_T_Backup_Test, what_cannot_be_taken_back_is_told) {
    catalog_->fail("commit");
    EXPECT_EQ(T_FAILURE,
              run_while(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                        RESOURCE, "select version",
                        [&](Job&) { std::filesystem::remove_all(pool_.path() + "/t-1"); }));
    EXPECT_LOGGED(LM_ERROR, "Failed to write catalog to backupd\n");
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to commit");
    EXPECT_LOGGED(LM_WARNING, "Failed to remove data of a failed backup: ");
    expect_nothing_left();
    EXPECT_LOGGED(LM_ERROR, LOST);
}

TEST_F(GaussDB_T_Backup_Test, what_a_killed_agent_left_goes_with_the_next_run) {
    files_.write("cache/FULL_1/data", "half");
    files_.write("cache/mine/data", "somebody else's");
    give("cache");
    write(NOTES, cache() + "/FULL_1\n" + cache() + "/gone/FULL_2\nrelative\n");
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_LOGGED(LM_INFO,
                  "Removed " + cache() + "/FULL_1, which a run that was cut off has left\n");
    EXPECT_THAT(left_in_cache(), ElementsAre("mine"));
    EXPECT_FALSE(exists(NOTES));
}

TEST_F(GaussDB_T_Backup_Test, what_is_being_written_is_noted_until_it_is_removed) {
    std::string noted;
    EXPECT_EQ(T_SUCCESS,
              run_while(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                        RESOURCE, "backup database", [&](Job&) { noted = content(NOTES); }));
    EXPECT_EQ(text_of_set("meta_destination") + "\n", noted);
    EXPECT_FALSE(exists(NOTES));
}

TEST_F(GaussDB_T_Backup_Test, what_cannot_be_noted_is_not_begun) {
    std::filesystem::create_directories(std::string(NOTES) + "/x");
    expect_refused("Failed to note " + cache() + "/FULL_");
    EXPECT_EQ("", statement());
    rm_rf(NOTES);
}

// what the database builds on

TEST_F(GaussDB_T_Backup_Test, an_incremental_one_is_not_built_on_a_lost_set) {
    ASSERT_EQ(T_SUCCESS, backup());
    std::string const lost = lose(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    expect_not_begun(JOB_DEFINITION_SUBTYPE_INCREMENTAL, lost,
                     "make a full backup, or a cumulative one\n");
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_CUMULATIVE));
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_INCREMENTAL));
}

TEST_F(GaussDB_T_Backup_Test, nothing_is_built_on_a_lost_full_set) {
    ASSERT_EQ(T_SUCCESS, backup());
    std::string const lost = lose(JOB_DEFINITION_SUBTYPE_FULL);
    expect_not_begun(JOB_DEFINITION_SUBTYPE_INCREMENTAL, lost,
                     "make a full backup, or a cumulative one\n");
    expect_not_begun(JOB_DEFINITION_SUBTYPE_CUMULATIVE, lost, "make a full backup\n");
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_FULL));
    ASSERT_EQ(T_SUCCESS, backup_as(JOB_DEFINITION_SUBTYPE_INCREMENTAL));
}

TEST_F(GaussDB_T_Backup_Test, a_statement_that_failed_may_have_made_a_set) {
    ASSERT_EQ(T_SUCCESS, backup());
    fails_at("backup database");
    EXPECT_EQ(T_FAILURE, backup_as(JOB_DEFINITION_SUBTYPE_INCREMENTAL));
    Log_Capture::instance().claim_all(LM_ERROR, "");
    Log_Capture::instance().claim_all(LM_WARNING, "zsql");
    std::filesystem::remove(files_.path("db/fail"));
    expect_not_begun(JOB_DEFINITION_SUBTYPE_INCREMENTAL, set_uuid(), "make a full backup");
}

TEST_F(GaussDB_T_Backup_Test, a_statement_that_was_ended_may_have_made_a_set) {
    ASSERT_EQ(T_SUCCESS, backup());
    expect_statement_ended();
    expect_not_begun(JOB_DEFINITION_SUBTYPE_INCREMENTAL, set_uuid(), "make a full backup");
}

TEST_F(GaussDB_T_Backup_Test, a_set_is_noted_before_the_database_makes_it) {
    ASSERT_EQ(T_SUCCESS, backup());
    std::string const full = set_uuid();
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    std::string noted;
    EXPECT_EQ(T_SUCCESS,
              run_while(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                        RESOURCE, "backup database", [&](Job&) { noted = content(HISTORY); }));
    EXPECT_EQ(full + "\n" + set_uuid() + "\n", noted);
    EXPECT_EQ(noted, content(HISTORY));
}

TEST_F(GaussDB_T_Backup_Test, a_set_of_another_pool_is_nothing_to_build_on) {
    write(HISTORY, "elsewhere\nelsewhere\n");
    catalog_->add_row({{"uuid", "elsewhere"},
                       {"resource_uuid", RESOURCE},
                       {"storages", json_spirit::Array{Object{{"pool_uuid", "pool-2"}}}}});
    expect_not_begun(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "elsewhere", "make a full backup");
    expect_not_begun(JOB_DEFINITION_SUBTYPE_CUMULATIVE, "elsewhere", "make a full backup");
}

TEST_F(GaussDB_T_Backup_Test, a_set_that_cannot_be_noted_is_not_made) {
    std::filesystem::create_directories(std::string(HISTORY) + "/x");
    expect_refused("Failed to note the backup set ");
    EXPECT_EQ("", statement());
    rm_rf(HISTORY);
}

// what the database's user puts in the way

TEST_F(GaussDB_T_Backup_Test, what_is_not_a_file_is_not_sent) {
    for (char const* trap : {"ln -s /etc/passwd z", "mkfifo z", "mkdir z", "ln -s a z"}) {
        backup_writes("echo 1 >a; " + std::string(trap));
        expect_lost("/z: ");
    }
}

TEST_F(GaussDB_T_Backup_Test, a_file_of_another_user_is_not_sent) {
    backup_writes("echo 1 >a; : >\"$db/there\"; until test -f \"$db/go\"; do sleep 0.01; done");
    std::thread beside([&] {
        while (!files_.exists("db/there"))
            std::this_thread::yield();
        files_.write("cache/" + left_in_cache().front() + "/roots", "secret");
        files_.write("db/go", "");
    });
    expect_lost("/roots: ");
    beside.join();
}

TEST_F(GaussDB_T_Backup_Test, a_link_in_place_of_the_directory_is_not_followed) {
    backup_writes("cd ..; mv \"$path\" x; ln -s \"$PWD/x\" \"$path\"; echo 1 >x/data");
    EXPECT_EQ(T_FAILURE, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to backup " + cache() + "/FULL_");
    EXPECT_THAT(left_in_cache(), ElementsAre("x")) << "the link goes, what it leads to stays";
    EXPECT_THAT(objects(), IsEmpty());
    EXPECT_LOGGED(LM_ERROR, LOST);
}

TEST_F(GaussDB_T_Backup_Test, a_name_that_would_come_back_as_another_is_refused) {
    data_is("x.zst", "content");
    expect_lost("/x.zst: its name ends as that of a packed file\n");
}

// the end of the run

TEST_F(GaussDB_T_Backup_Test, a_cancel_ends_the_statement) {
    for (bool const mount : {false, true}) {
        options_->mount_ = mount;
        std::filesystem::remove(files_.path("db/there"));
        std::filesystem::remove(files_.path("db/go"));
        expect_statement_ended();
        expect_nothing_left();
    }
}

TEST_F(GaussDB_T_Backup_Test, a_cancel_after_the_statement_ends_the_run_as_well) {
    EXPECT_EQ("ended canceled 0",
              run_while(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                        RESOURCE, "backup database", [](Job& job) { EXPECT_EQ(0, job.abort()); }));
    expect_nothing_left();
    EXPECT_LOGGED(LM_ERROR, LOST);
}

TEST_F(GaussDB_T_Backup_Test, a_cancel_ends_the_transfer) {
    data_is("data", std::string(1 << 20, 'x'));
    EXPECT_EQ("ended canceled 0",
              cancel_transfer(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false),
                              RESOURCE, pool_.path()));
    EXPECT_LOGGED(LM_ERROR, "/data: the run was canceled\n");
    EXPECT_LOGGED(LM_ERROR, LOST);
    expect_nothing_left();
}

TEST_F(GaussDB_T_Backup_Test, it_has_its_instance_for_itself) {
    ASSERT_EQ(T_SUCCESS, backup());
    EXPECT_EQ((Texts{"hold instance/t-1", "release instance/t-1"}), jobs_.holds());
    jobs_.clear();
    jobs_.on_hold([&](std::set<std::string> const&) {
        EXPECT_EQ(0, job_->abort());
        return Hold_Answer{Hold_Answer::WAIT, "job x"};
    });
    size_t const before = asked().size();
    EXPECT_EQ("ended canceled 0", backup());
    EXPECT_EQ(before, asked().size());
}

} // namespace
