// A whole streaming extraction of arbitrary input, in both delivery modes.
// Besides memory errors: the end call always ends the session, leaves no
// spool behind, and creates nothing outside the session's directory.
#include <filesystem>

#include "fuzz_support.h"
#include "tarnwick.h"

namespace {

int32_t on_header(mime_part_desc *, const char *, int32_t, intptr_t) { return 0; }
int32_t on_body(const char *, int32_t, int32_t *, intptr_t) { return 0; }
int32_t on_address(mime_address_lists *, intptr_t) { return 0; }

std::size_t entries(const std::string &dir) {
    std::size_t n = 0;
    for (auto it = std::filesystem::directory_iterator(dir); it != std::filesystem::end(it); ++it)
        ++n;
    return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string dir = fuzz::path("stream/");
    std::filesystem::create_directories(dir);
    for (const char *directory : {dir.c_str(), static_cast<const char *>(nullptr)}) {
        int32_t handle = mime_extract_start(on_header, on_body, on_address, directory, 0);
        fuzz::require(handle != 0, "no session");
        // Two pieces, so a line may be cut between two calls.
        const std::size_t half = size / 2;
        if (half > 0)
            mime_extract_data(handle, reinterpret_cast<const char *>(data),
                              static_cast<int32_t>(half), 0);
        if (size > half)
            mime_extract_data(handle, reinterpret_cast<const char *>(data) + half,
                              static_cast<int32_t>(size - half), 0);
        mime_extract_data(handle, nullptr, 0, 0);
        mime_extract_end(&handle);
        fuzz::require(handle == 0, "the end call left its session");
    }
    fuzz::require(entries(fuzz::scratch()) == 1, "a file outside the session's directory");
    std::filesystem::remove_all(dir);
    return 0;
}
