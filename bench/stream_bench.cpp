// The streaming end call on a 256 MiB single-part Base64 message, fed as
// data in 64 KiB pieces and named by path. Parts go back to body_cb as
// bytes (no directory), as an application without files would take them.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include <unistd.h>

#include "tarnwick.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMessageSize = 256u << 20;
constexpr std::size_t kPiece = 64u << 10;

struct Message {
    fs::path dir;
    std::string path;
    long long size = 0;

    Message() {
        dir = fs::temp_directory_path() / ("tarnwick-stream-bench-" + std::to_string(::getpid()));
        fs::create_directories(dir);
        const std::string body = (dir / "body").string();
        const std::string encoded = (dir / "body.b64").string();
        path = (dir / "message.eml").string();
        std::mt19937_64 gen(7);
        std::string block(kMessageSize / 4 * 3, '\0');
        for (std::size_t i = 0; i + 8 <= block.size(); i += 8) {
            const uint64_t v = gen();
            std::memcpy(&block[i], &v, 8);
        }
        std::ofstream(body, std::ios::binary)
            .write(block.data(), static_cast<std::streamsize>(block.size()));
        std::ofstream(path, std::ios::binary)
            << "From: a@example.org\r\nTo: b@example.org\r\nSubject: big\r\n"
               "MIME-Version: 1.0\r\nContent-Type: application/octet-stream; name=\"big.bin\"\r\n"
               "Content-Transfer-Encoding: base64\r\n\r\n";
        base64_encode(body.c_str(), path.c_str());
        size = static_cast<long long>(fs::file_size(path));
    }
    ~Message() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

Message &message() {
    static Message m;
    return m;
}

int32_t on_header(mime_part_desc *, const char *, int32_t, intptr_t) { return 0; }
int32_t on_address(mime_address_lists *, intptr_t) { return 0; }
int32_t on_body(const char *, int32_t length, int32_t *, intptr_t user) {
    *reinterpret_cast<long long *>(user) += length;
    return 0;
}

void run(benchmark::State &state, bool by_path) {
    Message &m = message();
    std::unique_ptr<char[]> piece(new char[kPiece]);
    long long delivered = 0;
    for (auto _ : state) {
        int32_t handle = mime_extract_start(on_header, on_body, on_address, nullptr,
                                            reinterpret_cast<intptr_t>(&delivered));
        if (by_path) {
            mime_extract_data(handle, m.path.c_str(), static_cast<int32_t>(m.path.size()), 1);
        } else {
            std::ifstream in(m.path, std::ios::binary);
            while (in.read(piece.get(), kPiece) || in.gcount() > 0)
                mime_extract_data(handle, piece.get(), static_cast<int32_t>(in.gcount()), 0);
            mime_extract_data(handle, nullptr, 0, 0);
        }
        if (mime_extract_end(&handle) != 1)
            state.SkipWithError("the end call failed");
    }
    state.SetBytesProcessed(state.iterations() * m.size);
    benchmark::DoNotOptimize(delivered);
}

void BM_EndCall_Data(benchmark::State &state) { run(state, false); }
void BM_EndCall_Path(benchmark::State &state) { run(state, true); }

BENCHMARK(BM_EndCall_Data)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_EndCall_Path)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
