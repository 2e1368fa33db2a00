// tarnwick stream: a streaming extraction of a message, printing what each
// callback receives.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

int run_stream(const std::vector<std::string> &args);

const Command kStream{"stream", "stream MESSAGE [DIR] [--pieces N] [--path]",
                      "feed MESSAGE through a streaming session (in pieces of N bytes, or by "
                      "path) and print the lists, headers and deliveries; with DIR the parts "
                      "stay there",
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

int run_stream(const std::vector<std::string> &args) {
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
