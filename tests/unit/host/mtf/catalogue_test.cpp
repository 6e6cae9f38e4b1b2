#include "host/mtf/catalogue.h"

#include "json_spirit/access.h"
#include "tests/support/memory_archive_store.h"

#include <gtest/gtest.h>

using namespace MTF;

namespace {

std::string const DIGEST(64, 'a');

Catalogue_Entry file_entry(std::string const& name, int64_t seq = 3) {
    Catalogue_Entry entry;
    entry.name = name;
    entry.size = 5000000000;
    entry.mtime_ns = -1500000000;
    entry.ctime_ns = 1700000000123456789;
    entry.mode = 04755;
    entry.uid = 4294967294;
    entry.gid = 12;
    entry.sha256 = DIGEST;
    entry.seq = seq;
    entry.offset = 1ull << 40;
    return entry;
}

void expect_equal(Catalogue_Entry const& left, Catalogue_Entry const& right) {
    EXPECT_EQ(left.name, right.name);
    EXPECT_EQ(left.type, right.type);
    EXPECT_EQ(left.size, right.size);
    EXPECT_EQ(left.mtime_ns, right.mtime_ns);
    EXPECT_EQ(left.ctime_ns, right.ctime_ns);
    EXPECT_EQ(left.mode, right.mode);
    EXPECT_EQ(left.uid, right.uid);
    EXPECT_EQ(left.gid, right.gid);
    EXPECT_EQ(left.link, right.link);
    EXPECT_EQ(left.sha256, right.sha256);
    EXPECT_EQ(left.seq, right.seq);
    EXPECT_EQ(left.offset, right.offset);
    EXPECT_EQ(left.save_again, right.save_again);
}

class Catalogue_Test : public testing::Test {
protected:
    void write(std::vector<Catalogue_Entry> const& entries,
               Catalogue_Archives const& archives = {{3, {77, DIGEST}}}) {
        Metadata metadata;
        metadata.host("db1");
        Catalogue_Writer writer;
        ASSERT_TRUE(writer.begin(3, metadata));
        for (Catalogue_Entry const& entry : entries)
            ASSERT_TRUE(writer.add(entry));
        ASSERT_TRUE(writer.finish(archives));
        EXPECT_EQ(entries.size(), writer.entries());
        auto const output = store_.create("cat");
        ASSERT_TRUE(writer.copy_to(*output));
        ASSERT_TRUE(output->commit());
    }
    Catalogue_Reader::Result fetch() {
        auto presence = Archive_Store::UNKNOWN;
        return reader_.fetch(*store_.open("cat", presence), error_);
    }

    Memory_Archive_Store store_;
    Catalogue_Reader reader_;
    std::string error_;
};

TEST_F(Catalogue_Test, EveryKindOfEntrySurvives) {
    std::vector<Catalogue_Entry> entries = {file_entry("a"), file_entry("b"), file_entry("c"),
                                            file_entry("d"), file_entry("e\xff\n\"")};
    entries[0].save_again = true;
    for (size_t at = 1; at < 4; ++at) {
        entries[at].size = 0;
        entries[at].sha256.clear();
    }
    entries[1].type = ENTRY_DIRECTORY;
    entries[2].type = ENTRY_SYMBOLIC_LINK;
    entries[2].link = "../\xff odd";
    entries[3].type = ENTRY_HARD_LINK;
    entries[3].link = "a";
    write(entries);
    ASSERT_EQ(Catalogue_Reader::OK, fetch()) << error_;
    EXPECT_EQ(3, reader_.summary().seq);
    EXPECT_EQ("db1", reader_.summary().metadata.host());
    EXPECT_EQ(5u, reader_.summary().entries);
    EXPECT_EQ(10000000000u, reader_.summary().bytes);
    EXPECT_EQ(77u, reader_.summary().archives.at(3).size);
    for (int round = 0; round < 2; ++round) {
        Catalogue_Entry entry;
        for (Catalogue_Entry const& expected : entries) {
            ASSERT_TRUE(reader_.next(entry));
            expect_equal(expected, entry);
        }
        EXPECT_FALSE(reader_.next(entry));
        EXPECT_TRUE(reader_.rewind());
    }
}

TEST_F(Catalogue_Test, OfTheArchivesOnlyThoseInUseAreTold) {
    write({file_entry("a", 1), file_entry("b", 3)},
          {{1, {1, DIGEST}}, {2, {2, DIGEST}}, {3, {3, DIGEST}}});
    ASSERT_EQ(Catalogue_Reader::OK, fetch()) << error_;
    EXPECT_EQ(2u, reader_.summary().archives.size());
    EXPECT_EQ(0u, reader_.summary().archives.count(2));
}

TEST_F(Catalogue_Test, AnArchiveInUseMustBeTold) {
    write({file_entry("a", 2)});
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
    EXPECT_EQ("it does not tell of archive 2", error_);
}

TEST_F(Catalogue_Test, AnArchiveOfALaterBackupIsNotValid) {
    write({file_entry("a", 4)}, {{4, {1, DIGEST}}});
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
    EXPECT_EQ("entry 0 is not valid", error_);
}

TEST_F(Catalogue_Test, EntriesOutOfOrderAreNotValid) {
    write({file_entry("b"), file_entry("a")});
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
    EXPECT_EQ("entry 1 is not valid", error_);
    write({file_entry("a"), file_entry("a")});
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
}

TEST_F(Catalogue_Test, AnEmptyCatalogueIsValid) {
    write({}, {});
    EXPECT_EQ(Catalogue_Reader::OK, fetch()) << error_;
    Catalogue_Entry entry;
    EXPECT_FALSE(reader_.next(entry));
}

TEST_F(Catalogue_Test, WhatIsNoCatalogueIsCorrupt) {
    for (std::string const& text :
         {std::string(), std::string("\n"), std::string("x\n"), std::string("{}\n"),
          std::string("[1]\n"), std::string(1000000, '['), std::string(1000000, '\0'),
          std::string("{\"format\":\"other\",\"version\":1,\"seq\":1,\"metadata\":{}}\n")}) {
        store_.objects["cat"] = text;
        EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
        EXPECT_EQ("it does not begin as a catalogue", error_);
        EXPECT_FALSE(reader_.rewind());
    }
}

TEST_F(Catalogue_Test, ALaterVersionIsToldAsSuch) {
    write({});
    std::string& text = store_.objects["cat"];
    text.replace(text.find("\"version\":1"), 11, "\"version\":2");
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
    EXPECT_EQ("it has version 2, and only 1 is known", error_);
}

TEST_F(Catalogue_Test, ACutIsToldWithItsPlace) {
    write({file_entry("a"), file_entry("b")});
    std::string& text = store_.objects["cat"];
    text.resize(text.find("\"name\":\"b\""));
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
    EXPECT_EQ("it is cut after 1 entries", error_);
}

TEST_F(Catalogue_Test, AChangedValueIsNoticed) {
    write({file_entry("a")});
    std::string& text = store_.objects["cat"];
    text.replace(text.find("5000000000"), 10, "5000000001");
    EXPECT_EQ(Catalogue_Reader::CORRUPT, fetch());
    EXPECT_EQ("its checksum or its counts are not those of its lines", error_);
}

TEST_F(Catalogue_Test, AStoreThatStopsIsNotCalledCorrupt) {
    write({file_entry("a")});
    store_.readable = 10;
    EXPECT_EQ(Catalogue_Reader::UNREADABLE, fetch());
    EXPECT_EQ("its data cannot be read", error_);
}

TEST_F(Catalogue_Test, AStoreThatIsFullIsAFailure) {
    Catalogue_Writer writer;
    ASSERT_TRUE(writer.begin(1, {}));
    ASSERT_TRUE(writer.finish({}));
    store_.room = 10;
    EXPECT_FALSE(writer.copy_to(*store_.create("cat")));
}

TEST_F(Catalogue_Test, EveryKeyOfAnEntryIsRequiredAndChecked) {
    json_spirit::Object const good = dump_entry(file_entry("a"));
    ASSERT_TRUE(load_entry(good));
    for (auto const& [key, value] : good) {
        json_spirit::Object without = good;
        without.erase(key);
        EXPECT_FALSE(load_entry(without)) << key;
        json_spirit::Object odd = good;
        odd[key] = json_spirit::Value(json_spirit::Array());
        EXPECT_FALSE(load_entry(odd)) << key;
    }
    json_spirit::Object negative = good;
    negative["size"] = json_spirit::Value(-1);
    EXPECT_FALSE(load_entry(negative));
    json_spirit::Object type = good;
    type["type"] = json_spirit::Value("x");
    EXPECT_FALSE(load_entry(type));
    json_spirit::Object digest = good;
    digest["sha256"] = json_spirit::Value(std::string(64, 'g'));
    EXPECT_FALSE(load_entry(digest));
}

TEST_F(Catalogue_Test, ANameInHexMustBeWellFormed) {
    json_spirit::Object object = dump_entry(file_entry("\xff"));
    EXPECT_EQ("ff", json_spirit::object_get_str(object, "name_hex"));
    for (char const* const bad : {"f", "FF", "zz", "", "2f"}) {
        object["name_hex"] = json_spirit::Value(bad);
        EXPECT_FALSE(load_entry(object)) << bad;
    }
}

} // namespace
