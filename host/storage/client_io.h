#ifndef HOST_STORAGE_CLIENT_IO_H
#define HOST_STORAGE_CLIENT_IO_H

#include "host/storage/compression.h"
#include "host/storage/encryption.h"
#include "host/storage/rate_limits.h"
#include "host/storage/storage_backend.h"
#include "host/storage/storage_clock.h"

#include <cstdint>
#include <string>

/** What the clients of storage pools have in common. */
class Client_IO_Base {
public:
    /** How a client works. Plain values; a client keeps a copy of its own. */
    struct Options {
        Compression_Method compression_method = COMPR_AUTO;
        int compression_level = 0; ///< as of make_encoder(): 0 is the method's usual one
        Encryption_Method encryption = ENCRYPTION_NONE;
        secure_string encryption_key;
        secure_string encryption_iv;
        secure_string access_key; ///< of this host, towards the back end
        /**
         * How long an operation whose connection fails is tried again. 0: never. The operation
         * starts over, on a new connection, after 1, 2, 4 and up to 30 seconds.
         */
        uint64_t max_seconds_retry = 0;
        uint64_t resumption_buffer_size = 0; ///< see Storage_Access
        uint64_t dedup_chunk_size = 0;       ///< for deduplicating back ends; 0: their own choice
        /** Of this client alone: clients that run at once share by set_rate_limits_by_channels().
         */
        Rate_Limits rate_limits;
        /**
         * 1: a transfer runs on its caller's thread. More: it reads ahead on a thread of its own,
         * and zstd compresses on so many.
         */
        unsigned channels = 1;
        Storage_Clock* clock = &Storage_Clock::system(); ///< must live as long as the client

        /** Sets an option of the back end, such as Storage_Access::POOL_URL. Null is ignored. */
        void set_extra_option(char const* name, std::string const& value);

        /** What a back end is given to make a connection. */
        Storage_Access access() const;

        std::map<std::string, std::string> extra_options;
    };

    virtual ~Client_IO_Base() = default;
};

/** How the last operation of a client went. */
class Client_IO : public Client_IO_Base {
public:
    /** Why it failed, for a log; "" when it did not. */
    std::string const& error() const { return result_.text(); }
    /** The kind of its failure. */
    Storage_Result::Code code() const { return result_.code(); }
    /** Bytes of the content that was transferred, as it is outside of the pool. */
    uint64_t original_size() const { return original_size_; }
    /** Bytes that it takes in the pool. */
    uint64_t stored_size() const { return stored_size_; }

protected:
    Storage_Result result_;
    uint64_t original_size_ = 0;
    uint64_t stored_size_ = 0;
};

/** Sets the key by which this host is known to the storage. */
void set_access_key_to_options(Client_IO_Base::Options& options, secure_string const& key);

#endif
