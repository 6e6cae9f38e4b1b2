#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace {

using json_spirit::Array_Maker;
using json_spirit::Object_Maker;

/** A catalog's answer to a query for backup sets, of about 1 MiB. */
std::string const& catalog_reply() {
    static std::string const text = [] {
        json_spirit::Array rows;
        for (int row = 0; row < 1650; ++row) {
            std::string const id = std::to_string(1000000 + row);
            rows.push_back(Object_Maker()("uuid", "6f9619ff-8b86-d011-b42d-00cf" + id)("seq", row)(
                "incarnation", "6f9619ff-8b86-d011-b42d-00cf4fc9648f")(
                "backup_key", "20261121_" + id)("prior_backup_key", "20261120_" + id)(
                "backup_set_size", int64_t{107374182400} + row)("source_size", 107374182400)(
                "compression", "zstd")("series", 2)("type", "incremental")(
                "meta_destination", "/var/cache/quilmot/zenbrak3/gaussdb/meta")(
                "backup_start_time", 1795243260 + row)("ratio", 0.25 + row)("complete", true)(
                "storages",
                Array_Maker()(Object_Maker()("pool_uuid", "6f9619ff-8b86-d011-b42d-00cf4fc9648f")(
                    "size", 26843545600 + row)("url", "file:///srv/pools/main"))(
                    Object_Maker()("pool_uuid", "7f9619ff-8b86-d011-b42d-00cf4fc9648f")(
                        "size", 26843545600 + row)("url", "file:///srv/pools/copy"))));
        }
        return json_spirit::to_text(Object_Maker()("total", 1650)("rows", rows));
    }();
    return text;
}

void count_bytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(catalog_reply().size()));
}

void json_parse_ours(benchmark::State& state) {
    for (auto _ : state) {
        json_spirit::Value value;
        if (!json_spirit::parse(catalog_reply(), value, nullptr))
            state.SkipWithError("the reply does not parse");
        benchmark::DoNotOptimize(value);
    }
    count_bytes(state);
}
BENCHMARK(json_parse_ours);

void json_parse_nlohmann(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(nlohmann::json::parse(catalog_reply()));
    count_bytes(state);
}
BENCHMARK(json_parse_nlohmann);

void json_parse_rapidjson(benchmark::State& state) {
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse<rapidjson::kParseValidateEncodingFlag>(catalog_reply().c_str());
        benchmark::DoNotOptimize(document);
    }
    count_bytes(state);
}
BENCHMARK(json_parse_rapidjson);

void json_dump_ours(benchmark::State& state) {
    json_spirit::Value value;
    (void)json_spirit::parse(catalog_reply(), value, nullptr);
    for (auto _ : state)
        benchmark::DoNotOptimize(json_spirit::to_text(value));
    count_bytes(state);
}
BENCHMARK(json_dump_ours);

void json_dump_nlohmann(benchmark::State& state) {
    auto const value = nlohmann::json::parse(catalog_reply());
    for (auto _ : state)
        benchmark::DoNotOptimize(value.dump());
    count_bytes(state);
}
BENCHMARK(json_dump_nlohmann);

void json_dump_rapidjson(benchmark::State& state) {
    rapidjson::Document document;
    document.Parse(catalog_reply().c_str());
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        document.Accept(writer);
        benchmark::DoNotOptimize(buffer.GetString());
    }
    count_bytes(state);
}
BENCHMARK(json_dump_rapidjson);

} // namespace

BENCHMARK_MAIN();
