// create_ex_message: composition from chains of header elements, with the
// full part record, a value handed back to every callback, and the message
// given to a file, to a callback, or to both.
#include <cstring>
#include <optional>

#include "compose/compose.h"
#include "headers/headers.h"

namespace tw {
namespace {

// The first call may fill at most 2051 bytes and the NUL; the loop calls
// are offered all 2052.
constexpr int32_t kFirstExtraSize = PartRecords::kExtraSize - 1;

// Answers of the first next_part_cb that give no top-level part at all.
bool refuses_message(int32_t answer) {
    return answer == 0 || answer == MIME_PART_END_MULTIPART || answer == MIME_PART_RAW ||
           answer == -1;
}

// The value of one address field; none for a null chain. A lone element
// with encoding 7 is written as it stands, folded only where it is too long
// for a line; everything else is a chain of elements joined by commas.
int32_t field_value(const mime_hdr_field *chain, std::optional<std::string> &value) {
    if (chain == nullptr)
        return MIME_OK;
    std::string text;
    if (chain->encoding == MIME_ENC_PLAIN && chain->next == nullptr) {
        mime_fold_plain_field(chain->text != nullptr ? chain->text : "", text);
    } else if (const int32_t status = mime_encode_field_chain(chain, text); status != MIME_OK) {
        return status;
    }
    value = std::move(text);
    return MIME_OK;
}

const char *c_str_or_null(const std::optional<std::string> &value) {
    return value ? value->c_str() : nullptr;
}

struct ExArgs {
    const mime_address_lists *fields;
    const char *message_path;
    mime_ex_output_cb output_cb;
    ComposeCallbacks callbacks;
    bool mime;
    bool newsgroups;
};

int32_t create_ex(const ExArgs &args) {
    if (args.message_path == nullptr && args.output_cb == nullptr)
        return MIME_NO_TARGET;
    // Without a path the message is built in a work file of the current
    // directory that goes on every way out, also when an exception unwinds.
    TempFile work;
    std::string path;
    if (args.message_path != nullptr) {
        path = args.message_path;
        if (!path_fits(path))
            return MIME_FILE_ERROR;
    } else {
        const std::string current = mime_full_path(".");
        work.reset(current.empty() ? std::string() : mime_make_temp(current));
        if (work.empty())
            return MIME_FILE_ERROR;
        path = work.path();
    }

    PartRecords records;
    if (!records.allocate())
        return MIME_NO_MEMORY;
    const ComposeCallbacks &cb = args.callbacks;
    if (cb.ex_next_part == nullptr)
        return MIME_FEED_ERROR; // no answer is the stop answer
    const int32_t first = cb.ex_next_part(args.mime ? records.desc.get() : nullptr,
                                          records.extra.get(), kFirstExtraSize, cb.user_value);
    if (refuses_message(first))
        return MIME_FEED_ERROR;

    std::optional<std::string> to, cc, bcc, subject, from;
    const mime_address_lists empty{};
    const mime_address_lists &lists = args.fields != nullptr ? *args.fields : empty;
    for (auto [chain, value] : {std::pair{lists.to, &to}, std::pair{lists.cc, &cc},
                                std::pair{lists.bcc, &bcc}, std::pair{lists.subject, &subject},
                                std::pair{lists.from, &from}})
        if (const int32_t status = field_value(chain, *value); status != MIME_OK)
            return status;

    const ComposeFields values{c_str_or_null(to), c_str_or_null(from), c_str_or_null(subject),
                               c_str_or_null(cc), c_str_or_null(bcc)};
    const int32_t status = mime_compose(values, *records.desc, path, records.extra_text(), cb,
                                        args.mime, args.newsgroups);
    if (status < 0 || args.output_cb == nullptr)
        return status < 0 ? status : MIME_OK;
    const auto sink = [&](const char *data, int32_t length) {
        return args.output_cb(data, length, cb.user_value);
    };
    return mime_feed_file(mime_full_path(path), sink) == 0 ? MIME_FEED_ERROR : MIME_OK;
}

} // namespace
} // namespace tw

// A null `fields` reads as five null chains, and a null next_part_cb as one
// that stops at once: no record, no message.
extern "C" TARNWICK_API int32_t create_ex_message(const mime_address_lists *fields,
                                                 const char *message_path,
                                                 mime_ex_output_cb output_cb,
                                                 mime_ex_next_part_cb next_part_cb,
                                                 mime_ex_body_cb body_cb, int32_t mime,
                                                 int32_t newsgroups, intptr_t user_value) {
    return tw::guarded(MIME_ERROR, [&] {
        tw::ComposeCallbacks callbacks;
        callbacks.ex_mode = true;
        callbacks.user_value = user_value;
        callbacks.ex_next_part = next_part_cb;
        callbacks.ex_body = body_cb;
        return tw::create_ex({fields, message_path, output_cb, callbacks, mime != 0,
                              newsgroups != 0});
    }, MIME_NO_MEMORY);
}
