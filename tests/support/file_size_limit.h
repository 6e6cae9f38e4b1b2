#ifndef TESTS_SUPPORT_FILE_SIZE_LIMIT_H
#define TESTS_SUPPORT_FILE_SIZE_LIMIT_H

#include <csignal>
#include <sys/resource.h>

/** No file of this process grows beyond a size while it lives: what a full disk does to a writer.
 */
class File_Size_Limit {
public:
    explicit File_Size_Limit(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit const limit{bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~File_Size_Limit() { lift(); }
    File_Size_Limit(File_Size_Limit const&) = delete;
    File_Size_Limit& operator=(File_Size_Limit const&) = delete;
    void lift() {
        setrlimit(RLIMIT_FSIZE, &before_);
        signal(SIGXFSZ, SIG_DFL);
    }

private:
    rlimit before_{};
};

#endif
