#ifndef HOST_YAJL_YAJL_HANDLER_H
#define HOST_YAJL_YAJL_HANDLER_H

#include <cstddef>

/**
 * Takes the events of a JSON text, in the order of the text. Each operation returns true to go on
 * and false to stop. Those of this class accept everything and do nothing with it.
 *
 * Texts are not closed by a NUL, may have NULs in them, and are valid during the call only.
 */
class YAJL_Handler {
public:
    virtual ~YAJL_Handler() = default;

    [[nodiscard]] virtual bool handle_boolean_i(bool value);
    [[nodiscard]] virtual bool handle_integer_i(long long value);
    [[nodiscard]] virtual bool handle_double_i(double value);
    /**
     * Every number, as it is written. What this class makes of it: a whole number of the range of
     * long long goes to handle_integer_i, any other to handle_double_i; one beyond any double goes
     * there as an infinity.
     */
    [[nodiscard]] virtual bool handle_number_i(char const* text, size_t length);
    [[nodiscard]] virtual bool handle_string_i(char const* text, size_t length);
    [[nodiscard]] virtual bool handle_start_map_i();
    [[nodiscard]] virtual bool handle_map_key_i(char const* text, size_t length);
    [[nodiscard]] virtual bool handle_end_map_i();
    [[nodiscard]] virtual bool handle_start_array_i();
    [[nodiscard]] virtual bool handle_end_array_i();
    [[nodiscard]] virtual bool handle_null_i();
};

#endif
