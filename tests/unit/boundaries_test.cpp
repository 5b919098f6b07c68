// What boundaries.md asks: what a command changes outside of the two paths that it names.
//
//   %/secret  %/dir/kept  %/empty  %/zeros      in /tmp
//   @/src @/in        what a task is given
//   @/to              where it works, beside @/to2/f
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

const std::string kSecret = "what-nobody-else-may-read";

class Boundary {
  public:
    explicit Boundary(Transcript& transcript) : mTranscript(transcript) {
        transcript.outside = mOutside;
    }
    ~Boundary() { std::filesystem::remove_all(mOutside); }

    void begin(const Lines& words) {
        std::filesystem::remove_all(mOutside);
        plant(mOutside, {"secret[600]=" + kSecret, "dir/kept=", "empty=", "zeros="});
        std::filesystem::resize_file(mOutside + "/zeros", 1024);
        emptyDir(root());
        plant(root(), {"[0:0,755]", "to/", "to2/f=beside"});
        plant(root(), words);
        mBefore = look();
    }

    // Runs a command. Adds to its result what is not as it was, and where the secret has gone.
    std::string run(const std::string& command, const Lines& words) {
        std::string text = mTranscript.commands.at(command)(words);
        const std::map<std::string, Snapshot> now = look();
        for (const auto& [prefix, snapshot] : mBefore) {
            for (const std::string& change : changesBetween(snapshot, now.at(prefix))) {
                text += ", " + prefix + change;
            }
        }
        if (ownerAndMode(root()) != "0:0 755") {
            text += ", above: " + ownerAndMode(root());
        }
        for (const std::string& name : listTree(root() + "/to")) {
            const std::string path = root() + "/to/" + name;
            const std::string content = S_ISREG(statOf(path).st_mode) ? readFile(path) : "";
            text += content.find(kSecret) != content.npos      ? ", secret read"
                    : content.find("/secret;") != content.npos ? ", secret named"
                                                               : "";
        }
        mTranscript.events.clear();
        return text;
    }

  private:
    const std::string& root() const { return mTranscript.tree.path(); }
    std::map<std::string, Snapshot> look() const {
        return {{"", snapshotOf(mOutside)}, {"to2/", snapshotOf(root() + "/to2")}};
    }

    Transcript& mTranscript;
    const std::string mOutside = "/tmp/outside" + std::to_string(getpid());
    std::map<std::string, Snapshot> mBefore;
};

std::string linesOf(const Lines& words) {
    return joined(words, "\n") + "\n";
}

}  // namespace

void addBoundaryCommands(Transcript& t) {
    const auto boundary = std::make_shared<Boundary>(t);
    t.act("anew", [boundary](const Lines& words) { boundary->begin(words); });
    t.commands["reach"] = [boundary](const Lines& words) {
        return boundary->run(words.at(0) + " " + words.at(1), {words.begin() + 2, words.end()});
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
            boundary->begin({"in/to/", "in/app/", "in/fifo|", "in/link>" + t.outside + "/secret"});
            writeFile(t.meaning(parser.file), parser.textOf(words));
            const Lines paths = {t.meaning(parser.source), t.meaning(parser.destination)};
            return boundary->run(parser.task, paths);
        };
    }
}

}  // namespace peltex_test
