#ifndef TESTS_SUPPORT_FILE_POOL_H
#define TESTS_SUPPORT_FILE_POOL_H

#include "host/agent/host_services.h"
#include "host/storage/file_storage_backend.h"
#include "tests/support/temporary_directory.h"

/** An empty pool in a directory of a test's own; its back end is installed while it lives. */
class File_Pool {
public:
    File_Pool() {
        std::filesystem::create_directory(directory_.path("pool"));
        Host_Services::instance().storage("file", std::make_shared<File_Storage_Backend>());
    }
    ~File_Pool() { Host_Services::instance().storage("file", nullptr); }
    File_Pool(File_Pool const&) = delete;
    File_Pool& operator=(File_Pool const&) = delete;

    std::string url() const { return "file://" + path(); }
    std::string path() const { return directory_.path("pool"); }
    /** The stored bytes of an object; "" when it is not there. */
    std::string stored(std::string const& name) const { return directory_.read("pool/" + name); }
    bool has(std::string const& name) const { return directory_.exists("pool/" + name); }
    /** Puts stored bytes of any kind into the pool. */
    void store(std::string const& name, std::string_view content) const {
        directory_.write("pool/" + name, content);
    }
    /** Files in the pool, those counted too that are never listed. */
    size_t files() const { return files_below(path()); }
    static size_t files_below(std::string const& path) {
        size_t count = 0;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(path))
            count += entry.is_directory() ? 0 : 1;
        return count;
    }

private:
    Temporary_Directory directory_;
};

#endif
