// Uudecoding of arbitrary input, file form and stream form: no memory
// errors, a name that fits its buffer, and no target left behind a failure.
#include <cstring>

#include "encodings/encodings.h"
#include "fuzz_support.h"
#include "tarnwick.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string in = fuzz::path("uu.in"), out = fuzz::path("uu.out");
    fuzz::write_file(in, data, size);
    char name[256];
    std::memset(name, 0x55, sizeof name);
    const int32_t result = uudecode(in.c_str(), out.c_str(), name);
    fuzz::require(result == 1 || fuzz::file_size(out) < 0, "failed decoding left its target");
    if (result == 1)
        fuzz::require(std::memchr(name, '\0', sizeof name) != nullptr, "name not terminated");

    tw::Stream stream = tw::Stream::open_read(in);
    const int32_t again = tw::uudecode_stream(stream, out, name);
    fuzz::require(again == result, "stream and file forms disagree");
    const long long at = stream.tell();
    fuzz::require(at >= 0 && at <= static_cast<long long>(size), "stream left outside the input");
    std::remove(out.c_str());
    return 0;
}
