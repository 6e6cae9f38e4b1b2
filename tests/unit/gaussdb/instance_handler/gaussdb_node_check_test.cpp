#include "gaussdb/instance_handler/gaussdb_node_check.h"

#include "gaussdb/instance_handler/gaussdb_guide.h"
#include "json_spirit/access.h"
#include "tests/support/data_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssh_server.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>

#include <gmock/gmock.h>

namespace {

using json_spirit::Object;
using testing::HasSubstr;

/** A node behind a real sshd, with tools that are shell scripts, and a cluster's record. */
class Node_Check_Test : public testing::Test {
protected:
    Node_Check_Test() {
        std::filesystem::create_directory(files_.path("bin"));
        std::filesystem::create_directory(files_.path("login"));
        std::filesystem::create_directory(files_.path("meta"));
        std::filesystem::create_directories(home());
        tool("gs_check", "echo 'gs_check (GaussDB 8.2.1 build 39c1) compiled'");
        tool("gs_guc", "echo \"port='8000'\"");
        tool("gsql", "echo 3");
        tool("cm_ctl", "echo nodeCount:2");
        tool("gs_om", "true");
        tool("GaussRoach.py", "test \"$*\" = --version && echo 'GaussRoach.py (GaussDB 8.2.1 build "
                              "39c1) compiled at 2021-06-30'");
        std::ofstream(home() + "/media.txt") << "10.0.0.1\n10.0.0.2\n";
        files_.write("known_hosts", server_.known_host());
        EXPECT_EQ(0, socket_.open(ACE_INET_Addr(u_short(0), "127.0.0.1")));
        ACE_INET_Addr address;
        socket_.get_local_addr(address);
        port_ = address.get_port_number();
    }
    ~Node_Check_Test() override {
        socket_.close();
        std::filesystem::remove_all(home());
        Log_Capture::instance().claim_all(LM_WARNING, "");
        Log_Capture::instance().claim_all(LM_ERROR, "");
    }

    std::string home() const { return "/home/" + server_.user(); }
    /** @param directory  "login" for one that is on the PATH without the prefix */
    void tool(std::string const& name, std::string const& script,
              std::string const& directory = "bin") const {
        std::string const file = directory + "/" + name;
        files_.write(file, "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(files_.path(file), std::filesystem::perms(0755));
    }
    void opengauss() { tool("gs_check", "echo 'gs_check (GaussDB Kernel 505.1.0 build 5c8e)'"); }
    void roach_client(std::string const& text) {
        service_.reset();
        service_ = std::make_unique<Data_Service>(text, "daemon");
    }
    Object record(Object const& changes = {}) const {
        Object record{{"address", "127.0.0.1"},
                      {"ssh_options", server_.plain_opts(files_.path("known_hosts"))},
                      {"source_commands", "export PATH=" + files_.path("bin") + ":/usr/bin:/bin"},
                      {"meta_path", files_.path("meta")}};
        for (auto const& [key, value] : changes)
            record[key] = value;
        return record;
    }
    void run(Object const& changes = {},
             Database_Guide::Check_Scope scope = Database_Guide::TO_BACK_UP) {
        lines_ = GaussDB_Node_Check(record(changes)).run(scope);
    }
    Instance_Check line(std::string const& subject) const {
        for (Instance_Check const& one : lines_)
            if (one.subject == subject)
                return one;
        return {subject, false, "no such line", ""};
    }
    void expect_good(std::string const& subject, std::string const& text) const {
        EXPECT_TRUE(line(subject).ok) << subject;
        EXPECT_THAT(line(subject).text, HasSubstr(text));
        EXPECT_EQ("", line(subject).advice);
    }
    void expect_bad(std::string const& subject, std::string const& text,
                    std::string const& advice) const {
        EXPECT_FALSE(line(subject).ok) << subject;
        EXPECT_THAT(line(subject).text, HasSubstr(text));
        EXPECT_THAT(line(subject).advice, HasSubstr(advice));
    }
    bool all_good() const { return std::ranges::all_of(lines_, &Instance_Check::ok); }
    bool has(std::string const& subject) const { return line(subject).text != "no such line"; }

    Temporary_Directory files_;
    Ssh_Server server_{{{"PATH", files_.path("login") + ":/usr/bin:/bin"}}};
    ACE_SOCK_Acceptor socket_;
    u_short port_ = 0;
    std::unique_ptr<Data_Service> service_;
    std::vector<Instance_Check> lines_;
};

TEST_F(Node_Check_Test, a_dws_cluster_with_all_that_a_backup_needs) {
    roach_client("roach_client -p " + std::to_string(port_));
    run({{"version", GAUSSDB_DWS}});
    EXPECT_TRUE(all_good());
    expect_good("ssh 127.0.0.1", "logged in as " + server_.user() + " on ");
    expect_good("database", "DWS 8.2.1");
    for (char const* name : {"GaussRoach.py", "gs_check", "gs_om", "gs_guc", "gsql"})
        expect_good(std::string("tool ") + name, files_.path("bin/") + name);
    expect_good("nodes", "3");
    expect_good("roach_client", "of user daemon, port " + std::to_string(port_));
    expect_good("media list", home() + "/media.txt, 2 lines");
    expect_good("metadata path", files_.path("meta") + ", ");
}

TEST_F(Node_Check_Test, an_opengauss_cluster_with_all_that_a_backup_needs) {
    opengauss();
    roach_client("backUpAgent host=127.0.0.1 port=" + std::to_string(port_));
    run({{"version", GAUSSDB_FOR_OPENGAUSS}});
    EXPECT_TRUE(all_good());
    expect_good("database", "openGauss 505.1.0");
    expect_good("tool cm_ctl", "/cm_ctl");
    expect_good("nodes", "2");
    expect_good("backUpAgent", "of user daemon");
    expect_good("metadata path", " MiB free");
    EXPECT_FALSE(has("media list"));
    EXPECT_FALSE(has("tool gsql"));
}

TEST_F(Node_Check_Test, to_declare_it_only_the_node_is_looked_at) {
    run({}, Database_Guide::TO_DECLARE);
    EXPECT_TRUE(all_good());
    EXPECT_TRUE(has("nodes"));
    for (char const* subject : {"roach_client", "media list", "metadata path"})
        EXPECT_FALSE(has(subject)) << subject;
}

TEST_F(Node_Check_Test, the_prefix_may_end_in_any_way) {
    std::string const prefix = json_spirit::object_get_str(record(), "source_commands");
    for (char const* end : {"", ";", "; ", " "}) {
        run({{"source_commands", prefix + end}}, Database_Guide::TO_DECLARE);
        EXPECT_TRUE(all_good()) << "'" << end << "'";
    }
}

TEST_F(Node_Check_Test, the_handler_looks_at_clusters_without_an_agent_alone) {
    GaussDB_Guide guide;
    Instance instance;
    instance.options = record();
    EXPECT_LT(1u, guide.check(instance, Database_Guide::TO_DECLARE).size());
    instance.options["version"] = GAUSSDB_DWS;
    EXPECT_LT(1u, guide.check(instance, Database_Guide::TO_DECLARE).size());
    instance.options["version"] = GAUSSDB_200;
    EXPECT_TRUE(guide.check(instance, Database_Guide::TO_DECLARE).empty());
    instance.options.clear();
    EXPECT_TRUE(guide.check(instance, Database_Guide::TO_DECLARE).empty());
}

// the way in

TEST_F(Node_Check_Test, an_unknown_host_key) {
    files_.write("known_hosts", "");
    run();
    expect_bad("ssh 127.0.0.1", "its host key is unknown", "--host-key");
    EXPECT_EQ(1u, lines_.size());
}

TEST_F(Node_Check_Test, a_changed_host_key) {
    Ssh_Server const other;
    std::string line = other.known_host();
    std::string const port = ":" + std::to_string(other.port());
    line.replace(line.find(port), port.size(), ":" + std::to_string(server_.port()));
    files_.write("known_hosts", line);
    run();
    expect_bad("ssh 127.0.0.1", "not the one in known_hosts", "ssh-keygen -R");
    EXPECT_EQ(1u, lines_.size());
}

TEST_F(Node_Check_Test, a_key_that_is_refused) {
    server_.close_account();
    run();
    expect_bad("ssh 127.0.0.1", "does not accept a key", "authorized_keys");
    EXPECT_EQ(1u, lines_.size());
}

TEST_F(Node_Check_Test, a_host_that_is_not_there) {
    run({{"ssh_options", "-o Port=1 -o ConnectTimeout=1"}});
    expect_bad("ssh 127.0.0.1", "no sshd answers", "Port=N");
    run({{"address", "no-such-host.invalid"}});
    expect_bad("ssh no-such-host.invalid", "cannot be resolved", "correct the address");
}

TEST_F(Node_Check_Test, a_login_that_fails_otherwise) {
    run({{"ssh_options", server_.plain_opts(files_.path("known_hosts")) + " -o RekeyLimit=x"}});
    expect_bad("ssh 127.0.0.1", "the login failed: ", "log in by hand");
}

// what is wrong there

TEST_F(Node_Check_Test, a_record_that_could_be_more_reaches_no_shell) {
    for (auto const& [key, hostile] : {std::pair{"address", "$(touch /home/hacked)"},
                                       {"address", "-oProxyCommand=touch /home/hacked"},
                                       {"meta_path", "/x;touch /home/hacked"},
                                       {"ssh_options", "-o ProxyCommand=id"},
                                       {"source_commands", "x' ; touch /home/hacked '"},
                                       {"address", ""}}) {
        run({{key, hostile}});
        ASSERT_EQ(1u, lines_.size()) << hostile;
        expect_bad("record", *hostile ? key : "", "zenbrak3 instance change");
    }
    EXPECT_FALSE(std::filesystem::exists("/home/hacked"));
}

TEST_F(Node_Check_Test, a_tool_that_is_not_on_the_path) {
    std::filesystem::remove(files_.path("bin/GaussRoach.py"));
    run({}, Database_Guide::TO_DECLARE);
    expect_bad("tool GaussRoach.py", "not found on the PATH", files_.path("bin"));
    expect_good("tool gs_om", "");
    EXPECT_TRUE(has("nodes")) << "the rest is looked at";
}

TEST_F(Node_Check_Test, the_backup_tool_tells_its_version) {
    run({}, Database_Guide::TO_DECLARE);
    EXPECT_EQ(files_.path("bin/GaussRoach.py") + ", GaussDB 8.2.1 build 39c1",
              line("tool GaussRoach.py").text);
    for (char const* silent :
         {"echo '[GAUSS-50000] : Unrecognized parameter: --version' >&2; exit 1", "echo ')5.1('"}) {
        tool("GaussRoach.py", silent);
        run({}, Database_Guide::TO_DECLARE);
        expect_good("tool GaussRoach.py", "bin/GaussRoach.py, which does not tell its version");
    }
    tool("GaussRoach.py", "printf '(\\033[2J8.2.1)'");
    run({}, Database_Guide::TO_DECLARE);
    EXPECT_EQ(std::string::npos, line("tool GaussRoach.py").text.find('\033'));
}

TEST_F(Node_Check_Test, a_backup_tool_that_does_not_run) {
    for (auto const& [script, said] :
         {std::pair{"echo '[GAUSS-51802] : Failed to obtain the environment variable [GAUSSHOME].' "
                    ">&2; exit 1",
                    "does not run: [GAUSS-51802]"},
          {"exec /no/such/python3", "/no/such/python3"},
          {"exit 3", "nothing was printed"}}) {
        tool("GaussRoach.py", script);
        run({}, Database_Guide::TO_DECLARE);
        expect_bad("tool GaussRoach.py", said, "GaussRoach.py --version");
        expect_bad("tool GaussRoach.py", files_.path("bin/GaussRoach.py"), files_.path("bin"));
        EXPECT_TRUE(has("nodes")) << "the rest is looked at";
    }
}

TEST_F(Node_Check_Test, a_wrong_prefix) {
    run({{"source_commands", ". /no/such/env"}});
    expect_bad("database", "gs_check -V does not tell its version", "/no/such/env");
    EXPECT_THAT(line("database").advice, HasSubstr("correct the source commands"));
    expect_bad("tool GaussRoach.py", "not found", "/no/such/env");
    EXPECT_FALSE(has("nodes"));
    run({{"source_commands", "true"}});
    expect_bad("database", "", "set the source commands");
}

TEST_F(Node_Check_Test, versions_that_cannot_be_protected_so) {
    tool("gs_check", "echo 'gs_check (GaussDB 7.1.0 build 1)'");
    run({}, Database_Guide::TO_DECLARE);
    expect_bad("database", "version 7.1.0 of this series cannot be protected over ssh",
               "install the agent");
    tool("gs_check", "echo 'gs_check (GaussDB 8.2.1 build 1)'");
    run({{"version", GAUSSDB_FOR_OPENGAUSS}});
    expect_bad("database", "DWS 8.2.1, and on record it is of another flavour", "add it again");
    EXPECT_FALSE(has("nodes"));
}

TEST_F(Node_Check_Test, a_database_that_does_not_run) {
    tool("gs_guc", "exit 1");
    run({}, Database_Guide::TO_DECLARE);
    expect_bad("nodes", "could not be asked", "start the database");
    opengauss();
    tool("cm_ctl", "exit 1");
    run({}, Database_Guide::TO_DECLARE);
    expect_bad("nodes", "could not be asked", "cm_ctl view -N");
}

TEST_F(Node_Check_Test, the_service_on_this_host) {
    run();
    expect_bad("roach_client", "none is running", "start the database's roach_client");
    roach_client("roach_client -p 1");
    run();
    expect_bad("roach_client", "of user daemon, port 1, at which nothing listens",
               "start it again");
    Data_Service const other("roach_client -p 6666", "bin");
    run();
    expect_bad("roach_client", "several users run one", "");
}

TEST_F(Node_Check_Test, the_media_list) {
    for (bool const there : {true, false}) {
        if (there)
            std::ofstream(home() + "/media.txt") << "\n";
        else
            std::filesystem::remove(home() + "/media.txt");
        run();
        expect_bad("media list", home() + "/media.txt on the node is absent, empty", "one a line");
    }
}

TEST_F(Node_Check_Test, the_metadata_path) {
    run({{"meta_path", files_.path("none")}});
    expect_bad("metadata path", files_.path("none") + " does not exist", "mkdir -p");
    tool("df", "echo Filesystem; echo /dev/x 100 50 65535 1% /", "login");
    run();
    expect_bad("metadata path", ", 63 MiB free", "make room");
    tool("df", "echo Filesystem; echo /dev/x 100 50 65536 1% /", "login");
    run();
    expect_good("metadata path", ", 64 MiB free");
    tool("df", "echo df: no", "login");
    run();
    expect_bad("metadata path", "df: no", "make room");
}

} // namespace
