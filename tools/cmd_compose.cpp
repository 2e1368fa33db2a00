// tarnwick compose: a text message from a text file, with attachments
// (multipart/mixed) or an HTML version (multipart/alternative).
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

// One part behind the text that the library writes itself.
struct Part {
    std::string path;
    std::string type, subtype, charset, encoding, filename;
};

// The callbacks of create_message carry no context, so what the one
// composition of this command needs is held here.
struct Job {
    std::ifstream *text = nullptr; // the body of the first part
    std::vector<Part> parts;
    std::size_t next = 0;
    std::unique_ptr<std::ifstream> part_stream; // a part too long a path to name
    const Part *current = nullptr;              // whose body comes next
};
Job *g_job = nullptr;

int32_t read_into(std::ifstream &in, char *buffer, int32_t size) {
    in.read(buffer, size);
    return static_cast<int32_t>(in.gcount());
}

int32_t body_from_file(char *buffer, int32_t size, int32_t *is_file) {
    *is_file = 0;
    if (g_job == nullptr)
        return 0;
    if (g_job->current == nullptr)
        return g_job->text != nullptr ? read_into(*g_job->text, buffer, size) : 0;
    if (g_job->part_stream)
        return read_into(*g_job->part_stream, buffer, size);
    // The library reads a named file itself, so a large attachment is never
    // copied through this process.
    const std::string &path = g_job->current->path;
    if (path.size() < 1024 && path.size() <= static_cast<std::size_t>(size)) {
        std::memcpy(buffer, path.data(), path.size());
        *is_file = 1;
        return static_cast<int32_t>(path.size());
    }
    g_job->part_stream = std::make_unique<std::ifstream>(path, std::ios::binary);
    return read_into(*g_job->part_stream, buffer, size);
}

int32_t next_part(mime_part_info *info) {
    if (g_job == nullptr || g_job->next >= g_job->parts.size())
        return MIME_PART_END_MULTIPART;
    const Part &part = g_job->parts[g_job->next++];
    std::memset(info, 0, sizeof *info);
    put(info->content_type, part.type);
    put(info->content_subtype, part.subtype);
    put(info->charset, part.charset);
    put(info->encoding, part.encoding);
    put(info->filename, part.filename);
    g_job->current = &part;
    g_job->part_stream.reset();
    return 1;
}

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
    " [--attach FILE]... | [--html FILE]",
    "write a text message, with attachments (multipart/mixed) or with an HTML version "
    "(multipart/alternative); files that are not plain ASCII text go in Base64; an "
    "existing OUT is appended to",
    run_compose};
Registration registration(kCompose);

int run_compose(const std::vector<std::string> &arguments) {
    std::string from, to, subject, cc, bcc, text, out, date, html;
    bool has_from = false, has_to = false, has_date = false, has_html = false;
    std::string error;
    const std::vector<Option> options{{"--from", &from, &has_from},
                                      {"--to", &to, &has_to},
                                      {"--subject", &subject},
                                      {"--cc", &cc},
                                      {"--bcc", &bcc},
                                      {"--text", &text},
                                      {"-o", &out},
                                      {"--output", &out},
                                      {"--date", &date, &has_date},
                                      {"--html", &html, &has_html}};
    std::vector<std::string> args = arguments;
    std::vector<std::string> attachments;
    if (!take_attachments(args, options, attachments, error) ||
        !parse_options(args, options, nullptr, error))
        return usage_error(kCompose, error);
    if (text.empty() || out.empty())
        return usage_error(kCompose, "--text and -o are required");
    // The library writes the text itself as the first part of a multipart,
    // so an alternative of text and HTML cannot also be the first part of
    // a mixed message.
    if (has_html && !attachments.empty())
        return usage_error(kCompose, "--html and --attach cannot be combined");
    if (has_html && html.empty())
        return usage_error(kCompose, "--html needs a file");
    if (has_date && date.empty())
        return usage_error(kCompose, "--date needs a text");

    std::ifstream body(text, std::ios::binary);
    if (!body)
        return failure("cannot read " + text);
    Job job;
    job.text = &body;
    mime_part_info top{};
    const bool multipart = has_html || !attachments.empty();
    if (has_html) {
        const FileNature nature = inspect(html);
        if (!nature.readable)
            return failure("cannot read " + html);
        Part part;
        part.path = html;
        part.type = "text";
        part.subtype = "html";
        choose_encoding(nature, true, part.charset, part.encoding);
        job.parts.push_back(part);
        put(top.content_subtype, "alternative");
    }
    for (const std::string &path : attachments) {
        const FileNature nature = inspect(path);
        if (!nature.readable)
            return failure("cannot read " + path);
        job.parts.push_back(attachment(path, nature));
        put(top.content_subtype, "mixed");
    }
    if (multipart) {
        // The text part takes charset and encoding from the top record.
        std::string charset, encoding;
        choose_encoding(inspect(text), true, charset, encoding);
        put(top.content_type, "multipart");
        put(top.charset, charset);
        put(top.encoding, encoding);
    }

    if (has_date)
        mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(date.c_str()), 0);
    g_job = &job;
    const int32_t result = create_message(
        has_to ? to.c_str() : nullptr, has_from ? from.c_str() : nullptr, subject.c_str(),
        cc.c_str(), bcc.c_str(), multipart ? &top : nullptr, out.c_str(),
        multipart ? next_part : nullptr, body_from_file, nullptr, nullptr, 1, 0);
    g_job = nullptr;
    if (has_date)
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
    if (result != 1)
        return failure("could not write the message to " + out);
    return kOk;
}

} // namespace
} // namespace cli
