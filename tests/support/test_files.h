// Files and trees for tests. What cannot be made ends the process; parents are made too.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace peltex_test {

using Lines = std::vector<std::string>;

void makeDir(const std::string& path, mode_t mode = 0755);
void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644);
void makeLink(const std::string& target, const std::string& path);
void makeNode(const std::string& path, mode_t type);
void emptyDir(const std::string& path);  // follows no links

std::string readFile(const std::string& path);  // empty where there is none
bool exists(const std::string& path);           // of the entry itself: a dangling link exists
struct stat statOf(const std::string& path);

// "uid:gid mode" in decimal and octal, "10123:10123 771".
std::string ownerAndMode(const std::string& path);

// Names of everything below `path`, relative to it and sorted; directories end in '/'.
Lines listTree(const std::string& path);

// What stands below a directory, itself as ".", by relative path.
struct Entry {
    mode_t type;
    std::string ownerAndMode;
    std::string content;  // of a file; where a link leads
};
using Snapshot = std::map<std::string, Entry>;
Snapshot snapshotOf(const std::string& directory);

// "PATH: made", ": removed", ": replaced" by another type, ": written" or ": UID:GID MODE".
Lines changesBetween(const Snapshot& before, const Snapshot& after);

// A fresh directory under `parent`, removed with all it holds when the object goes.
class TempTree {
  public:
    explicit TempTree(const std::string& parent = "/data/data");
    ~TempTree();
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    const std::string& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

  private:
    std::string mPath;
};

}  // namespace peltex_test
