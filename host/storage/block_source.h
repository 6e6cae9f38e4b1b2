#ifndef HOST_STORAGE_BLOCK_SOURCE_H
#define HOST_STORAGE_BLOCK_SOURCE_H

#include "host/storage/storage_backend.h"
#include "qmrt/file.h"
#include "qmrt/thread_helper.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

/** A piece of a transfer in memory of its own. */
struct Block {
    std::unique_ptr<char[]> data;
    size_t capacity = 0;
    size_t size = 0;

    /** Makes room for @a wanted bytes; false when memory is short. */
    [[nodiscard]] bool reserve(size_t wanted);
};

/** Where a transfer reads from, front to back. For one thread at a time. */
class Block_Source {
public:
    virtual ~Block_Source() = default;
    /** Fills @a block; one of 0 bytes is the end. */
    virtual Storage_Result next(Block& block) = 0;
};

/** Asked before bytes are used; false ends the transfer. */
using Block_Gate = std::function<bool(uint64_t bytes)>;

/** What a transfer that was ended on request fails with. */
Storage_Result transfer_canceled();

/**
 * The content of a file, as far as it goes when it is opened: what is appended later is not in it,
 * and a file that becomes shorter meanwhile is a failure. Anything else that can be read, a pipe
 * for one, is read to its end.
 */
class File_Source : public Block_Source {
public:
    File_Source(size_t block_size, Block_Gate gate)
        : block_size_(block_size), gate_(std::move(gate)) {}

    /** @param flags  of open(2), for reading. A directory is refused. */
    Storage_Result open(std::string const& path, int flags);
    /** Bytes that will come; UNKNOWN_SIZE of codec.h when the file does not tell. */
    uint64_t size() const { return size_; }
    Storage_Result next(Block& block) override;

private:
    size_t const block_size_;
    Block_Gate const gate_;
    std::string path_;
    File_Descriptor file_;
    uint64_t size_ = 0;
    uint64_t seen_ = 0;
};

/** The stored bytes of an object. */
class Object_Source : public Block_Source {
public:
    Object_Source(Storage_Reader& object, size_t block_size, Block_Gate gate)
        : object_(object), block_size_(block_size), gate_(std::move(gate)) {}
    Storage_Result next(Block& block) override;

private:
    Storage_Reader& object_;
    size_t const block_size_;
    Block_Gate const gate_;
    uint64_t at_ = 0;
};

/** A text. */
class Text_Source : public Block_Source {
public:
    explicit Text_Source(std::string_view text) : text_(text) {}
    Storage_Result next(Block& block) override;

private:
    std::string_view text_;
};

/** Reads another source ahead on a thread of its own, by up to a few blocks. */
class Read_Ahead : public Block_Source {
public:
    explicit Read_Ahead(Block_Source& source) : source_(source) {}
    ~Read_Ahead() override;

    /** False when no thread could be made. */
    [[nodiscard]] bool start();
    Storage_Result next(Block& block) override;

private:
    static constexpr size_t DEPTH = 4;
    void run();

    Block_Source& source_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Block> ready_;
    std::deque<Block> free_;
    Storage_Result result_;
    bool ended_ = false;
    bool stop_ = false;
    Thread_Helper thread_{THR_NEW_LWP | THR_JOINABLE, ACE_DEFAULT_THREAD_PRIORITY};
};

#endif
