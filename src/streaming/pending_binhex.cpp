// Interim BinHex seam of the end call: without a decoder a BinHex body is
// delivered undecoded.
#include "streaming/streaming.h"

namespace tw {

bool mime_binhex_decoder_ready() { return false; }

bool mime_binhex_decode_file(const std::string &, const std::string &, char *, binhex_info &) {
    return false;
}

} // namespace tw
