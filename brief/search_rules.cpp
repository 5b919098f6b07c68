// Tested by tests/unit/briefs.md.
#define LOG_TAG "BackupSessionManager"

#include "brief/search_rules.h"

#include <log/log.h>
#include <string.h>

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

// memmem is several times as fast as std::string::find.
bool contains(const std::string& text, const std::string& part) {
    return memmem(text.data(), text.size(), part.data(), part.size()) != nullptr;
}

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

// Whether some text of which `entries` were made, other than `path` itself, occurs in it.
bool containsAnother(const std::string& path, const Endings& entries) {
    const std::string reversed(path.rbegin(), path.rend());
    for (size_t behind = 0; behind <= reversed.size(); ++behind) {
        const std::optional<Endings::Found> entry =
            entries.findReversed(std::string_view(reversed).substr(behind));
        if (entry && entry->length != path.size()) {
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
// in the list changes nothing. Plain loops do: of excludes that do not contain one another, no
// include holds more than it has bytes, and the others are settled by the first.
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
Endings::Endings(const Vector<std::string>& texts) {
    size_t bytes = 0;
    for (const std::string& text : texts) {
        bytes += text.size();
    }
    mBytes.reserve(bytes);
    mTexts.reserve(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string_view reversed(mBytes.data() + mBytes.size(), texts[i].size());
        mBytes.insert(mBytes.end(), texts[i].rbegin(), texts[i].rend());
        mTexts.push_back({reversed, i});
    }
    std::stable_sort(mTexts.begin(), mTexts.end(),
                     [](const Text& a, const Text& b) { return a.reversed < b.reversed; });
    size_t kept = 0;
    for (const Text& text : mTexts) {
        if (kept == 0 || !beginsWith(text.reversed, mTexts[kept - 1].reversed)) {
            mTexts[kept++] = text;
        }
    }
    mTexts.resize(kept);
}

std::optional<Endings::Found> Endings::findReversed(std::string_view reversed) const {
    const auto behind = std::upper_bound(
        mTexts.begin(), mTexts.end(), reversed,
        [](std::string_view text, const Text& kept) { return text < kept.reversed; });
    if (behind == mTexts.begin() || !beginsWith(reversed, (behind - 1)->reversed)) {
        return std::nullopt;
    }
    return Found{(behind - 1)->index, (behind - 1)->reversed.size()};
}

bool ExcludeRules::cover(std::string_view path) const {
    if (mFolders.isEmpty()) {
        return false;
    }
    const std::string reversed(path.rbegin(), path.rend());
    const std::string_view rest = reversed;
    if (rest.empty() || rest[0] != '/') {
        if (mFolders.findReversed(rest)) {
            return true;
        }
    }
    for (size_t slash = rest.find('/'); slash != std::string_view::npos;
         slash = rest.find('/', slash + 1)) {
        if (mFolders.findReversed(rest.substr(slash + 1))) {
            return true;
        }
    }
    return false;
}

void FilterPath(const Vector<std::string>& paths, Vector<std::string>& result) {
    const Endings entries(paths);
    const size_t held = result.size();
    for (size_t i = 0; i < paths.size(); ++i) {
        // Of equal entries the first is the one that is in the set.
        const std::string reversed(paths[i].rbegin(), paths[i].rend());
        if (entries.findReversed(reversed)->index == i && !containsAnother(paths[i], entries) &&
            std::find(result.begin(), result.begin() + held, paths[i]) == result.begin() + held) {
            result.add(paths[i]);
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
