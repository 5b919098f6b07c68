// The texts of help and manual page that no option carries.
#pragma once

#include <string>
#include <vector>

namespace peltexctl {

// One row of a list of definitions.
struct Definition {
    std::string term;
    std::string text;
};

struct Example {
    std::string purpose;
    std::string command;
};

// Of the program, whose name is empty, or of a subcommand.
struct CommandText {
    std::string name;
    std::vector<std::string> paragraphs;
    std::vector<Example> examples;
};

// REQUIRES: `name` is a subcommand's, or empty.
const CommandText& TextOf(const std::string& name);

struct Section {
    std::string title;
    std::vector<std::string> paragraphs;
    std::vector<Definition> definitions;
};

// What concerns all subcommands: paths, output, exit status, signals, environment, files.
std::vector<Section> CommonSections();

// The commands that the shell sends as they are.
std::vector<Definition> LibraryCommands();

}  // namespace peltexctl
