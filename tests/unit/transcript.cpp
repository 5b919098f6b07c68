#include "tests/unit/transcript.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <host/log_tap.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "tests/support/wrapped_calls.h"

namespace peltex_test {
namespace {

using namespace android::installd;

// In the order of their types.
const char* const kTasks[] = {"backup file",  "backup dir",    "backup tar",    "backup split",
                              "restore file", "restore dir",   "restore tar",   "restore split",
                              "move dir",     "backup byfile", "get_brief dir", "get_brief byfile"};

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

TextTest* makeTranscript() {
    auto* transcript = new Transcript();
    addArchiveCommands(*transcript);
    addBoundedCommands(*transcript);
    addBriefCommands(*transcript);
    addFileCommands(*transcript);
    addBoundaryCommands(*transcript);
    return transcript;
}

[[maybe_unused]] const bool kAreRegistered = [] {
    for (const char* document :
         {"archives.md", "boundaries.md", "bounded.md", "briefs.md", "records.md", "tasks.md"}) {
        registerTexts(document, makeTranscript);
    }
    return true;
}();

}  // namespace

const char* pathOf(const std::string& word) {
    return word == "null" ? nullptr : word.c_str();
}

Descriptors countDescriptors() {
    Descriptors count;
    for (int fd = 0; fd < 32; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        count.open += flags >= 0 ? 1 : 0;
        count.inherited += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return count;
}

Transcript::Transcript()
    : client(new TestClient([this](const Status& status) {
          if (status.message.find("processTask") != 0) {  // when it starts and ends
              hear(std::to_string(status.code) + " " + status.message);
          }
      })),
      manager(new BackupSessionManager()),
      mObserver([this](const char* path, const char* seInfo, uid_t uid, unsigned int flags) {
          hear("label " + std::string(path) + " " + seInfo + " " + std::to_string(uid) + " " +
               std::to_string(flags));
          return !refused.empty() && path == refused ? EACCES : 0;
      }) {
    android::host::setLogTap([this](int priority, const char*, const std::string& message) {
        if (priority >= ANDROID_LOG_INFO || message.find("Failed") == 0) {
            hear(message);
        } else {
            EXPECT_LE(countDescriptors().inherited, mBefore.inherited) << message;
        }
    });
    manager->startBackupSession(client);
    act("plant", [this](const Lines& words) {
        emptyDir(tree.path());
        plant(tree.path(), {"[0:0,755]"});
        plant(tree.path(), words);
    });
    act("plant+", [this](const Lines& words) { plant(tree.path(), words); });
    act("archive", [](const Lines& words) {
        writeFile(words.at(0), archiveOf({words.begin() + 1, words.end()}));
    });
    act("abort", [this](const Lines& /*words*/) { isAborted = true; });
    act("unlink", [](const Lines& words) { std::filesystem::remove_all(words.at(0)); });
    act("resize", [](const Lines& words) {
        std::filesystem::resize_file(words.at(0), std::stoul(words.at(1)));
    });
    act("link", [](const Lines& words) {  // to the second, in place of the first
        std::filesystem::rename(words.at(0), words[0] + ".old");
        makeLink(words.at(1), words[0]);
    });
    act("when", [this](const Lines& words) {
        const auto at = std::find(words.begin(), words.end(), "at");
        mMoment = at == words.end() ? "" : joined({at + 1, words.end()}, " ");
        mAction = [this, words = Lines(words.begin(), at)] {
            commands.at(words[0])({words.begin() + 1, words.end()});
        };
    });
    const auto limit = [this](const char* name, int resource) {
        act(name, [resource](const Lines& words) {
            rlimit value = {};
            getrlimit(resource, &value);
            value.rlim_cur = std::stoul(words.at(0));
            setrlimit(resource, &value);
        });
    };
    limit("descriptors", RLIMIT_NOFILE);
    limit("stack", RLIMIT_STACK);
    act("cd", [](const Lines& words) { std::filesystem::current_path(words.at(0)); });
    commands["text"] = [](const Lines& words) { return "= " + readFile(words.at(0)); };
    act("refuse", [this](const Lines& words) { refused = words.at(0); });
    act("refuse-memory", [](const Lines& words) { refuseMemory(std::stoul(words.at(0))); });
    commands["show"] = [](const Lines& words) { return "= " + joined(shown(words.at(0)), " "); };
    for (int32_t type = BACKUP_FILE; type <= GET_BRIEFS_BY_FILE; ++type) {
        commands[kTasks[type]] = [this, type](const Lines& words) {
            android::sp<BackupTask> task = makeTask(static_cast<BackupTaskType>(type), words);
            return "= " + std::to_string(manager->processTask(task));
        };
    }
}

Transcript::~Transcript() {
    android::host::setLogTap(nullptr);
}

void Transcript::act(const char* name, const std::function<void(const Lines& words)>& action) {
    commands[name] = [action](const Lines& words) { return action(words), ""; };
}

android::sp<BackupTask> Transcript::makeTask(BackupTaskType type, const Lines& words) const {
    const std::string third = words.size() > 2 ? words[2] : "info";
    const Lines rest =
        type == BACKUP_SPLIT ? Lines{third, "info", "10123"} : Lines{third, "10123", ""};
    const std::string all[kCommandWords] = {"",      "",      words.at(0), words.at(1),
                                            rest[0], rest[1], rest[2]};
    return new BackupTask(100, 101, type, client, all);
}

void Transcript::hear(const std::string& event) {
    EXPECT_LE(countDescriptors().inherited, mBefore.inherited) << event;
    events.push_back(event);
    if (!mMoment.empty() && event.find(mMoment) == 0) {
        mAction();
    }
}

std::string Transcript::meaning(std::string word) const {
    if (word[0] == '~') {
        size_t end = 0;
        const size_t length = std::stoul(word.substr(1), &end);
        std::string path = tree.path() + std::string((length - tree.path().size()) % 2, '/');
        while (path.size() < length) {
            path += "/.";
        }
        word.replace(0, end + 1, path);
    }
    static const std::regex kRun("\\{([^{}*]+)\\*(\\d+)\\}");
    for (std::smatch found; std::regex_search(word, found, kRun);) {
        std::string run;
        for (size_t i = std::stoul(found[2]); i > 0; --i) {
            run += found[1];
        }
        word = found.prefix().str() + run + found.suffix().str();
    }
    replaceAll(word, "\\n", "\n");
    replaceAll(word, "\\r", "\r");
    replaceAll(word, "\\s", " ");
    replaceAll(word, "\\0", std::string(1, '\0'));
    for (size_t at; (at = word.find('<')) != word.npos;) {
        const size_t end = word.find('>', at);
        word.replace(at, end + 1 - at, recordOf(word.substr(at + 1, end - at - 1)));
    }
    replaceAll(word, "@", tree.path());
    return word == "''" ? "" : word;
}

std::string Transcript::recordOf(const std::string& name) const {
    struct stat status = {};  // of what a link leads to
    stat((tree / name).c_str(), &status);
    return (tree / name) + ";" + std::to_string(status.st_mode & 07777) + ";" +
           (S_ISDIR(status.st_mode) ? "1;" : "0;") + std::to_string(status.st_size) + ";" +
           std::to_string(status.st_mtime);
}

void Transcript::shorten(std::string& text) const {
    for (const std::string& name : text.find(';') != text.npos ? listTree(tree.path()) : Lines()) {
        const std::string entry = name.substr(0, name.find_last_not_of('/') + 1);
        replaceAll(text, recordOf(entry), "<" + entry + ">");
    }
    replaceAll(text, tree.path(), "@");
    replaceAll(text, "\n", "\\n");
    replaceAll(text, std::string(1, '\0'), "\\0");
    for (size_t at; (at = text.find("/./.")) != text.npos;) {
        text.erase(at, 2);
    }
    for (size_t at = 0; at < text.size(); ++at) {
        const size_t end = std::min(text.find_first_not_of(text[at], at), text.size());
        if (end - at > 20) {
            text.replace(at, end - at,
                         "{" + text.substr(at, 1) + "*" + std::to_string(end - at) + "}");
        }
    }
}

std::string Transcript::run(const std::string& command) {
    events.clear();
    isAborted = false;
    Lines words;
    std::istringstream stream(command);
    for (std::string word; stream >> word;) {
        words.push_back(meaning(word));
    }
    const long nameWords = commands.count(words[0]) != 0 ? 1 : 2;
    const std::string name = nameWords == 1 ? words[0] : words.at(0) + " " + words.at(1);
    const int open = countDescriptors().open;
    errno = 0;
    std::string result = commands.at(name)({words.begin() + nameWords, words.end()});
    const int more = countDescriptors().open - open;
    if (more != 0) {
        result += ", " + std::to_string(more) + " more descriptor";
    }
    shorten(result);
    for (std::string& event : events) {
        shorten(event);
    }
    return result;
}

}  // namespace peltex_test
