// The program's description in three forms. All are made from the options as they are declared, the
// kinds of task, the shell's lines and the texts of manual_text.h, so that none says less than
// another.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace peltexctl {

// What --help prints, for the program or one of its subcommands.
std::string HelpPage(const CLI::App& app);

// The manual page, as man(7) source.
std::string ManPage(const CLI::App& program);

// The completion for bash.
std::string BashCompletion(const CLI::App& program);

}  // namespace peltexctl
