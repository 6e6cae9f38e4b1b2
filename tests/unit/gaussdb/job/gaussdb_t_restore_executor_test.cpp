#include "gaussdb/job/gaussdb_t_restore_executor.h"

#include "tests/unit/gaussdb/job/t_world.h"

#include <sys/mount.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Texts = std::vector<std::string>;

/** A full backup, a cumulative and an incremental one, really made; the last is to be restored. */
class GaussDB_T_Restore_Test : public T_World {
public:
    void SetUp() override {
        T_World::SetUp();
        options_->compression_ = COMPR_ZSTD;
        back_up(JOB_DEFINITION_SUBTYPE_FULL, "full");
        back_up(JOB_DEFINITION_SUBTYPE_CUMULATIVE, "cumulative");
        back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "last");
        restore_def_ = definition(JOB_DEFINITION_RESTORE);
        Job_Target target;
        target.id("t-2");
        target.name("c1");
        restore_def_->target(target);
        restore_source_ = new GaussDB_Restore_Job_Source;
        restore_source_->id(RESOURCE);
        restore_source_->restore_as_ = "gaussdb/c1";
        restore_source_->backup_key_ = sets_.back();
        restore_def_->source(Job_Source_var(restore_source_));
        restore_options_ = new GaussDB_Restore_Job_Options;
        restore_options_->channels_ = 4;
        restore_def_->options(Job_Options_var(restore_options_));
        std::filesystem::create_directory(files_.path("db/restored"));
        give("db");
        begin_anew();
    }
    void back_up(Job_Definition_Subtype subtype, std::string const& content) {
        data_is("data", content);
        def_->subtype(subtype);
        ASSERT_EQ(T_SUCCESS, backup());
        sets_.push_back(set_uuid());
        // as if each had begun a second later
        change(set_uuid(), "backup_start_time", 1000 + static_cast<int>(sets_.size()));
        jobs_.clear();
    }
    void begin_anew() {
        jobs_.clear();
        for (char const* file : {"db/asked", "db/fail", "db/hook", "db/there", "db/go"})
            std::filesystem::remove(files_.path(file));
        catalog_mark_ = catalog_->calls().size();
    }
    void change(std::string const& uuid, std::string const& key, Value const& value) {
        Object row = catalog_->row(uuid);
        row[key] = value;
        catalog_->add_row(row);
    }
    Job_var job() const {
        return Job_var(new Default_Job_T<GaussDB_T_Restore_Executor>(restore_def_), false);
    }
    std::string restore() { return run(job(), "t-2"); }
    std::string place(size_t set) const {
        return json_spirit::object_get_str(catalog_->row(sets_[set]), "meta_destination");
    }
    std::string stored(size_t set) const {
        return pool_.path() + "/" + json_spirit::object_get_str(catalog_->row(sets_[set]), "uri") +
               "/data.zst";
    }
    bool data_is_there() const { return files_.exists("db/data/data/system"); }
    /** The run fails with that line, and the instance is as it was. */
    void expect_nothing_touched(std::string const& message) {
        EXPECT_EQ(T_FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, message);
        expect_untouched();
    }
    void expect_untouched() {
        EXPECT_TRUE(data_is_there());
        EXPECT_THAT(asked(), IsEmpty());
        EXPECT_THAT(left_in_cache(), IsEmpty());
    }
    /** The run fails, and says in its last line that the instance is down. */
    void expect_down() {
        EXPECT_EQ(T_FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, "Instance c1 is down or not open, and its data is gone: put right "
                                "what failed, and run the restore again\n");
        EXPECT_FALSE(data_is_there());
        EXPECT_THAT(left_in_cache(), IsEmpty());
    }
    void claim_tool(std::string const& tool) {
        EXPECT_LE(1u, Log_Capture::instance().claim_all(LM_WARNING, tool));
    }
    std::string restore_statement() const {
        return "restore database from '" + place(2) + "' parallelism 4;";
    }

    std::vector<std::string> sets_; ///< uuids, the full one first
    Job_Definition_var restore_def_;
    GaussDB_Restore_Job_Source* restore_source_ = nullptr;
    GaussDB_Restore_Job_Options* restore_options_ = nullptr;
};

TEST_F(GaussDB_T_Restore_Test, the_database_is_stopped_emptied_and_restored) {
    ASSERT_EQ(T_SUCCESS, restore());
    EXPECT_THAT(asked(),
                ElementsAre("zctl.py -t stop", "zctl.py -t start -m nomount", restore_statement(),
                            "recover database;", "alter database open"));
    EXPECT_FALSE(data_is_there());
    EXPECT_EQ("last", files_.read("db/restored/data")) << "the set that was asked for";
    EXPECT_THAT(left_in_cache(), IsEmpty());
    EXPECT_EQ("/opt/test\n", files_.read("db/home")) << "the directory for temporary files";
    EXPECT_EQ(18u, job_->activity().set_size) << "of the three sets together";
    EXPECT_EQ(5000u, job_->activity().size);
}

TEST_F(GaussDB_T_Restore_Test, each_set_of_the_chain_is_brought_to_its_own_place) {
    for (size_t i = 0; i < 3; ++i)
        before_each("case $1 in restore*) for d in '" + cache() +
                    "'/*; do echo \"$d $(cat \"$d/data\") $(stat -c %U:%a \"$d\") $(stat -c %U "
                    "\"$d/data\")\"; done >\"$db/sets\" ;; esac");
    ASSERT_EQ(T_SUCCESS, restore());
    Texts sets;
    std::istringstream lines(files_.read("db/sets"));
    for (std::string line; std::getline(lines, line);)
        sets.push_back(line);
    EXPECT_THAT(sets, testing::UnorderedElementsAre(place(0) + " full daemon:700 daemon",
                                                    place(1) + " cumulative daemon:700 daemon",
                                                    place(2) + " last daemon:700 daemon"));
}

TEST_F(GaussDB_T_Restore_Test, the_catalog_is_asked_for_the_chain_with_its_pieces) {
    ASSERT_EQ(T_SUCCESS, restore());
    EXPECT_EQ((Object{{"resource_uuid", RESOURCE},
                      {"backup_key", sets_.back()},
                      {"sort", "backup_start_time"},
                      {"order", "desc"},
                      {"cmode", "rb_orm_rows"},
                      {"with_pieces", "1"}}),
              catalog_->queries().back());
    EXPECT_THAT(catalog_calls(), ElementsAre("get_view restore"));
}

TEST_F(GaussDB_T_Restore_Test, an_older_set_needs_only_what_came_before_it) {
    restore_source_->backup_key_ = sets_.front();
    ASSERT_EQ(T_SUCCESS, restore());
    EXPECT_EQ("full", files_.read("db/restored/data"));
    EXPECT_EQ(4u, job_->activity().set_size);
}

TEST_F(GaussDB_T_Restore_Test, by_a_mount_nothing_is_fetched) {
    restore_options_->mount_ = true;
    before_each("stat -f -c %T '" + cache() + "' >>\"$db/types\"");
    ASSERT_EQ(T_SUCCESS, restore());
    EXPECT_EQ(0u, catalog_->queries().back().count("with_pieces"));
    EXPECT_THAT(files_.read("db/types"), Not(HasSubstr("ext")));
    EXPECT_THAT(files_.read("db/types"), HasSubstr("fuse"));
    EXPECT_EQ("last", files_.read("db/restored/data"));
    EXPECT_THAT(left_in_cache(), IsEmpty());
    EXPECT_TRUE(is_regular_file(stored(2).c_str())) << "the destructor leaves the pool alone";
}

TEST_F(GaussDB_T_Restore_Test, a_set_that_was_written_through_a_mount_is_fetched_as_well) {
    options_->mount_ = true;
    back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "mounted");
    restore_source_->backup_key_ = sets_.back();
    for (bool const mount : {false, true}) {
        begin_anew();
        restore_options_->mount_ = mount;
        ASSERT_EQ(T_SUCCESS, restore());
        EXPECT_EQ("mounted", files_.read("db/restored/data"));
    }
}

// what is made sure of before anything is touched

TEST_F(GaussDB_T_Restore_Test, a_key_that_no_set_has) {
    restore_source_->backup_key_ = "none";
    expect_nothing_touched(
        "Nothing was changed, the catalog has no backup set with the key none\n");
}

TEST_F(GaussDB_T_Restore_Test, a_catalog_that_does_not_answer) {
    catalog_->fail("get_view");
    expect_nothing_touched("The catalog fails to get_view");
}

TEST_F(GaussDB_T_Restore_Test, a_row_that_lacks_what_is_needed) {
    for (char const* key :
         {"pool_uuid", "uri", "meta_destination", "source_size", "backup_set_size"}) {
        Object const row = catalog_->row(sets_[1]);
        Object without = row;
        without.erase(key);
        catalog_->add_row(without);
        expect_nothing_touched("Failed to get gaussdb catalog, ");
        catalog_->add_row(row);
    }
}

TEST_F(GaussDB_T_Restore_Test, a_chain_without_its_full_backup) {
    for (bool const mount : {false, true}) {
        restore_options_->mount_ = mount;
        change(sets_[0], "resource_uuid", "another");
        expect_nothing_touched("Nothing was changed, backup set " + sets_[2] +
                               " needs the full backup " + sets_[0] +
                               ", which is not in the catalog\n");
    }
}

TEST_F(GaussDB_T_Restore_Test, a_set_that_does_not_say_on_what_it_builds) {
    change(sets_[2], "incarnation", "");
    change(sets_[2], "prior_backup_key", "");
    expect_nothing_touched("Nothing was changed, backup set " + sets_[2] +
                           " does not say on which full backup it builds\n");
}

TEST_F(GaussDB_T_Restore_Test, a_piece_that_is_not_in_the_pool) {
    for (size_t const set : {0u, 1u, 2u}) {
        std::string const away = stored(set) + ".away";
        std::filesystem::rename(stored(set), away);
        expect_nothing_touched("Nothing was changed, piece data.zst of backup set " + sets_[set] +
                               " cannot be read: ");
        std::filesystem::rename(away, stored(set));
    }
}

TEST_F(GaussDB_T_Restore_Test, a_piece_that_a_mount_would_not_show) {
    restore_options_->mount_ = true;
    std::filesystem::remove(stored(1));
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_LOGGED(LM_ERROR, "Nothing was changed, backup set " + sets_[1]);
    expect_untouched();
}

TEST_F(GaussDB_T_Restore_Test, a_set_that_has_lost_bytes) {
    for (bool const mount : {false, true}) {
        restore_options_->mount_ = mount;
        change(sets_[0], "backup_set_size", 1000);
        expect_nothing_touched("Nothing was changed, backup set " + sets_[0] +
                               " has 4 bytes in the pool in place of 1000");
    }
}

TEST_F(GaussDB_T_Restore_Test, a_damaged_piece_is_noticed_while_it_is_fetched) {
    std::string bytes;
    ASSERT_EQ(0, read_file(stored(0).c_str(), bytes, 1 << 20));
    bytes[bytes.size() / 2] ^= 1;
    std::ofstream(stored(0), std::ios::binary) << bytes;
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_LE(1u, Log_Capture::instance().claim_all(LM_ERROR, "data.zst"));
    expect_untouched();
}

TEST_F(GaussDB_T_Restore_Test, a_pool_that_is_gone) {
    std::filesystem::rename(pool_.path(), pool_.path() + ".away");
    expect_nothing_touched("Failed to connect to storage server file://");
    std::filesystem::rename(pool_.path() + ".away", pool_.path());
}

TEST_F(GaussDB_T_Restore_Test, a_pool_that_is_not_on_record) {
    for (bool const mount : {false, true}) {
        restore_options_->mount_ = mount;
        change(sets_[1], "pool_uuid", "pool-2");
        expect_nothing_touched(mount ? "is not below the folder that is mounted"
                                     : "Pool pool-2 cannot be used");
    }
}

TEST_F(GaussDB_T_Restore_Test, an_encryption_without_a_key) {
    pools_->info.encryption = ENCRYPTION_AES_256;
    expect_nothing_touched("Invalid encryption setting\n");
}

TEST_F(GaussDB_T_Restore_Test, no_room_for_what_is_fetched) {
    // a small file system at the cache directory, in the private root of the test
    ASSERT_EQ(0, ::mount("tmpfs", cache().c_str(), "tmpfs", 0, "size=64k,mode=777"));
    Scoped_Deleter const unmount([&] { umount2(cache().c_str(), MNT_DETACH); });
    for (size_t const set : {0u, 1u, 2u}) { // together they are too large, each fits
        change(sets_[set], "backup_set_size", 40 << 10);
        std::string const text(40 << 10, 'x');
        std::filesystem::remove(stored(set));
        std::string const name = stored(set).substr(0, stored(set).size() - 4);
        std::ofstream(name) << text;
        change(sets_[set], "pieces", Array{Object{{"path", "data"}, {"size", 0}}});
    }
    expect_nothing_touched("Nothing was changed, the backup sets need 122880 bytes in " + cache() +
                           ", where 65536 are free");
}

TEST_F(GaussDB_T_Restore_Test, a_place_that_could_be_more_than_a_path) {
    for (char const* path : {"/a'; drop table t", "relative/x", "/a b/c", "/x/../etc/y", ""}) {
        change(sets_[0], "meta_destination", path);
        expect_nothing_touched("Invalid directory of a backup set '");
    }
    for (char const* path : {"/x/", "/"}) {
        change(sets_[0], "meta_destination", path);
        expect_nothing_touched("has no directory of its own");
    }
    change(sets_[0], "meta_destination", place(2));
    expect_nothing_touched("has no directory of its own");
}

TEST_F(GaussDB_T_Restore_Test, a_piece_that_leads_out_of_its_set) {
    for (char const* path : {"../../x", "a/b", "..", "."}) {
        change(sets_[1], "pieces", Array{Object{{"path", path}, {"size", 0}}});
        expect_nothing_touched("has the piece '");
    }
}

TEST_F(GaussDB_T_Restore_Test, a_piece_without_a_path_is_passed_over) {
    Array pieces = catalog_->row(sets_[1]).at("pieces").get_array();
    pieces.emplace_back(Object{{"size", 5}});
    change(sets_[1], "pieces", pieces);
    EXPECT_EQ(T_SUCCESS, restore());
}

TEST_F(GaussDB_T_Restore_Test, a_mount_wants_all_sets_side_by_side) {
    restore_options_->mount_ = true;
    change(sets_[0], "meta_destination", files_.path("other/FULL"));
    expect_nothing_touched("is not below the folder that is mounted; restore without a mount\n");
}

TEST_F(GaussDB_T_Restore_Test, a_mount_point_that_is_not_the_users) {
    restore_options_->mount_ = true;
    ASSERT_EQ(0, chown_r(cache().c_str(), "root"));
    expect_nothing_touched("the directory does not belong to the user daemon");
}

TEST_F(GaussDB_T_Restore_Test, tools_that_are_not_there) {
    for (char const* name : {"zctl.py", "zsql"}) {
        std::filesystem::rename(tools_.path(name), tools_.path("away"));
        expect_nothing_touched(std::string("Nothing was changed, ") + name +
                               " is not on the PATH of instance c1: ");
        std::filesystem::rename(tools_.path("away"), tools_.path(name));
    }
}

TEST_F(GaussDB_T_Restore_Test, a_target_that_is_not_known) {
    Job_Target target;
    target.id("t-2");
    target.name("c2");
    restore_def_->target(target);
    expect_nothing_touched("failed to get instance info!\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance info of c2\n");
    target.name("c1");
    restore_def_->target(target);
    GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_CHECK_LOGGED_AT(LM_EMERGENCY, "cluster_ is NULL");
}

TEST_F(GaussDB_T_Restore_Test, a_target_without_a_name_is_the_instance_to_restore_to) {
    Job_Target target;
    target.id("t-2");
    restore_def_->target(target);
    EXPECT_EQ(T_SUCCESS, restore());
    begin_anew();
    files_.write("db/data/data/system", "old data");
    restore_source_->restore_as_ = "other/c1";
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_LOGGED(LM_WARNING, "Failed to parse gaussdb source:\"other/c1\"\n");
    expect_untouched();
}

TEST_F(GaussDB_T_Restore_Test, without_options) {
    restore_def_->options(Job_Options_var());
    expect_nothing_touched("opts_ is NULL:\n");
}

TEST_F(GaussDB_T_Restore_Test, an_instance_without_a_data_directory) {
    make_t("c1", false);
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_LOGGED(LM_ERROR, "Failed to get c1 data dir\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to clean c1 data dir\n");
    expect_untouched();
    EXPECT_NOT_LOGGED("is down or not open");
}

// what the database's user puts in the way of what is fetched

TEST_F(GaussDB_T_Restore_Test, a_cache_directory_that_is_gone_is_made_by_the_user) {
    std::filesystem::permissions(files_.path(), std::filesystem::perms(0777));
    std::filesystem::remove(cache());
    EXPECT_EQ(T_SUCCESS, restore());
    Password_File_Entry owner;
    ASSERT_EQ(0, owner.get_by_path(cache().c_str()));
    EXPECT_EQ(USER, owner.name());
}

TEST_F(GaussDB_T_Restore_Test, a_cache_directory_that_the_user_cannot_make_is_told) {
    std::filesystem::remove(cache());
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_LOGGED(LM_ERROR, "Failed to use the directory " + cache() + " as the user daemon");
    EXPECT_TRUE(data_is_there());
    EXPECT_FALSE(files_.exists("cache"));
}

TEST_F(GaussDB_T_Restore_Test, a_link_leads_nowhere_that_the_user_cannot_write) {
    std::filesystem::create_directory(files_.path("roots"));
    std::filesystem::remove(cache());
    std::filesystem::create_symlink(files_.path("roots"), cache());
    EXPECT_EQ(T_FAILURE, restore());
    EXPECT_LOGGED(LM_ERROR, "Failed to make the directory " + place(2));
    EXPECT_TRUE(std::filesystem::is_empty(files_.path("roots")));
    EXPECT_TRUE(data_is_there());
}

TEST_F(GaussDB_T_Restore_Test, what_stood_in_the_place_is_replaced) {
    files_.write("roots/keep", "x");
    std::filesystem::create_symlink(files_.path("roots"), place(2));
    std::filesystem::create_directories(place(1) + "/old");
    give("cache");
    // what a killed agent left is root's
    std::filesystem::create_directories(place(0));
    std::filesystem::permissions(place(0), std::filesystem::perms(0700));
    std::ofstream(place(0) + "/half") << "half";
    EXPECT_EQ(T_SUCCESS, restore());
    EXPECT_EQ("x", files_.read("roots/keep"));
    EXPECT_EQ("last", files_.read("db/restored/data"));
    EXPECT_THAT(left_in_cache(), IsEmpty());
}

TEST_F(GaussDB_T_Restore_Test, what_a_killed_agent_left_of_another_restore_goes) {
    std::string const left = cache() + "/FULL_1"; // root's, as it was not complete
    files_.write("cache/FULL_1/data", "half");
    std::filesystem::permissions(left, std::filesystem::perms(0700));
    write(dirname_string(NOTES) + "/t-2", left + "\n");
    before_each("case $1 in restore*) ls '" + cache() + "' >\"$db/sets\" ;; esac");
    ASSERT_EQ(T_SUCCESS, restore());
    EXPECT_LOGGED(LM_INFO, "Removed " + left);
    EXPECT_THAT(files_.read("db/sets"), Not(HasSubstr("FULL_1\n")));
}

TEST_F(GaussDB_T_Restore_Test, only_the_users_rights_empty_the_data_directory) {
    std::filesystem::remove_all(files_.path("db/data/data"));
    files_.write("roots/keep", "x");
    std::filesystem::create_directory_symlink(files_.path("roots"), files_.path("db/data/data"));
    EXPECT_EQ(T_SUCCESS, restore());
    EXPECT_TRUE(files_.exists("roots/keep"));
}

TEST_F(GaussDB_T_Restore_Test, directories_in_the_data_directory_stay) {
    files_.write("db/data/data/sub/file", "x");
    files_.write("db/data/log", "x");
    give("db");
    EXPECT_EQ(T_SUCCESS, restore());
    EXPECT_TRUE(files_.exists("db/data/data/sub/file"));
    EXPECT_TRUE(files_.exists("db/data/log"));
    EXPECT_FALSE(data_is_there());
}

// what fails after the stop

TEST_F(GaussDB_T_Restore_Test, a_stop_that_fails_does_not_end_the_restore) {
    fails_at("-t stop");
    EXPECT_EQ(T_SUCCESS, restore());
    EXPECT_LOGGED(LM_WARNING, "Failed to stop instance c1, it may be down already\n");
    claim_tool("zctl.py");
}

TEST_F(GaussDB_T_Restore_Test, a_start_that_fails_leaves_the_instance_down) {
    fails_at("-t start");
    expect_down();
    claim_tool("zctl.py");
    EXPECT_EQ("zctl.py -t start -m nomount", asked().back());
}

TEST_F(GaussDB_T_Restore_Test, each_statement_that_fails_leaves_the_instance_down) {
    for (bool const mount : {false, true})
        for (char const* statement :
             {"restore database", "recover database", "alter database open"}) {
            begin_anew();
            files_.write("db/data/data/system", "old data");
            restore_options_->mount_ = mount;
            fails_at(statement);
            expect_down();
            EXPECT_LOGGED(LM_ERROR, "GS-00001, told to fail");
            claim_tool("zsql");
        }
}

TEST_F(GaussDB_T_Restore_Test, a_cancel_before_the_stop_touches_nothing) {
    jobs_.on_hold([&](std::set<std::string> const&) {
        EXPECT_EQ(0, job_->abort());
        return Hold_Answer();
    });
    EXPECT_EQ("ended canceled 0", restore());
    Log_Capture::instance().claim_all(LM_ERROR, "the run was canceled");
    expect_untouched();
}

TEST_F(GaussDB_T_Restore_Test, a_cancel_ends_the_transfer_and_touches_nothing) {
    options_->compression_ = COMPR_NONE;
    back_up(JOB_DEFINITION_SUBTYPE_FULL, std::string(1 << 20, 'x'));
    restore_source_->backup_key_ = sets_.back();
    begin_anew();
    EXPECT_EQ("ended canceled 0", cancel_transfer(job(), "t-2", cache()));
    EXPECT_LOGGED(LM_ERROR, "Failed to get file data to ");
    expect_untouched();
}

TEST_F(GaussDB_T_Restore_Test, a_cancel_ends_the_statement_and_leaves_the_instance_down) {
    EXPECT_EQ("ended canceled 0", run_while(job(), "t-2", "restore database",
                                            [](Job& job) { EXPECT_EQ(0, job.abort_now()); }));
    EXPECT_LOGGED(LM_ERROR, "Instance c1 is down or not open");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd");
    claim_tool("zsql");
    EXPECT_THAT(left_in_cache(), IsEmpty());
}

TEST_F(GaussDB_T_Restore_Test, it_has_source_and_target_for_itself) {
    ASSERT_EQ(T_SUCCESS, restore());
    EXPECT_EQ((Texts{"hold instance/t-1 instance/t-2", "release instance/t-1 instance/t-2"}),
              jobs_.holds());
}

} // namespace
