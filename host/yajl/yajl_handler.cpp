#include "host/yajl/yajl_handler.h"

#include <charconv>
#include <cstdlib>
#include <string>

bool YAJL_Handler::handle_boolean_i(bool) {
    return true;
}

bool YAJL_Handler::handle_integer_i(long long) {
    return true;
}

bool YAJL_Handler::handle_double_i(double) {
    return true;
}

bool YAJL_Handler::handle_number_i(char const* text, size_t length) {
    long long whole = 0;
    auto const read = std::from_chars(text, text + length, whole);
    if (read.ec == std::errc() && read.ptr == text + length)
        return handle_integer_i(whole);
    double real = 0;
    auto const real_read = std::from_chars(text, text + length, real);
    if (real_read.ec ==
        std::errc::result_out_of_range) // only strtod tells too large from too small
        real = std::strtod(std::string(text, length).c_str(), nullptr);
    return handle_double_i(real);
}

bool YAJL_Handler::handle_string_i(char const*, size_t) {
    return true;
}

bool YAJL_Handler::handle_start_map_i() {
    return true;
}

bool YAJL_Handler::handle_map_key_i(char const*, size_t) {
    return true;
}

bool YAJL_Handler::handle_end_map_i() {
    return true;
}

bool YAJL_Handler::handle_start_array_i() {
    return true;
}

bool YAJL_Handler::handle_end_array_i() {
    return true;
}

bool YAJL_Handler::handle_null_i() {
    return true;
}
