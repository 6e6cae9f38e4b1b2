#include "host/process/child_setup.h"

#include "host/process/process_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

struct Options : ACE_Process_Options {
    explicit Options(char const* line, bool inherit = true)
        : ACE_Process_Options(inherit, 1024, 16384, 512, 128) {
        command_line("%s", line);
    }
};

std::vector<std::string> list(char const* const* texts) {
    std::vector<std::string> result;
    for (; *texts; ++texts)
        result.push_back(*texts);
    return result;
}

std::string reason_for(ACE_Process_Options& options, int error) {
    Child_Setup setup;
    EXPECT_FALSE(setup.prepare(options));
    EXPECT_EQ(error, errno);
    return setup.reason();
}

TEST(Child_Setup, the_words_of_the_line_are_the_arguments) {
    Options options("gsql -c \"select 1\" ''");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.argv), ElementsAre("gsql", "-c", "select 1", ""));
    EXPECT_EQ("gsql", setup.program());
    EXPECT_EQ("", setup.reason());
}

TEST(Child_Setup, a_fresh_child_keeps_its_parents_place_and_user) {
    Options options("true");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_EQ(nullptr, setup.plan.directory);
    EXPECT_FALSE(setup.plan.change_ids);
    EXPECT_FALSE(setup.plan.change_groups);
    EXPECT_FALSE(setup.plan.close_others);
    EXPECT_EQ(-1, setup.plan.process_group);
    EXPECT_THAT(setup.plan.streams, ElementsAre(Child_Plan::DEVNULL, 1, 2));
}

TEST(Child_Setup, takes_over_what_the_options_say) {
    Options options("true");
    options.working_directory("/tmp");
    options.handle_inheritance(0);
    options.setgroup(0);
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_STREQ("/tmp", setup.plan.directory);
    EXPECT_TRUE(setup.plan.close_others);
    EXPECT_EQ(0, setup.plan.process_group);
}

TEST(Child_Setup, inherits_the_environment_and_the_options_win) {
    Scoped_Env const inherited("ZENBRAK3_A", "inherited");
    Scoped_Env const kept("ZENBRAK3_B", "kept");
    Options options("true");
    options.setenv("ZENBRAK3_A", "%s", "first");
    options.setenv("ZENBRAK3_A", "%s", "last");
    options.setenv("ZENBRAK3_C=");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    std::vector<std::string> const entries = list(setup.plan.envp);
    EXPECT_THAT(entries, Contains("ZENBRAK3_A=last"));
    EXPECT_THAT(entries, Not(Contains("ZENBRAK3_A=first")));
    EXPECT_THAT(entries, Not(Contains("ZENBRAK3_A=inherited")));
    EXPECT_THAT(entries, Contains("ZENBRAK3_B=kept"));
    EXPECT_THAT(entries, Contains("ZENBRAK3_C="));
}

TEST(Child_Setup, a_name_is_not_taken_for_a_longer_one) {
    Scoped_Env const longer("ZENBRAK3_AB", "1");
    Options options("true");
    options.setenv("ZENBRAK3_A", "%s", "2");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.envp), Contains("ZENBRAK3_AB=1"));
    EXPECT_THAT(list(setup.plan.envp), Contains("ZENBRAK3_A=2"));
}

TEST(Child_Setup, without_inheritance_the_child_has_the_options_environment_alone) {
    Options options("true", false);
    options.setenv("A=1");
    options.setenv("B=2");
    options.setenv("A=3");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.envp), ElementsAre("A=3", "B=2"));
}

TEST(Child_Setup, what_is_no_variable_is_refused) {
    for (std::string const entry : {"", "NAME", "=value"}) {
        Options options("true");
        std::string text = entry;
        char* entries[] = {text.data(), nullptr};
        options.setenv(entries);
        EXPECT_EQ("\"" + entry + "\" is no setting of an environment variable",
                  reason_for(options, EINVAL));
    }
}

TEST(Child_Setup, the_program_is_looked_for_on_the_childs_path) {
    Scoped_Env const parents("PATH", "/parent");
    Options options("tool x");
    options.setenv("PATH", "%s", "/one:/two");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.candidates), ElementsAre("/one/tool", "/two/tool"));
}

TEST(Child_Setup, an_inherited_path_is_the_childs) {
    Scoped_Env const parents("PATH", "/parent");
    Options options("tool");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.candidates), ElementsAre("/parent/tool"));
}

TEST(Child_Setup, an_empty_part_of_the_path_is_the_directory_of_the_child) {
    Options options("tool", false);
    options.setenv("PATH", "%s", ":/a::/b:");
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.candidates),
                ElementsAre("tool", "/a/tool", "tool", "/b/tool", "tool"));
}

TEST(Child_Setup, a_child_without_a_path_has_the_systems) {
    Options options("tool", false);
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_THAT(list(setup.plan.candidates), ElementsAre("/bin/tool", "/usr/bin/tool"));
}

TEST(Child_Setup, a_program_with_a_slash_is_not_looked_for) {
    for (std::string const program : {"/opt/db/bin/zengine", "./tool", "bin/tool"}) {
        Options options((program + " -v").c_str());
        Child_Setup setup;
        ASSERT_TRUE(setup.prepare(options));
        EXPECT_THAT(list(setup.plan.candidates), ElementsAre(program));
    }
}

TEST(Child_Setup, a_line_without_a_program_is_refused) {
    Options empty("");
    EXPECT_EQ("the command line is empty", reason_for(empty, EINVAL));
    Options blanks("  \t ");
    EXPECT_THAT(reason_for(blanks, EINVAL), HasSubstr("names no program"));
    Options nameless("'' x");
    EXPECT_THAT(reason_for(nameless, EINVAL), HasSubstr("names no program"));
    ACE_Process_Options unset;
    EXPECT_EQ("the command line is empty", reason_for(unset, EINVAL));
    ACE_Process_Options without_buffer(true, 0);
    EXPECT_EQ("the command line is empty", reason_for(without_buffer, EINVAL));
}

TEST(Child_Setup, a_line_that_fills_its_buffer_is_refused) {
    ACE_Process_Options options(true, 16);
    options.command_line("%s", "12345678 0123456789");
    EXPECT_THAT(reason_for(options, E2BIG),
                HasSubstr("the command line fills its buffer of 16 bytes"));
    options.command_line("%s", "12345678 01234");
    Child_Setup setup;
    EXPECT_TRUE(setup.prepare(options));
}

TEST(Child_Setup, a_line_that_cannot_be_split_is_refused) {
    Options options("gsql -c \"select");
    EXPECT_THAT(reason_for(options, EINVAL), HasSubstr("a \" in it has no end"));
}

TEST(Child_Setup, half_a_user_is_refused) {
    using Setter = void (ACE_Process_Options::*)(uid_t);
    Setter const setters[] = {&ACE_Process_Options::setruid, &ACE_Process_Options::seteuid,
                              &ACE_Process_Options::setrgid, &ACE_Process_Options::setegid};
    for (Setter const left_out : setters) {
        Options options("true");
        for (Setter const setter : setters)
            if (setter != left_out)
                (options.*setter)(7);
        EXPECT_EQ("its real and effective user and group are not set alike",
                  reason_for(options, EINVAL));
        (options.*left_out)(8);
        Child_Setup setup;
        EXPECT_FALSE(setup.prepare(options));
    }
}

TEST(Child_Setup, refused_options_are_refused) {
    Options options("true");
    set_process_user(options, "no-such-user");
    EXPECT_LOGGED(LM_ERROR, "no-such-user");
    EXPECT_EQ("its user is not known", reason_for(options, EINVAL));
}

TEST(Child_Setup, settings_that_are_not_supported_are_refused) {
    Options passing("true");
    passing.pass_handle(0);
    EXPECT_THAT(reason_for(passing, ENOTSUP), HasSubstr("pass_handle"));
    Options forking("true");
    forking.creation_flags(ACE_Process_Options::NO_EXEC);
    EXPECT_THAT(reason_for(forking, ENOTSUP), HasSubstr("without a program"));
}

TEST(Child_Setup, the_own_user_needs_no_change) {
    Options options("true");
    options.setruid(geteuid());
    options.seteuid(geteuid());
    options.setrgid(getegid());
    options.setegid(getegid());
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_FALSE(setup.plan.change_ids);
    EXPECT_TRUE(setup.plan.groups_may_be_refused);
}

TEST(Child_Setup, another_user_is_changed_to_with_all_groups) {
    Options options("true");
    ASSERT_TRUE(set_process_user(options, geteuid() == 65534 ? "root" : "nobody"));
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    EXPECT_TRUE(setup.plan.change_ids);
    EXPECT_TRUE(setup.plan.change_groups);
    EXPECT_FALSE(setup.plan.groups_may_be_refused);
    EXPECT_EQ(options.geteuid(), setup.plan.uid);
    EXPECT_EQ(options.getegid(), setup.plan.gid);
    EXPECT_GE(setup.plan.group_count, 1u);
}

TEST(Child_Setup, a_uid_that_nobody_has_gets_its_group_alone) {
    Options options("true");
    options.setruid(123456789);
    options.seteuid(123456789);
    options.setrgid(987654321);
    options.setegid(987654321);
    Child_Setup setup;
    ASSERT_TRUE(setup.prepare(options));
    ASSERT_EQ(1u, setup.plan.group_count);
    EXPECT_EQ(987654321u, setup.plan.groups[0]);
}

} // namespace
