// Interim road of the end call for a message without MIME headers: until
// its reader is part of the library it ends with a plain failure and no
// callback.
#include "streaming/streaming.h"

namespace tw {

int32_t mime_stream_plain(EndCall &) { return MIME_ERROR; }

} // namespace tw
