// Roads of the composition driver whose writers are not part of the library
// yet. Each answers with a failure status, so the export reports failure and
// removes its temporary files; a non-MIME message fails before any file is
// opened.
#include "compose/compose.h"

namespace tw {

int32_t mime_compose_plain(const ComposeFields &, ComposeContext &, std::string_view, bool) {
    return MIME_ERROR;
}

int32_t mime_write_binhex_body(const ComposeContext &, const std::string &, const binhex_info &) {
    return MIME_ENCODER_ERROR;
}

} // namespace tw
