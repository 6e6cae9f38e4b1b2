#include "gaussdb/common/user_rights.h"

#include "host/process/password_file_entry.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"

#include <cerrno>

bool with_rights_of(char const* user,
                    std::function<bool(Password_File_Entry const& entry)> const& work) {
    Password_File_Entry entry;
    if (entry.get(user) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to look up the user %s, errno=%d, %m\n", user, errno);
        return false;
    }
    As_File_User const rights(entry.uid());
    if (!rights)
        QMRT_LOG(LM_ERROR, "Failed to take the rights of the user %s, errno=%d, %m\n", user, errno);
    return rights && work(entry);
}
