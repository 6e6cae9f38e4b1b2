#ifndef AGENT_SERVICE_INSTANCE_FLAVOUR_H
#define AGENT_SERVICE_INSTANCE_FLAVOUR_H

#include "host/agent/instance.h"

#include <string>

/** Values of an instance's "version" option: the flavours of the database. */
enum { FLAVOUR_100 = 1, FLAVOUR_200, FLAVOUR_T, FLAVOUR_DWS, FLAVOUR_OPENGAUSS, FLAVOUR_TPOPS };

/** Whether an instance is reached through its platform. Its record has other options then. */
inline bool is_on_platform(Instance const& instance) {
    std::string host;
    return instance.get_option("tpops_host", host);
}

/** The flavour of an instance; 0 if it is not in the record. */
inline int flavour_of(Instance const& instance) {
    int flavour = 0;
    if (is_on_platform(instance))
        return FLAVOUR_TPOPS;
    instance.get_option("version", flavour);
    return flavour;
}

/** The version of an instance's database, "8.1.1"; "" if it is not in the record. */
inline std::string edition_of(Instance const& instance) {
    std::string edition;
    instance.get_option(is_on_platform(instance) ? "version" : "edition", edition);
    return edition;
}

#endif
