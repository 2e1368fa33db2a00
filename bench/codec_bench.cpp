// The six file operations of the transfer encodings on 64 MiB inputs. Each
// iteration runs one export from file to file; the target is removed before
// the next one, since the encoders append.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <unistd.h>

#include "tarnwick.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kInputSize = 64u << 20;

// Inputs made once per process: random bytes, mail-like text, and the
// encoded forms that the decoders read.
struct Inputs {
    fs::path dir;
    std::string binary, text, base64, quoted, uu;

    Inputs() {
        dir = fs::temp_directory_path() / ("tarnwick-bench-" + std::to_string(::getpid()));
        fs::create_directories(dir);
        binary = (dir / "binary").string();
        text = (dir / "text").string();
        base64 = (dir / "binary.b64").string();
        quoted = (dir / "text.qp").string();
        uu = (dir / "binary.uue").string();

        std::mt19937_64 gen(1);
        std::string block(kInputSize, '\0');
        for (std::size_t i = 0; i + 8 <= block.size(); i += 8) {
            const uint64_t v = gen();
            std::memcpy(&block[i], &v, 8);
        }
        std::ofstream(binary, std::ios::binary)
            .write(block.data(), static_cast<std::streamsize>(block.size()));
        const char *words[] = {"the ",  "quick ",   "brown ", "fox ",     "=",      "jumps\t",
                               "over ", "caf\xE9 ", "lazy ",  "dog.\r\n", "x  \r\n"};
        block.clear();
        while (block.size() < kInputSize)
            block += words[gen() % std::size(words)];
        block.resize(kInputSize);
        std::ofstream(text, std::ios::binary)
            .write(block.data(), static_cast<std::streamsize>(block.size()));

        base64_encode(binary.c_str(), base64.c_str());
        quoted_encode(text.c_str(), quoted.c_str());
        uuencode(binary.c_str(), uu.c_str(), "binary");
    }
    ~Inputs() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    std::string out() const { return (dir / "out").string(); }
};

Inputs &inputs() {
    static Inputs in;
    return in;
}

template <typename Op> void run(benchmark::State &state, const std::string &source, Op op) {
    const std::string target = inputs().out();
    for (auto _ : state) {
        std::remove(target.c_str());
        if (!op(source.c_str(), target.c_str()))
            state.SkipWithError("the export failed");
    }
    std::remove(target.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(fs::file_size(source)));
}

void BM_base64_encode(benchmark::State &state) {
    run(state, inputs().binary,
        [](const char *s, const char *t) { return base64_encode(s, t) > 0; });
}
void BM_base64_decode(benchmark::State &state) {
    run(state, inputs().base64,
        [](const char *s, const char *t) { return base64_decode(s, t) == 1; });
}
void BM_quoted_encode(benchmark::State &state) {
    run(state, inputs().text,
        [](const char *s, const char *t) { return quoted_encode(s, t) == 1; });
}
void BM_quoted_encode_binary(benchmark::State &state) {
    run(state, inputs().binary,
        [](const char *s, const char *t) { return quoted_encode(s, t) == 1; });
}
void BM_quoted_decode(benchmark::State &state) {
    run(state, inputs().quoted,
        [](const char *s, const char *t) { return quoted_decode(s, t) == 1; });
}
void BM_uuencode(benchmark::State &state) {
    run(state, inputs().binary,
        [](const char *s, const char *t) { return uuencode(s, t, "b") > 0; });
}
void BM_uudecode(benchmark::State &state) {
    run(state, inputs().uu, [](const char *s, const char *t) {
        char name[256];
        return uudecode(s, t, name) == 1;
    });
}

BENCHMARK(BM_base64_encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_base64_decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_quoted_encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_quoted_encode_binary)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_quoted_decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_uuencode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_uudecode)->Unit(benchmark::kMillisecond);

} // namespace
