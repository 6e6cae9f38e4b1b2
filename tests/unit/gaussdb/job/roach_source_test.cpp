#include "gaussdb/job/roach_source.h"

#include "gaussdb/job/gaussdb_event_handler.h"
#include "host/mtf/mtf_backup.h"
#include "host/rpc/websocket_options.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/failing_new.h"
#include "tests/unit/gaussdb/job/roach_world.h"

#include <atomic>
#include <gmock/gmock.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

class Roach_Source_Test : public Roach_World {
protected:
    static Value json(std::string const& path) {
        Value value;
        EXPECT_TRUE(load_json(path.c_str(), value)) << path;
        return value;
    }
    static Texts keys(Object const& object) {
        Texts keys;
        for (auto const& [key, value] : object)
            keys.push_back(key);
        return keys;
    }
    void serve_other(RPC_Answer answer = rpc_result(Value(true))) {
        upstream_->serve_forward("other", "gaussdb.roach_source", std::move(answer));
    }
    Object last_request() const { return upstream_->rpc_calls().back().params.get_obj(); }
    Roach_Source with_policy(char const* name) const {
        return source(GAUSSDB_200, 8, COMPR_NONE, name);
    }
    /** Whether a program does not run any longer; it does not end by itself. */
    static bool was_ended(pid_t tool) {
        int how = 0;
        bool const ended = waitpid(tool, &how, WNOHANG) == tool && WIFSIGNALED(how);
        if (!ended && kill(tool, SIGKILL) == 0)
            waitpid(tool, &how, 0);
        return ended;
    }
    /** What the tool leaves in the metadata directory. */
    void leave_metadata(std::string const& config = "bak_cluster_static_config.common") {
        write(root("meta/backups.ini"), "the metadata");
        write(root("meta/" + config), "the config");
    }
};

// the policy file

TEST_F(Roach_Source_Test, the_policy_is_the_clusters_users_alone) {
    WebSocket_Options::instance()->set("server", 60305, true);
    EXPECT_TRUE(source().dump_policy());
    Value const policy = json(root("policy-1"));
    EXPECT_EQ((Texts{"access_key", "backupd_host", "backupd_port", "backupd_ssl", "cluster_id",
                     "compression", "compression_level", Rate_Limits::dest_key, "device_uuid",
                     "full_backup", "major", "pool_uuid", "resumption_buffer_size", "retry",
                     Rate_Limits::src_key, "uuid", "version"}),
              keys(policy.get_obj()));
    EXPECT_EQ(Value(Object{{"access_key", "the key of this host"},
                           {"backupd_host", "server"},
                           {"backupd_port", 60305},
                           {"backupd_ssl", true},
                           {"cluster_id", "cluster-1"},
                           {"compression", ""},
                           {"compression_level", 3},
                           {Rate_Limits::dest_key, ""},
                           {"device_uuid", "device-1"},
                           {"full_backup", true},
                           {"major", 8},
                           {"pool_uuid", "pool-1"},
                           {"resumption_buffer_size", 4096},
                           {"retry", 0},
                           {Rate_Limits::src_key, ""},
                           {"uuid", "set-1"},
                           {"version", 2}}),
              policy);
    struct stat status;
    ASSERT_EQ(0, stat(root("policy-1").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_EQ(getpwnam(USER)->pw_uid, status.st_uid);
    for (char const* directory : {"meta", "media"}) {
        ASSERT_EQ(0, stat(root(directory).c_str(), &status));
        EXPECT_EQ(getpwnam(USER)->pw_uid, status.st_uid) << directory;
    }
}

TEST_F(Roach_Source_Test, the_policy_names_compression_and_limits) {
    Rate_Limits limits;
    limits.dest = {{1000, 0, 0}, {2000, 60, 120}};
    Roach_Source source("c", "d", "pool-1", "s", COMPR_ZSTD, 1, USER, 5, 0, limits,
                        GaussDB_Version(GAUSSDB_100, 6, 0, 0), false, "policy-1");
    EXPECT_TRUE(source.dump_policy());
    Object const policy = json(root("policy-1")).get_obj();
    EXPECT_EQ("zstd", policy.at("compression").get_str());
    EXPECT_EQ("1000;01:00-02:00=2000", policy.at(Rate_Limits::dest_key).get_str());
    EXPECT_FALSE(policy.at("full_backup").get_bool());
}

TEST_F(Roach_Source_Test, the_key_in_the_policy_is_never_readable_by_others) {
    EXPECT_TRUE(source().create_path());
    std::atomic<bool> over = false;
    std::atomic<bool> seen = false;
    std::thread watcher([&] {
        while (!over)
            for (auto const& entry : std::filesystem::directory_iterator(ROOT)) {
                struct stat status;
                if (stat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
                    status.st_size > 0 &&
                    ((status.st_mode & 07) != 0 || status.st_uid != getpwnam(USER)->pw_uid))
                    seen = true;
            }
    });
    for (int round = 0; round < 50; ++round)
        EXPECT_TRUE(source().dump_policy());
    over = true;
    watcher.join();
    EXPECT_FALSE(seen);
}

TEST_F(Roach_Source_Test, a_policy_name_that_is_no_file_name_is_refused) {
    mkdir_p(root("meta").c_str(), 0755);
    write(root("other/file"), "x");
    for (char const* name : {"", ".", "..", "a/b", "../x", "/etc/x", "meta", "media", "other"}) {
        EXPECT_FALSE(source(GAUSSDB_200, 8, COMPR_NONE, name).dump_policy()) << name;
        EXPECT_LOGGED(LM_ERROR, "Invalid policy name '" + std::string(name) + "'");
        EXPECT_FALSE(source(GAUSSDB_200, 8, COMPR_NONE, name).remove_policy()) << name;
        EXPECT_LOGGED(LM_ERROR, "Invalid policy name '" + std::string(name) + "'");
    }
    EXPECT_EQ("x", content(root("other/file")));
}

TEST_F(Roach_Source_Test, a_link_in_the_place_of_the_policy_is_replaced_and_not_followed) {
    write("/var/cache/quilmot/zenbrak3/victim", "v");
    mkdir_p(ROOT, 0755);
    ASSERT_EQ(0, symlink("/var/cache/quilmot/zenbrak3/victim", root("policy-1").c_str()));
    EXPECT_TRUE(source().dump_policy());
    EXPECT_EQ("v", content("/var/cache/quilmot/zenbrak3/victim"));
    EXPECT_EQ("set-1", json(root("policy-1")).get_obj().at("uuid").get_str());
    EXPECT_TRUE(source().remove_policy());
    EXPECT_EQ("v", content("/var/cache/quilmot/zenbrak3/victim"));
}

TEST_F(Roach_Source_Test, an_unknown_user_gets_no_policy) {
    Roach_Source source("c", "d", "pool-1", "s", COMPR_NONE, 0, "no-such-user", 0, 0, Rate_Limits(),
                        GAUSSDB_A_811, true, "policy-1");
    EXPECT_FALSE(source.dump_policy());
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, remove_takes_the_policy_and_the_100_series_metadata) {
    EXPECT_TRUE(source().dump_policy());
    write(root("meta/backupset_nbu.ini"), "x");
    write(root("meta/backups.ini"), "y");
    EXPECT_TRUE(source().remove_policy());
    EXPECT_FALSE(exists(root("policy-1")));
    EXPECT_FALSE(exists(root("meta/backupset_nbu.ini")));
    EXPECT_EQ("y", content(root("meta/backups.ini")));
    EXPECT_TRUE(source().remove_policy()); // nothing there is fine, too
}

TEST_F(Roach_Source_Test, directories_that_cannot_be_made_are_told) {
    Roach_Source const made = source();
    rm_rf(ROOT);
    write(ROOT, "a file");
    EXPECT_FALSE(Roach_Source(made).create_path());
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir " + root("meta") + ", errno=20, ");
}

// notify

TEST_F(Roach_Source_Test, nobody_to_tell_is_a_success) {
    EXPECT_TRUE(source().notify({}, "1_1", "def", nullptr, true));
    EXPECT_TRUE(source().remove({}, nullptr, "def"));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, another_host_gets_a_request) {
    serve_other();
    EXPECT_TRUE(source().notify({"other"}, nullptr, "def", nullptr, false));
    EXPECT_EQ((Object{{"action", "add"},
                      {"cluster_id", "cluster-1"},
                      {"compression", ""},
                      {"compression_level", 3},
                      {Rate_Limits::dest_key, ""},
                      {"device_uuid", "device-1"},
                      {"full_backup", true},
                      {"major", 8},
                      {"minor", 1},
                      {"os_user", USER},
                      {"patch", 1},
                      {"policy_name", "policy-1"},
                      {"pool_uuid", "pool-1"},
                      {"resumption_buffer_size", 4096},
                      {"retry", 0},
                      {Rate_Limits::src_key, ""},
                      {"uuid", "set-1"},
                      {"version", 2}}),
              last_request());
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, what_is_optional_in_the_request) {
    serve_other();
    Array const catalogs{Object{{"seq", 1}}};
    EXPECT_TRUE(source().notify({"other"}, "1_1", "def", &catalogs, true));
    Object const request = last_request();
    EXPECT_EQ(Value(catalogs), request.at("catalogs"));
    EXPECT_EQ("def", request.at("definition_uuid").get_str());
    EXPECT_EQ("1_1", request.at("backup_key").get_str());
    EXPECT_EQ(root("meta"), request.at("delete_meta_path").get_str());
}

TEST_F(Roach_Source_Test, an_empty_key_is_left_out_and_fetches_nothing) {
    serve_other();
    EXPECT_TRUE(source().notify({"other", "here"}, "", "def", nullptr, false));
    EXPECT_EQ(0u, last_request().count("backup_key"));
    EXPECT_TRUE(exists(root("policy-1")));
    EXPECT_FALSE(exists(root("meta/backups.ini")));
}

TEST_F(Roach_Source_Test, another_flavour_sends_the_key_and_fetches_nothing_here) {
    serve_other();
    EXPECT_TRUE(source(GAUSSDB_100).notify({"here", "other"}, "1_1", "def", nullptr, false));
    EXPECT_EQ("1_1", last_request().at("backup_key").get_str());
    EXPECT_FALSE(exists(root("meta/backups.ini")));
}

TEST_F(Roach_Source_Test, the_first_host_that_fails_ends_it) {
    serve_other(rpc_error(-32603, "no"));
    EXPECT_FALSE(source().notify({"here", "other", "third"}, nullptr, "def", nullptr, false));
    EXPECT_LOGGED(LM_ERROR, "Failed to notify roach policy to agent other\n");
    Log_Capture::instance().claim_all(LM_ERROR, "gaussdb.roach_source");
    EXPECT_EQ(1u, upstream_->rpc_calls().size());
    EXPECT_TRUE(exists(root("policy-1"))); // who was told stays told
}

TEST_F(Roach_Source_Test, a_full_backup_empties_the_metadata_directory) {
    write(root("meta/roach/1_1/x"), "x");
    EXPECT_TRUE(source().notify({"here"}, nullptr, "def", nullptr, true));
    EXPECT_FALSE(exists(root("meta/roach")));
    EXPECT_TRUE(exists(root("meta")));
    EXPECT_TRUE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, without_a_metadata_directory_nothing_is_emptied) {
    Roach_Source const source = this->source();
    rm_rf(source.meta_path().c_str());
    EXPECT_TRUE(Roach_Source(source).notify({"here"}, nullptr, "def", nullptr, true));
}

TEST_F(Roach_Source_Test, a_key_whose_metadata_is_not_in_the_pool_fails_and_leaves_the_policy) {
    EXPECT_FALSE(source().notify({"here"}, "1_1", "def", nullptr, false));
    EXPECT_LOGGED(LM_ERROR, "Failed to restore backups.ini, ");
    EXPECT_TRUE(exists(root("policy-1")));
}

// remove

TEST_F(Roach_Source_Test, remove_asks_the_others_and_cleans_here) {
    EXPECT_TRUE(source().dump_policy());
    write(root("dn1/postmaster.pid"), "1");
    std::set<std::string> dirs{root("dn2"), root("dn1")};
    serve_other();
    EXPECT_TRUE(source().remove({"here", "other"}, &dirs, "def"));
    EXPECT_EQ((Object{{"action", "remove"},
                      {"definition_uuid", "def"},
                      {"uuid", "set-1"},
                      {"policy_name", "policy-1"},
                      {"pool_uuid", "pool-1"},
                      {"dirs", Array{root("dn1"), root("dn2")}}}),
              last_request());
    EXPECT_FALSE(exists(root("policy-1")));
    EXPECT_FALSE(exists(root("dn1/postmaster.pid")));
}

TEST_F(Roach_Source_Test, end_cleans_up_on_all_hosts_whoever_fails) {
    EXPECT_TRUE(source().dump_policy());
    serve_other(rpc_error(-32603, "no"));
    source().end({"other", "here"}, "def");
    EXPECT_EQ((Object{{"action", "end"},
                      {"definition_uuid", "def"},
                      {"uuid", "set-1"},
                      {"policy_name", "policy-1"},
                      {"pool_uuid", "pool-1"}}),
              last_request());
    EXPECT_FALSE(exists(root("policy-1")));
    EXPECT_LOGGED(LM_ERROR, "Failed to notify roach policy to agent other\n");
    Log_Capture::instance().claim_all(LM_ERROR, "gaussdb.roach_source");
}

TEST_F(Roach_Source_Test, end_without_this_host_leaves_its_policy) {
    EXPECT_TRUE(source().dump_policy());
    serve_other();
    source().end({"other"}, "");
    EXPECT_TRUE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, the_tools_programs_of_the_policys_owner_end) {
    EXPECT_TRUE(source().end_programs()) << "nothing to do without a policy";
    EXPECT_TRUE(source().dump_policy());
    pid_t const tool = start_tool();
    EXPECT_TRUE(source().end_programs());
    EXPECT_TRUE(was_ended(tool));
}

TEST_F(Roach_Source_Test, a_run_of_tpops_keeps_its_policy_beside_those_of_other_clusters) {
    ASSERT_TRUE(source(GAUSSDB_TPOPS, 0, COMPR_NONE, "tpops_r-1").dump_policy());
    EXPECT_TRUE(source().dump_policy());
    EXPECT_TRUE(exists(root("tpops_r-1")));
    Roach_Source later = source(GAUSSDB_TPOPS, 0, COMPR_NONE, "tpops_r-2");
    ASSERT_TRUE(later.dump_policy());
    EXPECT_TRUE(exists(root("policy-1"))) << "nor does it end theirs";
    write(root("meta/backupset_nbu.ini"), "x");
    EXPECT_TRUE(later.remove_policy());
    EXPECT_FALSE(exists(root("tpops_r-2")));
    EXPECT_TRUE(exists(root("meta/backupset_nbu.ini")));
}

TEST_F(Roach_Source_Test, a_run_of_tpops_leaves_the_tools_directories_to_whom_they_belong) {
    ASSERT_TRUE(source(GAUSSDB_TPOPS, 0, COMPR_NONE, "tpops_r-1").create_path());
    EXPECT_TRUE(exists(root("meta"))); // the cache's directory is made by it, too
    EXPECT_EQ(0, chown_r(root("meta").c_str(), "bin"));
    ASSERT_TRUE(source(GAUSSDB_TPOPS, 0, COMPR_NONE, "tpops_r-1").create_path());
    struct stat status;
    ASSERT_EQ(0, stat(root("meta").c_str(), &status));
    EXPECT_EQ(2u, status.st_uid);
    EXPECT_FALSE(exists(root("meta.2")));
}

TEST_F(Roach_Source_Test, what_an_earlier_run_has_left_is_ended_before_another_begins) {
    EXPECT_TRUE(source().dump_policy());
    pid_t const tool = start_tool();
    EXPECT_TRUE(with_policy("policy-2").dump_policy());
    EXPECT_TRUE(was_ended(tool));
    EXPECT_FALSE(exists(root("policy-1")));
    EXPECT_TRUE(exists(root("policy-2")));
}

TEST_F(Roach_Source_Test, the_metadata_is_emptied_when_the_earlier_run_cannot_write_it_any_more) {
    EXPECT_TRUE(source().dump_policy());
    pid_t const tool = start_tool();
    source().delete_meta();
    EXPECT_TRUE(was_ended(tool));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, what_is_beside_the_policies_stays_when_a_run_begins) {
    Texts const files{"c1_env", "c1_identity", "roots"};
    for (std::string const& file : files)
        write(root(file), "x");
    write(root("directory/file"), "x");
    for (char const* name : {"c1_env", "c1_identity", "directory"})
        EXPECT_EQ(0, chown_r(root(name).c_str(), USER));
    std::filesystem::create_symlink(root("roots"), root("link"));
    EXPECT_EQ(0, lchown(root("link").c_str(), 1, 1));
    EXPECT_TRUE(source().dump_policy());
    for (std::string const& file : files)
        EXPECT_TRUE(exists(root(file))) << file;
    EXPECT_TRUE(exists(root("directory/file")));
    EXPECT_TRUE(exists(root("link")));
}

TEST_F(Roach_Source_Test, remove_without_this_host_leaves_its_policy) {
    EXPECT_TRUE(source().dump_policy());
    serve_other();
    EXPECT_TRUE(source().remove({"other"}, nullptr, "def"));
    EXPECT_EQ(0u, last_request().count("dirs"));
    EXPECT_TRUE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, remove_ends_at_a_host_that_fails) {
    EXPECT_TRUE(source().dump_policy());
    serve_other(rpc_error(-32603, "no"));
    EXPECT_FALSE(source().remove({"other", "here"}, nullptr, "def"));
    EXPECT_LOGGED(LM_ERROR, "Failed to notify roach policy to agent other\n");
    Log_Capture::instance().claim_all(LM_ERROR, "gaussdb.roach_source");
    EXPECT_TRUE(exists(root("policy-1")));
}

// the road to the pool and back

TEST_F(Roach_Source_Test, metadata_goes_to_the_pool_and_comes_back_in_each_codec) {
    for (Compression_Method method : {COMPR_NONE, COMPR_LZOP, COMPR_ZSTD, COMPR_AUTO}) {
        SCOPED_TRACE(method);
        std::string const suffix = compression_value_to_suffix(method);
        catalog_->add_row(Object{{"uuid", "set-1"}});
        leave_metadata();
        EXPECT_TRUE(source(GAUSSDB_200, 8, method).backup_meta("1_1"));
        EXPECT_TRUE(pool_.has("cluster-1/roach/1_1/backups.ini" + suffix));
        EXPECT_TRUE(pool_.has("cluster-1/roach/1_1/bak_cluster_static_config.common" + suffix));
        rm_rf(root("meta").c_str());
        EXPECT_TRUE(source(GAUSSDB_200, 8, method).notify({"here"}, "1_1", "def", nullptr, false));
        EXPECT_EQ("the metadata", content(root("meta/backups.ini")));
        EXPECT_EQ("the config", content(root("meta/bak_cluster_static_config.common")));
        struct stat status;
        ASSERT_EQ(0, stat(root("meta/backups.ini").c_str(), &status));
        EXPECT_EQ(getpwnam(USER)->pw_uid, status.st_uid);
    }
}

TEST_F(Roach_Source_Test, both_files_become_pieces_with_their_own_size) {
    catalog_->add_row(Object{{"uuid", "set-1"}});
    leave_metadata();
    EXPECT_TRUE(source(GAUSSDB_200, 8, COMPR_ZSTD).backup_meta("1_1"));
    EXPECT_EQ(
        Value(Array{Object{{"path", "cluster-1/roach/1_1/backups.ini.zst"}, {"size", 12}},
                    Object{{"path", "cluster-1/roach/1_1/bak_cluster_static_config.common.zst"},
                           {"size", 10}}}),
        catalog_->row("set-1").at("pieces"));
}

TEST_F(Roach_Source_Test, an_older_release_has_another_name_for_the_configuration) {
    catalog_->add_row(Object{{"uuid", "set-1"}});
    leave_metadata("bak_cluster_static_config");
    EXPECT_TRUE(source(GAUSSDB_200, 6).backup_meta("1_1"));
    EXPECT_TRUE(pool_.has("cluster-1/roach/1_1/bak_cluster_static_config"));
}

TEST_F(Roach_Source_Test, a_pool_that_is_not_on_record) {
    pools_->info.uuid = "another";
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get pool (pool-1) info\n");
    EXPECT_FALSE(source().restore_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get pool (pool-1) info\n");
    Log_Capture::instance().claim_all(LM_ERROR, "pool-1");
}

TEST_F(Roach_Source_Test, a_pool_that_has_gone) {
    leave_metadata();
    rm_rf(pool_.path().c_str());
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to connect " + pool_.url() + ", ");
    EXPECT_FALSE(source().restore_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to connect " + pool_.url() + "/cluster-1/roach/1_1, ");
    EXPECT_FALSE(exists(pool_.path()));
}

TEST_F(Roach_Source_Test, the_tool_gets_no_policy_for_a_pool_in_which_its_place_leads_elsewhere) {
    std::filesystem::create_directory(pool_.path() + "/elsewhere");
    std::filesystem::create_directory_symlink("elsewhere", pool_.path() + "/cluster-1");
    EXPECT_FALSE(source().dump_policy());
    EXPECT_LOGGED(LM_ERROR, "Failed to prepare pool first, ");
    EXPECT_FALSE(exists(root("policy-1")));
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path() + "/elsewhere"));
}

TEST_F(Roach_Source_Test, metadata_that_the_tool_did_not_leave) {
    catalog_->add_row(Object{{"uuid", "set-1"}});
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to backup roach meta file, ");
    write(root("meta/backups.ini"), "the metadata");
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to backup cluster config, ");
    EXPECT_EQ(Value(Array{}), catalog_->row("set-1").at("pieces"));
}

TEST_F(Roach_Source_Test, a_pool_that_is_full_keeps_no_part_of_a_file) {
    ASSERT_EQ(0, mount("tmpfs", pool_.path().c_str(), "tmpfs", 0, "size=64k"));
    catalog_->add_row(Object{{"uuid", "set-1"}});
    leave_metadata();
    write(root("meta/backups.ini"), std::string(100000, 'x'));
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to backup roach meta file, ");
    EXPECT_EQ(0u, pool_.files());
    write(root("meta/backups.ini"), "small");
    write(root("meta/bak_cluster_static_config.common"), std::string(100000, 'x'));
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to backup cluster config, ");
    EXPECT_EQ(1u, pool_.files());
    EXPECT_EQ(Value(Array{}), catalog_->row("set-1").at("pieces"));
    EXPECT_EQ(0, umount2(pool_.path().c_str(), MNT_DETACH));
}

TEST_F(Roach_Source_Test, a_catalog_that_refuses_the_pieces) {
    leave_metadata();
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "set-1");
}

TEST_F(Roach_Source_Test, a_configuration_that_is_missing_in_the_pool) {
    catalog_->add_row(Object{{"uuid", "set-1"}});
    leave_metadata();
    EXPECT_TRUE(source().create_path());
    EXPECT_TRUE(source().backup_meta("1_1"));
    EXPECT_FALSE(source(GAUSSDB_200, 6).restore_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to restore cluster config, ");
}

// a backup's metadata directory, by way of an archive

class Roach_Metadata_Test : public Roach_Source_Test {
protected:
    /** Archives the directory of the key 1_1 on this host as the third backup of its resource. */
    void archive() {
        MTF_Backup backup(std::make_shared<GaussDB_Event_Handler>(), MTF::Metadata(), {});
        backup.pool_uuid("pool-1");
        backup.host_uuid("host-1");
        backup.minor_resource_id("minor-1");
        backup.seq(2);
        backup.add_source(Roach_Source::metadata_directory(root("meta"), "1_1"));
        EXPECT_TRUE(backup.backup(""));
        EXPECT_EQ(MTF::E_OK, backup.error_code());
    }
    bool restore(bool new_cluster, Object const& catalog) {
        return source().restore_roach_metadata(catalog, "pool-1", "def-1", root("def-1"), USER,
                                               new_cluster, {});
    }
    Object catalog() const {
        return {{"minor_resource_id", "minor-1"},
                {"host_uuid", "host-1"},
                {"backup_key", "1_1"},
                {"meta_destination", root("meta")},
                {"seq", 3}};
    }
    /** Name, kind, mode, content or target of all that is in a directory. */
    static std::map<std::string, std::string> picture(std::string const& directory) {
        namespace fs = std::filesystem;
        std::map<std::string, std::string> result;
        for (auto const& entry : fs::recursive_directory_iterator(directory)) {
            struct stat status;
            lstat(entry.path().c_str(), &status);
            result[fs::relative(entry.path(), directory)] =
                std::to_string(status.st_mode) + " " +
                (entry.is_symlink()        ? fs::read_symlink(entry.path()).string()
                 : entry.is_regular_file() ? content(entry.path())
                                           : "");
        }
        return result;
    }
};

TEST_F(Roach_Metadata_Test, a_directory_of_all_kinds_comes_back_as_it_was) {
    std::string const directory = root("meta/roach/1_1");
    write(directory + "/backupset.ini", "text");
    for (int number = 0; number < 10000; ++number)
        write_file_atomically((directory + "/" + std::to_string(number)).c_str(),
                              std::to_string(number), 0600);
    mkdir_p((directory + "/empty/deeper").c_str(), 0711);
    write(directory + "/odd \n'\"\\\xC3\xA4\xFF name", std::string("\0\n", 2));
    chmod((directory + "/backupset.ini").c_str(), 0751);
    ASSERT_EQ(0, symlink("/no/such/target", (directory + "/link").c_str()));
    ASSERT_EQ(0, link((directory + "/backupset.ini").c_str(), (directory + "/second").c_str()));
    auto const before = picture(directory);
    archive();

    rm_rf(root("meta").c_str()); // a host that never had it
    EXPECT_TRUE(restore(false, catalog()));
    EXPECT_EQ(before.size(), picture(directory).size());
    EXPECT_EQ(before, picture(directory));
    struct stat status;
    ASSERT_EQ(0, lstat((directory + "/7").c_str(), &status));
    EXPECT_EQ(getpwnam(USER)->pw_uid, status.st_uid);
}

TEST_F(Roach_Metadata_Test, a_directory_that_is_there_stays_without_a_new_cluster) {
    write(root("meta/roach/1_1/x"), "mine");
    rm_rf(pool_.path().c_str()); // and the pool is not asked
    EXPECT_TRUE(restore(false, catalog()));
    EXPECT_EQ("mine", content(root("meta/roach/1_1/x")));
}

TEST_F(Roach_Metadata_Test, a_directory_that_is_there_is_replaced_for_a_new_cluster) {
    write(root("meta/roach/1_1/x"), "archived");
    archive();
    write(root("meta/roach/1_1/x"), "of another chain");
    write(root("meta/roach/1_1/y"), "of another chain");
    EXPECT_TRUE(restore(true, catalog()));
    EXPECT_EQ("archived", content(root("meta/roach/1_1/x")));
    EXPECT_FALSE(exists(root("meta/roach/1_1/y")));
}

TEST_F(Roach_Metadata_Test, a_directory_that_lay_plain_comes_back_among_the_tools_own) {
    write(root("meta/1_1/x"), "archived");
    archive();
    rm_rf(root("meta").c_str());
    EXPECT_TRUE(restore(false, catalog()));
    EXPECT_EQ("archived", content(root("meta/roach/1_1/x")));
}

TEST_F(Roach_Metadata_Test, an_archive_that_is_not_there) {
    EXPECT_FALSE(restore(false, catalog()));
    EXPECT_LOGGED(LM_ERROR, "Failed to restore gaussdb roach metadata, backup key 1_1\n");
    Log_Capture::instance().claim_all(LM_ERROR, "");
    EXPECT_FALSE(exists(root("meta/roach/1_1")));
}

TEST_F(Roach_Metadata_Test, a_destination_elsewhere_is_refused) {
    for (std::string const& place : {root("other"), root("meta/.."), std::string("/etc")}) {
        Object other = catalog();
        other["meta_destination"] = Value(place);
        EXPECT_FALSE(restore(true, other)) << place;
        EXPECT_LOGGED(LM_ERROR, "Invalid gaussdb catalog, meta_destination: '" + place +
                                    "' is not this host's metadata directory");
    }
    EXPECT_FALSE(exists(root("other")));
}

TEST_F(Roach_Metadata_Test, links_in_the_tools_directory_lead_root_nowhere) {
    write(root("meta/roach/1_1/x"), "archived");
    archive();
    // what belongs to others, and has to stay as it is
    write(root("root/1_1/shadow"), "secret");
    auto const give = [](std::string const& path) {
        ASSERT_EQ(0, lchown(path.c_str(), getpwnam(USER)->pw_uid, getpwnam(USER)->pw_gid));
    };
    auto const expect_untouched = [&] {
        struct stat status;
        EXPECT_EQ("secret", content(root("root/1_1/shadow")));
        ASSERT_EQ(0, stat(root("root/1_1").c_str(), &status));
        EXPECT_EQ(geteuid(), status.st_uid);
        ASSERT_EQ(0, stat(root("root/1_1/shadow").c_str(), &status));
        EXPECT_EQ(geteuid(), status.st_uid);
    };
    rm_rf(root("meta/roach").c_str());
    ASSERT_EQ(0, symlink(root("root").c_str(), root("meta/roach").c_str()));
    give(root("meta/roach"));
    EXPECT_FALSE(restore(true, catalog()));
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir " + root("meta/roach") + ", errno=");
    expect_untouched();

    rm_rf(root("meta/roach").c_str());
    write(root("meta/roach/other"), "");
    ASSERT_EQ(0, symlink(root("root/1_1").c_str(), root("meta/roach/1_1").c_str()));
    EXPECT_FALSE(restore(true, catalog()));
    EXPECT_LOGGED(LM_ERROR, "Failed to restore " + root("meta/roach/1_1") + ", errno=20, ");
    expect_untouched();
}

TEST_F(Roach_Metadata_Test, what_others_own_does_not_get_into_the_archive) {
    write(root("meta/roach/1_1/x"), "mine");
    write(root("secret"), "root's own");
    ASSERT_EQ(0, link(root("secret").c_str(), root("meta/roach/1_1/y").c_str()));
    auto const save = [&](std::string const& source) {
        MTF_Backup backup(std::make_shared<GaussDB_Event_Handler>(), MTF::Metadata(), {});
        backup.pool_uuid("pool-1");
        backup.host_uuid("host-1");
        backup.minor_resource_id("minor-1");
        backup.seq(2);
        backup.source_owner(getpwnam(USER)->pw_uid);
        backup.add_source(source);
        return backup.backup("") ? backup.saved_entries() : 0;
    };
    EXPECT_EQ(2u, save(root("meta/roach/1_1"))); // the directory and x
    EXPECT_LOGGED(LM_WARNING, root("meta/roach/1_1/y"));
    rm_rf(root("meta").c_str());
    EXPECT_TRUE(restore(false, catalog()));
    EXPECT_EQ("mine", content(root("meta/roach/1_1/x")));
    EXPECT_FALSE(exists(root("meta/roach/1_1/y")));

    rm_rf(root("meta/roach/1_1").c_str());
    ASSERT_EQ(0, symlink(ROOT, root("meta/roach/1_1").c_str()));
    EXPECT_EQ(0u, save(root("meta/roach/1_1")));
    Log_Capture::instance().claim_all(LM_WARNING, "");
    Log_Capture::instance().claim_all(LM_ERROR, "");
}

TEST_F(Roach_Metadata_Test, a_catalog_entry_that_is_none) {
    for (auto const& [key, value] : catalog()) {
        Object entry = catalog();
        entry.erase(key);
        EXPECT_FALSE(restore(false, entry)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid gaussdb catalog, ");
        entry[key] = Value(Array{});
        EXPECT_FALSE(restore(false, entry)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid gaussdb catalog, ");
    }
    Object entry = catalog();
    entry["backup_key"] = Value("../../1_1");
    EXPECT_FALSE(restore(true, entry));
    EXPECT_LOGGED(LM_ERROR, "Invalid gaussdb catalog, backup_key: '../../1_1' is no name");
}

TEST_F(Roach_Metadata_Test, a_place_that_cannot_be_made) {
    write(root("meta"), "a file");
    EXPECT_FALSE(restore(false, catalog()));
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir " + root("meta/roach") + ", errno=17, ");
}

TEST_F(Roach_Metadata_Test, without_memory_for_the_handler) {
    // the only allocations here that do not throw are those of event handlers
    Failing_New const failing(sizeof(GaussDB_Event_Handler));
    errno = 0;
    EXPECT_FALSE(restore(false, catalog()));
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(Roach_Metadata_Test, the_plain_directory_is_preferred_and_the_tools_own_is_found) {
    EXPECT_EQ(root("meta/1_1"), Roach_Source::metadata_directory(root("meta"), "1_1"));
    mkdir_p(root("meta/roach/1_1").c_str(), 0755);
    EXPECT_EQ(root("meta/roach/1_1"), Roach_Source::metadata_directory(root("meta"), "1_1"));
    mkdir_p(root("meta/1_1").c_str(), 0755);
    EXPECT_EQ(root("meta/1_1"), Roach_Source::metadata_directory(root("meta"), "1_1"));
}

// another user's files

TEST_F(Roach_Source_Test, links_and_files_of_others_do_not_get_into_the_pool) {
    catalog_->add_row(Object{{"uuid", "set-1"}});
    leave_metadata();
    write(root("secret"), "of root");
    std::string const meta_file = root("meta/backups.ini");
    auto const replace = [&](auto make) {
        ASSERT_EQ(0, unlink(meta_file.c_str()));
        ASSERT_EQ(0, make(root("secret").c_str(), meta_file.c_str()));
    };
    replace(symlink);
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "meta/backups.ini: it is, or is reached by, a symbolic link");
    replace(link);
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "meta/backups.ini: it belongs to another user");
    replace([](char const*, char const* name) { return mkfifo(name, 0666); });
    EXPECT_FALSE(source().backup_meta("1_1"));
    EXPECT_LOGGED(LM_ERROR, "meta/backups.ini: it is not a regular file");
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(Roach_Source_Test, a_restore_writes_through_no_link) {
    catalog_->add_row(Object{{"uuid", "set-1"}});
    leave_metadata();
    EXPECT_TRUE(source().backup_meta("1_1"));
    write(root("victim"), "v");
    for (std::string const name : {"meta/backups.ini", "meta/bak_cluster_static_config.common"}) {
        ASSERT_EQ(0, unlink(root(name).c_str()));
        ASSERT_EQ(0, symlink(root("victim").c_str(), root(name).c_str()));
    }
    EXPECT_TRUE(source().restore_meta("1_1"));
    EXPECT_EQ("v", content(root("victim")));
    EXPECT_EQ("the metadata", content(root("meta/backups.ini")));
    struct stat status;
    ASSERT_EQ(0, stat(root("victim").c_str(), &status));
    EXPECT_EQ(geteuid(), status.st_uid);
}

TEST_F(Roach_Source_Test, another_users_metadata_is_set_aside_and_comes_back) {
    Roach_Source other("c", "d", "pool-1", "s", COMPR_NONE, 0, "nobody", 0, 0, Rate_Limits(),
                       GAUSSDB_A_811, true, "policy-2");
    leave_metadata();
    EXPECT_TRUE(other.create_path());
    EXPECT_FALSE(exists(root("meta/backups.ini")));
    other.delete_meta();
    EXPECT_TRUE(other.create_path());
    EXPECT_TRUE(source().create_path());
    EXPECT_EQ("the metadata", content(root("meta/backups.ini")));
    struct stat status;
    ASSERT_EQ(0, stat(root("meta").c_str(), &status));
    EXPECT_EQ(getpwnam(USER)->pw_uid, status.st_uid);
}

TEST_F(Roach_Source_Test, pid_files_go_only_from_the_users_own_directories) {
    write(root("dn1/postmaster.pid"), "1");
    write(root("other/postmaster.pid"), "2"); // root's
    ASSERT_EQ(0, symlink(root("other").c_str(), root("dn1/link").c_str()));
    source().remove_pid_files({root("dn1"), root("dn1/link"), root("other"), root("none")});
    EXPECT_LOGGED(LM_WARNING, "Not removing postmaster.pid in " + root("dn1/link"));
    EXPECT_LOGGED(LM_WARNING, "Not removing postmaster.pid in " + root("other"));
    EXPECT_FALSE(exists(root("dn1/postmaster.pid")));
    EXPECT_TRUE(exists(root("other/postmaster.pid")));
}

// names

TEST_F(Roach_Source_Test, names_of_the_registrys_own_files_are_refused) {
    write(root("c1_env"), "{}");
    write(root("c1/cluster_static_config"), "x");
    for (char const* name :
         {"c1", "c1_env", "x_env", "x_act", "x_identity", "meta", "media", "meta.1000", ".x"}) {
        EXPECT_FALSE(Roach_Source::is_run_name(name)) << name;
        EXPECT_EQ("", Roach_Source::cache_directory(name)) << name;
        EXPECT_FALSE(source(GAUSSDB_200, 8, COMPR_NONE, name).dump_policy()) << name;
        EXPECT_LOGGED(LM_ERROR, "Invalid policy name '" + std::string(name) + "'");
    }
    EXPECT_TRUE(Roach_Source::is_run_name("c2"));
    EXPECT_EQ("{}", content(root("c1_env")));
    EXPECT_EQ("x", content(root("c1/cluster_static_config")));
}

TEST_F(Roach_Source_Test, a_directory_of_another_user_is_no_cache_directory) {
    write(root("def-1/x"), "x");
    ASSERT_EQ(0, chown(root("def-1").c_str(), getpwnam(USER)->pw_uid, 0));
    EXPECT_FALSE(Roach_Source::remove_cache_directory("def-1"));
    EXPECT_TRUE(exists(root("def-1/x")));
    ASSERT_EQ(0, chown(root("def-1").c_str(), geteuid(), 0));
    EXPECT_TRUE(Roach_Source::remove_cache_directory("def-1"));
    EXPECT_FALSE(exists(root("def-1")));
    EXPECT_TRUE(Roach_Source::remove_cache_directory("def-1"));
}

TEST_F(Roach_Source_Test, ids_and_keys_that_are_no_names_reach_no_pool) {
    for (char const* id : {"..", "a/b", "a b", "a\nb"}) {
        Roach_Source bad(id, "d", "pool-1", "s", COMPR_NONE, 0, USER, 0, 0, Rate_Limits(),
                         GAUSSDB_A_811, true, "policy-1");
        EXPECT_FALSE(bad.dump_policy()) << id;
        EXPECT_LOGGED(LM_ERROR, "Invalid id of a cluster or a backup set: ");
        EXPECT_FALSE(source().backup_meta(id)) << id;
        EXPECT_LOGGED(LM_ERROR, "Invalid backup key '");
        EXPECT_FALSE(source().restore_meta(id)) << id;
        EXPECT_LOGGED(LM_ERROR, "Invalid backup key '");
    }
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Test, the_cache_directory_of_a_definition) {
    EXPECT_EQ(root("0011-22"), Roach_Source::cache_directory("0011-22"));
    for (std::string const& id : {std::string(), std::string("."), std::string(".."),
                                  std::string("a/b"), std::string("../x"), std::string("a\0b", 3)})
        EXPECT_EQ("", Roach_Source::cache_directory(id));
}

} // namespace
