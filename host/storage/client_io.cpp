#include "host/storage/client_io.h"

void Client_IO_Base::Options::set_extra_option(char const* name, std::string const& value) {
    if (name)
        extra_options[name] = value;
}

Storage_Access Client_IO_Base::Options::access() const {
    Storage_Access access;
    access.access_key = access_key;
    access.extra_options = extra_options;
    access.resumption_buffer_size = resumption_buffer_size;
    access.dedup_chunk_size = dedup_chunk_size;
    return access;
}

void set_access_key_to_options(Client_IO_Base::Options& options, secure_string const& key) {
    options.access_key = key;
}
