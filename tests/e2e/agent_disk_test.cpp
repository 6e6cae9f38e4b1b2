// The built agent when a disk is full: what was there stays, and it goes on when there is room
// again.
#include "json_spirit/access.h"
#include "tests/support/agent_process.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <thread>

using json_spirit::Object;

namespace {

std::string text(Object const& object, char const* key) {
    return json_spirit::object_get_str(object, key);
}

/** A small file system of its own in place of a directory, while it lives. */
class Small_Disk {
public:
    Small_Disk(std::string path, char const* size) : path_(std::move(path)) {
        std::filesystem::create_directory(path_);
        std::string const options = std::string("mode=0700,size=") + size;
        EXPECT_EQ(0, mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()));
    }
    ~Small_Disk() { umount2(path_.c_str(), MNT_DETACH); }
    Small_Disk(Small_Disk const&) = delete;
    Small_Disk& operator=(Small_Disk const&) = delete;

    void fill() const {
        std::ofstream file(path_ + "/filler", std::ios::binary);
        while (file.write(std::string(4096, 'x').data(), 4096) && file.flush()) {
        }
    }
    void make_room() const { std::filesystem::remove(path_ + "/filler"); }

private:
    std::string const path_;
};

class Agent_Disk_Test : public testing::Test {
protected:
    void start() {
        ASSERT_TRUE(agent_.start()) << agent_.log();
        agent_.ask("pool.create", {{"name", "main"}, {"url", "file://" + agent_.pool_dir()}});
    }
    Agent_Process::Reply backup(int objects, int size) {
        return agent_.call("job.start", {{"run", Object{{"name", "b"},
                                                        {"type", "backup"},
                                                        {"subtype", "full"},
                                                        {"target", Object{{"pool", "main"}}},
                                                        {"source", Object{{"id", "r"},
                                                                          {"name", "n"},
                                                                          {"objects", objects},
                                                                          {"size", size},
                                                                          {"pause", 0}}}}}});
    }
    /** How a backup ends; "refused" for one that was not started. */
    std::string outcome(int objects, int size) {
        Agent_Process::Reply const started = backup(objects, size);
        if (!started)
            return "refused";
        std::string const run = text(started.result.get_obj(), "run_id");
        for (int attempt = 0; attempt < 6000; ++attempt) {
            std::string const state = text(agent_.ask("job.show", {{"job", run}}), "state");
            if (state == "completed" || state == "error")
                return state;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return "no end";
    }
    size_t backups() { return agent_.ask("backup.list").at("backups").get_array().size(); }
    size_t pool_files() const {
        size_t files = 0;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(agent_.pool_dir()))
            files += entry.is_regular_file() && entry.path().filename() != "filler";
        return files;
    }

    Agent_Process agent_{ZENBRAK3_TEST_MODULE, "[remote]\nenabled = false\n"};
};

TEST_F(Agent_Disk_Test, a_full_pool_fails_the_backup_and_keeps_nothing_of_it) {
    Small_Disk const disk(agent_.pool_dir(), "2m");
    start();
    ASSERT_EQ("completed", outcome(1, 1000));
    EXPECT_EQ("error", outcome(10, 500000));
    EXPECT_EQ(1u, backups());
    EXPECT_EQ(1u, pool_files());
    EXPECT_EQ("completed", outcome(2, 1000));
}

TEST_F(Agent_Disk_Test, a_full_disk_under_database_and_logs_loses_nothing_that_was_confirmed) {
    Small_Disk const disk(agent_.data_dir(), "8m");
    start();
    ASSERT_EQ("completed", outcome(1, 1000));
    disk.fill();
    EXPECT_NE("completed", outcome(1, 1000));
    EXPECT_TRUE(agent_.call("agent.info"));
    EXPECT_EQ(1u, backups());
    disk.make_room();
    EXPECT_EQ("completed", outcome(1, 1000));
    agent_.kill();
    ASSERT_TRUE(agent_.start()) << agent_.log();
    EXPECT_EQ(2u, backups());
    EXPECT_EQ(2u, pool_files());
}

} // namespace
