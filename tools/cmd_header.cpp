// tarnwick header decode TEXT: the elements of a header value, one a line.
// tarnwick header encode TEXT...: a header value of encoded words.
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

const Command kHeader{"header",
                      "header decode TEXT | header encode [--charset CS] [--b|--q] TEXT...",
                      "decode: print the elements of an encoded header value, one a line: "
                      "encoding, charset and decoded text, separated by TABs; encode: print the "
                      "value of the TEXTs as encoded words (one element each, utf-8 and Q by "
                      "default), elements joined by commas and folded",
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

// The value can be longer than any first guess: the buffer grows until the
// text fits with room to spare, which is the only sign that nothing was cut.
int run_encode(const std::vector<std::string> &args) {
    std::string charset = "utf-8";
    int32_t encoding = MIME_ENC_QUOTED;
    std::vector<std::string> texts;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--b" || args[i] == "--q") {
            encoding = args[i] == "--b" ? MIME_ENC_BASE64 : MIME_ENC_QUOTED;
        } else if (args[i] == "--charset") {
            if (++i >= args.size())
                return usage_error(kHeader, "option '--charset' needs a value");
            charset = args[i];
        } else if (args[i] == "--") {
            texts.insert(texts.end(), args.begin() + static_cast<std::ptrdiff_t>(i + 1),
                         args.end());
            break;
        } else {
            texts.push_back(args[i]);
        }
    }
    if (texts.empty())
        return usage_error(kHeader, "encode needs at least one TEXT");
    if (charset.size() > tw::kMaxWordCharset)
        return usage_error(kHeader, "the charset name is too long");
    std::vector<mime_hdr_field> chain(texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i)
        chain[i] = {texts[i].data(), charset.data(), encoding,
                    i + 1 < texts.size() ? &chain[i + 1] : nullptr};
    std::size_t size = 4096;
    for (const std::string &text : texts)
        size += text.size() * 4;
    std::string out;
    for (;;) {
        if (size > INT32_MAX)
            return failure("the value is too long");
        out.assign(size, '\0');
        int32_t length = static_cast<int32_t>(size);
        const int32_t status = mime_encode_HdrField(chain.data(), out.data(), &length);
        if (status != MIME_OK)
            return failure("encoding failed with status " + std::to_string(status));
        if (static_cast<std::size_t>(length) + 1 < size) {
            out.resize(static_cast<std::size_t>(length));
            break;
        }
        size *= 2;
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fputc('\n', stdout);
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
    if (args[0] == "encode")
        return run_encode(args);
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
