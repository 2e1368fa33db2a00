// The encoded-word encoder: a chain of mime_hdr_field elements becomes the
// text of one header value, with encoded words and folded lines. The decoder
// takes the same chain apart, so a decoded chain can be passed back here.
#include <cstring>

#include "encodings/base64_table.h"
#include "headers/headers.h"

namespace tw {
namespace {

constexpr int32_t kEncodedFoldColumn = 72;
constexpr std::size_t kPlainFoldColumn = 993;
constexpr char kHexDigits[] = "0123456789ABCDEF";

bool encodes(const mime_hdr_field &element) {
    return element.encoding == MIME_ENC_BASE64 || element.encoding == MIME_ENC_QUOTED;
}

std::string_view text_of(const char *text) { return text != nullptr ? text : std::string_view(); }

// Bytes that stand for themselves in a Q word; everything else, the blank
// and '=' included, is escaped. '_' and '?' pass as they are, which the
// decoder of this library expects: it does not read '_' as a blank.
bool q_literal(unsigned char c) { return (c >= 33 && c <= 126 && c != '=') || c == '\t'; }

void start_word(std::string &out, std::string_view charset, std::string_view kind) {
    out.clear();
    out += "=?";
    out += charset;
    out += kind;
}

// The stretch of `text` that the next fold of a plain text cuts off: up to
// and including the last comma of the next 993 bytes, else the last
// semicolon, else the last blank; all 993 bytes when there is none.
std::size_t plain_stretch(std::string_view text) {
    const std::string_view window = text.substr(0, kPlainFoldColumn);
    for (char separator : {',', ';', ' '})
        if (const std::size_t at = window.rfind(separator); at != std::string_view::npos)
            return at + 1;
    return window.size();
}

// Folds behind the stretches of `text` while more than 993 bytes remain;
// gives what remains, unfolded.
std::string_view fold_stretches(std::string_view text, std::string &out) {
    while (text.size() > kPlainFoldColumn) {
        const std::size_t take = plain_stretch(text);
        out.append(text.substr(0, take));
        out += kFoldText;
        text.remove_prefix(take);
    }
    return text;
}

// A text of a chain without encoded elements. The first line is filled to
// exactly 993 bytes when that stretch holds any separator at all, wherever
// the cut then falls; the rest folds behind separators.
void append_plain_in_chain(std::string_view text, std::string &buffer, int32_t &column) {
    const std::size_t used = static_cast<std::size_t>(column);
    if (used + text.size() <= kPlainFoldColumn) {
        buffer.append(text);
        column += static_cast<int32_t>(text.size());
        return;
    }
    const std::size_t room = used < kPlainFoldColumn ? kPlainFoldColumn - used : 0;
    if (text.substr(0, room).find_first_of(",; ") != std::string_view::npos) {
        buffer.append(text.substr(0, room));
        text.remove_prefix(room);
    }
    buffer += kFoldText;
    const std::string_view rest = fold_stretches(text, buffer);
    buffer.append(rest);
    column = static_cast<int32_t>(rest.size());
}

// A folded value read back into one line: each CR or LF goes, and the
// blanks behind it.
std::string unfolded(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\r' && text[i] != '\n') {
            line += text[i];
            continue;
        }
        while (i + 1 < text.size() && text[i + 1] == ' ')
            ++i;
    }
    return line;
}

void append_folded(std::string_view piece, std::string &buffer, int32_t &column) {
    if (static_cast<std::size_t>(column) + piece.size() > kEncodedFoldColumn) {
        buffer += kFoldText;
        column = 2;
    }
    buffer.append(piece);
    column += static_cast<int32_t>(piece.size());
}

// The most a value can take: every byte an escape, every word folded. Only
// reserved, so the pages a shorter value never reaches are never touched;
// the text grows past it should the estimate ever fall short.
std::size_t longest_value(const mime_hdr_field *field) {
    std::size_t total = 0;
    for (const mime_hdr_field *e = field; e != nullptr; e = e->next) {
        const std::size_t length = text_of(e->text).size();
        const std::size_t words = length / kWordChunk + 1;
        total += length * 3 + words * (text_of(e->charset).size() + 7 + kFoldText.size()) + 1;
    }
    return total;
}

int32_t encode_chain(const mime_hdr_field *field, std::string &buffer) {
    bool encoded = false;
    for (const mime_hdr_field *e = field; e != nullptr; e = e->next) {
        if (!encodes(*e))
            continue;
        encoded = true;
        // Checked before anything is appended, so a refused chain leaves
        // the text as it was.
        if (text_of(e->charset).size() > kMaxWordCharset)
            return MIME_ERROR;
    }
    buffer.reserve(buffer.size() + longest_value(field));
    int32_t column = 0;
    for (const mime_hdr_field *e = field; e != nullptr; e = e->next) {
        // The comma between elements is no part of the column.
        if (!buffer.empty())
            buffer += ',';
        if (!encoded) {
            append_plain_in_chain(text_of(e->text), buffer, column);
            continue;
        }
        const std::string_view text = text_of(e->text);
        // Two scans of memchr speed: find_first_of tests byte by byte.
        const bool folded = text.find('\r') != std::string_view::npos ||
                            text.find('\n') != std::string_view::npos;
        const std::string copy = folded ? unfolded(text) : std::string();
        const std::string_view line = folded ? std::string_view(copy) : text;
        if (encodes(*e)) {
            const int32_t status =
                mime_encode_word_text(line, buffer, text_of(e->charset), e->encoding, column);
            if (status != MIME_OK)
                return status;
        } else {
            // A plain element in an encoded chain folds as a whole, however
            // long: splitting could cut inside an address.
            append_folded(line, buffer, column);
        }
    }
    return MIME_OK;
}

} // namespace

// Both word forms are written through a pointer into room made up front:
// the words are the inner loop of a large value.
int32_t mime_word_base64_encode(std::string_view chunk, std::string &out,
                                std::string_view charset) {
    start_word(out, charset, "?B?");
    const std::size_t head = out.size();
    out.resize(head + (chunk.size() + 2) / 3 * 4 + 2);
    char *p = out.data() + head;
    auto byte = [&](std::size_t k) {
        return static_cast<unsigned>(static_cast<unsigned char>(chunk[k]));
    };
    std::size_t i = 0;
    for (; i + 3 <= chunk.size(); i += 3) {
        const unsigned group = (byte(i) << 16) | (byte(i + 1) << 8) | byte(i + 2);
        *p++ = base64_alphabet[(group >> 18) & 63];
        *p++ = base64_alphabet[(group >> 12) & 63];
        *p++ = base64_alphabet[(group >> 6) & 63];
        *p++ = base64_alphabet[group & 63];
    }
    if (const std::size_t left = chunk.size() - i; left > 0) {
        const unsigned group = (byte(i) << 16) | (left == 2 ? byte(i + 1) << 8 : 0u);
        *p++ = base64_alphabet[(group >> 18) & 63];
        *p++ = base64_alphabet[(group >> 12) & 63];
        *p++ = left == 2 ? base64_alphabet[(group >> 6) & 63] : base64_pad;
        *p++ = base64_pad;
    }
    *p++ = '?';
    *p = '=';
    return MIME_OK;
}

int32_t mime_word_quoted_encode(std::string_view chunk, std::string &out,
                                std::string_view charset) {
    start_word(out, charset, "?q?");
    const std::size_t head = out.size();
    out.resize(head + chunk.size() * 3 + 2);
    char *const start = out.data() + head;
    char *p = start;
    for (const char c : chunk) {
        const auto u = static_cast<unsigned char>(c);
        if (q_literal(u)) {
            *p++ = c;
        } else {
            *p++ = '=';
            *p++ = kHexDigits[u >> 4];
            *p++ = kHexDigits[u & 15];
        }
    }
    *p++ = '?';
    *p++ = '=';
    out.resize(head + static_cast<std::size_t>(p - start));
    return MIME_OK;
}

// Pieces are cut at any byte, so a multi-byte character may be split across
// two words; each word still decodes to its own bytes.
int32_t mime_encode_word_text(std::string_view text, std::string &buffer, std::string_view charset,
                              int32_t encoding, int32_t &column) {
    try {
        std::string word;
        for (std::size_t at = 0; at < text.size(); at += kWordChunk) {
            const std::string_view chunk = text.substr(at, kWordChunk);
            if (encoding == MIME_ENC_QUOTED)
                mime_word_quoted_encode(chunk, word, charset);
            else
                mime_word_base64_encode(chunk, word, charset);
            append_folded(word, buffer, column);
        }
        return MIME_OK;
    } catch (const std::bad_alloc &) {
        return MIME_NO_MEMORY;
    }
}

int32_t mime_encode_field_chain(const mime_hdr_field *field, std::string &buffer) {
    try {
        return encode_chain(field, buffer);
    } catch (const std::bad_alloc &) {
        return MIME_NO_MEMORY;
    }
}

void mime_fold_plain_field(std::string_view text, std::string &out) {
    out.append(fold_stretches(text, out));
}

} // namespace tw

// Settled for arguments the record interface leaves open, so that no call
// writes where it should not: a null chain, `out` or `out_length`, and a
// chain with an encoded element whose charset is longer than 125 bytes,
// give -1 with `out` and `*out_length` untouched. A null text or charset
// reads as empty. A size of 0 or less has no room even for the NUL: `out` is
// left alone and the length is 0, the same as a text cut to nothing.
extern "C" TARNWICK_API int32_t mime_encode_HdrField(const mime_hdr_field *field, char *out,
                                                     int32_t *out_length) {
    return tw::guarded(
        MIME_ERROR,
        [&]() -> int32_t {
            if (field == nullptr || out == nullptr || out_length == nullptr)
                return MIME_ERROR;
            // The text is built whole before `out` is touched: a failure
            // leaves the caller's buffer as it was.
            std::string text;
            if (const int32_t status = tw::mime_encode_field_chain(field, text); status != MIME_OK)
                return status;
            if (*out_length <= 0) {
                *out_length = 0;
                return MIME_OK;
            }
            const std::size_t room = static_cast<std::size_t>(*out_length) - 1;
            const std::size_t copied = text.size() < room ? text.size() : room;
            std::memcpy(out, text.data(), copied);
            out[copied] = '\0';
            *out_length = static_cast<int32_t>(copied);
            return MIME_OK;
        },
        MIME_NO_MEMORY);
}
