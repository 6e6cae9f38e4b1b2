#ifndef TESTS_SUPPORT_NO_MORE_DESCRIPTORS_H
#define TESTS_SUPPORT_NO_MORE_DESCRIPTORS_H

#include <sys/resource.h>

/** Until the end of the scope this process can open nothing; what is open stays open. */
class No_More_Descriptors {
public:
    No_More_Descriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit none = before_;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~No_More_Descriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    No_More_Descriptors(No_More_Descriptors const&) = delete;
    No_More_Descriptors& operator=(No_More_Descriptors const&) = delete;

private:
    rlimit before_;
};

#endif
