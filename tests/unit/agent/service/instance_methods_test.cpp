#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/recorded_set.h"
#include "agent/catalog/sqlite_catalog.h"
#include "agent/database/agent_database.h"
#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/job_tables.h"
#include "agent/service/agent_identity.h"
#include "agent/service/agent_methods.h"
#include "agent/service/instance_probe.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "tests/support/fake_guide.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssh_server.h"
#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;

namespace {

/** The methods of instances as the agent serves them, without a module. */
class Instance_Methods_Test : public testing::Test {
protected:
    Instance_Methods_Test() {
        std::string error;
        database_ =
            Agent_Database::open(directory_.path("agent.db"), {JOB_TABLES, CATALOG_TABLES}, error);
        EXPECT_TRUE(database_) << error;
        runs_ =
            std::make_unique<Agent_Jobs>(*database_, Agent_Jobs::Settings{directory_.path("logs")});
        methods_.gate([this](Method_Call const& call, Method_Fault& fault) {
            return may_remove_instance(*runs_, call, fault);
        });
        add_instance_methods(methods_, identity_, probe_, guide_);
        methods_.add("gaussdb.remove_instance",
                     [this](Method_Call const&, Value& result, Method_Fault&) {
                         ++removed_by_module_;
                         result = true;
                         return true;
                     });
    }
    ~Instance_Methods_Test() override { methods_.stop(); }

    JSON_RPC_Reply call(std::string const& method, Object const& params) {
        JSON_RPC_Reply reply;
        is_ok_ =
            methods_.call(method, params, Rpc_Caller::local(), std::chrono::seconds(60), reply);
        return reply;
    }
    /** The call is refused with a message that has this in it. */
    void refuses(std::string const& method, Object const& params, std::string const& why) {
        JSON_RPC_Reply const reply = call(method, params);
        EXPECT_FALSE(is_ok_) << method;
        EXPECT_THAT(reply.message, HasSubstr(why));
    }
    bool is_on_record(char const* name) { return instances_->find("gaussdb", name) != nullptr; }

    Temporary_Directory directory_;
    std::unique_ptr<Agent_Database> database_;
    std::unique_ptr<Agent_Jobs> runs_;
    Fake_Instances instances_;
    Agent_Identity identity_{"host-1", "uid-1"};
    Instance_Probe probe_{nullptr};
    std::shared_ptr<Fake_Guide> guide_ = std::make_shared<Fake_Guide>();
    Method_Table methods_;
    int removed_by_module_ = 0;
    bool is_ok_ = false;
};

TEST_F(Instance_Methods_Test, an_instance_has_its_flavour_in_the_module_s_words) {
    Database_Flavour flavour;
    flavour.code = 6;
    flavour.name = "Platform";
    flavour.usual_options = {{"channels", 4}};
    guide_->known = {flavour};
    Object const options{{"version", 6}, {"edition", "505.1"}, {"password", "enciphered"}};
    instances_->put({"gaussdb", "orders", "u-1", options, {}});
    instances_->put({"gaussdb", "prod", "u-2", Object{{"version", 2}, {"edition", "8.1.1"}}, {}});
    Object shown = call("instance.show", {{"instance", "orders"}}).result.get_obj();
    EXPECT_EQ(Value(6), shown.at("version"));
    EXPECT_EQ(Value("505.1"), shown.at("edition"));
    EXPECT_EQ(Value("Platform"), shown.at("flavour"));
    EXPECT_EQ(Value(flavour.usual_options), shown.at("usual_options"));
    EXPECT_FALSE(shown.at("options").get_obj().count("password"));
    shown = call("instance.show", {{"instance", "prod"}}).result.get_obj();
    EXPECT_EQ(Value(2), shown.at("version"));
    EXPECT_EQ(Value("8.1.1"), shown.at("edition"));
    EXPECT_EQ(Value(""), shown.at("flavour"));
    EXPECT_EQ(Value(Object()), shown.at("usual_options"));
}

TEST_F(Instance_Methods_Test, without_a_guide_an_instance_is_as_its_record_says) {
    Method_Table methods;
    add_instance_methods(methods, identity_, probe_, nullptr);
    instances_->put({"gaussdb", "prod", "u-2", Object{{"version", 2}, {"edition", "8.1.1"}}, {}});
    JSON_RPC_Reply reply;
    ASSERT_TRUE(methods.call("instance.show", Object{{"instance", "prod"}}, Rpc_Caller::local(),
                             std::chrono::seconds(60), reply));
    EXPECT_EQ(Value(2), reply.result.get_obj().at("version"));
    EXPECT_EQ(Value("8.1.1"), reply.result.get_obj().at("edition"));
    EXPECT_EQ(Value(""), reply.result.get_obj().at("flavour"));
    EXPECT_FALSE(methods.call("instance.save",
                              Object{{"name", "x"}, {"options", Object{{"user", "a\nb"}}}},
                              Rpc_Caller::local(), std::chrono::seconds(60), reply));
    EXPECT_FALSE(is_on_record("x"));
    methods.stop();
}

TEST_F(Instance_Methods_Test, an_option_that_the_module_refuses_is_not_recorded) {
    refuses("instance.save", {{"name", "dws1"}, {"options", Object{{"address", "hostile"}}}},
            "options.address: is not a plain address");
    EXPECT_FALSE(is_on_record("dws1"));
}

TEST_F(Instance_Methods_Test, a_plain_record_of_a_cluster_over_ssh_is_kept) {
    Object const options{{"version", 4},
                         {"address", "omm@10.0.0.1"},
                         {"meta_path", "/gauss/meta"},
                         {"ssh_options", "-o Port=2222 -i /root/.ssh/dws"},
                         {"source_commands", "source \"$HOME/env\";"}};
    call("instance.save", {{"name", "dws1"}, {"options", options}});
    EXPECT_TRUE(is_ok_);
    ASSERT_TRUE(is_on_record("dws1"));
    EXPECT_EQ(Value(options), Value(instances_->find("gaussdb", "dws1")->options));
}

TEST_F(Instance_Methods_Test, an_instance_with_a_run_is_removed_by_neither_method) {
    call("instance.save", {{"name", "c1"}});
    call("instance.save", {{"name", "c2"}});
    Job_Run run;
    run.instance = "c1";
    ASSERT_TRUE(runs_->add_unstarted(run));
    for (char const* method : {"instance.remove", "gaussdb.remove_instance"})
        refuses(method, {{"instance", "c1"}},
                "job " + run.run_id + " of it is running or waits; wait for its end or cancel it");
    EXPECT_TRUE(is_on_record("c1"));
    EXPECT_EQ(0, removed_by_module_);

    call("instance.remove", {{"instance", "c2"}});
    EXPECT_TRUE(is_ok_) << "the run is not of this one";
    EXPECT_FALSE(is_on_record("c2"));

    runs_->end_unstarted(run.run_id, {JOB_STATE_CANCELED, 0, ""});
    call("gaussdb.remove_instance", {{"instance", "c1"}});
    EXPECT_EQ(1, removed_by_module_);
    call("instance.remove", {{"instance", "c1"}});
    EXPECT_TRUE(is_ok_);
    EXPECT_FALSE(is_on_record("c1"));
}

class Instance_Try_Test : public Instance_Methods_Test {
protected:
    Instance_Try_Test() {
        guide_->on_check = [](Instance const&, Database_Guide::Check_Scope scope) {
            return std::vector<Instance_Check>{
                {"database", scope == Database_Guide::TO_DECLARE, "DWS 8.2.1", ""}};
        };
    }
    ~Instance_Try_Test() override {
        Log_Capture::instance().claim_all(LM_WARNING, "ssh"); // no login is tried
    }

    Object options() const {
        return {{"address", "127.0.0.1"},
                {"ssh_options", server_.plain_opts(directory_.path("known_hosts"))}};
    }
    static std::string state_of(JSON_RPC_Reply const& reply) {
        return json_spirit::object_get_str(reply.result.get_obj().at("host_key").get_obj(),
                                           "state");
    }

    Ssh_Server server_;
};

TEST_F(Instance_Try_Test, the_host_key_is_shown_and_accepted_only_by_its_fingerprint) {
    JSON_RPC_Reply reply = call("instance.try", {{"options", options()}});
    ASSERT_TRUE(is_ok_) << reply.message;
    EXPECT_EQ("unknown", state_of(reply));
    EXPECT_EQ(1u, guide_->looked_at.size());
    std::string const fingerprint =
        json_spirit::object_get_str(reply.result.get_obj().at("host_key").get_obj(), "fingerprint");
    EXPECT_TRUE(fingerprint.starts_with("SHA256:")) << fingerprint;

    refuses("instance.try", {{"options", options()}, {"accept_host_key", "SHA256:other"}},
            "and not SHA256:other; nothing was changed");
    reply = call("instance.try", {{"options", options()}});
    EXPECT_EQ("unknown", state_of(reply));

    reply = call("instance.try", {{"options", options()}, {"accept_host_key", fingerprint}});
    ASSERT_TRUE(is_ok_) << reply.message;
    EXPECT_EQ("known", state_of(reply));
    EXPECT_EQ(Value(true), reply.result.get_obj().at("ok"));
    EXPECT_EQ("known", state_of(call("instance.try", {{"options", options()}})));
    EXPECT_TRUE(instances_->list("gaussdb").empty()) << "it is only tried";
}

TEST_F(Instance_Try_Test, hostile_options_are_looked_at_by_nobody) {
    for (char const* key : {"address", "ssh_options", "source_commands", "meta_path"}) {
        Object bad = options();
        bad[key] = "hostile";
        refuses("instance.try", {{"options", bad}}, key);
    }
    refuses("instance.try", {}, "options.address: is missing");
    EXPECT_TRUE(guide_->looked_at.empty());
}

TEST_F(Instance_Methods_Test, an_instance_has_its_last_backup) {
    auto const listed = [&] {
        Value const answer = call("instance.list", {}).result;
        return answer.get_obj().at("instances").get_array().front().get_obj();
    };
    call("instance.save", {{"name", "prod"}});
    EXPECT_TRUE(listed().at("last_backup").is_null()) << "without a catalog";
    auto const catalog = std::make_shared<SQLite_Catalog>(*database_);
    Host_Services::instance().catalog(catalog);
    EXPECT_EQ(Value(0), listed().at("last_backup"));
    for (int number : {1, 2})
        ASSERT_TRUE(
            catalog->commit({-1, -1},
                            Recorded_Set("gaussdb", {{"uuid", std::to_string(number)},
                                                     {"instance", "prod"},
                                                     {"type", number == 1 ? "full" : "incremental"},
                                                     {"backup_start_time", number * 10},
                                                     {"backup_end_time", number * 10 + 5}}),
                            false));
    EXPECT_EQ(Value(25), listed().at("last_backup"));
    EXPECT_EQ(Value("full"), listed().at("last_backup_level")) << "it builds on none";
    call("instance.save", {{"name", "other"}});
    Value const other = call("instance.show", {{"instance", "other"}}).result;
    EXPECT_EQ(Value(0), other.get_obj().at("last_backup"));
    Host_Services::instance().catalog(nullptr);
}

} // namespace
