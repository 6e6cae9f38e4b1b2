#ifndef HOST_PROCESS_SERVICE_LISTER_H
#define HOST_PROCESS_SERVICE_LISTER_H

#include <string>
#include <sys/types.h>
#include <vector>

/** A process of this machine. */
struct Service_Info {
    std::string cmd;  ///< its program and arguments, one blank between two
    std::string user; ///< its effective user; the uid as text when that has no name
    pid_t pid = -1;
};

/** Finds processes by their command lines, which it reads from /proc. */
class Service_Lister {
public:
    /**
     * Lists the processes whose command line fits, by ascending process id. Left out are this
     * process itself, processes without a command line (the kernel's own, and ended ones), and such
     * as go away during the call.
     *
     * @param name      a text that the command line has in it or, with @a is_regex, a regular
     *                  expression in Perl syntax for the whole of it
     * @param services  replaced by the result; unchanged on a failure
     * @param locale    "C", or null for the same: bytes are compared, and what is a letter is not
     *                  asked of any language. There is no other.
     * @return 0; -1 after a line in the log, for a name that is null or "", another locale, a
     * regular expression that is none, or a /proc that cannot be read.
     *
     * On any thread. No process is started for it.
     */
    static int list_service(char const* name, std::vector<Service_Info>& services, bool is_regex,
                            char const* locale);
};

#endif
