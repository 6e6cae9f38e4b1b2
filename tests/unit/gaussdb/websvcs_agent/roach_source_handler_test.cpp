#include "gaussdb/websvcs_agent/roach_source_handler.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/recording_channel.h"
#include "tests/unit/gaussdb/job/roach_world.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

class Roach_Source_Handler_Test : public Roach_World {
protected:
    /** What is sent back for these params. */
    Value ask(Value const& params) {
        JSON_RPC_Channel_var channel(new Recording_Channel);
        JSON_RPC_Object_var const request(
            new JSON_RPC_Request(Value(7), "gaussdb.roach_source", params));
        EXPECT_EQ(0, handler_.handle_object(JSON_RPC_Channel_ptr(channel), request));
        auto const sent = static_cast<Recording_Channel*>(channel.get())->sent();
        EXPECT_EQ(1u, sent.size());
        return sent.empty() ? Value() : sent.front();
    }
    bool succeeds(Value const& params) {
        return ask(params) == Value(Object{{"jsonrpc", "2.0"}, {"id", 7}, {"result", true}});
    }
    /** "CODE TEXT" of the error that is sent back. */
    std::string error(Value const& params) {
        Value const reply = ask(params);
        Object const* const error = &reply.get_obj().at("error").get_obj();
        return std::to_string(error->at("code").get_int64()) + " " + error->at("message").get_str();
    }
    void expect_invalid(Object const& params, std::string const& why) {
        EXPECT_EQ("-32602 Invalid params\n", error(params)) << why;
        EXPECT_LOGGED(LM_ERROR, "Failed to add roach source, ");
    }

    static Object add() {
        return {{"action", "add"},
                {"cluster_id", "cluster-1"},
                {"device_uuid", "device-1"},
                {"pool_uuid", "pool-1"},
                {"uuid", "set-1"},
                {"compression", "zstd"},
                {"compression_level", 3},
                {"os_user", USER},
                {"retry", 0},
                {"resumption_buffer_size", 4096},
                {"version", 2},
                {"major", 8},
                {"minor", 1},
                {"patch", 1},
                {"full_backup", true},
                {"policy_name", "policy-1"}};
    }
    static Object remove() {
        return {{"action", "remove"},
                {"pool_uuid", "pool-1"},
                {"uuid", "set-1"},
                {"policy_name", "policy-1"}};
    }
    static Object with(Object object, std::string const& key, Value const& value) {
        object[key] = value;
        return object;
    }

    JSON_RPC_Roach_Source_Handler handler_;
};

TEST_F(Roach_Source_Handler_Test, add_writes_the_policy) {
    EXPECT_TRUE(succeeds(with(add(), Rate_Limits::dest_key, "1000")));
    Value policy;
    ASSERT_TRUE(load_json(root("policy-1").c_str(), policy));
    EXPECT_EQ("zstd", policy.get_obj().at("compression").get_str());
    EXPECT_EQ("1000", policy.get_obj().at(Rate_Limits::dest_key).get_str());
    EXPECT_EQ("set-1", policy.get_obj().at("uuid").get_str());
    struct stat status;
    ASSERT_EQ(0, stat(root("policy-1").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
}

TEST_F(Roach_Source_Handler_Test, what_is_no_request_is_refused) {
    JSON_RPC_Channel_var channel(new Recording_Channel);
    JSON_RPC_Object_var const notify(new JSON_RPC_Notify("gaussdb.roach_source", Value(add())));
    EXPECT_EQ(-1, handler_.handle_object(JSON_RPC_Channel_ptr(channel), notify));
    EXPECT_LOGGED(LM_EMERGENCY, "obj is not JSON-RPC request!\n");
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, a_requester_that_has_gone_gets_nothing_done) {
    JSON_RPC_Channel_ptr gone;
    {
        JSON_RPC_Channel_var channel(new Recording_Channel);
        gone = JSON_RPC_Channel_ptr(channel);
    }
    JSON_RPC_Object_var const request(new JSON_RPC_Request(Value(7), "m", Value(add())));
    EXPECT_EQ(-1, handler_.handle_object(gone, request));
    EXPECT_LOGGED(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, params_of_another_kind) {
    for (Value const& params : {Value(), Value(Array{}), Value("x"), Value(5)})
        EXPECT_EQ("-32602 Invalid params", error(params));
}

TEST_F(Roach_Source_Handler_Test, each_required_key_of_add) {
    for (auto const& [key, value] : add()) {
        Object params = add();
        params.erase(key);
        if (key == "action") {
            expect_invalid(params, key);
            continue;
        }
        expect_invalid(params, key + " missing");
        expect_invalid(with(add(), key, Value(Array{})), key + " of another kind");
    }
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, optional_keys_of_add_of_another_kind) {
    for (char const* key : {"definition_uuid", "catalogs", "delete_meta_path"})
        expect_invalid(with(add(), key, Value(5)), key);
    expect_invalid(with(add(), Rate_Limits::src_key, "fast"), "limits");
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, each_required_key_of_remove) {
    EXPECT_TRUE(succeeds(add()));
    for (char const* key : {"pool_uuid", "uuid", "policy_name"}) {
        Object params = remove();
        params.erase(key);
        expect_invalid(params, key);
        expect_invalid(with(remove(), key, Value(5)), key);
    }
    EXPECT_TRUE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, names_that_lead_out_of_the_cache_directory) {
    write(root("keep/file"), "x");
    write("/var/cache/quilmot/zenbrak3/keep", "y");
    for (char const* name : {"..", ".", "a/b", "../keep", "/var/cache/quilmot/zenbrak3/keep"}) {
        expect_invalid(with(add(), "policy_name", name), name);
        expect_invalid(with(add(), "definition_uuid", name), name);
        expect_invalid(with(remove(), "policy_name", name), name);
        expect_invalid(with(remove(), "definition_uuid", name), name);
    }
    EXPECT_EQ("x", content(root("keep/file")));
    EXPECT_EQ("y", content("/var/cache/quilmot/zenbrak3/keep"));
}

TEST_F(Roach_Source_Handler_Test, a_refused_remove_has_unlinked_nothing) {
    write(root("dn1/postmaster.pid"), "1");
    Object params = with(remove(), "dirs", Array{root("dn1")});
    params.erase("policy_name");
    expect_invalid(params, "policy_name");
    EXPECT_TRUE(exists(root("dn1/postmaster.pid")));
}

TEST_F(Roach_Source_Handler_Test, remove_takes_policy_cache_and_pid_files) {
    EXPECT_TRUE(succeeds(add()));
    write(root("def-1/x/y"), "z");
    write(root("dn1/postmaster.pid"), "1");
    Object params = with(remove(), "dirs", Array{root("dn1"), 5, "/no/such"});
    params["definition_uuid"] = "def-1";
    EXPECT_TRUE(succeeds(params));
    EXPECT_FALSE(exists(root("policy-1")));
    EXPECT_FALSE(exists(root("def-1")));
    EXPECT_FALSE(exists(root("dn1/postmaster.pid")));
}

TEST_F(Roach_Source_Handler_Test, end_ends_the_tools_programs_and_removes) {
    EXPECT_TRUE(succeeds(add()));
    pid_t const tool = start_tool();
    EXPECT_TRUE(succeeds(with(remove(), "action", "end")));
    EXPECT_EQ(tool, waitpid(tool, nullptr, 0));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, an_unknown_action_is_a_remove) {
    EXPECT_TRUE(succeeds(add()));
    EXPECT_TRUE(succeeds(with(remove(), "action", "dance")));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, a_policy_that_cannot_be_removed) {
    write(root("policy-1/file"), "a directory of that name");
    EXPECT_EQ("-32603 Failed to remove roach policy\n", error(remove()));
    EXPECT_LOGGED(LM_ERROR, "Invalid policy name 'policy-1'");
}

TEST_F(Roach_Source_Handler_Test, a_policy_that_cannot_be_written) {
    EXPECT_EQ("-32603 Failed to write roach policy\n",
              error(with(add(), "os_user", "no-such-user")));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, the_metadata_directory_goes_first) {
    write(root("meta/roach/1_1/x"), "x");
    EXPECT_TRUE(succeeds(with(add(), "delete_meta_path", root("meta"))));
    EXPECT_FALSE(exists(root("meta/roach")));
}

TEST_F(Roach_Source_Handler_Test, nothing_but_the_metadata_directory_is_deleted) {
    write(root("keep/file"), "x");
    for (std::string const& path : {root("keep"), root("meta/../keep"), root("meta/"),
                                    root("media"), std::string("/"), std::string("meta")})
        expect_invalid(with(add(), "delete_meta_path", path), path);
    EXPECT_EQ("x", content(root("keep/file")));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, names_of_the_registrys_own_files) {
    write(root("c1_env"), "{}");
    write(root("c1/static"), "x");
    for (char const* name : {"c1", "c1_env", "meta", "media"}) {
        expect_invalid(with(add(), "policy_name", name), name);
        expect_invalid(with(add(), "definition_uuid", name), name);
        expect_invalid(with(remove(), "policy_name", name), name);
        expect_invalid(with(remove(), "definition_uuid", name), name);
    }
    for (char const* key : {"cluster_id", "uuid", "backup_key", "pool_uuid"})
        expect_invalid(with(add(), key, "../x"), key);
    EXPECT_EQ("{}", content(root("c1_env")));
    EXPECT_EQ("x", content(root("c1/static")));
}

TEST_F(Roach_Source_Handler_Test, root_gets_no_policy) {
    expect_invalid(with(add(), "os_user", "root"), "os_user");
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, without_a_policy_there_are_no_directories_of_a_run) {
    write(root("dn1/postmaster.pid"), "1");
    EXPECT_TRUE(succeeds(with(remove(), "dirs", Array{root("dn1")})));
    EXPECT_TRUE(exists(root("dn1/postmaster.pid")));
}

TEST_F(Roach_Source_Handler_Test, a_backup_key_fetches_metadata_and_a_failure_leaves_the_policy) {
    EXPECT_EQ("-32603 Failed to restore roach meta\n", error(with(add(), "backup_key", "1_1")));
    EXPECT_LOGGED(LM_ERROR, "Failed to restore backups.ini, ");
    EXPECT_TRUE(exists(root("policy-1")));
}

TEST_F(Roach_Source_Handler_Test, another_series_ignores_key_and_catalogs) {
    Object params = with(add(), "version", GAUSSDB_100);
    params["backup_key"] = "1_1";
    params["definition_uuid"] = "def-1";
    params["catalogs"] = Array{Object{}};
    EXPECT_TRUE(succeeds(params));
}

TEST_F(Roach_Source_Handler_Test, a_catalog_without_its_keys) {
    Object params = with(add(), "definition_uuid", "def-1");
    params["catalogs"] = Array{5, Object{{"seq", 1}}};
    EXPECT_EQ("-32603 Failed to restore roach meta data\n", error(params));
    EXPECT_LOGGED(LM_ERROR, "Invalid gaussdb catalog, ");
}

TEST_F(Roach_Source_Handler_Test, two_hosts_worth_of_notify_and_remove) {
    upstream_->serve_forward("other", "gaussdb.roach_source",
                             [this](Value const& params, JSON_RPC_Reply& reply) {
                                 reply.result = Value(succeeds(params));
                                 return true;
                             });
    write(root("meta/backups.ini"), "the metadata");
    write(root("meta/bak_cluster_static_config.common"), "the config");
    catalog_->add_row(Object{{"uuid", "set-1"}});
    EXPECT_TRUE(source().backup_meta("1_1"));
    EXPECT_TRUE(source().notify({"other"}, nullptr, "def-1", nullptr, true));
    EXPECT_TRUE(exists(root("policy-1")));
    EXPECT_FALSE(exists(root("meta/backups.ini")));
    EXPECT_TRUE(source().notify({"other"}, "1_1", "def-1", nullptr, false));
    EXPECT_EQ("the metadata", content(root("meta/backups.ini")));
    EXPECT_TRUE(source().remove({"other"}, nullptr, "def-1"));
    EXPECT_FALSE(exists(root("policy-1")));
}

} // namespace
