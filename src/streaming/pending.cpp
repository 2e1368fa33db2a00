// Roads of the end call whose readers are not part of the library yet.
// Until they are, a message that needs one ends with a plain failure and no
// callback, and a multipart body or a BinHex body is delivered undecoded.
#include "streaming/streaming.h"

namespace tw {

int32_t mime_stream_plain(EndCall &) { return MIME_ERROR; }

int32_t mime_store_fragment_stream(int32_t *, const std::string &, EndCall &) {
    return MIME_ERROR;
}

int32_t mime_walk_multipart_body(Stream &stream, const char *, EndCall &call) {
    std::string target;
    return mime_extract_leaf(stream, target, call, MIME_ENC_NONE);
}

bool mime_binhex_decoder_ready() { return false; }

bool mime_binhex_decode_file(const std::string &, const std::string &, char *, binhex_info &) {
    return false;
}

} // namespace tw
