// The subcommands of the tarnwick command. Each source file of tools/
// registers its own with a static Registration, so adding a command never
// touches the others.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cli {

// Exit codes: 0 success, 1 a library call failed, 2 a usage error.
inline constexpr int kOk = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

struct Command {
    const char *name;
    const char *usage;   // one line: "compose --from A ..."
    const char *summary; // what it does
    int (*run)(const std::vector<std::string> &args);
};

std::vector<Command> &commands();

struct Registration {
    explicit Registration(Command command) { commands().push_back(command); }
};

// Prints "tarnwick: <message>" and the usage of `command` to stderr, and
// gives the usage exit code.
int usage_error(const Command &command, std::string_view message);
// Prints "tarnwick: <message>" to stderr and gives the failure exit code.
int failure(std::string_view message);

// Parses "--name value" options into pairs; positional words go to
// `positional`. False (with `error` set) on an unknown or valueless option.
struct Option {
    const char *name;
    std::string *value;
    bool *seen = nullptr;
};
bool parse_options(const std::vector<std::string> &args, const std::vector<Option> &options,
                   std::vector<std::string> *positional, std::string &error);

} // namespace cli
