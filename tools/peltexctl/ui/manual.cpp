// Tested by tests/peltexctl/test_manual.py.
#include "ui/manual.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "ui/command_page.h"
#include "ui/manual_text.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// --- help

constexpr size_t kWidth = 80;
constexpr size_t kTermWidth = 20;

// Breaks `text` at its blanks into lines that begin with `indent` blanks; the first begins where
// `column` says.
std::string Wrap(const std::string& text, size_t indent, size_t column) {
    std::string lines;
    for (const std::string& word : SplitWords(text, " ")) {
        const bool is_first = lines.empty();
        if (!is_first && column + 1 + word.size() > kWidth) {
            lines += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (!is_first) {
            lines += ' ';
            column++;
        }
        lines += word;
        column += word.size();
    }
    return lines + "\n";
}

std::string HelpParagraph(const std::string& text) {
    return "\n" + Wrap(text, 0, 0);
}

std::string HelpDefinition(const std::string& term, const std::string& text) {
    constexpr size_t kIndent = kTermWidth + 2;
    std::string line = "  " + term;
    if (text.empty()) {
        return line + "\n";
    }
    if (line.size() + 2 > kIndent) {
        line += "\n" + std::string(kIndent, ' ');
    } else {
        line.resize(kIndent, ' ');
    }
    return line + Wrap(text, kIndent, kIndent);
}

std::string HelpArguments(const std::string& title, const std::vector<Argument>& arguments) {
    std::string text = arguments.empty() ? "" : "\n" + title + ":\n";
    for (const Argument& argument : arguments) {
        text += HelpDefinition(TermOf(argument), argument.help);
    }
    return text;
}

std::string HelpSection(const Section& section) {
    std::string text = "\n" + section.title + ":\n";
    for (const Definition& row : section.definitions) {
        text += HelpDefinition(row.term, row.text);
    }
    return text;
}

std::string HelpExamples(const std::vector<Example>& examples) {
    std::string text = "\nExamples:\n";
    for (const Example& example : examples) {
        text += "  " + Wrap(example.purpose, 2, 2);
        const char* prompt = "    $ ";
        for (const std::string& line : SplitWords(example.command, "\n")) {
            text += std::exchange(prompt, "      ") + line + "\n";
        }
    }
    return text;
}

std::string HelpOfProgram(const CLI::App& program) {
    std::string text = "\nSubcommands:\n";
    for (const CommandPage& page : PagesOfSubcommands(program)) {
        text += HelpDefinition(page.name, page.summary);
    }
    for (const Section& section : CommonSections()) {
        if (section.paragraphs.empty()) {
            text += HelpSection(section);
        }
    }
    return text;
}

// --- manual page

// `text` as man source: nothing of it is a request, a hyphen is one that can be searched for.
std::string Roff(const std::string& text) {
    std::string source;
    for (const char byte : text) {
        switch (byte) {
            case '\\':
                source += "\\e";
                break;
            case '-':
                source += "\\-";
                break;
            case '\'':
                source += "\\(aq";
                break;
            default:
                source += byte;
        }
    }
    return source.rfind('.', 0) == 0 ? "\\&" + source : source;
}

std::string RoffParagraphs(const std::vector<std::string>& paragraphs) {
    std::string text;
    for (const std::string& paragraph : paragraphs) {
        text += ".PP\n" + Roff(paragraph) + "\n";
    }
    return text;
}

std::string RoffDefinition(const std::string& term, const std::string& text) {
    return ".TP\n\\fB" + Roff(term) + "\\fR\n" + (text.empty() ? "\\&" : Roff(text)) + "\n";
}

std::string RoffArguments(const std::vector<Argument>& arguments) {
    std::string text;
    for (const Argument& argument : arguments) {
        text += RoffDefinition(TermOf(argument), argument.help);
    }
    return text;
}

std::string RoffDefinitions(const std::vector<Definition>& rows) {
    std::string text;
    for (const Definition& row : rows) {
        text += RoffDefinition(row.term, row.text);
    }
    return text;
}

std::string RoffExamples(const std::vector<Example>& examples) {
    std::string text;
    for (const Example& example : examples) {
        text += ".PP\n" + Roff(example.purpose) + "\n.PP\n.RS 4\n.nf\n";
        for (const std::string& line : SplitWords(example.command, "\n")) {
            text += Roff(line) + "\n";
        }
        text += ".fi\n.RE\n";
    }
    return text;
}

std::string RoffTitle(std::string title) {
    std::transform(title.begin(), title.end(), title.begin(),
                   [](char byte) { return byte >= 'a' && byte <= 'z' ? byte - 'a' + 'A' : byte; });
    return ".SH " + title + "\n";
}

std::string RoffSubcommand(const CommandPage& page) {
    std::string text = ".SS \"" + Roff(SynopsisOf(page)) + "\"\n" + Roff(page.summary) + ".\n" +
                       RoffParagraphs(TextOf(page.name).paragraphs) +
                       RoffArguments(page.positionals);
    // --help stands among the options of all.
    std::vector<Argument> own = page.options;
    own.erase(std::remove_if(own.begin(), own.end(),
                             [](const Argument& option) { return option.names[0] == "-h"; }),
              own.end());
    text += RoffArguments(own);
    for (const Section& list : page.lists) {
        text += RoffParagraphs({list.title + ":"}) + RoffDefinitions(list.definitions);
    }
    return text;
}

// --- completion

constexpr std::string_view kCompletionHead =
    R"(# Completion of peltexctl for bash. Made by peltexctl itself: peltexctl --generate bash.

)";

constexpr std::string_view kCompletionBody = R"(
# Files under /data are those of the directory that --data names.
_peltexctl_paths() {
    local name
    if [[ -z $1 || $2 != /data/* ]]; then
        _peltexctl_files "$2" -f
        return
    fi
    compopt -o filenames -o nospace 2>/dev/null
    while IFS= read -r name; do
        [[ -d $name ]] && name+=/
        COMPREPLY+=("/data${name#"$1"}")
    done < <(compgen -f -- "$1${2#/data}")
}

_peltexctl_files() {
    local name
    compopt -o filenames 2>/dev/null
    while IFS= read -r name; do
        COMPREPLY+=("$name")
    done < <(compgen "$2" -- "$1")
}

_peltexctl() {
    local current=${COMP_WORDS[COMP_CWORD]} command= data= option= count=0 i word value
    COMPREPLY=()
    [[ $current == = ]] && current=
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -* ]]; then
            [[ -n $(_peltexctl_type "$command" "$word") ]] || continue
            # --option=value comes as three words.
            [[ ${COMP_WORDS[i + 1]} == = ]] && ((i++))
            ((i++))
            value=${COMP_WORDS[i]}
            ((i < COMP_CWORD)) || option=$word
            [[ $word == --data ]] && data=${value/#\~/$HOME} data=${data%/}
        elif [[ -z $command ]]; then
            command=$word
        else
            ((count++))
        fi
    done
    set -- $(_peltexctl_type "$command" "${option:-$count}")
    if [[ -z $option && $current == -* ]]; then
        set -- words $(_peltexctl_options "$command")
    fi
    case $1 in
        words) COMPREPLY=($(compgen -W "${*:2}" -- "$current")) ;;
        FILE | PATH) _peltexctl_paths "$data" "$current" ;;
        DIR) _peltexctl_files "$current" -d ;;
    esac
}

complete -F _peltexctl peltexctl
)";

std::string BashWords(const std::vector<Argument>& options) {
    std::vector<std::string> words;
    for (const Argument& option : options) {
        words.insert(words.end(), option.names.begin(), option.names.end());
    }
    return fmt::format("{}", fmt::join(words, " "));
}

// The row of one value, which `pattern` chooses by command and option or by command and place.
std::string BashType(const std::string& pattern, const ValueType& value) {
    const std::string type =
        value.words.empty() ? value.name : fmt::format("words {}", fmt::join(value.words, " "));
    return fmt::format("        {}) echo '{}' ;;\n", pattern, type);
}

std::string BashTypes(const CommandPage& page, const std::string& command) {
    std::string rows;
    for (const Argument& option : page.options) {
        for (const std::string& name : option.names) {
            if (!option.value.name.empty()) {
                rows += BashType(fmt::format("{}:{}", command, name), option.value);
            }
        }
    }
    for (size_t i = 0; i < page.positionals.size(); i++) {
        rows += BashType(fmt::format("{}:{}", command, i), page.positionals[i].value);
    }
    return rows;
}

}  // namespace

std::string HelpPage(const CLI::App& app) {
    const CommandPage page = PageOf(app);
    const CommandText& text = TextOf(page.name);
    std::string help =
        "Usage: peltexctl " + SynopsisOf(page) + "\n" + HelpParagraph(page.summary + ".");
    for (const std::string& paragraph : text.paragraphs) {
        help += HelpParagraph(paragraph);
    }
    help += HelpArguments("Arguments", page.positionals) + HelpArguments("Options", page.options);
    for (const Section& list : page.lists) {
        help += HelpSection(list);
    }
    if (page.name.empty()) {
        help += HelpOfProgram(app);
    }
    help += HelpExamples(text.examples);
    help += page.name.empty()
                ? "\n\"peltexctl SUBCOMMAND --help\" tells more, and so does man peltexctl.\n"
                : "\n\"peltexctl --help\" lists the options of all subcommands.\n";
    return help;
}

std::string ManPage(const CLI::App& program) {
    const CommandPage page = PageOf(program);
    const std::vector<CommandPage> subcommands = PagesOfSubcommands(program);
    std::string text =
        ".\\\" Made by peltexctl itself: peltexctl --generate 1.\n.TH PELTEXCTL 1 \"\" \"" +
        Roff(program.version()) + "\" \"User Commands\"\n.nh\n.ad l\n";
    text += ".SH NAME\npeltexctl \\- " + Roff(page.summary) + "\n.SH SYNOPSIS\n.nf\n";
    for (const CommandPage& subcommand : subcommands) {
        text += "\\fBpeltexctl\\fR " + Roff(SynopsisOf(subcommand)) + "\n";
    }
    text += ".fi\n.SH DESCRIPTION\n" + RoffParagraphs(TextOf("").paragraphs);
    text += ".SH OPTIONS\nThese may stand before and behind the name of a subcommand.\n" +
            RoffArguments(page.options) + ".SH SUBCOMMANDS\n";
    std::string examples = ".SH EXAMPLES\n" + RoffExamples(TextOf("").examples);
    for (const CommandPage& subcommand : subcommands) {
        text += RoffSubcommand(subcommand);
        examples += RoffExamples(TextOf(subcommand.name).examples);
    }
    for (const Section& section : CommonSections()) {
        text += RoffTitle(section.title) + RoffParagraphs(section.paragraphs) +
                RoffDefinitions(section.definitions);
    }
    return text + examples + ".SH SEE ALSO\n.BR tar (1)\n";
}

std::string BashCompletion(const CLI::App& program) {
    const CommandPage page = PageOf(program);
    std::string types = BashTypes(page, "*");
    std::string options;
    ValueType names;
    for (const CommandPage& subcommand : PagesOfSubcommands(program)) {
        names.words.push_back(subcommand.name);
        types += BashTypes(subcommand, subcommand.name);
        options += fmt::format("        {}) echo '{}' ;;\n", subcommand.name,
                               BashWords(subcommand.options));
    }
    types += BashType(":0", names);
    return std::string(kCompletionHead) +
           "# What completes behind an option, or in a place, of a subcommand.\n"
           "_peltexctl_type() {\n    case $1:$2 in\n" +
           types + "    esac\n}\n\n_peltexctl_options() {\n    case $1 in\n" + options +
           "    esac\n    echo '" + BashWords(page.options) + "'\n}\n" +
           std::string(kCompletionBody);
}

}  // namespace peltexctl
