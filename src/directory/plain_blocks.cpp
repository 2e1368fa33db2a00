// The rules by which both extractions read a message without MIME headers:
// the items of its Encoding line, how many lines make an item, where a
// uuencoded block begins and ends, and how a block becomes a named file.
#include "directory/directory.h"
#include "headers/headers.h"

namespace tw {

bool PlainLine::read(Stream &in) {
    length = in.read_line(text, sizeof text);
    return length > 0;
}

bool EncodingItems::take_header_line(const char *line) {
    mime_header_value(line, value_);
    offset_ = 0;
    seen_ = true;
    int32_t count = 0;
    char word[kWordSize] = {};
    mime_encoding_item(value_, count, word);
    return count > 0 && equals_nocase(field(word), "Text");
}

bool EncodingItems::exhausted() const { return value_[offset_] == '\0'; }

PlainItem EncodingItems::next() {
    PlainItem item;
    char word[kWordSize] = {};
    offset_ += static_cast<std::size_t>(mime_encoding_item(value_ + offset_, item.count, word));
    item.uuencoded = equals_nocase(field(word), "UUEncode");
    item.base64 = equals_nocase(field(word), "base64");
    return item;
}

bool mime_copy_item(Stream &in, PlainLine &line, int32_t &count, bool uuencoded, BodyWriter &out) {
    // The lines in front of a block's begin line count for its item but
    // carry nothing; a bare "begin" is enough inside an announced item.
    bool begun = !uuencoded;
    while (count > 0) {
        if (!begun && std::strncmp(line.text, "begin", 5) == 0)
            begun = true;
        if (begun && !out.write(line.text, line.length))
            return false;
        if (--count == 0 || !line.read(in))
            break;
    }
    return out.flush();
}

bool mime_starts_uu_block(const PlainLine &line) {
    return std::strncmp(line.text, "begin ", 6) == 0 &&
           mime_is_uu_begin(std::string_view(line.text, line.length)) != 0;
}

bool mime_copy_uu_block(Stream &in, PlainLine &line, BodyWriter &out) {
    bool ok = true;
    do {
        ok = out.write(line.text, line.length);
        if (starts_with_nocase(std::string_view(line.text, line.length), "end"))
            break;
    } while (ok && line.read(in));
    return out.flush() && ok;
}

PieceFile mime_write_piece(Stream &in, PlainLine &line, const std::string &directory,
                           NumberedNames &names, bool uuencoded, int32_t *count,
                           std::string &path) {
    File file;
    if (names.create_numbered(directory, uuencoded, path, file) == 0)
        return PieceFile::NotMade;
    BodyWriter out(file);
    const bool written = count != nullptr ? mime_copy_item(in, line, *count, uuencoded, out)
                                          : mime_copy_uu_block(in, line, out);
    file.close();
    if (written)
        return PieceFile::Written;
    remove_file(path);
    names.removed(path);
    return PieceFile::WriteFailed;
}

bool mime_decode_uu_file(std::string &path, std::size_t directory_length,
                         char (&name)[kUuNameSize], NumberedNames &names) {
    name[0] = '\0';
    std::string decoded = path.substr(0, path.size() - 3) + "ATF";
    if (::uudecode(path.c_str(), decoded.c_str(), name) != 1) {
        name[0] = '\0';
        return false;
    }
    remove_file(path);
    names.renamed(path, decoded);
    path = std::move(decoded);
    // The name is the message's: only its last component is joined to the
    // directory, and the library's own work names are never taken. A name
    // that is taken already leaves the file under its number.
    const std::string safe = mime_confine_file_name(field(name));
    if (safe.empty() || mime_is_reserved_name(safe))
        return true;
    const std::string target = path.substr(0, directory_length) + safe;
    if (rename_no_replace(path, target) == 0) {
        names.renamed(path, target);
        path = target;
    }
    return true;
}

} // namespace tw
