// What boundaries.md asks: what a command changes outside of the two paths that it names.
#include <algorithm>
#include <filesystem>

#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

const std::string kSecret = "nobody-else's";

void begin(Transcript& t, const Lines& words) {
    t.commands["plant"]({"out/secret[600]=" + kSecret,
                         "out/dir/kept=", "out/empty=", "out/zeros=", "to/", "to2/f=beside"});
    std::filesystem::resize_file(t.tree / "out/zeros", 1024);
    plant(t.tree.path(), words);
}

// What stands where no command has to do anything, and who owns the directory above.
Lines elsewhere(const Transcript& t) {
    Lines words = {"above:" + ownerAndMode(t.tree.path())};
    for (const std::string& word : shown(t.tree.path())) {
        if (word.find("out/") == 0 || word.find("to2/") == 0) {
            words.push_back(word);
        }
    }
    return words;
}

// Runs a command. Adds to its result what is not as it was, and where the secret has gone.
std::string reach(Transcript& t, const std::string& command, const Lines& words) {
    const Lines before = elsewhere(t);
    std::string text = t.commands.at(command)(words);
    const Lines after = elsewhere(t);
    const auto add = [&](const char* what, const Lines& some, const Lines& others) {
        for (const std::string& word : some) {
            if (std::count(others.begin(), others.end(), word) == 0) {
                text += what + word;
            }
        }
    };
    add(", no ", before, after);
    add(", ", after, before);
    for (const std::string& name : listTree(t.tree / "to")) {
        const std::string path = t.tree / "to/" + name;
        const std::string content = S_ISREG(statOf(path).st_mode) ? readFile(path) : "";
        text += content.find(kSecret) != content.npos      ? ", secret read"
                : content.find("/secret;") != content.npos ? ", secret named"
                                                           : "";
    }
    t.events.clear();
    return text;
}

std::string linesOf(const Lines& words) {
    return joined(words, "\n") + "\n";
}

}  // namespace

void addBoundaryCommands(Transcript& t) {
    t.act("anew", [&t](const Lines& words) { begin(t, words); });
    t.commands["reach"] = [&t](const Lines& words) {
        return reach(t, words.at(0) + " " + words.at(1), {words.begin() + 2, words.end()});
    };
    // Begin anew, and write the words into the file that a task is given.
    const struct {
        const char* name;
        const char* task;
        const char* file;
        const char* source;
        const char* destination;
        std::string (*textOf)(const Lines&);
    } parsers[] = {
        {"archive", "restore tar", "@/in/a.tar", "@/in/a.tar", "@/to", archiveOf},
        {"set", "restore split", "@/in/s.txt", "@/in/s.txt", "@/to/app", linesOf},
        {"records", "restore dir", "@/in/to.txt", "@/in", "@/to", linesOf},
        {"list", "backup byfile", "@/in/list", "@/in/list", "@/to/app", linesOf},
        {"search", "get_brief byfile", "@/in/rules", "@/in/rules", "@/to/brief", linesOf},
    };
    for (const auto& parser : parsers) {
        t.commands["hostile " + std::string(parser.name)] = [=, &t](const Lines& words) {
            begin(t, {"in/to/", "in/app/", "in/fifo|", "in/link>" + t.tree / "out/secret"});
            writeFile(t.meaning(parser.file), parser.textOf(words));
            const Lines paths = {t.meaning(parser.source), t.meaning(parser.destination)};
            return reach(t, parser.task, paths);
        };
    }
}

}  // namespace peltex_test
