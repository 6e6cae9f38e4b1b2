#ifndef HOST_STORAGE_CLIENT_IO_EX_H
#define HOST_STORAGE_CLIENT_IO_EX_H

#include "host/storage/block_source.h"
#include "host/storage/client_io.h"
#include "host/storage/codec.h"
#include "host/storage/rate_limiter.h"

#include <atomic>
#include <functional>
#include <string_view>

/**
 * A client of one folder of a pool, through the back end that Host_Services has for the URL's
 * scheme. Objects are named as in storage_backend.h. Content is packed on its way into the pool
 * and unpacked, and its checksums verified, on its way out, as Options::compression_method says;
 * what is stored as it comes has no checksum.
 *
 * An operation that is false has said why in error(), has logged nothing, and has changed nothing:
 * no part of an object stays in the pool and no part of a file on the disk. What a transfer keeps
 * in memory does not grow with its size. A client is for one thread at a time.
 */
class Client_IO_Ex : public Client_IO {
public:
    /**
     * Called between the blocks of a transfer, and while it waits for its rate limit, with the
     * bytes of content so far. False ends the transfer, which has failed then.
     */
    using Progress = std::function<bool(uint64_t bytes)>;

    /** get_contents() refuses more than so many bytes, unless it is told otherwise. */
    static constexpr uint64_t MAX_CONTENTS = 64 * 1024 * 1024;

    /**
     * Connects to a folder of a pool, in place of an earlier connection. The folder need not be
     * there, the pool must: see Storage_Backend::connect().
     */
    [[nodiscard]] bool connect(char const* uri, Options const& options);
    [[nodiscard]] bool connected() const { return connection_ != nullptr; }

    /** Reads a whole object; @a contents is unchanged on a failure. */
    [[nodiscard]] bool get_contents(char const* name, std::string& contents,
                                    uint64_t max_size = MAX_CONTENTS);
    /** Writes a whole object. @param replace  false: one that is there is an EXISTS failure */
    [[nodiscard]] bool put_contents(char const* name, std::string_view contents,
                                    bool replace = true);

    /**
     * Reads an object into a local file, which appears whole, synced and verified or not at all.
     * @param flags        as of open(2), 0x80241 for one: see Local_File::open()
     * @param buffer_size  the least to read at a time; the transfer may choose more
     */
    [[nodiscard]] bool get_file(char const* name, char const* local, int flags, size_t buffer_size,
                                Progress const& progress = nullptr);
    /**
     * Writes a local file into an object. A file that becomes shorter meanwhile is a failure; what
     * is appended meanwhile is not in the object.
     * @param flags  as of open(2), 0x80000 for one, to open the file for reading
     */
    [[nodiscard]] bool put_file(char const* local, char const* name, bool replace, int flags,
                                size_t buffer_size, Progress const& progress = nullptr);

    /** Reads up to @a size bytes of an object's content from @a offset. */
    [[nodiscard]] bool get_range(char const* name, uint64_t offset, size_t size,
                                 std::string& contents);

    [[nodiscard]] bool remove(char const* name);
    /** @param entry  sizes are those in the pool, see content_size() */
    [[nodiscard]] bool stat(char const* name, Storage_Entry& entry);
    /** @param folder  null or "" for the connection's own */
    [[nodiscard]] bool list(char const* folder, std::vector<Storage_Entry>& entries);
    /** The size of an object's content. May have to read all of a zstd object of somebody else. */
    [[nodiscard]] bool content_size(char const* name, uint64_t& size);

    Options const& options() const { return options_; }

private:
    using Sink = Codec_Sink;

    /** Runs an operation on the connection, again on new ones as long as the options say. */
    [[nodiscard]] bool run(std::function<Storage_Result()> const& operation);
    Storage_Result make_connection();

    /** Feeds all of a source through a codec. */
    Storage_Result pump(Block_Source& source, Codec& codec, Sink const& sink, bool content_is_input,
                        Progress const& progress);
    Storage_Result put(Block_Source& source, std::string const& name, bool replace, uint64_t size,
                       Progress const& progress);
    Storage_Result get(std::string const& name, size_t block_size, Sink const& sink,
                       Progress const& progress);
    /**
     * Runs a transfer, its source read ahead when the options want that.
     * @param stop  set when the transfer is over, so that reading ahead ends soon
     */
    Storage_Result with_read_ahead(Block_Source& source, std::atomic<bool>& stop,
                                   std::function<Storage_Result(Block_Source&)> const& transfer);
    /** The gate of a transfer's source: a limiter that can be told to give up waiting. */
    Block_Gate source_gate(std::atomic<bool> const& stop, Progress const& progress);
    /** True unless the caller of a transfer wants it to end. */
    [[nodiscard]] bool go_on(Progress const& progress) const {
        return !progress || progress(original_size_);
    }
    size_t block_size(size_t wanted) const;

    Options options_;
    std::string uri_;
    std::shared_ptr<Storage_Connection> connection_;
    std::unique_ptr<Rate_Limiter> source_limiter_;
    std::unique_ptr<Rate_Limiter> destination_limiter_;
};

#endif
