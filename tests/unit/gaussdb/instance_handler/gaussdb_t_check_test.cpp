#include "gaussdb/instance_handler/gaussdb_t_check.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "gaussdb/instance_handler/gaussdb_guide.h"
#include "host/agent/instance_manager.h"
#include "qmrt/file.h"
#include "tests/support/database_tools.h"
#include "tests/support/fake_catalog.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"

#include <gmock/gmock.h>
#include <sys/mount.h>

namespace {

using json_spirit::Object;
using testing::HasSubstr;

/** An instance "t1" whose zsql is scripted, with an account and a cache directory. */
class T_Check_Test : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::permissions(files_.path(), std::filesystem::perms(0755));
        std::filesystem::create_directory(cache());
        ASSERT_EQ(0, chown_r(cache().c_str(), tools_.user()));
        tools_.env().set_env("GSDB_DATA", files_.path());
        tools_.env().set_env("LSNR_PORT", "1888");
        auto* const cluster = new GaussDB_T_Single_Handler(tools_.env(), tools_.user());
        ASSERT_TRUE(cluster->init("t1"));
        ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("t1", cluster));
        instance_ = {"gaussdb",
                     "t1",
                     "resource-1",
                     {{"user", tools_.user()}, {"version", 3}, {"cache_dir", cache()}},
                     {{"uid-1", Object()}}};
        instances_->put(instance_);
        ASSERT_TRUE(Instance_Manager::instance()->save_account(
            "gaussdb", "t1", "uid-1", {{"username", "backup"}, {"password", "secret"}}));
        state_is("OPEN");
    }
    void TearDown() override { GaussDB_Cluster_Manager::close_instance(); }

    std::string cache() const { return files_.path("cache"); }
    void state_is(std::string const& state) {
        tools_.script("zsql", "line\nout STATUS\nout ------\nout " + state + "\nexit 0");
    }
    void full_backup_took(int64_t bytes, std::string const& directory = "/elsewhere/FULL_1") {
        catalog_->add_row({{"uuid", "set-1"},
                           {"type", "full"},
                           {"resource_uuid", "resource-1"},
                           {"meta_destination", directory},
                           {"backup_end_time", 5},
                           {"backup_set_size", bytes}});
    }
    Instance_Check line(std::string const& subject) {
        for (Instance_Check const& one : GaussDB_T_Check(instance_).run())
            if (one.subject.starts_with(subject))
                return one;
        return {subject, false, "no such line", ""};
    }
    void expect_good(std::string const& subject, std::string const& text) {
        Instance_Check const found = line(subject);
        EXPECT_TRUE(found.ok) << found.text;
        EXPECT_THAT(found.text, HasSubstr(text));
        EXPECT_EQ("", found.advice);
    }
    void expect_bad(std::string const& subject, std::string const& text,
                    std::string const& advice) {
        Instance_Check const found = line(subject);
        EXPECT_FALSE(found.ok) << found.text;
        EXPECT_THAT(found.text, HasSubstr(text));
        EXPECT_THAT(found.advice, HasSubstr(advice));
    }

    Temporary_Directory files_;
    Database_Tools tools_;
    Fake_Instances instances_;
    Fake_Catalog catalog_;
    Instance instance_;
};

TEST_F(T_Check_Test, an_instance_with_all_that_a_backup_needs) {
    full_backup_took(1);
    expect_good("database as backup", "OPEN");
    expect_good("mount", "/dev/fuse");
    expect_good("cache directory " + cache(), " MiB free, the last full backup took 0 MiB");
    EXPECT_EQ("secret\n", tools_.call("zsql").input);
}

TEST_F(T_Check_Test, the_agent_asks_for_it_before_a_backup) {
    GaussDB_Guide guide;
    auto const has = [&](char const* subject) {
        return std::ranges::count(guide.check(instance_, Database_Guide::TO_BACK_UP), subject,
                                  &Instance_Check::subject);
    };
    EXPECT_EQ(1, has("mount"));
    EXPECT_EQ(1, has("database as backup"));
    Log_Capture::instance().claim_all(LM_ERROR, "");
    Log_Capture::instance().claim_all(LM_WARNING, "");
    EXPECT_TRUE(guide.check(instance_, Database_Guide::TO_DECLARE).empty());
}

TEST_F(T_Check_Test, a_database_that_is_not_open) {
    state_is("MOUNT");
    expect_bad("database as backup", "its state is MOUNT, and a backup needs OPEN",
               "alter database open");
}

TEST_F(T_Check_Test, a_database_that_does_not_take_the_account) {
    tools_.script("zsql", "line\nout GS-00329, Incorrect user or password\nexit 1");
    expect_bad("database as backup", "it does not answer", "zenbrak3 account t1 backup");
    EXPECT_LOGGED(LM_ERROR, "GS-00329, Incorrect user or password");
    EXPECT_LOGGED(LM_WARNING, "zsql");
}

TEST_F(T_Check_Test, an_answer_without_rows_is_none) {
    tools_.script("zsql", "line\nexit 0");
    expect_bad("database as backup", "it does not answer", "start the database");
}

TEST_F(T_Check_Test, a_cache_directory_that_is_not_there) {
    std::filesystem::remove(cache());
    expect_bad("cache directory", "No such file",
               std::string("install -d -o ") + tools_.user() + " -m 700 " + cache());
}

TEST_F(T_Check_Test, a_cache_directory_that_is_a_file) {
    std::filesystem::remove(cache());
    files_.write("cache", "");
    expect_bad("cache directory", "it is not a directory", "choose another");
}

TEST_F(T_Check_Test, a_cache_directory_of_another_user) {
    ASSERT_EQ(0, chown_r(cache().c_str(), "root"));
    expect_bad("cache directory", std::string("it does not belong to the user ") + tools_.user(),
               std::string("chown ") + tools_.user() + " " + cache());
}

TEST_F(T_Check_Test, a_cache_directory_that_its_owner_cannot_write) {
    std::filesystem::permissions(cache(), std::filesystem::perms(0500));
    expect_bad("cache directory", "its owner cannot write to it", "chmod u+rwx " + cache());
}

TEST_F(T_Check_Test, a_directory_above_that_the_user_cannot_pass_through) {
    std::filesystem::permissions(files_.path(), std::filesystem::perms(0700));
    expect_bad("cache directory", "cannot pass through " + files_.path(),
               "chmod o+x " + files_.path());
}

TEST_F(T_Check_Test, a_cache_directory_that_no_job_takes) {
    instance_.options["cache_dir"] = "/a b";
    expect_bad("cache directory", "has a blank in it", "choose another");
}

TEST_F(T_Check_Test, a_cache_directory_without_room_is_enough_for_a_mount) {
    on_own_thread([&] {
        ASSERT_EQ(0, unshare(CLONE_FS | CLONE_NEWNS));
        ASSERT_EQ(0, ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        full_backup_took(int64_t(1) << 60);
        expect_good("cache directory", "enough with mount=true only");
        // no device
        ASSERT_EQ(0, ::mount("tmpfs", "/dev", "tmpfs", 0, "mode=755"));
        expect_bad("mount", "/dev/fuse cannot be opened: No such file", "modprobe fuse");
        expect_bad("cache directory", "the last full backup took 1099511627776 MiB", "make room");
    });
}

TEST_F(T_Check_Test, without_a_name_it_is_the_directory_of_the_last_backup) {
    instance_.options.erase("cache_dir");
    expect_good("cache directory", "name it by --cache-dir");
    full_backup_took(1, cache() + "/FULL_1");
    expect_good("cache directory " + cache(), "free");
}

TEST_F(T_Check_Test, without_an_account_the_database_is_not_asked) {
    instance_.logon_options.clear();
    EXPECT_EQ("no such line", line("database").text);
    EXPECT_EQ(0u, tools_.calls("zsql"));
}

} // namespace
