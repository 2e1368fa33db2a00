// Interim road of the end call for one fragment of a message/partial set:
// a plain failure and no callback until fragments are kept.
#include "streaming/streaming.h"

namespace tw {

int32_t mime_store_fragment_stream(int32_t *, const std::string &, EndCall &) {
    return MIME_ERROR;
}

} // namespace tw
