// Every encoder followed by its decoder gives back the input exactly, and
// the encoders' counting mode agrees with what they write.
#include "encodings/encodings.h"
#include "fuzz_support.h"
#include "tarnwick.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string in = fuzz::path("rt.in"), mid = fuzz::path("rt.mid"),
                      out = fuzz::path("rt.out");
    fuzz::write_file(in, data, size);
    const std::string original(reinterpret_cast<const char *>(data), size);

    std::remove(mid.c_str());
    std::remove(out.c_str());
    const int32_t lines = base64_encode(in.c_str(), mid.c_str());
    fuzz::require(lines == base64_encode(in.c_str(), nullptr), "base64 count differs");
    fuzz::require(base64_decode(mid.c_str(), out.c_str()) == 1, "base64 decode failed");
    fuzz::require(fuzz::read_file(out) == original, "base64 round trip");

    std::remove(mid.c_str());
    std::remove(out.c_str());
    fuzz::require(quoted_encode(in.c_str(), mid.c_str()) == 1, "qp encode failed");
    fuzz::require(quoted_decode(mid.c_str(), out.c_str()) == 1, "qp decode failed");
    fuzz::require(fuzz::read_file(out) == original, "qp round trip");

    std::remove(mid.c_str());
    const int32_t uu_lines = uuencode(in.c_str(), mid.c_str(), "n");
    fuzz::require(uu_lines == uuencode(in.c_str(), "", "n"), "uu count differs");
    char name[256];
    fuzz::require(uudecode(mid.c_str(), out.c_str(), name) == 1, "uudecode failed");
    fuzz::require(fuzz::read_file(out) == original, "uu round trip");
    return 0;
}
