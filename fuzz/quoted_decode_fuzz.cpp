// Quoted-printable decoding of arbitrary input, file form and stream form.
// Decoding never grows the data; the stream form writes at most what the
// file form writes and stops at the start of a boundary line.
#include <cstring>

#include "encodings/encodings.h"
#include "fuzz_support.h"
#include "tarnwick.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string in = fuzz::path("qp.in"), out = fuzz::path("qp.out");
    fuzz::write_file(in, data, size);
    std::remove(out.c_str());
    fuzz::require(quoted_decode(in.c_str(), out.c_str()) == 1, "file form failed");
    const long long whole = fuzz::file_size(out);
    fuzz::require(whole <= static_cast<long long>(size), "file form grew");

    std::remove(out.c_str());
    tw::Stream stream = tw::Stream::open_read(in);
    fuzz::require(tw::quoted_decode_stream(stream, out, "--b") == 1, "stream form failed");
    const long long at = stream.tell();
    fuzz::require(at >= 0 && at <= static_cast<long long>(size), "stream left outside the input");
    fuzz::require(static_cast<size_t>(at) == size || (static_cast<size_t>(at) + 3 <= size &&
                                                      std::memcmp(data + at, "--b", 3) == 0),
                  "stream not at a boundary line");
    fuzz::require(fuzz::file_size(out) <= whole, "stream form wrote more than the file form");
    std::remove(out.c_str());
    return 0;
}
