// Requests over the agent's own socket and over WebSocket with TLS, against Node: the same client,
// servers in processes of their own, started at first use and ended with this one.
#include "agent/rpc/run_keys.h"
#include "agent/rpc/unix_client.h"
#include "benchmarks/bench_server.h"
#include "tests/unit/agent/rpc/tls_client.h"

#include <benchmark/benchmark.h>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr std::chrono::seconds PATIENCE{30};
constexpr char REQUEST[] =
    R"({"jsonrpc":"2.0","id":1,"method":"echo","params":{"instance":"gs1","limit":20}})";

Bench_Server& ours() {
    static Bench_Server server({RPC_ECHO});
    return server;
}

Bench_Server& node() {
    static Bench_Server server({"node", RPC_ECHO_JS});
    return server;
}

void run_unix(benchmark::State& state, Bench_Server& server) {
    Unix_Client client;
    std::string error;
    if (!client.connect(server.socket, error))
        return state.SkipWithError(error.c_str());
    Value const params = Object{{"instance", "gs1"}, {"limit", 20}};
    JSON_RPC_Reply reply;
    for (auto _ : state)
        if (!client.call("echo", params, PATIENCE, reply))
            state.SkipWithError(reply.message.c_str());
    state.SetItemsProcessed(state.iterations());
}

void run_websocket(benchmark::State& state, Bench_Server& server) {
    Tls_Client client(server.port, server.certificate);
    if (client.upgrade("bench") != 101)
        return state.SkipWithError("no WebSocket");
    for (auto _ : state) {
        client.text(REQUEST);
        if (client.read_text().find("\"limit\":20") == std::string::npos)
            state.SkipWithError("a wrong answer");
    }
    state.SetItemsProcessed(state.iterations());
}

void rpc_unix_ours(benchmark::State& state) {
    run_unix(state, ours());
}
void rpc_unix_node(benchmark::State& state) {
    run_unix(state, node());
}
void rpc_websocket_ours(benchmark::State& state) {
    run_websocket(state, ours());
}
void rpc_websocket_node(benchmark::State& state) {
    run_websocket(state, node());
}

/** What each call of the data path costs before it is looked at: 1,024 runs are running. */
void run_key_known(benchmark::State& state) {
    static Run_Keys keys;
    static secure_string const key = [] {
        secure_string last;
        for (int run = 0; run < 1024; ++run) {
            last = Run_Keys::make();
            (void)keys.add(
                {key_digest(last.plain()), {std::to_string(run), true, "h", "c", "c", "p"}});
        }
        return last;
    }();
    for (auto _ : state)
        if (!keys.find(key_digest(key.plain())))
            state.SkipWithError("the key is unknown");
}

/** The peer: the digest alone. */
void run_key_digest_alone(benchmark::State& state) {
    secure_string const key = Run_Keys::make();
    for (auto _ : state)
        benchmark::DoNotOptimize(key_digest(key.plain()));
}

BENCHMARK(run_key_known)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(run_key_digest_alone)->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(rpc_unix_ours)->Threads(1)->Threads(64)->UseRealTime();
BENCHMARK(rpc_unix_node)->Threads(1)->Threads(64)->UseRealTime();
BENCHMARK(rpc_websocket_ours)->Threads(1)->Threads(64)->UseRealTime();
BENCHMARK(rpc_websocket_node)->Threads(1)->Threads(64)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
