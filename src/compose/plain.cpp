// A message without MIME headers: an "Encoding:" header line counts the
// lines of each piece of the body, so header and body are built apart in
// work files and only joined once every attachment is in. Nothing reaches
// the message file before that join.
#include <algorithm>
#include <memory>
#include <vector>

#include "compose/compose.h"
#include "directory/directory.h"

namespace tw {

namespace {

constexpr std::size_t kChunk = 8126;
constexpr int32_t kExtraHeaderSize = 2052;
constexpr char kEndOfText = 0x1A;

bool is_line_end(char c) { return c == '\r' || c == '\n'; }

// Lines of one extra-header chunk: a line end counts only behind another
// line end, so CR LF is one line, and so is LF LF.
int32_t count_extra_lines(const char *data, std::size_t length) {
    int32_t lines = 0;
    char previous = 'a';
    for (std::size_t i = 0; i < length && data[i] != '\0'; ++i) {
        if (is_line_end(data[i]) && is_line_end(previous)) {
            ++lines;
            previous = 'a';
        } else {
            previous = data[i];
        }
    }
    return lines;
}

// What follows the last '/' of a path: the name a begin line carries.
std::string_view last_name(std::string_view path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Copies a text attachment behind two line ends. A 0x1A that ends a chunk
// is an old end-of-text mark and stays out.
int32_t append_text_file(File &body, const std::string &path) {
    File source = File::open(path, OpenMode::ReadShared);
    if (!source)
        return MIME_FILE_ERROR;
    if (!body.write_all("\r\n\r\n"))
        return MIME_FILE_ERROR;
    std::unique_ptr<char[]> chunk(new char[kChunk]);
    for (;;) {
        const long long got = source.read_full(chunk.get(), kChunk);
        if (got <= 0)
            return MIME_OK;
        std::size_t length = static_cast<std::size_t>(got);
        if (chunk[length - 1] == kEndOfText)
            --length;
        if (!body.write_all(chunk.get(), length))
            return MIME_FILE_ERROR;
    }
}

// The work files of one plain composition, all in the message's directory
// and all gone on every way out.
struct PlainWork {
    TempFile body;
    TempFile header;
    TempFile records;
    std::vector<TempFile> byte_files; // attachments given as bytes
    File header_file;
    File record_file;
};

// Appends the collected attachments to the body file and the items they
// make to `encoding`. `has_item` says whether the line holds an item yet.
int32_t append_attachments(PlainWork &work, std::string &encoding, bool &has_item) {
    if (!work.record_file.seek(0))
        return MIME_FILE_ERROR;
    auto desc = std::make_unique<mime_part_desc>();
    File body = File::open(work.body.path(), OpenMode::WriteExisting);
    if (!body || body.seek_end() < 0)
        return MIME_FILE_ERROR;
    while (work.record_file.read_full(desc.get(), sizeof *desc) ==
           static_cast<long long>(sizeof *desc)) {
        // A record of an encoding we cannot write still takes its place in
        // the list, so its separator stands without an item behind it.
        if (has_item)
            encoding += ", ";
        has_item = true;
        const std::string_view kind = field(desc->encoding);
        const std::string filename(field(desc->filename));
        if (equals_nocase(kind, "uuencode")) {
            body.close();
            const std::string name(last_name(filename));
            const int32_t lines =
                ::uuencode(filename.c_str(), work.body.path().c_str(), name.c_str());
            if (lines == -1)
                return MIME_ENCODER_ERROR;
            body = File::open(work.body.path(), OpenMode::UpdateExisting);
            if (!body || body.seek_end() < 0)
                return MIME_FILE_ERROR;
            encoding += std::to_string(lines) + " UUEncode";
        } else if (equals_nocase(kind, "text")) {
            const int32_t lines = mime_count_lines(filename, nullptr, 0, false);
            if (int32_t status = append_text_file(body, filename); status != MIME_OK)
                return status;
            encoding += std::to_string(lines) + " Text";
        }
    }
    return MIME_OK;
}

} // namespace

int32_t mime_write_extra_header(File &file, mime_extra_header_cb extra_header_cb,
                                int32_t *line_count) {
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kExtraHeaderSize + 1]{});
    if (!buffer)
        return MIME_NO_MEMORY;
    for (;;) {
        const int32_t answer = extra_header_cb(buffer.get(), kExtraHeaderSize);
        if (answer == 0)
            return MIME_OK;
        if (answer < 0)
            return MIME_STOPPED;
        const std::size_t length = static_cast<std::size_t>(std::min(answer, kExtraHeaderSize));
        if (!file.write_all(buffer.get(), length))
            return MIME_FILE_ERROR;
        *line_count += count_extra_lines(buffer.get(), length);
    }
}

int32_t mime_collect_attachments(std::vector<TempFile> &byte_files, File &record_file,
                                 const std::string &directory, const ComposeCallbacks &callbacks) {
    std::unique_ptr<mime_part_info> info(new (std::nothrow) mime_part_info{});
    std::unique_ptr<mime_part_desc> desc(new (std::nothrow) mime_part_desc{});
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kChunk + 1]);
    if (!info || !desc || !chunk)
        return MIME_NO_MEMORY;
    NumberedNames names;
    // The records are not cleared between the calls: an application may
    // rely on what its last answer left in them.
    for (;;) {
        int32_t answer = 0;
        if (callbacks.ex_mode) {
            // Attachments have no header of their own, so no extra text.
            if (callbacks.ex_next_part != nullptr)
                answer = callbacks.ex_next_part(desc.get(), nullptr, 0, callbacks.user_value);
        } else if (callbacks.next_part != nullptr) {
            answer = callbacks.next_part(info.get());
            if (answer > 0 && answer != MIME_PART_RAW)
                mime_copy_part_info(*info, *desc);
        }
        if (answer == 0)
            return MIME_OK;
        if (answer == -1)
            return MIME_STOPPED;
        if (answer == MIME_PART_RAW)
            copy_field(desc->encoding, "text");

        int32_t status = MIME_OK;
        File work;
        for (;;) {
            int32_t is_file = 0;
            const int32_t got = callbacks.call_body(chunk.get(), static_cast<int32_t>(kChunk), &is_file);
            if (got == 0)
                break;
            if (got < 0) {
                status = MIME_STOPPED;
                break;
            }
            const std::size_t length = std::min(static_cast<std::size_t>(got), kChunk);
            if (is_file != 0) {
                // A name too long for the record would name another file.
                const std::string_view name(chunk.get(), strnlen(chunk.get(), length));
                if (name.size() >= sizeof desc->filename)
                    status = MIME_FILE_ERROR;
                else
                    copy_field(desc->filename, name);
                break;
            }
            if (!work) {
                std::string path;
                if (names.create_numbered(directory, false, path, work) == 0)
                    status = MIME_FILE_ERROR;
                else
                    byte_files.emplace_back(path);
                if (status == MIME_OK && path.size() >= sizeof desc->filename)
                    status = MIME_FILE_ERROR;
                if (status != MIME_OK)
                    break;
                copy_field(desc->filename, path);
            }
            if (!work.write_all(chunk.get(), length)) {
                status = MIME_FILE_ERROR;
                break;
            }
        }
        work.close();
        if (status != MIME_OK)
            return status;
        if (!record_file.write_all(desc.get(), sizeof *desc))
            return MIME_FILE_ERROR;
    }
}

int32_t mime_join_files(const std::string &target_path, const std::string &header_path,
                        const std::string &body_path, bool no_follow) {
    File target = File::open(target_path, OpenMode::WriteExisting, no_follow);
    if (!target)
        target = File::open(target_path, OpenMode::Create, no_follow);
    if (!target || target.seek_end() < 0)
        return MIME_FILE_ERROR;
    File header = File::open(header_path, OpenMode::ReadExclusive);
    File body = File::open(body_path, OpenMode::ReadExclusive);
    if (!header || !body)
        return MIME_FILE_ERROR;
    // Plain copies: large blocks, since nothing here depends on where a
    // chunk ends.
    constexpr std::size_t kJoinBlock = 256 * 1024;
    std::unique_ptr<char[]> chunk(new char[kJoinBlock]);
    auto copy = [&](File &source) {
        for (;;) {
            const long long got = source.read_full(chunk.get(), kJoinBlock);
            if (got < 0)
                return false;
            if (got == 0)
                return true;
            if (!target.write_all(chunk.get(), static_cast<std::size_t>(got)))
                return false;
        }
    };
    if (!copy(header) || !target.write_all("\r\n") || !copy(body))
        return MIME_FILE_ERROR;
    return MIME_OK;
}

int32_t mime_compose_plain(const ComposeFields &fields, ComposeContext &ctx,
                           std::string_view extra_text, bool newsgroups) {
    PlainWork work;
    work.body.reset(mime_make_temp(ctx.directory));
    if (work.body.empty() || !File::open(work.body.path(), OpenMode::Create))
        return MIME_FILE_ERROR;
    work.header.reset(mime_make_temp(ctx.directory));
    if (!work.header.empty())
        work.header_file = File::open(work.header.path(), OpenMode::Create);

    int32_t status = work.header_file ? MIME_OK : MIME_FILE_ERROR;
    int32_t header_lines = 0;
    if (status == MIME_OK &&
        !mime_write_rfc822_header(work.header_file, fields.from, fields.to, fields.cc, fields.bcc,
                                  fields.subject, &header_lines, newsgroups))
        status = MIME_FILE_ERROR;
    if (status == MIME_OK && !ctx.callbacks.ex_mode && ctx.callbacks.extra_header != nullptr)
        status = mime_write_extra_header(work.header_file, ctx.callbacks.extra_header, &header_lines);
    if (status == MIME_OK && ctx.callbacks.ex_mode && !extra_text.empty() &&
        (!work.header_file.write_all(extra_text) || !work.header_file.write_all("\r\n")))
        status = MIME_FILE_ERROR;
    if (status == MIME_OK) {
        // The text goes straight into the body file: nothing is encoded, so
        // the scratch file only satisfies the body writer.
        ComposeContext body_ctx = ctx;
        body_ctx.message_path = work.body.path();
        body_ctx.no_follow = false;
        TempFile scratch(mime_make_temp(ctx.directory));
        status = mime_write_body(body_ctx, scratch.path(), MIME_ENC_NONE, false);
    }

    long long body_size = 0;
    const int32_t text_lines = mime_count_lines(work.body.path(), &body_size, 0, false);
    bool has_item = text_lines > 0;
    std::string encoding = "Encoding: ";
    if (has_item)
        encoding += std::to_string(text_lines) + " Text";
    // Told before any attachment is asked for: the counts are those of the
    // message without its attachments. The 2 stands for the Encoding line
    // and the blank line, whose bytes are not counted.
    if (ctx.callbacks.done != nullptr) {
        const long long header_size = work.header_file ? work.header_file.size() : 0;
        const long long bytes = std::max(0LL, body_size) + std::max(0LL, header_size);
        ctx.callbacks.done(std::max(0, text_lines) + header_lines + 2,
                           static_cast<int32_t>(std::min<long long>(bytes, INT32_MAX)));
    }
    if (status != MIME_OK)
        return status;

    work.records.reset(mime_make_temp(ctx.directory));
    if (!work.records.empty())
        work.record_file = File::open(work.records.path(), OpenMode::Create);
    if (!work.record_file)
        return MIME_FILE_ERROR;
    status = mime_collect_attachments(work.byte_files, work.record_file, ctx.directory, ctx.callbacks);
    if (status == MIME_OK)
        status = append_attachments(work, encoding, has_item);
    if (status == MIME_OK && has_item) {
        encoding += "\r\n";
        if (work.header_file.seek_end() < 0 || !work.header_file.write_all(encoding))
            status = MIME_FILE_ERROR;
    }
    work.header_file.close();
    work.record_file.close();
    work.records.remove();
    if (status == MIME_OK)
        status = mime_join_files(ctx.message_path, work.header.path(), work.body.path(),
                                 ctx.no_follow);
    return status;
}

} // namespace tw
