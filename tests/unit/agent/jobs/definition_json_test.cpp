#include "agent/jobs/definition_json.h"

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "host/storage/rate_limits.h"
#include "json_spirit/access.h"
#include "qmrt/uuid.h"
#include "tests/unit/agent/jobs/jobs_fixture.h"

using json_spirit::Object;
using json_spirit::object_get_str;

namespace {

class Definition_JSON_Test : public Jobs_Fixture {
protected:
    /** The fault of a definition as somebody wrote it; "" for none. */
    std::string fault(Object const& given) {
        Object result;
        std::string error;
        if (!normalise_definition(given, defaults(), result, error)) {
            EXPECT_TRUE(result.empty()) << "changed by a refused definition";
            return error;
        }
        Job_Definition_var definition;
        if (definition_from_json(parsers_.module(), result, definition, error))
            return "";
        EXPECT_TRUE(definition.null()) << "changed by a refused definition";
        return error;
    }
    std::string fault(std::string const& more) { return fault(backup("nightly", more)); }

    Job_Definition_var parse(Object const& given) {
        Job_Definition_var definition;
        std::string error;
        EXPECT_TRUE(definition_from_json(parsers_.module(), normal(given), definition, error))
            << error;
        return definition;
    }
};

TEST_F(Definition_JSON_Test, completes_what_somebody_left_out) {
    Object const object = normal(backup());
    uuid_binary binary;
    EXPECT_TRUE(uuid_string_to_binary(object_get_str(object, "id"), binary));
    EXPECT_EQ(OWNER, object_get_str(object, "uid"));
    EXPECT_EQ("host-1", object_get_str(object, "host_id"));
    EXPECT_EQ("gaussdb", object_get_str(object, "agent"));
    EXPECT_EQ(json(std::string(R"({"id":")") + POOL + "\"}"),
              json_spirit::object_get_any(object, "target").get_obj());
    EXPECT_EQ(json_spirit::Value(true), json_spirit::object_get_any(object, "enabled"));
}

TEST_F(Definition_JSON_Test, a_backup_is_compressed_as_its_pool_has_it_unless_it_says_otherwise) {
    Definition_Defaults packing = defaults();
    packing.find_pool = [](std::string const&, Pool_Info& info, std::string&) {
        info.uuid = POOL;
        info.compression_method = COMPR_ZSTD;
        info.compression_level = 5;
        return true;
    };
    auto const options = [&](Object const& given) {
        Object result;
        std::string error;
        EXPECT_TRUE(normalise_definition(given, packing, result, error)) << error;
        return json_spirit::to_text(result.at("options"));
    };
    EXPECT_EQ(R"({"compression":"zstd","compression_level":5})", options(backup()));
    EXPECT_EQ(R"({"channels":2,"compression":"zstd","compression_level":1})",
              options(backup("n", R"(,"options":{"channels":2,"compression_level":1})")));
    EXPECT_EQ(R"({"compression":"none"})",
              options(backup("n", R"(,"options":{"compression":"none"})")));
    EXPECT_EQ("{}", options(restore()));
}

TEST_F(Definition_JSON_Test, a_normalised_definition_stays_as_it_is) {
    Object const once = normal(backup());
    EXPECT_EQ(json_spirit::Value(once), json_spirit::Value(normal(once)));
}

TEST_F(Definition_JSON_Test, an_id_in_capitals_is_the_same_id) {
    Object const object =
        normal(backup("nightly", R"(,"id":"6F9619FF-8B86-4011-B42D-00CF4FC9648F","uid":null)"));
    EXPECT_EQ("6f9619ff-8b86-4011-b42d-00cf4fc9648f", object_get_str(object, "id"));
    EXPECT_EQ(OWNER, object_get_str(object, "uid"));
}

TEST_F(Definition_JSON_Test, parses_a_whole_backup) {
    Job_Definition_var const definition = parse(backup("nightly", R"(
        ,"options":{"channels":4,"compression":"zstd"}
        ,"schedule":{"type":"daily","at":"30 2 * * 1-5"}
        ,"max_seconds_retry":30,"resumption_buffer_size":1048576
        ,"rate_limits":{"dest_rate_limits":"08:00-18:00=1000;0"}
        ,"precondition":"true","pre_action":"a","post_action":"b"
        ,"ignore_pre_action_failure":true,"ignore_post_action_failure":true
        ,"run_post_action_always":true,"enabled":false)"));
    EXPECT_EQ(JOB_DEFINITION_BACKUP, definition->type());
    EXPECT_EQ(JOB_DEFINITION_SUBTYPE_FULL, definition->subtype());
    EXPECT_EQ("nightly", definition->name());
    EXPECT_EQ(POOL, definition->target().id());
    EXPECT_EQ(OWNER, definition->uid());
    EXPECT_EQ("host-1", definition->host_id());
    EXPECT_EQ("gaussdb", definition->agent());
    EXPECT_EQ(30, definition->max_seconds_retry());
    EXPECT_EQ(1048576u, definition->resumption_buffer_size());
    ASSERT_TRUE(definition->rate_limits());
    ASSERT_EQ(2u, definition->rate_limits()->dest.size());
    EXPECT_EQ(1000u, definition->rate_limits()->dest[0].bytes_per_second);
    EXPECT_EQ("true", definition->precondition());
    EXPECT_EQ("a", definition->pre_action());
    EXPECT_EQ("b", definition->post_action());
    EXPECT_TRUE(definition->ignore_pre_action_failure());
    EXPECT_TRUE(definition->ignore_post_action_failure());
    EXPECT_TRUE(definition->run_post_action_always());
    EXPECT_EQ(Job_Schedule::TYPE_DAILY, definition->schedule()->type());
    EXPECT_EQ(RESOURCE, definition->source()->id());
    EXPECT_TRUE(dynamic_cast<GaussDB_Backup_Job_Source*>(definition->source().get()));
    auto* const options = dynamic_cast<GaussDB_Backup_Job_Options*>(definition->options().get());
    ASSERT_TRUE(options);
    EXPECT_EQ(4, options->channels_);
}

TEST_F(Definition_JSON_Test, what_is_not_said_is_the_default) {
    Job_Definition_var const definition = parse(backup());
    EXPECT_EQ(-1, definition->max_seconds_retry());
    EXPECT_EQ(0u, definition->resumption_buffer_size());
    EXPECT_FALSE(definition->rate_limits());
    EXPECT_EQ("", definition->pre_action());
    EXPECT_FALSE(definition->run_post_action_always());
    EXPECT_EQ(Job_Schedule::TYPE_NONE, definition->schedule()->type());
}

TEST_F(Definition_JSON_Test, a_restore_goes_to_the_resource_of_its_source) {
    Job_Definition_var const definition = parse(restore());
    EXPECT_EQ(JOB_DEFINITION_RESTORE, definition->type());
    EXPECT_EQ(RESOURCE, definition->target().id());
    EXPECT_TRUE(dynamic_cast<GaussDB_Restore_Job_Source*>(definition->source().get()));
    EXPECT_EQ(OWNER,
              parse(restore(std::string(R"(,"target":{"id":")") + OWNER + "\"}"))->target().id());
}

TEST_F(Definition_JSON_Test, every_subtype_is_known_by_its_text) {
    for (int value = JOB_DEFINITION_SUBTYPE_FULL; value <= JOB_DEFINITION_SUBTYPE_IMPORT; ++value) {
        auto const subtype = static_cast<Job_Definition_Subtype>(value);
        Object object = normal(backup());
        object["subtype"] = job_def_subtype_to_string(subtype, nullptr);
        EXPECT_EQ(subtype, parse(object)->subtype());
    }
}

TEST_F(Definition_JSON_Test, an_unknown_member_is_refused_by_its_name) {
    EXPECT_EQ("colour: is not known", fault(R"(,"colour":"red")"));
    EXPECT_EQ("schedule.on: is not known", fault(R"(,"schedule":{"type":"none","on":1})"));
    EXPECT_EQ("rate_limits.dest: is not known", fault(R"(,"rate_limits":{"dest":"1"})"));
    EXPECT_EQ("target.name: is not known", fault(restore(R"(,"target":{"id":"x","name":"y"})")));
}

TEST_F(Definition_JSON_Test, what_the_modules_parsers_take_no_notice_of_is_refused_by_its_name) {
    EXPECT_EQ("options: unknown key \"chanels\"", fault(R"(,"options":{"chanels":2})"));
    EXPECT_EQ("options: a boolean at key \"channels\", which takes none",
              fault(R"(,"options":{"channels":true})"));
    EXPECT_EQ("", fault(R"(,"options":{"channels":2})"));
    EXPECT_EQ("options: unknown key \"cache_dir\"",
              fault(restore(R"(,"options":{"cache_dir":"/x"})")));
    Object object = backup();
    object["source"] = json(R"({"id":"r","entries":["gaussdb/c1"],"schemas":"x"})");
    EXPECT_EQ("source: unknown key \"schemas\"", fault(object));
}

TEST_F(Definition_JSON_Test, a_member_of_a_wrong_kind_is_refused_by_its_name) {
    std::pair<char const*, char const*> const wrong[] = {
        {"id", "5"},
        {"id", R"("seven")"},
        {"uid", R"("root")"},
        {"host_id", "[]"},
        {"enabled", R"("yes")"},
        {"options", "[]"},
        {"schedule", R"("daily")"},
        {"max_seconds_retry", R"("5")"},
        {"max_seconds_retry", "-2"},
        {"max_seconds_retry", "2147483648"},
        {"max_seconds_retry", "1.5"},
        {"resumption_buffer_size", "-1"},
        {"resumption_buffer_size", "18446744073709551615"},
        {"rate_limits", "5"},
        {"pre_action", "true"},
        {"pre_action", R"("a\u0000b")"},
        {"ignore_pre_action_failure", "1"},
    };
    for (auto const& [member, value] : wrong) {
        std::string const text = fault(std::string(",\"") + member + "\":" + value);
        EXPECT_EQ(0u, text.find(std::string(member) + ": ")) << member << " " << value << text;
    }
}

TEST_F(Definition_JSON_Test, an_inner_member_of_a_wrong_kind_is_refused_by_its_path) {
    EXPECT_EQ("schedule.at: wanted string, but got int",
              fault(R"(,"schedule":{"type":"hourly","at":15})"));
    EXPECT_EQ("schedule.type: is missing", fault(R"(,"schedule":{"at":"15"})"));
    EXPECT_EQ(0u, fault(R"(,"rate_limits":{"src_rate_limits":"fast"})")
                      .find("rate_limits.src_rate_limits: "));
    EXPECT_EQ("target.device_id: wanted string, but got int",
              fault(restore(R"(,"target":{"id":"x","device_id":1})")));
}

TEST_F(Definition_JSON_Test, what_is_required_is_asked_for) {
    for (char const* member : {"name", "type", "subtype", "source"}) {
        Object object = backup();
        object.erase(member);
        EXPECT_EQ(std::string(member) + ": is missing", fault(object));
        object[member] = json_spirit::Value::null;
        EXPECT_EQ(std::string(member) + ": is missing", fault(object));
    }
    Object object = backup();
    object["target"] = Object();
    EXPECT_EQ("target.id: is missing", fault(object));
    object.erase("target");
    EXPECT_EQ("target.id: is missing", fault(object));
}

TEST_F(Definition_JSON_Test, a_name_must_be_fit_to_be_typed) {
    for (std::string const& name : {std::string(256, 'x'), std::string("a\\nb"), std::string(" a"),
                                    std::string("a "), std::string(RESOURCE)})
        EXPECT_EQ(0u, fault(backup(name)).find("name: ")) << name;
    EXPECT_EQ("", fault(backup(std::string(255, 'x'))));
    EXPECT_EQ("", fault(backup("Nächtlich um 2:30")));
}

TEST_F(Definition_JSON_Test, a_type_or_subtype_or_agent_must_be_one) {
    Object object = backup();
    object["type"] = "standby";
    EXPECT_EQ("type: \"standby\" is neither backup nor restore", fault(object));
    object = backup();
    object["subtype"] = "none";
    EXPECT_EQ(0u, fault(object).find("subtype: \"none\""));
    EXPECT_EQ("agent: \"oracle\" is not the agent of a loaded module",
              fault(R"(,"agent":"oracle")"));
}

TEST_F(Definition_JSON_Test, a_pool_must_be_there) {
    Object object = backup();
    object["target"] = json(R"({"pool":"tape"})");
    EXPECT_EQ("target.pool: there is no pool \"tape\"", fault(object));
    object["target"] = json(R"({"id":"tape"})");
    EXPECT_EQ("target.pool: there is no pool \"tape\"", fault(object));
    object["target"] = json(R"({"id":"disk","pool":"disk"})");
    EXPECT_EQ("target.pool: give either this or target.id", fault(object));
    EXPECT_NE(std::string::npos,
              fault(restore(R"(,"target":{"pool":"disk"})")).find("a restore reads from"));
}

TEST_F(Definition_JSON_Test, a_schedule_must_be_one) {
    EXPECT_EQ("schedule: \"5-1\" is not a valid day of the week",
              fault(R"(,"schedule":{"type":"weekly","at":"0 0 * * 5-1"})"));
}

TEST_F(Definition_JSON_Test, a_schedule_with_levels_gives_the_definition_its_level) {
    Object given = backup("nightly", R"(,"schedule":{"type":"calendar","times":)"
                                     R"({"log":"hourly","cumulative":"Sun 02:00"}})");
    given.erase("subtype");
    EXPECT_EQ("cumulative", json_spirit::object_get_str(normal(given), "subtype"));
    given["subtype"] = "log";
    EXPECT_EQ("log", json_spirit::object_get_str(normal(given), "subtype"));
    std::string error;
    Object result;
    given["subtype"] = "full";
    EXPECT_FALSE(normalise_definition(given, defaults(), result, error));
    EXPECT_EQ("subtype: the schedule has no times for level \"full\"", error);
    given = restore(R"(,"schedule":{"type":"calendar","times":{"full":"daily"}})");
    EXPECT_FALSE(normalise_definition(given, defaults(), result, error));
    EXPECT_EQ("schedule.times: only a backup has levels", error);
}

/** Knows the instance "production", and nothing of the instance "unsearched". */
Definition_Defaults with_instances(Definition_Defaults defaults) {
    defaults.find_instance = [](std::string const& name, std::string& uuid, std::string& error) {
        uuid = name == "production" ? "6f9619ff-8b86-4011-b42d-00cf4fc9648f" : "";
        if (name == "production" || name == "unsearched")
            return true;
        error = "instance \"" + name + "\" is not on record";
        return false;
    };
    return defaults;
}

TEST_F(Definition_JSON_Test, a_source_gets_the_uuid_of_its_instance) {
    Definition_Defaults const known = with_instances(defaults());
    Object given = backup();
    Object result;
    std::string error;
    given["source"].get_obj().erase("id");
    ASSERT_TRUE(normalise_definition(given, known, result, error)) << error;
    EXPECT_EQ(RESOURCE, json_spirit::object_get_str(result["source"].get_obj(), "id"));
    given["source"].get_obj()["id"] = POOL;
    EXPECT_FALSE(normalise_definition(given, known, result, error));
    EXPECT_EQ(0u, error.find("source.id: ")) << error;
    given["source"].get_obj()["id"] = RESOURCE;
    EXPECT_TRUE(normalise_definition(given, known, result, error)) << error;
}

TEST_F(Definition_JSON_Test, an_instance_has_to_be_on_record) {
    Definition_Defaults const known = with_instances(defaults());
    Object given = backup();
    Object result;
    std::string error;
    given["source"].get_obj()["entries"] = json_spirit::Array{"gaussdb/production2"};
    EXPECT_FALSE(normalise_definition(given, known, result, error));
    EXPECT_EQ("source: instance \"production2\" is not on record", error);
    EXPECT_FALSE(normalise_definition(restore(), known, result, error));
    EXPECT_EQ("source: instance \"re/hearsal\" is not on record", error);
    given["source"].get_obj()["entries"] = json_spirit::Array{"gaussdb/unsearched"};
    given["source"].get_obj()["id"] = POOL;
    EXPECT_TRUE(normalise_definition(given, known, result, error)) << error;
    EXPECT_EQ(POOL, json_spirit::object_get_str(result["source"].get_obj(), "id"));
}

TEST_F(Definition_JSON_Test, the_modules_parsers_have_their_say) {
    std::string const options = fault(R"(,"options":{"channels":"many"})");
    EXPECT_EQ(0u, options.find("options: "));
    EXPECT_NE(std::string::npos, options.find("at key \"channels\""));
    Object object = backup();
    object["source"] = json(R"({"id":"x"})");
    EXPECT_EQ(0u, fault(object).find("source: "));
    EXPECT_LE(1u, Log_Capture::instance().claim_all(LM_WARNING, ""));
}

TEST_F(Definition_JSON_Test, a_module_without_a_parser_is_told) {
    Job_Module module = parsers_.module();
    module.backup_options = nullptr;
    Job_Definition_var definition;
    std::string error;
    EXPECT_FALSE(definition_from_json(module, normal(backup()), definition, error));
    EXPECT_EQ("options: the module has no parser for it", error);
    // one of another kind
    module.backup_options = &parsers_.backup_source;
    EXPECT_FALSE(definition_from_json(module, normal(backup()), definition, error));
    EXPECT_EQ("options: the module has no parser for it", error);
}

TEST_F(Definition_JSON_Test, options_nested_too_deeply_are_refused) {
    json_spirit::Value deep;
    for (int level = 0; level < 200; ++level)
        deep = json_spirit::Array{deep};
    Object object = backup();
    object["options"] = Object{{"x", deep}};
    EXPECT_EQ(0u, fault(object).find("options: "));
}

TEST_F(Definition_JSON_Test, the_instance_is_that_of_the_first_entry_or_where_the_restore_goes) {
    EXPECT_EQ("production", instance_of_definition(backup()));
    EXPECT_EQ("re/hearsal", instance_of_definition(restore()));
    auto const of = [](char const* source) {
        return instance_of_definition(json(std::string(R"({"source":)") + source + "}"));
    };
    EXPECT_EQ("a", of(R"({"entries":["gaussdb/a/schema/b/c","gaussdb/z"]})"));
    EXPECT_EQ("a%2", of(R"({"entries":["gaussdb/a%2"]})"));
    for (char const* source : {R"({"entries":[]})", R"({"entries":["gaussdb"]})", "{}", "5",
                               R"({"entries":[5]})", R"({"entries":"gaussdb/a"})"})
        EXPECT_EQ("", of(source)) << source;
}

TEST_F(Definition_JSON_Test, the_schedule_can_be_had_alone) {
    std::string error;
    EXPECT_EQ(Job_Schedule::TYPE_HOURLY,
              schedule_from_json(json(R"({"schedule":{"type":"hourly","at":"5"}})"), error).type());
    EXPECT_EQ("", error);
    EXPECT_EQ(Job_Schedule::TYPE_NONE, schedule_from_json(json("{}"), error).type());
    EXPECT_EQ("", error);
    schedule_from_json(json(R"({"schedule":{"type":"hourly","at":"x"}})"), error);
    EXPECT_NE("", error);
}

} // namespace
