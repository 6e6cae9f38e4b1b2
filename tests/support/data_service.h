#ifndef TESTS_SUPPORT_DATA_SERVICE_H
#define TESTS_SUPPORT_DATA_SERVICE_H

#include "tests/support/server_child.h"
#include "tests/support/temporary_directory.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

/**
 * A process of another user, not a child of the test, of which only the command line counts. The
 * test needs a private process table.
 */
class Data_Service {
public:
    Data_Service(std::string const& command_line, std::string const& user) {
        std::string const script = "echo $$ >" + files_.path("pid") + "; exec -a \"$1\" sleep 600";
        std::filesystem::permissions(files_.path(), std::filesystem::perms(0777));
        EXPECT_EQ(0, Server_Child::run({"/usr/bin/setsid", "-f", "/usr/bin/setpriv", "--reuid",
                                        user, "--regid", "1", "--clear-groups", "/bin/bash", "-c",
                                        script, "bash", command_line},
                                       "", files_.path("log")));
        while (title().find(command_line) != 0)
            std::this_thread::yield();
    }
    ~Data_Service() {
        kill(pid(), SIGKILL);
        while (!title().empty())
            std::this_thread::yield();
    }
    Data_Service(Data_Service const&) = delete;
    Data_Service& operator=(Data_Service const&) = delete;

private:
    pid_t pid() const {
        std::ifstream file(files_.path("pid"));
        pid_t number = 0;
        return file >> number ? number : -1;
    }
    std::string title() const {
        std::ifstream file("/proc/" + std::to_string(pid()) + "/cmdline");
        std::string first; // "" also when the process goes away meanwhile
        std::getline(file, first, '\0');
        return first;
    }

    Temporary_Directory files_;
};

#endif
