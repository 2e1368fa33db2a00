// mime_extract_end_ex: the end call with a summary of the message header.
// Same driver, same callbacks and results as mime_extract_end; only the
// header stage reads more, and a top-level related or alternative group is
// walked part by part.
#include "streaming/streaming.h"
#include "streaming/summary.h"

extern "C" TARNWICK_API int32_t mime_extract_end_ex(int32_t *handle_pointer) {
    if (handle_pointer == nullptr)
        return MIME_NO_SESSION;
    tw::SessionPtr session = tw::session_detach(*handle_pointer);
    if (!session)
        return MIME_NO_SESSION;
    tw::Summary summary;
    return tw::mime_extract_end_session(handle_pointer, std::move(session), &summary);
}
