#ifndef GAUSSDB_JOB_SET_NOTES_H
#define GAUSSDB_JOB_SET_NOTES_H

#include <string>

/**
 * Which directories a run has made, or let the database make, below the database's user's own: a
 * killed agent cannot remove them, so the next run of the resource does. The notes are a file of
 * root's for each resource, with a path on each line. One run of a resource at a time uses them.
 */
class Set_Notes {
public:
    /**
     * Removes what an earlier run has left.
     * @param resource_id  names the file
     * @param user         the database's; see Set_Directory
     */
    Set_Notes(std::string const& resource_id, std::string user);
    /** Drops the notes: what was noted has been removed by then, or its removal has been logged. */
    ~Set_Notes();
    Set_Notes(Set_Notes const&) = delete;
    Set_Notes& operator=(Set_Notes const&) = delete;

    /** Notes a directory before it is made. @return false, logged, when it cannot be noted */
    [[nodiscard]] bool add(std::string const& directory);

private:
    void remove_left() const;

    std::string const path_; ///< "" when there can be none
    std::string const user_;
    std::string text_;
};

#endif
