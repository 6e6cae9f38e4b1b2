#include "agent/storage/pool_sweep.h"

#include "json_spirit/access.h"
#include "qmrt/file.h"
#include "tests/support/agent_pool.h"
#include "tests/support/log_capture.h"

#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

std::set<std::string> files_in(std::string const& path) {
    std::set<std::string> files;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(path))
        if (!entry.is_directory())
            files.insert(std::filesystem::relative(entry.path(), path));
    return files;
}

bool has_empty_folder(std::string const& path) {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(path))
        if (entry.is_directory() && std::filesystem::is_empty(entry.path()))
            return true;
    return false;
}

bool nothing_named(Pool_Object const&, bool& named) {
    named = false;
    return true;
}

class Pool_Sweep_Test : public testing::Test {
protected:
    /** The journal as a new start reads it. */
    std::unique_ptr<Write_Journal> restarted() const {
        return Agent_Pool::open_journal(pool_.journal->path());
    }
    void put(std::string const& name) {
        ASSERT_TRUE(Agent_Pool::put(*connection_, name, "content"));
    }

    /** As another process has it, which the journal knows nothing of. */
    std::shared_ptr<Storage_Connection> strange_connection() const {
        std::shared_ptr<Storage_Connection> connection;
        EXPECT_TRUE(File_Storage_Backend().connect(pool_.url(), {}, connection));
        return connection;
    }

    Agent_Pool pool_;
    std::shared_ptr<Storage_Connection> connection_ = pool_.connect();
};

TEST_F(Pool_Sweep_Test, objects_of_complete_sets_stay_and_others_go) {
    Recorded_Set const complete = set_of("complete", pool_.record.uuid, {"complete/piece"});
    ASSERT_TRUE(pool_.catalog.initialize(NO_LIMITS, complete));
    ASSERT_TRUE(
        pool_.catalog.initialize(NO_LIMITS, set_of("open", pool_.record.uuid, {"open/piece"})));
    put("complete/piece");
    put("open/piece");
    put("nobody's");
    ASSERT_TRUE(pool_.catalog.complete(NO_LIMITS, complete));
    pool_.database.directory().write("pool/theirs", "not written by us");
    auto const journal = restarted();
    Sweep_Result const result =
        sweep_pool_writes(*journal, ask_catalog(pool_.pools, pool_.catalog));
    EXPECT_EQ(2u, result.removed);
    EXPECT_EQ(0u, result.put_off);
    EXPECT_EQ((std::set<std::string>{"complete/piece", "theirs"}), files_in(pool_.path()));
    EXPECT_FALSE(has_empty_folder(pool_.path()));
    EXPECT_TRUE(restarted()->left().empty());
}

TEST_F(Pool_Sweep_Test, unfinished_files_go_but_not_those_of_a_living_writer) {
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(connection_->create("f/g/a", true, writer));
    pool_.database.directory().write("pool/f/g/.zenbrak3-dead", "x");
    auto const journal = restarted();
    EXPECT_EQ(1u, sweep_pool_writes(*journal, nothing_named).unfinished);
    EXPECT_EQ(1u, files_in(pool_.path()).size());
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ(std::set<std::string>{"f/g/a"}, files_in(pool_.path()));
}

TEST_F(Pool_Sweep_Test, folders_that_were_made_for_nothing_go) {
    std::string error;
    ASSERT_TRUE(pool_.journal->begin({pool_.path(), "a/b/c/object"}, error));
    std::filesystem::create_directories(pool_.path() + "/a/b"); // killed before the third
    sweep_pool_writes(*restarted(), nothing_named);
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
    EXPECT_TRUE(restarted()->left().empty());
}

TEST_F(Pool_Sweep_Test, of_a_folder_that_is_noted_all_goes_that_no_set_has) {
    ASSERT_TRUE(
        pool_.catalog.commit(NO_LIMITS, set_of("set", pool_.record.uuid, {"f/kept"}), false));
    for (char const* const name : {"f/kept", "f/g/data", "f/data", "fg/other's", "h/data"})
        put(name);
    pool_.database.directory().write("pool/f/g/.zenbrak3-dead", "x");
    pool_.database.directory().write("pool/h/.zenbrak3-dead", "x");
    std::string error;
    for (char const* const name : {"f/", "h/", "away/", "../", "/"})
        ASSERT_TRUE(pool_.journal->note({pool_.path(), name}, error)) << error;
    Sweep_Result const result =
        sweep_pool_objects({{pool_.path(), "../"},
                            {pool_.path(), "/"},
                            {pool_.path(), "away/"},
                            {pool_.path(), "f/"},
                            {pool_.path(), "h/"}},
                           *pool_.journal, ask_catalog(pool_.pools, pool_.catalog), &pool_.backend);
    EXPECT_EQ(3u, result.removed);
    EXPECT_EQ(2u, result.unfinished);
    EXPECT_EQ(0u, result.put_off);
    EXPECT_EQ((std::set<std::string>{"f/kept", "fg/other's"}), files_in(pool_.path()));
    EXPECT_FALSE(has_empty_folder(pool_.path()));
}

TEST_F(Pool_Sweep_Test, a_folder_in_which_somebody_still_writes_is_looked_at_again) {
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(strange_connection()->create("f/g/a", true, writer));
    std::string error;
    ASSERT_TRUE(pool_.journal->note({pool_.path(), "f/"}, error)) << error;
    EXPECT_EQ(1u, sweep_pool_writes(*pool_.journal, nothing_named).put_off);
    writer->abort();
    EXPECT_EQ(0u, sweep_pool_writes(*pool_.journal, nothing_named).put_off);
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
    EXPECT_TRUE(pool_.journal->left().empty());
}

TEST_F(Pool_Sweep_Test, what_somebody_writes_again_is_left_to_him) {
    put("a");
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(connection_->create("a", true, writer));
    EXPECT_EQ(1u, sweep_pool_objects({{pool_.path(), "a"}}, *pool_.journal, nothing_named).put_off);
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ(std::set<std::string>{"a"}, files_in(pool_.path()));
}

TEST_F(Pool_Sweep_Test, a_pool_that_is_away_and_a_catalog_that_does_not_answer_put_it_off) {
    put("a");
    std::filesystem::rename(pool_.path(), pool_.path() + "_away");
    EXPECT_EQ(1u, sweep_pool_writes(*restarted(), nothing_named).put_off);
    EXPECT_LOGGED(LM_WARNING, "stays until it can be reached");
    std::filesystem::rename(pool_.path() + "_away", pool_.path());
    auto const silent = [](Pool_Object const&, bool&) { return false; };
    EXPECT_EQ(1u, sweep_pool_writes(*restarted(), silent).put_off);
    EXPECT_EQ(1u, files_in(pool_.path()).size());
    EXPECT_EQ(1u, sweep_pool_writes(*restarted(), nothing_named).removed);
    EXPECT_TRUE(files_in(pool_.path()).empty());
}

TEST_F(Pool_Sweep_Test, what_is_in_a_pool_no_longer_on_record_is_left_alone) {
    put("a");
    ASSERT_TRUE(pool_.pools.remove("pool"));
    EXPECT_EQ(0u, sweep_pool_writes(*restarted(), ask_catalog(pool_.pools, pool_.catalog)).removed);
    EXPECT_EQ(1u, files_in(pool_.path()).size());
    EXPECT_TRUE(restarted()->left().empty());
}

TEST_F(Pool_Sweep_Test, a_link_in_the_place_of_an_object_is_not_followed) {
    put("f/a");
    pool_.database.directory().write("outside/a", "precious");
    std::filesystem::remove_all(pool_.path() + "/f");
    std::filesystem::create_directory_symlink(pool_.database.directory().path("outside"),
                                              pool_.path() + "/f");
    sweep_pool_writes(*restarted(), nothing_named);
    EXPECT_TRUE(pool_.database.directory().exists("outside/a"));
}

/** Makes @a depth folders within each other in an open one, each named "n", and opens the last. */
File_Descriptor make_nested(char const* path, int depth) {
    File_Descriptor at(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (; at && depth > 0; --depth) {
        if (mkdirat(at.get(), "n", 0700) == -1)
            return File_Descriptor();
        at.reset(openat(at.get(), "n", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    return at;
}

class Pool_Sweep_Folder_Test : public Pool_Sweep_Test {
protected:
    /** Removes the folder "f" of the pool. */
    Sweep_Result sweep(Set_Question const& question = nothing_named) {
        std::string error;
        EXPECT_TRUE(pool_.journal->note({pool_.path(), "f/"}, error)) << error;
        return sweep_pool_objects({{pool_.path(), "f/"}}, *pool_.journal, question);
    }
    void TearDown() override {
        rm_rf((pool_.path() + "/f").c_str()); // deeper than what the standard library removes
        Pool_Sweep_Test::TearDown();
    }
};

TEST_F(Pool_Sweep_Folder_Test, folders_deeper_than_the_descriptors_allow_go) {
    put("f/object");
    File_Descriptor const last = make_nested((pool_.path() + "/f").c_str(), 600);
    ASSERT_TRUE(last) << errno;
    ASSERT_TRUE(File_Descriptor(openat(last.get(), "object", O_WRONLY | O_CREAT, 0600)));
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    rlimit const few{static_cast<rlim_t>(last.get()) + 10, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    Sweep_Result const result = sweep();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_EQ(2u, result.removed);
    EXPECT_EQ(0u, result.put_off);
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
}

TEST_F(Pool_Sweep_Folder_Test, folders_within_each_other_without_an_end_are_given_up) {
    put("f/object");
    ASSERT_TRUE(make_nested((pool_.path() + "/f").c_str(), 2000)) << errno;
    Sweep_Result const result = sweep();
    EXPECT_EQ(1u, result.removed);
    EXPECT_EQ(1u, result.put_off);
    EXPECT_LOGGED(LM_WARNING, "too many folders within each other");
}

TEST_F(Pool_Sweep_Folder_Test, an_object_of_a_set_stays_with_the_folders_that_it_is_in) {
    for (char const* const name : {"f/g/h/kept", "f/g/h/i/data", "f/g/data", "f/z/data"})
        put(name);
    Sweep_Result const result = sweep([](Pool_Object const& object, bool& named) {
        named = object.name == "f/g/h/kept";
        return true;
    });
    EXPECT_EQ(3u, result.removed);
    EXPECT_EQ(std::set<std::string>{"f/g/h/kept"}, files_in(pool_.path()));
    EXPECT_FALSE(has_empty_folder(pool_.path()));
}

TEST_F(Pool_Sweep_Folder_Test, an_unanswered_question_puts_off_the_folder_and_not_its_other_files) {
    for (char const* const name : {"f/a/data", "f/b/data"})
        put(name);
    Sweep_Result const result = sweep([](Pool_Object const& object, bool& named) {
        named = false;
        return object.name != "f/a/data";
    });
    EXPECT_EQ(1u, result.removed);
    EXPECT_EQ(1u, result.put_off);
    EXPECT_EQ(std::set<std::string>{"f/a/data"}, files_in(pool_.path()));
}

TEST_F(Pool_Sweep_Folder_Test, a_file_that_cannot_be_removed_puts_off_the_folder) {
    put("f/a");
    Sweep_Result const result = sweep([&](Pool_Object const& object, bool& named) {
        std::filesystem::remove(pool_.path() + "/f/a");
        std::filesystem::create_directory(pool_.path() + "/f/a");
        return nothing_named(object, named);
    });
    EXPECT_EQ(0u, result.removed);
    EXPECT_EQ(1u, result.put_off);
    EXPECT_LOGGED(LM_WARNING, "Cannot remove " + pool_.path() + "/f/a, which no backup set has");
}

TEST_F(Pool_Sweep_Folder_Test, a_clusters_folder_for_the_library_stays) {
    put("f/xbsa/set/data");
    put("f/g/xbsa/data");
    EXPECT_EQ(2u, sweep().removed);
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path() + "/f/xbsa"));
    EXPECT_FALSE(std::filesystem::exists(pool_.path() + "/f/g"));
}

TEST_F(Pool_Sweep_Folder_Test, a_folder_that_becomes_a_link_is_not_followed) {
    put("f/a");
    put("f/g/data");
    pool_.database.directory().write("outside/data", "precious");
    Sweep_Result const result = sweep([&](Pool_Object const& object, bool& named) {
        if (object.name == "f/a") {
            std::filesystem::remove_all(pool_.path() + "/f/g");
            std::filesystem::create_directory_symlink(pool_.database.directory().path("outside"),
                                                      pool_.path() + "/f/g");
        }
        return nothing_named(object, named);
    });
    EXPECT_EQ(1u, result.removed);
    EXPECT_TRUE(pool_.database.directory().exists("outside/data"));
}

TEST_F(Pool_Sweep_Folder_Test, a_folder_that_moves_does_not_lead_to_another_one) {
    put("f/g/data");
    put("theirs/g/data");
    Sweep_Result const result = sweep([&](Pool_Object const& object, bool& named) {
        if (object.name == "f/g/data")
            std::filesystem::rename(pool_.path() + "/f/g", pool_.path() + "/theirs/moved");
        return nothing_named(object, named);
    });
    EXPECT_EQ(1u, result.put_off);
    EXPECT_LOGGED(LM_WARNING, "it was moved meanwhile");
    EXPECT_TRUE(std::filesystem::exists(pool_.path() + "/theirs/g/data"));
    EXPECT_TRUE(std::filesystem::exists(pool_.path() + "/theirs/moved"));
}

/** What a killed agent has on its disk: everything is opened anew by each of its lives. */
class Mortal_Agent {
public:
    explicit Mortal_Agent(std::string const& directory) : directory_(directory) {
        std::filesystem::create_directories(directory + "/pool");
        std::string error;
        database_ =
            Agent_Database::open(directory + "/agent.db", {CATALOG_TABLES, POOL_TABLES}, error);
        catalog_ = std::make_unique<SQLite_Catalog>(*database_);
        pools_ = std::make_unique<SQLite_Pools>(*database_, nullptr);
        journal_ = Agent_Pool::open_journal(directory + "/pool_writes.journal");
        Pool_Settings settings;
        settings.name = "pool";
        settings.url = url_of_pool_path(directory + "/pool");
        if (!pools_->find_record("pool", pool_))
            pools_->create(settings, pool_);
        Agent_Storage_Backend backend(std::make_shared<File_Storage_Backend>(), *pools_, *journal_,
                                      ask_catalog(*pools_, *catalog_));
        backend.connect(*settings.url, {}, connection_);
    }

    /** Writes sets for ever, with a byte to @a steps after each step. */
    [[noreturn]] void write_sets(int steps, int life) {
        auto const step = [steps](bool worked) {
            if (!worked || write(steps, "s", 1) != 1)
                _exit(1);
        };
        std::string const content(50000, 'x');
        for (int number = 0;; ++number) {
            Recorded_Set const set =
                set_of(std::to_string(life) + "-" + std::to_string(number), pool_.uuid, {});
            step(catalog_->initialize(NO_LIMITS, set));
            json_spirit::Array pieces;
            for (char const* const name : {"/deep/data.dat", "/meta"}) {
                std::unique_ptr<Storage_Writer> writer;
                std::string const path = set.uuid + name;
                step(!!connection_->create(path, true, writer));
                step(!!writer->write(content.data(), content.size()));
                step(!!writer->commit());
                pieces.push_back(json_spirit::Object{{"path", path}});
            }
            step(catalog_->add_piece(NO_LIMITS, set.uuid, pieces));
            step(catalog_->complete(NO_LIMITS, set));
            if (number % 3 == 0)
                journal_->settle(ask_catalog(*pools_, *catalog_));
        }
    }

    /** What the agent does at its start. */
    void recover() {
        std::vector<Dropped_Set> dropped;
        EXPECT_TRUE(catalog_->abort_open_sets("", INT64_MAX, dropped));
        EXPECT_EQ(0u, sweep_pool_writes(*journal_, ask_catalog(*pools_, *catalog_)).put_off);
        EXPECT_TRUE(journal_->left().empty());
    }
    void expect_pool_is_what_the_catalog_says() {
        json_spirit::Value rows;
        ASSERT_TRUE(
            catalog_->get_view(NO_LIMITS, "gaussdb", "catalogs", {{"with_pieces", 1}}, rows));
        std::set<std::string> pieces;
        for (json_spirit::Object const& row : json_spirit::objects_of(rows.get_array()))
            for (json_spirit::Object const& piece :
                 json_spirit::objects_of(row.at("pieces").get_array()))
                pieces.insert(json_spirit::object_get_str(piece, "path"));
        EXPECT_EQ(pieces, files_in(directory_ + "/pool"));
        EXPECT_FALSE(has_empty_folder(directory_ + "/pool"));
        EXPECT_TRUE(database_->check().empty());
        sets_ = rows.get_array().size();
    }
    size_t sets() const { return sets_; }

private:
    std::string const directory_;
    std::unique_ptr<Agent_Database> database_;
    std::unique_ptr<SQLite_Catalog> catalog_;
    std::unique_ptr<SQLite_Pools> pools_;
    std::unique_ptr<Write_Journal> journal_;
    Pool_Record pool_;
    std::shared_ptr<Storage_Connection> connection_;
    size_t sets_ = 0;
};

/** Lets an agent live for some steps, and kills it whatever it is doing then. */
void live_and_die(std::string const& directory, int life, int steps) {
    int pipe_ends[2];
    ASSERT_EQ(0, pipe2(pipe_ends, O_CLOEXEC));
    pid_t const child = fork();
    ASSERT_NE(-1, child);
    if (child == 0)
        Mortal_Agent(directory).write_sets(pipe_ends[1], life);
    close(pipe_ends[1]);
    char byte;
    for (int step = 0; step < steps; ++step)
        ASSERT_EQ(1, read(pipe_ends[0], &byte, 1)) << "the agent could not go on";
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    close(pipe_ends[0]);
}

TEST(Pool_Sweep, after_a_kill_at_any_moment_the_pool_is_what_the_catalog_says) {
    Temporary_Directory directory;
    std::mt19937 random(20261121);
    std::uniform_int_distribution<int> steps(1, 30);
    size_t sets = 0;
    for (int life = 0; life < 20; ++life) {
        SCOPED_TRACE("life " + std::to_string(life));
        live_and_die(directory.path(), life, steps(random));
        Mortal_Agent agent(directory.path());
        agent.recover();
        agent.expect_pool_is_what_the_catalog_says();
        EXPECT_GE(agent.sets(), sets) << "a complete set was lost";
        sets = agent.sets();
    }
    EXPECT_GT(sets, 10u);
}

} // namespace
