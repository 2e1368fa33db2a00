// tarnwick encode / decode: the transfer encodings from file to file.
#include <cstdio>
#include <string>

#include "commands.h"
#include "tarnwick.h"

namespace cli {
namespace {

enum class Codec { Base64, Quoted, Uu, Unknown };

Codec codec_named(const std::string &word) {
    if (word == "base64")
        return Codec::Base64;
    if (word == "qp")
        return Codec::Quoted;
    if (word == "uu")
        return Codec::Uu;
    return Codec::Unknown;
}

std::string base_name(const std::string &path) { return path.substr(path.find_last_of('/') + 1); }

int run_encode(const std::vector<std::string> &args);
int run_decode(const std::vector<std::string> &args);

const Command kEncode{"encode", "encode base64|qp|uu IN OUT [--name NAME]",
                      "encode IN and append the text to OUT; --name sets the name of the uu "
                      "begin line (default: the last name of IN)",
                      run_encode};
const Command kDecode{"decode", "decode base64|qp|uu IN OUT",
                      "decode IN into OUT (appended to; uu replaces OUT and prints the name "
                      "of its begin line)",
                      run_decode};
Registration encode_registration(kEncode);
Registration decode_registration(kDecode);

// Splits "CODEC IN OUT" off the arguments; a usage exit code on failure, else -1.
int parse(const Command &command, const std::vector<std::string> &args,
          const std::vector<Option> &options, Codec &codec, std::string &in, std::string &out) {
    std::vector<std::string> words;
    std::string error;
    if (!parse_options(args, options, &words, error))
        return usage_error(command, error);
    if (words.size() != 3)
        return usage_error(command, "expected an encoding, IN and OUT");
    codec = codec_named(words[0]);
    if (codec == Codec::Unknown)
        return usage_error(command, "unknown encoding '" + words[0] + "'");
    in = words[1];
    out = words[2];
    if (in.empty() || out.empty())
        return usage_error(command, "IN and OUT must not be empty");
    return -1;
}

int run_encode(const std::vector<std::string> &args) {
    Codec codec{};
    std::string in, out, name;
    bool has_name = false;
    if (int code = parse(kEncode, args, {{"--name", &name, &has_name}}, codec, in, out); code >= 0)
        return code;
    if (has_name && codec != Codec::Uu)
        return usage_error(kEncode, "--name belongs to uu only");
    int32_t result = -1;
    switch (codec) {
    case Codec::Base64:
        result = base64_encode(in.c_str(), out.c_str());
        break;
    case Codec::Quoted:
        result = quoted_encode(in.c_str(), out.c_str());
        break;
    case Codec::Uu:
        result = uuencode(in.c_str(), out.c_str(), (has_name ? name : base_name(in)).c_str());
        break;
    case Codec::Unknown:
        break;
    }
    if (result < 0)
        return failure("could not encode " + in + " into " + out);
    return kOk;
}

int run_decode(const std::vector<std::string> &args) {
    Codec codec{};
    std::string in, out;
    if (int code = parse(kDecode, args, {}, codec, in, out); code >= 0)
        return code;
    int32_t result = 0;
    char name[256] = {};
    switch (codec) {
    case Codec::Base64:
        result = base64_decode(in.c_str(), out.c_str());
        break;
    case Codec::Quoted:
        result = quoted_decode(in.c_str(), out.c_str());
        break;
    case Codec::Uu:
        result = uudecode(in.c_str(), out.c_str(), name);
        break;
    case Codec::Unknown:
        break;
    }
    if (result != 1)
        return failure("could not decode " + in + " into " + out);
    if (codec == Codec::Uu)
        std::printf("%s\n", name);
    return kOk;
}

} // namespace
} // namespace cli
