#ifndef AGENT_SERVICE_INSTANCE_FLAVOUR_H
#define AGENT_SERVICE_INSTANCE_FLAVOUR_H

#include "host/agent/instance.h"

#include <string>

/** How an instance's "version" option counts the flavours of the database. */
enum { FLAVOUR_100 = 1, FLAVOUR_200, FLAVOUR_T, FLAVOUR_DWS, FLAVOUR_OPENGAUSS, FLAVOUR_TPOPS };

/** Whether an instance is reached through its platform; such a record has another form. */
inline bool is_on_platform(Instance const& instance) {
    std::string host;
    return instance.get_option("tpops_host", host);
}

/** The flavour of an instance; 0 when its record does not say. */
inline int flavour_of(Instance const& instance) {
    int flavour = 0;
    if (is_on_platform(instance))
        return FLAVOUR_TPOPS;
    instance.get_option("version", flavour);
    return flavour;
}

/** The version of an instance's database, "8.1.1"; "" when its record does not say. */
inline std::string edition_of(Instance const& instance) {
    std::string edition;
    instance.get_option(is_on_platform(instance) ? "version" : "edition", edition);
    return edition;
}

#endif
