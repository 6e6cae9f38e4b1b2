#ifndef AGENT_STORAGE_WRITE_JOURNAL_H
#define AGENT_STORAGE_WRITE_JOURNAL_H

#include "qmrt/file.h"

#include <compare>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/**
 * An object of a pool, by the pool's directory and its name from there on. A name with "/" at its
 * end is that of a folder with all that is in it.
 */
struct Pool_Object {
    std::string pool_path;
    std::string name;

    auto operator<=>(Pool_Object const&) const = default;
    bool operator==(Pool_Object const&) const = default;
};

/**
 * Tells whether an object belongs to a set that is complete.
 * @param named  gets the answer
 * @return false when it cannot be told now
 */
using Set_Question = std::function<bool(Pool_Object const& object, bool& named)>;

/**
 * Which objects this agent began to write and which of them no complete set has yet: what a death
 * at any moment would leave in the pools. An object is noted, on stable storage, before anything of
 * it is in its pool.
 *
 * The file has a line for each change, "+ POOL NAME ;" and "- POOL NAME ;", both escaped as in a
 * URL (RFC 3986); a line without its end was not written. One process at a time may use a file. All
 * operations may be called on any thread.
 */
class Write_Journal {
public:
    /**
     * Opens the file, or makes it with mode 0600, and reads what it has.
     * @param error  when null is returned: why
     */
    static std::unique_ptr<Write_Journal> open(std::string const& path, std::string& error);

    /**
     * Notes an object that is about to be written. Each success wants one end().
     * @param error  why it could not be noted; nothing may be written then
     */
    [[nodiscard]] bool begin(Pool_Object const& object, std::string& error);
    /**
     * The writer is done.
     * @param may_exist  false: it left nothing, and the note goes with the last such writer
     */
    void end(Pool_Object const& object, bool may_exist);
    /** Notes what is to be removed, in whatever way it came to be there. */
    [[nodiscard]] bool note(Pool_Object const& object, std::string& error);
    /**
     * Makes everybody wait who wants to write an object that is noted, until release().
     * @return false, with nothing held, when somebody writes it already
     */
    [[nodiscard]] bool hold(Pool_Object const& object);
    void release(Pool_Object const& object);
    /** Drops the note of an object that was removed, unless somebody is writing it again. */
    void removed(Pool_Object const& object);

    /**
     * Drops the notes of objects that belong to complete sets, to be called now and then: after a
     * run. A question that cannot be answered leaves its note.
     */
    void settle(Set_Question const& question);

    /** What is noted and written by nobody now, in order. */
    std::vector<Pool_Object> left() const;
    std::string const& path() const { return path_; }

private:
    struct Note {
        unsigned writers = 0;
        bool may_exist = false;
        bool held = false;  ///< nobody may begin to write it now
        uint64_t begun = 0; ///< by which a note is known that was made anew meanwhile
    };

    explicit Write_Journal(std::string path) : path_(std::move(path)) {}
    [[nodiscard]] bool read(std::string& error);
    [[nodiscard]] bool append(char sign, Pool_Object const& object, bool durable);
    /** What a file has that holds the notes and nothing else. */
    std::string compact_content() const;
    [[nodiscard]] bool is_compact() const;
    /** Writes the file anew with the notes that there are. */
    [[nodiscard]] bool compact();
    void erase(std::map<Pool_Object, Note>::iterator note);

    std::string const path_;
    mutable std::mutex mutex_;
    std::condition_variable released_;
    File_Descriptor file_;
    std::map<Pool_Object, Note> notes_;
    size_t lines_ = 0;
    bool torn_ = false; ///< the last line may not have its end
    uint64_t begun_ = 0;
};

#endif
