// tarnwick compose: a single-part text message from a text file.
#include <cstdio>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

// The callbacks of create_message carry no context, so the body source is
// held here for the one composition the command makes.
std::ifstream *g_body = nullptr;

int32_t body_from_file(char *buffer, int32_t size, int32_t *is_file) {
    *is_file = 0;
    if (g_body == nullptr)
        return 0;
    g_body->read(buffer, size);
    return static_cast<int32_t>(g_body->gcount());
}

int run_compose(const std::vector<std::string> &args);

const Command kCompose{
    "compose",
    "compose --from A --to B --subject S --text FILE -o OUT [--cc C] [--bcc D] [--date DATE]",
    "write a single-part text message; an existing OUT is appended to", run_compose};
Registration registration(kCompose);

int run_compose(const std::vector<std::string> &args) {
    std::string from, to, subject, cc, bcc, text, out, date;
    bool has_from = false, has_to = false, has_date = false;
    std::string error;
    const std::vector<Option> options{{"--from", &from, &has_from}, {"--to", &to, &has_to},
                                      {"--subject", &subject},      {"--cc", &cc},
                                      {"--bcc", &bcc},              {"--text", &text},
                                      {"-o", &out},                 {"--output", &out},
                                      {"--date", &date, &has_date}};
    if (!parse_options(args, options, nullptr, error))
        return usage_error(kCompose, error);
    if (text.empty() || out.empty())
        return usage_error(kCompose, "--text and -o are required");

    std::ifstream body(text, std::ios::binary);
    if (!body)
        return failure("cannot read " + text);
    if (has_date && date.empty())
        return usage_error(kCompose, "--date needs a text");
    if (has_date)
        mime_options(MIME_OPT_SET_DATE, reinterpret_cast<intptr_t>(date.c_str()), 0);
    g_body = &body;
    const int32_t result = create_message(has_to ? to.c_str() : nullptr,
                                          has_from ? from.c_str() : nullptr, subject.c_str(),
                                          cc.c_str(), bcc.c_str(), nullptr, out.c_str(), nullptr,
                                          body_from_file, nullptr, nullptr, 1, 0);
    g_body = nullptr;
    if (has_date)
        mime_options(MIME_OPT_CLEAR_DATE, 0, 0);
    if (result != 1)
        return failure("could not write the message to " + out);
    return kOk;
}

} // namespace
} // namespace cli
