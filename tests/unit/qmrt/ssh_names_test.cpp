#include "qmrt/names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;

constexpr char const* NO_WORDS[] = {"",    "a b", "a'b", "a\"b", "a\\b", "a`id`", "a$(id)", "a;id",
                                    "a&b", "a|b", "a>b", "-a",   "a\nb", "a\xff", "a\x1b"};

TEST(Ssh_Names, an_address_is_a_host_or_an_account_at_a_host) {
    for (char const* address :
         {"10.0.0.1", "cn1.example", "fe80::1%eth0", "omm@10.0.0.1", "svc-roach_1@cn1"})
        EXPECT_EQ("", names::fault_of_ssh_address(address)) << address;
}

TEST(Ssh_Names, an_address_that_could_be_more_is_refused) {
    for (char const* address : NO_WORDS)
        EXPECT_NE("", names::fault_of_ssh_address(address)) << address;
    for (char const* address :
         {"-oProxyCommand=id@h", "omm@-h", "@h", "omm@", "a@b@c", "a;b@h", "omm @h", "-l@h"})
        EXPECT_NE("", names::fault_of_ssh_address(address)) << address;
}

TEST(Ssh_Names, options_that_ssh_and_scp_read_alike) {
    for (char const* options :
         {"", "-o ConnectTimeout=4", "-oConnectTimeout=4", "-o Port=2222 -o User=omm",
          "-4 -C  -q -6", "-i /root/.ssh/dws_key -o IdentitiesOnly=yes",
          "-o StrictHostKeyChecking=yes", "-o stricthostkeychecking=ASK",
          "-o UserKnownHostsFile=/etc/zenbrak3/known_hosts",
          "-o KexAlgorithms=+diffie-hellman-group14-sha1"})
        EXPECT_EQ("", names::fault_of_ssh_options(options)) << options;
}

TEST(Ssh_Names, options_that_start_a_program_or_read_another_configuration_are_refused) {
    for (char const* options : {"-o ProxyCommand=id",
                                "-oproxycommand=id",
                                "-o LocalCommand=id",
                                "-o PermitLocalCommand=yes",
                                "-o KnownHostsCommand=/tmp/x",
                                "-o PKCS11Provider=/tmp/x.so",
                                "-o ProxyJump=h",
                                "-o SecurityKeyProvider=/tmp/x.so",
                                "-o Include=/tmp/x",
                                "-o ControlPath=/tmp/x",
                                "-o ControlMaster=auto",
                                "-o RemoteCommand=id",
                                "-F /tmp/config",
                                "-J h",
                                "-S /tmp/x",
                                "-o XAuthLocation=/tmp/x",
                                "-o RemoteForward=1:h:2",
                                "-L 1:h:2",
                                "-A",
                                "-o ForwardAgent=yes"})
        EXPECT_NE("", names::fault_of_ssh_options(options)) << options;
}

TEST(Ssh_Names, options_that_ssh_and_scp_read_differently_are_refused) {
    for (char const* options : {"-p 2222", "-P 2222", "-l omm"})
        EXPECT_THAT(names::fault_of_ssh_options(options), HasSubstr("expected")) << options;
}

TEST(Ssh_Names, a_host_key_is_never_accepted_unseen) {
    for (char const* value : {"no", "off", "accept-new", "NO", "false"}) {
        std::string const option = std::string("StrictHostKeyChecking=") + value;
        for (std::string const& options : {"-o " + option, "-o" + option, "-4 -o " + option})
            EXPECT_THAT(names::fault_of_ssh_options(options), HasSubstr("unknown host keys"));
    }
}

TEST(Ssh_Names, options_that_are_no_options_are_refused) {
    for (char const* options : {"host", "-o", "-o Port", "-o Port=", "-o =4", "-i", "-i key", "--",
                                "-o Port=22 host", "-o User='a b'", "-o User=$(id)", "-o User=a\\",
                                "-i -oProxyCommand=id", "-o\tPort=22", "-4\n", "-o Port=\"2\""})
        EXPECT_NE("", names::fault_of_ssh_options(options)) << options;
}

TEST(Ssh_Names, remote_commands_are_shell_text_without_single_quotes) {
    for (char const* commands : {"", "source ~/env; ", "test -f \"$HOME/x y\" && . ~/x;"})
        EXPECT_EQ("", names::fault_of_remote_commands(commands)) << commands;
    EXPECT_EQ("has a ' in it; use double quotes", names::fault_of_remote_commands("export A='b';"));
    for (char const* commands : {"a\nb", "a\rb", "a\xff"})
        EXPECT_NE("", names::fault_of_remote_commands(commands));
}

TEST(Ssh_Names, a_bare_path_is_absolute_and_the_same_word_in_every_shell) {
    for (char const* path : {"/", "/gauss/meta", "/gauss/meta-1_a.b=c"})
        EXPECT_EQ("", names::fault_of_bare_path(path)) << path;
    for (char const* path : {"", "gauss", "~/meta", "/a b", "/a;id", "/$(id)", "/a'b", "/a\"b",
                             "/a`b", "/a\\b", "/a*", "/a?", "/{a,b}", "/a/../b", "/a\nb", "/a#b"})
        EXPECT_NE("", names::fault_of_bare_path(path)) << path;
}

TEST(Ssh_Names, a_listed_name_is_one_line_without_a_dot) {
    for (char const* name : {"public", "My Schema", "a'b\"c$d;e",
                             "t\xc3\xa4"
                             "ble"})
        EXPECT_EQ("", names::fault_of_listed_name(name)) << name;
    for (char const* name : {"", "a.b", ".", "a\nb", "a\rb", "a\xff", " a", "a "})
        EXPECT_NE("", names::fault_of_listed_name(name)) << name;
}

} // namespace
