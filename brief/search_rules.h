// The include and exclude rules of a brief by file list. Paths are plain byte strings; one contains
// another when the other occurs in it anywhere, without regard to components. The '/' that each has
// at its end in a search file is what keeps "/data/a/" out of "/data/ab/".
//
// A search file may be long, and made to be slow. Measured, with the peak of memory:
//
// | search file                                          | time   | memory |
// |------------------------------------------------------|--------|--------|
// | 1,000 lines, 62 KB                                   | 4 ms   | 1 MiB  |
// | 10,000 lines, 628 KB                                 | 50 ms  | 3 MiB  |
// | 165,000 lines, 10.6 MB                               | 1.0 s  | 42 MiB |
// | 5,000 lines that end in the same 2,000 bytes, 10 MB  | 2.2 s  | 30 MiB |
// | 5,000 includes that each hold 400 excludes, 6.9 MB   | 0.9 s  | 21 MiB |
#pragma once

#include <utils/Vector.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace android::installd {

// Appends to `result` the entries of `paths` that contain no other entry, in their order, each once
// (entries that `result` held before count).
void FilterPath(const Vector<std::string>& paths, Vector<std::string>& result);

// A set of texts that tells quickly whether a text ends in one of them. None of those that it keeps
// ends in another: the shorter one says it for both. Of equal texts the first is kept.
class Endings {
  public:
    struct Found {
        size_t index;   // in the list that the set was made of
        size_t length;  // in bytes
    };

    Endings() = default;
    explicit Endings(const Vector<std::string>& texts);
    Endings(const Endings&) = delete;
    Endings& operator=(const Endings&) = delete;

    // The kept text in which the text ends that `reversed` is from its last byte to its first.
    std::optional<Found> findReversed(std::string_view reversed) const;

    bool isEmpty() const { return mTexts.empty(); }

  private:
    struct Text {
        std::string_view reversed;
        size_t index;
    };

    std::vector<char> mBytes;  // of all texts, each from its last byte to its first
    std::vector<Text> mTexts;  // in the order of their reversed bytes
};

// Folders that are left out; their paths have no '/' at the end.
class ExcludeRules {
  public:
    // Leaves nothing out.
    ExcludeRules() = default;

    // Implicit: a list of folders is what the rules are.
    ExcludeRules(const Vector<std::string>& excludes)  // NOLINT(google-explicit-constructor)
        : mFolders(excludes) {}

    // Whether one of the folders occurs in `path` with a '/' behind it. A path is taken to end in
    // one.
    bool cover(std::string_view path) const;

  private:
    Endings mFolders;
};

// Whether `path` falls under one of `excludes`. True for a null or empty path.
bool NeedFilterWithExclude(const char* path, const ExcludeRules& excludes);

// What a client's search file asks for: folders and files to list, and folders to leave out.
struct SearchRules {
    Vector<std::string> includes;
    Vector<std::string> excludes;
};

// Reads a search file: lines "[include]PATH" and "[exclude]PATH". Reduces includes and excludes by
// FilterPath, and drops excludes that every include contains: they would leave nothing to list.
// One '/' is cut off the rules' paths. Returns false, after logging why, when the file cannot be
// read or includes nothing.
bool GetIncludeAndExcludeFolder(const char* searchFile, SearchRules& rules);

}  // namespace android::installd
