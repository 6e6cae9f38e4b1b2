#include "gaussdb/common/tpops_restful_client.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using json_spirit::Array_Maker;
using json_spirit::Object;
using json_spirit::Object_Maker;
using testing::ElementsAre;

std::string const NODES = "GET /rds/gaussdb/v3/instances/i1/agent/status";
std::string const DATABASES = "GET /rds/gaussdb/v3/instances/i1/databases";
std::string const EXTEND_INFO = "/rds/gaussdb/v3/instances/i1/extend-info";
std::string const MEDIA = "PUT /rds/gaussdb/v3/instances/i1/change-backup-media";
std::string const BACKUPS = "POST /rds/gaussdb/v3/backups";

/** The calls of the platform's interface, after a login. */
class TPOPS_Calls_Test : public testing::Test {
protected:
    TPOPS_Calls_Test() { EXPECT_TRUE(client_.connect(platform_.login())); }

    static Object instance(char const* id) {
        return Object_Maker()("id", id)("name", std::string("name of ") + id)(
            "instance_status", "normal")("mode", "Ha")("engine_version", "505.1")("status",
                                                                                  "not this one");
    }
    static Object nodes(int count) {
        json_spirit::Array list(static_cast<size_t>(count), Object());
        return Object_Maker()("node_list", list);
    }
    static json_spirit::Array databases(int count) {
        TPOPS_Database_Info info;
        info.name = "db";
        return json_spirit::Array(static_cast<size_t>(count), info.dump());
    }
    /** The line that send_request leaves. */
    static void expect_failed(std::string const& request) {
        EXPECT_LOGGED(LM_ERROR, "TPOPS request '" + request + "' with ");
    }
    std::string sent() { return platform_.calls().back().body; }
    std::vector<std::string> targets() {
        std::vector<std::string> result;
        for (Https_Server::Request const& request : platform_.calls())
            result.push_back(request.target);
        return result;
    }
    /** Each call that takes an instance id, with this one. */
    std::vector<bool> all_with_instance(char const* id) {
        TPOPS_Instance_Info info;
        std::vector<TPOPS_Database_Info> infos;
        uint32_t total = 0;
        return {client_.get_agent_status(id, result_),
                client_.get_nodes_count(id) != 0,
                client_.list_databases(id, 1, 0, total, infos),
                client_.list_databases(id, infos),
                client_.put_extend_info(id, "k", "v"),
                client_.get_extend_info(id, "k", result_),
                client_.change_backup_media(id, "XBSA", text_),
                client_.stop_backup(id, "j"),
                client_.get_differential_backup_info(id, result_, "a", "b")};
    }

    TPOPS_Platform platform_;
    TPOPS_RESTful_Client client_;
    json_spirit::Value result_;
    std::string text_;
};

// arguments

TEST_F(TPOPS_Calls_Test, no_call_goes_out_without_an_instance) {
    TPOPS_Instance_Info info;
    for (char const* id : {static_cast<char const*>(nullptr), ""}) {
        EXPECT_THAT(all_with_instance(id), testing::Each(false));
        EXPECT_FALSE(client_.get_instance_info(id, info));
        EXPECT_FALSE(client_.create_backup(id, Backup_Args(), result_));
        EXPECT_FALSE(client_.create_physical_backup(id, Backup_Args(), text_));
        EXPECT_FALSE(client_.create_log_backup(id, Backup_Args(), text_));
        EXPECT_EQ(13u, Log_Capture::instance().claim_all(LM_EMERGENCY,
                                                         ", instance_id is NULL or \"\":\n"));
    }
    EXPECT_FALSE(client_.get_backups_info(Backup_Info_Query(), result_));
    EXPECT_CHECK_LOGGED("instance_id is NULL or \"\"");
    EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(TPOPS_Calls_Test, no_call_goes_out_without_its_other_texts) {
    for (char const* none : {static_cast<char const*>(nullptr), ""}) {
        EXPECT_FALSE(client_.put_extend_info("i1", none, "v"));
        EXPECT_CHECK_LOGGED("key is NULL or \"\"");
        EXPECT_FALSE(client_.put_extend_info("i1", "k", none));
        EXPECT_CHECK_LOGGED("value is NULL or \"\"");
        EXPECT_FALSE(client_.get_extend_info("i1", none, result_));
        EXPECT_CHECK_LOGGED("key is NULL or \"\"");
        EXPECT_FALSE(client_.change_backup_media("i1", none, text_));
        EXPECT_CHECK_LOGGED("type is NULL or \"\"");
        EXPECT_FALSE(client_.stop_backup("i1", none));
        EXPECT_CHECK_LOGGED("job_id is NULL or \"\"");
        EXPECT_FALSE(client_.get_job_details(none, result_));
        EXPECT_CHECK_LOGGED("job_id is NULL or \"\"");
    }
    EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(TPOPS_Calls_Test, an_id_that_is_more_than_a_segment_goes_into_no_path) {
    for (char const* id : {"..", "a/b", "i1/../i2", "a?b", "a%2fb", "a b", "a\nb", "#", "a#"}) {
        EXPECT_THAT(all_with_instance(id), testing::Each(false)) << id;
        EXPECT_EQ(9u, Log_Capture::instance().claim_all(LM_ERROR, "Refused instance id")) << id;
    }
    EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(TPOPS_Calls_Test, ids_in_a_query_are_encoded) {
    platform_.on("GET /rds/v3/jobs", 200, "{}");
    EXPECT_TRUE(client_.get_job_details("a&b=c/d e", result_));
    EXPECT_EQ("GET /rds/v3/jobs?id=a%26b%3dc%2fd+e", platform_.last_call());
}

// instances

TEST_F(TPOPS_Calls_Test, an_instance_is_translated_and_its_nodes_counted) {
    platform_.on("GET /rds/v3/instances",
                 Object_Maker()("instances", Array_Maker()(instance("i1"))));
    platform_.on(NODES, nodes(3));
    TPOPS_Instance_Info info;
    EXPECT_TRUE(client_.get_instance_info("i1", info));
    EXPECT_EQ(Object(Object_Maker()("id", "i1")("name", "name of i1")("status", "normal")(
                  "type", "Ha")("version", "505.1")("node_count", 3)),
              info.dump());
    EXPECT_THAT(targets(), ElementsAre("/rds/v3/instances?instance_id=i1",
                                       "/rds/gaussdb/v3/instances/i1/agent/status"));
}

TEST_F(TPOPS_Calls_Test, of_several_matches_the_last_wins) {
    platform_.on("GET /rds/v3/instances",
                 Object_Maker()("instances", Array_Maker()(instance("i1"))("no object")(
                                                 Object_Maker()("id", "i2"))));
    platform_.on(NODES, nodes(3));
    platform_.on("GET /rds/gaussdb/v3/instances/i2/agent/status", nodes(1));
    TPOPS_Instance_Info info;
    EXPECT_TRUE(client_.get_instance_info("i1", info));
    EXPECT_EQ("i2", info.id);
    EXPECT_EQ("name of i1", info.name) << "an absent key leaves its field alone";
    EXPECT_EQ(1, info.node_count);
}

TEST_F(TPOPS_Calls_Test, an_unknown_instance_leaves_the_record_alone) {
    platform_.on("GET /rds/v3/instances", 200, R"({"instances": []})");
    TPOPS_Instance_Info info;
    info.name = "old";
    EXPECT_TRUE(client_.get_instance_info("i1", info));
    EXPECT_EQ("old", info.name);
}

TEST_F(TPOPS_Calls_Test, a_list_of_instances_needs_the_key) {
    TPOPS_Instance_Info info;
    std::vector<TPOPS_Instance_Info> infos;
    for (char const* body : {"{}", R"({"instances": {}})"}) {
        TPOPS_Platform platform;
        platform.on("GET /rds/v3/instances", 200, body);
        ASSERT_TRUE(client_.connect(platform.login()));
        EXPECT_THROW((void)client_.get_instance_info("i1", info), json_spirit::Error);
        EXPECT_THROW((void)client_.get_instances_info(infos), json_spirit::Error);
    }
}

TEST_F(TPOPS_Calls_Test, a_list_of_instances_that_is_not_an_object_is_a_failure) {
    platform_.on("GET /rds/v3/instances", 200, "[]");
    TPOPS_Instance_Info info;
    std::vector<TPOPS_Instance_Info> infos;
    EXPECT_FALSE(client_.get_instance_info("i1", info));
    EXPECT_FALSE(client_.get_instances_info(infos));
}

TEST_F(TPOPS_Calls_Test, all_instances_are_appended) {
    platform_.on("GET /rds/v3/instances",
                 Object_Maker()("instances", Array_Maker()(instance("i1"))(7)(instance("i2"))));
    platform_.on(NODES, nodes(3));
    platform_.on("GET /rds/gaussdb/v3/instances/i2/agent/status", 500, "{}");
    std::vector<TPOPS_Instance_Info> infos(1);
    EXPECT_TRUE(client_.get_instances_info(infos));
    ASSERT_EQ(3u, infos.size());
    EXPECT_EQ("i1", infos[1].id);
    EXPECT_EQ(3, infos[1].node_count);
    EXPECT_EQ("i2", infos[2].id);
    EXPECT_EQ(0, infos[2].node_count) << "its nodes could not be asked for";
    expect_failed("GET /rds/gaussdb/v3/instances/i2/agent/status");
    EXPECT_EQ("/rds/v3/instances", targets()[0]) << "without a query";
}

TEST_F(TPOPS_Calls_Test, a_platform_that_falls_silent_is_not_asked_for_every_count) {
    json_spirit::Array list;
    for (char const* id : {"i1", "i2", "i3", "i4", "i5"}) {
        list.push_back(instance(id));
        platform_.on("GET /rds/gaussdb/v3/instances/" + std::string(id) + "/agent/status",
                     Https_Server::Steps().reset());
    }
    platform_.on("GET /rds/v3/instances", Object_Maker()("instances", list));
    std::vector<TPOPS_Instance_Info> infos;
    EXPECT_TRUE(client_.get_instances_info(infos));
    EXPECT_EQ(5u, infos.size());
    EXPECT_EQ(5u, platform_.calls().size())
        << "the list and three counts, the first of them again on a new connection";
    EXPECT_EQ(6u, Log_Capture::instance().claim_all(LM_ERROR, ""));
}

TEST_F(TPOPS_Calls_Test, a_list_of_instances_is_bounded) {
    std::string body = R"({"instances": [{"id": "/"})";
    for (size_t count = 1; count <= TPOPS_RESTful_Client::MAX_INSTANCES; ++count)
        body += R"(,{"id":"/"})";
    platform_.on("GET /rds/v3/instances", 200, body + "]}");
    std::vector<TPOPS_Instance_Info> infos;
    EXPECT_FALSE(client_.get_instances_info(infos));
    EXPECT_EQ(TPOPS_RESTful_Client::MAX_INSTANCES, infos.size());
    EXPECT_LOGGED(LM_ERROR, "TPOPS platform localhost lists more than 10000 instances");
    Log_Capture::instance().claim_all(LM_ERROR, "Refused instance id \"/\"");
}

TEST_F(TPOPS_Calls_Test, the_count_of_nodes_is_0_for_every_failure) {
    EXPECT_EQ(0, client_.get_nodes_count("i1")) << "404 with no body";
    expect_failed(NODES);
    for (char const* body : {"{}", R"({"node_list": 3})", "[]", R"({"node_list": []})"}) {
        platform_.on(NODES, 200, body);
    }
    for (int round = 0; round < 4; ++round)
        EXPECT_EQ(0, client_.get_nodes_count("i1"));
    platform_.on(NODES, Https_Server::Steps().reset());
}

TEST_F(TPOPS_Calls_Test, the_status_of_agents_is_an_object) {
    platform_.on(NODES, 200, "[]");
    platform_.on(NODES, 200, R"({"a": 1})");
    EXPECT_FALSE(client_.get_agent_status("i1", result_));
    EXPECT_TRUE(client_.get_agent_status("i1", result_));
    EXPECT_EQ(Object_Maker()("a", 1), result_);
}

// databases

TEST_F(TPOPS_Calls_Test, databases_come_in_pages) {
    std::pair<int, size_t> const cases[] = {{0, 1}, {1, 1}, {100, 1}, {101, 2}, {200, 2}, {201, 3}};
    for (auto const& [total, pages] : cases) {
        TPOPS_Platform platform;
        platform.on(DATABASES, Object_Maker()("databases", databases(1))("total_count", total));
        ASSERT_TRUE(client_.connect(platform.login()));
        std::vector<TPOPS_Database_Info> infos;
        EXPECT_TRUE(client_.list_databases("i1", infos));
        std::vector<Https_Server::Request> const calls = platform.calls();
        EXPECT_EQ(pages, calls.size()) << total;
        EXPECT_EQ(pages, infos.size());
        for (size_t page = 0; page < calls.size(); ++page)
            EXPECT_EQ("/rds/gaussdb/v3/instances/i1/databases?limit=100&offset=" +
                          std::to_string(page),
                      calls[page].target);
    }
}

TEST_F(TPOPS_Calls_Test, one_page_of_databases) {
    platform_.on(DATABASES, Object_Maker()("databases", databases(2))("total_count", 7));
    uint32_t total = 99;
    std::vector<TPOPS_Database_Info> infos;
    EXPECT_TRUE(client_.list_databases("i1", 20, 3, total, infos));
    EXPECT_EQ(7u, total);
    EXPECT_EQ(2u, infos.size());
    EXPECT_EQ("db", infos[0].name);
    EXPECT_EQ("GET /rds/gaussdb/v3/instances/i1/databases?limit=20&offset=3",
              platform_.last_call());
}

TEST_F(TPOPS_Calls_Test, without_a_total_there_is_one_page) {
    platform_.on(DATABASES, Object_Maker()("databases", databases(100)));
    uint32_t total = 99;
    std::vector<TPOPS_Database_Info> infos;
    EXPECT_TRUE(client_.list_databases("i1", 100, 0, total, infos));
    EXPECT_EQ(0u, total);
    EXPECT_TRUE(client_.list_databases("i1", infos));
    EXPECT_EQ(2u, platform_.calls().size());
}

TEST_F(TPOPS_Calls_Test, pages_before_a_failure_stay) {
    platform_.on(DATABASES, Object_Maker()("databases", databases(100))("total_count", 150));
    platform_.on(DATABASES, 500, "{}");
    std::vector<TPOPS_Database_Info> infos;
    EXPECT_FALSE(client_.list_databases("i1", infos));
    EXPECT_EQ(100u, infos.size());
    expect_failed(DATABASES);
}

TEST_F(TPOPS_Calls_Test, a_failed_page_has_no_total) {
    platform_.on(DATABASES, 500, "{}");
    uint32_t total = 99;
    std::vector<TPOPS_Database_Info> infos;
    EXPECT_FALSE(client_.list_databases("i1", 100, 0, total, infos));
    EXPECT_EQ(0u, total);
    expect_failed(DATABASES);
}

TEST_F(TPOPS_Calls_Test, a_total_that_is_never_reached_ends) {
    platform_.on(DATABASES, 200, R"({"databases": [], "total_count": 4294967295})");
    std::vector<TPOPS_Database_Info> infos;
    EXPECT_FALSE(client_.list_databases("i1", infos));
    EXPECT_EQ(TPOPS_RESTful_Client::MAX_PAGES, platform_.calls().size());
    EXPECT_LOGGED(LM_ERROR, "TPOPS instance i1 has 4294967295 databases, more than 100000 are not");
}

TEST_F(TPOPS_Calls_Test, databases_that_lack_a_key_raise) {
    for (char const* body :
         {"{}", R"({"databases": [{"name": "x"}]})", R"({"databases": [], "total_count": -1})"}) {
        TPOPS_Platform platform;
        platform.on(DATABASES, 200, body);
        ASSERT_TRUE(client_.connect(platform.login()));
        std::vector<TPOPS_Database_Info> infos;
        EXPECT_THROW((void)client_.list_databases("i1", infos), json_spirit::Error) << body;
    }
}

TEST_F(TPOPS_Calls_Test, elements_that_are_not_objects_are_skipped) {
    json_spirit::Array list = databases(1);
    list.push_back("text");
    platform_.on(DATABASES, Object_Maker()("databases", list));
    std::vector<TPOPS_Database_Info> infos;
    EXPECT_TRUE(client_.list_databases("i1", infos));
    EXPECT_EQ(1u, infos.size());
}

// what the platform keeps beside an instance

TEST_F(TPOPS_Calls_Test, extend_info_is_put_and_got) {
    platform_.on("PUT " + EXTEND_INFO, 200, "");
    platform_.on("GET " + EXTEND_INFO, 200, R"(["any type"])");
    EXPECT_TRUE(client_.put_extend_info("i1", "k", "v"));
    EXPECT_EQ(R"({"key":"k","value":"v"})", sent());
    EXPECT_EQ("PUT " + EXTEND_INFO, platform_.last_call());
    EXPECT_TRUE(client_.get_extend_info("i1", "k k", result_));
    EXPECT_EQ("GET " + EXTEND_INFO + "?key=k+k", platform_.last_call());
    EXPECT_EQ(json_spirit::Value(json_spirit::Array{"any type"}), result_);
}

TEST_F(TPOPS_Calls_Test, extend_info_that_is_refused_is_a_failure) {
    EXPECT_FALSE(client_.put_extend_info("i1", "k", "v"));
    expect_failed("PUT " + EXTEND_INFO);
    EXPECT_FALSE(client_.get_extend_info("i1", "k", result_));
    expect_failed("GET " + EXTEND_INFO);
}

TEST_F(TPOPS_Calls_Test, a_change_of_media_has_a_job) {
    platform_.on(MEDIA, 200, R"({"job_id": "j1"})");
    EXPECT_TRUE(client_.change_backup_media("i1", "XBSA", text_));
    EXPECT_EQ("j1", text_);
    EXPECT_EQ(R"({"type":"XBSA"})", sent());
    EXPECT_EQ(MEDIA, platform_.last_call());
}

TEST_F(TPOPS_Calls_Test, a_change_of_media_without_a_job_is_a_failure) {
    platform_.on(MEDIA, 200, "{}");
    EXPECT_FALSE(client_.change_backup_media("i1", "XBSA", text_));
    EXPECT_EQ("", text_);
}

TEST_F(TPOPS_Calls_Test, an_answer_to_a_change_of_media_is_an_object) {
    platform_.on(MEDIA, 200, "[]");
    EXPECT_THROW((void)client_.change_backup_media("i1", "XBSA", text_), json_spirit::Error);
}

TEST_F(TPOPS_Calls_Test, media_that_are_in_use_already_need_no_job) {
    platform_.on(MEDIA, 400, R"({"errCode": "DBS.06015006", "job_id": "not this"})");
    EXPECT_TRUE(client_.change_backup_media("i1", "XBSA", text_));
    EXPECT_EQ("", text_);
    expect_failed(MEDIA);
}

TEST_F(TPOPS_Calls_Test, other_refusals_of_media_are_failures) {
    for (char const* body : {"{}", R"({"errCode": "DBS.06015007"})", R"({"errCode": 6015006})",
                             R"("DBS.06015006")", ""}) {
        TPOPS_Platform platform;
        platform.on(MEDIA, 400, body);
        ASSERT_TRUE(client_.connect(platform.login()));
        EXPECT_FALSE(client_.change_backup_media("i1", "XBSA", text_)) << body;
        expect_failed(MEDIA);
    }
}

// backups

TEST_F(TPOPS_Calls_Test, a_physical_backup_has_a_job) {
    platform_.on(BACKUPS, 200, R"({"job_id": "j1"})");
    Backup_Args const args{"i1", "n", "d", "full", {}};
    EXPECT_TRUE(client_.create_physical_backup("i1", args, text_));
    EXPECT_EQ("j1", text_);
    EXPECT_EQ(TPOPS_Platform::text(args.dump()), sent());
    EXPECT_EQ(BACKUPS, platform_.last_call());
    EXPECT_TRUE(client_.create_backup("i1", args, result_));
    EXPECT_EQ(Object_Maker()("job_id", "j1"), result_);
}

TEST_F(TPOPS_Calls_Test, a_physical_backup_without_a_job_is_a_failure) {
    for (char const* body : {"{}", R"({"job_id": ""})", R"({"job_id": 7})"}) {
        TPOPS_Platform platform;
        platform.on(BACKUPS, 200, body);
        ASSERT_TRUE(client_.connect(platform.login()));
        EXPECT_FALSE(client_.create_physical_backup("i1", Backup_Args(), text_)) << body;
        EXPECT_LOGGED(LM_ERROR, "Failed to create physical backup with TPOPS API: {");
    }
}

TEST_F(TPOPS_Calls_Test, a_log_backup_has_an_id) {
    platform_.on(BACKUPS, 200, R"({"backup": {"id": "b1"}})");
    EXPECT_TRUE(client_.create_log_backup("i1", Backup_Args(), text_));
    EXPECT_EQ("b1", text_);
}

TEST_F(TPOPS_Calls_Test, a_log_backup_without_an_id_is_a_failure) {
    for (char const* body : {"{}", R"({"backup": "b1"})", R"({"backup": {}})",
                             R"({"backup": {"id": ""}})", R"({"backup": {"id": 1}})"}) {
        TPOPS_Platform platform;
        platform.on(BACKUPS, 200, body);
        ASSERT_TRUE(client_.connect(platform.login()));
        EXPECT_FALSE(client_.create_log_backup("i1", Backup_Args(), text_)) << body;
        EXPECT_LOGGED(LM_ERROR, "Failed to create log backup with TPOPS API: {");
    }
}

TEST_F(TPOPS_Calls_Test, a_backup_that_is_refused_says_what_was_asked) {
    platform_.on(BACKUPS, 400, R"({"errCode": "DBS.3"})");
    Backup_Args const args{"i1", "n", "d", "full", {}};
    EXPECT_FALSE(client_.create_backup("i1", args, result_));
    EXPECT_LOGGED(LM_ERROR, "Failed to create backup with TPOPS API, params: " +
                                TPOPS_Platform::text(args.dump()) +
                                ", res: {\"errCode\":\"DBS.3\"}");
    EXPECT_EQ(Object_Maker()("errCode", "DBS.3"), result_);
    expect_failed(BACKUPS);
    EXPECT_FALSE(client_.create_physical_backup("i1", args, text_));
    EXPECT_FALSE(client_.create_log_backup("i1", args, text_));
    EXPECT_EQ(4u, Log_Capture::instance().claim_all(LM_ERROR, ""));
}

TEST_F(TPOPS_Calls_Test, a_backup_that_is_not_an_object_is_a_failure) {
    platform_.on(BACKUPS, 200, "[]");
    EXPECT_FALSE(client_.create_backup("i1", Backup_Args(), result_));
    EXPECT_LOGGED(LM_ERROR, "Failed to create backup with TPOPS API");
}

TEST_F(TPOPS_Calls_Test, a_backup_is_stopped_by_its_job) {
    platform_.on("POST /rds/gaussdb/v3/instances/i1/backups/stop", 200, "");
    EXPECT_TRUE(client_.stop_backup("i1", "j1"));
    EXPECT_EQ(R"({"job_id":"j1"})", sent());
    EXPECT_EQ("POST /rds/gaussdb/v3/instances/i1/backups/stop", platform_.last_call());
}

TEST_F(TPOPS_Calls_Test, differential_backups_are_bounded_by_both_times_or_none) {
    std::string const path = "GET /rds/gaussdb/v3/instances/i1/differential-backups";
    platform_.on(path, 200, "[1]");
    for (auto const& [begin, end] : {std::pair<char const*, char const*>{nullptr, nullptr},
                                     {"a", ""},
                                     {"", "b"},
                                     {"a", nullptr}}) {
        EXPECT_TRUE(client_.get_differential_backup_info("i1", result_, begin, end));
        EXPECT_EQ(path, platform_.last_call());
    }
    EXPECT_TRUE(client_.get_differential_backup_info("i1", result_, "2022-05-09T18:02:31+0800",
                                                     "2022-05-09 19:00"));
    EXPECT_EQ(path + "?begin_time=2022-05-09T18%3a02%3a31%2b0800&end_time=2022-05-09+19%3a00",
              platform_.last_call());
    EXPECT_EQ(json_spirit::Value(json_spirit::Array{1}), result_) << "of any type";
}

TEST_F(TPOPS_Calls_Test, backups_are_filtered_by_what_is_given) {
    std::string const path = "GET /rds/gaussdb/v3.1/backups?instance_id=i%2f1";
    platform_.on("GET /rds/gaussdb/v3.1/backups", 200, "[1]");
    std::pair<Backup_Info_Query, char const*> const cases[] = {
        {{"i/1", "", "", "", ""}, ""},
        {{"i/1", "b", "", "", ""}, "&backup_id=b"},
        {{"i/1", "", "t", "", ""}, "&backup_type=t"},
        {{"i/1", "", "", "x", ""}, ""},
        {{"i/1", "", "", "", "y"}, ""},
        {{"i/1", "b", "t", "x", "y"}, "&begin_time=x&end_time=y&backup_id=b&backup_type=t"},
    };
    for (auto const& [query, rest] : cases) {
        EXPECT_TRUE(client_.get_backups_info(query, result_));
        EXPECT_EQ(path + rest, platform_.last_call());
    }
    EXPECT_EQ(json_spirit::Value(json_spirit::Array{1}), result_) << "of any type";
}

TEST_F(TPOPS_Calls_Test, a_restore_is_asked_for) {
    std::string const path = "POST /rds/gaussdb/v3/instances/recovery";
    platform_.on(path, 200, R"({"job_id": "j1"})");
    platform_.on(path, 400, R"({"errCode": "DBS.4"})");
    Restore_Args const args{"s", "backup", "b", 0, "t"};
    EXPECT_TRUE(client_.create_restore(args, result_));
    EXPECT_EQ(Object_Maker()("job_id", "j1"), result_);
    EXPECT_EQ(TPOPS_Platform::text(args.dump()), sent());
    EXPECT_EQ(path, platform_.last_call());
    EXPECT_FALSE(client_.create_restore(args, result_));
    EXPECT_EQ(Object_Maker()("errCode", "DBS.4"), result_) << "for the caller's message";
    expect_failed(path);
}

TEST_F(TPOPS_Calls_Test, a_job_that_is_unknown_is_a_failure) {
    platform_.on("GET /rds/v3/jobs", 404, R"({"errCode": "DBS.5"})");
    EXPECT_FALSE(client_.get_job_details("j1", result_));
    EXPECT_EQ("GET /rds/v3/jobs?id=j1", platform_.last_call());
    EXPECT_EQ(Object_Maker()("errCode", "DBS.5"), result_);
    expect_failed("GET /rds/v3/jobs");
}

} // namespace
