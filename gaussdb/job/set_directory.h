#ifndef GAUSSDB_JOB_SET_DIRECTORY_H
#define GAUSSDB_JOB_SET_DIRECTORY_H

#include "qmrt/file.h"

#include <cstdint>
#include <functional>
#include <string>

/**
 * The directory of one backup set that the database writes, or is to read, by its own SQL. It lies
 * below directories of the database's user, who may put links, devices and other users' files there
 * at any time. So its path is followed with that user's rights alone, what the agent reads must be
 * a regular file of that user, and what the agent writes lies in a directory that is root's until
 * it is complete.
 *
 * For one thread. Functions that return bool have logged a failure.
 */
class Set_Directory {
public:
    /** Visits an open file. @return false to end the walk, which has failed then */
    using Visitor =
        std::function<bool(std::string const& name, File_Descriptor const& file, uint64_t size)>;

    /** @param user  the database's; the directories above the set are followed as this user */
    Set_Directory(std::string path, std::string user)
        : path_(std::move(path)), user_(std::move(user)) {}

    std::string const& path() const { return path_; }

    // a set that the database has written

    /**
     * Visits the files in the order of their names. @return false also for an entry that is not a
     * regular file of the user; the visitor logs its own failures
     */
    [[nodiscard]] bool each_file(Visitor const& visit) const;
    /** Removes the directory with the user's rights; an absent one is a success. */
    [[nodiscard]] bool remove() const;
    /** The same for what a killed agent has left of either kind. */
    [[nodiscard]] bool discard();

    // a set that the database is to read

    /** The bytes that the user can write in the file system, and which file system that is. */
    [[nodiscard]] bool find_room(uint64_t& room, dev_t& device);
    /** Makes the directory anew, empty and root's. What stood in its place is removed. */
    [[nodiscard]] bool make();
    /** The path by which this process reaches a file in what make() has made. */
    std::string inside(std::string const& name) const {
        return "/proc/self/fd/" + std::to_string(made_.get()) + "/" + name;
    }
    /** Gives what make() has made, with its files, to the user. */
    [[nodiscard]] bool hand_over() const;

private:
    enum Parent_Flags { MUST_EXIST, MAKE_IF_ABSENT };
    /** Opens the directory above as the user. */
    [[nodiscard]] bool open_parent(Parent_Flags flags = MAKE_IF_ABSENT);
    [[nodiscard]] bool make_in_parent();
    [[nodiscard]] bool take_back() const;
    std::string name() const;

    std::string const path_;
    std::string const user_;
    File_Descriptor parent_;
    File_Descriptor made_;
};

#endif
