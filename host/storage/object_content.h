#ifndef HOST_STORAGE_OBJECT_CONTENT_H
#define HOST_STORAGE_OBJECT_CONTENT_H

#include "host/storage/codec.h"

#include <string>

/**
 * The method by which an object is to be read: the one asked for, or for COMPR_AUTO what its name
 * or else its mark says.
 */
Storage_Result method_to_read(Storage_Reader& object, std::string const& name,
                              Compression_Method asked, Compression_Method& method);

/** The method by which an object is to be written: for COMPR_AUTO what its name says. */
Compression_Method method_to_write(std::string const& name, Compression_Method asked);

/**
 * The content of a stored object, to be read at any place. What is packed is unpacked from its
 * beginning on: reading forward, or back by a few MiB, costs nothing more; reading further back
 * begins anew. Memory does not grow with the object.
 *
 * The last byte is not given out before all checksums have been verified. For one thread at a time;
 * read_at() of what is not packed is thread-safe.
 */
class Object_Content {
public:
    /** Bytes that reading may go back at no cost, unless the constructor is told otherwise. */
    static constexpr size_t WINDOW = 8 * 1024 * 1024;

    /** @param asked  as Client_IO_Base::Options::compression_method */
    static Storage_Result open(Storage_Connection& connection, std::string const& name,
                               Compression_Method asked, std::unique_ptr<Object_Content>& content);
    /**
     * Takes an object that is open.
     * @param method  not COMPR_AUTO
     * @param window  bytes that reading may go back at no cost. Who only reads forward wants 0:
     * what is unpacked is then still in the processor's cache when it is given out
     */
    Object_Content(std::unique_ptr<Storage_Reader> object, Compression_Method method,
                   size_t window = WINDOW);

    /** May have to unpack all of it, see quick_original_size(). */
    Storage_Result size(uint64_t& size);
    [[nodiscard]] bool is_packed() const { return method_ != COMPR_NONE; }
    /** Reads up to @a size bytes; fewer only at the end. */
    Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got);

private:
    /** Unpacks until there is something behind @a end, or all. */
    Storage_Result unpack_beyond(uint64_t end);
    Storage_Result unpack_some(Codec_Sink const& sink);
    Storage_Result read_piece(uint64_t offset, char* to, size_t size, size_t& got);
    void begin_anew();

    std::unique_ptr<Storage_Reader> const object_;
    Compression_Method const method_;
    size_t const kept_; ///< of the window, at least
    uint64_t size_ = UNKNOWN_SIZE;
    std::unique_ptr<Codec> decoder_;
    std::string in_;        ///< stored bytes
    size_t used_ = 0;       ///< how many of them the decoder has got
    uint64_t read_ = 0;     ///< stored bytes that have been read
    std::string window_;    ///< the latest of the content
    uint64_t unpacked_ = 0; ///< bytes of content up to the end of the window
    uint64_t wanted_ = 0;   ///< where the content that may not be dropped begins
    bool finished_ = false;
    Storage_Result failure_;
};

#endif
