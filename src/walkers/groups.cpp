// The walkers of the two groups that make up a web page in a message:
// multipart/alternative delivers every leaf in message order (the choice is
// the application's), multipart/related unpacks its files, rewrites the
// page's links to them and delivers the page once. They call each other one
// level deep; a walker that delivers nothing itself skips every multipart
// inside it whole, so the nesting they follow is bounded by construction.
#include <unordered_set>

#include "walkers/walkers.h"

namespace tw {

// ---- Records of kept parts ----------------------------------------------------------

std::string mime_pack_record(const mime_part_desc &part) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(&part);
    std::string packed;
    for (std::size_t at = 0; at < sizeof part;) {
        if (bytes[at] == 0) {
            ++at;
            continue;
        }
        std::size_t end = at;
        while (end < sizeof part && bytes[end] != 0)
            ++end;
        const uint16_t head[2] = {static_cast<uint16_t>(at), static_cast<uint16_t>(end - at)};
        packed.append(reinterpret_cast<const char *>(head), sizeof head);
        packed.append(reinterpret_cast<const char *>(bytes + at), end - at);
        at = end;
    }
    return packed;
}

void mime_unpack_record(std::string_view packed, mime_part_desc &part) {
    std::memset(&part, 0, sizeof part);
    auto *bytes = reinterpret_cast<unsigned char *>(&part);
    uint16_t head[2];
    while (packed.size() >= sizeof head) {
        std::memcpy(head, packed.data(), sizeof head);
        packed.remove_prefix(sizeof head);
        std::memcpy(bytes + head[0], packed.data(), head[1]);
        packed.remove_prefix(head[1]);
    }
}

// ---- Delivery ---------------------------------------------------------------------------

std::string GroupDelivery::text() const {
    std::string out = page;
    char separator = '|';
    for (const std::string &name : linked) {
        out += separator;
        out += name;
        separator = ',';
    }
    return out;
}

int32_t mime_deliver_group(Walk &walk, const GroupDelivery &delivery) {
    mime_extract_session &session = walk.call.session;
    if (delivery.page.empty())
        return MIME_OK; // a group whose main content had no leaf at all
    if (!walk.bytes_mode())
        return mime_deliver_part(delivery.text(), std::string(), session, MIME_ENC_NONE);
    // Bytes instead of paths: the page, then each file it links to once.
    if (mime_stream_file(delivery.page, session.body_cb, session.user_value) == 0)
        return MIME_FEED_ERROR;
    std::unordered_set<std::string> sent;
    for (const std::string &name : delivery.linked)
        if (sent.insert(name).second &&
            mime_stream_file(walk.call.directory + name, session.body_cb, session.user_value) == 0)
            return MIME_FEED_ERROR;
    return MIME_OK;
}

void Walk::remove_group_files() {
    for (const std::string &path : group_files)
        remove_file(path);
    group_files.clear();
}

namespace {

// Drops a '<' in front and a '>' at the end, each without the other too.
std::string_view without_brackets(std::string_view text) {
    if (text.starts_with('<'))
        text.remove_prefix(1);
    if (text.ends_with('>'))
        text.remove_suffix(1);
    return text;
}

template <std::size_t N> void strip_field(char (&f)[N]) {
    const std::string bare(without_brackets(field(f)));
    copy_field(f, bare);
}

// The frame both walkers share: parts are read up to the group's closing
// delimiter; each leaf goes to a numbered file named by its type and then
// to on_leaf, each nested multipart to on_nested, which must read it whole.
class GroupWalker {
public:
    GroupWalker(Walk &walk, Stream &stream, const char *boundary)
        : walk_(walk), call_(walk.call), stream_(stream), boundary_(boundary),
          closing_(boundary_ + "--") {}
    virtual ~GroupWalker() = default;
    GroupWalker(const GroupWalker &) = delete;
    GroupWalker &operator=(const GroupWalker &) = delete;

    int32_t walk() {
        long long part_mark = stream_.tell();
        for (;;) {
            if (stream_.read_line(line_, sizeof line_) == 0 ||
                starts_with_nocase(line_, closing_))
                return MIME_OK;
            stream_.seek(part_mark);
            mime_part_desc &part = *call_.part;
            std::memset(&part, 0, sizeof part);
            int32_t code = MIME_ENC_NONE, depth = 1;
            long long unused = 0;
            const bool nested = mime_read_part_header(stream_, call_.header_text, inner_, code,
                                                      depth, unused, part) == 1;
            if (call_.header_text.lost())
                return MIME_NO_MEMORY;
            bool closing = false;
            if (nested) {
                if (const int32_t r = on_nested(inner_); r < 0)
                    return r;
                closing = to_next_delimiter();
            } else {
                std::string path = call_.directory;
                if (mime_new_typed_file(path, field(part.content_type),
                                        field(part.content_subtype), &walk_.typed) == 0)
                    return MIME_FILE_ERROR;
                walk_.numbered.renamed({}, path);
                if (part.filename[0] != '\0') {
                    const std::string typed = path;
                    mime_name_part_file(path, call_.directory.size(), part.filename);
                    walk_.numbered.renamed(typed, path);
                }
                walk_.note_group_file(path);
                const int32_t read = read_body(path, code, closing);
                if (read < 0)
                    return read;
                if (const int32_t r = on_leaf(path); r < 0)
                    return r;
            }
            if (closing)
                return MIME_OK;
            part_mark = stream_.tell();
        }
    }

protected:
    virtual int32_t on_leaf(const std::string &path) = 0;
    virtual int32_t on_nested(const char *inner_boundary) = 0;

    Walk &walk_;
    EndCall &call_;
    Stream &stream_;

private:
    // After a nested multipart: on to this group's next delimiter. True when
    // it was the closing one.
    bool to_next_delimiter() {
        while (stream_.read_line(line_, sizeof line_) > 0) {
            if (starts_with_nocase(line_, closing_))
                return true;
            if (starts_with_nocase(line_, boundary_))
                return false;
        }
        return false;
    }

    // A leaf's body into `path`. Only three decoders here; anything else is
    // copied raw, which needs the next delimiter to be there.
    int32_t read_body(const std::string &path, int32_t code, bool &closing) {
        long long part_mark = stream_.tell();
        bool started = false, decoded = false;
        while (stream_.read_line(line_, sizeof line_) > 0) {
            if (!started && is_blank_line(line_))
                continue;
            started = true;
            closing = starts_with_nocase(line_, closing_);
            if (closing || starts_with_nocase(line_, boundary_))
                return MIME_OK;
            if (decoded)
                continue; // what a stopped decoder left up to the delimiter
            // The decoder sees the blank lines ahead of the body too.
            stream_.seek(part_mark);
            decoded = true;
            if (mime_decode_part_body(stream_, code, path, boundary_.c_str(), line_) == 0)
                return MIME_DECODE_ERROR;
            part_mark = stream_.tell();
        }
        return MIME_OK;
    }

    std::string boundary_;
    std::string closing_;
    char inner_[kBoundarySize] = {};
    char line_[kHeaderLine] = {};
};

bool subtype_is(const mime_part_desc &part, std::string_view subtype) {
    return equals_nocase(field(part.content_subtype), subtype);
}

// In bytes mode the files of a group that delivers go when it is over,
// whichever way it ends.
struct GroupFilesGuard {
    Walk &walk;
    bool owner;
    ~GroupFilesGuard() {
        if (owner)
            walk.remove_group_files();
    }
};

class AlternativeWalker : public GroupWalker {
public:
    AlternativeWalker(Walk &walk, Stream &stream, const char *boundary, KeptParts *kept)
        : GroupWalker(walk, stream, boundary), kept_(kept) {}

private:
    int32_t on_leaf(const std::string &path) override {
        if (kept_ != nullptr) {
            kept_->push_back({path, call_.header_text.size(), mime_pack_record(*call_.part)});
            return MIME_OK;
        }
        if (call_.tell_header() == -1)
            return MIME_STOPPED;
        mime_deliver_part(path, std::string(), call_.session, MIME_ENC_NONE);
        walk_.remove_group_files();
        return MIME_OK;
    }

    int32_t on_nested(const char *inner) override {
        if (kept_ != nullptr || !subtype_is(*call_.part, "related")) {
            mime_skip_multipart(stream_, inner);
            return MIME_OK;
        }
        GroupDelivery delivery;
        if (const int32_t r = mime_walk_related(walk_, stream_, inner, &delivery); r < 0)
            return r;
        // The record holds the group's last part by now: each part clears it.
        if (call_.tell_header() == -1)
            return MIME_STOPPED;
        mime_deliver_group(walk_, delivery);
        walk_.remove_group_files();
        return MIME_OK;
    }

    KeptParts *kept_;
};

class RelatedWalker : public GroupWalker {
public:
    RelatedWalker(Walk &walk, Stream &stream, const char *boundary, GroupDelivery *out)
        : GroupWalker(walk, stream, boundary), out_(out),
          start_id_(without_brackets(field(walk.call.part->start))),
          table_(std::string(without_brackets(field(walk.call.part->content_location)))) {}

    int32_t finish(int32_t status) {
        if (status < 0)
            return status;
        if (!main_found_)
            return MIME_FILE_ERROR;
        if (out_ != nullptr) {
            out_->page = main_path_;
            return rewrite(*out_) ? MIME_OK : MIME_FILE_ERROR;
        }
        if (kept_.empty()) {
            GroupDelivery delivery{main_path_, {}};
            const bool rewritten = rewrite(delivery);
            mime_deliver_group(walk_, delivery);
            return rewritten ? MIME_OK : MIME_FILE_ERROR;
        }
        return deliver_kept();
    }

private:
    bool rewrite(GroupDelivery &delivery) {
        return delivery.page.empty() || mime_rewrite_links(delivery.page, table_, delivery.linked);
    }

    // Each leaf of the main alternative with its own header and links; a
    // rewrite that fails does not keep the others from being delivered.
    int32_t deliver_kept() {
        bool rewrite_failed = false;
        auto record = std::make_unique<mime_part_desc>();
        char *text = call_.header_text.data();
        for (const KeptPart &kept : kept_) {
            GroupDelivery delivery{kept.path, {}};
            rewrite_failed = !rewrite(delivery) || rewrite_failed;
            mime_unpack_record(kept.record, *record);
            // The header text as it stood when the part ended is a prefix
            // of the text now; it is ended there for the call.
            const std::size_t length = std::min(kept.header_length, call_.header_text.size());
            const char saved = text[length];
            text[length] = '\0';
            const int32_t answer = call_.session.header_cb(
                record.get(), text, static_cast<int32_t>(length), call_.session.user_value);
            text[length] = saved;
            if (answer == -1)
                return MIME_STOPPED;
            mime_deliver_group(walk_, delivery);
        }
        return rewrite_failed ? MIME_FILE_ERROR : MIME_OK;
    }

    int32_t on_leaf(const std::string &path) override {
        mime_part_desc &part = *call_.part;
        strip_field(part.content_id);
        strip_field(part.content_location);
        if (!main_found_ && (start_id_.empty() ? table_.empty()
                                               : equals_nocase(field(part.content_id), start_id_))) {
            main_path_ = path;
            main_found_ = true;
            return MIME_OK;
        }
        table_.add(path.substr(path.find_last_of('/') + 1), field(part.content_id),
                   field(part.content_location));
        return MIME_OK;
    }

    int32_t on_nested(const char *inner) override {
        mime_part_desc &part = *call_.part;
        bool main_content = false;
        if (out_ == nullptr && subtype_is(part, "alternative")) {
            if (start_id_.empty()) {
                main_content = table_.empty();
            } else {
                strip_field(part.content_id);
                main_content = equals_nocase(field(part.content_id), start_id_);
            }
        }
        if (!main_content) {
            mime_skip_multipart(stream_, inner);
            return MIME_OK;
        }
        if (const int32_t r = mime_walk_alternative(walk_, stream_, inner, &kept_); r < 0)
            return r;
        main_found_ = true;
        return MIME_OK;
    }

    GroupDelivery *out_;
    std::string start_id_;
    LinkTable table_;
    std::string main_path_;
    bool main_found_ = false;
    KeptParts kept_;
};

} // namespace

int32_t mime_walk_alternative(Walk &walk, Stream &stream, const char *boundary, KeptParts *kept) {
    GroupFilesGuard files{walk, kept == nullptr};
    return AlternativeWalker(walk, stream, boundary, kept).walk();
}

int32_t mime_walk_related(Walk &walk, Stream &stream, const char *boundary, GroupDelivery *out) {
    GroupFilesGuard files{walk, out == nullptr};
    RelatedWalker walker(walk, stream, boundary, out);
    return walker.finish(walker.walk());
}

int32_t mime_walk_group(Walk &walk, Stream &stream, const char *boundary) {
    mime_extract_session &session = walk.call.session;
    const uint32_t mode = session.delivery_mode;
    if (mode == kDeliverPath)
        session.delivery_mode = kDeliverGroup;
    const int32_t status = subtype_is(*walk.call.part, "related")
                               ? mime_walk_related(walk, stream, boundary, nullptr)
                               : mime_walk_alternative(walk, stream, boundary, nullptr);
    session.delivery_mode = mode;
    return status;
}

} // namespace tw
