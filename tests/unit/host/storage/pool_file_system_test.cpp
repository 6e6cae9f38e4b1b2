#include "host/storage/pool_file_system.h"

#include "tests/support/file_pool.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/virtual_clock.h"
#include "tests/unit/host/storage/stored_text.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

std::string coded(std::unique_ptr<Codec> codec, std::string const& in) {
    std::string out;
    Codec_Sink const sink = [&](void const* data, size_t size) {
        out.append(static_cast<char const*>(data), size);
        return Storage_Result();
    };
    EXPECT_TRUE(codec->feed(in.data(), in.size(), sink));
    EXPECT_TRUE(codec->finish(sink));
    return out;
}

std::string packed(Compression_Method method, std::string const& text) {
    return coded(make_encoder(method, 0, UNKNOWN_SIZE, 1), text);
}

class pool_file_system : public testing::Test {
protected:
    void SetUp() override {
        settings_.writing.spool_directory = directory_.path();
        start();
    }
    void start() {
        fs_.reset();
        Storage_Result const result = backend_.connect(pool_.url(), {}, connection_);
        ASSERT_TRUE(result) << result.text();
        fs_ = std::make_unique<Pool_File_System>(connection_, settings_);
    }
    void start(Compression_Method method) {
        settings_.compression = method;
        start();
    }
    uint64_t open(std::string const& path, int flags) {
        uint64_t handle = 0;
        EXPECT_EQ(0, fs_->open(path, flags, handle)) << path;
        return handle;
    }
    int open_error(std::string const& path, int flags) {
        uint64_t handle = 0;
        int const error = fs_->open(path, flags, handle);
        if (!error)
            fs_->release(handle);
        return error;
    }
    int write(uint64_t handle, uint64_t offset, std::string const& data) {
        return fs_->write(handle, offset, data.data(), data.size());
    }
    int close(uint64_t handle) {
        int const error = fs_->flush(handle);
        fs_->release(handle);
        return error;
    }
    int put(std::string const& path, std::string const& text, size_t piece = 131072) {
        uint64_t handle = 0;
        int error = fs_->open(path, O_WRONLY | O_CREAT | O_TRUNC, handle);
        if (error)
            return error;
        for (size_t at = 0; at < text.size(); at += piece) {
            std::string const part = text.substr(at, piece);
            error = write(handle, at, part);
            if (error < 0)
                break;
        }
        int const closed = close(handle);
        return error < 0 ? error : closed;
    }
    std::string read(uint64_t handle, uint64_t offset, size_t size) {
        std::string data(size, '\0');
        int const got = fs_->read(handle, offset, data.data(), size);
        return got < 0 ? "<" + std::to_string(got) + ">" : data.substr(0, static_cast<size_t>(got));
    }
    std::string get(std::string const& path, size_t piece = 131072) {
        uint64_t handle = 0;
        if (int const error = fs_->open(path, O_RDONLY, handle))
            return "<" + std::to_string(error) + ">";
        std::string text, part;
        do {
            part = read(handle, text.size(), piece);
            text += part;
        } while (part.size() == piece);
        fs_->release(handle);
        return text;
    }
    int64_t size(std::string const& path) {
        struct stat status;
        int const error = fs_->attributes(path, status);
        return error ? error : status.st_size;
    }
    bool is_folder(std::string const& path) {
        struct stat status;
        return fs_->attributes(path, status) == 0 && S_ISDIR(status.st_mode);
    }
    std::string names(std::string const& path) {
        std::vector<Pool_File_System::Entry> entries;
        if (int const error = fs_->list(path, entries))
            return "<" + std::to_string(error) + ">";
        std::string text;
        for (auto const& entry : entries)
            text += (text.empty() ? "" : " ") + entry.name + (entry.is_folder ? "/" : "");
        return text;
    }

    File_Pool pool_;
    Temporary_Directory directory_;
    File_Storage_Backend backend_;
    std::shared_ptr<Storage_Connection> connection_;
    Pool_File_System::Settings settings_;
    std::unique_ptr<Pool_File_System> fs_;
};

TEST_F(pool_file_system, objects_appear_under_their_own_names_with_their_own_content) {
    std::string const text = text_of(3 * MIB + 5);
    pool_.store("f/plain", text);
    pool_.store("f/z.zst", packed(COMPR_ZSTD, text));
    pool_.store("f/l.lzo", packed(COMPR_LZOP, text));
    EXPECT_EQ("f/", names("/"));
    EXPECT_EQ("l plain z", names("/f"));
    for (char const* path : {"/f/plain", "/f/z", "/f/l"}) {
        EXPECT_EQ(static_cast<int64_t>(text.size()), size(path));
        EXPECT_TRUE(text == get(path)) << path;
        EXPECT_TRUE(text == get(path, 999)) << path;
    }
    EXPECT_EQ(-ENOENT, size("/f/z.zst"));
    EXPECT_EQ(-ENOENT, size("/none"));
    EXPECT_EQ(-ENOENT, size("/f/plain/x"));
    EXPECT_TRUE(is_folder("/f"));
    EXPECT_TRUE(is_folder("/"));
    EXPECT_EQ("<-2>", get("/none"));
    EXPECT_EQ("<-21>", get("/f"));
    EXPECT_EQ("<-20>", names("/f/plain"));
}

TEST_F(pool_file_system, packed_content_is_read_at_any_place) {
    std::string const text = text_of(30 * MIB);
    for (Compression_Method method : {COMPR_ZSTD, COMPR_LZOP}) {
        pool_.store("o.zst", packed(COMPR_ZSTD, text));
        uint64_t const handle = open("/o", O_RDONLY);
        for (uint64_t offset : {29 * MIB, 28 * MIB, 5 * MIB, 6 * MIB, size_t{0}, 30 * MIB - 3})
            EXPECT_TRUE(text.substr(offset, 100000) == read(handle, offset, 100000)) << offset;
        EXPECT_EQ("", read(handle, 30 * MIB, 10));
        EXPECT_EQ("", read(handle, 31 * MIB, 10));
        fs_->release(handle);
        (void)method;
    }
}

TEST_F(pool_file_system, a_written_file_is_an_object_of_the_settings_method) {
    std::string const text = text_of(2 * MIB + 9);
    for (Compression_Method method : {COMPR_NONE, COMPR_ZSTD, COMPR_LZOP}) {
        start(method);
        std::string const name = "o" + std::to_string(method);
        ASSERT_EQ(0, put("/" + name, text));
        std::string const object = name + compression_value_to_suffix(method);
        EXPECT_TRUE(text == coded(make_decoder(method), pool_.stored(object)));
        EXPECT_TRUE(text == get("/" + name));
        EXPECT_EQ(static_cast<int64_t>(text.size()), size("/" + name));
    }
    EXPECT_EQ("o0 o2 o3", names("/"));
}

TEST_F(pool_file_system, an_empty_file_is_stored_too) {
    for (Compression_Method method : {COMPR_NONE, COMPR_ZSTD}) {
        start(method);
        ASSERT_EQ(0, put("/o", ""));
        EXPECT_EQ("o", names("/"));
        EXPECT_EQ(0, size("/o"));
        EXPECT_EQ("", get("/o"));
        EXPECT_EQ(1u, pool_.files()) << "the one of the method before has gone";
    }
}

TEST_F(pool_file_system, names_that_look_packed_are_kept) {
    for (Compression_Method method : {COMPR_NONE, COMPR_ZSTD, COMPR_LZOP}) {
        start(method);
        for (char const* path : {"/a.zst", "/a.lzo", "/a", "/.zst", "/a.zst.lzo"}) {
            ASSERT_EQ(0, put(path, std::string("content of ") + path));
        }
        EXPECT_EQ(".zst a a.lzo a.zst a.zst.lzo", names("/"));
        for (char const* path : {"/a.zst", "/a.lzo", "/a", "/.zst", "/a.zst.lzo"})
            EXPECT_EQ(std::string("content of ") + path, get(path));
        EXPECT_EQ(5u, pool_.files());
    }
}

TEST_F(pool_file_system, content_that_is_packed_already_is_not_unpacked) {
    std::string const content = packed(COMPR_ZSTD, "inner").substr(16);
    ASSERT_EQ(0, put("/o", content));
    EXPECT_EQ(content, get("/o"));
}

TEST_F(pool_file_system, nothing_is_in_the_pool_before_a_file_is_closed) {
    pool_.store("o", "old");
    uint64_t const handle = open("/o", O_WRONLY | O_CREAT | O_TRUNC);
    EXPECT_EQ(3, write(handle, 0, "new"));
    EXPECT_EQ("old", pool_.stored("o"));
    EXPECT_EQ(3, size("/o"));
    EXPECT_EQ(0, fs_->flush(handle));
    EXPECT_EQ("new", pool_.stored("o"));
    fs_->release(handle);
    uint64_t const fresh = open("/f", O_WRONLY | O_CREAT);
    EXPECT_EQ("f o", names("/")) << "shown to others although not stored";
    EXPECT_FALSE(pool_.has("f"));
    fs_->release(fresh);
    EXPECT_TRUE(pool_.has("f")) << "a release alone stores too";
}

TEST_F(pool_file_system, files_written_out_of_order_are_stored_as_they_are_in_the_end) {
    for (Compression_Method method : {COMPR_NONE, COMPR_ZSTD}) {
        start(method);
        uint64_t const handle = open("/o", O_RDWR | O_CREAT | O_TRUNC);
        std::string text = text_of(2 * MIB);
        ASSERT_EQ(static_cast<int>(MIB), write(handle, 0, text.substr(0, MIB)));
        ASSERT_EQ(static_cast<int>(MIB), write(handle, MIB, text.substr(MIB)));
        ASSERT_EQ(6, write(handle, 10, "header"));
        text.replace(10, 6, "header");
        EXPECT_EQ(text.substr(0, 100), read(handle, 0, 100));
        ASSERT_EQ(3, write(handle, 3 * MIB, "end"));
        text += std::string(MIB, '\0') + "end";
        EXPECT_EQ(static_cast<int64_t>(text.size()), size("/o"));
        ASSERT_EQ(0, fs_->truncate(handle, 3 * MIB + 1));
        text.resize(3 * MIB + 1);
        EXPECT_EQ(0, close(handle));
        EXPECT_TRUE(text == get("/o"));
        EXPECT_EQ(1u, pool_.files());
        EXPECT_EQ(0u, File_Pool::files_below(directory_.path())) << "spools have no names";
    }
}

TEST_F(pool_file_system, a_file_may_be_written_on_after_it_was_synced) {
    for (Compression_Method method : {COMPR_NONE, COMPR_LZOP}) {
        start(method);
        uint64_t const handle = open("/o", O_WRONLY | O_CREAT | O_TRUNC);
        EXPECT_EQ(0, fs_->flush(handle));
        EXPECT_EQ(3, write(handle, 0, "abc"));
        EXPECT_EQ(0, fs_->flush(handle));
        EXPECT_EQ(3, write(handle, 3, "def"));
        EXPECT_EQ(0, close(handle));
        EXPECT_EQ("abcdef", get("/o"));
    }
}

TEST_F(pool_file_system, a_file_that_is_there_is_changed) {
    pool_.store("o.zst", packed(COMPR_ZSTD, "0123456789"));
    uint64_t handle = open("/o", O_RDWR);
    EXPECT_EQ(2, write(handle, 4, "ab"));
    EXPECT_EQ(0, close(handle));
    EXPECT_EQ("0123ab6789", get("/o"));
    EXPECT_TRUE(pool_.has("o.zst")) << "it keeps its method";
    handle = open("/o", O_WRONLY | O_APPEND);
    EXPECT_EQ(1, write(handle, 0, "!"));
    EXPECT_EQ(0, close(handle));
    EXPECT_EQ("0123ab6789!", get("/o"));
    EXPECT_EQ(0, fs_->truncate("/o", 4));
    EXPECT_EQ("0123", get("/o"));
    EXPECT_EQ(0, fs_->truncate("/o", 6));
    EXPECT_EQ(std::string("0123\0\0", 6), get("/o"));
    EXPECT_EQ(0, fs_->truncate("/o", 0));
    EXPECT_EQ("", get("/o"));
    EXPECT_EQ(-ENOENT, fs_->truncate("/none", 0));
    EXPECT_EQ(1u, pool_.files());
}

TEST_F(pool_file_system, an_open_that_changes_nothing_stores_nothing) {
    pool_.store("o", "content");
    auto const before = std::filesystem::last_write_time(pool_.path() + "/o");
    uint64_t const handle = open("/o", O_RDWR);
    EXPECT_EQ("content", read(handle, 0, 100));
    EXPECT_EQ(0, close(handle));
    EXPECT_EQ(before, std::filesystem::last_write_time(pool_.path() + "/o"));
}

TEST_F(pool_file_system, the_flags_of_an_open_count) {
    pool_.store("o", "content");
    EXPECT_EQ(-EEXIST, open_error("/o", O_WRONLY | O_CREAT | O_EXCL));
    EXPECT_EQ(-ENOENT, open_error("/new", O_WRONLY));
    EXPECT_EQ(-ENOENT, open_error("/none/new", O_WRONLY | O_CREAT));
    EXPECT_EQ(-ENOTDIR, open_error("/o/new", O_WRONLY | O_CREAT));
    EXPECT_EQ(0, open_error("/new", O_WRONLY | O_CREAT | O_EXCL));
    EXPECT_EQ(-EINVAL, open_error("/.zenbrak3-x", O_WRONLY | O_CREAT));
    EXPECT_EQ(-EINVAL, open_error("/../x", O_WRONLY | O_CREAT));
    uint64_t const handle = open("/o", O_RDONLY);
    EXPECT_EQ(-EBADF, write(handle, 0, "x"));
    EXPECT_EQ(-EBADF, fs_->truncate(handle, 0));
    EXPECT_EQ(0, close(handle));
    EXPECT_EQ(-EBADF, fs_->flush(handle));
    EXPECT_EQ("<-9>", read(handle, 0, 1));
    fs_->release(handle);
    EXPECT_EQ("content", get("/o"));
}

TEST_F(pool_file_system, handles_of_one_file_see_what_each_other_write) {
    uint64_t const first = open("/o", O_WRONLY | O_CREAT);
    uint64_t const second = open("/o", O_WRONLY);
    uint64_t const reader = open("/o", O_RDONLY);
    EXPECT_EQ(3, write(first, 0, "abc"));
    EXPECT_EQ(3, write(second, 3, "def"));
    EXPECT_EQ("abcdef", read(reader, 0, 10));
    EXPECT_EQ(0, close(first));
    EXPECT_EQ(1, write(second, 6, "g"));
    EXPECT_EQ(0, close(second));
    EXPECT_EQ("abcdefg", read(reader, 0, 10));
    fs_->release(reader);
    EXPECT_EQ("abcdefg", pool_.stored("o"));
}

TEST_F(pool_file_system, folders_are_made_and_removed) {
    EXPECT_EQ(0, fs_->make_directory("/f"));
    EXPECT_EQ(-EEXIST, fs_->make_directory("/f"));
    EXPECT_EQ(-ENOENT, fs_->make_directory("/x/y"));
    EXPECT_EQ(0, fs_->make_directory("/f/g"));
    EXPECT_TRUE(is_folder("/f/g"));
    EXPECT_EQ("f/", names("/"));
    EXPECT_EQ("g/", names("/f"));
    EXPECT_EQ("", names("/f/g"));
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
    ASSERT_EQ(0, put("/f/g/o", "x"));
    EXPECT_EQ("x", pool_.stored("f/g/o"));
    EXPECT_EQ(-ENOTEMPTY, fs_->remove_directory("/f/g"));
    EXPECT_EQ(-ENOTDIR, fs_->remove_directory("/f/g/o"));
    EXPECT_EQ(-ENOENT, fs_->remove_directory("/x"));
    EXPECT_EQ(-EEXIST, fs_->make_directory("/f/g/o"));
    EXPECT_EQ(0, fs_->remove_file("/f/g/o"));
    EXPECT_TRUE(is_folder("/f/g")) << "a folder stays when its last file goes";
    EXPECT_EQ(0, fs_->remove_directory("/f/g"));
    EXPECT_EQ(0, fs_->remove_directory("/f"));
    EXPECT_EQ("", names("/"));
    EXPECT_EQ(-ENOENT, size("/f"));
}

TEST_F(pool_file_system, a_folder_may_be_named_like_a_packed_file) {
    ASSERT_EQ(0, fs_->make_directory("/set.zst"));
    ASSERT_EQ(0, put("/set.zst/o", "x"));
    EXPECT_EQ("set.zst/", names("/"));
    EXPECT_TRUE(is_folder("/set.zst"));
    EXPECT_EQ(-ENOENT, size("/set"));
    EXPECT_EQ("x", get("/set.zst/o"));
}

TEST_F(pool_file_system, files_are_removed) {
    pool_.store("plain", "x");
    pool_.store("z.zst", packed(COMPR_ZSTD, "x"));
    EXPECT_EQ(0, fs_->remove_file("/plain"));
    EXPECT_EQ(0, fs_->remove_file("/z"));
    EXPECT_EQ(-ENOENT, fs_->remove_file("/z"));
    EXPECT_EQ(-EISDIR, fs_->remove_file("/"));
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(pool_file_system, a_file_that_is_removed_while_it_is_open_is_not_stored) {
    pool_.store("o", "old");
    uint64_t const handle = open("/o", O_RDWR);
    EXPECT_EQ(3, write(handle, 3, "new"));
    EXPECT_EQ(0, fs_->remove_file("/o"));
    EXPECT_EQ("", names("/"));
    EXPECT_EQ("oldnew", read(handle, 0, 10));
    EXPECT_EQ(0, close(handle));
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(pool_file_system, a_file_that_takes_the_name_of_a_removed_one_is_another) {
    uint64_t const old = open("/o", O_WRONLY | O_CREAT);
    EXPECT_EQ(3, write(old, 0, "old"));
    EXPECT_EQ(0, fs_->remove_file("/o"));
    ASSERT_EQ(0, put("/o", "new"));
    EXPECT_EQ(0, close(old));
    EXPECT_EQ("new", get("/o"));
}

TEST_F(pool_file_system, files_are_renamed) {
    ASSERT_EQ(0, fs_->make_directory("/f"));
    start(COMPR_ZSTD);
    ASSERT_EQ(0, put("/a", "content"));
    ASSERT_EQ(0, put("/b", "other"));
    EXPECT_EQ(-EEXIST, fs_->rename("/a", "/b", RENAME_NOREPLACE));
    EXPECT_EQ(-EINVAL, fs_->rename("/a", "/b", RENAME_EXCHANGE));
    EXPECT_EQ(-ENOENT, fs_->rename("/none", "/b", 0));
    EXPECT_EQ(-ENOENT, fs_->rename("/a", "/none/b", 0));
    EXPECT_EQ(0, fs_->rename("/a", "/b", 0));
    EXPECT_EQ("content", get("/b"));
    EXPECT_EQ("b", names("/"));
    ASSERT_EQ(0, fs_->make_directory("/f"));
    EXPECT_EQ(-EXDEV, fs_->rename("/f", "/g", 0));
    EXPECT_EQ(-EISDIR, fs_->rename("/b", "/f", 0));
    EXPECT_EQ(0, fs_->rename("/b", "/f/c.lzo", 0));
    EXPECT_EQ("content", get("/f/c.lzo"));
    EXPECT_EQ(1u, pool_.files());
}

TEST_F(pool_file_system, a_plain_object_cannot_take_a_name_that_looks_packed) {
    pool_.store("o", "x");
    EXPECT_EQ(-EXDEV, fs_->rename("/o", "/o.zst", 0));
    EXPECT_EQ("x", get("/o"));
}

TEST_F(pool_file_system, a_file_is_renamed_while_it_is_open) {
    uint64_t const handle = open("/o.part", O_WRONLY | O_CREAT);
    EXPECT_EQ(3, write(handle, 0, "abc"));
    EXPECT_EQ(0, fs_->rename("/o.part", "/o", 0));
    EXPECT_EQ(3, write(handle, 3, "def"));
    EXPECT_EQ("o", names("/"));
    EXPECT_EQ(0, close(handle));
    EXPECT_EQ("abcdef", get("/o"));
    EXPECT_EQ(1u, pool_.files());
}

TEST_F(pool_file_system, a_mount_to_read_changes_nothing) {
    pool_.store("f/o", "content");
    settings_.read_only = true;
    start();
    EXPECT_EQ("content", get("/f/o"));
    EXPECT_EQ(-EROFS, put("/new", "x"));
    EXPECT_EQ(-EROFS, open_error("/f/o", O_RDWR));
    EXPECT_EQ(-EROFS, fs_->remove_file("/f/o"));
    EXPECT_EQ(-EROFS, fs_->rename("/f/o", "/x", 0));
    EXPECT_EQ(-EROFS, fs_->make_directory("/x"));
    EXPECT_EQ(-EROFS, fs_->remove_directory("/f"));
    EXPECT_EQ(-EROFS, fs_->truncate("/f/o", 0));
    EXPECT_EQ(-EROFS, fs_->touch("/f/o"));
    struct stat status;
    ASSERT_EQ(0, fs_->attributes("/f/o", status));
    EXPECT_EQ(0400u, status.st_mode & 0777);
    EXPECT_EQ(1u, pool_.files());
}

TEST_F(pool_file_system, all_of_it_belongs_to_one_user) {
    settings_.uid = 1234;
    settings_.gid = 2345;
    pool_.store("f/o", "x");
    start();
    for (char const* path : {"/", "/f", "/f/o"}) {
        struct stat status;
        ASSERT_EQ(0, fs_->attributes(path, status));
        EXPECT_EQ(1234u, status.st_uid);
        EXPECT_EQ(2345u, status.st_gid);
        EXPECT_EQ(0u, status.st_mode & 0077);
    }
    EXPECT_EQ(0, fs_->touch("/f/o"));
    EXPECT_EQ(-ENOENT, fs_->touch("/f/none"));
    struct statvfs space;
    ASSERT_EQ(0, fs_->space(space));
    EXPECT_GT(space.f_blocks, 0u);
}

TEST_F(pool_file_system, a_damaged_object_is_an_error_at_its_end_at_the_latest) {
    for (Compression_Method method : {COMPR_ZSTD, COMPR_LZOP}) {
        std::string const text = text_of(2 * MIB);
        std::string stored = packed(method, text);
        std::string const name = std::string("o") + compression_value_to_suffix(method);
        stored[stored.size() - (method == COMPR_ZSTD ? 40 : 10)] ^= 1;
        pool_.store(name, stored);
        uint64_t const handle = open("/o", O_RDONLY);
        EXPECT_EQ(text.substr(0, 1000), read(handle, 0, 1000));
        EXPECT_EQ("<-5>", read(handle, text.size() - 1, 1));
        EXPECT_EQ("<-5>", read(handle, text.size() - 1, 1));
        EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "damaged"));
        fs_->release(handle);
        std::filesystem::remove(pool_.path() + "/" + name);
    }
}

TEST_F(pool_file_system, a_failure_to_store_is_told_at_the_close_and_leaves_the_old_object) {
    struct {
        long call;
        int error;
        int wanted;
    } const cases[] = {
        {SYS_fsync, EIO, -EIO}, {SYS_fsync, ENOSPC, -ENOSPC}, {SYS_renameat, EIO, -EIO}};
    for (Compression_Method method : {COMPR_NONE, COMPR_ZSTD}) {
        start(method);
        ASSERT_EQ(0, put("/o", "old"));
        for (auto const& one : cases)
            on_own_thread([&] {
                ASSERT_TRUE(deny_system_call(one.call, one.error));
                uint64_t const handle = open("/o", O_WRONLY | O_TRUNC);
                EXPECT_EQ(3, write(handle, 0, "new"));
                EXPECT_EQ(one.wanted, fs_->flush(handle));
                EXPECT_EQ(one.wanted, fs_->flush(handle)) << "it stays a failure";
                EXPECT_EQ(one.wanted, write(handle, 3, "more"));
                fs_->release(handle);
                EXPECT_GE(Log_Capture::instance().claim_all(LM_ERROR, "Failed to serve /o"), 3u);
                EXPECT_EQ("old", get("/o"));
                EXPECT_EQ(1u, pool_.files());
            });
        ASSERT_EQ(0, fs_->remove_file("/o"));
    }
}

TEST_F(pool_file_system, a_full_pool_is_told_to_the_writer) {
    on_own_thread([&] {
        ASSERT_TRUE(deny_writes(4096, ENOSPC));
        uint64_t const handle = open("/o", O_WRONLY | O_CREAT);
        EXPECT_EQ(-ENOSPC, write(handle, 0, std::string(4096, 'x')));
        EXPECT_EQ(-ENOSPC, close(handle));
    });
    EXPECT_GE(Log_Capture::instance().claim_all(LM_ERROR, "No space left on device"), 1u);
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(pool_file_system, what_is_open_at_the_end_is_stored) {
    uint64_t const handle = open("/o", O_WRONLY | O_CREAT);
    EXPECT_EQ(3, write(handle, 0, "abc"));
    fs_.reset();
    EXPECT_LOGGED(LM_WARNING, "/o was still being written, it is stored as it is\n");
    EXPECT_EQ("abc", pool_.stored("o"));
}

TEST_F(pool_file_system, several_threads_work_on_files_of_their_own_and_on_shared_ones) {
    start(COMPR_ZSTD);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            std::string const own = "/o" + std::to_string(i);
            std::string const text = text_of(300000 + static_cast<size_t>(i));
            for (int round = 0; round < 10; ++round) {
                EXPECT_EQ(0, put(own, text));
                EXPECT_TRUE(text == get(own));
                EXPECT_EQ(0, put("/shared", std::string(1000, static_cast<char>('a' + i))));
                names("/");
                size("/shared");
                EXPECT_EQ(0, fs_->remove_file(own));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ("shared", names("/"));
}

} // namespace
