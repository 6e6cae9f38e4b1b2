#include "agent/storage/agent_storage_backend.h"

#include "tests/contract/storage_backend_contract.h"
#include "tests/support/agent_pool.h"
#include "tests/support/file_size_limit.h"

namespace {

class Agent_Storage_World : public Storage_World {
public:
    explicit Agent_Storage_World(int64_t limit) {
        Pool_Settings settings;
        settings.limit = limit;
        pool_ = std::make_unique<Agent_Pool>(settings);
    }
    Storage_Backend& backend() override { return pool_->backend; }
    std::string url() override { return pool_->url(); }
    std::string missing_url() override { return pool_->url() + "_missing"; }
    bool is_empty() override { return std::filesystem::is_empty(pool_->path()); }

private:
    std::unique_ptr<Agent_Pool> pool_;
};

template <int64_t LIMIT>
std::unique_ptr<Storage_World> make_world() {
    return std::make_unique<Agent_Storage_World>(LIMIT);
}

INSTANTIATE_TEST_SUITE_P(agent, Storage_Backend_Contract,
                         testing::Values(make_world<0>, make_world<int64_t{1} << 40>));

Pool_Settings limited(int64_t bytes) {
    Pool_Settings settings;
    settings.limit = bytes;
    return settings;
}

std::string left_in(Write_Journal const& journal) {
    std::string text;
    for (Pool_Object const& object : journal.left())
        text += (text.empty() ? "" : " ") + object.name;
    return text;
}

TEST(Agent_Storage_Backend, a_write_beyond_the_limit_has_no_space_and_says_whose_limit) {
    Agent_Pool pool(limited(100));
    auto const connection = pool.connect();
    ASSERT_TRUE(Agent_Pool::put(*connection, "a", std::string(60, 'x')));
    Storage_Result const result = Agent_Pool::put(*connection, "b", std::string(41, 'x'));
    EXPECT_EQ(Storage_Result::NO_SPACE, result.code());
    EXPECT_EQ("pool pool has no room for 'b': its limit of 100 bytes is used up", result.text());
    EXPECT_TRUE(Agent_Pool::put(*connection, "b", std::string(40, 'x')));
    EXPECT_EQ(100u, pool.backend.space(pool.record).used);
}

TEST(Agent_Storage_Backend, what_is_aborted_removed_or_replaced_gives_its_room_back) {
    Agent_Pool pool(limited(100));
    auto const connection = pool.connect("folder");
    {
        std::unique_ptr<Storage_Writer> writer;
        ASSERT_TRUE(connection->create("a", true, writer));
        ASSERT_TRUE(writer->write(std::string(100, 'x').data(), 100));
        EXPECT_FALSE(Agent_Pool::put(*pool.connect(), "b", "x")) << "both connections are counted";
    }
    ASSERT_TRUE(Agent_Pool::put(*connection, "a", std::string(50, 'x')));
    ASSERT_TRUE(Agent_Pool::put(*connection, "a", std::string(50, 'y')));
    ASSERT_TRUE(Agent_Pool::put(*connection, "b", std::string(50, 'x')));
    EXPECT_FALSE(Agent_Pool::put(*connection, "c", "x"));
    ASSERT_TRUE(connection->rename("b", "a"));
    ASSERT_TRUE(Agent_Pool::put(*connection, "c", std::string(50, 'x')));
    ASSERT_TRUE(connection->remove("a"));
    EXPECT_EQ(50u, pool.backend.space(pool.record).used);
}

TEST(Agent_Storage_Backend, what_was_in_the_pool_before_counts) {
    Agent_Pool pool(limited(100));
    pool.database.directory().write("pool/old", std::string(90, 'x'));
    EXPECT_EQ(Storage_Result::NO_SPACE,
              Agent_Pool::put(*pool.connect(), "a", std::string(11, 'x')).code());
    EXPECT_TRUE(Agent_Pool::put(*pool.connect(), "a", std::string(10, 'x')));
}

TEST(Agent_Storage_Backend, the_space_is_that_of_the_limit) {
    Agent_Pool pool(limited(100));
    auto const connection = pool.connect();
    ASSERT_TRUE(Agent_Pool::put(*connection, "a", std::string(30, 'x')));
    uint64_t total = 0, available = 0;
    ASSERT_TRUE(connection->space(total, available));
    EXPECT_EQ(100u, total);
    EXPECT_EQ(70u, available);
    Pool_Space const space = pool.backend.space(pool.record);
    EXPECT_TRUE(space.online);
    EXPECT_EQ(70u, space.available);
    Pool_Record lowered = pool.record;
    lowered.limit = 10;
    EXPECT_EQ(0u, pool.backend.space(lowered).available);
    std::filesystem::remove_all(pool.path());
    EXPECT_FALSE(pool.backend.space(pool.record).online);
    EXPECT_EQ(0u, pool.backend.space(pool.record).total);
}

TEST(Agent_Storage_Backend, a_pool_that_is_read_only_is_not_written_to) {
    Agent_Pool pool;
    ASSERT_TRUE(Agent_Pool::put(*pool.connect(), "a", "x"));
    Pool_Settings change;
    change.read_only = true;
    ASSERT_TRUE(pool.pools.update("pool", change, pool.record));
    auto const connection = pool.connect();
    EXPECT_EQ("pool pool is read-only", Agent_Pool::put(*connection, "b", "x").text());
    EXPECT_EQ(Storage_Result::FAILED, connection->remove("a").code());
    EXPECT_EQ(Storage_Result::FAILED, connection->rename("a", "b").code());
    std::unique_ptr<Storage_Reader> reader;
    EXPECT_TRUE(connection->open("a", reader));
}

TEST(Agent_Storage_Backend, what_a_complete_set_has_is_not_replaced) {
    Agent_Pool pool;
    auto const connection = pool.connect("folder");
    Recorded_Set const set = set_of("set", pool.record.uuid, {"folder/piece"});
    ASSERT_TRUE(pool.catalog.initialize(NO_LIMITS, set));
    ASSERT_TRUE(Agent_Pool::put(*connection, "piece", "first"));
    ASSERT_TRUE(Agent_Pool::put(*connection, "piece", "again")) << "the set is not complete yet";
    ASSERT_TRUE(Agent_Pool::put(*connection, "other", "content"));
    ASSERT_TRUE(pool.catalog.complete(NO_LIMITS, set));

    Storage_Result const written = Agent_Pool::put(*connection, "piece", "another set's");
    EXPECT_EQ(Storage_Result::EXISTS, written.code());
    EXPECT_EQ("'piece' belongs to a complete backup set and is not replaced", written.text());
    EXPECT_EQ(Storage_Result::EXISTS, connection->rename("other", "piece").code());
    EXPECT_TRUE(Agent_Pool::put(*connection, "other", "nobody's"));
    EXPECT_EQ("again", pool.database.directory().read("pool/folder/piece"));
    EXPECT_TRUE(connection->rename("piece", "piece")) << "which changes nothing";
}

TEST(Agent_Storage_Backend, without_the_catalogs_answer_nothing_is_replaced) {
    Agent_Pool pool;
    Agent_Storage_Backend backend(std::make_shared<File_Storage_Backend>(), pool.pools,
                                  *pool.journal, [](Pool_Object const&, bool&) { return false; });
    std::shared_ptr<Storage_Connection> connection;
    ASSERT_TRUE(backend.connect(pool.url(), {}, connection));
    ASSERT_TRUE(Agent_Pool::put(*connection, "new", "content"));
    Storage_Result const result = Agent_Pool::put(*connection, "new", "again");
    EXPECT_EQ(Storage_Result::FAILED, result.code());
    EXPECT_EQ("failed to replace 'new': the catalog does not tell whether a backup set has it",
              result.text());
}

TEST(Agent_Storage_Backend, an_object_is_noted_while_no_set_has_it) {
    Agent_Pool pool;
    auto const connection = pool.connect("folder");
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(connection->create("a", true, writer));
    // what a start after a death right now would find
    EXPECT_EQ("folder/a", left_in(*Agent_Pool::open_journal(pool.journal->path())));
    EXPECT_EQ("", left_in(*pool.journal));
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ("folder/a", left_in(*pool.journal));
    ASSERT_TRUE(connection->rename("a", "b/c"));
    EXPECT_EQ("folder/b/c", left_in(*pool.journal));
    ASSERT_TRUE(connection->remove("b/c"));
    EXPECT_EQ("", left_in(*pool.journal));
}

TEST(Agent_Storage_Backend, what_was_never_in_the_pool_is_not_noted) {
    Agent_Pool pool;
    pool.database.directory().write("pool/theirs", "x");
    auto const connection = pool.connect();
    std::unique_ptr<Storage_Writer> writer, second;
    EXPECT_EQ(Storage_Result::EXISTS, connection->create("theirs", false, writer).code());
    EXPECT_FALSE(connection->create("../a", true, writer));
    EXPECT_FALSE(connection->rename("missing", "b"));
    ASSERT_TRUE(connection->create("late", false, writer));
    pool.database.directory().write("pool/late", "x");
    EXPECT_EQ(Storage_Result::EXISTS, writer->commit().code());
    ASSERT_TRUE(connection->create("aborted", true, second));
    second.reset();
    EXPECT_EQ("", left_in(*pool.journal));
}

TEST(Agent_Storage_Backend, a_journal_that_cannot_be_written_lets_nothing_be_written) {
    Agent_Pool pool;
    auto const connection = pool.connect();
    ASSERT_TRUE(Agent_Pool::put(*connection, "a", "x"));
    std::unique_ptr<Storage_Writer> writer;
    {
        File_Size_Limit const full(std::filesystem::file_size(pool.journal->path()));
        Storage_Result const result = connection->create("b", true, writer);
        EXPECT_EQ(Storage_Result::FAILED, result.code());
        EXPECT_NE(std::string::npos, result.text().find("journal")) << result.text();
        EXPECT_FALSE(connection->rename("a", "b"));
    }
    EXPECT_TRUE(connection->create("b", true, writer));
}

TEST(Agent_Storage_Backend, what_is_in_no_pool_on_record_is_a_plain_connection) {
    Agent_Pool pool;
    std::filesystem::create_directory(pool.database.directory().path("elsewhere"));
    std::shared_ptr<Storage_Connection> connection;
    ASSERT_TRUE(pool.backend.connect(url_of_pool_path(pool.database.directory().path("elsewhere")),
                                     {}, connection));
    ASSERT_TRUE(Agent_Pool::put(*connection, "a", "x"));
    EXPECT_EQ("", left_in(*pool.journal));
}

TEST(Agent_Storage_Backend, a_folder_of_a_pool_is_known_without_the_pools_url) {
    Agent_Pool pool(limited(10));
    ASSERT_TRUE(Agent_Pool::put(*pool.connect(), "f/a", "x"));
    std::shared_ptr<Storage_Connection> connection;
    ASSERT_TRUE(pool.backend.connect(pool.url() + "/f", {}, connection));
    ASSERT_TRUE(Agent_Pool::put(*connection, "b", "x"));
    EXPECT_EQ("f/a f/b", left_in(*pool.journal));
    EXPECT_FALSE(Agent_Pool::put(*connection, "c", "123456789"));
}

} // namespace
