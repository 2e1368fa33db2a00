// tarnwick header decode TEXT: the elements of a header value, one a line.
// tarnwick date TEXT: the seconds since 1970 UTC of a Date: header value.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "tarnwick.h"

#include "headers/headers.h"

namespace cli {
namespace {

int run_header(const std::vector<std::string> &args);

const Command kHeader{"header", "header decode TEXT",
                      "print the elements of an encoded header value, one a line: encoding, "
                      "charset and decoded text, separated by TABs",
                      run_header};
Registration header_registration(kHeader);

int run_decode(const std::string &text) {
    std::string value = text; // the decoder trims its argument in place
    mime_hdr_field *chain = mime_decode_HdrField(value.data());
    if (chain == nullptr)
        return failure("out of memory");
    for (const mime_hdr_field *e = chain; e != nullptr; e = e->next) {
        // The text is printed as the bytes it decoded to, in its charset.
        std::printf("%d\t%s\t", static_cast<int>(e->encoding), e->charset);
        const std::string element = e->text != nullptr ? e->text : "";
        std::fwrite(element.data(), 1, element.size(), stdout);
        std::fputc('\n', stdout);
    }
    mime_FreeList(chain);
    return std::fflush(stdout) == 0 ? kOk : failure("cannot write the output");
}

int run_header(const std::vector<std::string> &args) {
    if (args.empty())
        return usage_error(kHeader, "missing action");
    if (args[0] == "decode") {
        if (args.size() != 2)
            return usage_error(kHeader, "decode takes one TEXT");
        return run_decode(args[1]);
    }
    return usage_error(kHeader, "unknown action '" + args[0] + "'");
}

int run_date(const std::vector<std::string> &args);

const Command kDate{"date", "date TEXT",
                    "print the seconds since 1970 UTC of a date such as "
                    "'Mon, 1 Jan 1996 12:00:00 GMT'",
                    run_date};
Registration date_registration(kDate);

int run_date(const std::vector<std::string> &args) {
    if (args.size() != 1)
        return usage_error(kDate, "date takes one TEXT");
    int32_t seconds = 0;
    if (tw::mime_parse_date(args[0].c_str(), &seconds) != 0)
        return failure("not a date of the form 'Mon, 1 Jan 1996 12:00:00 GMT'");
    std::printf("%ld\n", static_cast<long>(seconds));
    return kOk;
}

} // namespace
} // namespace cli
