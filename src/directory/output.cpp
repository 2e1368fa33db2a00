// A finished file of a directory extraction: how its lines are written, the
// name it ends up with, and how the application hears of it.
#include <array>

#include "directory/directory.h"
#include "headers/headers.h"

namespace tw {

namespace {

constexpr std::size_t kWriteBlock = 64 * 1024;

// Names the extraction itself works with in a target directory. A part that
// calls itself so must not take the name: the work file would be emptied
// under it, or the fragment index overwritten by an attachment.
constexpr std::array<std::string_view, 6> kReservedNames{
    "temp.c", "tmp.c", "part.idx", "part.id$", "MESSAGE.$$$", "file$$$.1$"};

bool is_reserved(std::string_view name) {
    for (std::string_view reserved : kReservedNames)
        if (name == reserved)
            return true;
    return false;
}

// The numbered path with `extension` in the place of its own three letters.
std::string with_extension(const std::string &path, std::string_view extension) {
    std::string renamed = path.substr(0, path.size() - 3);
    renamed += extension;
    return renamed;
}

bool rename_to(std::string &path, const std::string &target, NumberedNames *names) {
    if (rename_no_replace(path, target) != 0)
        return false;
    if (names != nullptr)
        names->renamed(path, target);
    path = target;
    return true;
}

} // namespace

bool mime_is_reserved_name(std::string_view name) { return is_reserved(name); }

BodyWriter::BodyWriter(File &file) : file_(file), block_(new char[kWriteBlock]) {}

bool BodyWriter::write(const char *data, std::size_t length) {
    if (used_ + length > kWriteBlock && !flush())
        return false;
    if (length > kWriteBlock) {
        ok_ = ok_ && file_.write_all(data, length);
        return ok_;
    }
    std::memcpy(block_.get() + used_, data, length);
    used_ += length;
    return ok_;
}

bool BodyWriter::flush() {
    if (used_ > 0)
        ok_ = ok_ && file_.write_all(block_.get(), used_);
    used_ = 0;
    return ok_;
}

void mime_name_output_file(std::string &path, std::size_t directory_length,
                           NumberedNames *names) {
    mime_run_state &state = run_state();
    if (!state.file_name_found)
        state.current_file_name[0] = '\0';
    const std::string directory = path.substr(0, directory_length);

    if (state.file_name_found) {
        // The name is the message's own; only its last component is ever
        // joined to the directory. current_file_name keeps it as given.
        const std::string name = mime_confine_file_name(field(state.current_file_name));
        if (!name.empty()) {
            if (!is_reserved(name) && rename_to(path, directory + name, names))
                return;
            // Taken already: keep the number, take the name's extension.
            const std::size_t dot = name.find_last_of('.');
            if (dot != std::string::npos &&
                rename_to(path, with_extension(path, std::string_view(name).substr(dot + 1)), names))
                return;
        }
        state.file_name_found = 0;
    }

    static constexpr std::array<std::string_view, 5> kTypesWithExtension{
        "text", "video", "audio", "image", "application"};
    const std::string_view type = field(state.current_type);
    for (std::string_view known : kTypesWithExtension)
        if (equals_nocase(type, known)) {
            char extension[10] = {};
            mime_extension_for_type(extension);
            // A failed rename leaves the file under its number.
            rename_to(path, with_extension(path, field(extension)), names);
            return;
        }
}

int32_t mime_report_file(ExtractContext &ctx, const std::string &path,
                         std::string_view x_name, int32_t level, int32_t type) {
    if (!ctx.x_mode) {
        ctx.callback(path.c_str(), level, type);
        return 1;
    }
    const std::string name(x_name);
    ctx.callback(name.c_str(), level, type);
    const int32_t fed = mime_feed_file(
        path, [&](const char *data, int32_t length) { return ctx.sink(data, length); });
    remove_file(path);
    ctx.names.removed(path);
    return fed;
}

} // namespace tw
