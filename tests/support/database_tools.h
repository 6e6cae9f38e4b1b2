#ifndef TESTS_SUPPORT_DATABASE_TOOLS_H
#define TESTS_SUPPORT_DATABASE_TOOLS_H

#include "gaussdb/common/gaussdb_env.h"
#include "host/process/password_file_entry.h"
#include "tests/support/scoped_env.h"
#include "tests/support/scripted_tools.h"

#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

/**
 * Scripted tools where a cluster's own tools would be: on the PATH of its environment and on the
 * test's, for ssh and its like. Also names an operating-system user that they may run as.
 */
class Database_Tools : public Scripted_Tools {
public:
    Database_Tools()
        : search_path_(path() + ":/usr/bin:/bin"), agent_path_("PATH", search_path_.c_str()) {
        env_.set_env("PATH", search_path_);
        if (geteuid() == 0)
            user_.get("nobody");
        else
            user_.get_by_uid(geteuid());
    }

    GaussDB_Env const& env() const { return env_; }
    GaussDB_Env& env() { return env_; }
    /** Another user than root when the test may change to one. */
    char const* user() const { return user_.name().c_str(); }
    unsigned uid() const { return user_.uid(); }

private:
    std::string search_path_;
    Scoped_Env agent_path_;
    GaussDB_Env env_;
    Password_File_Entry user_;
};

#endif
