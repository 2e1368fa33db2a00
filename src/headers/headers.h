// What the header-field subsystem offers the rest of the library: the line
// readers of a message header and its parameters, the encoded-word decoder
// with its chains of mime_hdr_field, and the date parser.
//
// Every reader works on the bytes of the file, with no character-set
// handling, and never reports an error: a malformed header is read as far as
// it goes. Every copy into a fixed field is cut at the field's width.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "frame/frame.h"

namespace tw {

// ---- Line buffers ---------------------------------------------------------------

// Longest reads, one less than the buffers: the header loops and the line
// that a Content-type parameter list may start on use 512 bytes; the MIME
// test and the continuation reads of the parameter readers use 256.
inline constexpr std::size_t kHeaderLine = 512;
inline constexpr std::size_t kShortLine = 256;

// ---- Collected header text ------------------------------------------------------

// The header lines of one message as read, line ends included. Grows in steps
// of 2000 bytes beyond what it needs; if growing fails the text is dropped
// and nothing more is collected, so a huge header degrades instead of failing
// the extraction. Callers pass a null HeaderText * when nothing is collected.
class HeaderText {
public:
    HeaderText() = default;
    explicit HeaderText(std::size_t initial_capacity);

    // Appends the NUL-terminated text of `line` (a line read keeps its line
    // end); bytes behind an embedded NUL are not appended.
    void append(const char *line);
    void append(std::string_view bytes);

    bool lost() const { return lost_; }
    std::string_view view() const { return text_; }
    const char *data() const { return text_.c_str(); }
    // Writable, so that a caller can end the text with a NUL at an earlier
    // length for a while (and put the byte back): the text only grows, so
    // every earlier state of it is a prefix.
    char *data() { return text_.data(); }
    std::size_t size() const { return text_.size(); }

private:
    std::string text_;
    bool lost_ = false;
};

// ---- Chains of mime_hdr_field ----------------------------------------------------

// A new element: `text` null, a zeroed charset of kCharsetWidth bytes, the
// given encoding, no successor. The element and both strings are freed by
// mime_FreeList.
inline constexpr std::size_t kCharsetWidth = 50;
mime_hdr_field *mime_new_hdr_field(int32_t encoding);

// Frees one chain as mime_FreeList does; null is allowed.
void mime_free_hdr_chain(mime_hdr_field *list) noexcept;

// The head of a chain being built: the decoder links each element in as soon
// as it exists, so whatever was built is freed here if a step throws.
class ChainHead {
public:
    ChainHead() = default;
    ~ChainHead() { mime_free_hdr_chain(head_); }
    ChainHead(const ChainHead &) = delete;
    ChainHead &operator=(const ChainHead &) = delete;

    mime_hdr_field **slot() { return &head_; }
    const mime_hdr_field *get() const { return head_; }
    mime_hdr_field *release() {
        mime_hdr_field *head = head_;
        head_ = nullptr;
        return head;
    }

private:
    mime_hdr_field *head_ = nullptr;
};

// The texts of a chain joined in list order (a null text counts as empty).
std::string mime_join_chain_text(const mime_hdr_field *list);

// A zero-filled record: no chains yet.
mime_address_lists mime_new_address_lists() noexcept;

// Frees five chains. The order of the arguments is not the record's: to, cc,
// bcc, subject, from. Null heads are allowed.
void mime_free_address_lists(mime_hdr_field *to, mime_hdr_field *cc, mime_hdr_field *bcc,
                             mime_hdr_field *subject, mime_hdr_field *from) noexcept;

// Owns the five chains of a record and frees them when it leaves scope.
class OwnedAddressLists {
public:
    OwnedAddressLists() : lists(mime_new_address_lists()) {}
    ~OwnedAddressLists() {
        mime_free_address_lists(lists.to, lists.cc, lists.bcc, lists.subject, lists.from);
    }
    OwnedAddressLists(const OwnedAddressLists &) = delete;
    OwnedAddressLists &operator=(const OwnedAddressLists &) = delete;

    mime_address_lists lists;
};

// ---- Encoded words -----------------------------------------------------------------

// Widths of the decoder's word buffers: a charset name of up to 49 bytes, an
// encoded or decoded word text of up to 255. A word that does not fit is
// read as plain text.
inline constexpr std::size_t kWordCharset = 52;
inline constexpr std::size_t kWordText = 256;

// Decodes the text of one B word into `decoded` (at most `size` - 1 bytes
// and a NUL). 0, with nothing written, when the length is not a multiple of
// 4; otherwise 1. A '=' in the third or fourth place of a group ends the data.
int32_t mime_word_base64_decode(std::string_view encoded, char *decoded, std::size_t size);

// Decodes the text of one Q word into `decoded` (at most `size` - 1 bytes
// and a NUL). '_' stays an underscore. Always 1.
int32_t mime_word_quoted_decode(std::string_view encoded, char *decoded, std::size_t size);

// Decodes a header value into elements appended behind the chain at `*head`
// (which may be null): one element per run of plain text, or of encoded
// words of one kind and charset. `value` holds the first line of the value,
// NUL-terminated in a buffer of `value_size` bytes, and is changed.
//
// With a stream positioned behind that line, continuation lines are read into
// `value` (at most 255 bytes each; `value_size` must be at least 256), joined
// to the value and appended to `header_text` (which may be null); the stream
// is left at the start of the next field. Always 1.
int32_t mime_decode_field_value(Stream *stream, char *value, std::size_t value_size,
                                HeaderText *header_text, mime_hdr_field **head);

// ---- Encoded words, the other way ---------------------------------------------------

// Encoded words of the Q form are lower-case "q", of the B form capital "B".
// A text is cut into 41-byte pieces, each one word; words fold (with "\r\n  ")
// before the column would pass 72; plain texts fold at 993 bytes. A charset
// of more than kMaxWordCharset bytes does not fit the word buffer of the
// record-based interface and is refused.
inline constexpr std::size_t kWordChunk = 41;
inline constexpr std::size_t kMaxWordCharset = 125;
inline constexpr std::string_view kFoldText = "\r\n  ";

// One encoded word for one chunk, replacing what `out` held. Always 1.
int32_t mime_word_base64_encode(std::string_view chunk, std::string &out,
                                std::string_view charset);
int32_t mime_word_quoted_encode(std::string_view chunk, std::string &out,
                                std::string_view charset);
// Appends `text` as encoded words (`encoding` 3: Q, else B), folding by
// `column`. 1 or -2.
int32_t mime_encode_word_text(std::string_view text, std::string &buffer, std::string_view charset,
                              int32_t encoding, int32_t &column);
// Appends the value of a whole chain, with a column of its own that starts
// at 0. 1, -2 when memory ran out, -1 (nothing appended) for a charset too
// long for a word. Null texts and charsets read as empty.
int32_t mime_encode_field_chain(const mime_hdr_field *field, std::string &buffer);
// Appends one plain text folded in 993-byte stretches behind the last comma,
// else semicolon, else blank of each; no column and no first-line rule.
void mime_fold_plain_field(std::string_view text, std::string &out);

// ---- Dates ---------------------------------------------------------------------------

// "Mon, 1 Jan 1996 12:00:00 GMT" -> seconds since 1970 UTC in `*result`,
// which is 0 first and stays 0 on failure. 0 on success, -1 on failure.
int32_t mime_parse_date(const char *text, int32_t *result);

// ---- Header line readers -------------------------------------------------------------

// The next line of a header block into `line`: blank lines ahead of the
// block are passed over, a blank line behind its first line or the end of
// the input ends it. The line's length, or 0 at the end of the block.
std::size_t mime_read_header_line(Stream &stream, char *line, std::size_t size, bool &started);

// 1 when the header at the stream's position has both a Content-Type line and
// a MIME-Version line saying 1.0. Leaves the stream where the scan stopped.
int32_t mime_file_is_mime(Stream &stream);

// Reads a Content-type line into current_type / current_subtype (and `desc`
// when given) and its parameters: the boundary (with its leading "--") into
// `boundary`, a file name into `file_name`. `line` is writable and loses its
// trailing white space; the stream stands behind it. 1 when the line opens a
// multipart body, else 0.
int32_t mime_parse_content_type(Stream &stream, char *line, std::span<char> boundary,
                                std::span<char> file_name, HeaderText *raw_headers,
                                mime_part_desc *desc);

// Searches the parameter list `text` (writable) for `parameter` and stores
// its value in `boundary` (want_boundary) or `file_name`. A list that ends
// in ';' goes on on the next line of the stream (which may be null). The
// values of "name" and "filename" go through the encoded-word decoder.
int32_t mime_find_parameter(char *text, std::string_view parameter, std::span<char> boundary,
                            std::span<char> file_name, Stream *stream, bool want_boundary);

// Reads a whole parameter list into the fields of `desc`, looking ahead on
// the stream (which may be null) for continuation lines. Always 1.
int32_t mime_read_parameters(Stream *stream, char *text, HeaderText *raw_headers,
                             mime_part_desc &desc);

// Reads number, id, total and name of a message/partial line into the run
// state and `desc` (may be null). `text` is the line from its ';' on.
int32_t mime_parse_partial_parameters(const char *text, Stream *stream, mime_part_desc *desc);

// Copies the value behind the first '=' of `text` (at most 91 bytes with the
// "--" that a boundary gets, double quotes dropped). Always 1.
int32_t mime_copy_parameter_value(const char *text, std::span<char> boundary,
                                  std::span<char> file_name, bool want_boundary);

// The value of a Content-Transfer-Encoding line: `encoding` and the run
// state's transfer_encoding get 2, 3 or 4 (result 1: a decoder is needed);
// "binary" gives `encoding` 6 and result 0; anything else 0.
int32_t mime_parse_transfer_encoding(const char *line, int32_t &encoding);

// The code of current_type for the extraction callback: audio 16, image 11,
// video 14, text 2, application 22, message 3, anything else 23.
int32_t mime_type_code();

// A three-letter extension for current_type / current_subtype into
// `extension`; left alone for a type without one. Always 1.
int32_t mime_extension_for_type(std::span<char> extension);

// The value of a header line: behind the first ':' and its blanks, without
// the line end. Always 1.
int32_t mime_header_value(const char *line, std::span<char> value);

// One "count word" item of an Encoding header value; returns the bytes
// consumed from the start of `text`.
int32_t mime_encoding_item(const char *text, int32_t &count, std::span<char> word);

// The decimal number at the head of `text` after white space; no sign. Stops
// growing at INT32_MAX.
int32_t mime_decimal_value(const char *text);

// Copies a line that a reader consumed to the run state's header_file, if
// one is set. A failed write is not noticed.
void mime_copy_to_header_file(const char *line);

} // namespace tw
