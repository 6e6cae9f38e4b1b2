#ifndef GAUSSDB_INSTANCE_HANDLER_GAUSSDB_HOST_CHECK_H
#define GAUSSDB_INSTANCE_HANDLER_GAUSSDB_HOST_CHECK_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "host/agent/check_lines.h"
#include "host/agent/instance.h"

#include <string>
#include <vector>

/**
 * Looks at what a backup of an instance needs on this host and on the other hosts of its cluster.
 * Runs tools as the cluster's user, and changes nothing. What it reads of that user's files is read
 * with that user's rights. One object is for one check, on any thread.
 */
class GaussDB_Host_Check : private Check_Lines {
public:
    /**
     * @param instance  with the accounts to be looked at alone; must outlive this object
     * @param flavour   a GAUSSDB_VERSION
     */
    GaussDB_Host_Check(Instance const& instance, int flavour);

    /** State, user, tools, versions, account, and the other hosts of a cluster. */
    std::vector<Instance_Check> instance();
    /**
     * The link to the XBSA library, the directory of policies and metadata, and the ways to them.
     * @param writer  operating-system user who writes to the pool; "" if there is none
     */
    std::vector<Instance_Check> places(std::string const& writer);

private:
    void state();
    void user_and_tools();
    void tools(std::string const& user);
    void backup_tool();
    void version();
    void known_version(std::string const& found);
    void account();
    void hosts();
    void other_host(GaussDB_Device_Info const& device);
    void library_link();
    void link_of_cluster();
    void link_found(std::string const& link);
    void policies();
    void passages(std::string const& user);

    /** Runs a tool as the cluster's user in the cluster's environment. @return its exit status */
    int ask(char const* command, std::string& output) const;

    Instance const& instance_;
    int const flavour_;
    std::string user_;
    GaussDB_Cluster_Handler_var cluster_; ///< null if it is unknown
    bool may_act_ = false;                ///< as the cluster's user
};

/** Judges another host's clock; parameters as for clock_difference(). */
Instance_Check clock_line(std::string const& host, std::string const& printed, double before,
                          double after);

#endif
