#include "agent/service/readiness_check.h"

#include "agent/service/check_deadline.h"
#include "host/agent/instance_handler.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "tests/support/fake_guide.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using json_spirit::Object;
using json_spirit::Value;

class Alerting_Handler : public Instance_Handler {
public:
    Alerting_Handler() : Instance_Handler("gaussdb") {}
    std::vector<Instance_Alert> alerts() override { return found; }

    std::vector<Instance_Alert> found;
};

class Readiness_Check_Test : public testing::Test {
protected:
    void SetUp() override {
        Instance_Manager::instance()->add_handler(handler_);
        begin();
    }
    void TearDown() override { Instance_Manager::instance()->remove_handler("gaussdb"); }

    /** Begins a new check. */
    void begin() { check_ = std::make_unique<Readiness_Check>(guide_); }
    void add_instance(Object const& options, Object const& accounts = {}) {
        ASSERT_TRUE(instances_->put({"gaussdb", "cluster", "0123", options, {}}));
        for (auto const& [uid, name] : accounts)
            ASSERT_TRUE(instances_->save_account("gaussdb", "cluster", uid,
                                                 {{"username", name}, {"password", "x"}}));
    }
    /** The user that the module says writes to the pool. */
    void writer_is(char const* user) {
        guide_->on_check = [user](Instance const&, Database_Guide::Check_Scope) {
            return std::vector<Instance_Check>{{"user", true, "it writes", "", user}};
        };
    }

    /** The line of a subject; one that says so when there is none. */
    Readiness_Check::Line line(std::string const& subject) const {
        for (Readiness_Check::Line const& line : check_->lines())
            if (line.subject == subject)
                return line;
        return {subject, false, "no such line", ""};
    }
    void expect_good(std::string const& subject) const {
        EXPECT_EQ(Instance_Check::OK, line(subject).state()) << subject << line(subject).text;
        EXPECT_EQ("", line(subject).advice);
    }
    void expect_bad(std::string const& subject, std::string const& text) const {
        EXPECT_FALSE(line(subject).ok) << subject;
        EXPECT_NE(std::string::npos, line(subject).text.find(text)) << line(subject).text;
        EXPECT_NE("", line(subject).advice);
    }

    Temporary_Directory directory_;
    Fake_Instances instances_;
    std::shared_ptr<Alerting_Handler> handler_ = std::make_shared<Alerting_Handler>();
    std::shared_ptr<Fake_Guide> guide_ = std::make_shared<Fake_Guide>();
    std::unique_ptr<Readiness_Check> check_;
};

TEST_F(Readiness_Check_Test, the_lines_of_the_module_are_those_of_the_check) {
    add_instance({{"version", 2}, {"edition", "8.1.1"}});
    guide_->on_check = [](Instance const&, Database_Guide::Check_Scope scope) {
        return std::vector<Instance_Check>{
            {"state", true, scope == Database_Guide::TO_BACK_UP ? "all" : "less", ""},
            {"tool x", false, "absent", "install it"}};
    };
    check_->instance("cluster", "uid");
    EXPECT_EQ("on record, version 8.1.1", line("instance cluster").text);
    EXPECT_EQ("all", line("state").text);
    expect_bad("tool x", "absent");
    EXPECT_FALSE(check_->ok());
    begin();
    check_->of_module({}, Database_Guide::TO_DECLARE);
    EXPECT_EQ("less", line("state").text);
}

TEST_F(Readiness_Check_Test, the_module_sees_the_callers_account_alone) {
    add_instance({}, {{"uid", "omm"}, {"other", "root"}});
    check_->instance("cluster", "uid");
    ASSERT_EQ(1u, guide_->looked_at.size());
    EXPECT_EQ(1u, guide_->looked_at[0].logon_options.size());
    EXPECT_TRUE(guide_->looked_at[0].logon_options.count("uid"));
}

TEST_F(Readiness_Check_Test, the_directory_that_the_database_writes_to_is_passed_on) {
    add_instance({});
    check_->instance("cluster", "uid", "/backups");
    check_->instance("cluster", "uid");
    ASSERT_EQ(2u, guide_->looked_at.size());
    EXPECT_EQ(Value("/backups"), guide_->looked_at[0].options.at("cache_dir"));
    EXPECT_FALSE(guide_->looked_at[1].options.count("cache_dir")) << "it is not kept";
}

TEST_F(Readiness_Check_Test, a_module_without_a_guide_leaves_the_databases_needs_unknown) {
    add_instance({{"edition", "8.1.1"}});
    guide_ = nullptr;
    begin();
    check_->instance("cluster", "uid");
    EXPECT_EQ(Instance_Check::UNKNOWN, line("what the database needs").state());
    expect_bad("what the database needs", "the agent's module does not say it");
    EXPECT_FALSE(check_->ok());
}

TEST_F(Readiness_Check_Test, an_alert_about_the_instance_is_shown) {
    handler_->found = {{"other", "not of this one"}, {"cluster", "claimed by two users"}};
    check_->instance("cluster", "uid");
    expect_bad("alert", "claimed by two users");
    expect_bad("instance cluster", "it is not known here");
    EXPECT_EQ(2u, check_->lines().size());
    EXPECT_TRUE(guide_->looked_at.empty());
}

TEST_F(Readiness_Check_Test, the_server_s_clock) {
    for (double const agrees : {0.0, 4.9, -4.9}) {
        begin();
        check_->server_clock(agrees);
        expect_good("clock of the backup server");
    }
    for (auto const& [ahead, text] :
         {std::pair{61.0, "61 seconds ahead of"}, {-7.0, "7 seconds behind"}}) {
        begin();
        check_->server_clock(ahead);
        EXPECT_EQ(Instance_Check::WARNING, line("clock of the backup server").state());
        EXPECT_THAT(line("clock of the backup server").text, testing::HasSubstr(text));
        EXPECT_EQ(ahead, line("clock of the backup server").value);
    }
}

TEST_F(Readiness_Check_Test, lines_are_told_with_state_and_number) {
    guide_->on_check = [](Instance const&, Database_Guide::Check_Scope) {
        Instance_Check warning{"a", true, "t", "do"};
        warning.doubtful = true;
        Instance_Check unknown{"b", false, "t", "do"};
        unknown.doubtful = true;
        unknown.measure = "free";
        unknown.value = 3;
        unknown.unit = "B";
        return std::vector<Instance_Check>{warning, unknown, {"c", false, "t", "do"}};
    };
    check_->of_module({}, Database_Guide::TO_BACK_UP);
    json_spirit::Array const lines = check_->dump().at("lines").get_array();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(Value("warning"), lines[0].get_obj().at("state"));
    EXPECT_FALSE(lines[0].get_obj().count("measure"));
    EXPECT_EQ(Value("unknown"), lines[1].get_obj().at("state"));
    EXPECT_EQ(Value(Object{{"name", "free"}, {"value", 3.0}, {"unit", "B"}}),
              lines[1].get_obj().at("measure"));
    EXPECT_EQ(Value("critical"), lines[2].get_obj().at("state"));
}

TEST_F(Readiness_Check_Test, a_failure_behind_the_deadline_is_unknown) {
    auto const limit = std::make_shared<Cancellation>();
    Cancellation_Scope const scope(limit);
    check_->no_pool();
    EXPECT_EQ(Instance_Check::CRITICAL, line("pool").state());
    limit->cancel();
    begin();
    check_->no_pool();
    EXPECT_EQ(Instance_Check::UNKNOWN, line("pool").state());
    EXPECT_EQ("no answer within the time of the check", line("pool").text);
}

TEST(Check_Deadline_Test, cancels_what_takes_too_long) {
    Check_Deadline const deadline(std::chrono::milliseconds(1));
    std::shared_ptr<Cancellation> const work = Cancellation::current();
    ASSERT_TRUE(work);
    while (!work->cancelled())
        std::this_thread::yield();
}

TEST(Check_Deadline_Test, passes_on_that_the_caller_has_left) {
    auto const caller = std::make_shared<Cancellation>();
    Cancellation_Scope const scope(caller);
    Check_Deadline const deadline(std::chrono::hours(24));
    std::shared_ptr<Cancellation> const work = Cancellation::current();
    ASSERT_NE(caller, work);
    EXPECT_FALSE(work->cancelled());
    caller->cancel();
    while (!work->cancelled())
        std::this_thread::yield();
}

TEST(Check_Deadline_Test, ends_with_its_work) {
    auto const caller = std::make_shared<Cancellation>();
    Cancellation_Scope const scope(caller);
    std::shared_ptr<Cancellation> work;
    {
        Check_Deadline const deadline(std::chrono::hours(24));
        work = Cancellation::current();
    }
    EXPECT_EQ(caller, Cancellation::current());
    EXPECT_FALSE(work->cancelled());
}

TEST_F(Readiness_Check_Test, pools) {
    std::string const path = directory_.path();
    ASSERT_EQ(0, chmod(path.c_str(), 0711));
    struct {
        Readiness_Check::Pool pool;
        uint64_t needed;
        char const* fault;
    } const cases[] = {
        {{"p", true, false, 100, 0, 0, path}, 100, nullptr},
        {{"p", true, false, 100, 0, 0, path}, 0, nullptr},
        {{"p", true, false, 100, 0, 0, path}, 101, "100 B free"},
        {{"p", true, false, 5000, 10, 2058, path}, 3000, "2.0 KiB free"},
        {{"p", true, false, 5000, 100, 60, path}, 0, "0 B free"},
        {{"p", false, false, 100, 0, 0, path}, 0, "not there"},
        {{"p", true, true, 100, 0, 0, path}, 0, "read-only"},
        {{"p", true, false, 100, 0, 0, "/not mounted"}, 0, "/not mounted is not on this host"},
    };
    for (auto const& row : cases) {
        begin();
        check_->pool(row.pool, row.needed);
        if (row.fault)
            expect_bad("pool p", row.fault);
        else
            expect_good("pool p");
        if (!row.fault) {
            EXPECT_EQ("free_p", check_->lines().back().measure);
            EXPECT_EQ(100, check_->lines().back().value);
        }
    }
    ASSERT_EQ(0, chmod(path.c_str(), 0755));
    begin();
    check_->pool({"p", true, false, 100, 0, 0, path}, 0);
    expect_bad("pool p", "other users can list or change its directory");
    check_->no_pool();
    expect_bad("pool", "there is none");
    begin();
    check_->pools_unknown("no connection");
    expect_bad("pool", "the backup server was not asked: no connection");
}

/** What a directory holds, with owners, modes and times. */
std::vector<std::string> snapshot(std::string const& path) {
    std::vector<std::string> entries;
    auto const add = [&](std::filesystem::path const& one) {
        struct stat status;
        ASSERT_EQ(0, lstat(one.c_str(), &status));
        entries.push_back(one.string() + " " + std::to_string(status.st_mode) + " " +
                          std::to_string(status.st_uid) + " " + std::to_string(status.st_size) +
                          " " + std::to_string(status.st_ctim.tv_sec) + "." +
                          std::to_string(status.st_ctim.tv_nsec));
    };
    add(path);
    for (auto const& entry : std::filesystem::recursive_directory_iterator(path))
        add(entry.path());
    std::ranges::sort(entries);
    return entries;
}

TEST_F(Readiness_Check_Test, the_pool_is_tried_as_its_writer_and_not_changed) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: another user's rights are taken";
    add_instance({});
    writer_is("nobody");
    directory_.write("pool/other/file", "content");
    ASSERT_EQ(0, chmod(directory_.path("pool").c_str(), 0711));
    for (mode_t const mode : {0755u, 0700u}) {
        ASSERT_EQ(0, chmod(directory_.path().c_str(), mode));
        std::vector<std::string> const before = snapshot(directory_.path());
        begin();
        check_->instance("cluster", "uid");
        check_->pool({"p", true, false, 100, 0, 0, directory_.path("pool")}, 0);
        EXPECT_EQ(before, snapshot(directory_.path()));
        if (mode == 0755)
            expect_good("pool p");
        else
            expect_bad("pool p", "nobody cannot pass through " + directory_.path());
    }
    // the folder that the first backup makes
    ASSERT_EQ(0, chmod(directory_.path().c_str(), 0755));
    std::string const folder = directory_.path("pool/0123/xbsa");
    std::filesystem::create_directories(folder);
    std::vector<std::string> const before = snapshot(directory_.path());
    begin();
    check_->instance("cluster", "uid");
    check_->pool({"p", true, false, 100, 0, 0, directory_.path("pool")}, 0);
    expect_bad("pool p", "the user nobody cannot write to it");
    EXPECT_EQ(before, snapshot(directory_.path()));
    ASSERT_EQ(0, chown(folder.c_str(), getpwnam("nobody")->pw_uid, 0));
    begin();
    check_->instance("cluster", "uid");
    check_->pool({"p", true, false, 100, 0, 0, directory_.path("pool")}, 0);
    expect_good("pool p");
}

TEST_F(Readiness_Check_Test, a_module_without_jobs_and_a_damaged_database) {
    check_->module("/m.so", false);
    check_->database({"row 3 missing from index"});
    expect_bad("module", "/m.so makes no jobs");
    expect_bad("agent's database", "row 3");
    EXPECT_EQ(Value(false), check_->dump().at("ok"));
    begin();
    check_->module("/m.so", true);
    check_->database({});
    EXPECT_TRUE(check_->ok());
    EXPECT_EQ(2u, check_->dump().at("lines").get_array().size());
}

} // namespace
