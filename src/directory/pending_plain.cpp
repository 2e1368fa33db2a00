// Interim road of the directory extraction for a message without MIME
// headers: it refuses with 0 before the .HDR file exists.
#include "directory/directory.h"

namespace tw {

int32_t mime_extract_plain(const std::string &, ExtractContext &) { return 0; }

} // namespace tw
