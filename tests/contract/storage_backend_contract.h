#ifndef TESTS_CONTRACT_STORAGE_BACKEND_CONTRACT_H
#define TESTS_CONTRACT_STORAGE_BACKEND_CONTRACT_H

#include "host/storage/storage_backend.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

/**
 * A back end with a pool of its own, empty at first. Each implementation of Storage_Backend has
 * one, and runs the suite below with
 *
 *     INSTANTIATE_TEST_SUITE_P(name, Storage_Backend_Contract, testing::Values(factory));
 */
class Storage_World {
public:
    virtual ~Storage_World() = default;
    virtual Storage_Backend& backend() = 0;
    /** The URL of the pool, without a "/" at its end. */
    virtual std::string url() = 0;
    /** The URL of a pool that is not there. */
    virtual std::string missing_url() = 0;
    /** True when nothing is kept in the pool, not even what is never listed. */
    virtual bool is_empty() = 0;
};

using Storage_World_Factory = std::function<std::unique_ptr<Storage_World>()>;

class Storage_Backend_Contract : public testing::TestWithParam<Storage_World_Factory> {
protected:
    using Writer = std::unique_ptr<Storage_Writer>;
    using Reader = std::unique_ptr<Storage_Reader>;

    void SetUp() override { connection_ = connect(""); }

    std::shared_ptr<Storage_Connection> connect(std::string const& folder) {
        Storage_Access access;
        access.extra_options[Storage_Access::POOL_URL] = world_->url();
        std::shared_ptr<Storage_Connection> made;
        std::string const url = world_->url() + (folder.empty() ? "" : "/" + folder);
        Storage_Result const result = world_->backend().connect(url, access, made);
        EXPECT_TRUE(result) << result.text();
        return made;
    }
    Storage_Result::Code connect_code(std::string const& url, std::string const& pool) {
        Storage_Access access;
        access.extra_options[Storage_Access::POOL_URL] = pool;
        std::shared_ptr<Storage_Connection> made;
        Storage_Result const result = world_->backend().connect(url, access, made);
        EXPECT_EQ(static_cast<bool>(result), made != nullptr);
        EXPECT_EQ(static_cast<bool>(result), result.text().empty());
        return result.code();
    }
    Storage_Result put(std::string const& name, std::string const& content, bool replace = true) {
        Writer writer;
        Storage_Result result = connection_->create(name, replace, writer);
        if (result)
            result = writer->write(content.data(), content.size());
        return result ? writer->commit() : result;
    }
    /** What can be read of an object; the failure's text in "<>" when it cannot. */
    std::string get(std::string const& name) {
        Reader reader;
        Storage_Result const result = connection_->open(name, reader);
        return result ? content(*reader) : "<" + result.text() + ">";
    }
    static std::string content(Storage_Reader& reader) {
        std::string all(reader.entry().size, '\0');
        size_t got = 0;
        EXPECT_TRUE(reader.read_at(0, all.data(), all.size(), got));
        EXPECT_EQ(all.size(), got);
        return all;
    }
    static std::string text_of(Storage_Result const& listed,
                               std::vector<Storage_Entry> const& entries) {
        if (!listed)
            return "<" + std::to_string(listed.code()) + ">";
        std::string text;
        for (Storage_Entry const& entry : entries)
            text += (text.empty() ? "" : " ") + entry.name + (entry.is_folder ? "/" : "");
        return text;
    }
    /** The names in a folder, folders with a "/" behind, joined by blanks. */
    std::string names(std::string const& folder) {
        std::vector<Storage_Entry> entries, names;
        std::string const text = text_of(connection_->list(folder, entries), entries);
        EXPECT_EQ(text, text_of(connection_->list_names(folder, names), names));
        return text;
    }
    Storage_Result::Code stat_code(std::string const& name) {
        Storage_Entry entry;
        return connection_->stat(name, entry).code();
    }

    std::unique_ptr<Storage_World> world_ = GetParam()();
    std::shared_ptr<Storage_Connection> connection_;
};

TEST_P(Storage_Backend_Contract, an_object_is_read_as_it_was_written) {
    std::string const content("a\0b\xff", 4);
    ASSERT_TRUE(put("o", content));
    EXPECT_EQ(content, get("o"));
}

TEST_P(Storage_Backend_Contract, an_object_may_be_empty) {
    ASSERT_TRUE(put("o", ""));
    EXPECT_EQ("", get("o"));
    EXPECT_EQ("o", names(""));
}

TEST_P(Storage_Backend_Contract, an_object_written_in_pieces_is_all_of_them) {
    Writer writer;
    std::string whole;
    ASSERT_TRUE(connection_->create("o", true, writer));
    for (int i = 0; i < 40; ++i) {
        std::string const piece(400000 + i, static_cast<char>('a' + i));
        ASSERT_TRUE(writer->write(piece.data(), piece.size()));
        whole += piece;
    }
    ASSERT_TRUE(writer->commit());
    EXPECT_TRUE(whole == get("o"));
}

TEST_P(Storage_Backend_Contract, an_object_is_not_there_before_its_commit) {
    Writer writer;
    ASSERT_TRUE(connection_->create("f/o", true, writer));
    ASSERT_TRUE(writer->write("x", 1));
    EXPECT_EQ(Storage_Result::NOT_FOUND, stat_code("f/o"));
    Reader reader;
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->open("f/o", reader).code());
    EXPECT_EQ(std::string::npos, names("f").find('o'));
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ("o", names("f"));
}

TEST_P(Storage_Backend_Contract, nothing_stays_of_an_aborted_object) {
    Writer writer;
    ASSERT_TRUE(connection_->create("f/g/o", true, writer));
    ASSERT_TRUE(writer->write("x", 1));
    writer->abort();
    EXPECT_FALSE(writer->commit());
    EXPECT_FALSE(writer->write("x", 1));
    EXPECT_TRUE(world_->is_empty());
}

TEST_P(Storage_Backend_Contract, a_writer_that_goes_away_is_aborted) {
    Writer writer;
    ASSERT_TRUE(connection_->create("f/o", true, writer));
    ASSERT_TRUE(writer->write("x", 1));
    writer.reset();
    EXPECT_TRUE(world_->is_empty());
}

TEST_P(Storage_Backend_Contract, an_abort_after_the_commit_changes_nothing) {
    Writer writer;
    ASSERT_TRUE(connection_->create("o", true, writer));
    ASSERT_TRUE(writer->commit());
    writer->abort();
    writer.reset();
    EXPECT_EQ("o", names(""));
}

TEST_P(Storage_Backend_Contract, a_new_object_takes_the_place_of_the_old_at_its_commit) {
    ASSERT_TRUE(put("o", "old and longer"));
    Writer writer;
    ASSERT_TRUE(connection_->create("o", true, writer));
    ASSERT_TRUE(writer->write("new", 3));
    EXPECT_EQ("old and longer", get("o"));
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ("new", get("o"));
}

TEST_P(Storage_Backend_Contract, an_abort_leaves_the_old_object) {
    ASSERT_TRUE(put("f/o", "old"));
    Writer writer;
    ASSERT_TRUE(connection_->create("f/o", true, writer));
    ASSERT_TRUE(writer->write("new", 3));
    writer.reset();
    EXPECT_EQ("old", get("f/o"));
}

TEST_P(Storage_Backend_Contract, a_reader_keeps_the_object_that_it_opened) {
    ASSERT_TRUE(put("o", "old"));
    Reader reader;
    ASSERT_TRUE(connection_->open("o", reader));
    ASSERT_TRUE(put("o", "new one"));
    EXPECT_EQ("old", content(*reader));
}

TEST_P(Storage_Backend_Contract, without_replace_an_object_of_that_name_stays) {
    ASSERT_TRUE(put("o", "old", false));
    EXPECT_EQ(Storage_Result::EXISTS, put("o", "new", false).code());
    EXPECT_EQ("old", get("o"));
    EXPECT_EQ("o", names(""));
}

TEST_P(Storage_Backend_Contract, of_two_writers_without_replace_the_second_fails) {
    Writer first, second;
    ASSERT_TRUE(connection_->create("o", false, first));
    ASSERT_TRUE(connection_->create("o", false, second));
    ASSERT_TRUE(first->write("1", 1));
    ASSERT_TRUE(second->write("2", 1));
    EXPECT_TRUE(first->commit());
    EXPECT_EQ(Storage_Result::EXISTS, second->commit().code());
    EXPECT_EQ("1", get("o"));
}

TEST_P(Storage_Backend_Contract, an_object_and_a_folder_cannot_have_one_name) {
    ASSERT_TRUE(put("f/o", "x"));
    EXPECT_FALSE(put("f", "y"));
    EXPECT_FALSE(put("f/o/p", "y"));
    EXPECT_EQ("x", get("f/o"));
    EXPECT_EQ("o", names("f"));
}

TEST_P(Storage_Backend_Contract, what_is_written_so_far_can_be_read_again) {
    Writer writer;
    ASSERT_TRUE(connection_->create("o", true, writer));
    Reader reader;
    ASSERT_TRUE(writer->reread(reader));
    EXPECT_EQ("", content(*reader));
    ASSERT_TRUE(writer->write("abc", 3));
    ASSERT_TRUE(writer->reread(reader));
    EXPECT_EQ("abc", content(*reader));
    reader.reset();
    ASSERT_TRUE(writer->write("de", 2));
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ("abcde", get("o"));
    EXPECT_FALSE(writer->reread(reader));
}

TEST_P(Storage_Backend_Contract, a_range_is_read_up_to_the_end) {
    ASSERT_TRUE(put("o", "0123456789"));
    Reader reader;
    ASSERT_TRUE(connection_->open("o", reader));
    struct {
        uint64_t offset;
        size_t size;
        char const* wanted;
    } const cases[] = {{0, 3, "012"}, {4, 2, "45"},        {8, 9, "89"},
                       {10, 1, ""},   {UINT64_MAX, 1, ""}, {3, 0, ""}};
    for (auto const& one : cases) {
        char buffer[16] = "";
        size_t got = 99;
        ASSERT_TRUE(reader->read_at(one.offset, buffer, one.size, got));
        EXPECT_EQ(one.wanted, std::string(buffer, got)) << one.offset;
    }
}

TEST_P(Storage_Backend_Contract, stat_tells_objects_from_folders) {
    time_t const before = time(nullptr);
    ASSERT_TRUE(put("f/o", "12345"));
    Storage_Entry entry;
    ASSERT_TRUE(connection_->stat("f/o", entry));
    EXPECT_EQ("o", entry.name);
    EXPECT_EQ(5u, entry.size);
    EXPECT_FALSE(entry.is_folder);
    EXPECT_NEAR(static_cast<double>(before), static_cast<double>(entry.modified), 60);
    ASSERT_TRUE(connection_->stat("f", entry));
    EXPECT_EQ("f", entry.name);
    EXPECT_TRUE(entry.is_folder);
    EXPECT_EQ(0u, entry.size);
    Reader reader;
    ASSERT_TRUE(connection_->open("f/o", reader));
    EXPECT_EQ("o", reader->entry().name);
}

TEST_P(Storage_Backend_Contract, what_is_not_there_is_not_found) {
    ASSERT_TRUE(put("f/o", "x"));
    for (char const* name : {"x", "f/x", "x/y/z", "f/o/x"}) {
        Reader reader;
        Storage_Result const result = connection_->open(name, reader);
        EXPECT_EQ(Storage_Result::NOT_FOUND, result.code()) << name;
        EXPECT_NE(std::string::npos, result.text().find(name)) << result.text();
        EXPECT_EQ(Storage_Result::NOT_FOUND, stat_code(name)) << name;
        EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->remove(name).code()) << name;
        EXPECT_EQ("<" + std::to_string(Storage_Result::NOT_FOUND) + ">", names(name));
    }
}

TEST_P(Storage_Backend_Contract, a_folder_is_no_object) {
    ASSERT_TRUE(put("f/o", "x"));
    Reader reader;
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->open("f", reader).code());
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->remove("f").code());
    EXPECT_EQ("x", get("f/o"));
}

TEST_P(Storage_Backend_Contract, a_listing_has_what_stands_directly_in_a_folder_in_byte_order) {
    for (char const* name : {"b", "a/x", "a/y/z", "B", "\xC3\xA4", "a.b", ".hidden"})
        ASSERT_TRUE(put(name, "x")) << name;
    EXPECT_EQ(".hidden B a/ a.b b \xC3\xA4", names(""));
    EXPECT_EQ("x y/", names("a"));
    EXPECT_EQ("z", names("a/y"));
}

TEST_P(Storage_Backend_Contract, an_empty_pool_lists_nothing) {
    EXPECT_EQ("", names(""));
}

TEST_P(Storage_Backend_Contract, a_folder_goes_with_its_last_object) {
    ASSERT_TRUE(put("f/g/o", "x"));
    ASSERT_TRUE(put("f/p", "x"));
    EXPECT_TRUE(connection_->remove("f/g/o"));
    EXPECT_EQ("p", names("f"));
    EXPECT_TRUE(connection_->remove("f/p"));
    EXPECT_TRUE(world_->is_empty());
    EXPECT_EQ("", names(""));
}

TEST_P(Storage_Backend_Contract, an_object_is_renamed_within_and_between_folders) {
    ASSERT_TRUE(put("f/o", "x"));
    ASSERT_TRUE(put("g/p", "old"));
    EXPECT_TRUE(connection_->rename("f/o", "f/q"));
    EXPECT_EQ("q", names("f"));
    EXPECT_TRUE(connection_->rename("f/q", "g/p"));
    EXPECT_EQ("x", get("g/p"));
    EXPECT_EQ("g/", names(""));
    EXPECT_TRUE(connection_->rename("g/p", "g/p"));
    EXPECT_TRUE(connection_->rename("g/p", "new/folder/o"));
    EXPECT_EQ("new/", names(""));
    EXPECT_EQ("x", get("new/folder/o"));
}

TEST_P(Storage_Backend_Contract, a_rename_that_cannot_be_changes_nothing) {
    ASSERT_TRUE(put("f/o", "x"));
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->rename("none", "g/p").code());
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->rename("f", "g").code());
    EXPECT_EQ(Storage_Result::EXISTS, connection_->rename("f/o", "f").code());
    EXPECT_EQ(Storage_Result::BAD_NAME, connection_->rename("f/o", "../o").code());
    EXPECT_EQ(Storage_Result::BAD_NAME, connection_->rename("../o", "o").code());
    EXPECT_FALSE(connection_->rename("f/o", "f/o/p"));
    EXPECT_EQ("f/", names(""));
    EXPECT_EQ("x", get("f/o"));
}

TEST_P(Storage_Backend_Contract, names_that_break_the_rules_are_refused_everywhere) {
    std::string const bad[] = {"..",
                               "../x",
                               "a/../b",
                               "/x",
                               "/",
                               "a//b",
                               "a/",
                               ".",
                               "./a",
                               std::string("a\0b", 3),
                               std::string(256, 'x'),
                               ".zenbrak3-1",
                               "a/.zenbrak3-1"};
    for (std::string const& name : bad) {
        Writer writer;
        Reader reader;
        Storage_Entry entry;
        std::vector<Storage_Entry> entries;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->create(name, true, writer).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->open(name, reader).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->stat(name, entry).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->remove(name).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->list(name, entries).code()) << name;
    }
    EXPECT_TRUE(world_->is_empty());
    Writer writer;
    EXPECT_EQ(Storage_Result::BAD_NAME, connection_->create("", true, writer).code());
}

TEST_P(Storage_Backend_Contract, a_connection_sees_its_folder_alone) {
    ASSERT_TRUE(put("f/g/o", "inner"));
    ASSERT_TRUE(put("o", "outer"));
    connection_ = connect("f/g");
    EXPECT_EQ("o", names(""));
    EXPECT_EQ("inner", get("o"));
    ASSERT_TRUE(put("p", "x"));
    connection_ = connect("");
    EXPECT_EQ("o p", names("f/g"));
}

TEST_P(Storage_Backend_Contract, a_folder_comes_to_be_with_its_first_object) {
    connection_ = connect("new/folder");
    EXPECT_EQ("<" + std::to_string(Storage_Result::NOT_FOUND) + ">", names(""));
    EXPECT_TRUE(world_->is_empty());
    ASSERT_TRUE(put("o", "x"));
    EXPECT_EQ("o", names(""));
    EXPECT_TRUE(connection_->remove("o"));
    EXPECT_TRUE(world_->is_empty());
    ASSERT_TRUE(put("o", "x")) << "the connection is still good";
}

TEST_P(Storage_Backend_Contract, a_pool_that_is_not_there_cannot_be_reached_and_is_not_made) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(Storage_Result::UNREACHABLE, connect_code(world_->missing_url(), ""));
        EXPECT_EQ(Storage_Result::UNREACHABLE,
                  connect_code(world_->missing_url() + "/f", world_->missing_url()));
    }
}

TEST_P(Storage_Backend_Contract, urls_that_are_not_in_the_pool_are_refused) {
    std::string const url = world_->url();
    for (std::string const& bad :
         {url + "/../x", url + "x", url + "/%2e%2e/x", url + "/a?b", url + "/a#b", url + "/%2",
          url + "/.zenbrak3-x", std::string("nonsense"), std::string()})
        EXPECT_EQ(Storage_Result::BAD_NAME, connect_code(bad, url)) << bad;
}

TEST_P(Storage_Backend_Contract, the_space_of_the_pool_is_told) {
    uint64_t total = 0, available = 0;
    ASSERT_TRUE(connection_->space(total, available));
    EXPECT_GT(total, 0u);
    EXPECT_LE(available, total);
}

TEST_P(Storage_Backend_Contract, readers_and_writers_outlive_their_connection) {
    ASSERT_TRUE(put("o", "old"));
    Writer writer;
    Reader reader;
    ASSERT_TRUE(connection_->create("f/p", true, writer));
    ASSERT_TRUE(connection_->open("o", reader));
    connection_.reset();
    EXPECT_EQ("old", content(*reader));
    ASSERT_TRUE(writer->write("new", 3));
    ASSERT_TRUE(writer->commit());
    connection_ = connect("");
    EXPECT_EQ("new", get("f/p"));
}

TEST_P(Storage_Backend_Contract, one_connection_serves_several_threads) {
    auto const run = [&](int thread) {
        std::string const own = "own/" + std::to_string(thread);
        for (int round = 0; round < 20; ++round) {
            std::string const content(static_cast<size_t>(1000 * thread + round), 'x');
            EXPECT_TRUE(put(own + "/o", content));
            EXPECT_EQ(content, get(own + "/o"));
            EXPECT_TRUE(put("shared", std::string(3000, static_cast<char>('a' + thread))));
            std::string const shared = get("shared");
            EXPECT_EQ(std::string(3000, shared[0]), shared);
            Storage_Result const removed = connection_->remove(own + "/o");
            EXPECT_TRUE(removed) << removed.text();
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back(run, thread);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ("shared", names(""));
}

#endif
