// The link table of a related group and the rewriting of its page: a line
// search for three attribute names, not an HTML parser. The names are found
// as substrings anywhere on a line ("barcode=" counts as code), followed by
// optional spaces and '='.
#include "walkers/walkers.h"

namespace tw {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char &c : out)
        c = ascii_lower(c);
    return out;
}

bool is_http(std::string_view value) { return starts_with_nocase(value, "http://"); }

} // namespace

// Joined as plain text: no separator is added and nothing is normalised.
std::string LinkTable::full_location(std::string_view value) const {
    if (base_.empty() || is_http(value))
        return std::string(value);
    return base_ + std::string(value);
}

void LinkTable::add(std::string file_name, std::string_view content_id,
                    std::string_view location) {
    const std::size_t index = names_.size();
    names_.push_back(std::move(file_name));
    by_id_.try_emplace(lowered(content_id), index);
    by_location_.try_emplace(lowered(full_location(location)), index);
}

const std::string *LinkTable::resolve(std::string_view value) const {
    const bool cid = starts_with_nocase(value, "cid:");
    const auto &index = cid ? by_id_ : by_location_;
    const auto hit = index.find(lowered(cid ? value.substr(4) : full_location(value)));
    return hit == index.end() ? nullptr : &names_[hit->second];
}

namespace {

constexpr std::string_view kAttributes[] = {"src", "background", "code"};

// Replaces the links of one attribute on `line`; each name used goes to
// `replaced`.
void rewrite_attribute(std::string &line, std::string_view name, const LinkTable &table,
                       std::vector<std::string> &replaced) {
    std::size_t from = 0;
    for (;;) {
        // Made afresh for each search, since a replacement changes the line.
        const std::string lower = lowered(line);
        const std::size_t hit = lower.find(name, from);
        if (hit == std::string::npos)
            return;
        std::size_t at = hit + name.size();
        while (at < line.size() && line[at] == ' ')
            ++at;
        if (at >= line.size() || line[at] != '=') {
            from = at;
            continue;
        }
        ++at;
        while (at < line.size() && line[at] == ' ')
            ++at;
        std::size_t start = at, end;
        if (at < line.size() && line[at] == '"') {
            start = at + 1;
            end = line.find('"', start);
        } else {
            end = line.find_first_of(" >", start);
        }
        // A value without its end on this piece of the line is left alone.
        if (end == std::string::npos)
            return;
        const std::string *file = table.resolve(std::string_view(line).substr(start, end - start));
        if (file == nullptr) {
            from = start;
            continue;
        }
        line.replace(start, end - start, *file);
        replaced.push_back(*file);
        // The search goes on behind the new name: a file name from the
        // message that itself reads as a link must not be rewritten again.
        from = start + file->size();
    }
}

} // namespace

int32_t mime_rewrite_links(const std::string &path, const LinkTable &table,
                           std::vector<std::string> &replaced) {
    if (table.empty())
        return 1;
    Stream in = Stream::open_read(path);
    if (!in)
        return 0;
    TempFile copy(make_temp_file(mime_directory_of(path)));
    File out = copy.empty() ? File() : File::open(copy.path(), OpenMode::Create);
    if (!out)
        return 0;
    const std::size_t had = replaced.size();
    bool written = true;
    {
        BufferedWriter writer(out);
        char piece[kHeaderLine];
        std::string line;
        for (std::size_t n; written && (n = in.read_line(piece, sizeof piece)) > 0;) {
            line.assign(piece, n);
            for (std::string_view name : kAttributes)
                rewrite_attribute(line, name, table, replaced);
            written = writer.write(line.data(), line.size());
        }
        written = writer.flush() && written;
    }
    in.close();
    out.close();
    // One rename puts the copy in place: a reader finds the old page or
    // the new one, and a failure anywhere before it leaves the old page.
    if (!written || replace_file(copy.path(), path) != 0) {
        replaced.resize(had);
        return 0;
    }
    copy.keep();
    return 1;
}

} // namespace tw
