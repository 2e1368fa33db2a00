// libFuzzer target: the date parser on any text. The result is 0 whenever
// the parse fails, and the parser never reads past the text's NUL.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "headers/headers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An exact-size copy, so that a read past the NUL lands in a redzone.
    const std::string text(reinterpret_cast<const char *>(data), size);
    int32_t seconds = 1;
    const int32_t status = tw::mime_parse_date(text.c_str(), &seconds);
    if (status != 0 && status != -1)
        std::abort();
    if (status == -1 && seconds != 0)
        std::abort();
    return 0;
}
