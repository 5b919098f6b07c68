// The rules that every path passes before root touches it, from coarse to fine: the areas that a
// task may name, the kinds of entry that a walk takes, and the root that each copied file must
// resolve into. None changes anything on disk; each reports by its result and a log line.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/place.h"

namespace android::installd {

// Whether a task may name `path` at all: inside one of the application data areas and without
// "../". Prefixes are compared without regard to component boundaries.
bool is_allow_access(const char* path);

// Whether `path` (not null) lies on shared storage, where labels, owners and modes are not ours to
// set.
bool isStoragePath(const char* path);

// Returns 0 when `path` resolves to a place that begins with `realOrgPath`, and also when it cannot
// be resolved (a copy that is yet to be made) or `realOrgPath` is null; else -1.
int CheckFilePath(const char* path, const char* realOrgPath);

// Returns 1 for a directory, 0 for anything else but a symbolic link, -1 for a link and on failure.
// Links are never followed.
int isDir(const char* path);
int isDir(const Place& place);

// The same, leaving what was found in `status`, for the functions below that take one.
int isDir(const Place& place, struct stat& status);

// Whether a directory of this name (not a path) directly under an application's root is left out:
// 1 for its native libraries in "lib", 0 otherwise, -1 for a null or empty name.
int filterDir(const char* dirName);

// Returns 0 for a file to keep, -1 for one to skip: sockets, links, FIFOs, compiled code (".dex"),
// and what cannot be examined.
int filterFile(const char* filePath);
int filterFile(const char* filePath, const struct stat& status);

// The text after the last '/', empty where there is none.
std::string GetAppNameByFullPath(const char* path);

}  // namespace android::installd
