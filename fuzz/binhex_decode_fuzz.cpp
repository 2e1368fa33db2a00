// BinHex decoding of arbitrary input on a stdio stream (fmemopen) and on the
// walkers' Stream: no memory errors, the same answer from both, a name that
// fits its field, a resource path only with success, and no "$$$" file left
// that nobody was told of.
#include <cstring>
#include <filesystem>

#include "encodings/encodings.h"
#include "fuzz_support.h"
#include "tarnwick.h"

namespace {

constexpr char kBanner[] = "(This file must be converted with BinHex 4.0)\r\n";

bool temp_left() {
    for (const auto &entry : std::filesystem::directory_iterator(fuzz::scratch()))
        if (entry.path().filename().string().rfind("$$$", 0) == 0)
            return true;
    return false;
}

// The second fork's file, read and removed; "" for none.
std::string take_second(const char *second) {
    if (second[0] == '\0')
        return "";
    std::string rsrc = fuzz::read_file(second);
    fuzz::require(std::remove(second) == 0, "second path names no file");
    return rsrc;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    // The first byte says whether the banner is given, so that the fuzzer
    // spends its time behind it.
    std::string input = (data[0] & 1) != 0 ? kBanner : "";
    input.append(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (input.empty())
        return 0;
    const std::string in = fuzz::path("hqx.in"), out = fuzz::path("hqx.out");

    FILE *memory = fmemopen(input.data(), input.size(), "rb");
    if (memory == nullptr)
        return 0;
    char second[1024];
    binhex_info info;
    std::memset(&info, 0x55, sizeof info);
    std::remove(out.c_str());
    const int32_t result = tw::binhex_decode_stream(memory, out.c_str(), second, &info);
    const long at = std::ftell(memory);
    std::fclose(memory);
    fuzz::require(result == 0 || result == 1, "result is 0 or 1");
    fuzz::require(at >= 0 && static_cast<std::size_t>(at) <= input.size(), "stream left outside");
    fuzz::require(std::memchr(info.name, '\0', sizeof info.name) != nullptr, "name unterminated");
    fuzz::require(result == 1 || second[0] == '\0', "a resource path after a failure");
    const std::string data_fork = fuzz::read_file(out), rsrc = take_second(second);
    fuzz::require(!temp_left(), "a \"$$$\" file stayed");

    fuzz::write_file(in, reinterpret_cast<const uint8_t *>(input.data()), input.size());
    tw::Stream stream = tw::Stream::open_read(in);
    std::remove(out.c_str());
    const int32_t again = tw::binhex_decode_stream(stream, out, second, &info);
    fuzz::require(again == result && stream.tell() == at, "FILE and Stream forms disagree");
    fuzz::require(fuzz::read_file(out) == data_fork && take_second(second) == rsrc,
                  "FILE and Stream forms decode differently");
    return 0;
}
