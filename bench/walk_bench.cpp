// The streaming end call on multipart bodies: (a) 2000 small parts, (b) a
// web page linking 2000 images by cid:, (c) one 200 MiB Base64 attachment.
// Parts stay in a directory (delivery by path), emptied between runs.
// bench/compare_walk.py times the same messages against Python's email.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include <unistd.h>

#include "tarnwick.h"

namespace {

namespace fs = std::filesystem;

const fs::path &scratch() {
    static const fs::path dir = [] {
        fs::path d = fs::temp_directory_path() / ("tarnwick-walk-bench-" + std::to_string(::getpid()));
        fs::create_directories(d);
        return d;
    }();
    return dir;
}

struct Cleanup {
    ~Cleanup() {
        std::error_code ec;
        fs::remove_all(scratch(), ec);
    }
} cleanup;

std::string base64_lines(std::size_t bytes, uint64_t seed) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::mt19937_64 gen(seed);
    std::string out;
    out.reserve(bytes / 3 * 4 + bytes / 54 * 2 + 8);
    for (std::size_t done = 0; done < bytes; done += 57) {
        for (int i = 0; i < 76; ++i)
            out += kAlphabet[gen() & 63];
        out += "\r\n";
    }
    return out;
}

std::string make_message(const std::string &name, const std::function<void(std::ofstream &)> &body) {
    const std::string path = (scratch() / name).string();
    std::ofstream out(path, std::ios::binary);
    body(out);
    return path;
}

const std::string &small_parts() {
    static const std::string path = make_message("small.eml", [](std::ofstream &f) {
        f << "From: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";
        for (int n = 0; n < 2000; ++n)
            f << "--b\r\nContent-Type: text/plain\r\n\r\nsmall part " << n << "\r\nsecond line\r\n";
        f << "--b--\r\n";
    });
    return path;
}

const std::string &page_with_images() {
    static const std::string path = make_message("page.eml", [](std::ofstream &f) {
        f << "From: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/related; boundary=r\r\n\r\n"
             "--r\r\nContent-Type: text/html\r\n\r\n";
        for (int n = 0; n < 2000; ++n)
            f << "<p><img src=\"cid:i" << n << "@x\"></p>\r\n";
        const std::string image = base64_lines(600, 1);
        for (int n = 0; n < 2000; ++n)
            f << "--r\r\nContent-Type: image/gif\r\nContent-ID: <i" << n
              << "@x>\r\nContent-Transfer-Encoding: base64\r\n\r\n" << image;
        f << "--r--\r\n";
    });
    return path;
}

const std::string &large_attachment() {
    static const std::string path = make_message("large.eml", [](std::ofstream &f) {
        f << "From: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
             "--b\r\nContent-Type: text/plain\r\n\r\nsee the attachment\r\n"
             "--b\r\nContent-Type: application/octet-stream; name=\"big.bin\"\r\n"
             "Content-Transfer-Encoding: base64\r\n\r\n";
        const std::string block = base64_lines(1 << 20, 2);
        for (int mib = 0; mib < 200; ++mib)
            f << block;
        f << "--b--\r\n";
    });
    return path;
}

int32_t on_header(mime_part_desc *, const char *, int32_t, intptr_t) { return 0; }
int32_t on_address(mime_address_lists *, intptr_t) { return 0; }
int32_t on_body(const char *, int32_t, int32_t *, intptr_t user) {
    ++*reinterpret_cast<long long *>(user);
    return 0;
}

void run(benchmark::State &state, const std::string &message) {
    const fs::path out = scratch() / "out";
    long long deliveries = 0;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(out);
        fs::create_directories(out);
        state.ResumeTiming();
        int32_t handle = mime_extract_start(on_header, on_body, on_address, out.c_str(),
                                            reinterpret_cast<intptr_t>(&deliveries));
        mime_extract_data(handle, message.c_str(), static_cast<int32_t>(message.size()), 1);
        if (mime_extract_end(&handle) != 1)
            state.SkipWithError("the end call failed");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<long long>(fs::file_size(message)));
    benchmark::DoNotOptimize(deliveries);
}

void BM_Walk_SmallParts(benchmark::State &state) { run(state, small_parts()); }
void BM_Walk_PageWithImages(benchmark::State &state) { run(state, page_with_images()); }
void BM_Walk_LargeAttachment(benchmark::State &state) { run(state, large_attachment()); }

BENCHMARK(BM_Walk_SmallParts)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Walk_PageWithImages)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Walk_LargeAttachment)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace
