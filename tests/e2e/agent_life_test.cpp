// The built agent with the test module: its life, and what its death leaves behind.
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/agent_process.h"
#include "tests/support/scoped_env.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <thread>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

std::string text(Object const& object, char const* key) {
    return json_spirit::object_get_str(object, key);
}

std::vector<Object> list(Object const& object, char const* key) {
    Array array;
    json_spirit::object_get(object, key, array);
    std::vector<Object> objects;
    for (Object const& element : json_spirit::objects_of(array))
        objects.push_back(element);
    return objects;
}

/** A backup of so many objects of so many bytes, with a pause between two. */
Object backup_definition(std::string const& name, int objects, int size, int pause) {
    return {{"name", name},
            {"type", "backup"},
            {"subtype", "full"},
            {"agent", "gaussdb"},
            {"target", Object{{"pool", "pool"}}},
            {"source", Object{{"id", "resource-" + name},
                              {"name", name},
                              {"objects", objects},
                              {"size", size},
                              {"pause", pause}}}};
}

class Agent_Life_Test : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(agent_.start()) << agent_.log(); }

    void make_pool() {
        agent_.ask("pool.create", {{"name", "pool"}, {"url", "file://" + agent_.pool_dir()}});
    }
    std::string start_job(Object const& definition) {
        return text(agent_.ask("job.start", {{"run", definition}}), "run_id");
    }
    Object job(std::string const& run_id) { return agent_.ask("job.show", {{"job", run_id}}); }
    /** Waits until the run has one of the states that are no run's. */
    Object wait_for_end(std::string const& run_id) {
        for (int attempt = 0; attempt < 3000; ++attempt) {
            Object const row = job(run_id);
            std::string const state = text(row, "state");
            if (state == "completed" || state == "error" || state == "canceled")
                return row;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ADD_FAILURE() << "the run does not end";
        return {};
    }
    /** The names of all files in the pool, below its directory. */
    std::set<std::string> pool_files() const {
        std::set<std::string> files;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(agent_.pool_dir()))
            if (entry.is_regular_file())
                files.insert(std::filesystem::relative(entry.path(), agent_.pool_dir()));
        return files;
    }
    /** The names of all pieces of all sets that can be seen. */
    std::set<std::string> pieces() {
        std::set<std::string> names;
        for (Object const& backup : list(agent_.ask("backup.list"), "backups"))
            for (Object const& piece :
                 list(agent_.ask("backup.show", {{"backup", text(backup, "uuid")}}), "pieces"))
                names.insert(text(piece, "path"));
        return names;
    }
    /** Reads a set back and compares it, byte by byte. */
    void expect_restorable(std::string const& uuid) {
        Object const row =
            wait_for_end(start_job({{"name", "verify"},
                                    {"type", "restore"},
                                    {"subtype", "instance"},
                                    {"agent", "gaussdb"},
                                    {"source", Object{{"id", "resource"}, {"restore_as", uuid}}}}));
        EXPECT_EQ("completed", text(row, "state")) << json_spirit::to_text(row, true);
    }

    Agent_Process agent_{ZENBRAK3_TEST_MODULE, "[remote]\nenabled = false\n"};
};

TEST_F(Agent_Life_Test, a_backup_is_run_recorded_and_read_back) {
    make_pool();
    std::string const run = start_job(backup_definition("one", 5, 100000, 0));
    Object const row = wait_for_end(run);
    EXPECT_EQ("completed", text(row, "state")) << json_spirit::to_text(row, true);
    EXPECT_EQ(Value(100), row.at("percent"));
    ASSERT_EQ(1u, list(agent_.ask("backup.list"), "backups").size());
    EXPECT_EQ(5u, pieces().size());
    EXPECT_EQ(pieces(), pool_files());
    expect_restorable(run);
    EXPECT_EQ(0, agent_.stop());
    ASSERT_TRUE(agent_.start());
    EXPECT_EQ("completed", text(job(run), "state"));
    expect_restorable(run);
}

TEST_F(Agent_Life_Test, a_watcher_is_told_of_what_is_new) {
    make_pool();
    std::string const run = start_job(backup_definition("watched", 20, 1000, 100));
    auto const watch = [&](uint64_t seen, int pause) {
        return agent_.ask("job.watch", {{"job", run}, {"seen", seen}, {"pause", pause}});
    };
    auto const revision_of = [](Object const& row) { return row.at("revision").get_uint64(); };
    Object row = watch(0, 30000);
    uint64_t const first = revision_of(row);
    EXPECT_LT(0u, first) << "there is a state that nobody has seen";
    bool saw_bytes = false;
    for (int answers = 0; text(row, "state") != "completed" && answers < 1000; ++answers) {
        uint64_t const seen = revision_of(row);
        row = watch(seen, 1);
        EXPECT_TRUE(text(row, "state") != "running" || revision_of(row) != seen)
            << "answered without a change";
        uint64_t const stored = row.at("processed_size").get_uint64();
        saw_bytes = saw_bytes || (stored > 0 && stored < 20000 && stored % 1000 == 0);
    }
    EXPECT_EQ("completed", text(row, "state")) << json_spirit::to_text(row, true);
    EXPECT_TRUE(saw_bytes) << "objects that have arrived count";
    EXPECT_EQ("completed", text(watch(revision_of(row), 30000), "state"))
        << "a finished run is answered at once";
    EXPECT_EQ(-32004, agent_.call("job.watch", {{"job", "0f3a"}}).code);
    EXPECT_EQ(-32602, agent_.call("job.watch").code);
    EXPECT_EQ(-32602, agent_.call("job.watch", {{"job", run}, {"seen", -1}}).code);
    EXPECT_EQ(-32602, agent_.call("job.watch", {{"job", run}, {"pause", 30001}}).code);
}

TEST_F(Agent_Life_Test, many_watch_one_run) {
    make_pool();
    std::string const run = start_job(backup_definition("watched", 10, 1000, 50));
    std::vector<std::thread> watchers;
    std::atomic<int> ends = 0;
    for (int i = 0; i < 20; ++i)
        watchers.emplace_back([&] {
            Object row;
            for (uint64_t seen = 0; text(row, "state") != "completed";
                 seen = row.at("revision").get_uint64())
                row = agent_.ask("job.watch", {{"job", run}, {"seen", seen}, {"pause", 30000}});
            ++ends;
        });
    for (std::thread& watcher : watchers)
        watcher.join();
    EXPECT_EQ(20, ends) << "more than there are threads for calls";
}

TEST_F(Agent_Life_Test, backups_are_found_by_a_table_that_they_hold) {
    make_pool();
    for (char const* name : {"one", "two"})
        EXPECT_EQ("completed",
                  text(wait_for_end(start_job(backup_definition(name, 1, 10, 0))), "state"));
    for (auto const& [table, count] : {std::pair{"orders", 2u},
                                       {"public.orders", 2u},
                                       {"one.public.orders", 1u},
                                       {"three.public.orders", 0u},
                                       {"old.orders", 0u},
                                       {"public", 0u},
                                       {"order_", 0u},
                                       {"x' OR 1 --", 0u}}) {
        std::vector<Object> const found =
            list(agent_.ask("backup.list", {{"table", table}}), "backups");
        ASSERT_EQ(count, found.size()) << table;
        for (Object const& one : found)
            EXPECT_EQ(0u, one.count("tables")) << "they are many";
        if (count == 1) {
            EXPECT_EQ("one", text(found[0], "instance"));
            EXPECT_EQ(
                3u, list(agent_.ask("backup.show", {{"backup", text(found[0], "uuid")}}), "tables")
                        .size());
        }
    }
    for (char const* hostile : {".", "a.", "a..b", "a.b.c.d", "a\nb"})
        EXPECT_EQ(-32602, agent_.call("backup.list", {{"table", hostile}}).code) << hostile;
}

/** A backup of an instance, by which the agent decides whether it may start. */
Object instance_backup(std::string const& instance) {
    Object definition = backup_definition("of " + instance, 2, 1000, 0);
    definition["source"].get_obj()["restore_as"] = "gaussdb/" + instance;
    definition["source"].get_obj().erase("id"); // the agent knows it
    return definition;
}

/** Starts the agent so that its first search for instances lasts until let_search_end(). */
class First_Search_Test : public Agent_Life_Test {
protected:
    void SetUp() override {
        Agent_Life_Test::SetUp();
        make_pool();
        EXPECT_EQ(0, agent_.stop());
        ASSERT_TRUE(agent_.start());
    }
    void let_search_end() { agent_.directory().write("searched", ""); }

    Scoped_Env const gate_{"ZENBRAK3_TEST_SEARCH_GATE",
                           agent_.directory().path("searched").c_str()};
};

TEST_F(First_Search_Test, a_run_waits_for_it_and_says_so) {
    std::string const run = start_job(instance_backup("test"));
    EXPECT_EQ("starting", text(job(run), "state"));
    EXPECT_EQ("the first search for instances", text(job(run), "waiting_for"));
    let_search_end();
    Object const row = wait_for_end(run);
    EXPECT_EQ("completed", text(row, "state")) << json_spirit::to_text(row, true);
    EXPECT_EQ("", text(row, "waiting_for"));
    expect_restorable(run);
}

TEST_F(First_Search_Test, a_missed_schedule_waits_for_it) {
    Object definition = instance_backup("test");
    definition["schedule"] = Object{{"type", "continuous"}, {"at", "1"}};
    agent_.ask("definition.save", definition);
    std::vector<Object> runs;
    do // until it is on record and waits
        runs = list(agent_.ask("job.list"), "jobs");
    while (runs.empty() ||
           (text(runs[0], "waiting_for").empty() && text(runs[0], "state") == "starting"));
    EXPECT_EQ("the first search for instances", text(runs[0], "waiting_for"));
    let_search_end();
    EXPECT_EQ("completed", text(wait_for_end(text(runs[0], "run_id")), "state"));
}

TEST_F(First_Search_Test, an_instance_whose_run_waits_is_not_removed) {
    std::string const run = start_job(instance_backup("test"));
    EXPECT_NE(std::string::npos,
              agent_.call("instance.remove", {{"instance", "test"}}).message.find(run));
    let_search_end();
    EXPECT_EQ("completed", text(wait_for_end(run), "state"));
}

TEST_F(First_Search_Test, a_run_that_waits_for_it_is_canceled_at_once) {
    std::string const run = start_job(instance_backup("test"));
    agent_.ask("job.cancel", {{"job", run}});
    EXPECT_EQ("canceled", text(job(run), "state"));
    EXPECT_EQ(0, agent_.stop());
}

TEST_F(First_Search_Test, an_instance_that_nobody_knows_by_then_fails_the_run) {
    std::string const run = start_job(instance_backup("nobody"));
    EXPECT_EQ("starting", text(job(run), "state"));
    let_search_end();
    Object const row = wait_for_end(run);
    EXPECT_EQ("error", text(row, "state"));
    EXPECT_NE(std::string::npos, text(row, "message").find("\"nobody\" is not known on any host"));
    ASSERT_EQ(1u, list(row, "alert_list").size());
    EXPECT_TRUE(pool_files().empty());
}

TEST_F(Agent_Life_Test, every_method_is_in_the_manual) {
    std::ifstream file(ZENBRAK3_RPC_MANUAL);
    std::string const manual((std::istreambuf_iterator<char>(file)), {});
    Array methods;
    ASSERT_TRUE(json_spirit::object_get(agent_.ask("agent.info"), "methods", methods));
    ASSERT_LT(20u, methods.size());
    for (Value const& method : methods)
        EXPECT_NE(std::string::npos, manual.find("\n### " + method.get_str() + "\n"))
            << method.get_str();
}

TEST_F(Agent_Life_Test, a_failed_run_tells_its_alert_and_leaves_nothing) {
    make_pool();
    Object definition = backup_definition("bad", 3, 1000, 0);
    definition["source"].get_obj()["fail"] = true;
    Object const row = wait_for_end(start_job(definition));
    EXPECT_EQ("error", text(row, "state"));
    ASSERT_EQ(1u, list(row, "alert_list").size());
    EXPECT_NE("", text(list(row, "alert_list")[0], "text"));
    Object const log = agent_.ask("job.log", {{"job", text(row, "run_id")}});
    EXPECT_NE(std::string::npos, text(log, "text").find("told to fail")) << text(log, "text");
    EXPECT_TRUE(pool_files().empty());
    EXPECT_TRUE(list(agent_.ask("backup.list"), "backups").empty());
}

TEST_F(Agent_Life_Test, a_set_that_a_failed_run_leaves_open_is_dropped_with_its_end) {
    make_pool();
    std::string const good = start_job(backup_definition("good", 1, 1000, 0));
    EXPECT_EQ("completed", text(wait_for_end(good), "state"));
    Object definition = backup_definition("bad", 3, 1000, 0);
    for (char const* const wish : {"fail", "leave_open"})
        definition["source"].get_obj()[wish] = true;
    Object const row = wait_for_end(start_job(definition));
    EXPECT_EQ("error", text(row, "state"));
    while (pool_files().size() > 1) // the run's end is shown before its thread has left
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(agent_.call("backup.show", {{"backup", text(row, "run_id")}}));
    EXPECT_EQ(pieces(), pool_files());
    expect_restorable(good);
}

TEST_F(Agent_Life_Test, a_stop_cancels_what_runs_and_aborts_its_set) {
    make_pool();
    std::string const run = start_job(backup_definition("long", 100000, 1000, 5));
    while (pool_files().empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(0, agent_.stop());
    EXPECT_TRUE(pool_files().empty());
    ASSERT_TRUE(agent_.start());
    EXPECT_EQ("canceled", text(job(run), "state"));
    EXPECT_TRUE(list(agent_.ask("backup.list"), "backups").empty());
}

TEST_F(Agent_Life_Test, a_job_is_canceled_on_request) {
    make_pool();
    std::string const run = start_job(backup_definition("long", 100000, 1000, 5));
    EXPECT_TRUE(agent_.call("job.cancel", {{"job", run.substr(0, 8)}}));
    EXPECT_EQ("canceled", text(wait_for_end(run), "state"));
    EXPECT_FALSE(agent_.call("job.cancel", {{"job", "no such run"}}));
}

TEST_F(Agent_Life_Test, a_second_agent_on_the_same_data_is_refused) {
    Agent_Process second(ZENBRAK3_TEST_MODULE, "[remote]\nenabled = false\n");
    std::filesystem::create_directory_symlink(agent_.data_dir(), second.data_dir());
    EXPECT_FALSE(second.start());
    EXPECT_NE(std::string::npos, second.log().find("in use by another agent")) << second.log();
    EXPECT_TRUE(agent_.call("agent.info"));
}

TEST_F(Agent_Life_Test, a_database_that_is_damaged_is_refused_and_not_touched) {
    ASSERT_EQ(0, agent_.stop());
    std::string const file = agent_.data_dir() + "/agent.db";
    std::filesystem::resize_file(file, 4096);
    std::fstream(file, std::ios::in | std::ios::out)
        .seekp(100)
        .write("garbage garbage garbage", 23);
    std::string const before = agent_.directory().read("data/agent.db");
    EXPECT_FALSE(agent_.start());
    EXPECT_NE(std::string::npos, agent_.log().find("agent.db")) << agent_.log();
    EXPECT_EQ(before, agent_.directory().read("data/agent.db"));
}

TEST_F(Agent_Life_Test, its_configuration_is_read_again_on_request) {
    std::string const good = agent_.directory().read("agent.toml");
    auto const wait_for_log = [&](char const* words) {
        for (int attempt = 0; attempt < 500; ++attempt) {
            if (agent_.log().find(words) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    };
    agent_.directory().write("agent.toml", good + "nonsense = 1\n");
    agent_.signal(SIGHUP);
    EXPECT_TRUE(wait_for_log("stays as it was")) << agent_.log();
    agent_.directory().write("agent.toml", good + "port = 7\n[limits]\nconnections = 10\n");
    agent_.signal(SIGHUP);
    EXPECT_TRUE(wait_for_log("\"limits.connections\" has changed")) << agent_.log();
    EXPECT_TRUE(agent_.call("agent.info"));
}

TEST_F(Agent_Life_Test, a_pool_that_vanished_fails_the_job_and_is_not_made_anew) {
    make_pool();
    std::filesystem::remove_all(agent_.pool_dir());
    Object const row = wait_for_end(start_job(backup_definition("gone", 3, 1000, 0)));
    EXPECT_EQ("error", text(row, "state"));
    EXPECT_FALSE(std::filesystem::exists(agent_.pool_dir()));
    std::vector<Object> const pools = list(agent_.ask("pool.list"), "pools");
    ASSERT_EQ(1u, pools.size());
    EXPECT_EQ(Value(false), pools[0].at("online"));
    std::filesystem::create_directory(agent_.pool_dir());
}

TEST_F(Agent_Life_Test, killed_at_any_moment_it_leaves_nothing_half_done) {
    make_pool();
    unsigned const seed = std::random_device()();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    std::set<std::string> finished;
    for (int round = 0; round < ZENBRAK3_KILL_ROUNDS; ++round) {
        std::vector<std::string> runs;
        for (int backup = 0; backup < 3; ++backup)
            runs.push_back(start_job(backup_definition("kill-" + std::to_string(backup),
                                                       1 + static_cast<int>(random() % 8), 20000,
                                                       static_cast<int>(random() % 3))));
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));
        for (std::string const& run : runs)
            if (text(job(run), "state") == "completed")
                finished.insert(run);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        agent_.kill();
        ASSERT_TRUE(agent_.start()) << "round " << round << "\n" << agent_.log();

        std::set<std::string> visible;
        for (Object const& backup : list(agent_.ask("backup.list"), "backups"))
            visible.insert(text(backup, "uuid"));
        for (std::string const& run : finished)
            ASSERT_TRUE(visible.count(run)) << "round " << round << " lost " << run;
        finished = visible;
        ASSERT_EQ(pieces(), pool_files()) << "round " << round;
        for (std::string const& run : runs) {
            std::string const state = text(job(run), "state");
            EXPECT_TRUE(state == "completed" || state == "error") << run << " is " << state;
        }
        if (testing::Test::HasFailure())
            return;
    }
    Object const check = agent_.ask("agent.check");
    for (Object const& line : list(check, "lines"))
        if (text(line, "subject") == "agent's database") {
            EXPECT_EQ(Value(true), line.at("ok"));
        }
    for (std::string const& uuid : finished)
        expect_restorable(uuid);
}

} // namespace
