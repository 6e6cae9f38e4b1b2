#include "agent/service/agent_config.h"
#include "fuzz/scratch_directory.h"

/** A configuration of any content is read, or refused with the line; its values are of its kinds.
 */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    std::string const path =
        directory.write("agent.toml", {reinterpret_cast<char const*>(data), size});
    Agent_Config config;
    std::string error;
    if (!config.read(path, true, error)) {
        if (error.empty())
            std::abort();
        return 0;
    }
    if (config.port < 0 || config.port > 65535 || config.stop_timeout < 0 ||
        config.keys_and_values().empty())
        std::abort();
    return 0;
}
