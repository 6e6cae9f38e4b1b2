#include "agent/cli/suggestion.h"
#include "tests/unit/agent/cli/command_run.h"

#include <gmock/gmock.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;
using testing::Not;

TEST(Nearest, one_error_in_three_characters) {
    std::vector<std::string> const known{"backup", "backups", "pools", "info"};
    EXPECT_EQ("backup", nearest("bakcup", known)) << "exchanged";
    EXPECT_EQ("backup", nearest("bckup", known)) << "missing";
    EXPECT_EQ("backup", nearest("backkup", known)) << "too many";
    EXPECT_EQ("pools", nearest("POLLS", known)) << "wrong, in capitals";
    EXPECT_EQ("info", nearest("inof", known));
    EXPECT_EQ("", nearest("dance", known));
    EXPECT_EQ("", nearest("", known));
    EXPECT_EQ("", nearest("x", {"y"})) << "of one character nothing is left";
    EXPECT_EQ("", nearest(std::string(10000, 'a'), {std::string(10000, 'b')}));
    EXPECT_EQ("", nearest("backup", {}));
}

TEST(Nearest, ids_by_their_beginning) {
    std::vector<std::string> const ids{"6f9619ff-8b86", "77e1a0b2-1111"};
    EXPECT_EQ("6f9619ff", nearest_id("6f9691ff", ids));
    EXPECT_EQ("77e1", nearest_id("77f1", ids));
    EXPECT_EQ("", nearest_id("6f", ids)) << "close to every id";
    EXPECT_EQ("", nearest_id("abcdef", ids));
}

class Mistyped_Test : public Command_Run {
protected:
    /** What is printed for a wrong command line. */
    std::string fault(std::vector<char const*> const& words) {
        EXPECT_EQ(EXIT_USAGE, run(words));
        EXPECT_TRUE(agent_.calls.empty());
        return err_.substr(0, err_.find('\n'));
    }
};

TEST_F(Mistyped_Test, commands) {
    EXPECT_EQ("unknown command 'bakups' of `zenbrak3`. Did you mean 'backups'?", fault({"bakups"}));
    EXPECT_EQ("unknown command 'crate' of `zenbrak3 pool`. Did you mean 'create'?",
              fault({"pool", "crate", "x", "/x"}));
    EXPECT_EQ("unknown command 'shwo' of `zenbrak3 backup`. Did you mean 'show'?",
              fault({"backup", "shwo", "6f96", "--pool", "p"}));
    EXPECT_EQ("unknown command 'dance' of `zenbrak3`", fault({"dance"}));
    EXPECT_EQ("unknown command 'complet' of `zenbrak3`", fault({"complet"})) << "not for people";
}

TEST_F(Mistyped_Test, options) {
    EXPECT_EQ("unknown option '--jsom' of `zenbrak3 info`. Did you mean '--json'?",
              fault({"info", "--jsom"}));
    EXPECT_EQ("unknown option '--comression' of `zenbrak3 backup`. Did you mean '--compression'?",
              fault({"backup", "prod", "--pool", "p", "--comression=zstd"}));
    EXPECT_EQ("unknown option '--pol' of `zenbrak3 backup`. Did you mean '--pool'?",
              fault({"backup", "prod", "--level", "full", "--pol", "p"}));
    EXPECT_EQ("unknown option '-x' of `zenbrak3 pools`", fault({"pools", "-x"}));
}

TEST_F(Mistyped_Test, the_value_of_an_option_is_not_taken_for_a_command) {
    EXPECT_EQ("unknown option '--jsom' of `zenbrak3 pools`. Did you mean '--json'?",
              fault({"--socket", "dance", "pools", "--jsom"}));
    EXPECT_THAT(fault({"backup", "--pool", "p"}), HasSubstr("INSTANCE is required"));
}

TEST_F(Mistyped_Test, arguments_that_are_too_many) {
    EXPECT_EQ("unexpected argument 'jobs' of `zenbrak3 info`", fault({"info", "jobs"}));
    EXPECT_EQ("unexpected argument 'more' of `zenbrak3 backup`",
              fault({"backup", "prod", "more", "--pool", "p"}));
}

TEST_F(Mistyped_Test, levels_states_and_forms) {
    EXPECT_THAT(fault({"backup", "prod", "--pool", "p", "--level", "fulll"}),
                HasSubstr("'fulll' is not a backup level (expected full, incremental, cumulative, "
                          "log). Did you mean 'full'?"));
    EXPECT_THAT(fault({"backups", "--type", "incremntal"}),
                HasSubstr("Did you mean 'incremental'?"));
    EXPECT_THAT(fault({"jobs", "--state", "runing"}), HasSubstr("Did you mean 'running'?"));
    EXPECT_THAT(fault({"job", "wait", "x", "--progress", "jsn"}),
                HasSubstr("Did you mean 'json'?"));
}

TEST_F(Mistyped_Test, control_characters_are_shown_escaped) {
    EXPECT_THAT(fault({"\x1b[2J"}), Not(HasSubstr("\x1b")));
    EXPECT_THAT(fault({"info", "--\x1b[2J"}), Not(HasSubstr("\x1b")));
}

class Unknown_Name_Test : public Command_Run {
protected:
    Unknown_Name_Test() {
        agent_.answers("instance.list", Object{{"instances", Array{Object{{"name", "prod"}}}}});
        agent_.answers("pool.list",
                       Object{{"pools", Array{Object{{"name", "main"}, {"uuid", "p-1"}}}}});
        agent_.answers("job.list", Object{{"jobs", Array{Object{{"run_id", "0f3a91c2-0000"}}}}});
        agent_.answers("backup.list",
                       Object{{"backups", Array{Object{{"uuid", "6f9619ff-8b86"}}}}});
        agent_.answers("definition.list",
                       Object{{"definitions", Array{Object{{"name", "nightly"}}}}});
    }
    std::string hint(std::vector<char const*> const& words, char const* method, char const* data) {
        agent_.refuses(method, Rpc_Error::NOT_FOUND, "it does not exist", data);
        EXPECT_EQ(EXIT_NOT_FOUND, run(words));
        size_t const line = err_.find('\n');
        return err_.substr(line + 1);
    }
};

TEST_F(Unknown_Name_Test, a_close_name_of_the_same_kind_is_offered) {
    EXPECT_EQ("Did you mean 'prod'? `zenbrak3 instances` lists the instances.\n",
              hint({"instance", "show", "prdo"}, "instance.show", "instance prdo"));
    EXPECT_EQ("Did you mean 'nightly'? `zenbrak3 definitions` lists the definitions.\n",
              hint({"definition", "show", "nigthly"}, "definition.show", "definition \"nigthly\""));
    EXPECT_EQ("Did you mean '0f3a91c2'? `zenbrak3 jobs` lists the jobs.\n",
              hint({"job", "show", "0f3a91d2"}, "job.show", "job \"0f3a91d2\""));
    EXPECT_EQ("Did you mean '6f9619'? `zenbrak3 backups` lists the backups.\n",
              hint({"backup", "show", "6f9691"}, "backup.show", "backup 6f9691"));
    EXPECT_EQ("Did you mean 'main'? `zenbrak3 pools` lists the pools.\n",
              hint({"pool", "update", "mian", "--limit", "1"}, "pool.update", "pool mian"));
}

TEST_F(Unknown_Name_Test, nothing_close_leaves_the_advice) {
    EXPECT_EQ("`zenbrak3 instances` lists the instances.\n",
              hint({"instance", "show", "warehouse"}, "instance.show", "instance warehouse"));
    EXPECT_EQ("`zenbrak3 instances` lists the instances.\n",
              hint({"instance", "show", "x"}, "instance.show", "something"));
    agent_.refuses("instance.list", Rpc_Error::REFUSED, "no", {});
    EXPECT_EQ("`zenbrak3 instances` lists the instances.\n",
              hint({"instance", "show", "prdo"}, "instance.show", "instance prdo"));
}

TEST_F(Unknown_Name_Test, one_within_a_definition_is_not_found_either) {
    agent_.answers("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
    agent_.refuses("job.start", -32602, "Invalid params: target.pool: pool mian does not exist",
                   {});
    EXPECT_EQ(EXIT_NOT_FOUND, run({"backup", "prod", "--pool", "mian"}));
    EXPECT_THAT(err_,
                testing::StartsWith("zenbrak3: cannot back up prod: pool mian does not exist\n"
                                    "Did you mean 'main'? "));
    agent_.refuses("job.start", -32602, "Invalid params: options.channels: wanted a number", {});
    EXPECT_EQ(EXIT_USAGE, run({"backup", "prod", "--pool", "main"}));
}

TEST_F(Unknown_Name_Test, databases_without_an_account_say_how_to_save_one) {
    agent_.answers("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
    agent_.refuses("gaussdb.list", -32603, "Internal error", "get login info fail");
    for (std::vector<char const*> const& words :
         {std::vector<char const*>{"databases", "prod", "--uid", "u"},
          {"schemas", "prod", "db", "--uid", "u"}}) {
        EXPECT_EQ(EXIT_REFUSED, run(words));
        EXPECT_THAT(err_, HasSubstr(": no account of prod is saved\n"
                                    "`zenbrak3 account prod USER` saves one.\n"));
    }
    agent_.refuses("instance.show", Rpc_Error::NOT_FOUND, "it does not exist", "instance prdo");
    EXPECT_EQ(EXIT_NOT_FOUND, run({"databases", "prdo", "--uid", "u"})) << "which is the cause";
    EXPECT_THAT(err_, HasSubstr("Did you mean 'prod'?"));
    agent_.refuses("gaussdb.list", -32603, "Internal error", "something else");
    EXPECT_EQ(EXIT_FAILED, run({"databases", "prod", "--uid", "u"}));
    EXPECT_THAT(err_, HasSubstr("something else"));
}

} // namespace
