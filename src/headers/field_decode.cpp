// The encoded-word decoder: a header value becomes a chain of elements, one
// for each run of plain text or of encoded words of one kind and charset.
// Texts are decoded to bytes and left in their charset.
#include <cstring>
#include <optional>

#include "encodings/base64_table.h"
#include "headers/headers.h"

namespace tw {
namespace {

// A word longer than this between its "=?" and its end is plain text.
constexpr std::size_t kMaxWordSpan = 75;

bool is_trailing_space(char c) { return c == '\r' || c == '\n' || c == ' '; }
bool is_blank_or_tab(char c) { return c == ' ' || c == '\t'; }

int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

struct EncodedWord {
    int32_t kind; // MIME_ENC_BASE64 or MIME_ENC_QUOTED
    std::string_view charset;
    std::string_view encoded;
    std::size_t length; // bytes from the "=?" up to and including the closing '='
};

// Recognises an encoded word at the start of `rest`, which begins with "=?".
std::optional<EncodedWord> match_word(std::string_view rest) {
    // The end is the first "?=", or a "=?" directly followed by '=': the
    // padding of a B word runs into its closing "?=" that way. Any other
    // "=?" opens a new word, so this one was never closed.
    std::size_t end = 2;
    for (;; ++end) {
        if (end >= rest.size())
            return std::nullopt;
        if (rest[end] == '?' && end + 1 < rest.size() && rest[end + 1] == '=')
            break;
        if (rest[end] == '=' && end + 1 < rest.size() && rest[end + 1] == '?') {
            if (end + 2 < rest.size() && rest[end + 2] == '=')
                break;
            return std::nullopt;
        }
    }
    // A Q text that begins with '=' meets the "?=" early, so such a word is
    // decoded however long it is; only the buffers below bound it.
    if (end - 2 > kMaxWordSpan)
        return std::nullopt;

    const std::size_t mark = rest.find('?', 2);
    if (mark == std::string_view::npos || mark + 3 > rest.size() || rest[mark + 2] != '?')
        return std::nullopt;
    int32_t kind;
    if (ascii_lower(rest[mark + 1]) == 'b')
        kind = MIME_ENC_BASE64;
    else if (ascii_lower(rest[mark + 1]) == 'q')
        kind = MIME_ENC_QUOTED;
    else
        return std::nullopt;

    const std::size_t text_start = mark + 3;
    const std::size_t text_end = rest.find('?', text_start);
    if (text_end == std::string_view::npos)
        return std::nullopt;
    EncodedWord word{kind, rest.substr(2, mark - 2),
                     rest.substr(text_start, text_end - text_start), text_end + 1};
    if (word.charset.size() >= kCharsetWidth || word.encoded.size() >= kWordText)
        return std::nullopt;
    // The closing '=' is stepped over as whatever stands there.
    if (word.length < rest.size())
        ++word.length;
    return word;
}

// The state of one call: the element being built and what came before.
class FieldDecoder {
public:
    explicit FieldDecoder(mime_hdr_field **head) {
        mime_hdr_field **tail = head;
        while (*tail != nullptr)
            tail = &(*tail)->next;
        current_ = *tail = mime_new_hdr_field(MIME_ENC_PLAIN);
    }

    void walk(std::string_view text);
    void finish() { store_text(); }

private:
    void store_text() {
        char *copy = new char[work_.size() + 1];
        std::memcpy(copy, work_.data(), work_.size());
        copy[work_.size()] = '\0';
        delete[] current_->text;
        current_->text = copy;
    }

    void start_element(int32_t encoding) {
        store_text();
        mime_hdr_field *element = mime_new_hdr_field(encoding);
        current_->next = element;
        current_ = element;
        work_.clear();
    }

    void take_word(const EncodedWord &word);

    mime_hdr_field *current_;
    std::string work_;
    int32_t previous_kind_ = MIME_ENC_PLAIN;
    bool first_ = true;
};

void FieldDecoder::take_word(const EncodedWord &word) {
    if (first_)
        current_->encoding = word.kind;
    else if (word.kind != previous_kind_ ||
             !equals_nocase(word.charset, std::string_view(current_->charset)))
        start_element(word.kind);
    // Words that differ only in the case of the charset share an element,
    // which keeps the spelling of the last one.
    copy_bounded(current_->charset, kCharsetWidth, word.charset);
    previous_kind_ = word.kind;
    first_ = false;

    char decoded[kWordText];
    const int32_t ok =
        word.kind == MIME_ENC_BASE64
            ? mime_word_base64_decode(word.encoded, decoded, sizeof decoded)
            : mime_word_quoted_decode(word.encoded, decoded, sizeof decoded);
    // A refused B text adds nothing; a NUL among the decoded bytes ends them.
    if (ok == 1)
        work_.append(decoded, std::strlen(decoded));
}

void FieldDecoder::walk(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        if (text[pos] == '=' && pos + 1 < text.size() && text[pos + 1] == '?') {
            if (auto word = match_word(text.substr(pos))) {
                take_word(*word);
                pos += word->length;
                continue;
            }
        }
        if (previous_kind_ != MIME_ENC_PLAIN) {
            // Blanks behind a word go, whatever follows; a TAB stays.
            std::size_t skipped = pos;
            while (skipped < text.size() && is_trailing_space(text[skipped]))
                ++skipped;
            if (skipped != pos) {
                pos = skipped;
                continue;
            }
            if (!first_)
                start_element(MIME_ENC_PLAIN);
        }
        work_.push_back(text[pos]);
        previous_kind_ = MIME_ENC_PLAIN;
        first_ = false;
        ++pos;
    }
}

// Cuts trailing CR, LF and blanks, but not TABs; returns the new length.
std::size_t trim_value_end(char *value) {
    std::size_t n = std::strlen(value);
    while (n > 0 && is_trailing_space(value[n - 1]))
        value[--n] = '\0';
    return n;
}

} // namespace

int32_t mime_word_base64_decode(std::string_view encoded, char *decoded, std::size_t size) {
    if (encoded.size() % 4 != 0 || size == 0)
        return 0;
    std::size_t out = 0;
    auto put = [&](unsigned byte) {
        if (out + 1 < size)
            decoded[out++] = static_cast<char>(byte);
    };
    for (std::size_t i = 0; i < encoded.size(); i += 4) {
        const unsigned a = base64_value(static_cast<unsigned char>(encoded[i]));
        const unsigned b = base64_value(static_cast<unsigned char>(encoded[i + 1]));
        const unsigned c = base64_value(static_cast<unsigned char>(encoded[i + 2]));
        const unsigned d = base64_value(static_cast<unsigned char>(encoded[i + 3]));
        put(((a << 2) | (b >> 4)) & 0xFF);
        if (encoded[i + 2] == base64_pad)
            break;
        put(((b << 4) | (c >> 2)) & 0xFF);
        if (encoded[i + 3] == base64_pad)
            break;
        put(((c << 6) | d) & 0xFF);
    }
    decoded[out] = '\0';
    return 1;
}

int32_t mime_word_quoted_decode(std::string_view encoded, char *decoded, std::size_t size) {
    if (size == 0)
        return 1;
    std::size_t out = 0;
    std::size_t i = 0;
    while (i < encoded.size() && out + 1 < size) {
        const char c = encoded[i];
        if (c != '=') {
            // '_' is no blank here: the encoder writes a blank as "=20" and
            // lets '_' through as itself.
            decoded[out++] = c;
            ++i;
            continue;
        }
        const int high = i + 1 < encoded.size() ? hex_value(encoded[i + 1]) : -1;
        const int low = i + 2 < encoded.size() ? hex_value(encoded[i + 2]) : -1;
        if (high >= 0 && low >= 0)
            decoded[out++] = static_cast<char>(high * 16 + low);
        // A soft line break and a broken escape both lose the '=' and the
        // two characters behind it.
        i += 3;
    }
    decoded[out] = '\0';
    return 1;
}

int32_t mime_decode_field_value(Stream *stream, char *value, std::size_t value_size,
                                HeaderText *header_text, mime_hdr_field **head) {
    FieldDecoder decoder(head);
    long long resume_position = stream != nullptr ? stream->tell() : 0;
    std::size_t line_start = value[0] == ':' ? 1 : 0;
    const std::size_t read_limit = value_size < kShortLine ? value_size : kShortLine;

    for (;;) {
        const std::size_t length = trim_value_end(value);
        if (line_start > length)
            line_start = length;
        while (line_start < length && is_blank_or_tab(value[line_start]))
            ++line_start;
        decoder.walk(std::string_view(value + line_start, length - line_start));

        if (stream == nullptr || stream->read_line(value, read_limit) == 0)
            break;
        if (!is_blank_or_tab(value[0])) {
            // The next field: leave it for the caller's loop.
            stream->seek(resume_position);
            break;
        }
        if (header_text != nullptr)
            header_text->append(value);
        resume_position = stream->tell();
        line_start = 0;
    }
    decoder.finish();
    return 1;
}

} // namespace tw

extern "C" TARNWICK_API mime_hdr_field *mime_decode_HdrField(char *text) {
    return tw::guarded(static_cast<mime_hdr_field *>(nullptr), [text]() -> mime_hdr_field * {
        // A null text is read as an empty value: the caller still gets the
        // one element that every value gives.
        char empty[1] = {'\0'};
        char *value = text != nullptr ? text : empty;
        tw::ChainHead chain;
        tw::mime_decode_field_value(nullptr, value, std::strlen(value) + 1, nullptr, chain.slot());
        return chain.release();
    });
}
