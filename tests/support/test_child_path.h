#ifndef TESTS_SUPPORT_TEST_CHILD_PATH_H
#define TESTS_SUPPORT_TEST_CHILD_PATH_H

/** The built program of tests/support/test_child.cpp, by its absolute path. */
extern char const* const ZENBRAK3_TEST_CHILD;

#endif
