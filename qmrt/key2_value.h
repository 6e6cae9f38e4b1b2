#ifndef QMRT_KEY2_VALUE_H
#define QMRT_KEY2_VALUE_H

#include <cstddef>

/** One row of a lookup table from a key text to a value. A plain aggregate. */
template <typename T>
struct Key2_Value_T {
    char const* key; ///< the text; null in the row that closes a table
    size_t len;      ///< its length
    T value;
};

#endif
