#include "host/storage/client_io_ex.h"

#include "tests/support/file_pool.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/virtual_clock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace {

constexpr size_t MIB = 1024 * 1024;
constexpr int PUT_FLAGS = 0x80000;
constexpr int GET_FLAGS = 0x80241;
constexpr size_t BUFFER = 0x2000;

std::string text_of(size_t size) {
    std::string text;
    for (unsigned i = 0; text.size() < size; ++i)
        text += "line " + std::to_string(i * 2654435761u % 1000) + "\n";
    text.resize(size);
    return text;
}

class client_io_ex : public testing::Test {
protected:
    void SetUp() override { connect(); }

    void connect(std::string const& folder = "") {
        ASSERT_TRUE(io_.connect((pool_.url() + folder).c_str(), options_)) << io_.error();
    }
    void reconnect(Compression_Method method, int level = 0) {
        options_.compression_method = method;
        options_.compression_level = level;
        connect();
    }
    bool put(std::string const& local, char const* name) {
        return io_.put_file(local.c_str(), name, true, PUT_FLAGS, BUFFER, nullptr);
    }
    bool get(char const* name, std::string const& local) {
        return io_.get_file(name, local.c_str(), GET_FLAGS, BUFFER, nullptr);
    }
    size_t local_files() const { return File_Pool::files_below(directory_.path()); }

    File_Pool pool_;
    Temporary_Directory directory_;
    Client_IO_Base::Options options_;
    Client_IO_Ex io_;
};

TEST_F(client_io_ex, a_file_comes_back_as_it_was) {
    for (Compression_Method method : {COMPR_AUTO, COMPR_NONE, COMPR_ZSTD, COMPR_LZOP})
        for (unsigned channels : {1u, 3u})
            for (size_t size : {size_t{0}, 2 * MIB + 17}) {
                options_.channels = channels;
                reconnect(method);
                std::string const local = directory_.write("in", text_of(size));
                ASSERT_TRUE(put(local, "folder/o.zst")) << io_.error();
                EXPECT_EQ("", io_.error());
                EXPECT_EQ(size, io_.original_size());
                EXPECT_EQ(pool_.stored("folder/o.zst").size(), io_.stored_size());
                ASSERT_TRUE(get("folder/o.zst", directory_.path("out"))) << io_.error();
                EXPECT_EQ(size, io_.original_size());
                EXPECT_EQ(pool_.stored("folder/o.zst").size(), io_.stored_size());
                EXPECT_TRUE(text_of(size) == directory_.read("out"));
                EXPECT_EQ(1u, pool_.files());
                EXPECT_EQ(2u, local_files());
            }
}

TEST_F(client_io_ex, automatic_packs_by_the_name_and_unpacks_by_it) {
    std::string const text = text_of(100000);
    for (char const* name : {"o", "o.zst", "o.lzo", "o.txt"}) {
        ASSERT_TRUE(io_.put_contents(name, text));
        std::string const stored = pool_.stored(name);
        EXPECT_EQ(compression_of_name(name), marked_method(stored.data(), stored.size())) << name;
        std::string contents;
        ASSERT_TRUE(io_.get_contents(name, contents));
        EXPECT_EQ(text, contents);
        EXPECT_EQ(text.size(), io_.original_size());
        EXPECT_EQ(stored.size(), io_.stored_size());
    }
    EXPECT_EQ(text, pool_.stored("o"));
}

TEST_F(client_io_ex, automatic_knows_again_what_was_packed_under_a_plain_name) {
    for (Compression_Method method : {COMPR_ZSTD, COMPR_LZOP}) {
        reconnect(method);
        ASSERT_TRUE(io_.put_contents("plain", text_of(5000)));
        EXPECT_GT(5000u, pool_.stored("plain").size());
        reconnect(COMPR_AUTO);
        std::string contents;
        ASSERT_TRUE(io_.get_contents("plain", contents)) << io_.error();
        EXPECT_EQ(text_of(5000), contents);
        // a damaged mark must not make it raw content
        std::string stored = pool_.stored("plain");
        stored[2] ^= 1;
        pool_.store("plain", stored);
        EXPECT_FALSE(io_.get_contents("plain", contents));
    }
}

TEST_F(client_io_ex, a_file_of_the_zstd_program_under_a_plain_name_is_content) {
    directory_.write("in", text_of(1000));
    ASSERT_EQ(0, std::system(("zstd -q " + directory_.path("in")).c_str()));
    std::string const packed = directory_.read("in.zst");
    ASSERT_TRUE(put(directory_.path("in.zst"), "plain"));
    std::string contents;
    ASSERT_TRUE(io_.get_contents("plain", contents));
    EXPECT_EQ(packed, contents);
}

TEST_F(client_io_ex, the_level_counts) {
    std::string const text = text_of(2 * MIB);
    reconnect(COMPR_ZSTD, 1);
    ASSERT_TRUE(io_.put_contents("low", text));
    reconnect(COMPR_ZSTD, 15);
    ASSERT_TRUE(io_.put_contents("high", text));
    EXPECT_LT(pool_.stored("high").size(), pool_.stored("low").size());
}

TEST_F(client_io_ex, without_a_connection_everything_fails) {
    Client_IO_Ex io;
    std::string contents;
    std::vector<Storage_Entry> entries;
    EXPECT_FALSE(io.connected());
    EXPECT_FALSE(io.get_contents("o", contents));
    EXPECT_EQ("not connected", io.error());
    EXPECT_FALSE(io.put_contents("o", ""));
    EXPECT_FALSE(io.list(nullptr, entries));
    EXPECT_FALSE(io.remove("o"));
}

TEST_F(client_io_ex, a_connection_that_cannot_be_made_says_why) {
    struct {
        std::string url;
        char const* error;
        Storage_Result::Code code;
    } const cases[] = {
        {"", "invalid URL, no scheme", Storage_Result::BAD_NAME},
        {"/tmp", "invalid URL, no scheme", Storage_Result::BAD_NAME},
        {"dedup://h/p", "no storage for URLs of 'dedup'", Storage_Result::FAILED},
        {pool_.url() + "/none", "failed to open pool folder", Storage_Result::UNREACHABLE},
    };
    for (auto const& one : cases) {
        EXPECT_FALSE(io_.connect(one.url.c_str(), options_)) << one.url;
        EXPECT_NE(std::string::npos, io_.error().find(one.error)) << io_.error();
        EXPECT_EQ(one.code, io_.code());
        EXPECT_FALSE(io_.connected());
    }
    EXPECT_FALSE(io_.connect(nullptr, options_));
}

TEST_F(client_io_ex, nothing_is_stored_in_the_clear_where_encryption_was_asked_for) {
    options_.encryption = ENCRYPTION_AES_256;
    EXPECT_FALSE(io_.connect(pool_.url().c_str(), options_));
    EXPECT_NE("", io_.error());
    EXPECT_FALSE(io_.put_contents("o", "x"));
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(client_io_ex, the_folder_of_a_new_set_comes_with_its_first_object) {
    options_.set_extra_option(Storage_Access::POOL_URL, pool_.url());
    options_.set_extra_option(nullptr, "ignored");
    connect("/source/FULL_1");
    ASSERT_TRUE(io_.put_contents("o", "x"));
    EXPECT_EQ("x", pool_.stored("source/FULL_1/o"));
    ASSERT_TRUE(io_.remove("o"));
    EXPECT_FALSE(pool_.has("source"));
}

TEST_F(client_io_ex, objects_are_listed_looked_at_and_removed) {
    ASSERT_TRUE(io_.put_contents("a/b.zst", "12345"));
    ASSERT_TRUE(io_.put_contents("c", "123"));
    std::vector<Storage_Entry> entries;
    ASSERT_TRUE(io_.list(nullptr, entries));
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ("a", entries[0].name);
    EXPECT_TRUE(entries[0].is_folder);
    EXPECT_EQ("c", entries[1].name);
    ASSERT_TRUE(io_.list("a", entries));
    EXPECT_EQ("b.zst", entries.at(0).name);
    EXPECT_FALSE(io_.list("x", entries));
    EXPECT_EQ(Storage_Result::NOT_FOUND, io_.code());
    Storage_Entry entry;
    ASSERT_TRUE(io_.stat("c", entry));
    EXPECT_EQ(3u, entry.size);
    uint64_t size = 0;
    ASSERT_TRUE(io_.content_size("a/b.zst", size));
    EXPECT_EQ(5u, size);
    ASSERT_TRUE(io_.remove("a/b.zst"));
    EXPECT_FALSE(io_.remove("a/b.zst"));
    EXPECT_EQ(Storage_Result::NOT_FOUND, io_.code());
    EXPECT_FALSE(io_.remove("../c"));
    EXPECT_FALSE(io_.remove(nullptr));
    EXPECT_EQ(1u, pool_.files());
}

TEST_F(client_io_ex, without_replace_an_object_stays) {
    std::string const local = directory_.write("in", "new");
    ASSERT_TRUE(io_.put_contents("o", "old", false));
    EXPECT_FALSE(io_.put_contents("o", "new", false));
    EXPECT_FALSE(io_.put_file(local.c_str(), "o", false, PUT_FLAGS, BUFFER));
    EXPECT_EQ(Storage_Result::EXISTS, io_.code());
    EXPECT_EQ("old", pool_.stored("o"));
}

TEST_F(client_io_ex, a_range_is_read_of_the_content) {
    std::string const text = text_of(20 * MIB);
    for (char const* name : {"o", "o.zst", "o.lzo"}) {
        ASSERT_TRUE(io_.put_contents(name, text));
        struct {
            uint64_t offset;
            size_t size;
        } const cases[] = {{0, 10},
                           {7 * MIB - 3, 100},
                           {text.size() - 5, 10},
                           {text.size(), 10},
                           {UINT64_MAX, 1},
                           {5, 0},
                           {0, text.size() + 1},
                           {MIB, 12 * MIB}};
        for (auto const& one : cases) {
            std::string contents;
            ASSERT_TRUE(io_.get_range(name, one.offset, one.size, contents)) << io_.error();
            std::string const wanted =
                one.offset < text.size() ? text.substr(one.offset, one.size) : "";
            EXPECT_TRUE(wanted == contents) << name << " " << one.offset;
        }
    }
    std::string contents = "kept";
    EXPECT_FALSE(io_.get_range("none", 0, 1, contents));
    EXPECT_EQ("kept", contents);
}

TEST_F(client_io_ex, contents_that_are_too_large_are_refused) {
    reconnect(COMPR_ZSTD);
    ASSERT_TRUE(io_.put_contents("bomb", std::string(70 * MIB, '\0')));
    EXPECT_GT(100000u, pool_.stored("bomb").size());
    std::string contents = "kept";
    EXPECT_FALSE(io_.get_contents("bomb", contents));
    EXPECT_EQ("'bomb': it is too large", io_.error());
    EXPECT_FALSE(io_.get_contents("bomb", contents, 70 * MIB - 1));
    EXPECT_EQ("kept", contents);
    EXPECT_TRUE(io_.get_contents("bomb", contents, 70 * MIB));
}

TEST_F(client_io_ex, a_damaged_object_leaves_no_file_and_the_old_one) {
    for (Compression_Method method : {COMPR_ZSTD, COMPR_LZOP})
        for (unsigned channels : {1u, 2u}) {
            options_.channels = channels;
            reconnect(method);
            ASSERT_TRUE(io_.put_contents("o", text_of(3 * MIB)));
            std::string const good = pool_.stored("o");
            std::string flipped = good;
            flipped[good.size() / 2] ^= 0x10;
            for (std::string const& bad : {flipped, good.substr(0, good.size() - 1),
                                           good.substr(0, good.size() / 2), std::string()}) {
                pool_.store("o", bad);
                EXPECT_FALSE(get("o", directory_.path("new")));
                EXPECT_NE(std::string::npos, io_.error().find("'o': damaged")) << io_.error();
                directory_.write("old", "old");
                EXPECT_FALSE(get("o", directory_.path("old")));
                EXPECT_EQ("old", directory_.read("old"));
                EXPECT_EQ(1u, local_files());
                std::string contents = "kept";
                EXPECT_FALSE(io_.get_contents("o", contents));
                EXPECT_EQ("kept", contents);
            }
        }
}

TEST_F(client_io_ex, a_source_that_cannot_be_read_leaves_no_object) {
    for (std::string const& local :
         {directory_.path("none"), directory_.path(), std::string(), directory_.path("none/x")}) {
        EXPECT_FALSE(put(local, "f/o")) << local;
        EXPECT_EQ(Storage_Result::FAILED, io_.code());
        EXPECT_NE("", io_.error());
    }
    EXPECT_FALSE(io_.put_file(nullptr, "o", true, PUT_FLAGS, BUFFER));
    std::string const local = directory_.write("in", "content");
    EXPECT_FALSE(io_.put_file(local.c_str(), "o", true, O_WRONLY | O_TRUNC, BUFFER));
    EXPECT_EQ("content", directory_.read("in"));
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
}

TEST_F(client_io_ex, a_source_that_fails_half_way_leaves_no_object) {
    std::string const local = directory_.write("in", text_of(5 * MIB));
    for (unsigned channels : {1u, 2u}) {
        options_.channels = channels;
        connect();
        on_own_thread([&] {
            ASSERT_TRUE(deny_system_call(SYS_read, EIO));
            EXPECT_FALSE(put(local, "f/o"));
            EXPECT_NE(std::string::npos, io_.error().find("failed to read")) << io_.error();
        });
        EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
    }
}

TEST_F(client_io_ex, a_source_that_becomes_shorter_is_a_failure) {
    std::string const local = directory_.write("in", text_of(5 * MIB));
    auto const cut = [&](uint64_t) { return truncate(local.c_str(), 2 * MIB) == 0; };
    EXPECT_FALSE(io_.put_file(local.c_str(), "o", true, PUT_FLAGS, BUFFER, cut));
    EXPECT_NE(std::string::npos, io_.error().find("became shorter")) << io_.error();
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(client_io_ex, what_is_appended_meanwhile_is_not_in_the_object) {
    std::string const local = directory_.write("in", text_of(3 * MIB));
    auto const append = [&](uint64_t) {
        std::ofstream(local, std::ios::app) << text_of(2 * MIB);
        return true;
    };
    ASSERT_TRUE(io_.put_file(local.c_str(), "o.zst", true, PUT_FLAGS, BUFFER, append));
    EXPECT_EQ(3 * MIB, io_.original_size());
}

TEST_F(client_io_ex, sources_that_tell_no_size_are_read_to_their_end) {
    ASSERT_TRUE(put("/proc/self/status", "status.zst"));
    EXPECT_GT(io_.original_size(), 100u);
    std::string const pipe = directory_.path("pipe");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    std::thread writer([&] { std::ofstream(pipe) << text_of(3 * MIB); });
    EXPECT_TRUE(put(pipe, "piped.zst")) << io_.error();
    writer.join();
    EXPECT_EQ(3 * MIB, io_.original_size());
    uint64_t size = 0;
    ASSERT_TRUE(io_.content_size("piped.zst", size));
    EXPECT_EQ(3 * MIB, size);
}

TEST_F(client_io_ex, places_that_are_no_files_are_not_written) {
    ASSERT_TRUE(io_.put_contents("o", "x"));
    ASSERT_EQ(0, mkfifo(directory_.path("pipe").c_str(), 0600));
    for (std::string const& local : {directory_.path(), directory_.path("pipe"), std::string(),
                                     directory_.path("none/x"), std::string("/dev/null")})
        EXPECT_FALSE(get("o", local)) << local;
    EXPECT_EQ(1u, local_files());
}

TEST_F(client_io_ex, the_flags_of_a_destination_count) {
    ASSERT_TRUE(io_.put_contents("o", "new"));
    std::string const there = directory_.write("there", "old");
    ASSERT_EQ(0, chmod(there.c_str(), 0604));
    auto const get_with = [&](std::string const& local, int flags) {
        return io_.get_file("o", local.c_str(), flags, BUFFER);
    };
    EXPECT_FALSE(get_with(there, O_WRONLY | O_CREAT | O_EXCL));
    EXPECT_FALSE(get_with(there, O_RDONLY));
    EXPECT_FALSE(get_with(there, O_WRONLY | O_APPEND));
    EXPECT_EQ("old", directory_.read("there"));
    EXPECT_FALSE(get_with(directory_.path("a"), O_WRONLY | O_TRUNC));
    EXPECT_TRUE(get_with(directory_.path("b"), O_WRONLY | O_CREAT | O_EXCL)) << io_.error();
    EXPECT_TRUE(get_with(there, O_WRONLY | O_TRUNC));
    EXPECT_EQ("new", directory_.read("there"));
    struct stat status;
    ASSERT_EQ(0, stat(there.c_str(), &status));
    EXPECT_EQ(0604u, status.st_mode & 07777);
    ASSERT_EQ(0, stat(directory_.path("b").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
}

TEST_F(client_io_ex, a_new_destination_needs_no_support_of_the_file_system) {
    ASSERT_TRUE(io_.put_contents("o", "new"));
    on_own_thread([&] {
        ASSERT_TRUE(deny_system_call(SYS_renameat2, EINVAL));
        EXPECT_TRUE(
            io_.get_file("o", directory_.path("out").c_str(), O_WRONLY | O_CREAT | O_EXCL, BUFFER))
            << io_.error();
    });
    EXPECT_EQ("new", directory_.read("out"));
    EXPECT_EQ(1u, local_files());
}

TEST_F(client_io_ex, a_link_at_the_destination_is_replaced_and_not_followed) {
    ASSERT_TRUE(io_.put_contents("o", "new"));
    directory_.write("victim", "kept");
    std::filesystem::create_symlink("victim", directory_.path("link"));
    ASSERT_TRUE(get("o", directory_.path("link")));
    EXPECT_EQ("kept", directory_.read("victim"));
    EXPECT_EQ("new", directory_.read("link"));
}

TEST_F(client_io_ex, a_destination_that_fails_leaves_nothing) {
    ASSERT_TRUE(io_.put_contents("o.zst", text_of(3 * MIB)));
    struct {
        long call;
        int error;
        Storage_Result::Code code;
    } const cases[] = {{SYS_write, ENOSPC, Storage_Result::NO_SPACE},
                       {SYS_fsync, EIO, Storage_Result::FAILED},
                       {SYS_renameat, EIO, Storage_Result::FAILED}};
    for (auto const& one : cases)
        on_own_thread([&] {
            ASSERT_TRUE(one.call == SYS_write ? deny_writes(4096, one.error)
                                              : deny_system_call(one.call, one.error));
            EXPECT_FALSE(get("o.zst", directory_.path("out")));
            EXPECT_EQ(one.code, io_.code()) << io_.error();
        });
    EXPECT_EQ(0u, local_files());
}

TEST_F(client_io_ex, progress_tells_the_bytes_and_may_end_a_transfer) {
    std::string const local = directory_.write("in", text_of(5 * MIB));
    for (unsigned channels : {1u, 2u}) {
        options_.channels = channels;
        connect();
        std::vector<uint64_t> seen;
        auto const record = [&](uint64_t bytes) {
            seen.push_back(bytes);
            return true;
        };
        ASSERT_TRUE(io_.put_file(local.c_str(), "o.zst", true, PUT_FLAGS, BUFFER, record));
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_EQ(5 * MIB, seen.back());
        EXPECT_GE(seen.size(), 5u);
        seen.clear();
        ASSERT_TRUE(
            io_.get_file("o.zst", directory_.path("out").c_str(), GET_FLAGS, BUFFER, record));
        EXPECT_EQ(5 * MIB, seen.back());
        std::filesystem::remove(directory_.path("out"));

        auto const end = [](uint64_t bytes) { return bytes < 2 * MIB; };
        EXPECT_FALSE(io_.put_file(local.c_str(), "new.zst", true, PUT_FLAGS, BUFFER, end));
        EXPECT_EQ("the transfer was canceled", io_.error());
        EXPECT_FALSE(io_.get_file("o.zst", directory_.path("out").c_str(), GET_FLAGS, BUFFER, end));
        EXPECT_EQ("'o.zst': the transfer was canceled", io_.error());
        EXPECT_EQ(1u, pool_.files());
        EXPECT_EQ(1u, local_files());
    }
}

Rate_Control_Entries limit(uint64_t bytes) {
    Rate_Control_Entry entry;
    entry.bytes_per_second = bytes;
    return {entry};
}

TEST_F(client_io_ex, limits_hold_where_the_bytes_pass) {
    std::string const local = directory_.write("in", text_of(10 * MIB));
    for (unsigned channels : {1u, 2u})
        for (bool source : {true, false})
            for (bool putting : {true, false}) {
                options_ = {};
                options_.channels = channels;
                reconnect(COMPR_ZSTD);
                ASSERT_TRUE(put(local, "o"));
                auto const stored = static_cast<double>(io_.stored_size());
                ASSERT_LT(stored, 5.0 * MIB);
                Virtual_Clock clock;
                options_.clock = &clock;
                (source ? options_.rate_limits.src : options_.rate_limits.dest) = limit(MIB / 4);
                connect();
                ASSERT_TRUE(putting ? put(local, "o") : get("o", directory_.path("out")));
                // the source of a put and the destination of a get are the local file
                double const bytes = source == putting ? 10.0 * MIB : stored;
                EXPECT_NEAR(bytes / (MIB / 4), clock.seconds(), 0.5) << source << putting;
            }
}

TEST_F(client_io_ex, clients_that_share_a_limit_are_as_fast_together_as_it_allows) {
    constexpr size_t CHANNELS = 4;
    std::string const local = directory_.write("in", text_of(4 * MIB));
    Virtual_Clock clock(CHANNELS);
    options_.clock = &clock;
    options_.rate_limits.dest = limit(MIB);
    options_.rate_limits.set_rate_limits_by_channels(CHANNELS);
    options_.compression_method = COMPR_NONE;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < CHANNELS; ++i)
        threads.emplace_back([&, i] {
            Client_IO_Ex io;
            EXPECT_TRUE(io.connect(pool_.url().c_str(), options_));
            EXPECT_TRUE(io.put_file(local.c_str(), ("o" + std::to_string(i)).c_str(), true,
                                    PUT_FLAGS, BUFFER));
            clock.leave();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_NEAR(4.0 * CHANNELS, clock.seconds(), 0.5);
    EXPECT_EQ(CHANNELS, pool_.files());
}

TEST_F(client_io_ex, a_transfer_that_waits_for_its_limit_can_be_ended) {
    std::string const local = directory_.write("in", text_of(4 * MIB));
    Virtual_Clock clock;
    options_.clock = &clock;
    for (bool source : {true, false}) {
        options_.rate_limits = {};
        (source ? options_.rate_limits.src : options_.rate_limits.dest) = limit(1);
        connect();
        int asked = 0;
        auto const end = [&](uint64_t) { return ++asked < 3; };
        double const before = clock.seconds();
        EXPECT_FALSE(io_.put_file(local.c_str(), "o", true, PUT_FLAGS, BUFFER, end));
        EXPECT_LT(clock.seconds() - before, 5);
    }
    EXPECT_EQ(0u, pool_.files());
}

/** A pool whose connections fail as they are told. */
class Failing_Backend : public Storage_Backend {
public:
    Storage_Result connect(std::string const& url, Storage_Access const& access,
                           std::shared_ptr<Storage_Connection>& connection) override {
        ++connects;
        seen = access;
        if (failures > 0 && --failures >= 0)
            return {Storage_Result::UNREACHABLE, "gone"};
        return inner.connect("file" + url.substr(url.find(':')), access, connection);
    }
    int failures = 0;
    int connects = 0;
    Storage_Access seen;
    File_Storage_Backend inner;
};

class client_io_ex_retry : public client_io_ex {
protected:
    void SetUp() override {
        Host_Services::instance().storage("failing", backend_);
        options_.clock = &clock_;
    }
    void TearDown() override { Host_Services::instance().storage("failing", nullptr); }
    std::string url() const { return "failing://" + pool_.path(); }

    std::shared_ptr<Failing_Backend> backend_ = std::make_shared<Failing_Backend>();
    Virtual_Clock clock_;
};

TEST_F(client_io_ex_retry, a_connection_is_tried_again_as_long_as_the_options_say) {
    struct {
        uint64_t seconds;
        int failures;
        bool success;
        double time;
    } const cases[] = {{0, 1, false, 0},   {1, 1, true, 1},      {3, 2, true, 3},
                       {5, 3, true, 5},    {5, 9, false, 5},     {100, 6, true, 61},
                       {100, 7, true, 91}, {100, 9, false, 100}, {UINT64_MAX, 5, true, 31}};
    for (auto const& one : cases) {
        backend_->failures = one.failures;
        options_.max_seconds_retry = one.seconds;
        double const before = clock_.seconds();
        EXPECT_EQ(one.success, io_.connect(url().c_str(), options_)) << one.seconds;
        EXPECT_NEAR(one.time, clock_.seconds() - before, 0.01) << one.seconds;
        EXPECT_EQ(one.success ? "" : "gone", io_.error());
    }
}

TEST_F(client_io_ex_retry, other_failures_are_not_tried_again) {
    options_.max_seconds_retry = 100;
    ASSERT_TRUE(io_.connect(url().c_str(), options_));
    std::string contents;
    EXPECT_FALSE(io_.get_contents("none", contents));
    EXPECT_EQ(1, backend_->connects);
    EXPECT_EQ(0, clock_.seconds());
}

TEST_F(client_io_ex_retry, a_transfer_whose_connection_fails_starts_over_on_a_new_one) {
    std::string const local = directory_.write("in", text_of(3 * MIB));
    options_.max_seconds_retry = 100;
    ASSERT_TRUE(io_.connect(url().c_str(), options_));
    std::thread([&] {
        ASSERT_TRUE(deny_system_call(SYS_fsync, ESTALE));
        EXPECT_FALSE(put(local, "f/o.zst"));
        EXPECT_EQ(Storage_Result::UNREACHABLE, io_.code());
    }).join();
    EXPECT_GT(backend_->connects, 4);
    EXPECT_EQ(0u, pool_.files());
    EXPECT_TRUE(put(local, "f/o.zst")) << "a later operation makes the connection anew";
    EXPECT_EQ(3 * MIB, io_.original_size());
}

TEST_F(client_io_ex_retry, the_back_end_is_given_what_the_options_say) {
    options_.access_key = secure_string("key");
    options_.resumption_buffer_size = 7;
    options_.dedup_chunk_size = 1;
    options_.set_extra_option("access_mode", "d2t");
    ASSERT_TRUE(io_.connect(url().c_str(), options_));
    EXPECT_EQ(secure_string("key"), backend_->seen.access_key);
    EXPECT_EQ(7u, backend_->seen.resumption_buffer_size);
    EXPECT_EQ(1u, backend_->seen.dedup_chunk_size);
    EXPECT_TRUE(backend_->seen.d2t());
}

TEST_F(client_io_ex, clients_on_several_threads_do_not_disturb_each_other) {
    options_.channels = 2;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
            Client_IO_Ex io;
            ASSERT_TRUE(io.connect(pool_.url().c_str(), options_));
            std::string const name = "f/o" + std::to_string(i) + ".zst";
            std::string const text = text_of(static_cast<size_t>(i + 1) * 700000);
            std::string const local = directory_.write("in" + std::to_string(i), text);
            for (int round = 0; round < 5; ++round) {
                EXPECT_TRUE(io.put_file(local.c_str(), name.c_str(), true, PUT_FLAGS, BUFFER));
                std::string contents;
                EXPECT_TRUE(io.get_contents(name.c_str(), contents));
                EXPECT_TRUE(text == contents);
                EXPECT_TRUE(io.remove(name.c_str())) << io.error();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0u, pool_.files());
}

} // namespace
