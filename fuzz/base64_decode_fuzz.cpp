// Base64 decoding of arbitrary input, file form and stream form with a
// boundary. Besides memory errors: decoding never makes more bytes than it
// read, and the stream is left inside the input.
#include "encodings/encodings.h"
#include "fuzz_support.h"
#include "tarnwick.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string in = fuzz::path("b64.in"), out = fuzz::path("b64.out");
    fuzz::write_file(in, data, size);
    std::remove(out.c_str());
    if (base64_decode(in.c_str(), out.c_str()) == 1)
        fuzz::require(fuzz::file_size(out) <= static_cast<long long>(size), "file form grew");

    std::remove(out.c_str());
    tw::Stream stream = tw::Stream::open_read(in);
    const int32_t result = tw::base64_decode_stream(stream, out, "--b");
    const long long at = stream.tell();
    fuzz::require(at >= 0 && at <= static_cast<long long>(size), "stream left outside the input");
    if (result == 1) {
        fuzz::require(fuzz::file_size(out) <= static_cast<long long>(size), "stream form grew");
    }
    std::remove(out.c_str());
    return 0;
}
