// The content header of a part, line by line in a fixed order.
#include <memory>

#include "compose/compose.h"

namespace tw {

namespace {

constexpr std::size_t kExtraHeaderBuffer = 2052;

std::string number(long long n) { return std::to_string(n); }

// Each step writes its bytes at once, so a failure leaves exactly the steps
// before it in the file.
class HeaderWriter {
public:
    explicit HeaderWriter(File &file) : file_(file) {}
    bool put(std::string_view text) {
        ok_ = ok_ && file_.write_all(text);
        return ok_;
    }
    bool ok() const { return ok_; }

private:
    File &file_;
    bool ok_ = true;
};

void external_body_parameters(HeaderWriter &w, const mime_external_body_parameters &p) {
    std::string text = ";\r\n  access-type=" + std::string(field(p.access_type));
    auto quoted = [&](const char *name, std::string_view value) {
        if (!value.empty())
            text += ";\r\n  " + std::string(name) + "=\"" + std::string(value) + "\"";
    };
    quoted("site", field(p.site));
    quoted("subject", field(p.subject));
    quoted("directory", field(p.directory));
    quoted("mode", field(p.mode));
    quoted("expiration", field(p.expiration));
    quoted("server", field(p.server));
    if (p.size != 0)
        text += ";\r\n  size=" + number(p.size);
    quoted("permission", field(p.permission));
    w.put(text);
}

} // namespace

int32_t mime_write_content_header(File &file, const mime_part_desc &desc, int32_t level,
                                  int32_t *embedded, std::string_view extra_text,
                                  int32_t *seed, mime_extra_header_cb extra_header_cb) {
    HeaderWriter w(file);
    const std::string_view type = field(desc.content_type);
    const std::string_view subtype = field(desc.content_subtype);
    const bool multipart = equals_nocase(type, "multipart");
    const bool message = equals_nocase(type, "message");

    if (type.empty())
        w.put("Content-type: text/plain");
    else
        w.put("Content-type: " + std::string(type) + "/" + std::string(subtype));
    if (desc.charset[0] != '\0' && !multipart)
        w.put(";\r\n  charset=" + std::string(field(desc.charset)));
    if (desc.size_on_disk != 0)
        w.put(";\r\n  SizeOnDisk=" + number(desc.size_on_disk));
    if (desc.filename[0] != '\0')
        w.put(";\r\n  name=" + std::string(field(desc.filename)));
    if (multipart && equals_nocase(subtype, "related")) {
        if (desc.type[0] != '\0')
            w.put(";\r\n  type=" + std::string(field(desc.type)));
        if (desc.start[0] != '\0')
            w.put(";\r\n  start=" + std::string(field(desc.start)));
    }
    if (!w.ok())
        return -1;

    if (message) {
        if (equals_nocase(subtype, "rfc822")) {
            *embedded = 1;
        } else if (equals_nocase(subtype, "external-body")) {
            *embedded = 1;
            if (desc.parameters.external_body.access_type[0] == '\0')
                return -1;
            external_body_parameters(w, desc.parameters.external_body);
        } else if (equals_nocase(subtype, "partial")) {
            const mime_partial_parameters &p = desc.parameters.partial;
            std::string text = ";\r\n  number=" + number(p.part_number);
            if (p.part_number == 1)
                *embedded = 1;
            if (p.part_total > 0)
                text += ";\r\n  total=" + number(p.part_total);
            text += ";\r\n  id=\"" + std::string(field(p.part_id)) + "\"";
            w.put(text);
        }
    }

    if (multipart) {
        *seed = mime_next_boundary_number(*seed);
        w.put("; boundary=\"" + number(*seed) + "TarnwickLEVEL" + number(level + 1) + "\"");
    }

    if (!multipart && !message) {
        const std::string_view encoding = field(desc.encoding);
        if (!encoding.empty() && !equals_nocase(encoding, "binhex"))
            w.put("\r\nContent-Transfer-Encoding: " + std::string(encoding));
        if (desc.filename[0] != '\0')
            w.put("\r\nContent-Disposition: attachment; filename=\"" +
                  std::string(field(desc.filename)) + "\"");
    }

    auto line = [&](const char *name, std::string_view value) {
        if (!value.empty())
            w.put("\r\n" + std::string(name) + ": " + std::string(value));
    };
    line("Content-ID", field(desc.content_id));
    line("Content-Base", field(desc.content_base));
    line("Content-Location", field(desc.content_location));
    line("Content-Description", field(desc.description));
    line("Message-Id", field(desc.start));
    w.put("\r\n");
    if (!w.ok())
        return -1;

    if (extra_header_cb != nullptr) {
        std::unique_ptr<char[]> buffer(new char[kExtraHeaderBuffer]());
        for (;;) {
            int32_t answer = extra_header_cb(buffer.get(), kExtraHeaderBuffer);
            if (answer == 0)
                break;
            // A count that is negative or larger than the buffer cannot be
            // written without reading out of bounds: it fails like -1.
            if (answer < 0 || static_cast<std::size_t>(answer) > kExtraHeaderBuffer)
                return -1;
            if (!w.put(std::string_view(buffer.get(), static_cast<std::size_t>(answer))))
                return -1;
        }
    }
    if (!extra_text.empty())
        w.put(extra_text);
    w.put("\r\n");
    if (!w.ok())
        return -1;
    return multipart ? 1 : 0;
}

} // namespace tw
