// mime_extract_end_ex: the end call with a summary of the message header.
// Same driver, same callbacks and results as mime_extract_end; only the
// header stage reads more, and a top-level related or alternative group is
// walked part by part.
#include "streaming/streaming.h"
#include "streaming/summary.h"

extern "C" TARNWICK_API int32_t mime_extract_end_ex(int32_t *handle_pointer) {
    tw::Summary summary;
    return tw::mime_extract_end_handle(handle_pointer, &summary);
}
