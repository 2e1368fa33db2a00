// Shared by the codec tests: every codec run on files in a scratch directory.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>

#include "encodings/encodings.h"
#include "support/test_support.h"
#include "tarnwick.h"

namespace tw_test {

// Encoders, decoders file to file, decoders of a message stream.
enum Codec { B64Enc, QpEnc, UuEnc, B64Dec, QpDec, UuDec, B64Stream, QpStream, UuStream };

class CodecTest : public TempDirTest {
protected:
    struct Run {
        int32_t result;
        std::string output, rest, name; // rest: the input from where the stream was left
    };
    // `codec` on `input`, the target starting as `existing` if given. An output
    // of "<none>" says that no target was left behind.
    Run run(Codec codec, const std::string &input, const char *existing = nullptr) {
        const std::string in = path("in"), out = path("out");
        write_file(in, input);
        std::remove(out.c_str());
        if (existing != nullptr)
            write_file(out, existing);
        const int32_t result = call(codec, in, out);
        const auto at = static_cast<std::size_t>(stream.tell());
        return {result, file_exists(out) ? read_file(out) : "<none>",
                at <= input.size() ? input.substr(at) : "?", name};
    }
    int32_t call(Codec codec, const std::string &source, const std::string &target) {
        const char *s = source.c_str(), *t = target.c_str();
        stream = tw::Stream::open_read(source);
        std::strcpy(name, "?");
        return codec == B64Enc      ? base64_encode(s, t)
               : codec == QpEnc     ? quoted_encode(s, t)
               : codec == UuEnc     ? uuencode(s, t, "a b")
               : codec == B64Dec    ? base64_decode(s, t)
               : codec == QpDec     ? quoted_decode(s, t)
               : codec == UuDec     ? uudecode(s, t, name)
               : codec == B64Stream ? tw::base64_decode_stream(stream, target, boundary)
               : codec == QpStream  ? tw::quoted_decode_stream(stream, target, boundary)
                                    : tw::uudecode_stream(stream, target, name);
    }

    static int32_t failure(int codec) { return codec < B64Dec ? -1 : 0; }

    tw::Stream stream;            // read by the stream decoders
    const char *boundary = "--b"; // of the stream decoders
    char name[256];               // of the uu begin line
};

} // namespace tw_test
