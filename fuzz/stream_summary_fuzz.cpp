// The header stage of the richer end call on arbitrary input, read through
// both readers: a MIME header (MIME-Version and Content-Type in front) and
// the input as it stands. Besides memory errors: every text field of the
// first record ends inside its width, and the session always ends.
#include <cstring>

#include "fuzz_support.h"
#include "tarnwick.h"

namespace {

template <std::size_t N> void require_terminated(const char (&f)[N], const char *what) {
    fuzz::require(strnlen(f, N) < N, what);
}

int32_t on_header(mime_part_desc *p, const char *, int32_t, intptr_t user) {
    if ((*reinterpret_cast<int *>(user))++ != 0)
        return 0;
    require_terminated(p->x_mailer, "x_mailer");
    require_terminated(p->received_with, "received_with");
    require_terminated(p->priority, "priority");
    require_terminated(p->returned_subject, "returned_subject");
    require_terminated(p->message_address, "message_address");
    // Only the message's own header can mark it; flags are '1' or nothing.
    for (char flag : {p->signed_flag, p->encrypted_flag, p->returned_flag})
        fuzz::require(flag == 0 || flag == '1', "a flag other than '1'");
    return 0;
}
int32_t on_body(const char *, int32_t, int32_t *, intptr_t) { return 0; }
int32_t on_address(mime_address_lists *, intptr_t) { return 0; }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char kMime[] = "MIME-Version: 1.0\r\nContent-Type: text/plain\r\n";
    for (bool mime : {true, false}) {
        int calls = 0;
        int32_t handle = mime_extract_start(on_header, on_body, on_address, nullptr,
                                            reinterpret_cast<intptr_t>(&calls));
        fuzz::require(handle != 0, "no session");
        if (mime)
            mime_extract_data(handle, kMime, sizeof kMime - 1, 0);
        if (size > 0)
            mime_extract_data(handle, reinterpret_cast<const char *>(data),
                              static_cast<int32_t>(size), 0);
        mime_extract_data(handle, nullptr, 0, 0);
        mime_extract_end_ex(&handle);
        fuzz::require(handle == 0, "the end call left its session");
    }
    return 0;
}
