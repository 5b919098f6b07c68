// The include and exclude rules of a brief by file list. Paths are plain byte strings; one contains
// another when the other occurs in it anywhere, without regard to components. The '/' that each has
// at its end in a search file is what keeps "/data/a/" out of "/data/ab/".
//
// A search file may be long: what takes each of its lines costs time in proportion to the lines'
// length (and a logarithm of their number), and memory of a few bytes for each byte of the file.
#pragma once

#include <utils/Vector.h>

#include <string>
#include <string_view>
#include <vector>

namespace android::installd {

// Appends to `result` the entries of `paths` that contain no other entry, in their order, each once
// (entries that `result` held before count).
void FilterPath(const Vector<std::string>& paths, Vector<std::string>& result);

// A set of texts that tells quickly whether a text ends in one of them. None of those that it keeps
// ends in another: the shorter one says it for both.
class Endings {
  public:
    Endings() = default;

    // What `texts` holds must outlive the object.
    explicit Endings(const Vector<std::string>& texts);

    // The kept text that `text` ends in, or null. Of equal texts the first was kept.
    const std::string_view* find(std::string_view text) const;

    bool isEmpty() const { return mTexts.empty(); }

  private:
    std::vector<std::string_view> mTexts;  // by their bytes from the last to the first
};

// Folders that are left out; their paths have no '/' at the end.
class ExcludeRules {
  public:
    // Leaves nothing out.
    ExcludeRules() = default;

    // `excludes` must outlive the object. Implicit: a list of folders is what the rules are.
    ExcludeRules(const Vector<std::string>& excludes) : mFolders(excludes) {}  // NOLINT

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
