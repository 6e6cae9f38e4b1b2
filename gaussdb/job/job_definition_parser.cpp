#include "gaussdb/job/job_definition_parser.h"

#include <cstring>

Job_Definition_Key const& get_key_value_entry(Job_Definition_Key const* table, char const* key,
                                              size_t length) {
    while (table->key && !(table->len == length && std::strncmp(table->key, key, length) == 0))
        ++table;
    return *table;
}

Job_Definition_Key const& get_key_value_entry(Job_Definition_Key const* table, uint64_t bit) {
    while (table->key && table->value != bit)
        ++table;
    return *table;
}
