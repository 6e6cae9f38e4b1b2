#include "host/mtf/pool_store.h"

#include "host/mtf/scratch_file.h"
#include "host/storage/pool_info.h"
#include "qmrt/format.h"
#include "qmrt/log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace MTF {

namespace {
constexpr size_t BLOCK_SIZE = 1024 * 1024;
}

class Pool_Store::Pool_Output : public Output {
public:
    Pool_Output(Pool_Store& store, std::string name, Scratch_File file)
        : store_(store), name_(std::move(name)), file_(std::move(file)) {}

    bool write(void const* data, size_t size) override {
        return fwrite(data, 1, size, file_.get()) == size || fail();
    }

    bool commit() override {
        if (fflush(file_.get()) != 0)
            return fail();
        // the scratch file has no name of its own
        snprintf_t<64> const path("/proc/self/fd/%d", fileno(file_.get()));
        if (store_.client_.put_file(path, name_.c_str(), true, O_RDONLY | O_CLOEXEC, BLOCK_SIZE,
                                    [this](uint64_t) { return store_.go_on_(); }))
            return true;
        store_.error_ = store_.client_.error();
        return false;
    }

private:
    bool fail() {
        store_.error_ = string_sprintf("temporary file: %s", strerror(errno));
        return false;
    }

    Pool_Store& store_;
    std::string const name_;
    Scratch_File const file_;
};

class Pool_Store::Pool_Input : public Input {
public:
    Pool_Input(Pool_Store& store, std::string name) : store_(store), name_(std::move(name)) {}

    ssize_t read(void* buffer, size_t size) override {
        if (used_ == block_.size()) {
            used_ = 0;
            if (!store_.client_.get_range(name_.c_str(), offset_, BLOCK_SIZE, block_)) {
                store_.error_ = store_.client_.error();
                block_.clear();
                return -1;
            }
            offset_ += block_.size();
        }
        size = std::min(size, block_.size() - used_);
        memcpy(buffer, block_.data() + used_, size);
        used_ += size;
        return static_cast<ssize_t>(size);
    }

private:
    Pool_Store& store_;
    std::string const name_;
    uint64_t offset_ = 0; ///< behind the block
    std::string block_;
    size_t used_ = 0; ///< of the block
};

std::unique_ptr<Pool_Store> Pool_Store::connect(std::string const& pool_uuid,
                                                std::string const& device_uuid, bool for_restore,
                                                Client_IO_Base::Options options,
                                                std::function<bool()> go_on) {
    Pool_Info pool;
    if (!get_pool_info(pool_uuid, device_uuid.c_str(), pool, for_restore, options.max_seconds_retry,
                       *options.clock))
        return nullptr;
    if (!set_options_by_pool(options, pool)) {
        QMRT_LOG(LM_ERROR, "Invalid encryption setting of pool %s\n", pool_uuid.c_str());
        return nullptr;
    }
    options.compression_method = COMPR_NONE;
    std::unique_ptr<Pool_Store> store(new Pool_Store(std::move(go_on)));
    if (store->client_.connect(pool.url.c_str(), options))
        return store;
    QMRT_LOG(LM_ERROR, "Failed to connect %s, %s\n", pool.url.c_str(),
             store->client_.error().c_str());
    return nullptr;
}

std::unique_ptr<Archive_Store::Output> Pool_Store::create(std::string const& name) {
    Scratch_File file = open_scratch_file();
    if (file)
        return std::make_unique<Pool_Output>(*this, name, std::move(file));
    error_ = string_sprintf("no temporary file: %s", strerror(errno));
    return nullptr;
}

std::unique_ptr<Archive_Store::Input> Pool_Store::open(std::string const& name,
                                                       Presence& presence) {
    presence = look(name);
    if (presence == PRESENT)
        return std::make_unique<Pool_Input>(*this, name);
    return nullptr;
}

Archive_Store::Presence Pool_Store::look(std::string const& name) {
    Storage_Entry entry;
    if (client_.stat(name.c_str(), entry))
        return entry.is_folder ? ABSENT : PRESENT;
    error_ = client_.error();
    return client_.code() == Storage_Result::NOT_FOUND ? ABSENT : UNKNOWN;
}

bool Pool_Store::remove(std::string const& name) {
    if (client_.remove(name.c_str()) || client_.code() == Storage_Result::NOT_FOUND)
        return true;
    error_ = client_.error();
    return false;
}

} // namespace MTF
