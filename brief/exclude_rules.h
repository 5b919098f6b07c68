// The include and exclude rules of a brief by file list. Paths are plain byte strings that end in
// '/'; one contains another when the other occurs in it anywhere, without regard to components.
#pragma once

#include <utils/Vector.h>

#include <string>

namespace android::installd {

// Appends to `result` the entries of `paths` that contain no other entry, in their order, each once
// (entries that `result` held before count).
void FilterPath(const Vector<std::string>& paths, Vector<std::string>& result);

// Whether `path` falls under one of `excludes`, which have no trailing '/'. True for a null or
// empty path.
bool NeedFilterWithExclude(const char* path, const Vector<std::string>& excludes);

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
