// tarnwick encode / decode: the transfer encodings from file to file.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "commands.h"
#include "frame/platform.h"
#include "tarnwick.h"

namespace cli {
namespace {

enum class Codec { Base64, Quoted, Uu, Binhex, Unknown };

Codec codec_named(const std::string &word) {
    if (word == "base64")
        return Codec::Base64;
    if (word == "qp")
        return Codec::Quoted;
    if (word == "uu")
        return Codec::Uu;
    if (word == "binhex")
        return Codec::Binhex;
    return Codec::Unknown;
}

std::string base_name(const std::string &path) { return path.substr(path.find_last_of('/') + 1); }

int run_encode(const std::vector<std::string> &args);
int run_decode(const std::vector<std::string> &args);

const Command kEncode{"encode",
                      "encode base64|qp|uu IN OUT [--name NAME] | "
                      "encode binhex DATA [RSRC] OUT [--name N] [--type T] [--creator C]",
                      "encode IN and append the text to OUT; --name sets the name of the uu "
                      "begin line or of the BinHex block (default: the last name of IN or "
                      "DATA); BinHex type and creator are padded with blanks to 4 bytes",
                      run_encode};
const Command kDecode{"decode", "decode base64|qp|uu|binhex IN OUT",
                      "decode IN into OUT (appended to; uu replaces OUT and prints the name "
                      "of its begin line; binhex prints name, type and creator and puts the "
                      "resource fork in OUT.rsrc)",
                      run_decode};
Registration encode_registration(kEncode);
Registration decode_registration(kDecode);

// Splits "CODEC IN OUT" off the arguments; a usage exit code on failure, else -1.
int parse(const Command &command, const std::vector<std::string> &args,
          const std::vector<Option> &options, Codec &codec, std::string &in, std::string &out,
          std::string &rsrc_out) {
    std::vector<std::string> words;
    std::string error;
    if (!parse_options(args, options, &words, error))
        return usage_error(command, error);
    codec = words.empty() ? Codec::Unknown : codec_named(words[0]);
    // A BinHex block may take a resource fork beside the data: DATA RSRC OUT.
    if (codec == Codec::Binhex && &command == &kEncode && words.size() == 4) {
        rsrc_out = words[2];
        words.erase(words.begin() + 2);
    }
    if (words.size() != 3)
        return usage_error(command, "expected an encoding, IN and OUT");
    if (codec == Codec::Unknown)
        return usage_error(command, "unknown encoding '" + words[0] + "'");
    in = words[1];
    out = words[2];
    if (in.empty() || out.empty())
        return usage_error(command, "IN and OUT must not be empty");
    return -1;
}

// Four bytes, blanks behind a shorter text; false for a longer one.
bool mac_code(const std::string &text, char (&field)[5]) {
    if (text.size() > 4)
        return false;
    std::memset(field, ' ', 4);
    std::memcpy(field, text.data(), text.size());
    field[4] = '\0';
    return true;
}

// The block takes its name from the data path, so another name is given
// through a symbolic link of that name in a private temporary directory.
int encode_binhex(const std::string &data, const std::string &rsrc, const std::string &out,
                  const std::string *name, const binhex_info &info) {
    if (name == nullptr) {
        const int32_t r = binhex_enc(data.c_str(), rsrc.empty() ? nullptr : rsrc.c_str(),
                                     out.c_str(), info);
        return r == 1 ? kOk : failure("could not encode " + data + " into " + out);
    }
    if (name->empty() || *name == "." || *name == ".." || name->find('/') != std::string::npos)
        return usage_error(kEncode, "--name must be a plain file name");
    const std::string base = tw::private_temp_directory();
    std::string dir = (base.empty() ? std::string("/tmp/") : base) + "binhex-XXXXXX";
    if (::mkdtemp(dir.data()) == nullptr)
        return failure("could not make a temporary directory");
    const std::string link = dir + "/" + *name;
    const std::string target = data[0] == '/' ? data : tw::current_directory() + "/" + data;
    int32_t r = -3;
    if (::symlink(target.c_str(), link.c_str()) == 0) {
        r = binhex_enc(link.c_str(), rsrc.empty() ? nullptr : rsrc.c_str(), out.c_str(), info);
        ::unlink(link.c_str());
    }
    ::rmdir(dir.c_str());
    return r == 1 ? kOk : failure("could not encode " + data + " into " + out);
}

int run_encode(const std::vector<std::string> &args) {
    Codec codec{};
    std::string in, out, name, rsrc, type, creator;
    bool has_name = false, has_type = false, has_creator = false;
    if (int code = parse(kEncode, args,
                         {{"--name", &name, &has_name},
                          {"--type", &type, &has_type},
                          {"--creator", &creator, &has_creator}},
                         codec, in, out, rsrc);
        code >= 0)
        return code;
    if (has_name && codec != Codec::Uu && codec != Codec::Binhex)
        return usage_error(kEncode, "--name belongs to uu and binhex only");
    if ((has_type || has_creator) && codec != Codec::Binhex)
        return usage_error(kEncode, "--type and --creator belong to binhex only");
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
    case Codec::Binhex: {
        binhex_info info{};
        if (!mac_code(type, info.file_type) || !mac_code(creator, info.creator))
            return usage_error(kEncode, "--type and --creator take at most 4 bytes");
        return encode_binhex(in, rsrc, out, has_name ? &name : nullptr, info);
    }
    case Codec::Unknown:
        break;
    }
    if (result < 0)
        return failure("could not encode " + in + " into " + out);
    return kOk;
}

// Prints the block's file information and moves the resource fork beside
// OUT, never over an existing file.
int finish_binhex(const std::string &out, const char *second, const binhex_info &info) {
    std::printf("name: %.255s\ntype: %.4s\ncreator: %.4s\n", info.name, info.file_type,
                info.creator);
    if (second[0] == '\0')
        return kOk;
    const std::string rsrc = out + ".rsrc";
    if (tw::rename_no_replace(second, rsrc) != 0) {
        ::unlink(second);
        return failure("could not put the resource fork in " + rsrc);
    }
    std::printf("resource fork: %s\n", rsrc.c_str());
    return kOk;
}

int run_decode(const std::vector<std::string> &args) {
    Codec codec{};
    std::string in, out, unused;
    if (int code = parse(kDecode, args, {}, codec, in, out, unused); code >= 0)
        return code;
    int32_t result = 0;
    char name[256] = {};
    char second[1024] = {};
    binhex_info info{};
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
    case Codec::Binhex:
        result = binhex_dec(in.c_str(), out.c_str(), second, &info);
        break;
    case Codec::Unknown:
        break;
    }
    if (result != 1)
        return failure("could not decode " + in + " into " + out);
    if (codec == Codec::Uu)
        std::printf("%s\n", name);
    if (codec == Codec::Binhex)
        return finish_binhex(out, second, info);
    return kOk;
}

} // namespace
} // namespace cli
