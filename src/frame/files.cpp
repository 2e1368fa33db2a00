// Path and file helpers that every subsystem goes through, so that
// composition and extraction treat paths and files alike.
#include <cstring>
#include <memory>
#include <vector>

#include "frame/frame.h"

namespace tw {

namespace {

// Cuts the last directory name of a directory that ends with '/', leaving
// the '/' in front of that name.
void cut_last_name(std::string &dir) {
    std::size_t slash = dir.find_last_of('/', dir.size() >= 2 ? dir.size() - 2 : 0);
    if (slash != std::string::npos)
        dir.resize(slash + 1);
}

} // namespace

std::string mime_full_path(std::string_view path) {
    std::string current = current_directory();
    if (current.empty())
        return {};
    const bool root = current.back() == '/';
    if (!root)
        current += '/';

    std::string result;
    const bool has_separator = path.find('/') != std::string_view::npos;
    if (path == ".") {
        result = current;
    } else if (path == "..") {
        result = current;
        if (!root)
            cut_last_name(result);
    } else if (!has_separator) {
        result = current + std::string(path);
    } else if (path.front() != '.') {
        result = std::string(path);
    } else {
        // Only the first name is resolved, whatever it is, as long as it
        // begins with a dot: "..x/y" goes up one level as ".." would.
        result = current;
        if (path.size() > 1 && path[1] == '.' && !root)
            cut_last_name(result);
        result += path.substr(path.find('/') + 1);
    }
    if (!path_fits(result))
        return {};
    return result;
}

std::string mime_directory_of(std::string_view path) {
    std::size_t slash = path.find_last_of('/');
    if (slash == std::string_view::npos)
        return {};
    return std::string(path.substr(0, slash + 1));
}

std::string mime_make_temp(const std::string &directory) { return make_temp_file(directory); }

int32_t mime_append_file(const std::string &source_path, const std::string &target_path,
                         long long offset) {
    constexpr std::size_t kChunk = 2048;
    // Read in large blocks but judge 0x1A per 2048-byte chunk, since where the
    // chunks fall decides which bytes are dropped.
    constexpr std::size_t kBlock = 32 * kChunk;
    File source = File::open(source_path, OpenMode::ReadShared);
    if (!source)
        return 0;
    source.seek(offset);
    File target = File::open(target_path, OpenMode::WriteExisting);
    if (!target)
        return 0;
    target.seek_end();

    std::unique_ptr<char[]> block(new char[kBlock]);
    for (;;) {
        long long got = source.read_full(block.get(), kBlock);
        if (got <= 0)
            break; // a failed read counts as the end
        std::size_t out = 0;
        for (std::size_t start = 0; start < static_cast<std::size_t>(got); start += kChunk) {
            std::size_t len = std::min(kChunk, static_cast<std::size_t>(got) - start);
            if (block[start + len - 1] == '\x1a')
                --len;
            std::memmove(block.get() + out, block.get() + start, len);
            out += len;
        }
        if (!target.write_all(block.get(), out))
            return 0;
        if (static_cast<std::size_t>(got) < kBlock)
            break;
    }
    return 1;
}

int32_t mime_append_bytes(const std::string &path, const char *data, std::size_t length,
                          File *file) {
    File own;
    if (!path.empty()) {
        own = File::open(path, OpenMode::UpdateExisting);
        if (!own)
            own = File::open(path, OpenMode::Create);
        if (!own)
            return 0;
        file = &own;
    }
    if (file == nullptr || !file->ok() || file->seek_end() < 0)
        return 0;
    return file->write_all(data, length) ? 1 : 0;
}

int32_t mime_count_lines(const std::string &path, long long *size_out, long long offset,
                         bool use_offset) {
    // A "line" is one read of a 1024-byte line buffer: up to 1023 bytes or
    // through LF. Counted on large blocks to spare a call per line.
    constexpr std::size_t kPiece = 1023;
    constexpr std::size_t kBlock = 64 * 1024;
    File file = File::open(path, OpenMode::ReadShared);
    if (!file)
        return -1;
    long long position = 0;
    if (use_offset) {
        file.seek(offset);
        position = offset;
    }
    std::unique_ptr<char[]> block(new char[kBlock]);
    long long lines = 0;
    std::size_t piece = 0; // bytes of the read in progress
    for (;;) {
        long long got = file.read_full(block.get(), kBlock);
        if (got <= 0)
            break;
        position += got;
        const char *p = block.get();
        const char *end = p + got;
        while (p < end) {
            std::size_t room = kPiece - piece;
            std::size_t span = std::min(room, static_cast<std::size_t>(end - p));
            const char *lf = static_cast<const char *>(std::memchr(p, '\n', span));
            if (lf != nullptr) {
                p = lf + 1;
                ++lines;
                piece = 0;
            } else if (span == room) {
                p += span;
                ++lines;
                piece = 0;
            } else {
                piece += span;
                p += span;
            }
        }
        if (static_cast<std::size_t>(got) < kBlock)
            break;
    }
    if (piece > 0)
        ++lines;
    if (size_out != nullptr)
        *size_out = position;
    return lines > INT32_MAX ? INT32_MAX : static_cast<int32_t>(lines);
}

int32_t mime_feed_file(const std::string &path, const FeedSink &sink) {
    File file = File::open(path, OpenMode::ReadExclusive);
    if (!file)
        return 0;
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kFeedChunk]);
    if (!chunk)
        return 0;
    int32_t answer = 0;
    for (;;) {
        long long got = file.read_full(chunk.get(), kFeedChunk);
        if (got < 0)
            break; // a failed read ends the feed without telling the sink
        if (got == 0) {
            answer = sink("", 0);
            break;
        }
        answer = sink(chunk.get(), static_cast<int32_t>(got));
        if (answer == -1)
            break;
    }
    return answer == -1 ? 0 : 1;
}

std::string mime_confine_file_name(std::string_view name) {
    constexpr std::size_t kMaxName = 255;
    const std::size_t cut = name.find_last_of("/\\");
    if (cut != std::string_view::npos)
        name.remove_prefix(cut + 1);
    std::string safe(name.substr(0, kMaxName));
    for (char &c : safe)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '_';
    if (safe == "." || safe == "..")
        safe.clear();
    return safe;
}

int32_t mime_is_uu_begin(std::string_view line) {
    // Split at blanks only; a TAB or the line end stays part of a word, so a
    // mode directly followed by CRLF is no mode.
    std::size_t p = 0;
    auto next_word = [&]() -> std::string_view {
        while (p < line.size() && line[p] == ' ')
            ++p;
        std::size_t start = p;
        while (p < line.size() && line[p] != ' ')
            ++p;
        return line.substr(start, p - start);
    };
    next_word();
    std::string_view mode = next_word();
    if (mode.size() != 3)
        return 0;
    for (char c : mode)
        if (c < '0' || c > '7')
            return 0;
    return 1;
}

} // namespace tw
