// Shared by the codec tests: a scratch directory, file-to-file runs of the
// exports, and stream runs that report where the decoder left the stream.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "encodings/encodings.h"
#include "support/test_support.h"

namespace tw_test {

inline std::string random_bytes(std::size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char &c : s)
        c = static_cast<char>(gen() & 0xFF);
    return s;
}

class CodecTest : public TempDirTest {
protected:
    using FileCodec = int32_t (*)(const char *, const char *);

    // Runs a two-path export on `input` written to a fresh source; the
    // target starts as `existing` unless that is null (then it is absent).
    struct Run {
        int32_t result;
        std::string output;
    };
    Run run(FileCodec fn, const std::string &input, const char *existing = nullptr) {
        const std::string src = path("src." + std::to_string(++count_));
        const std::string dst = path("dst." + std::to_string(count_));
        write_file(src, input);
        if (existing != nullptr)
            write_file(dst, existing);
        const int32_t result = fn(src.c_str(), dst.c_str());
        return {result, read_file(dst)};
    }

    // What a stream decoder did with a message body: its result, the
    // target's content, and the rest of the stream from where it stopped.
    struct StreamRun {
        int32_t result;
        std::string output;
        std::string rest;
    };
    template <typename Decode> StreamRun run_stream(const std::string &input, Decode decode) {
        const std::string src = path("body." + std::to_string(++count_));
        const std::string dst = path("part." + std::to_string(count_));
        write_file(src, input);
        tw::Stream stream = tw::Stream::open_read(src);
        EXPECT_TRUE(stream.ok());
        const int32_t result = decode(stream, dst);
        const long long at = stream.tell();
        stream.close();
        const std::string all = read_file(src);
        return {result, read_file(dst),
                at >= 0 && static_cast<std::size_t>(at) <= all.size() ? all.substr(at) : "?"};
    }

private:
    int count_ = 0;
};

} // namespace tw_test
