#include "host/process/service_lister.h"

#include "host/process/ace_process_ex.h"
#include "host/process/password_file_entry.h"
#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_child_path.h"

#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

/** The service pattern of the database's processes. */
constexpr char const* DATABASE = R"((?!gaussdb:|\./secbox).*\bgaussdb\b.*)";

/** A process with a command line of its own that waits until it is let go. */
class Service {
public:
    /** @param arguments  what stands behind the program and the FIFO that it awaits */
    explicit Service(std::string const& arguments, uid_t user = geteuid()) {
        EXPECT_EQ(0, mkfifo(fifo.c_str(), 0666));
        EXPECT_EQ(0, chmod(fifo.c_str(), 0666));
        EXPECT_EQ(0, chmod(directory_.path().c_str(), 0755));
        Child_Options options("out ready await " + fifo + " args " + arguments);
        options.setruid(user);
        options.seteuid(user);
        options.setrgid(getegid());
        options.setegid(getegid());
        EXPECT_NE(-1, process.spawn(options));
        // a process in the middle of its start has no command line yet
        char ready[6];
        EXPECT_EQ(6, read(process.stdout_handle(), ready, sizeof ready));
    }
    ~Service() { end(); }

    void end() {
        if (!process.running())
            return;
        close(open(fifo.c_str(), O_WRONLY));
        process.wait();
    }

    std::string command(std::string const& arguments) const {
        return std::string(ZENBRAK3_TEST_CHILD) + " out ready await " + fifo + " args " + arguments;
    }
    /** A text that only this service's command line has. */
    std::string const& mark() const { return fifo; }
    pid_t pid() const { return process.getpid(); }

private:
    Temporary_Directory directory_;

public:
    std::string const fifo = directory_.path("fifo");
    ACE_Process_Ex process{ACE_Process_Ex::REDIRECT_STDOUT, "service"};
};

std::vector<Service_Info> list(std::string const& name, bool is_regex) {
    std::vector<Service_Info> services(1); // to be replaced
    EXPECT_EQ(0, Service_Lister::list_service(name.c_str(), services, is_regex, "C"));
    return services;
}

std::vector<pid_t> pids_of(std::vector<Service_Info> const& services) {
    std::vector<pid_t> pids;
    for (Service_Info const& service : services)
        pids.push_back(service.pid);
    return pids;
}

TEST(Service_Lister, a_text_is_looked_for_anywhere_in_the_command_line) {
    Service service("/opt/db/bin/zengine -D /data");
    std::vector<Service_Info> const found = list(service.mark() + " args /opt/db/bin/zen", false);
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(service.pid(), found[0].pid);
    EXPECT_EQ(service.command("/opt/db/bin/zengine -D /data"), found[0].cmd);
    Password_File_Entry self;
    ASSERT_EQ(0, self.get_by_uid(geteuid()));
    EXPECT_EQ(self.name(), found[0].user);
}

TEST(Service_Lister, a_text_is_no_regular_expression) {
    Service service("a+b.c");
    EXPECT_THAT(list(service.mark() + " args a+b.c", false), SizeIs(1));
    EXPECT_THAT(list(service.mark() + " args aab.c", false), IsEmpty());
    EXPECT_THAT(list(service.mark() + ".*", false), IsEmpty());
}

TEST(Service_Lister, a_regular_expression_has_to_match_the_whole_line) {
    Service service("gaussdb -D x");
    EXPECT_THAT(list(".*" + service.mark() + ".*gaussdb.*", true), SizeIs(1));
    EXPECT_THAT(list(service.mark(), true), IsEmpty());
    EXPECT_THAT(list(".*" + service.mark(), true), IsEmpty());
}

TEST(Service_Lister, the_database_pattern_takes_the_database_and_not_its_workers) {
    Service database("gaussdb -D /gauss/data/db1 -M primary");
    Service other("notgaussdbx");
    std::vector<pid_t> const pids = pids_of(list(DATABASE, true));
    EXPECT_THAT(pids, testing::Contains(database.pid()));
    EXPECT_THAT(pids, Not(testing::Contains(other.pid())));
}

TEST(Service_Lister, arguments_are_joined_by_one_blank_and_stay_as_they_are) {
    Service service("'a  b' '' \"q'\" \xFFz");
    std::vector<Service_Info> const found = list(service.mark(), false);
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ(service.command("a  b  q' \xFFz"), found[0].cmd);
}

TEST(Service_Lister, a_command_line_of_any_length_is_read_whole) {
    // longer than any buffer of the options: started without them
    Temporary_Directory directory;
    std::string const fifo = directory.path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    std::string const last = std::string(100000, 'x') + "end";
    pid_t const pid = fork();
    if (pid == 0) {
        execl(ZENBRAK3_TEST_CHILD, ZENBRAK3_TEST_CHILD, "await", fifo.c_str(), "out", last.c_str(),
              static_cast<char*>(nullptr));
        _exit(1);
    }
    int const fd = open(fifo.c_str(), O_WRONLY); // the program runs
    std::vector<Service_Info> const found = list(fifo + " out " + last, false);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(fd);
    EXPECT_THAT(pids_of(found), ElementsAre(pid));
}

TEST(Service_Lister, services_come_by_ascending_process_id) {
    std::vector<std::unique_ptr<Service>> services;
    std::vector<pid_t> expected;
    std::string const mark = "order-" + std::to_string(getpid());
    for (int i = 0; i < 5; ++i) {
        services.push_back(std::make_unique<Service>(mark));
        expected.push_back(services.back()->pid());
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, pids_of(list(mark, false)));
}

TEST(Service_Lister, a_process_that_ended_is_not_listed_even_before_it_is_waited_for) {
    Service service("x");
    std::string const mark = service.mark();
    close(open(mark.c_str(), O_WRONLY));
    siginfo_t info;
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(service.pid()), &info, WEXITED | WNOWAIT));
    EXPECT_THAT(list(mark, false), IsEmpty());
    service.process.wait();
    EXPECT_THAT(list(mark, false), IsEmpty());
}

TEST(Service_Lister, this_process_is_not_listed) {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::string command;
    std::getline(file, command, '\0');
    EXPECT_THAT(pids_of(list(command, false)), Not(testing::Contains(getpid())));
}

TEST(Service_Lister, processes_without_a_command_line_are_not_listed) {
    for (Service_Info const& service : list(".*", true)) {
        EXPECT_NE("", service.cmd) << service.pid;
        EXPECT_NE("", service.user) << service.pid;
        EXPECT_NE(2, service.pid); // the kernel's thread maker
    }
}

TEST(Service_Lister, the_user_is_the_effective_one) {
    if (geteuid() != 0)
        GTEST_SKIP() << "running as another user needs root";
    Password_File_Entry nobody;
    ASSERT_EQ(0, nobody.get("nobody"));
    Service service("x", nobody.uid());
    std::vector<Service_Info> const found = list(service.mark(), false);
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ("nobody", found[0].user);
}

TEST(Service_Lister, a_user_without_a_name_is_shown_by_its_number) {
    if (geteuid() != 0)
        GTEST_SKIP() << "running as another user needs root";
    Service service("x", 123456789);
    std::vector<Service_Info> const found = list(service.mark(), false);
    ASSERT_THAT(found, SizeIs(1));
    EXPECT_EQ("123456789", found[0].user);
}

TEST(Service_Lister, a_bad_regular_expression_is_an_error_and_changes_nothing) {
    std::vector<Service_Info> services(3);
    EXPECT_NE(0, Service_Lister::list_service("(gaussdb", services, true, "C"));
    EXPECT_THAT(services, SizeIs(3));
    EXPECT_LOGGED(LM_ERROR, "Failed to list services, bad regular expression (gaussdb: ");
}

TEST(Service_Lister, no_name_is_an_error) {
    std::vector<Service_Info> services(3);
    EXPECT_NE(0, Service_Lister::list_service(nullptr, services, false, "C"));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_NE(0, Service_Lister::list_service("", services, true, "C"));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_THAT(services, SizeIs(3));
}

TEST(Service_Lister, knows_the_C_locale_only) {
    std::vector<Service_Info> services;
    EXPECT_EQ(0, Service_Lister::list_service("no such service", services, false, nullptr));
    EXPECT_NE(0, Service_Lister::list_service("x", services, false, "de_DE.UTF-8"));
    EXPECT_LOGGED(LM_ERROR, "there is no locale de_DE.UTF-8 for it");
}

TEST(Service_Lister, in_it_a_letter_beyond_ascii_is_none) {
    Service service("gaussdb\xFC"); // a letter in Latin-1, none here: the word ends before it
    EXPECT_THAT(list(".*" + service.mark() + R"(.*\bgaussdb\b.*)", true), SizeIs(1));
    Service word("gaussdbu");
    EXPECT_THAT(list(".*" + word.mark() + R"(.*\bgaussdb\b.*)", true), IsEmpty());
}

TEST(Service_Lister, a_proc_that_cannot_be_read_is_an_error) {
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_openat, EACCES));
        std::vector<Service_Info> services(3);
        EXPECT_NE(0, Service_Lister::list_service("x", services, false, "C"));
        EXPECT_THAT(services, SizeIs(3));
    });
    EXPECT_LOGGED(LM_ERROR, "Failed to list services, cannot read /proc, errno=13");
}

} // namespace
