#include "json_spirit/access.h"
#include "tests/unit/agent/cli/command_run.h"

#include <gmock/gmock.h>

namespace {

using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using testing::HasSubstr;

class Command_Line_Test : public Command_Run {
protected:
    Object params(size_t call) const { return agent_.calls.at(call).second.get_obj(); }
    /** Those of the last call of a method. */
    Object params_of(std::string const& method) const {
        Object found;
        for (auto const& [called, params] : agent_.calls)
            if (called == method)
                found = params.get_obj();
        return found;
    }
};

TEST_F(Command_Line_Test, every_command_has_help_with_an_example) {
    for (std::string const& name : Command_Line().commands()) {
        std::vector<char const*> words;
        std::string const first = name.substr(0, name.find(' '));
        std::string const second =
            name.find(' ') == std::string::npos ? "" : name.substr(first.size() + 1);
        words.push_back(first.c_str());
        if (!second.empty())
            words.push_back(second.c_str());
        words.push_back("--help");
        EXPECT_EQ(EXIT_OK, run(words)) << name;
        EXPECT_THAT(out_, HasSubstr("Examples:\n  zenbrak3 " + name)) << name;
        EXPECT_THAT(out_, HasSubstr("--json")) << name;
    }
    EXPECT_TRUE(agent_.calls.empty());
}

TEST_F(Command_Line_Test, wrong_usage_is_told_and_asks_nobody) {
    std::vector<std::vector<char const*>> const lines{
        {},
        {"dance"},
        {"info", "jobs"},
        {"pool"},
        {"pool", "create", "main"},
        {"pool", "update", "--limit", "1"},
        {"pool", "update", "main", "--read-only", "--writable"},
        {"backup"},
        {"backup", "prod"},
        {"backup", "show"},
        {"backup", "remove"},
        {"backup", "prod", "show", "b1"},
        {"backup", "prod", "--pool", "p", "--incremental", "--cumulative"},
        {"backup", "prod", "--pool", "p", "--level", "most"},
        {"backup", "prod", "--pool", "p", "--level", "full", "--incremental"},
        {"backup", "prod", "--pool", "p", "--channels", "0"},
        {"backup", "prod", "--pool", "p", "--ignore-pre-action-failure"},
        {"backup", "prod", "--pool", "p", "--run-post-action-always"},
        {"backup", "prod", "--pool", "p", "--pre-action", "\xff"},
        {"backup", "prod", "more", "--pool", "p"},
        {"jobs", "--watch", "prod"},
        {"jobs", "--watch", "0"},
        {"jobs", "--limit", "-1"},
        {"restore"},
        {"job", "show"},
        {"info", "--jsom"},
    };
    for (auto const& line : lines) {
        EXPECT_EQ(EXIT_USAGE, run(line));
        EXPECT_THAT(err_, HasSubstr("Run with --help for more information.\n"));
        EXPECT_EQ("", out_);
    }
    EXPECT_TRUE(agent_.calls.empty());
}

TEST_F(Command_Line_Test, backup_is_a_verb_and_a_group) {
    agent_.answers("backup.show", Object{{"uuid", "b-1"}});
    EXPECT_EQ(EXIT_OK, run({"backup", "show", "b1"}));
    EXPECT_EQ((Object{{"backup", "b1"}}), params(0));
    agent_.calls.clear();

    agent_.answers("instance.show", Object{{"name", "show"}, {"uuid", "u-1"}});
    agent_.answers("job.start", Object{{"run_id", "r-1"}, {"definition", "d-1"}});
    EXPECT_EQ(EXIT_OK, run({"backup", "--pool", "main", "--no-wait", "--", "show"}));
    EXPECT_EQ((Object{{"instance", "show"}}), params(0));
    EXPECT_EQ("job.start", agent_.calls.back().first);
}

TEST_F(Command_Line_Test, an_instance_may_be_called_as_a_command) {
    agent_.answers("gaussdb.list", Object{{"databases", json_spirit::Array{}}});
    EXPECT_EQ(EXIT_OK, run({"databases", "jobs", "--uid", "u"}));
    EXPECT_EQ("jobs", params(0).at("instance").get_str());
}

TEST_F(Command_Line_Test, options_before_and_behind_the_command) {
    agent_.answers("pool.list", Object{{"pools", json_spirit::Array{}}});
    EXPECT_EQ(EXIT_OK, run({"--json", "pools"}));
    EXPECT_EQ("{\n  \"pools\": [\n\n  ]\n}\n", out_);
    EXPECT_EQ(EXIT_OK, run({"pools", "--json"}));
    EXPECT_EQ("{\n  \"pools\": [\n\n  ]\n}\n", out_);
}

TEST_F(Command_Line_Test, a_backup_with_everything) {
    agent_.answers("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
    agent_.answers("job.start", Object{{"run_id", "r-1"}, {"definition", "d-1"}});
    EXPECT_EQ(EXIT_OK, run({"backup", "prod", "--pool", "main", "--incremental", "--compression",
                            "zstd:3", "--channels", "4", "--name", "n", "-o", "a=1", "--option",
                            "b=x", "--uid", "u", "--no-wait"}));
    EXPECT_THAT(agent_.methods(), ElementsAre("instance.show", "guide.instance", "job.start"))
        << "a name of the user's own is not looked up";
    Object const definition = params(2).at("run").get_obj();
    EXPECT_EQ("incremental", definition.at("subtype").get_str());
    EXPECT_EQ(Value(Object{{"compression", "zstd"},
                           {"compression_level", 3},
                           {"channels", 4},
                           {"a", 1},
                           {"b", "x"}}),
              definition.at("options"));
    EXPECT_EQ("Started job r-1; `zenbrak3 job show r-1` shows how far it is.\n", out_);
}

TEST_F(Command_Line_Test, scripts_and_rates_of_a_backup_and_a_restore) {
    agent_.answers("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
    agent_.answers("job.start", Object{{"run_id", "r-1"}, {"definition", "d-1"}});
    EXPECT_EQ(EXIT_OK, run({"backup", "prod", "--pool", "main", "--no-wait", "--precondition", "a",
                            "--rate", "08:00-18:00=50M", "--rate", "200M", "--pre-action", "b; c",
                            "--ignore-pre-action-failure", "--post-action", "d",
                            "--run-post-action-always", "--ignore-post-action-failure"}));
    Object const definition = params_of("job.start").at("run").get_obj();
    EXPECT_EQ(Value("a"), definition.at("precondition"));
    EXPECT_EQ(Value("b; c"), definition.at("pre_action"));
    EXPECT_EQ(Value("d"), definition.at("post_action"));
    for (char const* const key :
         {"ignore_pre_action_failure", "ignore_post_action_failure", "run_post_action_always"})
        EXPECT_EQ(Value(true), definition.at(key)) << key;
    EXPECT_EQ(Value(Object{{"dest_rate_limits", "08:00-18:00=52428800;209715200"}}),
              definition.at("rate_limits"));
    EXPECT_EQ(EXIT_OK, run({"restore", "--help"}));
    EXPECT_THAT(out_, HasSubstr("--run-post-action-always"));
}

TEST_F(Command_Line_Test, the_same_backup_again_is_left_to_the_agent_to_recognise) {
    agent_.answers("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
    agent_.answers("job.start", Object{{"run_id", "r-1"}});
    EXPECT_EQ(EXIT_OK, run({"backup", "prod", "--pool", "main", "--no-wait"}));
    ASSERT_EQ(2u, agent_.calls.size());
    EXPECT_EQ("full backup of prod to main", params(1).at("run").get_obj().at("name").get_str());
    EXPECT_EQ(0u, params(1).at("run").get_obj().count("id"));
}

TEST_F(Command_Line_Test, the_codes_of_the_agent_become_exit_codes) {
    struct Case {
        int code;
        int status;
    };
    for (Case const& one :
         {Case{-32004, EXIT_NOT_FOUND}, Case{-32005, EXIT_REFUSED}, Case{-32602, EXIT_USAGE},
          Case{-32603, EXIT_FAILED}, Case{-32601, EXIT_FAILED}}) {
        agent_.refuses("definition.remove", one.code, "because", "job \"p\"");
        EXPECT_EQ(one.status, run({"definition", "remove", "p"})) << one.code;
        EXPECT_THAT(err_, HasSubstr("zenbrak3: cannot remove definition p: because: job \"p\"\n"));
        EXPECT_EQ("", out_);
    }
}

TEST_F(Command_Line_Test, an_answer_of_another_kind_is_a_failure) {
    for (Value const& answer : {Value(), Value(5), Value("x"), Value(json_spirit::Array{})}) {
        agent_.answers("pool.list", answer);
        EXPECT_EQ(EXIT_FAILED, run({"pools"}));
        EXPECT_THAT(err_, HasSubstr("is no object"));
    }
    agent_.answers("pool.list", Object{{"pools", 5}});
    EXPECT_EQ(EXIT_OK, run({"pools"}));
    agent_.answers("job.show", Object{{"alert_list", Object{}}, {"state", 1}});
    EXPECT_EQ(EXIT_OK, run({"job", "show", "x"}));
}

TEST_F(Command_Line_Test, a_definition_file_that_is_none) {
    Temporary_Directory const directory;
    for (char const* text : {"", "{", "[]", "5", "{\"a\":}", "\xff"}) {
        std::string const file = directory.write("d.json", text);
        EXPECT_EQ(EXIT_USAGE, run({"run", file.c_str()})) << text;
        EXPECT_EQ(EXIT_USAGE, run({"definition", "save", file.c_str()})) << text;
    }
    EXPECT_EQ(EXIT_USAGE, run({"run", "/no/such/file"}));
    EXPECT_THAT(err_, HasSubstr("cannot read /no/such/file: No such file or directory"));
    EXPECT_EQ(EXIT_USAGE, run({"run", directory.path().c_str()}));
    EXPECT_TRUE(agent_.calls.empty());
}

TEST_F(Command_Line_Test, a_definition_is_printed_as_it_can_be_saved) {
    agent_.answers("definition.show", Object{{"name", "n"}, {"state", "idle"}, {"next_run", 1}});
    EXPECT_EQ(EXIT_OK, run({"definition", "show", "n"}));
    EXPECT_EQ("{\n  \"name\": \"n\"\n}\n", out_);
    EXPECT_EQ(EXIT_OK, run({"definition", "show", "n", "--json"}));
    EXPECT_THAT(out_, HasSubstr("\"state\": \"idle\""));
}

TEST_F(Command_Line_Test, pool_wishes) {
    agent_.answers("pool.create", Object{{"name", "main"}});
    EXPECT_EQ(EXIT_OK, run({"pool", "create", "main", "file:///b", "--compression", "zstd:3",
                            "--limit", "1.5GiB", "--read-only"}));
    EXPECT_EQ((Object{{"name", "main"},
                      {"url", "file:///b"},
                      {"compression", "zstd"},
                      {"compression_level", 3},
                      {"limit", 1610612736},
                      {"read_only", true}}),
              params(0));
    EXPECT_EQ(EXIT_USAGE, run({"pool", "create", "main", "file:///b", "--limit", "much"}));
    EXPECT_EQ(EXIT_USAGE, run({"pool", "create", "main", "file:///b", "--compression", "gzip"}));
    EXPECT_EQ(1u, agent_.calls.size());
}

TEST_F(Command_Line_Test, a_pool_is_changed_in_what_is_said_alone) {
    agent_.answers("pool.update", Object{{"name", "main"}});
    EXPECT_EQ(EXIT_OK, run({"pool", "update", "main", "--limit", "0"}));
    EXPECT_EQ((Object{{"limit", 0}, {"pool", "main"}}), params(0));
    EXPECT_EQ("Pool main is changed.\n", out_);
    run({"pool", "update", "main", "--name", "other", "--url", "/a b", "--writable"});
    EXPECT_EQ(
        (Object{
            {"name", "other"}, {"url", "file:///a%20b"}, {"read_only", false}, {"pool", "main"}}),
        params(1));
    // the level of another method would be wrong
    run({"pool", "update", "main", "--compression", "lzop", "--read-only"});
    EXPECT_EQ((Object{{"compression_level", 0},
                      {"compression", "lzop"},
                      {"read_only", true},
                      {"pool", "main"}}),
              params(2));
    EXPECT_EQ(EXIT_USAGE, run({"pool", "update", "main", "--limit", "much"}));
    EXPECT_EQ(EXIT_USAGE, run({"pool", "update", "main"}));
    EXPECT_EQ("zenbrak3: nothing to change in pool main: name at least one option (see pool update "
              "--help)\n",
              err_);
    EXPECT_EQ(3u, agent_.calls.size());
}

TEST_F(Command_Line_Test, a_warning_about_a_pool_has_its_own_line) {
    agent_.answers("pool.create", Object{{"uuid", "p-1"}, {"warning", "it is\nshared"}});
    EXPECT_EQ(EXIT_OK, run({"pool", "create", "main", "/srv/pool"}));
    EXPECT_THAT(out_, testing::EndsWith("\nWarning: it is\\nshared.\n"));
    run({"pool", "create", "main", "/srv/pool", "--json"});
    EXPECT_THAT(out_, testing::Not(HasSubstr("Warning")));
}

TEST_F(Command_Line_Test, each_backup_that_was_removed_is_told) {
    agent_.answers("backup.remove", Object{{"removed", json_spirit::Array{"b1", "b2"}}});
    agent_.answers("backup.show", Object{{"uuid", "b1-long"}, {"instance", "prod"}});
    EXPECT_EQ(EXIT_OK, run({"backup", "remove", "b1", "--with-dependents", "--yes"}));
    EXPECT_EQ((Object{{"backup", "b1-long"}, {"dependents", true}}),
              agent_.calls.back().second.get_obj());
    EXPECT_THAT(out_, testing::EndsWith("Removed: b1, b2\n"));
    run({"backup", "remove", "b1", "--yes"});
    EXPECT_EQ((Object{{"backup", "b1-long"}}), agent_.calls.back().second.get_obj());
}

TEST_F(Command_Line_Test, filters_are_sent_only_when_they_are_given) {
    agent_.answers("backup.list", Object{{"backups", json_spirit::Array{}}});
    agent_.answers("job.list", Object{{"jobs", json_spirit::Array{}}});
    run({"backups"});
    EXPECT_EQ((Object{{"limit", 1001}}), params_of("backup.list"));
    run({"backups", "prod", "--pool", "p", "--type", "full", "--limit", "3", "--table", "a.b"});
    EXPECT_EQ(
        (Object{
            {"instance", "prod"}, {"pool", "p"}, {"type", "full"}, {"limit", 3}, {"table", "a.b"}}),
        params_of("backup.list"));
    run({"jobs"});
    EXPECT_EQ((Object{{"limit", 101}}), params_of("job.list"));
    run({"jobs", "--instance", "prod", "--definition", "d", "--state", "error", "--limit", "3"});
    EXPECT_EQ((Object{{"instance", "prod"}, {"definition", "d"}, {"state", "error"}, {"limit", 3}}),
              params_of("job.list"));
}

TEST_F(Command_Line_Test, a_check_looks_at_what_it_is_told) {
    agent_.answers("agent.check", Object{{"ok", true}, {"lines", json_spirit::Array{}}});
    EXPECT_EQ(EXIT_OK, run({"check"}));
    EXPECT_EQ(EXIT_OK, run({"check", "t1", "--pool", "p", "--cache-dir", "/backups"}));
    EXPECT_EQ(Object{}, params(0));
    EXPECT_EQ((Object{{"instance", "t1"}, {"pool", "p"}, {"cache_dir", "/backups"}}), params(1));
    EXPECT_NE(EXIT_OK, run({"check", "t1", "--cache-dir", "backups"}));
}

TEST_F(Command_Line_Test, what_a_backup_holds_is_shown_a_line_each) {
    agent_.answers(
        "backup.show",
        Object{{"uuid", "b1"},
               {"tables",
                json_spirit::Array{
                    Object{{"uuid", "d"}, {"parent_uuid", ""}, {"type", "database"}, {"name", "a"}},
                    Object{{"uuid", "s"}, {"parent_uuid", "d"}, {"type", "schema"}, {"name", "b"}},
                    Object{{"uuid", "t"},
                           {"parent_uuid", "s"},
                           {"type", "table"},
                           {"name", "c\n\x1b[2J"}}}}});
    EXPECT_EQ(EXIT_OK, run({"backup", "show", "b1"}));
    EXPECT_THAT(out_, testing::EndsWith("\nHOLDS\na\na.b\na.b.c\\n\\x1b[2J\n"));
}

} // namespace
