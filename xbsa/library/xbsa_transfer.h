#ifndef XBSA_LIBRARY_XBSA_TRANSFER_H
#define XBSA_LIBRARY_XBSA_TRANSFER_H

#include "host/storage/codec.h"
#include "host/storage/object_content.h"
#include "host/storage/rate_limiter.h"
#include "xbsa/library/xbsa_digest.h"
#include "xbsa/library/xbsa_object.h"
#include "xbsa/library/xbsa_result.h"

#include <functional>
#include <memory>

/** The limits of a session: on what comes from its source, and on what goes to its destination. */
struct Xbsa_Limiters {
    Xbsa_Limiters(Rate_Limits const& limits, Storage_Clock& clock)
        : source(limits.src, clock), destination(limits.dest, clock) {}
    Rate_Limiter source;
    Rate_Limiter destination;
    /** Asked before so many bytes go to the pool: whether it has room. Empty: it has. */
    std::function<Storage_Result(size_t bytes)> room;
};

/** How data are packed into the pool. */
struct Xbsa_Packing {
    Compression_Method method = COMPR_NONE; ///< not COMPR_AUTO
    int level = 0;
};

/**
 * One object on its way into the pool, piece by piece. What it keeps in memory does not grow with
 * it. Nothing of it is in the pool before commit(), and nothing stays of one that is not committed.
 * For one thread at a time.
 */
class Xbsa_Upload {
public:
    /** @param limiters  must live as long as the upload */
    Xbsa_Upload(Xbsa_Object object, Xbsa_Limiters& limiters)
        : object_(std::move(object)), limiters_(limiters) {}

    Xbsa_Result begin(Storage_Connection& connection, std::string const& name,
                      Xbsa_Packing const& packing);
    /** After a failure of this or of finish(), the upload may only be destroyed. */
    Xbsa_Result send(void const* data, size_t size);
    /** All has come: object() tells sizes and digest then. */
    Xbsa_Result finish();
    /** Puts the data into their place. */
    Xbsa_Result commit();

    Xbsa_Object const& object() const { return object_; }
    [[nodiscard]] bool committed() const { return committed_; }

private:
    Codec_Sink sink();

    Xbsa_Object object_;
    Xbsa_Limiters& limiters_;
    std::unique_ptr<Storage_Writer> writer_;
    std::unique_ptr<Codec> encoder_;
    Xbsa_Digest digest_;
    bool committed_ = false;
};

/**
 * One object on its way out of the pool. Its last bytes are not given out before all of it has been
 * verified: the checksums in its stored form, its size, and the digest of its content. For one
 * thread at a time.
 */
class Xbsa_Download {
public:
    /** @param limiters  must live as long as the download */
    Xbsa_Download(Xbsa_Object object, Xbsa_Limiters& limiters)
        : object_(std::move(object)), limiters_(limiters) {}

    Xbsa_Result begin(Storage_Connection& connection, std::string const& name);
    /** Reads up to @a size bytes. @param got  0 is the end; then ended() */
    Xbsa_Result receive(void* buffer, size_t size, size_t& got);

    Xbsa_Object const& object() const { return object_; }
    /** All has been read and is as it was sent. */
    [[nodiscard]] bool ended() const { return ended_; }

private:
    Xbsa_Result verify_end();
    Xbsa_Result damaged(std::string const& why);

    Xbsa_Object object_;
    Xbsa_Limiters& limiters_;
    std::unique_ptr<Object_Content> content_;
    Xbsa_Digest digest_;
    uint64_t at_ = 0;
    bool ended_ = false;
    Xbsa_Result failure_;
};

#endif
