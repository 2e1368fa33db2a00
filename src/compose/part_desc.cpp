// The part records of composition and the codes of their encodings.
#include <cstring>

#include "compose/compose.h"

namespace tw {

void mime_copy_part_info(const mime_part_info &info, mime_part_desc &desc) {
    std::memset(&desc, 0, sizeof desc);
    copy_field(desc.charset, field(info.charset));
    copy_field(desc.encoding, field(info.encoding));
    copy_field(desc.filename, field(info.filename));
    copy_field(desc.content_id, field(info.content_id));
    copy_field(desc.content_type, field(info.content_type));
    // The application's field is 22 bytes wide, ours 20: at most 19
    // characters of the subtype carry over.
    copy_field(desc.content_subtype, field(info.content_subtype));
    std::memcpy(&desc.parameters, &info.parameters, sizeof desc.parameters);
    desc.size_on_disk = info.size_on_disk;
}

int32_t mime_encoding_code(std::string_view text) {
    if (equals_nocase(text, "base64"))
        return MIME_ENC_BASE64;
    if (equals_nocase(text, "quoted-printable"))
        return MIME_ENC_QUOTED;
    if (equals_nocase(text, "binhex"))
        return MIME_ENC_BINHEX;
    return MIME_ENC_PLAIN;
}

int32_t mime_next_boundary_number(int32_t seed) {
    uint32_t state = static_cast<uint32_t>(seed);
    state = state * 214013u + 2531011u;
    return static_cast<int32_t>((state >> 16) & 0x7FFF);
}

} // namespace tw
