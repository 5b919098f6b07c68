// What is read line by line, as root: the target is chosen by the input's first byte.
//
//   0  permission records: they are applied, and each line is parsed by itself. A record gives a
//      mode to whatever it names, and changes nothing else.
//   1  a search file: a rule is the end of one of its lines, every line of its brief the record of
//      something that an include holds, and nothing but the brief changes.
//   2  a list of files to back up: with "../" it copies to elsewhere; any other one changes nothing
//      outside the destination. What a line of it copies over it is not followed.
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "brief/permission_record.h"
#include "brief/search_rules.h"
#include "handlers/brief_handlers.h"
#include "handlers/by_list_handler.h"
#include "task/backup_task.h"
#include "tests/fuzz/target.h"
#include "tests/support/jail.h"
#include "tests/support/test_files.h"

namespace peltex_fuzz {

using namespace android::installd;
using namespace peltex_test;

namespace {

constexpr char kInput[] = "/data/in";
constexpr char kBrief[] = "/data/out/brief";
constexpr char kDestination[] = "/data/out/app";
constexpr char kList[] = "/data/out/app/app/in";  // where /data/app/in is copied to
constexpr char kCopied[] = "/data/app2/e";
constexpr size_t kLineSize = 2048;
constexpr size_t kLongestInput = 4096;  // lists.options

Snapshot gRoot;

void makeRoot() {
    emptyDir("/");
    for (const char* file :
         {"/data/app/a", "/data/app/dir/b", "/data/app/dir/app/c", "/data/app/;app",
          "/data/app/f;1", "/data/app/line\nfeed;1", "/data/app/app/app", "/data/app/dir/x.dex",
          kCopied, "/data/keep", "/keep"}) {
        writeFile(file, file);
    }
    std::string longerThanAnyList;
    while (longerThanAnyList.size() < 2 * kLongestInput) {
        longerThanAnyList += std::string(kCopied) + ";384;0;5;1\n";
    }
    writeFile("/data/app/in", longerThanAnyList);
    makeLink("dir", "/data/app/link");
    makeDir(kDestination);
    writeFile(kInput, "");
    gRoot = snapshotOf("/");
}

android::sp<BackupTask> makeTask(BackupTaskType type, const char* source, const char* destination) {
    const std::string words[kCommandWords] = {"cmd",     "option", source, destination,
                                              "default", "10123",  ""};
    return new BackupTask(100, 101, type, nullptr, words);
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

template <typename Use>
void forEachLine(const std::string& text, Use use) {
    for (size_t at = 0; at < text.size();) {
        // As fgets() cuts them; a NUL ends what is read of a line.
        const size_t end = std::min({text.find('\n', at), text.size() - 1, at + kLineSize - 2}) + 1;
        use(std::string(text.substr(at, end - at).c_str()));
        at = end;
    }
}

// --- Permission records ---

void parse(std::string line) {
    const std::string before = line;
    File_info info;
    if (parse_line_info(line.data(), info) < 5) {
        return;
    }
    const size_t length = strnlen(info.path, sizeof(info.path));
    if (before.compare(0, length, info.path) != 0 || before[length] != ';' ||
        std::count(before.begin() + static_cast<ptrdiff_t>(length), before.end(), ';') != 4) {
        fail("the path of \"%s\" is not \"%s\"", before.c_str(), info.path);
    }
    if (info.mode < 0 || info.mode > 7777 || info.type < 0 || info.type > 1 || info.size < 0 ||
        info.modified_time < 0) {
        fail("a number of \"%s\" is out of range", before.c_str());
    }
}

void runRecords(const std::string& input) {
    restore_application_from_infofile("/data/app", kInput, "default");
    forEachLine(input, parse);
}

// --- Search files ---

// What the rules leave of a line's end differs by line feeds and slashes.
std::string trimmed(std::string line) {
    line.erase(line.find_last_not_of("/\r\n") + 1);
    return line;
}

SearchRules readRules(const std::string& input) {
    SearchRules rules;
    GetIncludeAndExcludeFolder(kInput, rules);
    std::string lines;
    forEachLine(input, [&lines](const std::string& line) { lines += trimmed(line) + '\n'; });
    for (const android::Vector<std::string>* paths : {&rules.includes, &rules.excludes}) {
        for (const std::string& path : *paths) {
            if (std::count(paths->begin(), paths->end(), path) != 1 ||
                !contains(lines, trimmed(path) + '\n')) {
                fail("\"%s\" is there twice, or the end of no line", path.c_str());
            }
        }
    }
    return rules;
}

void runSearch(const std::string& input) {
    const SearchRules rules = readRules(input);
    GetFileBriefsByFile(makeTask(GET_BRIEFS_BY_FILE, kInput, kBrief), [](const std::string&) {});
    forEachLine(readFile(kBrief), [&](const std::string& record) {
        std::string line = record;
        File_info info;
        // Of a name with a line feed each half is a line. A link is listed where it is asked for by
        // name, and no restore takes its record.
        if (parse_line_info(line.data(), info) != 5) {
            return;
        }
        const std::string path = info.path;
        const bool isAskedFor = std::any_of(
            rules.includes.begin(), rules.includes.end(), [&path](const std::string& include) {
                return path.compare(0, include.size(), include) == 0;
            });
        if (path[0] == '/' && !isAskedFor) {
            fail("nobody asked for %s", info.path);
        }
    });
}

// --- Lists of files ---

void runList(const std::string& input) {
    writeFile(kList, input);
    BackupByFileBase(makeTask(BACKUP_BY_FILE, kList, kDestination));
    if (exists("/data/out/app/app2/e") && !contains(input, "2/e")) {
        fail("what was copied over the list was followed");
    }
}

}  // namespace

void prepare() {
    makeRoot();
}

void runInput(const std::string& input) {
    if (input.empty()) {
        return;
    }
    const int target = static_cast<unsigned char>(input[0]) % 3;
    const std::string text = input.substr(1);
    writeFile(kInput, text);
    void (*const kTargets[])(const std::string&) = {runRecords, runSearch, runList};
    kTargets[target](text);
    writeFile(kInput, "");
    if (target == 2 && contains(text, "../")) {
        makeRoot();
        return;
    }
    unlink(kBrief);
    emptyDir(kDestination);
    bool isChanged = false;
    for (const std::string& change : changesBetween(gRoot, snapshotOf("/"))) {
        const std::string place = change.substr(0, change.rfind(": "));
        const std::string name = place.substr(place.rfind('/') + 1);
        if (target != 0 || change.find(" 0:0 ", place.size()) == std::string::npos ||
            (place != "." && !contains(text, name))) {
            fail("%s", change.c_str());
        }
        isChanged = true;
    }
    if (isChanged) {
        makeRoot();
    }
}

}  // namespace peltex_fuzz
