#include "gaussdb/instance_handler/gaussdb_tpops_check.h"

#include "host/process/ace_process_ex.h"
#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;

/** A process that looks like the platform's backup agent, until the object goes. */
class Backup_Agent_Process {
public:
    explicit Backup_Agent_Process(std::string const& arguments) {
        Child_Options options("out ready cat args backUpAgent " + arguments);
        EXPECT_NE(-1, process_.spawn(options));
        char ready[6];
        EXPECT_EQ(6, read(process_.stdout_handle(), ready, sizeof ready));
    }
    ~Backup_Agent_Process() {
        process_.close_stdin();
        process_.wait();
    }

private:
    ACE_Process_Ex process_{ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDOUT,
                            "backup agent"};
};

class GaussDB_TPOPS_Check_Test : public testing::Test {
protected:
    explicit GaussDB_TPOPS_Check_Test(bool takes_logins = true) : platform_({}, takes_logins) {
        instance_.type = "gaussdb";
        instance_.name = "orders";
        instance_.options = platform_.record("i1");
        json_spirit::insert(instance_.options)("xbsa_host", "10.0.0.5")("xbsa_port",
                                                                        9000)("xbsa_ssl", true);
    }
    void offers(std::string const& instances) {
        platform_.on("GET /rds/v3/instances", 200, "{\"instances\": [" + instances + "]}");
        platform_.on("GET /rds/gaussdb/v3/instances/i1/agent/status", 200,
                     R"({"node_list": [1, 2, 3]})");
    }
    /** Looks, by way of the instance handler. */
    void look(Database_Guide::Check_Scope scope = Database_Guide::TO_BACK_UP) {
        lines_ = GaussDB_TPOPS_Check(instance_).run(scope);
    }
    /** The line of a subject that begins so: "ok TEXT", or "FAIL TEXT -> ADVICE". */
    std::string line(std::string const& subject) const {
        for (Instance_Check const& line : lines_)
            if (line.subject.starts_with(subject))
                return line.ok ? "ok " + line.text : "FAIL " + line.text + " -> " + line.advice;
        return "none";
    }
    void claim_errors() { Log_Capture::instance().claim_all(LM_ERROR, ""); }

    TPOPS_Platform platform_;
    Instance instance_;
    std::vector<Instance_Check> lines_;
};

class GaussDB_TPOPS_Login_Check_Test : public GaussDB_TPOPS_Check_Test {
protected:
    GaussDB_TPOPS_Login_Check_Test() : GaussDB_TPOPS_Check_Test(false) {}
};

TEST_F(GaussDB_TPOPS_Check_Test, all_is_well) {
    offers(R"({"id": "i1", "instance_status": "normal"})");
    Backup_Agent_Process const agent("host=10.0.0.5 port=9000");
    look();
    EXPECT_EQ("ok it answers", line("platform localhost:" + std::to_string(platform_.port())));
    EXPECT_EQ("ok the platform takes it", line("login as backup_user"));
    EXPECT_EQ("ok the platform's certificate is verified", line("TLS"));
    EXPECT_EQ("ok normal, 3 nodes", line("instance on the platform"));
    EXPECT_EQ("ok 10.0.0.5:9000, TLS: the backUpAgent runs as root", line("XBSA route"));
    EXPECT_EQ(5u, lines_.size());
    EXPECT_EQ("root", lines_.back().user) << "who has to be able to write to the pool";
}

TEST_F(GaussDB_TPOPS_Check_Test, a_declaration_needs_no_route) {
    offers(R"({"id": "i1"})");
    look(Database_Guide::TO_DECLARE);
    EXPECT_EQ("none", line("XBSA route"));
    EXPECT_EQ("ok state not reported, 3 nodes", line("instance on the platform"));
}

TEST_F(GaussDB_TPOPS_Check_Test, an_instance_that_is_not_normal) {
    offers(R"({"id": "i1", "instance_status": "abnormal"})");
    look();
    EXPECT_THAT(line("instance on the platform"), HasSubstr("FAIL its state is abnormal -> "));
}

TEST_F(GaussDB_TPOPS_Check_Test, an_instance_that_the_platform_does_not_know) {
    offers("");
    look();
    EXPECT_THAT(line("instance on the platform"),
                HasSubstr("FAIL the platform does not know id i1 -> "));
    offers(R"({"id": "i2", "instance_status": "normal"})");
    look();
    claim_errors(); // of the nodes of i2
    EXPECT_THAT(line("instance on the platform"), HasSubstr("does not know id i1"));
}

TEST_F(GaussDB_TPOPS_Check_Test, an_instance_that_cannot_be_asked_for) {
    platform_.on("GET /rds/v3/instances", 500, "{}");
    look();
    claim_errors();
    EXPECT_THAT(line("instance on the platform"),
                HasSubstr("FAIL it cannot be asked for, HTTP status 500 -> "));
}

TEST_F(GaussDB_TPOPS_Check_Test, an_answer_that_cannot_be_read) {
    platform_.on("GET /rds/v3/instances", 200, "{}");
    look();
    EXPECT_EQ("ok it answers", line("platform"));
    EXPECT_THAT(lines_.at(3).text, HasSubstr("its answer cannot be read: "));
    EXPECT_FALSE(lines_.at(3).ok);
}

TEST_F(GaussDB_TPOPS_Check_Test, a_record_without_an_id) {
    instance_.options.erase("id");
    look();
    EXPECT_THAT(line("instance on the platform"), HasSubstr("FAIL the record does not say"));
}

TEST_F(GaussDB_TPOPS_Check_Test, a_record_that_is_not_complete) {
    instance_.options.erase("username");
    look();
    EXPECT_THAT(line("record"), HasSubstr("FAIL it is not complete: "));
    EXPECT_EQ(1u, lines_.size());
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(GaussDB_TPOPS_Login_Check_Test, an_account_that_is_refused) {
    platform_.on_login_refused(403);
    look();
    claim_errors();
    EXPECT_EQ("ok it answers", line("platform"));
    EXPECT_EQ("FAIL the platform refuses it, HTTP status 403 -> save the right user and password: "
              "zenbrak3 account orders USER",
              line("login as"));
    EXPECT_EQ("none", line("instance on the platform"));
    EXPECT_NE("none", line("XBSA route")) << "which does not need the platform";
}

TEST_F(GaussDB_TPOPS_Login_Check_Test, a_platform_that_gives_no_token) {
    platform_.on_login_refused(500);
    look();
    claim_errors();
    EXPECT_THAT(line("platform"), HasSubstr("FAIL it gave no token, HTTP status 500 -> "));
    EXPECT_EQ("none", line("login as"));
}

TEST_F(GaussDB_TPOPS_Login_Check_Test, a_platform_that_does_not_answer) {
    platform_.on(TPOPS_Platform::LOGIN, Https_Server::Steps().reset());
    look();
    claim_errors();
    EXPECT_THAT(line("platform"), HasSubstr("FAIL it gave no answer: "));
}

TEST_F(GaussDB_TPOPS_Check_Test, a_platform_of_an_unknown_authority) {
    Platform_Settings::set(Platform_Settings());
    look();
    claim_errors();
    EXPECT_THAT(line("platform"), HasSubstr("certificate"));
    EXPECT_THAT(line("platform"), HasSubstr("ca_file"));
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(GaussDB_TPOPS_Check_Test, what_the_configuration_gives_up_is_told) {
    offers(R"({"id": "i1"})");
    Platform_Settings settings;
    settings.verify = false;
    Platform_Settings::set(settings);
    look();
    EXPECT_LOGGED(LM_WARNING, "is not verified");
    EXPECT_THAT(line("TLS"), HasSubstr("is not verified"));
    Https_Server::Options plain;
    plain.certificate = "";
    TPOPS_Platform open(plain);
    open.on("GET /rds/v3/instances", 200, R"({"instances": []})");
    instance_.options = open.record("i1");
    look();
    EXPECT_LOGGED(LM_WARNING, "has no TLS");
    EXPECT_THAT(line("TLS"), HasSubstr("ok none"));
}

TEST_F(GaussDB_TPOPS_Check_Test, a_route_that_no_backup_agent_has) {
    offers(R"({"id": "i1"})");
    look();
    EXPECT_THAT(line("XBSA route"),
                HasSubstr("FAIL 10.0.0.5:9000, TLS: no backUpAgent is running on this host -> "));
    for (char const* other : {"host=10.0.0.6 port=9000", "host=10.0.0.5 port=9001",
                              "host=10.0.0.5 port=9000 ssl=false"}) {
        Backup_Agent_Process const agent(other);
        look();
        EXPECT_THAT(line("XBSA route"), HasSubstr("FAIL 10.0.0.5:9000, TLS: the backUpAgent on "
                                                  "this host has 10.0.0."))
            << other;
        EXPECT_EQ("", lines_.back().user);
    }
}

TEST_F(GaussDB_TPOPS_Check_Test, a_record_without_a_route) {
    offers(R"({"id": "i1"})");
    instance_.options["xbsa_port"] = 0;
    look();
    EXPECT_THAT(line("XBSA route"), HasSubstr("FAIL the record has none -> "));
}

} // namespace
