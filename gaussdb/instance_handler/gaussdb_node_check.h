#ifndef GAUSSDB_INSTANCE_HANDLER_GAUSSDB_NODE_CHECK_H
#define GAUSSDB_INSTANCE_HANDLER_GAUSSDB_NODE_CHECK_H

#include "gaussdb/common/gaussdb_const.h"
#include "gaussdb/job/gaussdb_non_intrusive_node.h"
#include "host/agent/check_lines.h"
#include "host/agent/database_guide.h"

#include <string>
#include <vector>

/**
 * Looks at a cluster without an agent: the way to its node by ssh, the tools and the version there,
 * and what a backup needs on the node and on this host. Asks, and changes nothing. One object is
 * for one check, on any thread.
 */
class GaussDB_Node_Check : private Check_Lines {
public:
    /** @param record  as "gaussdb.create_instance" makes it; name and version may be absent */
    explicit GaussDB_Node_Check(json_spirit::Object const& record);

    std::vector<Instance_Check> run(Database_Guide::Check_Scope scope);

private:
    [[nodiscard]] bool read_record();
    [[nodiscard]] bool way_in();
    [[nodiscard]] bool version();
    void tools();
    void backup_tool(std::string const& path);
    void nodes();
    void clock();
    void data_service();
    void media_list();
    void metadata_path();

    /** Runs a command on the node. @param output  all that it prints. @return its exit status */
    int ask(std::string const& command, std::string& output) const;
    std::string prefix() const;
    std::string prefix_fault() const;

    json_spirit::Object const record_;
    Non_Intrusive_Access access_;
    GaussDB_Version version_{GAUSSDB_UNKNOWN, 0, 0, 0};
    std::string user_; ///< of the login
    uint16_t client_port_ = 0;
};

#endif
