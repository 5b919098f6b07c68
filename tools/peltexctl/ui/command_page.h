// One command's page before it takes a form: what its options are and what is said of them.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "ui/manual_text.h"

namespace peltexctl {

// What can stand in the place of a value.
struct ValueType {
    std::string name;                // UID, DIR, ...; empty for an option without a value
    std::vector<std::string> words;  // all there are; empty if they cannot be listed
};

struct Argument {
    std::vector<std::string> names;  // --uid, or -h and --help, or SRC
    ValueType value;
    std::string help;  // with the default
};

struct CommandPage {
    std::string name;  // of the subcommand, empty for the program
    std::string summary;
    std::vector<Argument> positionals;
    std::vector<Argument> options;
    std::vector<Section> lists;  // kinds, lines of the shell
};

CommandPage PageOf(const CLI::App& app);

// The program's subcommands in their order.
std::vector<CommandPage> PagesOfSubcommands(const CLI::App& program);

// "backup [OPTION]... KIND SRC DEST".
std::string SynopsisOf(const CommandPage& page);

// "-h, --help", "--uid UID", "SRC".
std::string TermOf(const Argument& argument);

}  // namespace peltexctl
