#ifndef GAUSSDB_COMMON_USER_RIGHTS_H
#define GAUSSDB_COMMON_USER_RIGHTS_H

#include <functional>

class Password_File_Entry;

/**
 * Does @a work on files with the rights of a user, who decides where links on their paths lead; see
 * As_File_User. Thread-safe.
 * @return false, logged, without calling @a work, for a user who is unknown or whose rights cannot
 *         be had; else what @a work returns
 */
[[nodiscard]] bool
with_rights_of(char const* user, std::function<bool(Password_File_Entry const& entry)> const& work);

#endif
