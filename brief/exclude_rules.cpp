// Tested by tests/brief/file_list_brief_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "brief/exclude_rules.h"

#include <log/log.h>
#include <stdint.h>

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "fileops/error_text.h"
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

// Whether `folder`, with a '/' behind it, occurs in `path`.
bool containsFolder(const std::string& path, const std::string& folder) {
    for (size_t at = path.find(folder); at != std::string::npos; at = path.find(folder, at + 1)) {
        if (path[at + folder.size()] == '/') {
            return true;
        }
    }
    return false;
}

// Finds, for each of many entries, whether another one occurs in it, in time proportional to their
// length: comparing each with each would let a client's list keep a worker busy. The entries form a
// tree of their bytes; each node is linked to the node of the longest other beginning of an entry
// that its own text ends in (Aho and Corasick).
class EntryTree {
  public:
    void add(std::string_view entry) {
        uint32_t node = kRoot;
        for (const char byte : entry) {
            uint32_t child = childOf(node, byte);
            if (child == kNone) {
                child = static_cast<uint32_t>(mNodes.size());
                mNodes.push_back({byte, false, false, kNone, mNodes[node].firstChild, kRoot});
                mNodes[node].firstChild = child;
            }
            node = child;
        }
        mNodes[node].isEntry = true;
    }

    // To be called once, after the last entry was added.
    void link() {
        mNodes[kRoot].endsInEntry = mNodes[kRoot].isEntry;
        std::vector<uint32_t> order = {kRoot};  // by distance from the root
        for (size_t i = 0; i < order.size(); ++i) {
            const uint32_t parent = order[i];
            for (uint32_t child = mNodes[parent].firstChild; child != kNone;
                 child = mNodes[child].nextSibling) {
                Node& node = mNodes[child];
                node.suffix = parent == kRoot ? kRoot : suffixOf(parent, node.byte);
                node.endsInEntry = node.isEntry || mNodes[node.suffix].endsInEntry;
                order.push_back(child);
            }
        }
    }

    // REQUIRES: `entry` was added.
    bool containsAnother(std::string_view entry) const {
        uint32_t node = kRoot;
        for (const char byte : entry) {
            if (mNodes[node].endsInEntry) {
                return true;
            }
            node = childOf(node, byte);
        }
        return node != kRoot && mNodes[mNodes[node].suffix].endsInEntry;
    }

  private:
    static constexpr uint32_t kRoot = 0;
    static constexpr uint32_t kNone = 0;  // of children: the root is nobody's

    struct Node {
        char byte;
        bool isEntry;
        bool endsInEntry;  // some entry is the node's text or its end
        uint32_t firstChild;
        uint32_t nextSibling;
        uint32_t suffix;
    };

    uint32_t childOf(uint32_t node, char byte) const {
        uint32_t child = mNodes[node].firstChild;
        while (child != kNone && mNodes[child].byte != byte) {
            child = mNodes[child].nextSibling;
        }
        return child;
    }

    uint32_t suffixOf(uint32_t parent, char byte) const {
        uint32_t node = parent;
        while (node != kRoot) {
            node = mNodes[node].suffix;
            if (const uint32_t child = childOf(node, byte); child != kNone) {
                return child;
            }
        }
        return kRoot;
    }

    std::vector<Node> mNodes = {{'\0', false, false, kNone, kNone, kRoot}};
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
    EntryTree tree;
    for (const std::string& path : paths) {
        tree.add(path);
    }
    tree.link();
    std::unordered_set<std::string> taken(result.begin(), result.end());
    for (const std::string& path : paths) {
        if (!tree.containsAnother(path) && taken.insert(path).second) {
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
        return containsFolder(directory, exclude);
    });
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
    const bool isRead = ferror(file.get()) == 0;
    if (!isRead) {
        ALOGE("failed to read searchFile, error=%s", ErrorText().c_str());
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
    return isRead;
}

}  // namespace android::installd
