// Interim road of the end call for a multipart body: delivered undecoded as
// one part until the body walker takes it apart.
#include "streaming/streaming.h"

namespace tw {

int32_t mime_walk_multipart_body(Stream &stream, const char *, EndCall &call) {
    std::string target;
    return mime_extract_leaf(stream, target, call, MIME_ENC_NONE);
}

} // namespace tw
