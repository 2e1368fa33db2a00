// Interim BinHex writer: the export reports an encoder failure and removes
// its temporary files.
#include "compose/compose.h"

namespace tw {

int32_t mime_write_binhex_body(const ComposeContext &, const std::string &, const binhex_info &) {
    return MIME_ENCODER_ERROR;
}

} // namespace tw
