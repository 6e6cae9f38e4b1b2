// What a database's tool gets through the XBSA library, against cat into files of the same disk and
// against zstd -3. All senders together send 512 MiB, each in a transaction and a session of its
// own.
#include "benchmarks/private_root.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/xbsa_client.h"

#include <benchmark/benchmark.h>
#include <csignal>
#include <random>
#include <spawn.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t TOTAL = 512 * 1024 * 1024;
constexpr size_t PIECE = 256 * 1024;
constexpr char POLICIES[] = "/var/cache/quilmot/zenbrak3/gaussdb";

/** A disk's folder with a pool, the data to be sent, and an agent without TLS. */
class Place {
public:
    static Place& instance() {
        static Place place;
        return place;
    }
    ~Place() { kill(agent_, SIGTERM); }

    std::string path(std::string const& name) const { return files_.path(name); }
    std::string& data() { return data_; }
    void clear() const {
        std::filesystem::remove_all(path("pool"));
        std::filesystem::create_directory(path("pool"));
        sync();
    }
    /** Policies differ in how data are packed. */
    void write_policy(std::string const& compression) const {
        using namespace json_spirit;
        std::filesystem::create_directories(POLICIES);
        std::ofstream(std::string(POLICIES) + "/" + compression)
            << to_text(Object_Maker()("access_key", "key")("backupd_host", "127.0.0.1")(
                   "backupd_port", std::stoi(files_.read("port")))("backupd_ssl", false)(
                   "cluster_id", "cluster")("pool_uuid", "pool")("uuid", "set")(
                   "compression", compression)("compression_level", 3));
    }

private:
    Place() {
        using namespace json_spirit;
        clear();
        files_.write("agent.json",
                     to_text(Object_Maker()("world", 1)("key", "key")("sets", Array{"set"})(
                         "pool", Object_Maker()("uuid", "pool")("url", "file://" + path("pool")))));
        std::string directory = files_.path(), program = ZENBRAK3_XBSA_AGENT;
        char* arguments[] = {program.data(), directory.data(), nullptr};
        posix_spawn(&agent_, program.c_str(), nullptr, nullptr, arguments, environ);
        while (!files_.exists("port"))
            usleep(1000);
        fill();
        for (int i = 0; i < 4; ++i) // as many files as the peer reads at once
            files_.write("part" + std::to_string(i), std::string_view(data_).substr(0, TOTAL / 4));
    }
    /** Words of a small language: packed to about a third, as tables are. */
    void fill() {
        std::mt19937 random(1);
        std::vector<std::string> words(4096);
        for (std::string& word : words)
            for (unsigned length = 3 + random() % 9; length > 0; --length)
                word += static_cast<char>('a' + random() % 26);
        while (data_.size() < TOTAL / 4)
            data_ += words[random() % words.size()] + " ";
        data_.resize(TOTAL / 4);
    }

    Temporary_Directory files_;
    std::string data_;
    pid_t agent_ = -1;
};

/** Sends a share of the data in a session of its own. */
bool send_share(std::string const& policy, int sender, size_t share) {
    std::string& data = Place::instance().data();
    long handle = 0;
    BSA_ObjectDescriptor descriptor = xbsa::object("/" + std::to_string(sender));
    bool good = xbsa::open(handle, policy) == BSA_RC_SUCCESS &&
                BSABeginTxn(handle) == BSA_RC_SUCCESS &&
                BSACreateObject(handle, &descriptor, nullptr) == BSA_RC_SUCCESS;
    for (size_t sent = 0; good && sent < share; sent += PIECE) {
        BSA_DataBlock32 block = xbsa::block(data.data() + sent % data.size(), PIECE, PIECE);
        good = BSASendData(handle, &block) == BSA_RC_SUCCESS;
    }
    good = good && BSAEndData(handle) == BSA_RC_SUCCESS &&
           BSAEndTxn(handle, BSA_Vote_COMMIT) == BSA_RC_SUCCESS;
    BSATerminate(handle);
    return good;
}

void send_all(benchmark::State& state, std::string const& policy) {
    Place& place = Place::instance();
    place.write_policy(policy);
    auto const senders = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        place.clear();
        state.ResumeTiming();
        std::vector<std::thread> threads;
        for (size_t i = 0; i < senders; ++i)
            threads.emplace_back([&, i] {
                if (!send_share(policy, static_cast<int>(i), TOTAL / senders))
                    state.SkipWithError(xbsa::last_error().c_str());
            });
        for (std::thread& thread : threads)
            thread.join();
    }
    state.SetBytesProcessed(static_cast<int64_t>(TOTAL * state.iterations()));
}

void xbsa_send_none(benchmark::State& state) {
    send_all(state, "none");
}

void xbsa_send_zstd(benchmark::State& state) {
    send_all(state, "zstd");
}

/** Runs a command for each of 1, 2 or 4 shares at once, on the four files, and has all synced. */
void run_all(benchmark::State& state, std::string const& command, std::string const& redirection) {
    Place& place = Place::instance();
    auto const peers = static_cast<int>(state.range(0));
    std::string line;
    for (int i = 0; i < peers; ++i) {
        std::string const out = place.path("pool/" + std::to_string(i));
        line += "(cat";
        for (int part = i; part < 4; part += peers)
            line += " " + place.path("part" + std::to_string(part));
        line += command + redirection + out + "; sync " + out + ") & ";
    }
    line += "wait";
    for (auto _ : state) {
        state.PauseTiming();
        place.clear();
        state.ResumeTiming();
        if (std::system(line.c_str()) != 0)
            state.SkipWithError("a command failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(TOTAL * state.iterations()));
}

void xbsa_cat(benchmark::State& state) {
    run_all(state, "", " >");
}

void xbsa_zstd_tool(benchmark::State& state) {
    run_all(state, " | zstd -q -3 -T1", " >");
}

#define SENDERS(name)                                                                              \
    BENCHMARK(name)->Arg(1)->Arg(2)->Arg(4)->Iterations(2)->UseRealTime()->Unit(                   \
        benchmark::kMillisecond)
SENDERS(xbsa_send_none);
SENDERS(xbsa_cat);
SENDERS(xbsa_send_zstd);
SENDERS(xbsa_zstd_tool);

} // namespace

int main(int count, char** arguments) {
    enter_private_root(arguments);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
