#include "gaussdb/common/gaussdb_config_handler.h"
#include "host/xml/parse_xml.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/temporary_directory.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <expat.h>

namespace {

/** A cluster's file with so many machines. */
std::string write_cluster(Temporary_Directory const& files, int64_t devices) {
    std::vector<Xml_Params> machines;
    for (int64_t number = 0; number < devices; ++number) {
        std::string const name = "node" + std::to_string(number);
        machines.push_back({{"name", name},
                            {"backIp1", "10.0.0.1"},
                            {"sshIp1", "10.0.0.1"},
                            {"cooNum", "1"},
                            {"cooPortBase", "8000"},
                            {"cooListenIp1", "10.0.0.1"},
                            {"cooDir1", "/srv/database/cluster/data1/coordinator"},
                            {"dataNum", "2"},
                            {"dataPortBase", "40000"},
                            {"dataNode1", "/srv/database/cluster/data1/master1," + name +
                                              "s,/srv/database/cluster/data1/slave1"},
                            {"dataNode2", "/srv/database/cluster/data2/master2," + name +
                                              "s,/srv/database/cluster/data2/slave2"}});
    }
    return files.write("cluster.xml", cluster_xml({{"clusterName", "c1"}}, machines));
}

void xml_parse_ours(benchmark::State& state) {
    Temporary_Directory const files;
    std::string const path = write_cluster(files, state.range(0));
    for (auto _ : state) {
        GaussDB_Cluster_Info info;
        ACEXML_GaussDB_Config_Handler handler(info);
        if (!parse_xml(path.c_str(), handler) ||
            static_cast<int64_t>(info.devices.size()) != state.range(0))
            state.SkipWithError("machines were lost");
    }
}
BENCHMARK(xml_parse_ours)->Arg(2500)->Arg(5000)->Arg(10000)->Unit(benchmark::kMillisecond);

/** Counts the machines and touches every attribute. */
struct Counts {
    int64_t devices = 0;
    size_t bytes = 0;

    static void XMLCALL start(void* self, XML_Char const* name, XML_Char const** attributes) {
        auto& counts = *static_cast<Counts*>(self);
        counts.devices += std::strcmp(name, "DEVICE") == 0;
        for (; *attributes; ++attributes)
            counts.bytes += std::strlen(*attributes);
    }
};

void xml_parse_expat(benchmark::State& state) {
    Temporary_Directory const files;
    std::string const path = write_cluster(files, state.range(0));
    for (auto _ : state) {
        Counts counts;
        XML_Parser const parser = XML_ParserCreate(nullptr);
        XML_SetUserData(parser, &counts);
        XML_SetElementHandler(parser, Counts::start, nullptr);
        std::ifstream file(path, std::ios::binary);
        char buffer[65536];
        bool is_well_formed = true;
        while (file.read(buffer, sizeof buffer), file.gcount() > 0)
            is_well_formed &=
                XML_Parse(parser, buffer, static_cast<int>(file.gcount()), 0) == XML_STATUS_OK;
        is_well_formed &= XML_Parse(parser, buffer, 0, 1) == XML_STATUS_OK;
        XML_ParserFree(parser);
        benchmark::DoNotOptimize(counts.bytes);
        if (!is_well_formed || counts.devices != state.range(0))
            state.SkipWithError("machines were lost");
    }
}
BENCHMARK(xml_parse_expat)->Arg(2500)->Arg(5000)->Arg(10000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
