// tarnwick stream: a streaming extraction of a message, printing what each
// callback receives.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

int run_stream(const std::vector<std::string> &args);

const Command kStream{"stream",
                      "stream MESSAGE [DIR] [--pieces N] [--path] | stream --summary MESSAGE",
                      "feed MESSAGE through a streaming session (in pieces of N bytes, or by "
                      "path) and print the lists, headers and deliveries; with DIR the parts "
                      "stay there. --summary prints the header summary as one JSON object",
                      run_stream};
Registration registration(kStream);

void print_chain(const char *name, const mime_hdr_field *f) {
    if (f == nullptr)
        return;
    std::cout << name << ":";
    for (; f != nullptr; f = f->next)
        std::cout << " [" << f->encoding << (f->charset[0] ? " " : "") << f->charset << "] "
                  << f->text;
    std::cout << "\n";
}

int32_t on_address(mime_address_lists *lists, intptr_t) {
    print_chain("to", lists->to);
    print_chain("from", lists->from);
    print_chain("cc", lists->cc);
    print_chain("bcc", lists->bcc);
    print_chain("subject", lists->subject);
    return 0;
}

int32_t on_header(mime_part_desc *part, const char *, int32_t length, intptr_t) {
    const unsigned char *r = part->received_value;
    const unsigned long received = (static_cast<unsigned long>(r[0]) << 24) |
                                   (static_cast<unsigned long>(r[1]) << 16) |
                                   (static_cast<unsigned long>(r[2]) << 8) | r[3];
    std::cout << "header: type=" << part->content_type << "/" << part->content_subtype
              << " charset=" << part->charset << " encoding=" << part->encoding
              << " filename=" << part->filename << " received=" << received
              << " text=" << length << "\n";
    return 0;
}

// Bytes of the file in progress, counted until its closing call.
long long g_bytes = 0;

int32_t on_body(const char *data, int32_t length, int32_t *state, intptr_t) {
    if (*state != 0) {
        std::cout << "body: state=" << *state << " " << std::string(data, length) << "\n";
        return 0;
    }
    g_bytes += length;
    if (length == 0) {
        std::cout << "body: state=0 " << g_bytes << " bytes\n";
        g_bytes = 0;
    }
    return 0;
}

// ---- --summary: the richer end call, printed as JSON -------------------------

// The first header_cb record of the message; later ones describe parts.
struct SummaryRun {
    mime_part_desc first{};
    bool seen = false;
};

int32_t summary_header(mime_part_desc *part, const char *, int32_t, intptr_t user) {
    SummaryRun &run = *reinterpret_cast<SummaryRun *>(user);
    if (!run.seen)
        run.first = *part;
    run.seen = true;
    return 0;
}
int32_t summary_address(mime_address_lists *, intptr_t) { return 0; }
int32_t summary_body(const char *, int32_t, int32_t *, intptr_t) { return 0; }

// Length of the well-formed UTF-8 sequence at `s` (of `n` bytes), or 0.
std::size_t utf8_length(const unsigned char *s, std::size_t n) {
    const std::size_t len = s[0] >= 0xF0 && s[0] <= 0xF4 ? 4
                            : s[0] >= 0xE0               ? 3
                            : s[0] >= 0xC2 && s[0] < 0xE0 ? 2
                                                          : 0;
    if (len == 0 || len > n)
        return 0;
    for (std::size_t i = 1; i < len; ++i)
        if ((s[i] & 0xC0) != 0x80)
            return 0;
    // No overlong forms, no surrogates, nothing past U+10FFFF.
    if ((s[0] == 0xE0 && s[1] < 0xA0) || (s[0] == 0xED && s[1] >= 0xA0) ||
        (s[0] == 0xF0 && s[1] < 0x90) || (s[0] == 0xF4 && s[1] >= 0x90))
        return 0;
    return len;
}

// A JSON string of a fixed-width field; bytes that are no UTF-8 become \u00XX.
template <std::size_t N> std::string json_text(const char (&f)[N]) {
    const auto *s = reinterpret_cast<const unsigned char *>(f);
    const std::size_t n = strnlen(f, N);
    std::string out = "\"";
    char hex[8];
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = s[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else if (const std::size_t len = c >= 0x80 ? utf8_length(s + i, n - i) : 0) {
            out.append(f + i, len);
            i += len;
            continue;
        } else {
            std::snprintf(hex, sizeof hex, "\\u%04X", c);
            out += hex;
        }
        ++i;
    }
    return out + "\"";
}

int32_t json_date(const unsigned char (&d)[4]) {
    const uint32_t v = static_cast<uint32_t>(d[0]) << 24 | static_cast<uint32_t>(d[1]) << 16 |
                       static_cast<uint32_t>(d[2]) << 8 | d[3];
    return static_cast<int32_t>(v);
}

const char *json_flag(char flag) { return flag == '1' ? "true" : "false"; }

int run_summary(const std::string &message) {
    SummaryRun run;
    int32_t handle = mime_extract_start(summary_header, summary_body, summary_address, nullptr,
                                        reinterpret_cast<intptr_t>(&run));
    if (handle == 0)
        return failure("cannot start a session");
    if (mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 1) != 1) {
        mime_extract_end_ex(&handle); // ends the session
        return failure("the session refused the path");
    }
    const int32_t result = mime_extract_end_ex(&handle);
    const mime_part_desc &p = run.first; // all empty without a header_cb
    std::cout << "{\"result\":" << result << ",\"x_mailer\":" << json_text(p.x_mailer)
              << ",\"priority\":" << json_text(p.priority)
              << ",\"signed_flag\":" << json_flag(p.signed_flag)
              << ",\"encrypted_flag\":" << json_flag(p.encrypted_flag)
              << ",\"returned_flag\":" << json_flag(p.returned_flag)
              << ",\"returned_subject\":" << json_text(p.returned_subject)
              << ",\"date_value\":" << json_date(p.date_value)
              << ",\"received_value\":" << json_date(p.received_value)
              << ",\"received_with\":" << json_text(p.received_with)
              << ",\"message_address\":" << json_text(p.message_address) << "}\n";
    return result == 1 || result == MIME_FRAGMENT_STORED ? kOk : kFailed;
}

int run_stream(const std::vector<std::string> &args) {
    if (!args.empty() && args[0] == "--summary") {
        if (args.size() != 2)
            return usage_error(kStream, "--summary takes one MESSAGE and nothing else");
        return run_summary(args[1]);
    }
    std::string pieces_text;
    std::vector<std::string> positional;
    std::vector<std::string> rest;
    bool by_path = false;
    for (const std::string &a : args) {
        if (a == "--path")
            by_path = true;
        else
            rest.push_back(a);
    }
    std::string error;
    if (!parse_options(rest, {{"--pieces", &pieces_text}}, &positional, error))
        return usage_error(kStream, error);
    if (positional.empty() || positional.size() > 2)
        return usage_error(kStream, "give a MESSAGE and at most one DIR");
    long pieces = 65536;
    if (!pieces_text.empty()) {
        char *end = nullptr;
        pieces = std::strtol(pieces_text.c_str(), &end, 10);
        if (*end != '\0' || pieces <= 0 || pieces > (1L << 30))
            return usage_error(kStream, "--pieces needs a positive number");
    }
    const std::string &message = positional[0];
    const char *directory = positional.size() == 2 ? positional[1].c_str() : nullptr;

    std::ifstream in(message, std::ios::binary);
    if (!in)
        return failure("cannot read " + message);
    int32_t handle = mime_extract_start(on_header, on_body, on_address, directory, 0);
    if (handle == 0)
        return failure("cannot start a session" +
                       (directory ? " in " + std::string(directory) : std::string()));
    if (by_path) {
        if (mime_extract_data(handle, message.data(), static_cast<int32_t>(message.size()), 1) !=
            1)
            return failure("the session refused the path");
    } else {
        std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(pieces)]);
        while (in.read(buffer.get(), pieces) || in.gcount() > 0) {
            if (mime_extract_data(handle, buffer.get(), static_cast<int32_t>(in.gcount()), 0) !=
                1)
                return failure("spooling the message failed");
        }
        mime_extract_data(handle, nullptr, 0, 0);
    }
    const int32_t result = mime_extract_end(&handle);
    std::cout << "result: " << result << "\n";
    return result == 1 || result == MIME_FRAGMENT_STORED ? kOk : kFailed;
}

} // namespace
} // namespace cli
