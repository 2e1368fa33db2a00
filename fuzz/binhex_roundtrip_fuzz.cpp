// binhex_enc followed by binhex_dec gives back both forks, type and creator,
// and the name of the data file, whatever the bytes.
#include <cstring>

#include "fuzz_support.h"
#include "tarnwick.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 10)
        return 0;
    // Bytes 0-1: where the data fork ends; 2-9: type and creator.
    binhex_info info{};
    std::memcpy(info.file_type, data + 2, 4);
    std::memcpy(info.creator, data + 6, 4);
    const std::size_t body = size - 10;
    const std::size_t split = (std::size_t{data[0]} << 8 | data[1]) % (body + 1);
    const std::string d = fuzz::path("rt.data"), r = fuzz::path("rt.rsrc"),
                      hqx = fuzz::path("rt.hqx"), out = fuzz::path("rt.out");
    fuzz::write_file(d, data + 10, split);
    fuzz::write_file(r, data + 10 + split, body - split);
    std::remove(hqx.c_str());
    std::remove(out.c_str());
    fuzz::require(binhex_enc(d.c_str(), r.c_str(), hqx.c_str(), info) == 1, "encoding failed");

    char second[1024];
    binhex_info back;
    fuzz::require(binhex_dec(hqx.c_str(), out.c_str(), second, &back) == 1, "decoding failed");
    const std::string data_fork(reinterpret_cast<const char *>(data) + 10, split);
    const std::string rsrc(reinterpret_cast<const char *>(data) + 10 + split, body - split);
    fuzz::require(fuzz::read_file(out) == data_fork, "data fork differs");
    fuzz::require((second[0] == '\0') == rsrc.empty(), "resource path without a fork");
    if (second[0] != '\0') {
        fuzz::require(fuzz::read_file(second) == rsrc, "resource fork differs");
        std::remove(second);
    }
    fuzz::require(std::strcmp(back.name, "rt.data") == 0 &&
                      std::memcmp(back.file_type, info.file_type, 5) == 0 &&
                      std::memcmp(back.creator, info.creator, 5) == 0,
                  "file information differs");
    return 0;
}
