#ifndef TESTS_UNIT_JSON_SPIRIT_ERROR_OF_H
#define TESTS_UNIT_JSON_SPIRIT_ERROR_OF_H

#include <exception>
#include <string>

/** What an operation throws, as text; "" when it does not. */
template <typename Operation>
std::string error_of(Operation operation) {
    try {
        operation();
    } catch (std::exception const& error) {
        return error.what();
    }
    return "";
}

#endif
