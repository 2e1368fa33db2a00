// mime_encode_HdrField on a subject-sized text and on a 16 MiB one, where a
// block grown by a fixed step would turn the encoder quadratic. The texts
// are UTF-8 mail text, the same that bench/compare_encode.py gives Python.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tarnwick.h"

namespace {

std::string mail_text(std::size_t size) {
    const std::string piece =
        "Gr\xC3\xBC\xC3\x9F" "e aus K\xC3\xB6ln, na\xC3\xAFve Stra\xC3\x9F" "e ";
    std::string text;
    while (text.size() < size)
        text += piece;
    text.resize(size);
    return text;
}

void encode(benchmark::State &state, std::size_t size, int32_t encoding) {
    std::string text = mail_text(size), charset = "utf-8";
    mime_hdr_field field{text.data(), charset.data(), encoding, nullptr};
    // Room for the longest form: every byte a Q escape, plus the folds.
    std::vector<char> out(size * 4 + 4096);
    for (auto _ : state) {
        int32_t length = static_cast<int32_t>(out.size());
        if (mime_encode_HdrField(&field, out.data(), &length) != MIME_OK) {
            state.SkipWithError("encoding failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(size));
}

constexpr std::size_t kSmall = 60, kLarge = 16u << 20;

void BM_EncodeB60(benchmark::State &state) { encode(state, kSmall, MIME_ENC_BASE64); }
void BM_EncodeQ60(benchmark::State &state) { encode(state, kSmall, MIME_ENC_QUOTED); }
void BM_EncodeB16M(benchmark::State &state) { encode(state, kLarge, MIME_ENC_BASE64); }
void BM_EncodeQ16M(benchmark::State &state) { encode(state, kLarge, MIME_ENC_QUOTED); }
void BM_EncodePlain16M(benchmark::State &state) { encode(state, kLarge, MIME_ENC_PLAIN); }

BENCHMARK(BM_EncodeB60);
BENCHMARK(BM_EncodeQ60);
BENCHMARK(BM_EncodeB16M)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeQ16M)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePlain16M)->Unit(benchmark::kMillisecond);

} // namespace
