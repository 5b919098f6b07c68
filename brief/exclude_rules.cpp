// Tested by tests/brief/file_list_brief_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "brief/exclude_rules.h"

#include <log/log.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "fileops/file_handles.h"
#include "fileops/paths.h"

namespace android::installd {

namespace {

constexpr size_t kLineSize = 2048;
constexpr char kInclude[] = "[include]";
constexpr char kExclude[] = "[exclude]";
constexpr size_t kTagLength = sizeof(kInclude) - 1;
static_assert(sizeof(kInclude) == sizeof(kExclude), "both tags are cut off alike");

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Entries that contain no other, found so far, by their length. A client may send any number of
// entries: looking up the pieces of an entry keeps the work in proportion to the file's size, where
// comparing each with each would keep a worker busy for hours.
class ShortestPaths {
  public:
    // REQUIRES: paths are added in order of their length.
    void addUnlessContainer(std::string_view path) {
        if (!containsAny(path)) {
            mByLength[path.size()].insert(path);
        }
    }

    bool has(const std::string& path) const {
        const auto group = mByLength.find(path.size());
        return group != mByLength.end() && group->second.count(path) != 0;
    }

  private:
    bool containsAny(std::string_view path) const {
        for (const auto& [length, group] : mByLength) {
            for (size_t begin = 0; begin + length <= path.size(); ++begin) {
                if (group.count(path.substr(begin, length)) != 0) {
                    return true;
                }
            }
        }
        return false;
    }

    std::map<size_t, std::unordered_set<std::string_view>> mByLength;
};

void appendLine(std::string line, Vector<std::string>& includes, Vector<std::string>& excludes) {
    for (const char end : {'\n', '\r'}) {
        if (!line.empty() && line.back() == end) {
            line.pop_back();
        }
    }
    if (!line.empty() && line.back() != '/') {
        line += '/';
    }
    // The tag is taken to stand at the line's start, wherever it was found.
    if (contains(line, kInclude)) {
        includes.add(line.substr(kTagLength));
    } else if (contains(line, kExclude)) {
        excludes.add(line.substr(kTagLength));
    }
}

// An exclude is kept when some include does not contain it. Each is taken once: how often it stands
// in the list changes nothing.
void keepUsefulExcludes(const Vector<std::string>& includes, const Vector<std::string>& excludes,
                        Vector<std::string>& result) {
    for (const std::string& exclude : excludes) {
        const bool isUseful =
            !exclude.empty() &&
            std::any_of(includes.begin(), includes.end(), [&exclude](const std::string& include) {
                return !contains(include, exclude);
            });
        if (isUseful) {
            result.add(exclude);
        }
    }
}

void cutLastCharacters(Vector<std::string>& paths) {
    for (size_t i = 0; i < paths.size(); ++i) {
        paths.editItemAt(i).pop_back();
    }
}

}  // namespace

void FilterPath(const Vector<std::string>& paths, Vector<std::string>& result) {
    std::vector<std::string_view> byLength(paths.begin(), paths.end());
    std::stable_sort(byLength.begin(), byLength.end(),
                     [](std::string_view a, std::string_view b) { return a.size() < b.size(); });
    ShortestPaths shortest;
    for (const std::string_view path : byLength) {
        shortest.addUnlessContainer(path);
    }
    std::unordered_set<std::string> taken(result.begin(), result.end());
    for (const std::string& path : paths) {
        if (shortest.has(path) && taken.insert(path).second) {
            result.add(path);
        }
    }
}

bool NeedFilterWithExclude(const char* path, const Vector<std::string>& excludes) {
    if (isEmptyPath(path)) {
        return true;
    }
    std::string directory = path;
    if (directory.back() != '/') {
        directory += '/';
    }
    return std::any_of(excludes.begin(), excludes.end(), [&directory](const std::string& exclude) {
        return contains(directory, exclude + "/");
    });
}

bool GetIncludeAndExcludeFolder(const char* searchFile, SearchRules& rules) {
    if (searchFile == nullptr) {
        ALOGE("GetIncludeAndExcludeFolder failed,path is null");
        return false;
    }
    const UniqueFile file(fopen(searchFile, "re"));
    if (file == nullptr) {
        ALOGE("failed to open searchFile");
        return false;
    }
    Vector<std::string> rawIncludes;
    Vector<std::string> rawExcludes;
    char line[kLineSize];
    while (fgets(line, sizeof(line), file.get()) != nullptr) {
        appendLine(line, rawIncludes, rawExcludes);
    }
    if (rawIncludes.isEmpty()) {
        ALOGE("No include path!");
        return false;
    }
    Vector<std::string> reducedExcludes;
    FilterPath(rawIncludes, rules.includes);
    FilterPath(rawExcludes, reducedExcludes);
    keepUsefulExcludes(rules.includes, reducedExcludes, rules.excludes);
    cutLastCharacters(rules.includes);
    cutLastCharacters(rules.excludes);
    return true;
}

}  // namespace android::installd
