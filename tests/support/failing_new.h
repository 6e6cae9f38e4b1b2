#ifndef TESTS_SUPPORT_FAILING_NEW_H
#define TESTS_SUPPORT_FAILING_NEW_H

#include <cstddef>

/**
 * Until the end of the scope, the non-throwing new fails on this thread for objects of that many
 * bytes. Others, and the throwing new, go on as ever. Scopes do not nest.
 */
class Failing_New {
public:
    explicit Failing_New(size_t size);
    ~Failing_New();
    Failing_New(Failing_New const&) = delete;
    Failing_New& operator=(Failing_New const&) = delete;
};

#endif
