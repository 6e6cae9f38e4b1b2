#include "host/storage/file_storage_backend.h"
#include "tests/contract/storage_backend_contract.h"
#include "tests/support/temporary_directory.h"

namespace {

class File_Storage_World : public Storage_World {
public:
    File_Storage_World() { std::filesystem::create_directory(directory_.path("pool")); }
    Storage_Backend& backend() override { return backend_; }
    std::string url() override { return "file://" + directory_.path("pool"); }
    std::string missing_url() override { return "file://" + directory_.path("missing"); }
    bool is_empty() override { return std::filesystem::is_empty(directory_.path("pool")); }

private:
    Temporary_Directory directory_;
    File_Storage_Backend backend_;
};

INSTANTIATE_TEST_SUITE_P(file, Storage_Backend_Contract,
                         testing::Values([]() -> std::unique_ptr<Storage_World> {
                             return std::make_unique<File_Storage_World>();
                         }));

} // namespace
