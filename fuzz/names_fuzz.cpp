#include "qmrt/names.h"

#include <cstdlib>

/** Whatever a rule takes for a name is one line, and no path out of a directory. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    for (names::Rule const rule :
         {names::fault_of_line, names::fault_of_label, names::fault_of_title, names::fault_of_id,
          names::fault_of_file, names::fault_of_relative_path, names::fault_of_absolute_path,
          names::fault_of_instance, names::fault_of_database, names::fault_of_account,
          names::fault_of_host, names::fault_of_policy})
        if (rule(text).empty())
            for (unsigned char const c : text)
                if (c < ' ' || c == 0x7f)
                    std::abort();
    for (names::Rule const rule : {names::fault_of_relative_path, names::fault_of_absolute_path})
        if (rule(text).empty() && ("/" + std::string(text) + "/").find("/../") != std::string::npos)
            std::abort();
    for (names::Rule const rule : {names::fault_of_id, names::fault_of_file,
                                   names::fault_of_instance, names::fault_of_policy})
        if (rule(text).empty() &&
            (text.find('/') != std::string_view::npos || text == ".." || text == "."))
            std::abort();
    if (names::shown(text).find('\n') != std::string::npos)
        std::abort();
    return 0;
}
