#include "host/rpc/json_rpc_object.h"

#include <cstdlib>

/** Any text parses without a crash, and what it holds is written as text that parses to the same.
 */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    JSON_RPC_Message message;
    bool const good =
        parse_json_rpc(std::string_view(reinterpret_cast<char const*>(data), size), message);
    if (good != message.faults.empty() || message.objects.size() + message.faults.size() == 0)
        std::abort();
    // faults are messages too: they go back to who sent the text
    for (auto const& objects : {message.objects, message.faults}) {
        JSON_RPC_Message again;
        if (objects.empty())
            continue;
        if (!parse_json_rpc(json_rpc_text(objects, message.batch), again) ||
            again.batch != message.batch || again.objects.size() != objects.size())
            std::abort();
        for (size_t at = 0; at < objects.size(); ++at)
            if (again.objects[at]->type() != objects[at]->type() ||
                !(again.objects[at]->value() == objects[at]->value()))
                std::abort();
    }
    return 0;
}
