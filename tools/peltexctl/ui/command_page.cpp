// Tested by tests/peltexctl/test_manual.py.
#include "ui/command_page.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "shell/shell.h"
#include "task/task_kinds.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// CLI11 writes an option's type as NAME, or as NAME:{a,b,c} where its words are checked.
ValueType ValueOf(const CLI::Option& option) {
    ValueType value;
    if (option.get_items_expected_max() == 0) {
        return value;
    }
    const std::string type = option.get_type_name();
    const size_t colon = type.find(':');
    value.name = type.substr(0, colon);
    if (colon != std::string::npos) {
        value.words = SplitWords(type.substr(colon + 1), "{,}");
    }
    return value;
}

Argument ArgumentOf(const CLI::Option& option) {
    Argument argument;
    for (const std::string& name : option.get_snames()) {
        argument.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        argument.names.push_back("--" + name);
    }
    argument.value = ValueOf(option);
    argument.help = option.get_description();
    if (argument.names.empty()) {
        argument.names.push_back(option.get_name());
    }
    if (!argument.value.words.empty()) {
        argument.help += fmt::format(": {}", fmt::join(argument.value.words, ", "));
    }
    if (!option.get_default_str().empty()) {
        argument.help += fmt::format(" (default: {})", option.get_default_str());
    }
    return argument;
}

std::vector<Section> ListsOf(const std::string& subcommand) {
    std::vector<Section> lists;
    Section kinds{"Kinds", {}, {}};
    for (const TaskKind* kind : KindsOf(subcommand)) {
        if (*kind->kind != '\0') {
            kinds.definitions.push_back({kind->kind, kind->help});
        }
    }
    if (!kinds.definitions.empty()) {
        lists.push_back(kinds);
    }
    if (subcommand == "shell") {
        lists.push_back({"Lines of the shell itself", {}, ShellLines()});
        lists.push_back({"Commands of the library", {}, LibraryCommands()});
    }
    return lists;
}

}  // namespace

CommandPage PageOf(const CLI::App& app) {
    CommandPage page;
    page.name = app.get_parent() == nullptr ? "" : app.get_name();
    page.summary = app.get_description();
    for (const CLI::Option* option : app.get_options()) {
        // An option without a group is hidden.
        if (option->get_positional()) {
            page.positionals.push_back(ArgumentOf(*option));
        } else if (!option->get_group().empty()) {
            page.options.push_back(ArgumentOf(*option));
        }
    }
    page.lists = ListsOf(page.name);
    return page;
}

std::vector<CommandPage> PagesOfSubcommands(const CLI::App& program) {
    std::vector<CommandPage> pages;
    for (const CLI::App* command : program.get_subcommands([](const CLI::App*) { return true; })) {
        pages.push_back(PageOf(*command));
    }
    return pages;
}

std::string SynopsisOf(const CommandPage& page) {
    std::string synopsis = page.name + (page.name.empty() ? "" : " ") + "[OPTION]...";
    for (const Argument& argument : page.positionals) {
        synopsis += " " + argument.names[0];
    }
    return page.name.empty() ? synopsis + " SUBCOMMAND ..." : synopsis;
}

std::string TermOf(const Argument& argument) {
    std::string term = fmt::format("{}", fmt::join(argument.names, ", "));
    // A positional is named by what it is.
    return argument.names[0][0] == '-' && !argument.value.name.empty()
               ? term + " " + argument.value.name
               : term;
}

}  // namespace peltexctl
