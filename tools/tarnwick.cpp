// The tarnwick command: a thin front end over the library's exports.
#include <cstdio>
#include <iostream>

#include "commands.h"
#include "tarnwick.h"

namespace cli {

std::vector<Command> &commands() {
    static std::vector<Command> list;
    return list;
}

int usage_error(const Command &command, std::string_view message) {
    std::cerr << "tarnwick: " << message << "\nusage: tarnwick " << command.usage << "\n";
    return kUsage;
}

int failure(std::string_view message) {
    std::cerr << "tarnwick: " << message << "\n";
    return kFailed;
}

bool parse_options(const std::vector<std::string> &args, const std::vector<Option> &options,
                   std::vector<std::string> *positional, std::string &error) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &word = args[i];
        if (word.size() < 2 || word[0] != '-') {
            if (positional == nullptr) {
                error = "unexpected argument '" + word + "'";
                return false;
            }
            positional->push_back(word);
            continue;
        }
        const Option *match = nullptr;
        for (const Option &option : options)
            if (word == option.name)
                match = &option;
        if (match == nullptr) {
            error = "unknown option '" + word + "'";
            return false;
        }
        if (i + 1 >= args.size()) {
            error = "option '" + word + "' needs a value";
            return false;
        }
        *match->value = args[++i];
        if (match->seen != nullptr)
            *match->seen = true;
    }
    return true;
}

namespace {

void print_help(std::ostream &out) {
    out << "tarnwick " TARNWICK_VERSION_STRING
           " - build and take apart Internet mail messages\n\n"
           "usage: tarnwick COMMAND [ARGS]\n"
           "       tarnwick --help | --version\n\ncommands:\n";
    for (const Command &command : commands())
        out << "  " << command.usage << "\n      " << command.summary << "\n";
}

} // namespace
} // namespace cli

int main(int argc, char **argv) {
    using namespace cli;
    if (argc < 2) {
        print_help(std::cerr);
        return kUsage;
    }
    const std::string first = argv[1];
    if (first == "--help" || first == "-h" || first == "help") {
        print_help(std::cout);
        return kOk;
    }
    if (first == "--version") {
        std::cout << "tarnwick " TARNWICK_VERSION_STRING "\n";
        return kOk;
    }
    for (const Command &command : commands()) {
        if (first == command.name) {
            std::vector<std::string> args(argv + 2, argv + argc);
            for (const std::string &arg : args)
                if (arg == "--help") {
                    std::cout << "usage: tarnwick " << command.usage << "\n"
                              << command.summary << "\n";
                    return kOk;
                }
            return command.run(args);
        }
    }
    std::cerr << "tarnwick: unknown command '" << first << "'\n";
    print_help(std::cerr);
    return kUsage;
}
