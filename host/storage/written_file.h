#ifndef HOST_STORAGE_WRITTEN_FILE_H
#define HOST_STORAGE_WRITTEN_FILE_H

#include "host/storage/codec.h"
#include "host/storage/object_content.h"
#include "qmrt/file.h"

#include <memory>
#include <string>

/** How a file that is written through a mount becomes an object. */
struct Written_File_Settings {
    int compression_level = 0;
    std::string spool_directory = "/tmp"; ///< for what cannot be streamed into the pool
};

/**
 * A file of a mount that is open to be written. As long as it is written from front to back it is
 * streamed into a new object, which appears at store(). When it is written in another way, or read,
 * its content goes on in a spool file without a name, which becomes the object at store().
 *
 * After a failure to write or store, every operation gives that failure again. For one thread at a
 * time.
 */
class Written_File {
public:
    /** A file that is there, to be changed. @param object  its stored name */
    static std::shared_ptr<Written_File> of_object(std::shared_ptr<Storage_Connection> connection,
                                                   std::string const& object, uint64_t size,
                                                   Written_File_Settings const& settings);
    /** A new and empty file; it is stored, even empty, at the next store(). */
    static std::shared_ptr<Written_File> of_nothing(std::shared_ptr<Storage_Connection> connection,
                                                    std::string const& object,
                                                    Written_File_Settings const& settings);
    ~Written_File();

    std::string const& object() const { return object_; }
    uint64_t size() const { return size_; }
    time_t modified() const { return modified_; }
    /** True when there is something that store() would store. */
    [[nodiscard]] bool is_dirty() const { return dirty_ && failure_; }

    Storage_Result write(uint64_t offset, void const* data, size_t size);
    Storage_Result read(uint64_t offset, void* buffer, size_t size, size_t& got);
    Storage_Result truncate(uint64_t size);
    /** Makes the object hold what has been written, whole and on stable storage. */
    Storage_Result store();
    /** The object has another name now; only when the file is not dirty. */
    void renamed(std::string const& object) { object_ = object; }
    /**
     * The file is about to be removed: nothing of it will be stored any more, and what is in it
     * stays to be read as long as it is open.
     */
    void forget();

private:
    Written_File(std::shared_ptr<Storage_Connection> connection, std::string object,
                 Written_File_Settings settings)
        : connection_(std::move(connection)),
          object_(std::move(object)),
          settings_(std::move(settings)) {}

    Compression_Method method() const { return compression_of_name(object_); }
    Storage_Result write_i(uint64_t offset, void const* data, size_t size);
    Storage_Result store_i();
    /** Notes a failure for good. */
    Storage_Result keep(Storage_Result result);

    Storage_Result begin_stream();
    Storage_Result feed_stream(void const* data, size_t size);
    Storage_Result end_stream();
    void drop_stream();

    /** Moves the content into a spool file, wherever it is. */
    Storage_Result spool();
    Storage_Result open_spool();
    Storage_Result copy_to_spool(Object_Content& content);
    Storage_Result store_spool();

    std::shared_ptr<Storage_Connection> const connection_;
    std::string object_;
    Written_File_Settings const settings_;
    uint64_t size_ = 0;
    time_t modified_ = 0;
    bool dirty_ = false;
    bool forgotten_ = false;
    Storage_Result failure_;

    std::unique_ptr<Storage_Writer> writer_; ///< of the stream, while there is one
    std::unique_ptr<Codec> encoder_;
    File_Descriptor spool_;
};

#endif
