// Interim road of the composition driver for a message without MIME
// headers: it fails before any file is opened.
#include "compose/compose.h"

namespace tw {

int32_t mime_compose_plain(const ComposeFields &, ComposeContext &, std::string_view, bool) {
    return MIME_ERROR;
}

} // namespace tw
