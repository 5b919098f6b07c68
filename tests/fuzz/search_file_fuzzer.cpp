// The brief by file list. Input: a search file. Its rules are also worked out the plain way, and
// every line of the brief has to be the record of something that an include holds.
//
// Nothing that a search file says may change anything but the brief.
#include <string.h>

#include <algorithm>
#include <memory>

#include "brief/permission_record.h"
#include "brief/search_rules.h"
#include "service/backup_session_manager.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/fuzz/support/sentinel.h"
#include "tests/fuzz/support/target.h"

namespace peltex_fuzz {

using namespace android::installd;
using android::sp;
using android::Vector;

namespace {

constexpr char kSearchFile[] = "/data/search";
constexpr char kBrief[] = "/data/out/brief";
constexpr size_t kLineSize = 2048;

Sentinel* gSentinel;
BackupSessionManager* gManager;

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

// The entries of `paths` that contain no other, by comparing each with each.
std::vector<std::string> filteredPlainly(const Vector<std::string>& paths) {
    std::vector<std::string> result;
    for (const std::string& path : paths) {
        const bool containsAnother = std::any_of(
            paths.begin(), paths.end(),
            [&path](const std::string& other) { return other != path && contains(path, other); });
        if (!containsAnother && std::find(result.begin(), result.end(), path) == result.end()) {
            result.push_back(path);
        }
    }
    return result;
}

void checkFilter(const std::string& text) {
    Vector<std::string> paths;
    forEachLine(text, [&paths](const std::string& line) { paths.add(line); });
    Vector<std::string> filtered;
    FilterPath(paths, filtered);
    if (std::vector<std::string>(filtered.begin(), filtered.end()) != filteredPlainly(paths)) {
        fail("FilterPath keeps others");
    }
}

SearchRules readRules() {
    SearchRules rules;
    GetIncludeAndExcludeFolder(kSearchFile, rules);
    for (const Vector<std::string>* paths : {&rules.includes, &rules.excludes}) {
        for (const std::string& path : *paths) {
            if (std::count(paths->begin(), paths->end(), path) != 1) {
                fail("\"%s\" is there twice", path.c_str());
            }
        }
    }
    return rules;
}

void checkBrief(const SearchRules& rules) {
    const auto info = std::make_unique<File_info>();
    forEachLine(readFile(kBrief), [&](const std::string& record) {
        std::string line = record;
        if (parse_line_info(line.data(), *info) != 5) {
            // The link is listed where it is asked for by name, and no restore takes its record.
            if (contains(record, "/link;")) {
                return;
            }
            fail("no record: %s", record.c_str());
        }
        const std::string path = info->path;
        const bool isAskedFor = std::any_of(
            rules.includes.begin(), rules.includes.end(), [&path](const std::string& include) {
                return path.compare(0, include.size(), include) == 0;
            });
        if (!isAskedFor) {
            fail("nobody asked for %s", info->path);
        }
    });
}

}  // namespace

void prepare() {
    for (const char* dir :
         {"/data", "/data/app", "/data/app/d", "/data/app/d/app", "/data/app2", "/data/out"}) {
        makeDir(dir);
    }
    for (const char* file : {"/data/app/a", "/data/app/d/b", "/data/app/d/app/c", "/data/app2/e",
                             "/data/app/d/x.dex"}) {
        writeFile(file, file);
    }
    makeLink("d", "/data/app/link");
    writeFile(kSearchFile, "");
    gManager = new BackupSessionManager();
    gManager->incStrong(gManager);
    gSentinel = new Sentinel({"/", "/data", "/data/app", "/data/app/d", "/data/app/a", "/data/app2",
                              "/data/app2/e", "/data/app/d/b", "/data/app/d/app"});
}

void runInput(const std::string& input) {
    checkFilter(input);
    writeFile(kSearchFile, input);
    const SearchRules rules = readRules();
    for (const std::string& include : rules.includes) {
        NeedFilterWithExclude(include.c_str(), rules.excludes);
    }
    const std::string words[kCommandWords] = {"get_brief", "byfile", kSearchFile, kBrief,
                                              "default",   "10123",  ""};
    const sp<BackupTask> task = new BackupTask(100, 101, GET_BRIEFS_BY_FILE, nullptr, words);
    gManager->GetFileBriefsByFile(task);
    checkBrief(rules);
    gSentinel->check();
    emptyDir("/data/out");
}

}  // namespace peltex_fuzz
