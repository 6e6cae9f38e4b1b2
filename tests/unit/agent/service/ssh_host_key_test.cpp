#include "agent/service/ssh_host_key.h"

#include "json_spirit/access.h"
#include "tests/support/log_capture.h"
#include "tests/support/ssh_server.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using testing::HasSubstr;

/** A real sshd, and a file of known hosts of the test's own. */
class Ssh_Host_Key_Test : public testing::Test {
protected:
    Ssh_Host_Key_Test() {
        Server_Child::run({"/usr/bin/ssh-keygen", "-l", "-f", server_.host_key()}, "",
                          files_.path("listed"));
        std::string bits;
        std::ifstream(files_.path("listed")) >> bits >> fingerprint_;
    }
    ~Ssh_Host_Key_Test() override { Log_Capture::instance().claim_all(LM_WARNING, ""); }

    std::string known_hosts() const { return files_.path("ssh/known_hosts"); }
    std::string options() const { return server_.plain_opts(known_hosts()); }
    Ssh_Host_Key find() const { return find_ssh_host_key("127.0.0.1", options()); }
    bool trust(Ssh_Host_Key const& key, std::string const& fingerprint) {
        return trust_ssh_host_key("127.0.0.1", options(), key, fingerprint, error_);
    }
    void known_is(std::string const& text) const {
        std::filesystem::create_directory(files_.path("ssh"));
        files_.write("ssh/known_hosts", text);
    }

    Ssh_Server server_;
    Temporary_Directory files_;
    std::string fingerprint_;
    std::string error_;
};

TEST_F(Ssh_Host_Key_Test, an_unknown_key_is_told_and_accepted_by_its_fingerprint) {
    Ssh_Host_Key const key = find();
    EXPECT_EQ(Ssh_Host_Key::UNKNOWN, key.state);
    EXPECT_EQ("ED25519", key.type);
    EXPECT_EQ(fingerprint_, key.fingerprint);
    EXPECT_FALSE(std::filesystem::exists(known_hosts())) << "it was only looked at";
    EXPECT_EQ("unknown", json_spirit::object_get_str(key.dump(), "state"));
    EXPECT_EQ(fingerprint_, json_spirit::object_get_str(key.dump(), "fingerprint"));

    ASSERT_TRUE(trust(key, fingerprint_)) << error_;
    EXPECT_EQ(Ssh_Host_Key::KNOWN, find().state);
    struct stat status;
    ASSERT_EQ(0, stat(known_hosts().c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777u);
    ASSERT_EQ(0, stat(files_.path("ssh").c_str(), &status));
    EXPECT_EQ(0700u, status.st_mode & 0777u);
}

TEST_F(Ssh_Host_Key_Test, another_fingerprint_changes_nothing) {
    Ssh_Host_Key const key = find();
    for (std::string const other : {"", "SHA256:", "SHA256:x", "a\nb"}) {
        EXPECT_FALSE(trust(key, other));
        EXPECT_THAT(error_, HasSubstr("is " + fingerprint_ + ", and not "));
        EXPECT_EQ(std::string::npos, error_.find('\n'));
    }
    EXPECT_FALSE(std::filesystem::exists(known_hosts()));
}

TEST_F(Ssh_Host_Key_Test, what_was_known_before_stays) {
    known_is("other ssh-ed25519 AAAA"); // without a line break
    ASSERT_TRUE(trust(find(), fingerprint_)) << error_;
    EXPECT_EQ("other ssh-ed25519 AAAA\n" + server_.known_host().substr(0, 10),
              files_.read("ssh/known_hosts").substr(0, 33));
    EXPECT_EQ(Ssh_Host_Key::KNOWN, find().state);
}

TEST_F(Ssh_Host_Key_Test, a_changed_key_is_never_accepted) {
    Ssh_Server const other;
    std::string const port = ":" + std::to_string(other.port());
    std::string line = other.known_host();
    line.replace(line.find(port), port.size(), ":" + std::to_string(server_.port()));
    known_is(line);
    Ssh_Host_Key const key = find();
    EXPECT_EQ(Ssh_Host_Key::CHANGED, key.state);
    EXPECT_FALSE(trust(key, fingerprint_));
    EXPECT_EQ(line, files_.read("ssh/known_hosts"));
}

TEST_F(Ssh_Host_Key_Test, a_host_that_does_not_answer_has_no_key) {
    Ssh_Host_Key const key =
        find_ssh_host_key("127.0.0.1", options() + " -o Port=1 -o GlobalKnownHostsFile=none");
    EXPECT_EQ(Ssh_Host_Key::UNKNOWN, key.state) << "of an option given twice the first counts";
    EXPECT_EQ(Ssh_Host_Key::UNREACHABLE,
              find_ssh_host_key("127.0.0.1", "-o Port=1 -o ConnectTimeout=1").state);
    EXPECT_EQ(Ssh_Host_Key::UNREACHABLE,
              find_ssh_host_key("no-such-host.invalid", options()).state);
}

TEST_F(Ssh_Host_Key_Test, a_file_that_cannot_be_written_is_told) {
    Ssh_Host_Key const key = find();
    std::filesystem::create_directories(known_hosts());
    EXPECT_FALSE(trust(key, fingerprint_));
    EXPECT_THAT(error_, HasSubstr("cannot add the host key of 127.0.0.1 to '" + known_hosts()));
}

} // namespace
