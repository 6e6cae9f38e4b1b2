#ifndef GAUSSDB_JOB_SET_HISTORY_H
#define GAUSSDB_JOB_SET_HISTORY_H

#include "host/job/job_definition_type.h"

#include <string>

/**
 * Which sets a database that makes its own backups has made last, as far as this host knows: the
 * database builds the next one on them, whether they are still there or not. A file of root's for
 * each resource, with the uuid of the last full set on its first line and that of the last set on
 * the second. One run of a resource at a time uses it.
 */
class Set_History {
public:
    /** @param resource_id  names the file */
    explicit Set_History(std::string const& resource_id);

    /** The uuid of the set that the database builds such a set on; "" when that is unknown, and
     *  for a full one. */
    std::string base_of(Job_Definition_Subtype subtype) const;

    /**
     * Notes the set that a statement is about to make. It stays noted when the statement fails: the
     * database may have made the set before its client ended.
     * @return false, logged, when it cannot be noted
     */
    [[nodiscard]] bool add(Job_Definition_Subtype subtype, std::string const& uuid);

private:
    std::string const path_;
    std::string full_; ///< uuids
    std::string last_;
};

#endif
