// How many entries and bytes a task takes, where the library does not tell: of a tree by the rules
// of its copies and archives, of a list by its records.
//
// Thread-safe. What cannot be read makes the counts unknown.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

namespace peltexctl {

struct TreeCounts {
    uint64_t entries = 0;  // files and directories, but for the root of a tree
    uint64_t bytes = 0;    // of the regular files
};

enum class TreeRules {
    kCopy,           // no links, sockets, FIFOs and .dex files
    kCopyOfPackage,  // nor the directory "lib" in the root
    kPack,           // see IsLeftOutOfArchives()
};

// What a task of these rules takes of the file or directory `path`.
std::optional<TreeCounts> CountTree(const std::string& path, TreeRules rules);

// The records of a brief or of a permission record file.
std::optional<TreeCounts> CountRecords(const std::string& path);

// What the packer leaves out on purpose, with all below it.
bool IsLeftOutOfArchives(const std::string& path, const struct stat& info);

}  // namespace peltexctl
