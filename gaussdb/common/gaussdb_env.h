#ifndef GAUSSDB_COMMON_GAUSSDB_ENV_H
#define GAUSSDB_COMMON_GAUSSDB_ENV_H

#include "json_spirit/value.h"

#include <map>
#include <string>

class ACE_Process_Options;

/**
 * The environment variables under which a cluster's own tools run, as its operating-system user's
 * shell profile gives them. The agent itself does not run in that environment; each child gets it.
 *
 * A value: copied freely, built by one thread, then only read.
 */
class GaussDB_Env {
public:
    /** In ascending byte order of the names. */
    using map_type = std::map<std::string, std::string>;

    /**
     * Enters PATH and LD_LIBRARY_PATH from the agent's own environment, with GAUSSDB_BIN_PATH and
     * GAUSSDB_LD_LIBRARY_PATH before them, then reads the profile: a line of it may refer to them.
     * @return false when the profile is null or "", or cannot be read; logged here.
     */
    [[nodiscard]] bool init(char const* profile);

    /**
     * Reads the lines "export NAME=value" of a shell profile. "$NAME" in a value stands for what an
     * earlier line or init() entered; a line that refers to an unknown name is dropped. No shell
     * runs: quotes, "${NAME}" and anything else stay as they are.
     *
     * A line without a name, with a NUL, or whose value grows beyond 128 KiB is dropped, and so are
     * lines that would make all variables longer than 1 MiB or that come after a great number of
     * references; one warning tells how many.
     * @return false when the file cannot be read, is larger than 1 MiB, is not a regular file, or
     *         is a symbolic link in a directory that others than root can write; logged here.
     */
    [[nodiscard]] bool read(char const* profile);

    /**
     * Hands every entry to a child's options as set_foreign_env() does: such a child never runs as
     * root.
     * @return false, after an error line, when an entry does not fit. No start takes the options.
     */
    [[nodiscard]] bool set_opts(ACE_Process_Options& opts) const;

    /** Sets or replaces one entry. */
    void set_env(std::string const& key, std::string const& value);
    /** Sets every member that is a plain string and has a name; all others are passed over. */
    void set_env(json_spirit::Object const& obj);

    /** The value, or "" when there is none; never null. Valid as long as the entry. */
    char const* get_value(char const* key) const;
    map_type const& get_env() const { return vars_; }

    /**
     * Sets LD_LIBRARY_PATH to "<value>/lib:" and the agent's own; what was entered before is gone.
     * Does nothing when the agent has none.
     */
    void prepend_ld_library_path(char const* value);
    /** The same for PATH, with "<value>/bin:". */
    void prepend_bin_path(char const* value);

    /** Installation directory of the database. */
    char const* gauss_home() const { return get_value("GAUSSHOME"); }
    /** Installation directory of Roach. */
    char const* roach_home() const { return get_value("ROACH_HOME"); }
    /** Directory of the cluster's tool scripts. */
    char const* gp_home() const { return get_value("GPHOME"); }

private:
    map_type vars_;
};

#endif
