#ifndef TESTS_SUPPORT_IMPOSSIBLE_THREADS_H
#define TESTS_SUPPORT_IMPOSSIBLE_THREADS_H

#include <pthread.h>
#include <stdexcept>

/** Until the end of the scope no thread can be made: each would get more stack than there is. */
class Impossible_Threads {
public:
    Impossible_Threads() {
        pthread_attr_t impossible;
        if (pthread_getattr_default_np(&usual_) != 0 ||
            pthread_getattr_default_np(&impossible) != 0 ||
            pthread_attr_setstacksize(&impossible, size_t{1} << 50) != 0 ||
            pthread_setattr_default_np(&impossible) != 0)
            throw std::runtime_error("cannot set the default stack size");
    }
    ~Impossible_Threads() { pthread_setattr_default_np(&usual_); }
    Impossible_Threads(Impossible_Threads const&) = delete;
    Impossible_Threads& operator=(Impossible_Threads const&) = delete;

private:
    pthread_attr_t usual_;
};

#endif
