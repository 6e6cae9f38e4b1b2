#include "fuzz/scratch_directory.h"
#include "gaussdb/common/gaussdb_config_handler.h"
#include "host/xml/parse_xml.h"

/** The parser's library keeps a few bytes for each file that it refuses. */
extern "C" char const* __asan_default_options() {
    return "detect_leaks=0";
}

/** A cluster's XML file of any content is read to its end or refused. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    std::string const path = directory.write("c.xml", {reinterpret_cast<char const*>(data), size});
    GaussDB_Cluster_Info cluster;
    ACEXML_GaussDB_Config_Handler handler(cluster);
    (void)parse_xml(path.c_str(), handler);
    return 0;
}
