#ifndef HOST_AGENT_INSTANCE_CHECK_H
#define HOST_AGENT_INSTANCE_CHECK_H

#include <string>

/** One thing that was looked at, to find out whether an instance can be protected. */
struct Instance_Check {
    enum State { OK, WARNING, CRITICAL, UNKNOWN };

    std::string subject; ///< "tool gs_om"
    bool ok = false;
    std::string text;   ///< what was found
    std::string advice; ///< what to do; "" if there is nothing to do
    std::string user{}; ///< operating-system user who writes to the pool, if this check found it
    /** Of what is ok: a warning. Of what is not: it could not be looked at. */
    bool doubtful = false;
    /** A number for monitoring: "pool_main_free", in bytes ("B") or seconds ("s"). "" for none. */
    std::string measure{};
    double value = 0;
    char const* unit = "";

    State state() const {
        if (ok)
            return doubtful ? WARNING : OK;
        return doubtful ? UNKNOWN : CRITICAL;
    }
};

#endif
