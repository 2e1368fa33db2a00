// tarnwick compose: a text message from a text file, with an HTML version
// (multipart/alternative) and attachments (multipart/mixed), through
// create_ex_message so that a subject or display name need not be ASCII.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

// ---- What a file holds ---------------------------------------------------------

// A file that can stand in a message as it is: printable ASCII, TAB and line
// ends only (CR only in front of LF), no line longer than 998 bytes, and no
// line that could be taken for one of our boundaries. Anything else travels
// in Base64.
struct FileNature {
    bool readable = false;
    bool clean = true;
    bool eight_bit = false; // holds bytes from 0x80 up
};

FileNature inspect(const std::string &path) {
    FileNature nature;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return nature;
    nature.readable = true;
    constexpr std::size_t kLongestLine = 998;
    constexpr std::size_t kHeadLength = 32;
    std::string head; // the start of the current line, for the boundary test
    std::size_t line_length = 0;
    bool after_cr = false;
    auto looks_like_boundary = [&] {
        return head.rfind("--", 0) == 0 && head.find("TarnwickLEVEL") != std::string::npos;
    };
    std::unique_ptr<char[]> block(new char[64 * 1024]);
    while (in) {
        in.read(block.get(), 64 * 1024);
        const std::streamsize got = in.gcount();
        for (std::streamsize i = 0; i < got; ++i) {
            const auto c = static_cast<unsigned char>(block[static_cast<std::size_t>(i)]);
            if (c >= 0x80)
                nature.eight_bit = true;
            if (after_cr && c != '\n')
                nature.clean = false;
            after_cr = c == '\r';
            if (c == '\n') {
                if (looks_like_boundary())
                    nature.clean = false;
                head.clear();
                line_length = 0;
                continue;
            }
            if (c == '\r')
                continue;
            if ((c < 0x20 && c != '\t') || c >= 0x7F || ++line_length > kLongestLine)
                nature.clean = false;
            if (head.size() < kHeadLength)
                head += static_cast<char>(c);
        }
    }
    if (after_cr || looks_like_boundary())
        nature.clean = false;
    return nature;
}

// ---- Types by file extension ----------------------------------------------------

struct MediaType {
    const char *extension;
    const char *type;
    const char *subtype;
};

constexpr std::array<MediaType, 22> kMediaTypes{{
    {"txt", "text", "plain"},        {"text", "text", "plain"},     {"html", "text", "html"},
    {"htm", "text", "html"},         {"css", "text", "css"},        {"csv", "text", "csv"},
    {"xml", "text", "xml"},          {"md", "text", "markdown"},    {"json", "application", "json"},
    {"pdf", "application", "pdf"},   {"zip", "application", "zip"}, {"gz", "application", "gzip"},
    {"tar", "application", "x-tar"}, {"png", "image", "png"},       {"jpg", "image", "jpeg"},
    {"jpeg", "image", "jpeg"},       {"gif", "image", "gif"},       {"svg", "image", "svg+xml"},
    {"webp", "image", "webp"},       {"mp3", "audio", "mpeg"},      {"wav", "audio", "wav"},
    {"mp4", "video", "mp4"},
}};

bool same_nocase(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

std::string_view base_name(std::string_view path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

const MediaType *media_type_of(std::string_view path) {
    const std::string_view name = base_name(path);
    const std::size_t dot = name.find_last_of('.');
    if (dot == std::string_view::npos || dot == 0)
        return nullptr;
    for (const MediaType &m : kMediaTypes)
        if (same_nocase(name.substr(dot + 1), m.extension))
            return &m;
    return nullptr;
}

// The header writer puts a file name into the header as it stands, once
// without quotes: bytes that would break the header line become '_'.
std::string header_safe_name(std::string_view path) {
    std::string name(base_name(path));
    for (char &c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F || c == '"' || c == '\\' || c == ';')
            c = '_';
    }
    return name;
}

template <std::size_t N> void put(char (&field)[N], std::string_view text) {
    const std::size_t n = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

// ---- The parts and the callbacks ------------------------------------------------

// One part of the message, or the close of a multipart level.
struct Part {
    std::string path; // the body; empty for a multipart
    std::string type, subtype, charset, encoding, filename;
    bool close = false;
};

// The composition of one call. It travels as the user_value of the
// callbacks, so nothing of it is global.
struct Job {
    Part top;
    std::vector<Part> steps; // the answers of the multipart loop, in order
    std::size_t next = 0;
    bool asked_top = false;
    std::unique_ptr<std::ifstream> stream; // a body read through this process
    const Part *current = nullptr;         // whose body comes next
    bool plain = false;                    // no MIME: attachments end the message
};

Job &job_of(intptr_t value) { return *reinterpret_cast<Job *>(value); }

int32_t read_into(std::ifstream &in, char *buffer, int32_t size) {
    in.read(buffer, size);
    return static_cast<int32_t>(in.gcount());
}

int32_t body_from_file(char *buffer, int32_t size, int32_t *is_file, intptr_t value) {
    Job &job = job_of(value);
    *is_file = 0;
    if (job.current == nullptr || job.current->path.empty())
        return 0;
    if (job.stream)
        return read_into(*job.stream, buffer, size);
    // The library reads a named file itself, so a large body is never
    // copied through this process.
    const std::string &path = job.current->path;
    if (path.size() < 1024 && path.size() <= static_cast<std::size_t>(size)) {
        std::memcpy(buffer, path.data(), path.size());
        *is_file = 1;
        return static_cast<int32_t>(path.size());
    }
    job.stream = std::make_unique<std::ifstream>(path, std::ios::binary);
    return read_into(*job.stream, buffer, size);
}

void describe(mime_part_desc &record, const Part &part) {
    // The loop keeps the record between calls: every field is set anew.
    std::memset(&record, 0, sizeof record);
    put(record.content_type, part.type);
    put(record.content_subtype, part.subtype);
    put(record.charset, part.charset);
    put(record.encoding, part.encoding);
    put(record.filename, part.filename);
}

int32_t next_part(mime_part_desc *record, char *, int32_t, intptr_t value) {
    Job &job = job_of(value);
    const Part *part = nullptr;
    if (!job.asked_top) {
        job.asked_top = true;
        part = &job.top;
    } else if (job.next < job.steps.size()) {
        part = &job.steps[job.next++];
    } else {
        // Beyond the plan: the multipart road closes, the plain one ends.
        return record != nullptr && !job.plain ? MIME_PART_END_MULTIPART : 0;
    }
    if (part->close)
        return MIME_PART_END_MULTIPART;
    if (record != nullptr)
        describe(*record, *part);
    job.current = part;
    job.stream.reset();
    return 1;
}

// ---- Address fields and the subject ---------------------------------------------

bool is_ascii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The addresses of a field, split at the commas that stand outside quotes
// and angle brackets.
std::vector<std::string_view> split_addresses(std::string_view text) {
    std::vector<std::string_view> addresses;
    bool quoted = false;
    int angle = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || (text[i] == ',' && !quoted && angle == 0)) {
            if (const std::string_view one = trimmed(text.substr(start, i - start)); !one.empty())
                addresses.push_back(one);
            start = i + 1;
        } else if (text[i] == '"') {
            quoted = !quoted;
        } else if (text[i] == '<' && !quoted) {
            ++angle;
        } else if (text[i] == '>' && !quoted && angle > 0) {
            --angle;
        }
    }
    return addresses;
}

// The value of one element as the library writes it.
std::string encode_value(mime_hdr_field &element, std::string &error) {
    std::string out(4096 + (std::strlen(element.charset) + 16) * std::strlen(element.text), '\0');
    int32_t length = static_cast<int32_t>(out.size());
    const int32_t status = mime_encode_HdrField(&element, out.data(), &length);
    if (status != MIME_OK) {
        error = "encoding a header failed with status " + std::to_string(status);
        return {};
    }
    out.resize(static_cast<std::size_t>(length));
    return out;
}

// An address field as one plain element: an address whose display name is
// not ASCII gets that name as encoded words, its <address> stays as it is.
// Everything else is written as the user gave it. The library folds the
// field behind the last comma of each too-long stretch, never inside an
// address.
bool address_value(const std::string &text, std::string charset, std::string &value,
                   std::string &error) {
    if (is_ascii(text)) {
        value = text;
        return true;
    }
    for (const std::string_view address : split_addresses(text)) {
        const std::size_t open = address.rfind('<');
        if (open == std::string_view::npos || !is_ascii(address.substr(open))) {
            error = "an address must be ASCII: '" + std::string(address) + "'";
            return false;
        }
        std::string name(trimmed(address.substr(0, open)));
        if (name.size() >= 2 && name.front() == '"' && name.back() == '"')
            name = name.substr(1, name.size() - 2);
        if (!value.empty())
            value += ", ";
        if (is_ascii(name)) {
            value += address;
            continue;
        }
        mime_hdr_field element{name.data(), charset.data(), MIME_ENC_BASE64, nullptr};
        std::string words = encode_value(element, error);
        if (!error.empty())
            return false;
        if (words.starts_with("\r\n  ")) // a fold before the first word
            words.erase(0, 4);
        value += words + " " + std::string(address.substr(open));
    }
    return true;
}

// The five chains of the message; a field left out has none.
struct Fields {
    std::array<std::string, 5> text;     // to, from, cc, bcc, subject
    std::array<bool, 5> given{};
    std::string charset;
    std::array<mime_hdr_field, 5> element{};
    mime_address_lists lists{};

    bool build(std::string &error) {
        for (std::size_t i = 0; i < 5; ++i) {
            if (!given[i])
                continue;
            int32_t encoding = MIME_ENC_PLAIN;
            if (i == 4) {
                // A subject that is not ASCII is one element of encoded words.
                if (!is_ascii(text[i]))
                    encoding = MIME_ENC_BASE64;
            } else {
                std::string value;
                if (!address_value(text[i], charset, value, error))
                    return false;
                text[i] = std::move(value);
            }
            element[i] = {text[i].data(), charset.data(), encoding, nullptr};
        }
        auto head = [&](std::size_t i) { return given[i] ? &element[i] : nullptr; };
        lists = {head(0), head(1), head(2), head(3), head(4)};
        return true;
    }
};

// Clean files go as they are; others in Base64. Text that is not ASCII is
// taken to be UTF-8.
void choose_encoding(const FileNature &nature, bool text, std::string &charset,
                     std::string &encoding) {
    if (!nature.clean)
        encoding = "base64";
    if (text && nature.eight_bit)
        charset = "utf-8";
}

Part attachment(const std::string &path, const FileNature &nature) {
    Part part;
    part.path = path;
    part.filename = header_safe_name(path);
    if (const MediaType *m = media_type_of(path)) {
        part.type = m->type;
        part.subtype = m->subtype;
    } else if (nature.clean) {
        part.type = "text";
        part.subtype = "plain";
    } else {
        part.type = "application";
        part.subtype = "octet-stream";
    }
    choose_encoding(nature, part.type == "text", part.charset, part.encoding);
    return part;
}

// Takes every "--attach FILE" out of `args`, leaving the rest for the
// common parser; an option's value is never read as an option.
bool take_attachments(std::vector<std::string> &args, const std::vector<Option> &options,
                      std::vector<std::string> &attachments, std::string &error) {
    std::vector<std::string> rest;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--attach") {
            if (i + 1 >= args.size()) {
                error = "option '--attach' needs a value";
                return false;
            }
            attachments.push_back(args[++i]);
            continue;
        }
        rest.push_back(args[i]);
        for (const Option &option : options)
            if (args[i] == option.name && i + 1 < args.size())
                rest.push_back(args[++i]);
    }
    args = std::move(rest);
    return true;
}


int run_compose(const std::vector<std::string> &args);

const Command kCompose{
    "compose",
    "compose --from A --to B --subject S --text FILE -o OUT [--cc C] [--bcc D] [--date DATE]"
    " [--charset CS] [--attach FILE]... [--html FILE | --plain]",
    "write a text message, with an HTML version (multipart/alternative) and attachments "
    "(multipart/mixed); files that are not plain ASCII text go in Base64; a subject or a "
    "display name that is not ASCII is written as encoded words in --charset (utf-8 by "
    "default); an existing OUT is appended to; --plain writes a message without MIME "
    "headers, each attachment uuencoded under its own name",
    run_compose};
Registration registration(kCompose);

Part text_part(const std::string &path, const FileNature &nature, const char *subtype) {
    Part part;
    part.path = path;
    part.type = "text";
    part.subtype = subtype;
    choose_encoding(nature, true, part.charset, part.encoding);
    return part;
}

Part closing() {
    Part part;
    part.close = true;
    return part;
}

Part multipart(const char *subtype) {
    Part part;
    part.type = "multipart";
    part.subtype = subtype;
    return part;
}

// The top part and the answers of the loop: the text, or an alternative of
// text and HTML, followed by the attachments in a mixed multipart.
bool plan(Job &job, const std::string &text, const std::string &html,
          const std::vector<std::string> &attachments, std::string &error) {
    const FileNature text_nature = inspect(text);
    if (!text_nature.readable) {
        error = "cannot read " + text;
        return false;
    }
    std::vector<Part> body{text_part(text, text_nature, "plain")};
    if (!html.empty()) {
        const FileNature nature = inspect(html);
        if (!nature.readable) {
            error = "cannot read " + html;
            return false;
        }
        body = {multipart("alternative"), body[0], text_part(html, nature, "html"), closing()};
    }
    std::vector<Part> rest;
    for (const std::string &path : attachments) {
        const FileNature nature = inspect(path);
        if (!nature.readable) {
            error = "cannot read " + path;
            return false;
        }
        rest.push_back(attachment(path, nature));
    }
    if (rest.empty()) {
        // One part on top: a text, or the alternative with its own parts.
        job.top = body[0];
        job.steps.assign(body.begin() + 1, body.end());
        return true;
    }
    job.top = multipart("mixed");
    job.steps = body;
    job.steps.insert(job.steps.end(), rest.begin(), rest.end());
    job.steps.push_back(closing());
    return true;
}

int run_compose(const std::vector<std::string> &arguments) {
    std::string text, out, date, html;
    Fields fields;
    fields.charset = "utf-8";
    bool has_date = false, has_html = false;
    std::string error;
    const std::vector<Option> options{{"--to", &fields.text[0], &fields.given[0]},
                                      {"--from", &fields.text[1], &fields.given[1]},
                                      {"--cc", &fields.text[2], &fields.given[2]},
                                      {"--bcc", &fields.text[3], &fields.given[3]},
                                      {"--subject", &fields.text[4], &fields.given[4]},
                                      {"--text", &text},
                                      {"-o", &out},
                                      {"--output", &out},
                                      {"--date", &date, &has_date},
                                      {"--html", &html, &has_html},
                                      {"--charset", &fields.charset}};
    std::vector<std::string> args = arguments;
    const auto plain_flag = std::remove(args.begin(), args.end(), std::string("--plain"));
    const bool plain = plain_flag != args.end();
    args.erase(plain_flag, args.end());
    std::vector<std::string> attachments;
    if (!take_attachments(args, options, attachments, error) ||
        !parse_options(args, options, nullptr, error))
        return usage_error(kCompose, error);
    if (text.empty() || out.empty())
        return usage_error(kCompose, "--text and -o are required");
    if (plain && has_html)
        return usage_error(kCompose, "--plain and --html exclude each other");
    if (has_html && html.empty())
        return usage_error(kCompose, "--html needs a file");
    if (has_date && date.empty())
        return usage_error(kCompose, "--date needs a text");
    if (fields.charset.empty() || fields.charset.size() > 40 || !is_ascii(fields.charset))
        return usage_error(kCompose, "--charset needs a charset name");
    // Empty subject, cc and bcc give no line, as they always did.
    for (std::size_t i = 2; i < 5; ++i)
        fields.given[i] = fields.given[i] && !fields.text[i].empty();
    if (!fields.build(error))
        return usage_error(kCompose, error);

    Job job;
    if (!plan(job, text, html, attachments, error))
        return failure(error);
    if (plain) {
        // The text first, then every attachment uuencoded under its own name.
        job.plain = true;
        job.steps.erase(std::remove_if(job.steps.begin(), job.steps.end(),
                                       [](const Part &p) { return p.close || p.type == "multipart"; }),
                        job.steps.end());
        if (!attachments.empty())
            job.top = job.steps.front(), job.steps.erase(job.steps.begin());
        for (Part &part : job.steps)
            part.encoding = "uuencode";
    }
    if (has_date)
        mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(date.c_str()), 0);
    const int32_t mime = plain ? 0 : 1;
    const int32_t result = create_ex_message(&fields.lists, out.c_str(), nullptr, next_part,
                                             body_from_file, mime, 0,
                                             reinterpret_cast<intptr_t>(&job));
    if (has_date)
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
    if (result != MIME_OK)
        return failure("could not write the message to " + out + " (status " +
                       std::to_string(result) + ")");
    return kOk;
}

} // namespace
} // namespace cli
