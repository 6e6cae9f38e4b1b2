#include "tests/support/test_child_path.h"

char const* const ZENBRAK3_TEST_CHILD = TEST_CHILD;
