#ifndef HOST_STORAGE_STORAGE_BACKEND_H
#define HOST_STORAGE_STORAGE_BACKEND_H

#include "json_spirit/secure_string.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

/** How a storage operation ended: success, or a kind of failure and its text for a log. */
class [[nodiscard]] Storage_Result {
public:
    enum Code {
        OK,
        NOT_FOUND,
        EXISTS,
        BAD_NAME,    ///< a name or URL that no operation takes, or that leads out of the pool
        NO_SPACE,    ///< storage full, or a quota used up
        UNREACHABLE, ///< the connection failed; the same may succeed on a new one
        FAILED       ///< anything else
    };

    Storage_Result() = default; ///< success
    Storage_Result(Code code, std::string text) : code_(code), text_(std::move(text)) {}

    explicit operator bool() const { return code_ == OK; }
    Code code() const { return code_; }
    /** Says what failed with which object and why; "" on success. No secrets are in it. */
    std::string const& text() const { return text_; }

private:
    Code code_ = OK;
    std::string text_;
};

/** An object, or a folder, of a pool. */
struct Storage_Entry {
    std::string name;    ///< without the folder that it was listed from
    uint64_t size = 0;   ///< stored bytes; 0 for a folder
    time_t modified = 0; ///< when it was committed
    /** Nanoseconds since the epoch: when it last changed in any way, by the pool's clock. */
    int64_t changed = 0;
    bool is_folder = false;
};

/** One object being read. read_at() may be called on several threads at once. */
class Storage_Reader {
public:
    virtual ~Storage_Reader() = default;

    virtual Storage_Entry const& entry() const = 0;
    /**
     * Reads up to @a size bytes from @a offset.
     * @param got  bytes read: less than @a size only at the end of the object, 0 behind it
     */
    virtual Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got) = 0;
};

/**
 * One object being written. Nothing of it is visible before commit(), and nothing of it stays when
 * it is not committed. For one thread at a time.
 */
class Storage_Writer {
public:
    /** Aborts what was not committed. */
    virtual ~Storage_Writer() = default;

    /** Appends all of @a data. After a failure only abort() has a meaning. */
    virtual Storage_Result write(void const* data, size_t size) = 0;
    /**
     * Makes the object appear, whole and on stable storage, in place of one of the same name. On a
     * failure there is no new object, and an old one is still there.
     */
    virtual Storage_Result commit() = 0;
    /** Drops what was written. Without effect after commit(). */
    virtual void abort() = 0;
    /**
     * Opens what has been written so far to read it, before commit() or abort(). The reader must
     * not be used after either, nor after the next write().
     */
    virtual Storage_Result reread(std::unique_ptr<Storage_Reader>& reader) = 0;
};

/**
 * A connection to one pool folder. Objects have names below it, with "/" between their parts; a
 * folder exists as long as there is an object in it. A name that breaks the rules of
 * check_object_name() is BAD_NAME in every operation. All operations may be called on several
 * threads at once. They log nothing.
 * Readers and writers may outlive the connection.
 */
class Storage_Connection {
public:
    virtual ~Storage_Connection() = default;

    /**
     * Begins to write an object.
     * @param replace  false: an object of that name is EXISTS, now or at commit()
     */
    virtual Storage_Result create(std::string const& name, bool replace,
                                  std::unique_ptr<Storage_Writer>& writer) = 0;
    /** Opens an object to read it; a folder is NOT_FOUND. */
    virtual Storage_Result open(std::string const& name,
                                std::unique_ptr<Storage_Reader>& reader) = 0;
    /** Tells about an object or a folder. */
    virtual Storage_Result stat(std::string const& name, Storage_Entry& entry) = 0;
    /** Removes an object, and the folders that are empty then; a folder is NOT_FOUND. */
    virtual Storage_Result remove(std::string const& name) = 0;
    /**
     * Gives an object another name, in place of an object that has it, and removes the folders that
     * are empty then. A folder is NOT_FOUND at @a from and EXISTS at @a to.
     */
    virtual Storage_Result rename(std::string const& from, std::string const& to) = 0;
    /**
     * Lists what stands directly in a folder, by name in byte order; unfinished objects are not in
     * it. @param folder  "" for the pool folder itself. A folder that does not exist is NOT_FOUND.
     */
    virtual Storage_Result list(std::string const& folder, std::vector<Storage_Entry>& entries) = 0;
    /** The same, but sizes and times may be 0: does not look at each object where it need not. */
    virtual Storage_Result list_names(std::string const& folder,
                                      std::vector<Storage_Entry>& entries) {
        return list(folder, entries);
    }
    /** Bytes that the pool can hold and that are free in it; FAILED when the back end cannot tell.
     */
    virtual Storage_Result space(uint64_t& total, uint64_t& available) = 0;
};

/** What a connection is made with, besides its URL. */
struct Storage_Access {
    secure_string access_key;
    std::map<std::string, std::string> extra_options;

    uint64_t resumption_buffer_size = 0; ///< bytes a back end may keep to resume; 0: its own choice
    uint64_t dedup_chunk_size = 0;       ///< of deduplicating back ends; 0: its own choice

    /** Extra option: the URL of the whole pool that the URL of a connection lies in. */
    static constexpr char POOL_URL[] = "pool_url";
    /** Its value, "" when it is not set. */
    std::string pool_url() const;

    /** Extra option of connections whose objects are written once and read once, front to back. */
    static constexpr char ACCESS_MODE[] = "access_mode";
    static constexpr char ACCESS_MODE_D2T[] = "d2t";
    /** True when the objects need not be kept in the memory of the machine. */
    [[nodiscard]] bool d2t() const;
};

/** Access to pool data under one URL scheme. Operations may be called on several threads at once.
 */
class Storage_Backend {
public:
    virtual ~Storage_Backend() = default;

    /**
     * Connects to a folder of a pool. The folder comes to be with the first object in it, but the
     * pool does not: access.pool_url(), or @a url itself when that is "", has to be there, else the
     * result is UNREACHABLE. So a pool that is not mounted is never made anew in the place where
     * it should be. A @a url outside of access.pool_url() is BAD_NAME.
     */
    virtual Storage_Result connect(std::string const& url, Storage_Access const& access,
                                   std::shared_ptr<Storage_Connection>& connection) = 0;
};

/** Parts of names that begin with this belong to unfinished objects. */
constexpr char UNFINISHED_PREFIX[] = ".zenbrak3-";

/**
 * The rules for the name of an object: those of names::fault_of_relative_path(), and no part begins
 * with UNFINISHED_PREFIX. The catalog keeps such names, so they are text.
 * @return BAD_NAME with a text that shows the name, or success
 */
Storage_Result check_object_name(std::string const& name);

/** The parts of a name between its slashes. */
std::vector<std::string> split_object_name(std::string const& name);

#endif
