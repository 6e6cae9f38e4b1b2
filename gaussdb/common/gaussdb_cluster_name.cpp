#include "gaussdb/common/gaussdb_cluster_name.h"

#include "qmrt/log.h"
#include "qmrt/names.h"

bool is_cluster_file_name(std::string const& name) {
    std::string const fault = names::fault_of_instance(name);
    if (fault.empty())
        return true;
    QMRT_LOG(LM_ERROR, "'%s' cannot be a cluster's name: it %s\n", names::shown(name).c_str(),
             fault.c_str());
    return false;
}
