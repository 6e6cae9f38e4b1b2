#include "tests/integration/agent_command_fixture.h"

#include <signal.h>

namespace {

// What is destroyed only when somebody agrees.

class Consent_Test : public Agent_Command_Test {
protected:
    Consent_Test() {
        Object const set{{"uuid", "b-1"},          {"instance", "prod"},
                         {"type", "full"},         {"resource_uuid", "u-1"},
                         {"backup_key", "k1"},     {"backup_end_time", 1795314600},
                         {"backup_set_size", 1536}};
        agent_->on("backup.show", set);
        agent_->on("instance.show",
                   Object{{"name", "prod"},
                          {"uuid", "u-1"},
                          {"state", "Normal"},
                          {"accounts", Array{Object{{"uid", "u"}, {"username", "backup"}}}}});
        agent_->on("backup.list",
                   Object{{"backups", Array{Object{{"uuid", "b-3"},
                                                   {"type", "incremental"},
                                                   {"backup_key", "k3"},
                                                   {"prior_backup_key", "k2"},
                                                   {"backup_end_time", 1795318200}},
                                            Object{{"uuid", "b-2"},
                                                   {"type", "incremental"},
                                                   {"backup_key", "k2"},
                                                   {"prior_backup_key", "k1"}},
                                            set,
                                            Object{{"uuid", "b-0"},
                                                   {"backup_key", "k0"},
                                                   {"backup_end_time", 1795300000}}}}});
        agent_->on("job.watch", run_in("completed"));
        agent_->on("backup.remove", Object{{"removed", Array{"b-1"}}});
        agent_->on("pool.remove", Object());
        agent_->on("pool.list",
                   Object{{"pools",
                           Array{Object{{"name", "main"}, {"url", "file:///p"}, {"used", 2048}}}}});
        agent_->on("instance.remove", Object());
        agent_->on("member.remove", Object());
        agent_->on(
            "member.list",
            Object{{"members",
                    Array{Object{{"name", "db2"}, {"host", "host2"}, {"connected", true}}}}});
    }
    /** Answers the question on a terminal; the exit status. */
    int answer(std::vector<std::string> const& arguments, std::string const& typed) {
        setting_.columns = 200;
        start(arguments);
        EXPECT_TRUE(child_->await("Continue? [y/N] "));
        child_->type(typed);
        return child_->wait();
    }
    /** Every command that destroys something, and the method that does it. */
    static std::vector<std::pair<std::vector<std::string>, std::string>> commands() {
        return {{{"restore", "b", "--interval", "0.01"}, "job.start"},
                {{"backup", "remove", "b"}, "backup.remove"},
                {{"pool", "remove", "main"}, "pool.remove"},
                {{"instance", "remove", "prod"}, "instance.remove"},
                {{"member", "remove", "db2"}, "member.remove"}};
    }
    static std::vector<std::string> with(std::vector<std::string> words, std::string const& word) {
        words.push_back(word);
        return words;
    }
};

TEST_F(Consent_Test, without_a_terminal_nothing_is_done_unless_it_is_told_to) {
    for (auto const& [command, method] : commands()) {
        EXPECT_EQ(5, run(command)) << command[0];
        EXPECT_THAT(err(),
                    HasSubstr(": stdin is not a terminal, so nobody can be asked\n--yes does "
                              "it without asking, --dry-run shows what it would do.\n"));
        EXPECT_TRUE(agent_->calls(method).empty()) << method;
        EXPECT_EQ(0, run(with(command, "--yes"))) << err();
        EXPECT_EQ(1u, agent_->calls(method).size()) << method;
    }
}

TEST_F(Consent_Test, a_dry_run_shows_and_does_nothing) {
    for (auto const& [command, method] : commands()) {
        EXPECT_EQ(0, run(with(command, "--dry-run"))) << err();
        EXPECT_THAT(out(), testing::StartsWith("This ")) << command[0];
        EXPECT_TRUE(agent_->calls(method).empty()) << method;
        EXPECT_EQ(2, run(with(with(command, "--dry-run"), "--yes")));
    }
}

TEST_F(Consent_Test, on_a_terminal_it_is_asked) {
    for (std::string const yes : {"y\n", "yes\n", "YES\n"})
        EXPECT_EQ(0, answer({"pool", "remove", "main"}, yes)) << yes;
    EXPECT_EQ(3u, agent_->calls("pool.remove").size());
    for (std::string const no : {"\n", "n\n", "no\n", "yes please\n", "\x04"})
        EXPECT_EQ(5, answer({"pool", "remove", "main"}, no)) << no;
    EXPECT_THAT(err(), HasSubstr("Nothing was changed.\n"));
    start({"pool", "remove", "main"});
    EXPECT_TRUE(child_->await("Continue? [y/N] "));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_THAT(err(), HasSubstr("Nothing was changed.\n"));
    EXPECT_EQ(3u, agent_->calls("pool.remove").size());
    EXPECT_EQ(0, answer({"restore", "b", "--interval", "0.01"}, "y\n"));
    EXPECT_EQ(1u, agent_->calls("job.start").size());
}

TEST_F(Consent_Test, a_restore_tells_what_it_overwrites_and_what_is_lost) {
    EXPECT_EQ(0, run({"restore", "b", "--dry-run"}));
    EXPECT_THAT(out(), HasSubstr("This overwrites instance prod.\n"));
    EXPECT_THAT(out(), HasSubstr("Backup:               b-1, full, of 2026-11-22 02:30:00Z, "));
    EXPECT_THAT(out(), HasSubstr(" ago, 1.5 KiB\n"));
    EXPECT_THAT(out(), HasSubstr("State of prod:        Normal: it is running and healthy\n"));
    EXPECT_THAT(out(), HasSubstr("Lost:                 all changes since 2026-11-22 02:30:00Z\n"));
    EXPECT_THAT(out(), HasSubstr("Last backup of prod:  2026-11-22 03:30:00Z, "));
    agent_->on("instance.show", Object{{"name", "rehearsal"}, {"uuid", "u-2"}});
    agent_->on("backup.list", Object{{"backups", Array{}}});
    EXPECT_EQ(0, run({"restore", "b", "--dry-run", "--instance", "rehearsal"}));
    EXPECT_THAT(out(), HasSubstr("This overwrites instance rehearsal.\n"));
    EXPECT_THAT(out(), HasSubstr(" ago, 1.5 KiB, of instance prod\n"));
    EXPECT_THAT(out(), HasSubstr("State of rehearsal:        unknown\n"));
    EXPECT_THAT(out(), HasSubstr("Lost:                      all that rehearsal holds\n"));
    EXPECT_THAT(out(), HasSubstr("Last backup of rehearsal:  none\n"));
}

TEST_F(Consent_Test, a_loss_is_told_in_the_words_of_the_module) {
    Object const said{{"title", "This rebuilds schemas of sh\033op."},
                      {"lost", "what they hold"},
                      {"lines", Array{Object{{"label", "Schema"}, {"text", "sale"}}}}};
    agent_->on("guide.backup", Object{{"restore", said}, {"removal", said}});
    agent_->on("guide.instance", Object{{"removal", said}});
    EXPECT_EQ(0, run({"restore", "b", "--dry-run", "--table", "shop.sale.orders"}));
    EXPECT_THAT(out(), testing::StartsWith("This rebuilds schemas of sh\\x1bop.\n"));
    EXPECT_THAT(out(), HasSubstr("Lost:                 what they hold\n"));
    EXPECT_THAT(out(), HasSubstr("Schema:               sale\n"));
    EXPECT_THAT(out(), Not(HasSubstr("overwrites")));
    EXPECT_THAT(
        agent_->calls("guide.backup"),
        ElementsAre(Value(Object{
            {"backup", "b-1"}, {"instance", "prod"}, {"tables", Array{"shop.sale.orders"}}})));
    EXPECT_EQ(0, run({"backup", "remove", "b", "--dry-run"}));
    EXPECT_THAT(out(), HasSubstr("Schema:"));
    EXPECT_EQ(0, run({"instance", "remove", "prod", "--dry-run"}));
    EXPECT_THAT(out(), HasSubstr("Schema:"));
}

TEST_F(Consent_Test, a_loss_that_nobody_can_tell_is_unknown) {
    for (std::vector<std::string> const& command : {std::vector<std::string>{"restore", "b"},
                                                    {"backup", "remove", "b"},
                                                    {"instance", "remove", "prod"}}) {
        EXPECT_EQ(0, run(with(command, "--dry-run")));
        EXPECT_THAT(out(), testing::ContainsRegex("Besides: +unknown: the agent's module does "));
    }
}

TEST_F(Consent_Test, a_removal_of_a_backup_tells_what_goes_and_what_is_left) {
    EXPECT_EQ(0, run({"backup", "remove", "b", "--dry-run", "--with-dependents"}));
    EXPECT_THAT(out(), HasSubstr("This removes 3 backups of instance prod with the data"));
    EXPECT_THAT(out(), HasSubstr("Builds on it:      b-3, incremental"));
    EXPECT_THAT(out(), HasSubstr("Builds on it:      b-2, incremental"));
    EXPECT_THAT(out(), HasSubstr("Last backup left:  2026-11-21 22:26:40Z, "));
    EXPECT_EQ(0, run({"backup", "remove", "b", "--dry-run"}));
    EXPECT_THAT(out(), HasSubstr("This removes a backup of instance prod"));
    EXPECT_THAT(out(), HasSubstr("Needs it:          b-2, incremental"));
}

TEST_F(Consent_Test, other_removals_tell_what_goes) {
    run({"pool", "remove", "main", "--dry-run"});
    EXPECT_THAT(out(), HasSubstr("URL:   file:///p\n  Used:  2.0 KiB\n"));
    run({"instance", "remove", "prod", "--dry-run"});
    EXPECT_THAT(out(), HasSubstr("Accounts:     backup\n  Backups:      4\n"));
    run({"member", "remove", "db2", "--dry-run"});
    EXPECT_THAT(out(), HasSubstr("Host:       host2\n  Connected:  yes\n"));
}

TEST_F(Consent_Test, json_is_for_programs) {
    EXPECT_EQ(0, run({"pool", "remove", "main", "--dry-run", "--json"}));
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ("file:///p", printed.get_obj().at("consequences").get_obj().at("URL").get_str());
    EXPECT_EQ(0, run({"pool", "remove", "main", "--yes", "--json"}));
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(Value(Object()), printed);
}

TEST_F(Agent_Command_Test, a_definition_from_stdin) {
    setting_.input = "{\"name\": \"n\", \"type\": \"backup\"}";
    agent_->on("definition.save", Object{{"id", "d-9"}});
    EXPECT_EQ(0, run({"definition", "save", "-"}));
    EXPECT_EQ("Saved definition d-9.\n", out());
    EXPECT_THAT(agent_->calls("definition.save"),
                ElementsAre(Value(Object{{"name", "n"}, {"type", "backup"}})));
    EXPECT_EQ(0, run({"run", "-", "--no-wait"}));
    EXPECT_THAT(agent_->calls("job.start"),
                ElementsAre(Value(Object{{"run", Object{{"name", "n"}, {"type", "backup"}}}})));
}

TEST_F(Agent_Command_Test, a_log_is_read_to_its_end) {
    agent_->on("job.log", Scripted_Agent::Answer([](Value const& params) {
                   int64_t const offset = params.get_obj().at("offset").get_int64();
                   static char const* const texts[] = {"one\n", "two\n", ""};
                   return Value(Object{{"text", texts[offset / 4]},
                                       {"offset", offset},
                                       {"next_offset", offset < 8 ? offset + 4 : offset},
                                       {"finished", true}});
               }));
    EXPECT_EQ(0, run({"job", "log", "0f3a"}));
    EXPECT_EQ("one\ntwo\n", out());
}

TEST_F(Agent_Command_Test, a_log_that_is_followed_goes_on_until_the_run_is_over) {
    auto const part = [](char const* text, int next, bool finished) {
        return Value(Object{{"text", text}, {"next_offset", next}, {"finished", finished}});
    };
    agent_->on("job.log",
               std::vector<Value>{part("one\n", 4, false), part("", 4, false), part("", 4, false),
                                  part("two\n", 8, true), part("", 8, true)});
    EXPECT_EQ(0, run({"job", "log", "0f3a", "--follow", "--interval", "0.01"}));
    EXPECT_EQ("one\ntwo\n", out());
}

TEST_F(Agent_Command_Test, a_list_that_is_watched_comes_again_when_it_has_changed) {
    auto const jobs = [](char const* state) {
        return Value(Object{{"jobs", Array{run_in(state)}}});
    };
    agent_->on("job.list", std::vector<Value>{jobs("running"), jobs("running"), jobs("completed")});
    start({"jobs", "--watch", "0.1"});
    ASSERT_TRUE(child_->await("completed"));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    std::string const text = out();
    EXPECT_EQ(text.find("running"), text.rfind("running")) << text;
    EXPECT_EQ("", err());
}

TEST_F(Agent_Command_Test, watch_without_a_number_watches) {
    agent_->on("job.list", Object{{"jobs", Array{}}});
    start({"jobs", "--watch"});
    agent_->await("job.list", 2);
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
}

TEST_F(Agent_Command_Test, a_terminal_is_cleared_when_it_is_watched) {
    setting_.columns = 80;
    agent_->on("pool.list", Object{{"pools", Array{}}});
    start({"pools", "--watch", "0.1"});
    agent_->await("pool.list", 3);
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_THAT(out(), testing::StartsWith("\x1b[H\x1b[2J\x1b[3JNo pools;"));
}

TEST_F(Agent_Command_Test, a_check_that_finds_something) {
    agent_->on("agent.check",
               Object{{"ok", false},
                      {"lines", Array{Object{{"subject", "socket"}, {"ok", true}, {"text", "open"}},
                                      Object{{"subject", "gsql"},
                                             {"ok", false},
                                             {"text", "not found"},
                                             {"advice", "install it"}}}}});
    EXPECT_EQ(1, run({"check", "prod", "--pool", "main"}));
    EXPECT_EQ("ok    socket: open\nFAIL  gsql: not found\n      -> install it\n", out());
    EXPECT_THAT(agent_->calls("agent.check"),
                ElementsAre(Value(Object{{"instance", "prod"}, {"pool", "main"}})));
    agent_->on("agent.check", Object{{"ok", true}, {"lines", Array{}}});
    EXPECT_EQ(0, run({"check"}));
}

TEST_F(Agent_Command_Test, databases_and_schemas_are_asked_as_the_default_user) {
    agent_->on("agent.info", Object{{"uid", "user-1"}});
    agent_->on("gaussdb.list", Object{{"databases", Array{Object{{"name", "sales"}}}},
                                      {"schemas", Array{"public", "x y"}}});
    EXPECT_EQ(0, run({"databases", "prod"}));
    EXPECT_EQ("sales\n", out());
    EXPECT_EQ(0, run({"schemas", "prod", "sales"}));
    EXPECT_EQ("public\nx y\n", out());
    EXPECT_THAT(
        agent_->calls("gaussdb.list"),
        ElementsAre(Value(Object{{"uid", "user-1"}, {"instance", "prod"}}),
                    Value(Object{{"uid", "user-1"}, {"instance", "prod"}, {"database", "sales"}})));
}

class Account_Test : public Agent_Command_Test {
protected:
    Account_Test() { agent_->on("account.save", Object{}); }
    std::string saved_password() const {
        return json_spirit::object_get_str(agent_->calls("account.save").at(0).get_obj(),
                                           "password");
    }
};

TEST_F(Account_Test, a_password_comes_from_stdin) {
    setting_.input = "S3cret \xe2\x82\xac\r\nthe next line\n";
    EXPECT_EQ(0, run({"account", "prod", "admin"}));
    EXPECT_EQ("S3cret \xe2\x82\xac", saved_password());
    EXPECT_EQ("Account admin of prod is saved.\n", out());
    EXPECT_EQ("", err());
}

TEST_F(Account_Test, what_cannot_be_a_password) {
    for (std::string const& input :
         {std::string(), std::string("\n"), std::string("\r\n"), std::string(1025, 'x') + "\n",
          std::string(5000, 'x'), std::string("a\0b\n", 4)}) {
        setting_.input = input;
        EXPECT_EQ(2, run({"account", "prod", "admin"})) << input.size();
        EXPECT_THAT(err(), HasSubstr("no password was read: "));
    }
    EXPECT_TRUE(agent_->calls("account.save").empty());
    setting_.input = std::string(1024, 'x');
    EXPECT_EQ(0, run({"account", "prod", "admin"}));
}

TEST_F(Account_Test, a_terminal_does_not_show_the_password) {
    setting_.columns = 80;
    start({"account", "prod", "admin"});
    ASSERT_TRUE(child_->await("Password of admin on prod: "));
    EXPECT_FALSE(child_->echoes());
    child_->type("S3cret\n");
    EXPECT_EQ(0, child_->wait());
    EXPECT_EQ("S3cret", saved_password());
    EXPECT_THAT(out() + err(), Not(HasSubstr("S3cret")));
    EXPECT_TRUE(child_->echoes());
}

TEST_F(Account_Test, ctrl_c_gives_the_terminal_its_echo_back) {
    setting_.columns = 80;
    start({"account", "prod", "admin"});
    ASSERT_TRUE(child_->await("Password of admin on prod: "));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_TRUE(child_->echoes());
    EXPECT_TRUE(agent_->calls("account.save").empty());
}

TEST_F(Account_Test, there_is_no_way_to_give_it_on_the_command_line) {
    EXPECT_EQ(2, run({"account", "prod", "admin", "S3cret"}));
    EXPECT_EQ(2, run({"account", "prod", "admin", "--password", "S3cret"}));
}

TEST_F(Agent_Command_Test, an_output_that_cannot_be_written_is_a_failure) {
    agent_->on("pool.list", Object{{"pools", Array{}}});
    setting_.stdout_path = "/dev/full";
    EXPECT_EQ(1, run({"pools"}));
    EXPECT_EQ("zenbrak3: cannot write the output: No space left on device\n", err());
}

TEST_F(Agent_Command_Test, names_for_a_shell_are_silent_about_failures) {
    agent_->on("pool.list", Object{{"pools", Array{Object{{"name", "a"}}, Object{{"name", "b"}}}}});
    EXPECT_EQ(0, run({"complete", "pools"}));
    EXPECT_EQ("a\nb\n", out());
    EXPECT_EQ(0, run({"complete", "instances"}));
    agent_.reset();
    EXPECT_EQ(0, run({"complete", "pools"}));
    EXPECT_EQ("", out() + err());
}

} // namespace
