// binhex_enc and binhex_dec on 64 MiB: random bytes, where runs are rare,
// and bytes in runs of 1 to 400, where the run-length stage does the work.
// Each iteration runs one export from file to file; targets are removed
// before the next one, since both append.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <unistd.h>

#include "tarnwick.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kInputSize = 64u << 20;

struct Inputs {
    fs::path dir;
    std::string random, runs, random_hqx, runs_hqx;

    Inputs() {
        dir = fs::temp_directory_path() / ("tarnwick-hqx-bench-" + std::to_string(::getpid()));
        fs::create_directories(dir);
        random = (dir / "random").string();
        runs = (dir / "runs").string();
        random_hqx = random + ".hqx";
        runs_hqx = runs + ".hqx";
        std::mt19937_64 gen(1);
        std::string block(kInputSize, '\0');
        for (char &c : block)
            c = static_cast<char>(gen());
        write(random, block);
        for (std::size_t at = 0; at < block.size();) {
            const std::size_t n = std::min<std::size_t>(1 + gen() % 400, block.size() - at);
            block.replace(at, n, n, static_cast<char>(gen() % 4 == 0 ? 0x90 : gen()));
            at += n;
        }
        write(runs, block);
        binhex_enc(random.c_str(), nullptr, random_hqx.c_str(), binhex_info{});
        binhex_enc(runs.c_str(), nullptr, runs_hqx.c_str(), binhex_info{});
    }
    ~Inputs() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    static void write(const std::string &path, const std::string &bytes) {
        std::ofstream(path, std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    std::string out() const { return (dir / "out").string(); }
};

Inputs &inputs() {
    static Inputs in;
    return in;
}

// Throughput counts the unencoded bytes for both directions.
template <typename Op> void run(benchmark::State &state, const std::string &source, Op op) {
    const std::string target = inputs().out();
    for (auto _ : state) {
        std::remove(target.c_str());
        if (!op(source.c_str(), target.c_str()))
            state.SkipWithError("the export failed");
    }
    std::remove(target.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kInputSize));
}

bool encode(const char *s, const char *t) { return binhex_enc(s, nullptr, t, binhex_info{}) == 1; }
bool decode(const char *s, const char *t) {
    char second[1024];
    binhex_info info;
    return binhex_dec(s, t, second, &info) == 1;
}

void BM_binhex_enc_random(benchmark::State &state) { run(state, inputs().random, encode); }
void BM_binhex_enc_runs(benchmark::State &state) { run(state, inputs().runs, encode); }
void BM_binhex_dec_random(benchmark::State &state) { run(state, inputs().random_hqx, decode); }
void BM_binhex_dec_runs(benchmark::State &state) { run(state, inputs().runs_hqx, decode); }

BENCHMARK(BM_binhex_enc_random)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_binhex_enc_runs)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_binhex_dec_random)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_binhex_dec_runs)->Unit(benchmark::kMillisecond);

} // namespace
