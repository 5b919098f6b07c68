// Tested by tests/brief/file_list_brief_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "brief/search_rules.h"

#include <log/log.h>

#include <algorithm>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/paths.h"

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

bool endsIn(std::string_view text, std::string_view ending) {
    return text.size() >= ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

bool isLessFromTheEnd(std::string_view a, std::string_view b) {
    return std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

// Whether some text of which `entries` were made, other than `path` itself, occurs in it.
bool containsAnother(std::string_view path, const Endings& entries) {
    for (size_t end = 0; end <= path.size(); ++end) {
        const std::string_view* entry = entries.find(path.substr(0, end));
        if (entry != nullptr && *entry != path) {
            return true;
        }
    }
    return false;
}

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
// in the list changes nothing. Plain loops do: excludes of which none contains another begin at
// different bytes of an include, so one include holds 2047 of them at most, and settles all others.
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

// Reversed, a text that ends in another begins with it, and in their order stands behind it with
// nothing in between but what begins with it, too.
Endings::Endings(const Vector<std::string>& texts) : mTexts(texts.begin(), texts.end()) {
    std::stable_sort(mTexts.begin(), mTexts.end(), isLessFromTheEnd);
    size_t kept = 0;
    for (const std::string_view text : mTexts) {
        if (kept == 0 || !endsIn(text, mTexts[kept - 1])) {
            mTexts[kept++] = text;
        }
    }
    mTexts.resize(kept);
}

const std::string_view* Endings::find(std::string_view text) const {
    const auto behind = std::upper_bound(mTexts.begin(), mTexts.end(), text, isLessFromTheEnd);
    return behind != mTexts.begin() && endsIn(text, *(behind - 1)) ? &*(behind - 1) : nullptr;
}

bool ExcludeRules::cover(std::string_view path) const {
    if (mFolders.isEmpty()) {
        return false;
    }
    for (size_t slash = path.find('/'); slash != std::string_view::npos;
         slash = path.find('/', slash + 1)) {
        if (mFolders.find(path.substr(0, slash)) != nullptr) {
            return true;
        }
    }
    return (path.empty() || path.back() != '/') && mFolders.find(path) != nullptr;
}

void FilterPath(const Vector<std::string>& paths, Vector<std::string>& result) {
    const Endings entries(paths);
    const size_t held = result.size();
    for (const std::string& path : paths) {
        // Of equal entries the first is the one that is in the set.
        const bool isFirst = entries.find(path)->data() == path.data();
        if (isFirst && !containsAnother(path, entries) &&
            std::find(result.begin(), result.begin() + held, path) == result.begin() + held) {
            result.add(path);
        }
    }
}

bool NeedFilterWithExclude(const char* path, const ExcludeRules& excludes) {
    return isEmptyPath(path) || excludes.cover(path);
}

bool GetIncludeAndExcludeFolder(const char* searchFile, SearchRules& rules) {
    if (isEmptyPath(searchFile)) {
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
    if (ferror(file.get()) != 0) {
        ALOGE("failed to read searchFile, error=%s", ErrorText().c_str());
        return false;
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
