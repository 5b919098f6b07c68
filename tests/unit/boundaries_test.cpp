// The commands of boundaries.md, which asks what a command changes outside of the two paths that it
// names.
#include <algorithm>
#include <filesystem>

#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

using namespace std::string_literals;

const std::string kSecret = "nobody-else's";

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

}  // namespace

void addBoundaryCommands(Transcript& t) {
    t.act("anew", [&t](const Lines& words) {
        t.commands["plant"]({"out/secret[600]=" + kSecret,
                             "out/dir/kept=", "out/empty=", "out/zeros=", "to/", "to2/f=beside"});
        std::filesystem::resize_file(t.tree / "out/zeros", 1024);
        plant(t.tree.path(), words);
    });
    t.commands["reach"] = [&t](const Lines& words) {
        return reach(t, words.at(0) + " " + words.at(1), {words.begin() + 2, words.end()});
    };
    // Begin anew, and write the words into the file that a task is given.
    const char* const parsers[][4] = {
        {"archive", "restore tar", "in/to.txt", "to"},
        {"set", "restore split", "in/to.txt", "to/app"},
        {"records", "restore dir", "in", "to"},
        {"list", "backup byfile", "in/to.txt", "to/app"},
        {"search", "get_brief byfile", "in/to.txt", "to/brief"},
    };
    for (const auto& [name, task, source, destination] : parsers) {
        const Lines paths = {t.tree / source, t.tree / destination};
        const bool isText = name != "archive"s;
        t.commands["hostile "s + name] = [&t, task = task, paths, isText](const Lines& words) {
            t.commands["anew"]({"in/to/", "in/app/", "in/fifo|", "in/link>../out/secret"});
            writeFile(t.tree / "in/to.txt", isText ? joined(words, "\n") + "\n" : archiveOf(words));
            return reach(t, task, paths);
        };
    }
}

}  // namespace peltex_test
